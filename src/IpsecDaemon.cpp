// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Many changes of the IKE daemon's files in one step, and what the files hold.

#include "IpsecDaemon.h"

#include "DaemonFiles.h"
#include "FileChanges.h"
#include "SettingCheck.h"
#include "SyncedFile.h"
#include "Tracer.h"
#include "base/CancellationHeld.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

namespace Ipsec {

namespace {

constexpr unsigned entryLevel = 8;

const Tracer<entryLevel> trace("IpsecDaemon");

constinit SyncedFile connectionsFile = {"/etc/strongswan", connectionsPath, "/etc/strongswan/ipsec.conf.new",
                                        "/etc/strongswan/ipsec.conf.lock"};
constinit SyncedFile secretsFile = {"/etc/strongswan", secretsPath, "/etc/strongswan/ipsec.secrets.new",
                                    "/etc/strongswan/ipsec.secrets.lock"};

// Reports what failed, with the system's words for it.
bool failed(const Where& where, const FileError& error) noexcept {
  return error.number == 0 ? trace.failed(where, error.what)
                           : trace.failed(where, error.what, ": ", strerrordesc_np(error.number));
}

// Reports the first problem of a change. An unknown name is the caller's text, which may be anything.
bool refused(const Where& where, std::size_t place, const SettingProblem& problem) noexcept {
  const std::string_view name = knownSetting(problem.setting);
  return trace.failed(where, "Change ", place, ": ", name.empty() ? "unknown setting" : name, ": ",
                      std::string_view(problem.text));
}

// Makes all changes or none. Each is looked at once: many of them do not fit into the processor's memory.
template <class Change>
bool apply(const Where& where, SyncedFile& file, mode_t (*modeFor)(const OldFile&),
           bool (*check)(const stringmap&, std::vector<SettingProblem>*), const std::vector<stringmap>& settings) {
  if (settings.empty()) {
    return true;
  }
  std::vector<Change> changes;
  changes.reserve(settings.size());
  std::vector<SettingProblem> problems;
  for (const stringmap& given : settings) {
    if (!check(given, &problems)) {
      return refused(where, changes.size() + 1, problems.front());
    }
    changes.emplace_back(given);
  }
  SyncedFileLock lock;
  if (const FileError error = lock.take(file)) {
    return failed(where, error);
  }
  OldFile old;
  if (const FileError error = readOldFile(file.path, &old)) {
    return failed(where, error);
  }
  const TextPieces pieces = changedText(old.view(), changes);
  const FileError error = replaceSynced(file, old, modeFor(old), pieces.all());
  return !error || failed(where, error);
}

mode_t connectionsMode(const OldFile& old) {
  return old.exists ? old.status.st_mode & ALLPERMS : S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
}

mode_t secretsMode(const OldFile&) {
  return S_IRUSR | S_IWUSR;
}

// Calls a function with each line of a text, without its newline.
template <class Function>
void forEachLine(std::string_view text, const Function& function) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    function(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

// Replaces the list by what a function collects from the lines of a file.
template <class Collect>
bool list(const Where& where, const char* path, std::vector<Vello::String>* listed, const Collect& collect) {
  OldFile file;
  if (const FileError error = readOldFile(path, &file)) {
    return failed(where, error);
  }
  std::vector<Vello::String> found;
  forEachLine(file.view(), [&](std::string_view line) { collect(line, found); });
  *listed = std::move(found);
  return true;
}

bool isBlankOrComment(std::string_view line) {
  const std::size_t begin = line.find_first_not_of(" \t\r");
  return begin == line.npos || line[begin] == '#';
}

}  // namespace

bool applyConnections(const std::vector<stringmap>& changes) {
  const Base::CancellationHeld held;
  trace.entered();
  return apply<ConnectionChange>("applyConnections", connectionsFile, connectionsMode, checkConnection, changes);
}

bool applySecrets(const std::vector<stringmap>& changes) {
  const Base::CancellationHeld held;
  trace.entered();
  return apply<SecretChange>("applySecrets", secretsFile, secretsMode, checkSecret, changes);
}

bool listConnections(std::vector<Vello::String>* names) {
  const Base::CancellationHeld held;
  trace.entered();
  return list("listConnections", connectionsPath, names, [](std::string_view line, std::vector<Vello::String>& found) {
    if (isSectionHead(line)) {
      found.emplace_back(line.substr(sectionHead.size()));
    }
  });
}

bool listSecrets(std::vector<Vello::String>* peers) {
  const Base::CancellationHeld held;
  trace.entered();
  return list("listSecrets", secretsPath, peers, [](std::string_view line, std::vector<Vello::String>& found) {
    const std::size_t end = line.find(" :");
    if (end != line.npos && !isBlankOrComment(line)) {
      found.emplace_back(end == 0 ? "%default" : line.substr(0, end));
    }
  });
}

}  // namespace Ipsec

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "DaemonFiles.h"

#include "CheckedAt.h"
#include "SectionRows.h"

#include <utility>

namespace Ipsec {

namespace {

bool has(const stringmap& settings, const char* name) {
  return settings.find(name) != settings.end();
}

bool hasValue(const stringmap& settings, const char* name, const char* value) {
  const auto found = settings.find(name);
  return found != settings.end() && found->second == value;
}

bool isDefaultSection(const stringmap& settings) {
  return hasValue(settings, "default", "%default");
}

// Kept (default-ignores-peer): the entry for any peer names no peer. Any other value of secret has no effect.
bool isDefaultSecret(const stringmap& entry) {
  return hasValue(entry, "secret", "%default");
}

// --- Rows ------------------------------------------------------------------------------------------------------------

bool holds(const When& when, const stringmap& settings) {
  if (when.value != nullptr) {
    return hasValue(settings, when.setting, when.value);
  }
  return when.setting == nullptr || has(settings, when.setting);
}

// Returns the daemon's word for an authentication type's text.
Vello::String daemonAuthType(const Vello::String& text) {
  const stringmap words = {
      {Ike::stringValue(Ike::IpsecAuthType::PreSharedKey), "secret"},
      {Ike::stringValue(Ike::IpsecAuthType::PublicKey), "pubkey"},
  };
  return checkedAt(words, text);
}

Vello::String textOf(const Value& value, const stringmap& settings) {
  // Kept (values-verbatim): newlines and quotes are written too. The caller must check them.
  Vello::String text = checkedAt(settings, value.setting);
  switch (value.form) {
    case Value::Form::Seconds:
      text += "s";
      break;
    case Value::Form::AuthType:
      text = daemonAuthType(text);
      break;
    case Value::Form::Verbatim:
      break;
  }
  return text;
}

template <std::size_t rowCount>
std::string sectionText(const Row (&rows)[rowCount], const stringmap& settings) {
  std::string text;
  for (const Row& row : rows) {
    if (!holds(row.when, settings)) {
      continue;
    }
    text += row.text;
    if (row.value.setting != nullptr) {
      text += textOf(row.value, settings).str();
    }
    text += "\n";
  }
  return text;
}

// --- Lines -----------------------------------------------------------------------------------------------------------

// Returns the name of the section that is removed.
// Kept (default-names-another): for a default other than "%default", config still names the section that is written.
std::string replacedSection(const stringmap& settings) {
  for (const char* name : {"default", "config"}) {
    const auto found = settings.find(name);
    if (found != settings.end()) {
      return found->second.str();
    }
  }
  return {};  // Kept (empty-name): it is a name. The head is then "conn " alone.
}

}  // namespace

// Kept (presence-counts): the value does not count. "no" means yes.
bool deletes(const stringmap& settings) {
  return has(settings, "delete");
}

// --- The connections file --------------------------------------------------------------------------------------------

std::string replacedHead(const stringmap& settings) {
  return std::string(sectionHead) + replacedSection(settings);
}

bool replacesGlobalSection(const stringmap& settings) {
  return has(settings, "uniqueids");
}

// Kept (name-unescaped): the name is put into the expression as it is, and the first head that matches is removed.
ConnectionLines::ConnectionLines(std::string head, bool replacesGlobal)
    : ownHead(std::move(head), LineMatcher::Covers::WholeLine), global(replacesGlobal ? Part::Ahead : Part::Behind) {}

bool ConnectionLines::keeps(std::string_view line) {
  // Kept (config-setup-anywhere): the words start the global section wherever they are in a line, even in a comment.
  // Kept (first-global-only): a second global section stays.
  if (global == Part::Ahead && line.find(globalSection) != std::string_view::npos) {
    global = Part::Within;
    return false;
  }
  if (global == Part::Within) {
    if (!isSectionHead(line)) {
      return false;
    }
    global = Part::Behind;
  }
  return keepsOutsideGlobal(line);
}

// Kept (first-section-only): only the first section of the name is removed. A second one stays.
// Kept (body-to-next-head): comments and empty lines up to the next head are removed with the section.
bool ConnectionLines::keepsOutsideGlobal(std::string_view line) {
  if (section == Part::Ahead && ownHead.matches(line)) {
    section = Part::Within;
    return false;
  }
  if (section == Part::Within) {
    if (!isSectionHead(line)) {
      return false;
    }
    section = Part::Behind;
  }
  return true;
}

// Kept (uniqueids-values): "add" writes a new section. Any other value, even an empty one, only drops the file's own.
std::string_view newGlobalSection(const stringmap& settings) {
  return hasValue(settings, "uniqueids", "add") ? "config setup\n\tuniqueids=no\n" : "";
}

std::string newSection(const stringmap& given) {
  if (!isDefaultSection(given)) {
    return sectionText(ordinarySection, given);
  }
  stringmap settings = given;
  // emplace keeps a setting that is present already.
  settings.emplace("authby", Ike::stringValue(Ike::IpsecAuthType::PreSharedKey));
  settings.emplace("ikelifetime", Cor::_fmt("%u", 28800U));
  settings.emplace("lifetime", Cor::_fmt("%u", 3600U));
  // Kept (default-keyexchange): this is not a version to the daemon. Each section has its own.
  settings.emplace("ikeVersion", "2");
  return sectionText(defaultSection, settings);
}

// --- The secrets file ------------------------------------------------------------------------------------------------

std::optional<std::string> replacedStart(const stringmap& entry) {
  if (isDefaultSecret(entry)) {
    return " : PSK";  // Kept (default-entry-blank): an entry without the leading blank is a different line.
  }
  const auto peer = entry.find("peerIp");
  if (peer == entry.end()) {
    return std::nullopt;
  }
  return peer->second.str() + " :";  // Kept (address-unescaped): the address is put into the expression as it is.
}

SecretLines::SecretLines(std::optional<std::string> start) {
  if (start) {
    replaced.emplace(std::move(*start), LineMatcher::Covers::Start);
  }
}

bool SecretLines::keeps(std::string_view line) {
  if (!replaced || !replaced->matches(line)) {
    return true;
  }
  replaced.reset();  // Kept (first-entry-only): a second one stays; the first is removed whatever its kind.
  return false;
}

Base::SecretText newSecret(const stringmap& entry) {
  const std::string_view peer = isDefaultSecret(entry) ? "" : std::string_view(checkedAt(entry, "peerIp"));
  const std::string_view key = checkedAt(entry, "key");
  Base::SecretText line;
  for (const std::string_view piece : {peer, std::string_view(" : PSK "), key, std::string_view("\n")}) {
    line.insert(line.end(), piece.begin(), piece.end());
  }
  return line;
}

}  // namespace Ipsec

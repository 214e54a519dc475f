// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "WholeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace Ipsec {

using Base::Descriptor;

namespace {

// Reads up to size bytes. Returns their number, 0 at the end of the file, or -1 for an error.
ssize_t readSome(const Descriptor& file, char* bytes, std::size_t size) noexcept {
  ssize_t count;
  do {
    count = ::read(file.get(), bytes, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

// Returns whether an error of open() is about the process and not about the file.
bool isExhaustion(int error) noexcept {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EAGAIN;
}

// Opens the temporary file, and empties one that a failed call left. Only a regular file with one link that belongs to
// this user is written: anything else has been put there by somebody else, to be written through or to be moved.
Descriptor openTemporary(const char* path) noexcept {
  Descriptor file = Base::openFile(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK, 0666);
  struct stat status = {};
  const bool ours = isRegular(file, status) && status.st_nlink == 1 && status.st_uid == geteuid();
  return ours && ::ftruncate(file.get(), 0) == 0 ? std::move(file) : Descriptor();
}

}  // namespace

bool isRegular(const Descriptor& file, struct stat& status) noexcept {
  return fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
}

int readRest(const Descriptor& file, std::size_t size, FileText* read) {
  constexpr std::size_t roomAtLeast = 4096;
  auto& text = read->text;
  text.resize(size + roomAtLeast);  // the file may have grown, and some have no size
  std::size_t length = 0;
  ssize_t count;
  while ((count = readSome(file, text.data() + length, text.size() - length)) > 0) {
    length += static_cast<std::size_t>(count);
    if (text.size() - length < roomAtLeast) {
      text.resize(2 * text.size());
    }
  }
  const int error = count < 0 ? errno : 0;
  text.resize(length);
  return error;
}

FileText readWholeFile(const char* path) {
  // Kept (unread-is-empty): a file that cannot be opened has no lines. If reading fails, those before that count.
  const Descriptor file = Base::openFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!file.isOpen()) {
    return {{}, isExhaustion(errno)};
  }
  struct stat status = {};
  FileText read;
  if (isRegular(file, status) && readRest(file, static_cast<std::size_t>(status.st_size), &read) != 0) {
    read.text.resize(read.view().rfind('\n') + 1);  // npos + 1 is 0: no whole line.
  }
  return read;
}

// Kept (mode-from-umask): the old file's mode is ignored.
// Kept (stale-file-mode): a temporary file that a failed call left is emptied, and keeps its mode.
Replacement::Replacement(const char* replaced)
    : path(replaced),
      temporaryPath(path + ".tmp"),
      old(readWholeFile(replaced)),
      file(openTemporary(temporaryPath.c_str())),
      whole(file.isOpen()) {
  if (old.exhausted) {  // another thread may have closed something since
    old = readWholeFile(replaced);
  }
}

bool writeAll(const Descriptor& file, std::string_view text) noexcept {
  while (!text.empty()) {
    const ssize_t count = ::write(file.get(), text.data(), text.size());
    if (count > 0) {
      text.remove_prefix(static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

void Replacement::append(std::string_view text) noexcept {
  whole = whole && writeAll(file, text);
}

// Kept (one-line-for-unwritten): whatever failed since the opening, the caller reports it as a failed rename.
// Kept (stale-file-stays): a temporary file that is not moved is not removed either.
bool Replacement::moveIntoPlace() noexcept {
  return file.close() && whole && !old.exhausted && std::rename(temporaryPath.c_str(), path.c_str()) == 0;
}

}  // namespace Ipsec

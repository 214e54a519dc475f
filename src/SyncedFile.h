// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A file of the daemon's that is read strictly, and replaced by one caller at a time in a way that outlasts a power
// failure.
#pragma once

#include "WholeFile.h"
#include "base/Descriptor.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <optional>
#include <string_view>
#include <vector>

namespace Ipsec {

// What failed, and the system's number for the reason, or 0. False stands for nothing.
struct FileError {
  const char* what = nullptr;
  int number = 0;

  explicit operator bool() const noexcept { return what != nullptr; }
};

// The names around one file, and which process is changing it. It is constant-initialised and has nothing to destroy.
struct SyncedFile {
  const char* folder;
  const char* path;
  const char* newPath;   // the new file while it is built
  const char* lockPath;  // stays
  std::atomic<pid_t> changing = 0;
};

// SyncedFileLock is held by one thread of one process at a time. It ends with the process, and a child of fork does not
// inherit it.
class SyncedFileLock {
 public:
  SyncedFileLock() = default;
  ~SyncedFileLock();
  SyncedFileLock(const SyncedFileLock&) = delete;
  SyncedFileLock& operator=(const SyncedFileLock&) = delete;

  // Waits for it up to ten seconds.
  FileError take(SyncedFile& file) noexcept;

 private:
  SyncedFile* turnOf = nullptr;
  std::optional<Base::Descriptor> lock;
};

// An old file. One that does not exist is empty and has no status.
struct OldFile {
  FileText read;
  bool exists = false;
  struct stat status = {};

  std::string_view view() const noexcept { return read.view(); }
};

// Reads a file. Only one that does not exist counts as empty. Whatever is not a regular file is refused and never
// waited for; a link is followed. Throws std::bad_alloc.
FileError readOldFile(const char* path, OldFile* old);

// Puts a new file into the place of the old one, with its owner and group. The lock must be held.
FileError replaceSynced(const SyncedFile& file, const OldFile& old, mode_t mode,
                        const std::vector<std::string_view>& pieces) noexcept;

}  // namespace Ipsec

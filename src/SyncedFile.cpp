// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "SyncedFile.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

namespace Ipsec {

using Base::Descriptor;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds longestWait(10);

// Waits a little. Returns false if it has been long enough.
bool waited(Clock::time_point begun) noexcept {
  if (Clock::now() - begun >= longestWait) {
    return false;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return true;
}

// Takes the turn among the threads of this process. What another process has left there came with fork.
bool takesTurn(std::atomic<pid_t>& changing) noexcept {
  const pid_t self = getpid();
  pid_t holder = changing.load(std::memory_order_relaxed);
  return holder != self && changing.compare_exchange_strong(holder, self, std::memory_order_acquire);
}

// Calls a function of the system again as long as a signal interrupts it.
template <class Function>
auto uninterrupted(const Function& function) noexcept {
  auto result = function();
  while (result < 0 && errno == EINTR) {
    result = function();
  }
  return result;
}

FileError timedOut() noexcept {
  return {"Another change of the file did not end", ETIMEDOUT};
}

// Takes the turn among processes, by a record lock, which a child of fork does not inherit.
FileError lockFile(const Descriptor& file, Clock::time_point begun) noexcept {
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  while (uninterrupted([&] { return ::fcntl(file.get(), F_SETLK, &whole); }) != 0) {
    if (errno != EACCES && errno != EAGAIN) {
      return {"Cannot lock the lock file", errno};
    }
    if (!waited(begun)) {
      return timedOut();
    }
  }
  return {};
}

// Returns whether nobody else could open the lock file and hold the lock for ever.
bool isPrivate(const struct stat& status) noexcept {
  return (status.st_mode & (S_IRWXG | S_IRWXO)) == 0 && (status.st_uid == geteuid() || status.st_uid == 0);
}

bool isStillAt(const char* path, const struct stat& status) noexcept {
  struct stat there = {};
  return ::lstat(path, &there) == 0 && there.st_dev == status.st_dev && there.st_ino == status.st_ino;
}

bool writePieces(const Descriptor& file, const std::vector<std::string_view>& pieces) noexcept {
  std::array<struct iovec, 256> batch;
  std::size_t written = 0;  // bytes of the first piece of the batch
  for (std::size_t from = 0; from < pieces.size();) {
    const std::size_t count = std::min(batch.size(), pieces.size() - from);
    const std::string_view* const first = pieces.data() + from;
    std::transform(first, first + count, batch.begin(), [](std::string_view piece) {
      return iovec{const_cast<char*>(piece.data()), piece.size()};
    });
    batch[0].iov_base = static_cast<char*>(batch[0].iov_base) + written;
    batch[0].iov_len -= written;
    const ssize_t sent = uninterrupted([&] { return ::writev(file.get(), batch.data(), static_cast<int>(count)); });
    if (sent <= 0) {
      return false;
    }
    written += static_cast<std::size_t>(sent);
    while (from < pieces.size() && written >= pieces[from].size()) {
      written -= pieces[from++].size();
    }
  }
  return true;
}

// Writes the new file under its own name, and syncs it.
FileError build(const SyncedFile& file, const OldFile& old, mode_t mode,
                const std::vector<std::string_view>& pieces) noexcept {
  Descriptor built = Base::openFile(file.newPath, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, S_IRUSR | S_IWUSR);
  if (!built.isOpen()) {
    return {"Cannot create the new file", errno};
  }
  if (!writePieces(built, pieces)) {
    return {"Cannot write the new file", errno};
  }
  if (old.exists && ::fchown(built.get(), old.status.st_uid, old.status.st_gid) != 0) {
    return {"Cannot keep the owner and the group", errno};
  }
  if (::fchmod(built.get(), mode) != 0) {
    return {"Cannot set the mode of the new file", errno};
  }
  if (uninterrupted([&] { return ::fsync(built.get()); }) != 0 || !built.close()) {
    return {"Cannot sync the new file", errno};
  }
  return {};
}

}  // namespace

SyncedFileLock::~SyncedFileLock() {
  lock.reset();
  if (turnOf != nullptr) {
    turnOf->changing.store(0, std::memory_order_release);
  }
}

FileError SyncedFileLock::take(SyncedFile& file) noexcept {
  const Clock::time_point begun = Clock::now();
  while (!takesTurn(file.changing)) {
    if (!waited(begun)) {
      return timedOut();
    }
  }
  turnOf = &file;
  for (;;) {
    lock.emplace(
        Base::openFile(file.lockPath, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, S_IRUSR | S_IWUSR));
    if (!lock->isOpen()) {
      return {"Cannot open the lock file", errno};
    }
    struct stat status = {};
    if (!isRegular(*lock, status) || !isPrivate(status)) {
      return {"The lock file is not a file of this user's alone"};
    }
    if (const FileError error = lockFile(*lock, begun)) {
      return error;
    }
    if (isStillAt(file.lockPath, status)) {  // somebody may have removed it before it was locked
      return {};
    }
    if (!waited(begun)) {
      return timedOut();
    }
  }
}

FileError readOldFile(const char* path, OldFile* old) {
  const Descriptor file = Base::openFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!file.isOpen()) {
    return errno == ENOENT ? FileError{} : FileError{"Cannot open the old file", errno};
  }
  if (!isRegular(file, old->status)) {
    return {"The old file is not a regular file"};
  }
  old->exists = true;
  const int error = readRest(file, static_cast<std::size_t>(old->status.st_size), &old->read);
  return error == 0 ? FileError{} : FileError{"Cannot read the old file", error};
}

FileError replaceSynced(const SyncedFile& file, const OldFile& old, mode_t mode,
                        const std::vector<std::string_view>& pieces) noexcept {
  if (::unlink(file.newPath) != 0 && errno != ENOENT) {
    return {"Cannot remove what an earlier change left", errno};
  }
  FileError error = build(file, old, mode, pieces);
  if (!error && std::rename(file.newPath, file.path) != 0) {
    error = {"Cannot move the new file into place", errno};
  }
  if (error) {
    (void)::unlink(file.newPath);  // the next change tries again
    return error;
  }
  const Descriptor folder = Base::openFile(file.folder, O_RDONLY | O_DIRECTORY);
  if (!folder.isOpen() ||
      (uninterrupted([&] { return ::fsync(folder.get()); }) != 0 && errno != EINVAL)) {  // some file systems cannot
    return {"The new file is in place, but may not outlast a power failure: cannot sync the folder", errno};
  }
  return {};
}

}  // namespace Ipsec

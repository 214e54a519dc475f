// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "platform/linux/VrfFile.h"

#include "base/CancellationHeld.h"
#include "base/Descriptor.h"
#include "platform/linux/VrfSegment.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>

namespace Vrf {

void throwError(int error, const char* name, const char* what) {
  throw std::system_error(error, std::generic_category(), std::string("VRF status table ") + name + ": " + what);
}

namespace {

using Base::Descriptor;

// --- Files -----------------------------------------------------------------------------------------------------------

// A pipe in the segment's place is not waited for.
Descriptor openOrThrow(const char* file, int flags, mode_t mode, const char* name) {
  const Base::StandardNumbersTaken taken;
  Descriptor opened(shm_open(file, flags | O_NONBLOCK, mode));
  if (!opened.isOpen()) {
    throwError(errno, name, "cannot be opened");
  }
  return opened;
}

// Everybody may put a file into the folder of the segments. What another user put there is not believed. It is not
// mapped either: its owner could shrink it, and SIGBUS would end the process. The mode of an open file is up to its
// owner, so both are asked of the open file.
struct stat trustedOrThrow(const Descriptor& file, mode_t forbidden, const char* name) {
  struct stat status = {};
  if (fstat(file.get(), &status) != 0) {
    throwError(errno, name, "cannot be examined");
  }
  if (status.st_uid != 0 && status.st_uid != geteuid()) {
    throwError(EACCES, name, "belongs to another user");
  }
  if ((status.st_mode & forbidden) != 0) {
    throwError(EACCES, name, "is open to other users");
  }
  return status;
}

bool hasSize(const struct stat& status, std::uintmax_t size) noexcept {
  return S_ISREG(status.st_mode) && static_cast<std::uintmax_t>(status.st_size) == size;
}

// The memory is reserved and not only given a size: if no memory were left later, writing would end in SIGBUS.
void reserveOrThrow(const Descriptor& file, const char* name) {
  int error = 0;
  do {
    error = posix_fallocate(file.get(), 0, sizeof(Segment));
  } while (error == EINTR);
  if (error != 0) {
    throwError(error, name, "cannot be given memory");
  }
}

Segment* mapOrThrow(const Descriptor& file, const char* name, int protection) {
  void* const memory = mmap(nullptr, sizeof(Segment), protection, MAP_SHARED, file.get(), 0);
  if (memory == MAP_FAILED) {
    throwError(errno, name, "cannot be mapped");
  }
  return static_cast<Segment*>(memory);
}

// --- The writer's lock -----------------------------------------------------------------------------------------------

// Longer than any name that the kernel takes: a name that is cut off here is refused.
using LockName = std::array<char, 512>;

LockName lockNameOf(const char* name, ino_t inode) noexcept {
  LockName lock;
  (void)std::snprintf(lock.data(), lock.size(), "%s.%ju.lock", name, static_cast<std::uintmax_t>(inode));
  return lock;
}

Descriptor lockOrThrow(const LockName& lockName, const char* name) {
  Descriptor lock = openOrThrow(lockName.data(), O_RDWR | O_CREAT, S_IRUSR | S_IWUSR, name);
  (void)trustedOrThrow(lock, S_IRWXG | S_IRWXO, name);
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (fcntl(lock.get(), F_OFD_SETLK, &whole) == 0) {
    return lock;
  }
  if (errno == EAGAIN || errno == EACCES) {
    throwError(EBUSY, name, "has another writer");
  }
  throwError(errno, name, "cannot be locked");
}

// The segments that this process writes. Nothing here is constructed at load or destroyed at exit.
struct Writer {
  dev_t device;
  ino_t inode;
  Segment* segment;
  Descriptor lock;  // closed in a child that fork made
  std::size_t users;
  Writer* next;
};

std::mutex writersMutex;
Writer* firstWriter = nullptr;
bool forkIsWatched = false;

// Returns the place of the link to the writer that is sought, which holds nullptr if there is none.
template <class Predicate>
Writer** findWriter(const Predicate& isSought) noexcept {
  Writer** link = &firstWriter;
  while (*link != nullptr && !isSought(**link)) {
    link = &(*link)->next;
  }
  return link;
}

Writer** findWriterOf(const Segment* segment) noexcept {
  return findWriter([segment](const Writer& writer) { return writer.segment == segment; });
}

void closeLocksInChild() noexcept {
  for (Writer* writer = firstWriter; writer != nullptr; writer = writer->next) {
    (void)writer->lock.close();
  }
  writersMutex.unlock();
}

// A child that fork makes would keep the locks alive after the writer's end, so it closes them. Programs that are
// executed do not get them in the first place.
void watchFork(const char* name) {
  if (forkIsWatched) {
    return;
  }
  const int error = pthread_atfork([] { writersMutex.lock(); }, [] { writersMutex.unlock(); }, closeLocksInChild);
  if (error != 0) {
    throwError(error, name, "cannot be kept to one process");
  }
  forkIsWatched = true;
}

// Makes this process the writer of an open segment. Returns nullptr if the segment was removed meanwhile.
Segment* becomeWriter(const Descriptor& file, const struct stat& status, const char* name) {
  const LockName lockName = lockNameOf(name, status.st_ino);
  auto writer = std::make_unique<Writer>(
      Writer{status.st_dev, status.st_ino, nullptr, lockOrThrow(lockName, name), 1, firstWriter});
  if (trustedOrThrow(file, S_IWGRP | S_IWOTH, name).st_nlink == 0) {
    (void)shm_unlink(lockName.data());
    return nullptr;
  }
  reserveOrThrow(file, name);
  writer->segment = mapOrThrow(file, name, PROT_READ | PROT_WRITE);
  firstWriter = writer.release();
  return firstWriter->segment;
}

}  // namespace

void Unmap::operator()(Segment* segment) const noexcept {
  const Base::CancellationHeld held;
  const std::lock_guard guard(writersMutex);
  Writer** const link = findWriterOf(segment);
  Writer* const writer = *link;
  if (writer != nullptr && --writer->users != 0) {
    return;
  }
  (void)munmap(segment, sizeof(Segment));
  if (writer != nullptr) {
    *link = writer->next;
    delete writer;  // this lets the next writer in
  }
}

MappedSegment mapForReading(const char* name) {
  const Descriptor file = openOrThrow(name, O_RDONLY, 0, name);
  const struct stat status = trustedOrThrow(file, S_IWGRP | S_IWOTH, name);
  if (hasSize(status, 0)) {
    throwError(ENOENT, name, "is not set up yet");
  }
  if (!hasSize(status, sizeof(Segment))) {
    throw Vello::CorruptionDetectedException(std::string("VRF status table ") + name + ": of another size");
  }
  return MappedSegment(mapOrThrow(file, name, PROT_READ));
}

MappedSegment mapForWriting(const char* name) {
  const std::lock_guard guard(writersMutex);
  watchFork(name);
  for (;;) {
    const Descriptor file = openOrThrow(name, O_RDWR | O_CREAT, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH, name);
    const struct stat status = trustedOrThrow(file, S_IWGRP | S_IWOTH, name);
    if (!hasSize(status, 0) && !hasSize(status, sizeof(Segment))) {
      throwError(EEXIST, name, "is of another size than a VRF status table");
    }
    Writer* const own = *findWriter([&status](const Writer& writer) {
      return writer.device == status.st_dev && writer.inode == status.st_ino && writer.lock.isOpen();
    });
    if (own != nullptr) {
      ++own->users;
      return MappedSegment(own->segment);
    }
    if (Segment* const segment = becomeWriter(file, status, name)) {
      return MappedSegment(segment);
    }
  }
}

void requireWriter(const Segment& segment) {
  const std::lock_guard guard(writersMutex);
  const Writer* const writer = *findWriterOf(&segment);
  if (writer == nullptr || !writer->lock.isOpen()) {
    throw std::system_error(EBUSY, std::generic_category(), "VRF status table: has another writer");
  }
}

void removeFiles(const char* name) noexcept {
  struct stat status = {};
  {
    const Base::StandardNumbersTaken taken;
    const Descriptor file(shm_open(name, O_RDONLY | O_NONBLOCK, 0));
    if (file.isOpen()) {
      (void)fstat(file.get(), &status);
    }
  }
  // The lock file goes last. A writer that gets a lock on a new one then finds the segment removed.
  if (shm_unlink(name) == 0 && status.st_ino != 0) {
    (void)shm_unlink(lockNameOf(name, status.st_ino).data());
  }
}

}  // namespace Vrf

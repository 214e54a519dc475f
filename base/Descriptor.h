// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Descriptor owns a file descriptor, and openFile opens one that is safe to own in a process with threads and children.
#pragma once

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace Base {

class Descriptor {
 public:
  // Takes what open() and similar functions return. A negative number stands for no descriptor.
  explicit Descriptor(int opened = -1) noexcept : number(opened) {}
  Descriptor(Descriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}
  ~Descriptor() { (void)close(); }
  Descriptor& operator=(Descriptor&&) = delete;

  int get() const noexcept { return number; }
  bool isOpen() const noexcept { return number >= 0; }

  // Closes the descriptor, if it is open. Returns true if the kernel accepted all that was written. It is called once
  // even if a signal interrupts it: Linux has released the number by then, and another thread may already use it.
  bool close() noexcept {
    const int closing = std::exchange(number, -1);
    return closing >= 0 && ::close(closing) == 0;
  }

 private:
  int number;
};

// StandardNumbersTaken keeps the numbers 0 to 2 occupied while it lives, so that what is opened meanwhile gets a higher
// one. In a process that has closed its standard error, a file could otherwise become descriptor 2, and what other
// threads print there would go into it. The placeholders can be neither read nor written.
class StandardNumbersTaken {
 public:
  StandardNumbersTaken() noexcept {
    for (std::size_t stream = 0; stream < placeholders.size(); ++stream) {
      const bool closed = ::fcntl(static_cast<int>(stream), F_GETFD) < 0;
      placeholders[stream] = closed ? ::open("/", O_PATH | O_CLOEXEC) : -1;
    }
  }
  ~StandardNumbersTaken() {
    const int error = errno;  // the caller reports why it could not open its file
    for (const int placeholder : placeholders) {
      if (placeholder >= 0) {
        (void)::close(placeholder);
      }
    }
    errno = error;
  }
  StandardNumbersTaken(const StandardNumbersTaken&) = delete;
  StandardNumbersTaken& operator=(const StandardNumbersTaken&) = delete;

 private:
  std::array<int, STDERR_FILENO + 1> placeholders;
};

// Opens a file as open() does, on a number above those of the standard streams, closed when another program is
// executed, and again whenever a signal interrupts it. If it cannot be opened, errno gives the reason.
inline Descriptor openFile(const char* path, int flags, mode_t mode = 0) noexcept {
  const StandardNumbersTaken taken;
  int opened;
  do {
    opened = ::open(path, flags | O_CLOEXEC, mode);
  } while (opened < 0 && errno == EINTR);
  return Descriptor(opened);
}

}  // namespace Base

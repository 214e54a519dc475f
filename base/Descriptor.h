// Descriptor owns a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace Base {

class Descriptor {
 public:
  // Takes the result of open() and similar functions. A negative number means that there is no descriptor.
  explicit Descriptor(int opened) noexcept : number(opened) {}
  ~Descriptor() { (void)close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const noexcept { return number; }
  bool isOpen() const noexcept { return number >= 0; }

  // Closes the descriptor. Returns whether the kernel accepted all that was written. Later calls return false.
  bool close() noexcept {
    const int closing = std::exchange(number, -1);
    return closing >= 0 && ::close(closing) == 0;
  }

 private:
  int number;
};

}  // namespace Base

// Descriptor owns a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace Base {

class Descriptor {
 public:
  // Takes what open() and its like return; a negative number stands for none.
  explicit Descriptor(int opened) noexcept : number(opened) {}
  ~Descriptor() { (void)close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const noexcept { return number; }
  bool isOpen() const noexcept { return number >= 0; }

  // Tells whether the kernel accepted all that was written. Only the first call closes; later ones return false.
  bool close() noexcept {
    const int closing = std::exchange(number, -1);
    return closing >= 0 && ::close(closing) == 0;
  }

 private:
  int number;
};

}  // namespace Base

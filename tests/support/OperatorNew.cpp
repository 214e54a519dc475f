// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/OperatorNew.h"

#include <new>

using Ipsec::Testing::giveMemory;
using Ipsec::Testing::takeMemory;

void* operator new(std::size_t size) {
  void* const memory = takeMemory(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return takeMemory(size);
}

void* operator new[](std::size_t size) {
  return operator new(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return takeMemory(size);
}

void operator delete(void* memory) noexcept {
  giveMemory(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  giveMemory(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept {
  giveMemory(memory);
}

void operator delete[](void* memory) noexcept {
  giveMemory(memory);
}

void operator delete[](void* memory, std::size_t) noexcept {
  giveMemory(memory);
}

void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  giveMemory(memory);
}

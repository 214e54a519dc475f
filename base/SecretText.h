// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// SecretText is a text that may hold secrets. All memory that it gives back is cleared before, also what it outgrows.
// New characters are not set, because they are read from a file at once.
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <memory>
#include <new>
#include <vector>

namespace Base {

template <class T>
struct ClearingAllocator {
  using value_type = T;

  ClearingAllocator() = default;
  template <class Other>
  ClearingAllocator(const ClearingAllocator<Other>&) noexcept {}

  T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
  void deallocate(T* memory, std::size_t count) noexcept {
    OPENSSL_cleanse(memory, count * sizeof(T));
    std::allocator<T>().deallocate(memory, count);
  }

  void construct(T* element) noexcept { ::new (element) T; }
  template <class... Values>
  void construct(T* element, Values&&... values) noexcept {
    ::new (element) T(static_cast<Values&&>(values)...);
  }

  friend bool operator==(const ClearingAllocator&, const ClearingAllocator&) noexcept { return true; }
};

// A vector has no room in itself for short texts, as a string has, so that all of it is in memory that is cleared.
using SecretText = std::vector<char, ClearingAllocator<char>>;

}  // namespace Base

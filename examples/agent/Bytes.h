// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Reading and appending big-endian fields, and bytes that are cleared when they are destroyed.
#pragma once

#include "Ipsec.h"

#include <openssl/crypto.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <utility>

namespace Agent {

using Ipsec::ByteVector;
using ByteView = std::span<const unsigned char>;

// Thrown when input from the network does not have the required form.
class Malformed : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// ByteReader reads input that cannot be trusted, from front to back. Every step is checked, and a step beyond the end
// throws Malformed. It borrows the bytes.
class ByteReader {
 public:
  explicit ByteReader(ByteView input) : rest(input) {}

  bool atEnd() const noexcept { return rest.empty(); }
  std::size_t remaining() const noexcept { return rest.size(); }

  ByteView take(std::size_t count) {
    if (count > rest.size()) {
      throw Malformed("a field extends beyond the end");
    }
    const ByteView taken = rest.first(count);
    rest = rest.subspan(count);
    return taken;
  }
  ByteView takeRest() { return take(rest.size()); }

  std::uint8_t u8() { return static_cast<std::uint8_t>(number(1)); }
  std::uint16_t u16() { return static_cast<std::uint16_t>(number(2)); }
  std::uint32_t u32() { return static_cast<std::uint32_t>(number(4)); }
  std::uint64_t u64() { return number(8); }

 private:
  std::uint64_t number(std::size_t count) {
    std::uint64_t value = 0;
    for (const unsigned char byte : take(count)) {
      value = value << 8 | byte;
    }
    return value;
  }

  ByteView rest;
};

// ByteWriter appends fields to a vector. finish() gives the vector to the caller.
class ByteWriter {
 public:
  ByteWriter& u8(std::uint64_t value) { return number(value, 1); }
  ByteWriter& u16(std::uint64_t value) { return number(value, 2); }
  ByteWriter& u32(std::uint64_t value) { return number(value, 4); }
  ByteWriter& u64(std::uint64_t value) { return number(value, 8); }
  ByteWriter& bytes(ByteView more) {
    written.insert(written.end(), more.begin(), more.end());
    return *this;
  }
  std::size_t size() const noexcept { return written.size(); }
  ByteVector finish() { return std::move(written); }

 private:
  ByteWriter& number(std::uint64_t value, std::size_t count) {
    for (std::size_t left = count; left > 0; --left) {
      written.push_back(static_cast<unsigned char>(value >> (8 * (left - 1))));
    }
    return *this;
  }

  ByteVector written;
};

inline ByteVector toVector(ByteView view) {
  return {view.begin(), view.end()};
}

inline ByteVector concat(std::initializer_list<ByteView> parts) {
  ByteWriter out;
  for (const ByteView part : parts) {
    out.bytes(part);
  }
  return out.finish();
}

// Secret holds key material and clears it when it is destroyed. It can be moved but not copied, so that there is only
// one copy to clear. Fill the vector bytes before anybody reads it, and do not let it grow afterwards.
class Secret {
 public:
  Secret() = default;
  explicit Secret(ByteVector from) : bytes(std::move(from)) {}
  Secret(Secret&& other) noexcept : bytes(std::move(other.bytes)) {}
  Secret& operator=(Secret&& other) noexcept {
    bytes.swap(other.bytes);
    return *this;
  }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  ~Secret() { OPENSSL_cleanse(bytes.data(), bytes.size()); }

  ByteVector bytes;
};

}  // namespace Agent

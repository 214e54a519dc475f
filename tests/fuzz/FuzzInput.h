// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What the fuzz targets share: reading an input piece by piece, and stopping at a finding.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

// libFuzzer calls it with each input, and the replay with each kept one.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace Ipsec::Testing {

// Stops the process with a line that says what does not hold. The fuzzer then keeps the input.
inline void require(bool holds, const char* what) {
  if (!holds) {
    (void)std::fprintf(stderr, "FINDING: %s\n", what);
    std::abort();
  }
}

// FuzzInput reads an input from front to back. At its end numbers are 0 and pieces are empty.
class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : next(data), left(size) {}

  bool atEnd() const { return left == 0; }

  std::uint8_t u8() {
    const std::vector<std::uint8_t> byte = bytes(1);
    return byte.empty() ? std::uint8_t{0} : byte.front();
  }

  std::uint16_t u16() {
    const unsigned high = u8();
    return static_cast<std::uint16_t>(high << 8 | u8());
  }

  // Returns the next bytes, or as many as are left.
  std::vector<std::uint8_t> bytes(std::size_t count) {
    const std::size_t taken = std::min(count, left);
    std::vector<std::uint8_t> piece(next, next + taken);
    next += taken;
    left -= taken;
    return piece;
  }

  std::vector<std::uint8_t> rest() { return bytes(left); }

  std::string restText() {
    const std::vector<std::uint8_t> piece = rest();
    return {piece.begin(), piece.end()};
  }

  // Returns the bytes up to the next newline, which is skipped.
  std::string line() {
    const std::uint8_t* const end = std::find(next, next + left, '\n');
    const bool ends = end != next + left;
    const std::vector<std::uint8_t> piece = bytes(static_cast<std::size_t>(end - next));
    if (ends) {
      (void)u8();
    }
    return {piece.begin(), piece.end()};
  }

 private:
  const std::uint8_t* next;
  std::size_t left;
};

// Takes from a name what could make the standard library's matcher run for hours or exhaust the stack: every repetition
// after the first one, alternatives beside one, and long counts. The writers' callers must avoid such names too.
inline std::string tamed(std::string name) {
  constexpr std::string_view repetitions = "*+?{";
  const std::size_t first = name.find_first_of(repetitions);
  for (std::size_t at = 0; at < name.size(); ++at) {
    const bool repeatsAgain = at > first && repetitions.find(name[at]) != std::string_view::npos;
    const bool choosesToo = first != std::string::npos && name[at] == '|';
    if (repeatsAgain || choosesToo) {
      name[at] = 'q';
    }
    if (at > 0 && first != std::string::npos && std::isdigit(static_cast<unsigned char>(name[at - 1])) != 0 &&
        std::isdigit(static_cast<unsigned char>(name[at])) != 0) {
      name[at] = ',';
    }
  }
  return name.substr(0, 64);
}

}  // namespace Ipsec::Testing

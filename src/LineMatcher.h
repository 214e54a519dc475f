// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// LineMatcher finds what std::regex_search finds with the ECMAScript expression "^" + start, followed by "$" for a
// whole line. Names and addresses usually hold no metacharacter but ".". They are compared byte by byte, which takes a
// fraction of the time of a search.
#pragma once

#include <cstddef>
#include <regex>
#include <string>
#include <string_view>

namespace Ipsec {

// Returns whether a character of a plain start, in which "." stands for all but a line's end, matches one of a line.
inline bool matchesOne(char expected, char character) noexcept {
  return expected == character || (expected == '.' && character != '\r' && character != '\n');
}

class LineMatcher {
 public:
  enum class Covers { Start, WholeLine };

  // Returns whether a text holds nothing of an expression but ".".
  static bool isPlain(std::string_view text) noexcept;

  // Returns whether a text of this length is refused.
  static bool isTooLong(std::size_t length, Covers extent) noexcept;

  // Throws std::regex_error for a text that is not a valid expression or is too long for one. A text that is compared
  // byte by byte and is too long is refused without compiling it: the standard library's compiler recurses at every
  // character and would exhaust the stack first.
  LineMatcher(std::string text, Covers extent);

  bool matches(std::string_view line) const;

 private:
  std::string start;
  Covers covers;
  bool plain;
  std::regex expression;  // compiled only when the start is not plain
};

}  // namespace Ipsec

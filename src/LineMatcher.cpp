// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "LineMatcher.h"

#include "platform/Framework.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Ipsec {

namespace {

constexpr std::size_t longestPlain = 99996;  // Kept (plain-name-length): libstdc++ refuses a longer one.

// Returns whether a character stands for itself in an expression, or is the "." that matches all but a line's end.
// Control characters are left to the standard library.
bool standsForItself(char character) noexcept {
  const auto code = static_cast<unsigned char>(character);
  return code >= 0x20 && code != 0x7F && std::strchr("^$\\*+?()[]{}|", character) == nullptr;
}

}  // namespace

bool LineMatcher::isPlain(std::string_view text) noexcept {
  return std::all_of(text.begin(), text.end(), standsForItself);
}

bool LineMatcher::isTooLong(std::size_t length, Covers extent) noexcept {
  const std::size_t anchors = extent == Covers::WholeLine ? 2 : 1;
  return length > longestPlain - anchors;
}

LineMatcher::LineMatcher(std::string text, Covers extent)
    : start(std::move(text)), covers(extent), plain(isPlain(start)) {
  if (!plain) {
    // Kept (name-is-expression): a text that does not compile throws.
    const std::string searched = "^" + start + (covers == Covers::WholeLine ? "$" : "");
    expression = Vello::Regex::compile(searched, std::regex_constants::ECMAScript);
  } else if (isTooLong(start.size(), covers)) {
    throw std::regex_error(std::regex_constants::error_space);
  }
}

bool LineMatcher::matches(std::string_view line) const {
  if (!plain) {
    return Vello::Regex::search(line, expression);
  }
  const bool longEnough = covers == Covers::WholeLine ? line.size() == start.size() : line.size() >= start.size();
  return longEnough && std::equal(start.begin(), start.end(), line.begin(), matchesOne);
}

}  // namespace Ipsec

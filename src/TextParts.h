// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The parts of a list, as the daemon splits it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace Ipsec {

// Returns the text without the blanks around it.
inline std::string_view trimmed(std::string_view text) noexcept {
  const std::size_t first = text.find_first_not_of(' ');
  return first == std::string_view::npos ? std::string_view()
                                         : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// Takes the text up to the separator off the front, without the blanks around it.
inline std::string_view takePart(std::string_view& rest, char separator) noexcept {
  const std::size_t end = std::min(rest.find(separator), rest.size());
  const std::string_view part = trimmed(rest.substr(0, end));
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return part;
}

}  // namespace Ipsec

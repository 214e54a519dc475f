// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Finds the known word that a mistyped one resembles. Nothing here allocates.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace Ipsec {

namespace Resemblance {

inline constexpr std::size_t longestWord = 32;

constexpr char lowerCase(char letter) noexcept {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

// Returns how many letters must be inserted, removed or replaced to turn one word into the other. Case does not count.
// Neither word may be longer than longestWord.
inline std::size_t distance(std::string_view left, std::string_view right) noexcept {
  std::array<std::size_t, longestWord + 1> row = {};
  for (std::size_t column = 0; column <= right.size(); ++column) {
    row[column] = column;
  }
  for (std::size_t line = 1; line <= left.size(); ++line) {
    std::size_t diagonal = row[0];
    row[0] = line;
    for (std::size_t column = 1; column <= right.size(); ++column) {
      const bool same = lowerCase(left[line - 1]) == lowerCase(right[column - 1]);
      const std::size_t replaced = diagonal + (same ? 0 : 1);
      diagonal = row[column];
      row[column] = std::min({row[column] + 1, row[column - 1] + 1, replaced});
    }
  }
  return row[right.size()];
}

}  // namespace Resemblance

// Returns the word of the table that differs least from the given one, or an empty text if none resembles it. The words
// are what the projection returns of the rows.
template <class Rows, class Projection>
std::string_view mostSimilar(std::string_view word, const Rows& rows, Projection wordOf) noexcept {
  std::string_view best = {};
  std::size_t least = word.size() <= 3 ? 2 : 3;  // one letter of a short word may differ, two of a longer one
  if (word.size() > Resemblance::longestWord) {
    return best;
  }
  for (const auto& row : rows) {
    const std::string_view known = wordOf(row);
    const std::size_t steps = Resemblance::distance(word, known);
    if (steps < least && steps < known.size()) {
      least = steps;
      best = known;
    }
  }
  return best;
}

}  // namespace Ipsec

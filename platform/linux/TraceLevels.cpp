// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "platform/linux/TraceLevels.h"

#include "platform/Trace.h"

#include <charconv>
#include <cstddef>
#include <system_error>

namespace Cor {

namespace {

// Reads a number below the number of levels.
std::optional<unsigned> readLevel(std::string_view digits) {
  unsigned level = 0;
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, level);
  if (error != std::errc() || stop != end || level >= TraceHandle::levels) {
    return std::nullopt;
  }
  return level;
}

// Reads "NAME=LEVEL" or "NAME=FIRST-LAST" and adds the levels to those that the name has already. Returns false for
// anything else.
bool readEntry(std::string_view entry, LevelMasks& masks) {
  const std::size_t equals = entry.find('=');
  if (equals == 0 || equals == std::string_view::npos) {
    return false;
  }
  const std::string_view range = entry.substr(equals + 1);
  const std::size_t dash = range.find('-');
  const std::optional<unsigned> first = readLevel(range.substr(0, dash));
  const std::optional<unsigned> last = dash == std::string_view::npos ? first : readLevel(range.substr(dash + 1));
  if (!first || !last || *first > *last) {
    return false;
  }
  std::uint32_t& mask = masks[std::string(entry.substr(0, equals))];
  for (unsigned level = *first; level <= *last; ++level) {
    mask |= std::uint32_t{1} << level;
  }
  return true;
}

}  // namespace

LevelReading readLevels(std::string_view text) {
  LevelReading reading;
  while (!text.empty()) {
    const std::size_t comma = text.find(',');
    const std::string_view entry = text.substr(0, comma);
    const bool more = comma != std::string_view::npos;
    text = more ? text.substr(comma + 1) : std::string_view();
    if (!readEntry(entry, reading.masks)) {
      reading.malformed = entry;
      return reading;
    }
    if (more && text.empty()) {
      reading.malformed = text;  // a comma with nothing after it
      return reading;
    }
  }
  return reading;
}

}  // namespace Cor

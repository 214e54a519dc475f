// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The text of TRACE_LEVELS against an expression for its entries. An input is the text.
#include "platform/linux/TraceLevels.h"
#include "tests/fuzz/FuzzInput.h"

#include <charconv>

namespace {

using namespace Ipsec::Testing;

// Returns the text's pieces between commas. An empty text has none.
std::vector<std::string> entriesOf(const std::string& text) {
  std::vector<std::string> entries;
  for (const char character : text) {
    if (entries.empty()) {
      entries.emplace_back();
    }
    if (character == ',') {
      entries.emplace_back();
    } else {
      entries.back() += character;
    }
  }
  return entries;
}

// Returns the number in digits, or 99 for anything else and for a level that does not exist.
unsigned levelIn(std::string digits) {
  constexpr unsigned none = 99;
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) {
    return none;
  }
  digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
  return digits.size() > 2 || std::stoul(digits) > 31 ? none : static_cast<unsigned>(std::stoul(digits));
}

// Adds an entry's levels. Returns false for an entry that is not valid.
bool addEntry(const std::string& entry, std::map<std::string, std::uint32_t>& masks) {
  const std::size_t equals = entry.find('=');
  if (equals == std::string::npos || equals == 0) {
    return false;
  }
  const std::string range = entry.substr(equals + 1);
  const std::size_t dash = range.find('-');
  const unsigned first = levelIn(range.substr(0, dash));
  const unsigned last = dash == std::string::npos ? first : levelIn(range.substr(dash + 1));
  if (first > 31 || last > 31 || first > last) {
    return false;
  }
  for (unsigned level = 0; level < 32; ++level) {
    masks[entry.substr(0, equals)] |= level >= first && level <= last ? 1U << level : 0U;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = FuzzInput(data, size).restText();
  const Cor::LevelReading reading = Cor::readLevels(text);
  std::map<std::string, std::uint32_t> masks;
  for (const std::string& entry : entriesOf(text)) {
    if (!addEntry(entry, masks)) {
      require(reading.malformed.has_value(), "a malformed entry is taken");
      require(*reading.malformed == entry, "another entry than the first malformed one is reported");
      return 0;
    }
  }
  require(!reading.malformed.has_value(), "a valid text is refused");
  require(std::equal(masks.begin(), masks.end(), reading.masks.begin(), reading.masks.end()),
          "the levels are other than the text's");
  return 0;
}

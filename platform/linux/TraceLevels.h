// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The text of TRACE_LEVELS. Nothing here traces, writes or switches a level.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace Cor {

// The levels of each name, one bit for each.
using LevelMasks = std::map<std::string, std::uint32_t, std::less<>>;

struct LevelReading {
  LevelMasks masks;
  std::optional<std::string_view> malformed;  // the first entry that is not valid, within the text
};

// Reads "NAME=LEVEL" and "NAME=FIRST-LAST", separated by commas.
LevelReading readLevels(std::string_view text);

}  // namespace Cor

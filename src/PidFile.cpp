// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "PidFile.h"

#include <string>

namespace Ipsec {

// Kept (pid-like-stoi): letters after the number are ignored. No number, or one beyond an int, throws.
std::optional<int> firstPid(std::string_view text) {
  const std::string line(text.substr(0, text.find('\n')));
  if (line.empty()) {
    return std::nullopt;
  }
  return std::stoi(line);
}

}  // namespace Ipsec

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The text of the IKE daemon's pid file. Nothing here opens a file.
#pragma once

#include <optional>
#include <string_view>

namespace Ipsec {

// Returns the number at the beginning of the text's first line, or nothing when that line is empty.
// Throws std::invalid_argument ("stoi") for a line that does not begin with a number, and std::out_of_range ("stoi")
// for a number outside the range of an int.
std::optional<int> firstPid(std::string_view text);

}  // namespace Ipsec

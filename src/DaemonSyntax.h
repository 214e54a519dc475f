// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// How the daemon reads the values of its two files. Every rule here is proved against the daemon by
// tests/interop/settings.py. Nothing allocates.
#pragma once

#include "Finding.h"

#include <string_view>

namespace Ipsec {

// A value of the connections file as the daemon's parser hands it on: without the blanks around it, and without quotes.
struct ReadValue {
  std::string_view text = {};
  bool quoted = false;
  Finding finding = {};  // why the parser refuses or misreads the value
};
ReadValue readValue(std::string_view written) noexcept;

// Whether a text holds a character that no value of the files may hold.
bool hasControlCharacter(std::string_view text) noexcept;

// What follows judges a value that has been read. An empty one is the daemon's own default and not judged here.

Finding judgeSectionName(const ReadValue& value) noexcept;
Finding judgeIdentity(const ReadValue& value) noexcept;
Finding judgeHosts(const ReadValue& value) noexcept;
Finding judgeSubnets(const ReadValue& value) noexcept;
Finding judgeMark(const ReadValue& value) noexcept;
Finding judgeRequestId(const ReadValue& value) noexcept;     // 32 bits
Finding judgeReplayWindow(const ReadValue& value) noexcept;  // 32 bits, or -1
Finding judgeLimit(const ReadValue& value) noexcept;         // 64 bits
Finding judgeDuration(const ReadValue& value) noexcept;      // with or without a unit

// Judges a number of seconds to which the writer adds the unit. The daemon keeps 32 bits of an IKE SA's life, and 64 of
// a tunnel's.
Finding judgeSecondsOfIke(std::string_view written) noexcept;
Finding judgeSecondsOfTunnel(std::string_view written) noexcept;

// Whether a limit is a number, is not zero, and the margin is a number that is not below it.
bool isMarginTooLarge(std::string_view margin, std::string_view limit) noexcept;

// The secrets file.
Finding judgeSelectors(std::string_view selectors) noexcept;
Finding judgeKey(std::string_view key) noexcept;

}  // namespace Ipsec

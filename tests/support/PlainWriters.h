// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The two writers in their plainest form: every line of an old text is searched with std::regex. What the library's
// writers do with a text must be what these do. They share no code with it but the names of the authentication types.
#pragma once

#include <map>
#include <string>

namespace Ipsec::Testing {

using PlainSettings = std::map<std::string, std::string>;

// How a call ends, and what it has written by then: the new file, or the copy before a setting is found to be missing.
struct PlainOutcome {
  enum class End { Done, SettingMissing, ExpressionRefused };

  End end = End::Done;
  std::string text;

  friend bool operator==(const PlainOutcome&, const PlainOutcome&) = default;
};

PlainOutcome plainConnections(const PlainSettings& settings, const std::string& before);
PlainOutcome plainSecrets(const PlainSettings& entry, const std::string& before);

}  // namespace Ipsec::Testing

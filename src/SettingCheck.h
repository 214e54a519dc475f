// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The names of the settings that a change may have.
#pragma once

#include <string_view>

namespace Ipsec {

// Returns the name if it is that of a setting of a connection or of a secret, and otherwise an empty text.
std::string_view knownSetting(std::string_view name) noexcept;

}  // namespace Ipsec

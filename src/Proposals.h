// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The proposals of the settings ike and esp, as the daemon reads them.
#pragma once

#include "Finding.h"

#include <string_view>

namespace Ipsec {

enum class ProposalFor { Ike, Esp };

// Says what is wrong with a list of proposals. A word is known if a daemon of version 5.9 or 6.0 knows it, whichever of
// its plugins are loaded.
Finding judgeProposals(std::string_view proposals, ProposalFor purpose) noexcept;

}  // namespace Ipsec

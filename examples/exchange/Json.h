// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The results as one JSON document (RFC 8259).
#pragma once

#include "Results.h"

#include <ostream>

namespace Exchange {

void printJson(std::ostream& out, const Results& results);

}  // namespace Exchange

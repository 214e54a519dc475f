// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Replaces Botan if it is not installed.

#include "End.h"

namespace Bench {

std::unique_ptr<End> botanEnd(unsigned) {
  return nullptr;
}

}  // namespace Bench

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Groups, private values and peers' values from an input, for the targets of the key exchange.
#pragma once

#include "tests/fuzz/FuzzInput.h"
#include "tests/support/PlainGroups.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Ipsec::Testing {

inline DhGroupNum groupFrom(FuzzInput& input) {
  return plainGroups[input.u8() % plainGroups.size()];
}

template <class T>
T oneOf(const std::vector<T>& choices, FuzzInput& input) {
  return choices[input.u8() % choices.size()];
}

// Reads a private value: one at the edges, or bytes of the input after leading zeros. At most 80 bytes: the plain
// arithmetic is slow.
inline ByteVector privateFrom(DhGroupNum group, FuzzInput& input) {
  const unsigned how = input.u8();
  if (how < 48) {
    ByteVector edge = oneOf(plainEdgePrivates(group), input);
    if (edge.size() <= 80) {
      return edge;
    }
  }
  const ByteVector bytes = input.bytes(how % 80);
  const std::ptrdiff_t zeros = how % 4 == 0 ? 2 : 0;  // made at full length: g++ 14 warns of an insertion's end
  ByteVector value(static_cast<std::size_t>(zeros) + bytes.size(), 0);
  std::copy(bytes.begin(), bytes.end(), value.begin() + zeros);
  return value;
}

}  // namespace Ipsec::Testing

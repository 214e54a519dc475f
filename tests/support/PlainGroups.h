// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// IKE's groups in their plainest form, over OpenSSL's big numbers alone: powers by squaring, points by the formulas of
// the chord and the tangent. The primes come from pi, as in RFC 2409 and RFC 3526. Slow, and nothing is kept secret.
#pragma once

#include "Ipsec.h"

#include <array>
#include <cstddef>
#include <optional>
#include <vector>

namespace Ipsec::Testing {

inline constexpr std::array<DhGroupNum, 11> plainGroups = {
    MODP_768,  MODP_1024, MODP_1536, MODP_2048, MODP_3072,     MODP_4096,
    MODP_6144, ECP_256,   ECP_384,   ECP_521,   MODP_2048_256,
};

std::size_t plainPublicBytes(DhGroupNum group);

// Returns the public value of a private one; nothing for the point at infinity, which has no coordinates.
std::optional<ByteVector> plainPublic(DhGroupNum group, const ByteVector& priv);

// Returns the secret; nothing where it must be refused. For MODP that is a peer outside 2 to p-2 (RFC 6989 section 2.1)
// or, in group 24, outside the subgroup (section 2.2), and a secret of 0, 1 or p-1. For the curves it is a peer that is
// no point after its coordinates have been reduced (section 2.3), and the infinity as secret.
std::optional<ByteVector> plainSecret(DhGroupNum group, const ByteVector& priv, const ByteVector& peer);

// Returns values of the right length at the edges of what a peer may send.
std::vector<ByteVector> plainEdgePeers(DhGroupNum group);

// Returns private values at the edges of the order.
std::vector<ByteVector> plainEdgePrivates(DhGroupNum group);

// Returns the private value as it can be read back: without leading zeros. Nothing for zero, and nothing for one that
// is longer than the order of a curve.
std::optional<ByteVector> plainReadBack(DhGroupNum group, const ByteVector& priv);

}  // namespace Ipsec::Testing

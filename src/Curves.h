// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The curves of the elliptic-curve groups. Group objects and fresh key pairs are created from state that all threads
// share.
#pragma once

#include "GroupTable.h"
#include "Ipsec.h"
#include "base/OpenSslPtr.h"

namespace Ipsec {

// Returns what EC_GROUP_new_by_curve_name returns for the group's curve. It is a copy of an object that is built only
// once: copying costs a fifth of building. Null when it cannot be created, and for a MODP group.
Base::CurvePtr newCurve(const Group& group);

// Returns what EVP_PKEY_Q_keygen returns for "EC" and the curve's name. That function builds the curve again each time
// and takes twice as long for group 19. Null when the key pair cannot be created, and for a MODP group.
Base::KeyPtr newCurveKey(const Group& group);

// Returns a key object with a peer's public value, x | y. Null when it cannot be created, and for a value that OpenSSL
// refuses: one of another length, one that is not a point of the curve, and one with a coordinate that is equal to or
// above the field's prime.
Base::KeyPtr newPeerKey(const EC_GROUP* curve, const ByteVector& value);

// Returns the length of a field element in bytes, computed from the curve.
int fieldLength(const EC_GROUP* curve);

}  // namespace Ipsec

// The curves of the elliptic-curve groups: a group object and fresh key pairs, from state that all threads share.
#pragma once

#include "GroupTable.h"
#include "base/OpenSslPtr.h"

namespace Ipsec {

// Returns what EC_GROUP_new_by_curve_name returns for the group's curve: a copy of one that is built once, which costs a
// fifth of building it. Null when it cannot be created, and for a MODP group.
Base::CurvePtr newCurve(const Group& group);

// Returns what EVP_PKEY_Q_keygen returns for "EC" and the curve's name, which builds the curve anew and takes twice as
// long for group 19. Null when it cannot be created, and for a MODP group.
Base::KeyPtr newCurveKey(const Group& group);

// Returns the length of a field element in bytes, computed from the curve.
int fieldLength(const EC_GROUP* curve);

}  // namespace Ipsec

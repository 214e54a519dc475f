// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "End.h"

namespace Bench {

const Bytes spis = {0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27};

End::~End() = default;

Bytes publicValueOf(End& end) {
  Bytes value;
  require(end.generate() && end.publicValue(value), "no public value");
  return value;
}

void exchange(const Contestant& contestant, unsigned group, const Bytes& peer, Yield& yield) {
  const std::unique_ptr<End> end = contestant.make(group);
  require(end->generate() && end->publicValue(yield.publicValue) && end->agree(peer, yield.secret) &&
              end->nonces(yield.nonces) && end->keys(yield.secret, yield.nonces, yield.keys),
          contestant.name);
}

}  // namespace Bench

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// All groups against plain arithmetic. What a peer sends is either refused, or gives the secret that the arithmetic
// gives; a refusal leaves the output as it was. An input chooses a group, a private value, and a peer's value: at the
// edges, somebody's public value, one that was damaged, or bytes.
#include "tests/fuzz/GroupsInput.h"

namespace {

using namespace Ipsec;
using namespace Ipsec::Testing;

ByteVector peerFrom(DhGroupNum group, FuzzInput& input) {
  const std::size_t size = plainPublicBytes(group);
  const unsigned how = input.u8() % 8;
  if (how == 0) {
    return oneOf(plainEdgePeers(group), input);
  }
  if (how == 1) {
    return input.rest();
  }
  if (how == 2) {
    ByteVector value = input.rest();
    value.resize(size);
    return value;
  }
  ByteVector value = plainPublic(group, privateFrom(group, input)).value_or(ByteVector(size, 0));
  if (how == 3) {
    value[input.u16() % size] ^= input.u8();
  }
  if (how == 4) {
    value.resize(size - 1 + input.u8() % 3);
  }
  return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const DhGroupNum group = groupFrom(input);
  const ByteVector priv = privateFrom(group, input);
  const ByteVector peer = peerFrom(group, input);

  IpsecDHGeneral exchange(group);
  require(exchange.initIpsecDH(), "a group cannot be used");
  require(exchange.setMyPrivateKey(&priv), "a private value is refused");
  const std::optional<ByteVector> expected = plainSecret(group, priv, peer);
  const bool accepted = exchange.setPeerPublicKey(&peer);
  require(accepted || !expected, "a peer's value is refused that has a secret");
  require(!accepted || expected, "a peer's value is accepted that must be refused");

  const ByteVector untouched = {1, 2, 3};
  ByteVector secret = untouched;
  require(exchange.getSharedSecret(&secret) == accepted, "there is a secret although the value was refused");
  require(secret == expected.value_or(untouched), "the secret is another one than the arithmetic's");
  return 0;
}

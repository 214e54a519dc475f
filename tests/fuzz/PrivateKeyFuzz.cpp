// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Importing private keys, for all groups: the public value is the arithmetic's, the key can be read back, and what was
// read gives the same key in another object, with which an exchange agrees. An input chooses a group and a key.
#include "tests/fuzz/GroupsInput.h"

namespace {

using namespace Ipsec;
using namespace Ipsec::Testing;

const ByteVector untouched = {1, 2, 3};

ByteVector publicValue(IpsecDHGeneral& exchange, bool exists) {
  ByteVector value = untouched;
  require(exchange.getMyPublicKey(&value) == exists, "there is a public value for the infinity, or none for a point");
  return value;
}

ByteVector secretWith(IpsecDHGeneral& exchange, const ByteVector& peer) {
  ByteVector secret;
  require(exchange.setPeerPublicKey(&peer) && exchange.getSharedSecret(&secret), "an exchange fails");
  return secret;
}

// Two objects with the same key agree with a third one.
void exchangeWith(DhGroupNum group, IpsecDHGeneral& first, IpsecDHGeneral& second, const ByteVector& own) {
  IpsecDHGeneral peer(group);
  ByteVector peerValue;
  require(peer.initIpsecDH() && peer.getMyPublicKey(&peerValue), "a peer has no public value");
  const ByteVector secret = secretWith(first, peerValue);
  require(secret == secretWith(second, peerValue), "two objects with one key have two secrets");
  require(secret == secretWith(peer, own), "the two sides have different secrets");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const DhGroupNum group = groupFrom(input);
  const ByteVector priv = privateFrom(group, input);

  IpsecDHGeneral first(group);
  require(first.initIpsecDH() && first.setMyPrivateKey(&priv), "a private key is refused");
  const std::optional<ByteVector> expected = plainPublic(group, priv);
  const ByteVector own = publicValue(first, expected.has_value());
  require(own == expected.value_or(untouched), "the public value is another one than the arithmetic's");

  const std::optional<ByteVector> expectedRead = plainReadBack(group, priv);
  ByteVector read = untouched;
  require(first.getMyPrivateKey(&read) == expectedRead.has_value(), "a private key can or cannot be read back");
  require(read == expectedRead.value_or(untouched), "another private key is read back");
  if (!expectedRead) {
    return 0;
  }

  IpsecDHGeneral second(group);
  require(second.initIpsecDH() && second.setMyPrivateKey(&read), "what was read back is refused");
  require(publicValue(second, expected.has_value()) == own, "what was read back is another key");
  // With a private value of which the peer's power is 1 there is no secret.
  const ByteVector someValue = *plainPublic(group, {2});
  if (expected && plainSecret(group, priv, someValue) && plainSecret(group, {2}, own)) {
    exchangeWith(group, first, second, own);
  }
  return 0;
}

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Agent is one side of a key exchange. It does what an IKE agent does with the library for one security association.
#pragma once

#include "Groups.h"
#include "Ipsec.h"
#include "Keys.h"
#include "SecretBytes.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace Exchange {

enum class Side { Initiator, Responder };

// What one side contributes and sends to the other.
struct Half {
  ByteVector spi;
  ByteVector publicValue;
  ByteVector nonce;
};

// A name, and a one-way image of something that must be the same on both sides.
struct Fingerprint {
  std::string name;
  ByteVector image;
};

// Call order: construct the object; send own() to the peer; call complete() with the peer's half; then call the rest.
class Agent {
 public:
  // Sets up the group, creates a key pair and draws the nonce and the SPI. Throws Failure.
  Agent(Side side, const Group& group, const Suite& suite);

  const Half& own() const { return half; }

  // Computes the shared secret and derives the keys. Throws Failure when the peer's half is refused.
  void complete(const Half& peer);

  // Returns images of everything that was exchanged, computed and derived, as the given side sends them. An image is
  // the PRF of the names of the side and of the item, with the item itself as the key. It therefore reveals no key, and
  // a side that merely sends back what it received does not match.
  std::vector<Fingerprint> fingerprints(Side sender) const;

  // Changes one bit of a key, for a run that must fail.
  void damageKey(KeyIndex key) { keys[key].bytes.front() ^= 1U; }

  std::size_t secretBytes() const { return secret.bytes.size(); }
  double initMicroseconds() const { return initTime; }
  double agreementMicroseconds() const { return agreementTime; }

 private:
  const Side side;
  const Suite& suite;
  Ipsec::IpsecDHGeneral exchange;
  Half half;
  std::pair<ByteVector, ByteVector> publicValues;  // the initiator's, the responder's
  ByteVector seed;
  SecretBytes secret;
  SecretBytes skeyseed;
  IkeKeys keys;
  double initTime = 0;
  double agreementTime = 0;
};

}  // namespace Exchange

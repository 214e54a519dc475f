// Agent is one side of a key exchange: what an IKE agent does with the library for one security association.
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

// What one side contributes and the other must learn.
struct Half {
  ByteVector spi;
  ByteVector publicValue;
  ByteVector nonce;
};

// A name and a one-way image of something that both sides must hold alike.
struct Fingerprint {
  std::string name;
  ByteVector image;
};

// Call order: construct; send own(); complete() with the peer's half; then the rest.
class Agent {
 public:
  // Sets up the group, makes a key pair and draws the nonce and the SPI. Throws Failure.
  Agent(Side side, const Group& group, const Suite& suite);

  const Half& own() const { return half; }

  // Computes the shared secret and draws the keys. Throws Failure when the peer's half is refused.
  void complete(const Half& peer);

  // Returns images of everything exchanged, computed and drawn, as the given side sends them. An image is the PRF of
  // the side's name and the item's under the item itself, so it gives no key away, and a side that sends back what it
  // was sent confirms nothing.
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

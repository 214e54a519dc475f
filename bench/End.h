// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// One end of an IKE SA set-up. The implementations are this library, bare OpenSSL called in the best way, and Botan.
#pragma once

#include "Interleave.h"

#include <memory>

namespace Bench {

// What all ends share: 32-byte nonces, PRF_HMAC_SHA2_256, the SPIs of both sides, and seven keys of 32 bytes (SK_d,
// SK_ai, SK_ar, SK_ei, SK_er, SK_pi, SK_pr of RFC 7296 section 2.14).
constexpr std::size_t nonceBytes = 32;
constexpr std::size_t keyBytes = 32;
constexpr std::size_t keyCount = 7;
extern const Bytes spis;

// Call order: generate or import; publicValue; agree; nonces; keys. Each function returns false on failure. Outputs are
// resized, so that a caller that reuses its vectors saves every implementation the allocation.
class End {
 public:
  virtual ~End();

  // Creates a fresh key pair.
  virtual bool generate() = 0;

  // Creates the key pair of a private key.
  virtual bool import(const Bytes& privateKey) = 0;

  // Writes this side's public value in IKE's wire form.
  virtual bool publicValue(Bytes& out) = 0;

  // Reads the peer's public value in the wire form, refuses a bad one (RFC 6989), and writes the shared secret.
  virtual bool agree(const Bytes& peer, Bytes& secret) = 0;

  // Draws two nonces and writes Ni | Nr.
  virtual bool nonces(Bytes& both) = 0;

  // Writes SK_d and the others: prf+(prf(Ni | Nr, g^ir), Ni | Nr | SPIi | SPIr).
  virtual bool keys(const Bytes& secret, const Bytes& both, Bytes& out) = 0;
};

// Creates a key pair, and returns its public value.
Bytes publicValueOf(End& end);

std::unique_ptr<End> libraryEnd(unsigned group);
std::unique_ptr<End> opensslEnd(unsigned group);

// Null if the benchmark was built without Botan.
std::unique_ptr<End> botanEnd(unsigned group);

struct Contestant {
  const char* name;
  std::unique_ptr<End> (*make)(unsigned group);
};

// The results of an exchange, in vectors that all implementations reuse.
struct Yield {
  Bytes publicValue;
  Bytes secret;
  Bytes nonces;
  Bytes keys;

  bool operator==(const Yield&) const = default;
};

// Sets an SA up with a peer's value and a fresh key pair. This is what is timed.
void exchange(const Contestant& contestant, unsigned group, const Bytes& peer, Yield& yield);

}  // namespace Bench

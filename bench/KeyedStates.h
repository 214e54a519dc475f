// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// HMAC and prf+ over bare OpenSSL, in the fastest way that its interface offers: two digest states that have absorbed
// the padded key are copied for each output.
#pragma once

#include "Interleave.h"
#include "base/OpenSslPtr.h"

#include <openssl/evp.h>

#include <cstddef>

namespace Bench {

// Returns the digest, fetched once and kept for the process. The name is one of SHA1, SHA256, SHA384, SHA512.
const EVP_MD* fetchedDigest(const char* name);

class KeyedStates {
 public:
  explicit KeyedStates(const EVP_MD* md);

  // Installs a key of at most a block's length.
  bool setKey(const unsigned char* key, std::size_t length);

  // Computes prf+ (RFC 7296 section 2.13) of a seed, as many bytes as out has: T(n-1), S and n are absorbed where they
  // are.
  bool expand(const Bytes& seed, Bytes& out);

  // The same, with T(n-1) | S | n joined in one buffer, so that each block is absorbed in one call.
  bool expandJoined(const Bytes& seed, Bytes& out);

 private:
  bool start();
  bool absorb(const unsigned char* input, std::size_t length);
  bool finish(unsigned char* output);

  const EVP_MD* md;
  std::size_t outputSize;
  Base::DigestContextPtr inner;
  Base::DigestContextPtr outer;
  Base::DigestContextPtr running;
};

// Computes an HMAC whose key is used only once, so that no state is kept.
bool hmacOnce(const EVP_MD* md, const Bytes& key, const Bytes& input, unsigned char* output);

}  // namespace Bench

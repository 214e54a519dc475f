// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Digests and long byte strings from an input, and HMAC at once, for the targets of key material.
#pragma once

#include "Ipsec.h"
#include "tests/fuzz/FuzzInput.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>

namespace Ipsec::Testing {

struct DigestChoice {
  HashAlgorithm number;
  const EVP_MD* (*digest)();
};

inline constexpr std::array<DigestChoice, 4> digests = {{
    {HASH_SHA1, EVP_sha1},
    {HASH_SHA256, EVP_sha256},
    {HASH_SHA384, EVP_sha384},
    {HASH_SHA512, EVP_sha512},
}};

inline const DigestChoice& digestFrom(FuzzInput& input) {
  return digests[input.u8() % digests.size()];
}

// Reads up to 63 bytes and repeats them up to 16 times: longer than every block and every buffer.
inline ByteVector stringFrom(FuzzInput& input) {
  const unsigned choice = input.u8();
  const unsigned times = choice < 192 ? 1 : input.u8() % 16 + 1;
  const ByteVector piece = input.bytes(choice % 64);
  ByteVector all;
  for (unsigned count = 0; count < times; ++count) {
    all.insert(all.end(), piece.begin(), piece.end());
  }
  return all;
}

inline ByteVector hmacAtOnce(const EVP_MD* digest, const ByteVector& key, const ByteVector& data) {
  static const unsigned char none = 0;  // a null key would mean the key of the last call
  ByteVector out(EVP_MAX_MD_SIZE);
  unsigned length = 0;
  const bool worked = HMAC(digest, key.empty() ? &none : key.data(), static_cast<int>(key.size()), data.data(),
                           data.size(), out.data(), &length) != nullptr;
  require(worked, "OpenSSL computes no HMAC");
  out.resize(length);
  return out;
}

}  // namespace Ipsec::Testing

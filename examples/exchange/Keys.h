// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The keys of an IKE security association (RFC 7296 section 2.14) for a suite of transforms.
#pragma once

#include "Ipsec.h"
#include "SecretBytes.h"

#include <array>
#include <cstddef>
#include <optional>

namespace Exchange {

// What two IKE daemons negotiate in addition to the group.
struct Suite {
  Ipsec::PrfType prf;
  Ipsec::HashAlgorithm hash;  // the PRF's
  const char* prfName;
  Ipsec::EncryptAlgoWithKeyLen encryption;
  const char* encryptionName;
  std::optional<Ipsec::IntegrityAlgo> integrity;  // none if the cipher provides its own
  const char* integrityName;
};

// One suite for each PRF.
// clang-format off
inline constexpr std::array<Suite, 4> suites = {{
    {Ipsec::PRF_HMAC_SHA1,     Ipsec::HASH_SHA1,   "HMAC-SHA1",
     {Ipsec::ENCR_AES_CBC, 128},    "AES-CBC-128",    Ipsec::AUTH_HMAC_SHA1_96,      "HMAC-SHA1-96"},
    {Ipsec::PRF_HMAC_SHA2_256, Ipsec::HASH_SHA256, "HMAC-SHA2-256",
     {Ipsec::ENCR_AES_CBC, 256},    "AES-CBC-256",    Ipsec::AUTH_HMAC_SHA2_256_128, "HMAC-SHA2-256-128"},
    {Ipsec::PRF_HMAC_SHA2_384, Ipsec::HASH_SHA384, "HMAC-SHA2-384",
     {Ipsec::ENCR_AES_GCM_16, 256}, "AES-GCM-16-256", std::nullopt,                  "(in the cipher)"},
    {Ipsec::PRF_HMAC_SHA2_512, Ipsec::HASH_SHA512, "HMAC-SHA2-512",
     {Ipsec::ENCR_AES_CBC, 256},    "AES-CBC-256",    Ipsec::AUTH_HMAC_SHA2_512_256, "HMAC-SHA2-512-256"},
}};
// clang-format on

// Returns the suite with this PRF, or null if there is none.
const Suite* findSuite(unsigned long prf);

// The seven keys, in the order in which they are drawn.
enum KeyIndex : std::size_t { SK_d, SK_ai, SK_ar, SK_ei, SK_er, SK_pi, SK_pr, keyCount };

inline constexpr std::array<const char*, keyCount> keyNames = {"SK_d",  "SK_ai", "SK_ar", "SK_ei",
                                                               "SK_er", "SK_pi", "SK_pr"};

using KeyLengths = std::array<std::size_t, keyCount>;
using IkeKeys = std::array<SecretBytes, keyCount>;

// Returns how many bytes each key takes. Throws Failure when the PRF cannot be set up.
KeyLengths keyLengths(const Suite& suite);

// Returns the sum of all keys' lengths.
std::size_t totalKeyBytes(const Suite& suite);

// Returns prf(key, input). Throws Failure.
SecretBytes prf(const Suite& suite, const ByteVector& key, const ByteVector& input);

// Returns the keys drawn from prf+(skeyseed, seed). Throws Failure.
IkeKeys drawKeys(const Suite& suite, const SecretBytes& skeyseed, const ByteVector& seed);

}  // namespace Exchange

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The constant tables from one of IKE's algorithm identifiers to another. They need no construction and no destruction:
// any thread may read them at any time, also while the process ends.
#pragma once

#include "CheckedAt.h"
#include "Ipsec.h"

namespace Ipsec {

inline constexpr TableRow<IntegrityAlgo, PrfType> integAlgoToPrfType[] = {
    {AUTH_HMAC_SHA1_96, PRF_HMAC_SHA1},
    {AUTH_HMAC_SHA2_256_128, PRF_HMAC_SHA2_256},
    {AUTH_HMAC_SHA2_384_192, PRF_HMAC_SHA2_384},
    {AUTH_HMAC_SHA2_512_256, PRF_HMAC_SHA2_512},
};

inline constexpr TableRow<PrfType, HashAlgorithm> prfTypeToHashAlgo[] = {
    {PRF_HMAC_SHA1, HASH_SHA1},
    {PRF_HMAC_SHA2_256, HASH_SHA256},
    {PRF_HMAC_SHA2_384, HASH_SHA384},
    {PRF_HMAC_SHA2_512, HASH_SHA512},
};

// The digests' names as OpenSSL knows them.
inline constexpr TableRow<HashAlgorithm, const char*> hashAlgoToName[] = {
    {HASH_SHA1, "sha1"},
    {HASH_SHA256, "sha256"},
    {HASH_SHA384, "sha384"},
    {HASH_SHA512, "sha512"},
};

inline constexpr TableRow<IntegrityAlgo, std::int32_t> integAlgoToKeyBits[] = {
    {AUTH_HMAC_SHA1_96, 160},
    {AUTH_HMAC_SHA2_256_128, 256},
    {AUTH_HMAC_SHA2_384_192, 384},
    {AUTH_HMAC_SHA2_512_256, 512},
};

// Holds only the transforms whose key length is fixed.
inline constexpr TableRow<EncryptionAlgo, std::int32_t> encryptAlgoToKeyBits[] = {
    {ENCR_3DES, 192},
};

}  // namespace Ipsec

// The constant tables between IKE's algorithm identifiers. Built when the library is loaded, read without a lock.
#pragma once

#include "Ipsec.h"

#include <unordered_map>

namespace Ipsec {

inline const std::unordered_map<IntegrityAlgo, PrfType> integAlgoToPrfType = {
    {AUTH_HMAC_SHA1_96, PRF_HMAC_SHA1},
    {AUTH_HMAC_SHA2_256_128, PRF_HMAC_SHA2_256},
    {AUTH_HMAC_SHA2_384_192, PRF_HMAC_SHA2_384},
    {AUTH_HMAC_SHA2_512_256, PRF_HMAC_SHA2_512},
};

inline const std::unordered_map<PrfType, HashAlgorithm> prfTypeToHashAlgo = {
    {PRF_HMAC_SHA1, HASH_SHA1},
    {PRF_HMAC_SHA2_256, HASH_SHA256},
    {PRF_HMAC_SHA2_384, HASH_SHA384},
    {PRF_HMAC_SHA2_512, HASH_SHA512},
};

// The digests' names as OpenSSL knows them.
inline const std::unordered_map<HashAlgorithm, const char*> hashAlgoToName = {
    {HASH_SHA1, "sha1"},
    {HASH_SHA256, "sha256"},
    {HASH_SHA384, "sha384"},
    {HASH_SHA512, "sha512"},
};

inline const std::unordered_map<IntegrityAlgo, std::int32_t> integAlgoToKeyBits = {
    {AUTH_HMAC_SHA1_96, 160},
    {AUTH_HMAC_SHA2_256_128, 256},
    {AUTH_HMAC_SHA2_384_192, 384},
    {AUTH_HMAC_SHA2_512_256, 512},
};

// Only transforms whose key length is fixed.
inline const std::unordered_map<EncryptionAlgo, std::int32_t> encryptAlgoToKeyBits = {
    {ENCR_3DES, 192},
};

}  // namespace Ipsec

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The Diffie-Hellman groups, one row per group. Everything that depends on a group's number is read from here.
#pragma once

#include "CheckedAt.h"
#include "Ipsec.h"

#include <openssl/bn.h>
#include <openssl/obj_mac.h>

#include <algorithm>
#include <array>
#include <cstdint>

namespace Ipsec {

using PrimeGetter = BIGNUM* (*)(BIGNUM*);

struct Group {
  DhGroupNum number;
  std::uint64_t publicBytes;  // length of a public value on the wire: that of the prime, or of two coordinates
  PrimeGetter prime;          // null for a curve, and for group 24
  int curve;                  // OpenSSL's number of the curve; NID_undef for a MODP group

  constexpr bool isModp() const noexcept { return curve == NID_undef; }
};

// Group 24 has no prime here: the crypto shim has all its parameters together (RFC 5114 section 2.3).
// clang-format off
inline constexpr std::array<Group, 11> groups = {{
    {MODP_768,           96, BN_get_rfc2409_prime_768,  NID_undef},
    {MODP_1024,         128, BN_get_rfc2409_prime_1024, NID_undef},
    {MODP_1536,         192, BN_get_rfc3526_prime_1536, NID_undef},
    {MODP_2048,         256, BN_get_rfc3526_prime_2048, NID_undef},
    {MODP_3072,         384, BN_get_rfc3526_prime_3072, NID_undef},
    {MODP_4096,         512, BN_get_rfc3526_prime_4096, NID_undef},
    {MODP_6144,         768, BN_get_rfc3526_prime_6144, NID_undef},
    {ECP_256,      2UL * 32, nullptr,                   NID_X9_62_prime256v1},
    {ECP_384,      2UL * 48, nullptr,                   NID_secp384r1},
    {ECP_521,      2UL * 66, nullptr,                   NID_secp521r1},
    {MODP_2048_256,     256, nullptr,                   NID_undef},
}};
// clang-format on

// Returns the group's row, or null for a number that is not supported.
// Kept (number-looked-up-whole): a number above 24 is not supported, even if its lowest bits are those of a group.
inline const Group* findGroup(DhGroupNum number) noexcept {
  const auto* row = std::find_if(groups.begin(), groups.end(), [number](const Group& g) { return g.number == number; });
  return row == groups.end() ? nullptr : row;
}

// Returns the length of the group's public value in bytes; 0 for a number that is not supported.
inline std::uint64_t dhGroupToSize(DhGroupNum number) noexcept {
  const Group* const group = findGroup(number);
  return group == nullptr ? 0 : group->publicBytes;
}

// Returns the function that creates the group's prime. Throws std::out_of_range for a group that has none here.
// Kept (modp-throws-for-curves): the groups of the curves have a row too, and the exception still results when the MODP
// form asks for their prime.
inline PrimeGetter dhGroupToPrime(DhGroupNum number) {
  const Group* const group = findGroup(number);
  if (group == nullptr || group->prime == nullptr) {
    throw std::out_of_range(missingKey);
  }
  return group->prime;
}

}  // namespace Ipsec

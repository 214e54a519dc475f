// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What the tests of the crypto shim share: owning pointers, numbers and bytes, the groups as numbers.
#pragma once

#include "base/OpenSslPtr.h"
#include "platform/CryptoShim.h"
#include "tests/support/CryptoCases.h"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

#include <memory>
#include <string>

namespace Ipsec::Testing {

using Key = Base::KeyPtr;
using Number = Base::PublicBn;
using NumberContext = Base::BnContextPtr;
using Curve = Base::CurvePtr;
using Point = Base::PointPtr;

inline Number number(const ByteVector& bytes) {
  return Number(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
}

inline Number number(BN_ULONG word) {
  Number small(BN_new());
  EXPECT_EQ(BN_set_word(small.get(), word), 1);
  return small;
}

inline Number copyOf(const Number& value) {
  return Number(BN_dup(value.get()));
}

inline Number plus(const Number& left, const Number& right) {
  Number sum(BN_new());
  EXPECT_EQ(BN_add(sum.get(), left.get(), right.get()), 1);
  return sum;
}

inline Number minus(const Number& left, const Number& right) {
  Number difference(BN_new());
  EXPECT_EQ(BN_sub(difference.get(), left.get(), right.get()), 1);
  return difference;
}

inline std::string textOf(const BIGNUM* value) {
  const std::unique_ptr<char, decltype([](char* text) { OPENSSL_free(text); })> hex(BN_bn2hex(value));
  return hex.get();
}

// Expects two numbers to be the same.
inline void expectNumber(const BIGNUM* value, const BIGNUM* expected) {
  EXPECT_EQ(BN_cmp(value, expected), 0) << textOf(value) << " instead of " << textOf(expected);
}

// Computes base^exponent mod modulus by squaring and multiplying, bit by bit, without the shim's arithmetic.
inline Number power(const Number& base, const Number& exponent, const Number& modulus) {
  const NumberContext context(BN_CTX_new());
  Number result = number(1);
  for (int bit = BN_num_bits(exponent.get()) - 1; bit >= 0; --bit) {
    EXPECT_EQ(BN_mod_sqr(result.get(), result.get(), modulus.get(), context.get()), 1);
    if (BN_is_bit_set(exponent.get(), bit) != 0) {
      EXPECT_EQ(BN_mod_mul(result.get(), result.get(), base.get(), modulus.get(), context.get()), 1);
    }
  }
  return result;
}

// --- Groups ----------------------------------------------------------------------------------------------------------

// A MODP group as two numbers.
struct Modp {
  Number p;
  Number g;
};

// Reads a group's prime, and group 24's generator, from the values that a peer must not send.
inline Modp modp(DhGroupNum group) {
  Modp found;
  for (Block& block : VectorFile(vectors("dh_modp_invalid.txt"))) {
    if (groupOf(block) == group && block.text("Note") == "p") {
      found.p = number(block.bytes("Peer"));
    }
    if (groupOf(block) == group && block.text("Note").rfind("the negated generator", 0) == 0) {
      found.g = minus(found.p, number(block.bytes("Peer")));
    }
  }
  if (group != MODP_2048_256) {
    found.g = number(2);
  }
  EXPECT_TRUE(found.p && found.g) << "no group " << group << " in the vectors";
  return found;
}

// The order of group 24's subgroup (RFC 5114 section 2.3).
inline Number orderOfGroup24() {
  return number(fromHex("8cf83642a709a097b447997640129da299b1a47d1eb3750ba308b0fe64f5fbd3"));
}

// Primes of groups that are not among IKE's eight, with the generator 2.
inline Modp group18() {
  return {Number(BN_get_rfc3526_prime_8192(nullptr)), number(2)};
}

inline Modp ffdhe2048() {  // RFC 7919 appendix A.1
  return {
      number(fromHex("ffffffffffffffffadf85458a2bb4a9aafdc5620273d3cf1d8b9c583ce2d3695a9e13641146433fbcc939dce249b3ef9"
                     "7d2fe363630c75d8f681b202aec4617ad3df1ed5d5fd65612433f51f5f066ed0856365553ded1af3b557135e7f57c935"
                     "984f0c70e0e68b77e2a689daf3efe8721df158a136ade73530acca4f483a797abc0ab182b324fb61d108a94bb2c8e3fb"
                     "b96adab760d7f4681d4f42a3de394df4ae56ede76372bb190b07a7c8ee0a6d709e02fce1cdf7e2ecc03404cd28342f61"
                     "9172fe9ce98583ff8e4f1232eef28183c3fe3b1b4c6fad733bb5fcbc2ec22005c58ef1837d1683b2c6f34a26c1b2effa"
                     "886b423861285c97ffffffffffffffff")),
      number(2)};
}

// --- Keys ------------------------------------------------------------------------------------------------------------

inline Key modpKey(const Modp& group, const Number& pub, const Number& priv) {
  return Key(EVP_PKEY_DH_from_params(group.p.get(), group.g.get(), pub.get(), priv.get()));
}

inline Curve curve(DhGroupNum group) {
  switch (group) {
    case ECP_256:
      return Curve(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1));
    case ECP_384:
      return Curve(EC_GROUP_new_by_curve_name(NID_secp384r1));
    default:
      return Curve(EC_GROUP_new_by_curve_name(NID_secp521r1));
  }
}

// Reads a point from IKE's form, x | y.
inline Point point(const Curve& group, const ByteVector& coordinates) {
  const ByteVector octets = ByteVector{0x04} + coordinates;
  Point read(EC_POINT_new(group.get()));
  EXPECT_EQ(EC_POINT_oct2point(group.get(), read.get(), octets.data(), octets.size(), nullptr), 1);
  return read;
}

inline Key curveKey(DhGroupNum group, const ByteVector& coordinates, const Number& priv) {
  const Curve named = curve(group);
  const Point pub = point(named, coordinates);
  return Key(EVP_PKEY_EC_from_params(named.get(), pub.get(), priv.get()));
}

// --- Secrets ---------------------------------------------------------------------------------------------------------

constexpr std::size_t guardBytes = 64;
constexpr unsigned char guard = 0xEE;

// Computes a secret into a buffer with guard bytes after the size that the caller would give it. Returns the secret.
// The test fails if the secret has another length or if the guard bytes were changed.
inline ByteVector sharedSecret(EVP_PKEY* own, EVP_PKEY* peer, std::size_t size) {
  ByteVector buffer(size + guardBytes, guard);
  unsigned char* at = buffer.data();
  std::size_t length = 0;
  EXPECT_EQ(EVP_PKEY_get_shared_secret(own, peer, &at, &length), 0);
  EXPECT_EQ(length, size);
  EXPECT_EQ(at, buffer.data());
  EXPECT_EQ(ByteVector(buffer.end() - guardBytes, buffer.end()), ByteVector(guardBytes, guard));
  buffer.resize(size);
  return buffer;
}

// Expects no secret, and unchanged buffer and length.
inline void expectNoSecret(EVP_PKEY* own, EVP_PKEY* peer) {
  const ByteVector before(2000, guard);
  ByteVector buffer = before;
  unsigned char* at = buffer.data();
  std::size_t length = 0;
  EXPECT_NE(EVP_PKEY_get_shared_secret(own, peer, &at, &length), 0);
  EXPECT_EQ(length, 0U);
  EXPECT_EQ(at, buffer.data());
  EXPECT_EQ(buffer, before);
}

}  // namespace Ipsec::Testing

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Key objects of the curves: what they hold.

#include "tests/shim/ShimCases.h"

#include <openssl/core_names.h>

namespace Ipsec::Testing {
namespace {

// The point of a key object, in IKE's form.
ByteVector pointOf(const Key& key) {
  ByteVector octets(200);
  std::size_t length = 0;
  EXPECT_EQ(EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, octets.data(), octets.size(), &length),
            1);
  octets.resize(length);
  EXPECT_EQ(octets.at(0), 0x04);
  octets.erase(octets.begin());
  return octets;
}

Number numberOf(const Key& key) {
  BIGNUM* priv = nullptr;
  (void)EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_PRIV_KEY, &priv);  // null if there is none
  return Number(priv);
}

std::string curveOf(const Key& key) {
  char name[80] = {};
  EXPECT_EQ(EVP_PKEY_get_group_name(key.get(), name, sizeof(name), nullptr), 1);
  return name;
}

TEST(CurveShim, KeysHoldWhatTheyAreMadeFrom) {
  for (const char* file : {"rfc5903.txt", "dh_ecp.txt"}) {
    forEachBlock(vectors(file), [](Block& block) {
      block.ignore("Peer");
      block.ignore("Secret");
      block.ignore("PrivateReadable");
      const DhGroupNum group = groupOf(block);
      const ByteVector coordinates = block.bytes("Public");
      const ByteVector bytes = block.bytes("Private");
      const Key pair = curveKey(group, coordinates, number(bytes));
      ASSERT_TRUE(pair);
      EXPECT_EQ(pointOf(pair), coordinates);
      if (bytes.size() <= coordinates.size() / 2) {  // OpenSSL does not return a longer one
        ASSERT_TRUE(numberOf(pair));
        expectNumber(numberOf(pair).get(), number(bytes).get());
      }
      EXPECT_EQ(curveOf(pair), OBJ_nid2sn(EC_GROUP_get_curve_name(curve(group).get())));
      const Key peer = curveKey(group, coordinates, nullptr);
      ASSERT_TRUE(peer);
      EXPECT_EQ(pointOf(peer), coordinates);
      EXPECT_EQ(numberOf(peer), nullptr);
      EXPECT_EQ(curveOf(peer), curveOf(pair));
    });
  }
}

TEST(CurveShim, EachKeyIsItsOwn) {
  const ByteVector generator = pointOf(Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-384")));
  Key first = curveKey(ECP_384, generator, nullptr);
  const Key second = curveKey(ECP_384, generator, nullptr);
  EXPECT_NE(first, second);
  first.reset();
  EXPECT_EQ(pointOf(second), generator);
}

TEST(CurveShim, NeedsACurveAndAPoint) {
  const Curve group = curve(ECP_256);
  const Point pub(EC_POINT_dup(EC_GROUP_get0_generator(group.get()), group.get()));
  const Number one = number(1);
  for (BIGNUM* priv : {static_cast<BIGNUM*>(nullptr), one.get()}) {
    EXPECT_FALSE(Key(EVP_PKEY_EC_from_params(nullptr, pub.get(), priv)));
    EXPECT_FALSE(Key(EVP_PKEY_EC_from_params(group.get(), nullptr, priv)));
    EXPECT_FALSE(Key(EVP_PKEY_EC_from_params(nullptr, nullptr, priv)));
    EXPECT_TRUE(Key(EVP_PKEY_EC_from_params(group.get(), pub.get(), priv)));
  }
}

// The key object names its curve, so a curve without a name has none.
TEST(CurveShim, CurveWithoutANameIsRefused) {
  const Curve group = curve(ECP_256);
  EC_GROUP_set_curve_name(group.get(), NID_undef);
  const Point pub(EC_POINT_dup(EC_GROUP_get0_generator(group.get()), group.get()));
  EXPECT_FALSE(Key(EVP_PKEY_EC_from_params(group.get(), pub.get(), nullptr)));
  EXPECT_FALSE(Key(EVP_PKEY_EC_from_params(group.get(), pub.get(), number(1).get())));
}

TEST(CurveShim, CurvesThatAreNotIkesAreRefused) {
  for (const int nid : {NID_secp224r1, NID_secp256k1, NID_X9_62_prime192v1, NID_brainpoolP256r1}) {
    const Curve group(EC_GROUP_new_by_curve_name(nid));
    ASSERT_TRUE(group) << OBJ_nid2sn(nid);
    const Point pub(EC_POINT_dup(EC_GROUP_get0_generator(group.get()), group.get()));
    EXPECT_FALSE(Key(EVP_PKEY_EC_from_params(group.get(), pub.get(), nullptr))) << OBJ_nid2sn(nid);
    EXPECT_FALSE(Key(EVP_PKEY_EC_from_params(group.get(), pub.get(), number(1).get()))) << OBJ_nid2sn(nid);
  }
}

TEST(CurveShim, ArgumentsAreBorrowedAndLeftAsTheyAre) {
  for (const bool withPrivate : {true, false}) {
    const Curve group = curve(ECP_521);
    const Point pub(EC_POINT_dup(EC_GROUP_get0_generator(group.get()), group.get()));
    const Number priv = withPrivate ? number(1) : nullptr;
    const Key key(EVP_PKEY_EC_from_params(group.get(), pub.get(), priv.get()));
    ASSERT_TRUE(key);
    EXPECT_EQ(EC_POINT_cmp(group.get(), pub.get(), EC_GROUP_get0_generator(group.get()), nullptr), 0);
    const ByteVector before = pointOf(key);
    EXPECT_EQ(EC_POINT_dbl(group.get(), pub.get(), pub.get(), nullptr), 1);
    if (priv) {
      EXPECT_TRUE(BN_is_one(priv.get()));
      EXPECT_EQ(BN_set_word(priv.get(), 2), 1);
      EXPECT_TRUE(BN_is_one(numberOf(key).get()));
    }
    EXPECT_EQ(pointOf(key), before);
  }
}

}  // namespace
}  // namespace Ipsec::Testing

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Keys of OpenSSL's X9.42 kind, "DHX", which know their subgroup's order: the same checks of the peer and the same form
// of the secret as for the other kind.

#include "tests/shim/ShimCases.h"

#include <openssl/core_names.h>
#include <openssl/param_build.h>

namespace Ipsec::Testing {
namespace {

struct X942 {
  Modp group;
  Number q;
};

X942 group24() {
  return {modp(MODP_2048_256), orderOfGroup24()};
}

X942 ofSafePrime(Modp group) {
  Number half = minus(group.p, number(1));
  EXPECT_EQ(BN_rshift1(half.get(), half.get()), 1);
  return {std::move(group), std::move(half)};
}

std::vector<X942> safePrimes() {
  std::vector<X942> all;
  all.push_back(ofSafePrime(modp(MODP_2048)));
  all.push_back(ofSafePrime(ffdhe2048()));
  return all;
}

Key x942Key(const X942& group, const Number& pub, const Number& priv) {
  const Base::BuilderPtr builder(OSSL_PARAM_BLD_new());
  EXPECT_EQ(OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_P, group.group.p.get()), 1);
  EXPECT_EQ(OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_Q, group.q.get()), 1);
  EXPECT_EQ(OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_G, group.group.g.get()), 1);
  EXPECT_EQ(OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, pub.get()), 1);
  if (priv) {
    EXPECT_EQ(OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, priv.get()), 1);
  }
  const Base::ParamsPtr params(OSSL_PARAM_BLD_to_param(builder.get()));
  const Base::KeyContextPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "DHX", nullptr));
  EVP_PKEY* key = nullptr;
  EXPECT_EQ(EVP_PKEY_fromdata_init(context.get()), 1);
  EXPECT_EQ(EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_KEYPAIR, params.get()), 1);
  EXPECT_EQ(EVP_PKEY_is_a(key, "DHX"), 1);
  return Key(key);
}

Key pairOf(const X942& group, const Number& priv) {
  return x942Key(group, power(group.group.g, priv, group.group.p), priv);
}

TEST(X942Shim, AnswersTheVectorsOfGroup24) {
  std::size_t blocks = 0;
  const X942 group = group24();
  for (Block& block : VectorFile(vectors("dh_modp.txt"))) {
    if (groupOf(block) == MODP_2048_256) {
      SCOPED_TRACE(block.where());
      const Key own = x942Key(group, number(block.bytes("Public")), number(block.bytes("Private")));
      const Key peer = x942Key(group, number(block.bytes("Peer")), nullptr);
      EXPECT_EQ(sharedSecret(own.get(), peer.get(), 256), block.bytes("Secret"));
      ++blocks;
    }
  }
  EXPECT_EQ(blocks, 11U);  // two of them with a zero byte in front of the secret
}

TEST(X942Shim, SecretIsLeftPaddedToThePrime) {
  for (const X942& group : safePrimes()) {
    const Key own = pairOf(group, number(2));
    const Key peer = x942Key(group, number(4), nullptr);
    EXPECT_EQ(sharedSecret(own.get(), peer.get(), 256), padded({16}, 256));
  }
}

TEST(X942Shim, SecretIsTheSameOnBothSides) {
  std::vector<X942> groups = safePrimes();
  groups.push_back(group24());
  for (const X942& group : groups) {
    const Key mine = pairOf(group, number(ByteVector(28, 0x5A)));
    const Key theirs = pairOf(group, number(ByteVector(28, 0xA5)));
    EXPECT_EQ(sharedSecret(mine.get(), theirs.get(), 256), sharedSecret(theirs.get(), mine.get(), 256));
  }
}

TEST(X942Shim, RefusesTheEndsOfTheRange) {
  std::vector<X942> groups = safePrimes();
  groups.push_back(group24());
  for (const X942& group : groups) {
    const Number& p = group.group.p;
    const Number one = number(1);
    for (const Number& secret : {number(2), number(3), number(ByteVector(28, 0x5A))}) {
      const Key own = pairOf(group, secret);
      for (const Number& value : {number(0), number(1), minus(p, one), copyOf(p), plus(p, one), plus(p, number(4))}) {
        SCOPED_TRACE(textOf(value.get()));
        expectNoSecret(own.get(), x942Key(group, value, nullptr).get());
      }
    }
  }
}

TEST(X942Shim, RefusesWhatLiesOutsideTheSubgroupOfGroup24) {
  const X942 group = group24();
  const Key own = pairOf(group, number(ByteVector(28, 0x5A)));
  std::size_t blocks = 0;
  for (Block& block : VectorFile(vectors("dh_modp_invalid.txt"))) {
    if (groupOf(block) == MODP_2048_256) {
      SCOPED_TRACE(block.where());
      expectNoSecret(own.get(), x942Key(group, number(block.bytes("Peer")), nullptr).get());
      ++blocks;
    }
  }
  EXPECT_EQ(blocks, 14U);
}

}  // namespace
}  // namespace Ipsec::Testing

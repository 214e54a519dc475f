// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Key objects of MODP groups: what they hold, and how new ones are drawn.

#include "tests/shim/ShimCases.h"

#include <openssl/core_names.h>

#include <algorithm>

namespace Ipsec::Testing {
namespace {

// The numbers that a key object returns, or null for one that it does not have.
struct Held {
  Number p;
  Number g;
  Number pub;
  Number priv;
};

Number read(EVP_PKEY* key, int which) {
  Number value(BN_new());
  BIGNUM* const asked = value.get();
  const int result = EVP_PKEY_DH_get_params(key, which == 0 ? asked : nullptr, which == 1 ? asked : nullptr,
                                            which == 2 ? asked : nullptr, which == 3 ? asked : nullptr);
  return result == 0 ? std::move(value) : nullptr;
}

Held held(const Key& key) {
  return {read(key.get(), 0), read(key.get(), 1), read(key.get(), 2), read(key.get(), 3)};
}

void expectSame(const Number& value, const BIGNUM* expected) {
  ASSERT_EQ(value != nullptr, expected != nullptr);
  if (value) {
    expectNumber(value.get(), expected);
  }
}

// Expects a key object to hold exactly these; null for one that it must not have.
void expectHolds(const Key& key, const Modp& group, const BIGNUM* pub, const BIGNUM* priv) {
  ASSERT_TRUE(key);
  const Held numbers = held(key);
  expectSame(numbers.p, group.p.get());
  expectSame(numbers.g, group.g.get());
  expectSame(numbers.pub, pub);
  expectSame(numbers.priv, priv);
}

// IKE's groups and some that are not.
std::vector<Modp> groups() {
  std::vector<Modp> all;
  for (const GroupCase& each : modpGroups) {
    all.push_back(modp(each.group));
  }
  all.push_back(group18());
  all.push_back(ffdhe2048());
  all.push_back({modp(MODP_2048).p, number(5)});  // another generator is another group
  return all;
}

// --- Parameters ------------------------------------------------------------------------------------------------------

TEST(ModpShim, ParametersOfGroup24AreThoseOfRfc5114) {
  const Key params(EVP_PKEY_DH_params_2048_256());
  const Modp group = modp(MODP_2048_256);
  expectHolds(params, group, nullptr, nullptr);
  BIGNUM* order = nullptr;
  EXPECT_EQ(EVP_PKEY_get_bn_param(params.get(), OSSL_PKEY_PARAM_FFC_Q, &order), 1);
  const Number owned(order);
  expectNumber(order, orderOfGroup24().get());
  EXPECT_TRUE(BN_is_one(power(group.g, orderOfGroup24(), group.p).get()));
}

// Callers may get the same object: what one of them frees, the others still have.
TEST(ModpShim, ParametersSurviveTheirOtherOwners) {
  const Modp group = modp(MODP_2048_256);
  Key first(EVP_PKEY_DH_params_2048_256());
  Key second(EVP_PKEY_DH_params_2048_256());
  Key third = modpKey(group, nullptr, nullptr);
  first.reset();
  third.reset();
  expectHolds(second, group, nullptr, nullptr);
  EXPECT_TRUE(Key(EVP_PKEY_DH_generate_keys(second.get())));
  second.reset();
  expectHolds(Key(EVP_PKEY_DH_params_2048_256()), group, nullptr, nullptr);
}

TEST(ModpShim, KeysHoldWhatTheyAreMadeFrom) {
  for (const Modp& group : groups()) {
    SCOPED_TRACE(BN_num_bits(group.p.get()));
    const Number pub = number(fromHex("123456789abcdef0"));
    const Number priv = number(fromHex("fedcba98"));
    expectHolds(modpKey(group, nullptr, nullptr), group, nullptr, nullptr);
    expectHolds(modpKey(group, pub, nullptr), group, pub.get(), nullptr);
    expectHolds(modpKey(group, pub, priv), group, pub.get(), priv.get());
  }
}

TEST(ModpShim, ParametersAloneAreOfNoOtherGroup) {
  for (const Modp& group : groups()) {
    for (const Modp& other : groups()) {
      const bool same = BN_cmp(group.p.get(), other.p.get()) == 0 && BN_cmp(group.g.get(), other.g.get()) == 0;
      const Key mine = modpKey(group, nullptr, nullptr);
      const Key theirs = modpKey(other, nullptr, nullptr);
      EXPECT_EQ(EVP_PKEY_parameters_eq(mine.get(), theirs.get()) == 1, same);
    }
  }
}

TEST(ModpShim, NeedsAPrimeAndAGenerator) {
  const Number two = number(2);
  EXPECT_FALSE(modpKey({nullptr, number(2)}, nullptr, nullptr));
  EXPECT_FALSE(modpKey({nullptr, number(2)}, two, two));
  EXPECT_FALSE(modpKey({modp(MODP_2048).p, nullptr}, nullptr, nullptr));
  EXPECT_FALSE(modpKey({modp(MODP_2048).p, nullptr}, two, two));
  EXPECT_FALSE(modpKey({nullptr, nullptr}, nullptr, nullptr));
}

// --- Values ----------------------------------------------------------------------------------------------------------

TEST(ModpShim, PublicValueIsComputedFromThePrivateOne) {
  for (const Modp& group : groups()) {
    SCOPED_TRACE(BN_num_bits(group.p.get()));
    std::vector<Number> privates;
    for (const BN_ULONG small : {0U, 1U, 2U, 3U, 255U, 65537U}) {
      privates.push_back(number(small));
    }
    privates.push_back(number(ByteVector(24, 0xA5)));
    privates.push_back(number(ByteVector(32, 0xFF)));
    privates.push_back(copyOf(group.p));
    privates.push_back(minus(group.p, number(1)));
    privates.push_back(number(ByteVector(1100, 0x5A)));  // longer than any prime
    for (const Number& priv : privates) {
      SCOPED_TRACE("private value of bits " + std::to_string(BN_num_bits(priv.get())));
      expectHolds(modpKey(group, nullptr, priv), group, power(group.g, priv, group.p).get(), priv.get());
    }
  }
}

TEST(ModpShim, PublicValuesOfTheVectorsAreTheirPrivateValues) {
  const std::size_t blocks = forEachBlock(vectors("dh_modp.txt"), [](Block& block) {
    block.ignore("Peer");
    block.ignore("Secret");
    const Key key = modpKey(modp(groupOf(block)), nullptr, number(block.bytes("Private")));
    ASSERT_TRUE(key);
    expectNumber(held(key).pub.get(), number(block.bytes("Public")).get());
  });
  EXPECT_EQ(blocks, 86U);
}

// A peer's value is checked when a secret is computed with it, not before.
TEST(ModpShim, PublicValuesAreTakenAsTheyAre) {
  for (const GroupCase& each : modpGroups) {
    SCOPED_TRACE(each.group);
    const Modp group = modp(each.group);
    const Number one = number(1);
    for (const Number& value : {number(0), number(1), minus(group.p, one), copyOf(group.p), plus(group.p, one),
                                number(ByteVector(each.publicSize, 0xFF))}) {
      SCOPED_TRACE(textOf(value.get()));
      expectHolds(modpKey(group, value, nullptr), group, value.get(), nullptr);
      expectHolds(modpKey(group, value, one), group, value.get(), one.get());
    }
  }
}

TEST(ModpShim, GivenPublicValueIsNotComputedAnew) {
  const Modp group = modp(MODP_2048);
  const Number three = number(3);
  expectHolds(modpKey(group, three, three), group, three.get(), three.get());
}

TEST(ModpShim, NoPublicValueCanBeComputedWithoutAPrime) {
  EXPECT_FALSE(modpKey({number(0), number(2)}, nullptr, number(3)));
  EXPECT_FALSE(modpKey({plus(modp(MODP_2048).p, number(1)), number(2)}, nullptr, number(3)));
}

TEST(ModpShim, ArgumentsAreBorrowedAndLeftAsTheyAre) {
  for (const bool withPublic : {true, false}) {
    for (const bool withPrivate : {true, false}) {
      Modp group = modp(MODP_1536);
      const Modp before = modp(MODP_1536);
      Number pub = withPublic ? number(4) : nullptr;
      Number priv = withPrivate ? number(2) : nullptr;
      const Key key = modpKey(group, pub, priv);
      expectNumber(group.p.get(), before.p.get());
      expectNumber(group.g.get(), before.g.get());
      for (const Number* value : {&group.p, &group.g, &pub, &priv}) {
        if (*value) {
          EXPECT_EQ(BN_set_word(value->get(), 99), 1);
        }
      }
      expectHolds(key, before, withPublic || withPrivate ? number(4).get() : nullptr,
                  withPrivate ? number(2).get() : nullptr);
    }
  }
}

// --- Drawing key pairs -----------------------------------------------------------------------------------------------

TEST(ModpShim, GeneratedPairsBelongTogetherAndDiffer) {
  for (const Modp& group : groups()) {
    SCOPED_TRACE(BN_num_bits(group.p.get()));
    const Key params = modpKey(group, nullptr, nullptr);
    const Key first(EVP_PKEY_DH_generate_keys(params.get()));
    const Key second(EVP_PKEY_DH_generate_keys(params.get()));
    for (const Key* key : {&first, &second}) {
      ASSERT_TRUE(*key);
      const Held numbers = held(*key);
      ASSERT_TRUE(numbers.priv);
      expectHolds(*key, group, power(group.g, numbers.priv, group.p).get(), numbers.priv.get());
    }
    EXPECT_NE(BN_cmp(held(first).priv.get(), held(second).priv.get()), 0);
    expectHolds(params, group, nullptr, nullptr);  // and stay what they were
  }
}

TEST(ModpShim, GeneratedExponentsHaveTwiceTheStrengthOfTheGroup) {
  for (const GroupCase& each : modpGroups) {
    SCOPED_TRACE(each.group);
    const Modp group = modp(each.group);
    const Key params = modpKey(group, nullptr, nullptr);
    int longest = 0;
    const int draws = each.publicSize > 256 ? 6 : 12;
    for (int i = 0; i < draws; ++i) {
      const Key key(EVP_PKEY_DH_generate_keys(params.get()));
      ASSERT_TRUE(key);
      longest = std::max(longest, BN_num_bits(held(key).priv.get()));
    }
    const int bits = 8 * static_cast<int>(each.privateSize);
    EXPECT_LE(longest, bits);
    EXPECT_GT(longest, bits - 8);
  }
}

// A prime of IKE's with another generator, and one that OpenSSL knows and IKE's groups do not have.
TEST(ModpShim, GeneratedExponentsOfOtherGroupsAreNotShort) {
  for (const Modp& group : {ffdhe2048(), Modp{modp(MODP_2048).p, number(5)}}) {
    const Key params = modpKey(group, nullptr, nullptr);
    int longest = 0;
    for (int i = 0; i < 6; ++i) {
      longest = std::max(longest, BN_num_bits(held(Key(EVP_PKEY_DH_generate_keys(params.get()))).priv.get()));
    }
    EXPECT_GE(longest, 216);  // 2 * 112 (SP 800-56A), less what a draw may lack
  }
}

TEST(ModpShim, GeneratedExponentsOfGroup24AreBelowTheOrder) {
  const Key params(EVP_PKEY_DH_params_2048_256());
  for (int i = 0; i < 20; ++i) {
    const Key key(EVP_PKEY_DH_generate_keys(params.get()));
    EXPECT_LT(BN_cmp(held(key).priv.get(), orderOfGroup24().get()), 0);
  }
}

TEST(ModpShim, ParametersMayBeThoseOfAKeyPair) {
  const Modp group = modp(MODP_2048);
  const Key pair = modpKey(group, nullptr, number(2));
  const Key fresh(EVP_PKEY_DH_generate_keys(pair.get()));
  ASSERT_TRUE(fresh);
  const Held numbers = held(fresh);
  expectNumber(numbers.p.get(), group.p.get());
  EXPECT_NE(BN_cmp(numbers.priv.get(), number(2).get()), 0);
  expectHolds(pair, group, number(4).get(), number(2).get());
}

TEST(ModpShim, GeneratesNothingFromNothing) {
  EXPECT_FALSE(Key(EVP_PKEY_DH_generate_keys(nullptr)));
}

// --- Reading ---------------------------------------------------------------------------------------------------------

TEST(ModpShim, ReadsWhicheverNumbersAreAskedFor) {
  const Modp group = modp(MODP_1024);
  const Key key = modpKey(group, nullptr, number(2));
  const std::array<Number, 4> expected = {modp(MODP_1024).p, number(2), number(4), number(2)};
  for (unsigned asked = 0; asked < 16; ++asked) {
    std::array<Number, 4> values;
    for (unsigned which = 0; which < 4; ++which) {
      values[which] = (asked >> which & 1U) != 0 ? number(77) : nullptr;
    }
    EXPECT_EQ(EVP_PKEY_DH_get_params(key.get(), values[0].get(), values[1].get(), values[2].get(), values[3].get()), 0);
    for (unsigned which = 0; which < 4; ++which) {
      if (values[which]) {
        expectNumber(values[which].get(), expected[which].get());
      }
    }
  }
}

TEST(ModpShim, SaysWhatItCannotRead) {
  const Number value = number(77);
  EXPECT_NE(EVP_PKEY_DH_get_params(nullptr, value.get(), nullptr, nullptr, nullptr), 0);
  EXPECT_NE(EVP_PKEY_DH_get_params(nullptr, nullptr, nullptr, nullptr, nullptr), 0);
  const Key params = modpKey(modp(MODP_2048), nullptr, nullptr);
  EXPECT_NE(EVP_PKEY_DH_get_params(params.get(), nullptr, nullptr, value.get(), nullptr), 0);
  EXPECT_NE(EVP_PKEY_DH_get_params(params.get(), nullptr, nullptr, nullptr, value.get()), 0);
  const Key peer = modpKey(modp(MODP_2048), number(3), nullptr);
  EXPECT_NE(EVP_PKEY_DH_get_params(peer.get(), nullptr, nullptr, nullptr, value.get()), 0);
  const Key onCurve(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  EXPECT_NE(EVP_PKEY_DH_get_params(onCurve.get(), nullptr, value.get(), nullptr, nullptr), 0);
}

}  // namespace
}  // namespace Ipsec::Testing

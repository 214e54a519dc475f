// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The shared secret: its value and form, the peers that are refused, and what a failure leaves.

#include "tests/shim/ShimCases.h"

namespace Ipsec::Testing {
namespace {

std::size_t bytesOf(const Modp& group) {
  return static_cast<std::size_t>(BN_num_bytes(group.p.get()));
}

Key freshPair(const Modp& group) {
  const Key params = modpKey(group, nullptr, nullptr);
  return Key(EVP_PKEY_DH_generate_keys(params.get()));
}

Key freshPair(DhGroupNum group) {
  return Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", OBJ_nid2sn(EC_GROUP_get_curve_name(curve(group).get()))));
}

// --- Values ----------------------------------------------------------------------------------------------------------

TEST(SecretShim, AnswersTheModpVectors) {
  const std::size_t blocks = forEachBlock(vectors("dh_modp.txt"), [](Block& block) {
    const Modp group = modp(groupOf(block));
    block.ignore("Public");
    const Key own = modpKey(group, nullptr, number(block.bytes("Private")));
    const Key peer = modpKey(group, number(block.bytes("Peer")), nullptr);
    EXPECT_EQ(sharedSecret(own.get(), peer.get(), bytesOf(group)), block.bytes("Secret"));
  });
  EXPECT_EQ(blocks, 86U);
}

TEST(SecretShim, AnswersTheCurveVectors) {
  std::size_t blocks = 0;
  for (const char* file : {"dh_ecp.txt", "rfc5903.txt"}) {
    blocks += forEachBlock(vectors(file), [](Block& block) {
      block.ignore("PrivateReadable");
      const DhGroupNum group = groupOf(block);
      const ByteVector expected = block.bytes("Secret");
      const Key own = curveKey(group, block.bytes("Public"), number(block.bytes("Private")));
      const Key peer = curveKey(group, block.bytes("Peer"), nullptr);
      EXPECT_EQ(sharedSecret(own.get(), peer.get(), expected.size()), expected);
    });
  }
  EXPECT_EQ(blocks, 57U + 6U);
}

TEST(SecretShim, IsLeftPaddedToThePrime) {
  for (const GroupCase& each : modpGroups) {
    if (each.group == MODP_2048_256) {
      continue;  // 3 is not in the subgroup
    }
    SCOPED_TRACE(each.group);
    const Modp group = modp(each.group);
    const Key own = modpKey(group, nullptr, number(2));
    const Key peer = modpKey(group, number(3), nullptr);
    EXPECT_EQ(sharedSecret(own.get(), peer.get(), each.secretSize), padded({9}, each.secretSize));
  }
}

TEST(SecretShim, OfOtherGroupsIsLeftPaddedToo) {
  for (const Modp& group : {group18(), ffdhe2048()}) {
    const Key own = modpKey(group, nullptr, number(2));
    const Key peer = modpKey(group, number(4), nullptr);  // 2 and its powers are in the subgroup of order (p - 1) / 2
    EXPECT_EQ(sharedSecret(own.get(), peer.get(), bytesOf(group)), padded({16}, bytesOf(group)));
  }
}

TEST(SecretShim, IsTheSameOnBothSides) {
  for (const GroupCase& each : modpGroups) {
    SCOPED_TRACE(each.group);
    const Modp group = modp(each.group);
    const Key mine = freshPair(group);
    const Key theirs = freshPair(group);
    EXPECT_EQ(sharedSecret(mine.get(), theirs.get(), each.secretSize),
              sharedSecret(theirs.get(), mine.get(), each.secretSize));
  }
  for (const GroupCase& each : ecpGroups) {
    SCOPED_TRACE(each.group);
    const Key mine = freshPair(each.group);
    const Key theirs = freshPair(each.group);
    EXPECT_EQ(sharedSecret(mine.get(), theirs.get(), each.secretSize),
              sharedSecret(theirs.get(), mine.get(), each.secretSize));
  }
}

TEST(SecretShim, ComesAgainAndLeavesTheKeysAsTheyWere) {
  const Modp group = modp(MODP_1536);
  const Key own = modpKey(group, nullptr, number(2));
  const Key peer = modpKey(group, number(3), nullptr);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(sharedSecret(own.get(), peer.get(), 192), padded({9}, 192));
  }
  const Number pub = number(0);
  EXPECT_EQ(EVP_PKEY_DH_get_params(peer.get(), nullptr, nullptr, pub.get(), nullptr), 0);
  expectNumber(pub.get(), number(3).get());
}

// --- Peers that are refused ------------------------------------------------------------------------------------------

TEST(SecretShim, RefusesPeersOutsideTheGroup) {
  const std::size_t blocks = forEachBlock(vectors("dh_modp_invalid.txt"), [](Block& block) {
    const Modp group = modp(groupOf(block));
    const Key peer = modpKey(group, number(block.bytes("Peer")), nullptr);
    ASSERT_TRUE(peer);
    expectNoSecret(freshPair(group).get(), peer.get());
  });
  EXPECT_EQ(blocks, 56U);
}

TEST(SecretShim, RefusesTheEndsOfTheRangeInEveryGroup) {
  std::vector<Modp> groups;
  for (const GroupCase& each : modpGroups) {
    groups.push_back(modp(each.group));
  }
  groups.push_back(group18());
  groups.push_back(ffdhe2048());
  for (const Modp& group : groups) {
    SCOPED_TRACE(BN_num_bits(group.p.get()));
    const Key own = freshPair(group);
    const Number one = number(1);
    for (const Number& value : {number(0), number(1), minus(group.p, one), copyOf(group.p), plus(group.p, one),
                                plus(group.p, number(4)), number(ByteVector(bytesOf(group) + 1, 0x11))}) {
      SCOPED_TRACE(textOf(value.get()));
      const Key peer = modpKey(group, value, nullptr);
      ASSERT_TRUE(peer);
      expectNoSecret(own.get(), peer.get());
    }
  }
}

// For a safe prime the range is the complete check (RFC 6989 section 2.1): every value within it generates the whole
// group or half of it.
TEST(SecretShim, TakesTheEndsOfTheRangeOfASafePrime) {
  for (const GroupCase& each : modpGroups) {
    if (each.group == MODP_2048_256) {
      continue;
    }
    SCOPED_TRACE(each.group);
    const Modp group = modp(each.group);
    const Key own = modpKey(group, nullptr, number(2));
    const Key two = modpKey(group, number(2), nullptr);
    const Key last = modpKey(group, minus(group.p, number(2)), nullptr);
    EXPECT_EQ(sharedSecret(own.get(), two.get(), each.secretSize), padded({4}, each.secretSize));
    EXPECT_EQ(sharedSecret(own.get(), last.get(), each.secretSize), padded({4}, each.secretSize));
  }
}

// An element of group 24 outside the prime-order subgroup would reveal the remainder of the private value modulo the
// element's order.
TEST(SecretShim, RefusesSmallOrdersInGroup24) {
  const Modp group = modp(MODP_2048_256);
  const Key own(EVP_PKEY_DH_generate_keys(Key(EVP_PKEY_DH_params_2048_256()).get()));
  const NumberContext context(BN_CTX_new());
  const Number below = minus(group.p, number(1));
  for (const BN_ULONG order : {2U, 7U, 13U, 91U, 2549U}) {
    SCOPED_TRACE(order);
    Number cofactor(BN_new());
    Number rest(BN_new());
    ASSERT_EQ(BN_div(cofactor.get(), rest.get(), below.get(), number(order).get(), context.get()), 1);
    ASSERT_TRUE(BN_is_zero(rest.get()));
    Number element = number(1);
    for (BN_ULONG base = 2; BN_is_one(element.get()); ++base) {
      element = power(number(base), cofactor, group.p);
    }
    ASSERT_TRUE(BN_is_one(power(element, number(order), group.p).get()));
    expectNoSecret(own.get(), modpKey(group, element, nullptr).get());
    Number disguised(BN_new());
    ASSERT_EQ(BN_mod_mul(disguised.get(), element.get(), group.g.get(), group.p.get(), context.get()), 1);
    expectNoSecret(own.get(), modpKey(group, disguised, nullptr).get());
  }
}

// For a safe prime the range says all that matters, also for one that is not one of IKE's. (OpenSSL 3.0 computes y^q as
// well, and refuses more; 3.5 does not.)
TEST(SecretShim, ChecksTheRangeForOtherSafePrimes) {
  for (const Modp& group : {group18(), ffdhe2048()}) {
    SCOPED_TRACE(BN_num_bits(group.p.get()));
    const Key own = modpKey(group, nullptr, number(2));
    for (const BN_ULONG below : {0U, 1U}) {
      expectNoSecret(own.get(), modpKey(group, number(below), nullptr).get());
      expectNoSecret(own.get(), modpKey(group, minus(group.p, number(below)), nullptr).get());
    }
    const Key four = modpKey(group, number(4), nullptr);
    const ByteVector secret =
        sharedSecret(own.get(), four.get(), static_cast<std::size_t>(BN_num_bytes(group.p.get())));
    EXPECT_EQ(secret.back(), 16);
  }
}

// --- What does not fit together --------------------------------------------------------------------------------------

TEST(SecretShim, NeedsTwoKeys) {
  const Modp group = modp(MODP_2048);
  const Key pair = modpKey(group, nullptr, number(2));
  expectNoSecret(nullptr, pair.get());
  expectNoSecret(pair.get(), nullptr);
  expectNoSecret(nullptr, nullptr);
}

TEST(SecretShim, NeedsAPrivateAndAPublicValue) {
  const Modp group = modp(MODP_2048);
  const Key pair = modpKey(group, nullptr, number(2));
  const Key peer = modpKey(group, number(3), nullptr);
  const Key params = modpKey(group, nullptr, nullptr);
  expectNoSecret(peer.get(), pair.get());
  expectNoSecret(params.get(), peer.get());
  expectNoSecret(pair.get(), params.get());
  const Key curvePair = freshPair(ECP_256);
  const Curve p256 = curve(ECP_256);
  const Key curvePeer(EVP_PKEY_EC_from_params(
      p256.get(), Point(EC_POINT_dup(EC_GROUP_get0_generator(p256.get()), p256.get())).get(), nullptr));
  expectNoSecret(curvePeer.get(), curvePair.get());
}

TEST(SecretShim, NeedsTwoKeysOfOneGroup) {
  const Key group5 = freshPair(modp(MODP_1536));
  const Key group14 = freshPair(modp(MODP_2048));
  const Key group24 = freshPair(modp(MODP_2048_256));
  const Key p256 = freshPair(ECP_256);
  const Key p384 = freshPair(ECP_384);
  const std::array<EVP_PKEY*, 5> keys = {group5.get(), group14.get(), group24.get(), p256.get(), p384.get()};
  for (EVP_PKEY* own : keys) {
    for (EVP_PKEY* peer : keys) {
      if (own != peer) {
        expectNoSecret(own, peer);
      }
    }
  }
}

TEST(SecretShim, ARefusalSpoilsNothing) {
  const Modp group = modp(MODP_2048);
  const Key own = modpKey(group, nullptr, number(2));
  expectNoSecret(own.get(), modpKey(group, number(1), nullptr).get());
  const Key peer = modpKey(group, number(3), nullptr);
  EXPECT_EQ(sharedSecret(own.get(), peer.get(), 256), padded({9}, 256));
}

}  // namespace
}  // namespace Ipsec::Testing

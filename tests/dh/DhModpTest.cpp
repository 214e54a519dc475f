// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// IpsecDHModp, where it differs from the curves: groups, known answers, refusals with their trace lines, kept
// behaviour.

#include "tests/support/CryptoCases.h"

#include <algorithm>

namespace Ipsec::Testing {
namespace {

const Lines secretRefused = {"IpsecDHModp::setPeerPublicKey Failed to compute the shared secret"};
const Lines noSecret = {"IpsecDHModp::getSharedSecret Shared secret has not been computed"};

// --- Call order ------------------------------------------------------------------------------------------------------

TEST(DhModp, RefusesUnknownGroupsAtInit) {
  for (const std::uint32_t group : {0U, 3U, 4U, 18U, 22U, 23U, 25U, 46U, 78U, 4294967295U}) {
    IpsecDHModp dh(static_cast<DhGroupNum>(group));
    TraceRecorder traces("IpsecKeyGen=0");
    EXPECT_FALSE(dh.initIpsecDH());
    expectErrors(traces, {"IpsecDHModp::initIpsecDH Not a supported modp DH group: " + std::to_string(group)});
    expectNotInitialized(dh, "IpsecDHModp");
  }
}

TEST(DhModp, InitThrowsForTheCurves) {
  for (const GroupCase& each : ecpGroups) {
    IpsecDHModp dh(each.group);
    expectOutOfRange([&dh] { return dh.initIpsecDH(); });
    expectNotInitialized(dh, "IpsecDHModp");
    EXPECT_TRUE(dh.setDHGroup(MODP_768));
    EXPECT_TRUE(dh.initIpsecDH());
  }
}

TEST(DhModp, EntersItsFunctionsAtLevel4) {
  TraceRecorder traces("IpsecKeyGen=4");
  {
    IpsecDHModp dh(MODP_2048);
    ByteVector value;
    EXPECT_TRUE(dh.setDHGroup(MODP_2048));
    EXPECT_TRUE(dh.initIpsecDH());
    EXPECT_TRUE(dh.getMyPublicKey(&value));
    EXPECT_TRUE(dh.setPeerPublicKey(&value));
    EXPECT_TRUE(dh.getSharedSecret(&value));
    EXPECT_TRUE(dh.getMyPrivateKey(&value));
    EXPECT_TRUE(dh.setMyPrivateKey(&value));
  }
  EXPECT_EQ(
      traces.text(4),
      (Lines{"setDHGroup: ", "initIpsecDH: ", "getMyPublicKey: ", "setPeerPublicKey: ", "verifyDHValue: DH group: 14",
             "getSharedSecret: ", "getMyPrivateKey: ", "setMyPrivateKey: ", "~IpsecDHModp: "}));
  EXPECT_EQ(traces.errors(), Lines{});
  EXPECT_EQ(traces.text().size(), 9U);
  for (const Cor::TraceLine& line : traces.lines()) {
    EXPECT_EQ(line.handle, "IpsecKeyGen");
    EXPECT_EQ(line.file, "src/IpsecDH.cpp");
    EXPECT_EQ(line.message.rfind(line.function, 0), 0U) << line.message << " in " << line.function;
  }
}

// --- Known answers ---------------------------------------------------------------------------------------------------

void expectModpBlock(Block& block) {
  const ByteVector ownPrivate = block.bytes("Private");
  IpsecDHModp dh(groupOf(block));
  ASSERT_TRUE(dh.initIpsecDH());
  expectExchange(dh, ownPrivate, block.bytes("Public"), block.bytes("Peer"), block.bytes("Secret"));
  EXPECT_EQ(privateKey(dh), withoutLeadingZeros(ownPrivate));
}

TEST(DhModp, AnswersTheVectors) {
  EXPECT_EQ(forEachBlock(vectors("dh_modp.txt"), expectModpBlock), 86U);
}

TEST(DhModp, AnswersTheExchangeOfRfc5114) {
  std::size_t modpBlocks = 0;
  for (Block& block : VectorFile(vectors("rfc5114.txt"))) {
    SCOPED_TRACE(block.where());
    if (block.number("Group") == MODP_2048_256) {
      expectModpBlock(block);
      block.finish();
      ++modpBlocks;
    }
  }
  EXPECT_EQ(modpBlocks, 2U);
}

TEST(DhModp, SecretIsLeftPaddedToThePrime) {
  for (const GroupCase& each : modpGroups) {
    if (each.group == MODP_2048_256) {
      continue;  // 3 is not in the subgroup, and the generator is not a small number
    }
    SCOPED_TRACE(each.group);
    IpsecDHModp dh(each.group);
    ASSERT_TRUE(dh.initIpsecDH());
    const std::array<std::array<ByteVector, 2>, 3> peersAndSecrets = {{{{{3}, {9}}}, {{{4}, {16}}}, {{{5}, {25}}}}};
    for (const auto& [peer, agreed] : peersAndSecrets) {
      expectExchange(dh, {2}, padded({4}, each.publicSize), padded(peer, each.publicSize),
                     padded(agreed, each.publicSize));
    }
  }
}

// --- Own keys --------------------------------------------------------------------------------------------------------

TEST(DhModp, GeneratedExponentsHaveTwiceTheStrengthOfTheGroup) {
  for (const GroupCase& each : modpGroups) {
    SCOPED_TRACE(each.group);
    std::size_t longest = 0;
    const int draws = each.publicSize > 256 ? 6 : 12;
    for (int i = 0; i < draws; ++i) {
      IpsecDHModp dh(each.group);
      ASSERT_TRUE(dh.initIpsecDH());
      longest = std::max(longest, privateKey(dh).size());
    }
    EXPECT_EQ(longest, each.privateSize);
  }
}

TEST(DhModp, NewPrivateKeyForgetsTheSecret) {
  IpsecDHModp dh(MODP_2048);
  ASSERT_TRUE(dh.initIpsecDH());
  const ByteVector three = padded({3}, 256);
  ASSERT_TRUE(dh.setPeerPublicKey(&three));
  const ByteVector two = {2};
  EXPECT_TRUE(dh.setMyPrivateKey(&two));
  TraceRecorder traces("IpsecKeyGen=0");
  expectUntouched(traces, noSecret, [&dh](ByteVector* out) { return dh.getSharedSecret(out); });
  EXPECT_TRUE(dh.setPeerPublicKey(&three));
  EXPECT_EQ(secret(dh), padded({9}, 256));
}

// Kept: a private key is used as it is. Zero is one too: its public value is 1, and it fails where it is used.
TEST(DhModp, PrivateKeyZeroIsTakenAndFailsInUse) {
  for (const GroupCase& each : modpGroups) {
    for (const std::size_t zeros : {0U, 1U, 32U, 1000U}) {
      SCOPED_TRACE(std::to_string(each.group) + " with zero bytes " + std::to_string(zeros));
      IpsecDHModp dh(each.group);
      ASSERT_TRUE(dh.initIpsecDH());
      const ByteVector peer = publicKey(dh);
      const ByteVector zero(zeros, 0);
      EXPECT_TRUE(dh.setMyPrivateKey(&zero));
      EXPECT_EQ(publicKey(dh), padded({1}, each.publicSize));
      TraceRecorder traces("IpsecKeyGen=0");
      expectUntouched(traces, {"IpsecDHModp::getMyPrivateKey Wrong private key size, privKeyLen is 0"},
                      [&dh](ByteVector* out) { return dh.getMyPrivateKey(out); });
      EXPECT_FALSE(dh.setPeerPublicKey(&peer));
      expectErrors(traces, secretRefused);
      expectUntouched(traces, noSecret, [&dh](ByteVector* out) { return dh.getSharedSecret(out); });
    }
  }
}

TEST(DhModp, PrivateKeyOneGivesTheGeneratorAndThePeersValue) {
  for (const GroupCase& each : modpGroups) {
    if (each.group == MODP_2048_256) {
      continue;  // the vectors of RFC 5114 hold its generator
    }
    IpsecDHModp peer(each.group);
    IpsecDHModp dh(each.group);
    ASSERT_TRUE(peer.initIpsecDH());
    ASSERT_TRUE(dh.initIpsecDH());
    expectExchange(dh, {1}, padded({2}, each.publicSize), publicKey(peer), publicKey(peer));
    EXPECT_EQ(privateKey(dh), ByteVector{1});
  }
}

// With the order of group 24's subgroup as the private key, the public value and every secret are 1. The order plus 1
// gives the same as 1.
TEST(DhModp, PrivateKeysAtTheOrderOfTheSubgroup) {
  const ByteVector order = fromHex("8cf83642a709a097b447997640129da299b1a47d1eb3750ba308b0fe64f5fbd3");
  IpsecDHModp peer(MODP_2048_256);
  IpsecDHModp dh(MODP_2048_256);
  ASSERT_TRUE(peer.initIpsecDH());
  ASSERT_TRUE(dh.initIpsecDH());
  const ByteVector peerValue = publicKey(peer);
  EXPECT_TRUE(dh.setMyPrivateKey(&order));
  EXPECT_EQ(publicKey(dh), padded({1}, 256));
  EXPECT_EQ(privateKey(dh), order);
  TraceRecorder traces("IpsecKeyGen=0");
  EXPECT_FALSE(dh.setPeerPublicKey(&peerValue));
  expectErrors(traces, secretRefused);

  ByteVector oneMore = order;
  ++oneMore.back();
  EXPECT_TRUE(dh.setMyPrivateKey(&oneMore));
  EXPECT_TRUE(dh.setPeerPublicKey(&peerValue));
  EXPECT_EQ(secret(dh), peerValue);
}

// A private key may be longer than the group. The exponent modulo the order would give the same.
TEST(DhModp, LongPrivateKeysAreUsedWhole) {
  for (const GroupCase& each : modpGroups) {
    for (const std::size_t length : {each.publicSize, each.publicSize + 1, std::size_t{1000}}) {
      SCOPED_TRACE(std::to_string(each.group) + " with bytes " + std::to_string(length));
      IpsecDHModp peer(each.group);
      IpsecDHModp dh(each.group);
      ASSERT_TRUE(peer.initIpsecDH());
      ASSERT_TRUE(dh.initIpsecDH());
      const ByteVector key(length, 0xA5);
      const ByteVector peerValue = publicKey(peer);
      EXPECT_TRUE(dh.setMyPrivateKey(&key));
      EXPECT_EQ(privateKey(dh), key);
      EXPECT_TRUE(dh.setPeerPublicKey(&peerValue));
      const ByteVector ownValue = publicKey(dh);
      EXPECT_TRUE(peer.setPeerPublicKey(&ownValue));
      EXPECT_EQ(secret(dh), secret(peer));
    }
  }
}

// --- Hostile peers ---------------------------------------------------------------------------------------------------

// Kept: the buffer was filled before the value was judged, and an earlier success still answers: with the filler.
TEST(DhModp, RefusedValuesLeaveFillerWhereASecretWas) {
  const std::size_t blocks = forEachBlock(vectors("dh_modp_invalid.txt"), [](Block& block) {
    const ByteVector peer = block.bytes("Peer");
    IpsecDHModp dh(groupOf(block));
    ASSERT_TRUE(dh.initIpsecDH());
    TraceRecorder traces("IpsecKeyGen=0");
    EXPECT_FALSE(dh.setPeerPublicKey(&peer));
    expectErrors(traces, secretRefused);
    expectUntouched(traces, noSecret, [&dh](ByteVector* out) { return dh.getSharedSecret(out); });

    const ByteVector good = publicKey(dh);
    EXPECT_TRUE(dh.setPeerPublicKey(&good));
    const ByteVector earlier = secret(dh);
    EXPECT_FALSE(dh.setPeerPublicKey(&peer));
    expectErrors(traces, secretRefused);
    EXPECT_EQ(secret(dh), ByteVector(peer.size(), 0xFF));

    EXPECT_TRUE(dh.setPeerPublicKey(&good));  // and the object goes on as before
    EXPECT_EQ(secret(dh), earlier);
  });
  EXPECT_EQ(blocks, 56U);
}

}  // namespace
}  // namespace Ipsec::Testing

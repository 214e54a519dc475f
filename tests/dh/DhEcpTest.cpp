// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// IpsecDHEcp, where it differs from MODP: groups, known answers, refusals with their trace lines, kept behaviour.

#include "tests/support/CryptoCases.h"

#include <algorithm>

namespace Ipsec::Testing {
namespace {

Lines derivationFailed(std::size_t size) {
  return {"IpsecDHEcp::setPeerPublicKey ECDH_compute_key failed on shared secret with ecdhSize " +
          std::to_string(size)};
}

const Lines noSecret = {"IpsecDHEcp::getSharedSecret Shared secret has not been computed"};

// Depending on OpenSSL's version, one of two checks refuses a value that is not a point.
void expectPointRefused(TraceRecorder& traces) {
  const Lines lines = traces.errors();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_TRUE(lines[0] == "vectorToEcp EC_POINT_set_affine_coordinates_GFp failed" ||
              lines[0] == "vectorToEcp EC_POINT_is_on_curve failed")
      << lines[0];
  EXPECT_EQ(lines[1], "IpsecDHEcp::setPeerPublicKey vectorToEcp failed");
  EXPECT_EQ(traces.text(0), lines);
  traces.clear();
}

ByteVector orderOf(DhGroupNum group) {
  switch (group) {
    case ECP_256:
      return fromHex("ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551");
    case ECP_384:
      return fromHex(
          "ffffffffffffffffffffffffffffffffffffffffffffffffc7634d81f4372ddf581a0db248b0a77aecec196accc52973");
    default:
      return fromHex(
          "01fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffa51868783bf2f966b7fcc0148f709a5d03bb5c9b8"
          "8"
          "99c47aebb6fb71e91386409");
  }
}

// --- Call order ------------------------------------------------------------------------------------------------------

TEST(DhEcp, RefusesOtherGroupsAtInitWithTwoLines) {
  for (const std::uint32_t group : {0U, 1U, 3U, 14U, 18U, 22U, 23U, 24U, 25U, 275U, 65555U, 4294967295U}) {
    IpsecDHEcp dh(static_cast<DhGroupNum>(group));
    TraceRecorder traces("IpsecKeyGen=0");
    EXPECT_FALSE(dh.initIpsecDH());
    expectErrors(traces, {"IpsecDHEcp::initIpsecDH Unsupported ECDH group: " + std::to_string(group),
                          "IpsecDHEcp::initIpsecDH Failed to initialize its own private and public EC keys"});
    expectNotInitialized(dh, "IpsecDHEcp");
    EXPECT_TRUE(dh.setDHGroup(ECP_256));
    EXPECT_TRUE(dh.initIpsecDH());
  }
}

TEST(DhEcp, EntersItsFunctionsAtLevel4) {
  TraceRecorder traces("IpsecKeyGen=4");
  {
    IpsecDHEcp dh(ECP_521);
    ByteVector value;
    EXPECT_TRUE(dh.setDHGroup(ECP_521));
    EXPECT_TRUE(dh.initIpsecDH());
    EXPECT_TRUE(dh.getMyPublicKey(&value));
    EXPECT_TRUE(dh.setPeerPublicKey(&value));
    EXPECT_TRUE(dh.getSharedSecret(&value));
    EXPECT_TRUE(dh.getMyPrivateKey(&value));
    EXPECT_TRUE(dh.setMyPrivateKey(&value));
  }
  EXPECT_EQ(traces.text(),
            (Lines{"setDHGroup: ", "initIpsecDH: ", "getMyPublicKey: ", "setPeerPublicKey: ",
                   "verifyDHValue: DH group: 21", "getSharedSecret: ", "getMyPrivateKey: ", "setMyPrivateKey: "}));
  EXPECT_EQ(traces.text(4).size(), 8U);
  EXPECT_EQ(traces.errors(), Lines{});
}

// --- Known answers ---------------------------------------------------------------------------------------------------

void expectEcpBlock(Block& block) {
  const ByteVector ownPrivate = block.bytes("Private");
  IpsecDHEcp dh(groupOf(block));
  ASSERT_TRUE(dh.initIpsecDH());
  expectExchange(dh, ownPrivate, block.bytes("Public"), block.bytes("Peer"), block.bytes("Secret"));
  if (!block.has("PrivateReadable")) {
    EXPECT_EQ(privateKey(dh), withoutLeadingZeros(ownPrivate));
    return;
  }
  EXPECT_EQ(block.text("PrivateReadable"), "no");
  // A private number longer than the order can be used, but OpenSSL does not return it. There is no message for that.
  TraceRecorder traces("IpsecKeyGen=0");
  expectUntouched(traces, {}, [&dh](ByteVector* out) { return dh.getMyPrivateKey(out); });
}

TEST(DhEcp, AnswersTheVectors) {
  EXPECT_EQ(forEachBlock(vectors("dh_ecp.txt"), expectEcpBlock), 57U);
}

TEST(DhEcp, AnswersTheExchangesOfRfc5903) {
  EXPECT_EQ(forEachBlock(vectors("rfc5903.txt"), expectEcpBlock), 6U);
}

TEST(DhEcp, AnswersTheExchangesOfRfc5114) {
  std::size_t curveBlocks = 0;
  for (Block& block : VectorFile(vectors("rfc5114.txt"))) {
    SCOPED_TRACE(block.where());
    if (isCurve(groupOf(block))) {
      expectEcpBlock(block);
      block.finish();
      ++curveBlocks;
    }
  }
  EXPECT_EQ(curveBlocks, 6U);
}

TEST(DhEcp, PublicValueOfGroup21IsTwoPaddedHalves) {
  for (int i = 0; i < 8; ++i) {
    IpsecDHEcp dh(ECP_521);
    ASSERT_TRUE(dh.initIpsecDH());
    const ByteVector value = publicKey(dh);
    ASSERT_EQ(value.size(), 132U);
    EXPECT_LE(value[0], 1);
    EXPECT_LE(value[66], 1);
  }
}

// --- Own keys --------------------------------------------------------------------------------------------------------

TEST(DhEcp, GeneratedKeysAreBelowTheOrderAndDiffer) {
  for (const GroupCase& each : ecpGroups) {
    SCOPED_TRACE(each.group);
    std::size_t longest = 0;
    ByteVector earlier;
    for (int i = 0; i < 12; ++i) {
      IpsecDHEcp dh(each.group);
      ASSERT_TRUE(dh.initIpsecDH());
      const ByteVector key = privateKey(dh);
      EXPECT_LT(padded(key, each.privateSize), orderOf(each.group));
      EXPECT_NE(key, earlier);
      earlier = key;
      longest = std::max(longest, key.size());
    }
    EXPECT_GE(longest, each.privateSize - 1);  // the first byte of group 21's order is 1
  }
}

// Kept: an earlier secret stays readable after a new private key. The MODP form forgets it.
TEST(DhEcp, NewPrivateKeyKeepsTheSecret) {
  for (const GroupCase& each : ecpGroups) {
    IpsecDHEcp dh(each.group);
    ASSERT_TRUE(dh.initIpsecDH());
    const ByteVector own = publicKey(dh);
    ASSERT_TRUE(dh.setPeerPublicKey(&own));
    const ByteVector earlier = secret(dh);
    const ByteVector two = {2};
    EXPECT_TRUE(dh.setMyPrivateKey(&two));
    EXPECT_EQ(secret(dh), earlier);
  }
}

// Kept: any bytes are a private number. A multiple of the order, zero too, is taken and fails in use: its public point
// is the one at infinity, which has no coordinates.
TEST(DhEcp, PrivateKeyThatIsAMultipleOfTheOrderIsTakenAndFailsInUse) {
  for (const GroupCase& each : ecpGroups) {
    for (const ByteVector& key : {ByteVector(), ByteVector(1, 0), ByteVector(1000, 0), orderOf(each.group)}) {
      SCOPED_TRACE(std::to_string(each.group) + " with bytes " + std::to_string(key.size()));
      IpsecDHEcp dh(each.group);
      ASSERT_TRUE(dh.initIpsecDH());
      const ByteVector peer = publicKey(dh);
      EXPECT_TRUE(dh.setMyPrivateKey(&key));
      TraceRecorder traces("IpsecKeyGen=0");
      expectUntouched(traces, {"ecpToVector EC_POINT_get_affine_coordinates failed"},
                      [&dh](ByteVector* out) { return dh.getMyPublicKey(out); });
      EXPECT_FALSE(dh.setPeerPublicKey(&peer));
      expectErrors(traces, derivationFailed(each.secretSize));
      expectUntouched(traces, noSecret, [&dh](ByteVector* out) { return dh.getSharedSecret(out); });
      if (key == orderOf(each.group)) {
        EXPECT_EQ(privateKey(dh), key);
      } else {
        expectUntouched(traces, {"IpsecDHEcp::getMyPrivateKey Wrong privKeyLen size, privKeyLen is 0"},
                        [&dh](ByteVector* out) { return dh.getMyPrivateKey(out); });
      }
    }
  }
}

TEST(DhEcp, PrivateKeyAboveTheOrderActsAsItsRemainder) {
  for (const GroupCase& each : ecpGroups) {
    SCOPED_TRACE(each.group);
    IpsecDHEcp dh(each.group);
    IpsecDHEcp peer(each.group);
    ASSERT_TRUE(dh.initIpsecDH());
    ASSERT_TRUE(peer.initIpsecDH());
    const ByteVector one = {1};
    ASSERT_TRUE(dh.setMyPrivateKey(&one));
    const ByteVector generator = publicKey(dh);
    const ByteVector peerValue = publicKey(peer);
    ByteVector oneMore = orderOf(each.group);
    ++oneMore.back();
    expectExchange(dh, oneMore, generator, peerValue,
                   ByteVector(peerValue.begin(), peerValue.begin() + static_cast<std::ptrdiff_t>(each.secretSize)));
    EXPECT_EQ(privateKey(dh), oneMore);
  }
}

TEST(DhEcp, LongPrivateKeysAreUsedWhole) {
  for (const GroupCase& each : ecpGroups) {
    SCOPED_TRACE(each.group);
    IpsecDHEcp dh(each.group);
    IpsecDHEcp peer(each.group);
    ASSERT_TRUE(dh.initIpsecDH());
    ASSERT_TRUE(peer.initIpsecDH());
    const ByteVector key(1000, 0xA5);
    const ByteVector peerValue = publicKey(peer);
    EXPECT_TRUE(dh.setMyPrivateKey(&key));
    EXPECT_TRUE(dh.setPeerPublicKey(&peerValue));
    const ByteVector ownValue = publicKey(dh);
    EXPECT_TRUE(peer.setPeerPublicKey(&ownValue));
    EXPECT_EQ(secret(dh), secret(peer));
    TraceRecorder traces("IpsecKeyGen=0");
    expectUntouched(traces, {}, [&dh](ByteVector* out) { return dh.getMyPrivateKey(out); });
  }
}

// --- Hostile peers ---------------------------------------------------------------------------------------------------

// Coordinates equal to or above the field's prime are reduced, and the resulting point is checked.
TEST(DhEcp, RefusesValuesThatNameNoPointAndKeepsTheSecret) {
  std::size_t accepted = 0;
  const std::size_t blocks = forEachBlock(vectors("dh_ecp_invalid.txt"), [&accepted](Block& block) {
    const ByteVector peer = block.bytes("Peer");
    IpsecDHEcp dh(groupOf(block));
    ASSERT_TRUE(dh.initIpsecDH());
    if (block.text("Verdict") == "accepted") {
      const ByteVector key = block.bytes("Private");
      EXPECT_TRUE(dh.setMyPrivateKey(&key));
      EXPECT_TRUE(dh.setPeerPublicKey(&peer));
      EXPECT_EQ(secret(dh), block.bytes("Secret"));
      ++accepted;
      return;
    }
    TraceRecorder traces("IpsecKeyGen=0");
    EXPECT_FALSE(dh.setPeerPublicKey(&peer));
    expectPointRefused(traces);
    expectUntouched(traces, noSecret, [&dh](ByteVector* out) { return dh.getSharedSecret(out); });

    const ByteVector good = publicKey(dh);
    EXPECT_TRUE(dh.setPeerPublicKey(&good));
    const ByteVector earlier = secret(dh);
    EXPECT_FALSE(dh.setPeerPublicKey(&peer));
    expectPointRefused(traces);
    EXPECT_EQ(secret(dh), earlier);
    EXPECT_TRUE(dh.setPeerPublicKey(&good));  // and the object goes on as before
    EXPECT_EQ(secret(dh), earlier);
  });
  EXPECT_EQ(blocks, 49U);
  EXPECT_EQ(accepted, 9U);
}

// Kept: the buffer was zeroed before the derivation, and an earlier success still answers: with the zeros.
TEST(DhEcp, FailedDerivationLeavesZerosWhereASecretWas) {
  for (const GroupCase& each : ecpGroups) {
    IpsecDHEcp dh(each.group);
    ASSERT_TRUE(dh.initIpsecDH());
    const ByteVector own = publicKey(dh);
    ASSERT_TRUE(dh.setPeerPublicKey(&own));
    const ByteVector zero;
    ASSERT_TRUE(dh.setMyPrivateKey(&zero));
    TraceRecorder traces("IpsecKeyGen=0");
    EXPECT_FALSE(dh.setPeerPublicKey(&own));
    expectErrors(traces, derivationFailed(each.secretSize));
    EXPECT_EQ(secret(dh), ByteVector(each.secretSize, 0));
  }
}

}  // namespace
}  // namespace Ipsec::Testing

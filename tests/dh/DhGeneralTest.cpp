// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// IpsecDHGeneral, where it differs from the forms: the choice of the form, and its own refusals.

#include "tests/support/CryptoCases.h"

namespace Ipsec::Testing {
namespace {

TEST(DhGeneral, PicksTheFormByTheGroup) {
  for (const GroupCase& each : allGroups()) {
    SCOPED_TRACE(each.group);
    IpsecDHGeneral dh(each.group);
    EXPECT_TRUE(dh.isModp);
    ASSERT_TRUE(dh.initIpsecDH());
    EXPECT_EQ(dh.isModp, !isCurve(each.group));
  }
}

TEST(DhGeneral, AnswersTheVectorsOfBothForms) {
  const auto check = [](Block& block) {
    IpsecDHGeneral dh(groupOf(block));
    ASSERT_TRUE(dh.initIpsecDH());
    expectExchange(dh, block.bytes("Private"), block.bytes("Public"), block.bytes("Peer"), block.bytes("Secret"));
  };
  EXPECT_EQ(forEachBlock(vectors("rfc5903.txt"), check), 6U);
  EXPECT_EQ(forEachBlock(vectors("rfc5114.txt"), check), 8U);
}

TEST(DhGeneral, GroupNoneIsRefusedAndMayBeChanged) {
  IpsecDHGeneral dh(MODP_NONE);
  TraceRecorder traces("IpsecKeyGen=0");
  EXPECT_FALSE(dh.initIpsecDH());
  expectErrors(traces, {"IpsecDHGeneral::initIpsecDH Cannot initialize the MODP_NONE group"});
  expectNotInitialized(dh, "IpsecDHGeneral");
  EXPECT_TRUE(dh.setDHGroup(MODP_2048));
  ASSERT_TRUE(dh.initIpsecDH());
  EXPECT_TRUE(dh.isModp);
  EXPECT_EQ(publicKey(dh).size(), 256U);
}

TEST(DhGeneral, RefusesUnknownGroups) {
  for (const std::uint32_t group : {3U, 4U, 18U, 22U, 23U, 25U, 31U, 46U, 78U, 4294967295U}) {
    IpsecDHGeneral dh(static_cast<DhGroupNum>(group));
    TraceRecorder traces("IpsecKeyGen=0");
    EXPECT_FALSE(dh.initIpsecDH());
    expectErrors(traces, {"IpsecDHGeneral::initIpsecDH Unsupported DH group: " + std::to_string(group)});
    EXPECT_TRUE(dh.isModp);
    expectNotInitialized(dh, "IpsecDHGeneral");
  }
}

TEST(DhGeneral, GroupStaysAfterInit) {
  IpsecDHGeneral dh(ECP_384);
  ASSERT_TRUE(dh.initIpsecDH());
  TraceRecorder traces("IpsecKeyGen=0");
  EXPECT_FALSE(dh.setDHGroup(MODP_2048));
  expectErrors(traces, {"IpsecDHGeneral::setDHGroup Cannot change DH group after initIpsecDH"});
  EXPECT_FALSE(dh.isModp);
  EXPECT_EQ(publicKey(dh).size(), 96U);
}

TEST(DhGeneral, FormsDifferInWhatANewPrivateKeyDoesToTheSecret) {
  for (const DhGroupNum group : {MODP_2048, ECP_256}) {
    IpsecDHGeneral dh(group);
    ASSERT_TRUE(dh.initIpsecDH());
    const ByteVector own = publicKey(dh);
    ASSERT_TRUE(dh.setPeerPublicKey(&own));
    const ByteVector two = {2};
    ASSERT_TRUE(dh.setMyPrivateKey(&two));
    ByteVector out;
    EXPECT_EQ(dh.getSharedSecret(&out), group == ECP_256);
  }
}

TEST(DhGeneral, EntersItsFunctionsAtLevel4BeforeTheForms) {
  TraceRecorder traces("IpsecKeyGen=4");
  {
    IpsecDHGeneral dh(ECP_256);
    ByteVector value;
    EXPECT_TRUE(dh.setDHGroup(MODP_2048));
    EXPECT_TRUE(dh.initIpsecDH());
    EXPECT_TRUE(dh.getMyPublicKey(&value));
    EXPECT_TRUE(dh.setPeerPublicKey(&value));
    EXPECT_TRUE(dh.getSharedSecret(&value));
    EXPECT_TRUE(dh.getMyPrivateKey(&value));
    EXPECT_TRUE(dh.setMyPrivateKey(&value));
  }
  EXPECT_EQ(traces.text(),
            (Lines{"setDHGroup: ", "initIpsecDH: ", "setDHGroup: ", "initIpsecDH: ", "getMyPublicKey: ",
                   "getMyPublicKey: ", "setPeerPublicKey: ", "setPeerPublicKey: ", "verifyDHValue: DH group: 14",
                   "getSharedSecret: ", "getSharedSecret: ", "getMyPrivateKey: ", "getMyPrivateKey: ",
                   "setMyPrivateKey: ", "setMyPrivateKey: ", "~IpsecDHModp: "}));
}

}  // namespace
}  // namespace Ipsec::Testing

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The contract of IpsecDH, tested for everything that must keep it: both forms, and the facade.
//
// What differs between the forms, above all their known answers, is in one file for each form.

#include "tests/support/CryptoCases.h"

namespace Ipsec::Testing {
namespace {

const std::string setGroupText = "::setDHGroup Cannot change DH group after initIpsecDH";

struct Modp {
  using Dh = IpsecDHModp;
  static constexpr const char* name = "Modp";
  static constexpr const char* className = "IpsecDHModp";
  static std::vector<GroupCase> groups() { return {modpGroups.begin(), modpGroups.end()}; }
  static Lines groupIsFixed() { return {"IpsecDH" + setGroupText}; }
  static Lines secondInit() { return {}; }
};

struct Ecp {
  using Dh = IpsecDHEcp;
  static constexpr const char* name = "Ecp";
  static constexpr const char* className = "IpsecDHEcp";
  static std::vector<GroupCase> groups() { return {ecpGroups.begin(), ecpGroups.end()}; }
  static Lines groupIsFixed() { return {"IpsecDH" + setGroupText}; }
  static Lines secondInit() { return {}; }
};

struct General {
  using Dh = IpsecDHGeneral;
  static constexpr const char* name = "General";
  static constexpr const char* className = "IpsecDHGeneral";
  static std::vector<GroupCase> groups() { return allGroups(); }
  static Lines groupIsFixed() { return {"IpsecDHGeneral" + setGroupText}; }
  static Lines secondInit() { return {"IpsecDHGeneral::initIpsecDH IpsecDHGeneral is already initialized"}; }
};

struct Names {
  template <class Form>
  static std::string GetName(int) {
    return Form::name;
  }
};

template <class Form>
class DhContract : public testing::Test {};

using Forms = testing::Types<Modp, Ecp, General>;
TYPED_TEST_SUITE(DhContract, Forms, Names);

// The form that traces for a group: the facade's lines about values are those of its form.
std::string formOf(DhGroupNum group) {
  return isCurve(group) ? "IpsecDHEcp" : "IpsecDHModp";
}

Lines noSecret(DhGroupNum group) {
  return {formOf(group) + "::getSharedSecret Shared secret has not been computed"};
}

Lines lengthRefused(const GroupCase& group, std::size_t given) {
  return {"verifyDHValue Invalid DH public value size " + std::to_string(given) + " for the DH group " +
              std::to_string(group.group) + " with size " + std::to_string(group.publicSize),
          isCurve(group.group) ? "IpsecDHEcp::setPeerPublicKey Failed to verify peer's public key"
                               : "IpsecDHModp::setPeerPublicKey Failed to verify the peer's public key"};
}

// --- Call order ------------------------------------------------------------------------------------------------------

TYPED_TEST(DhContract, TwoObjectsAgreeOnASecretInEveryGroup) {
  for (const GroupCase& each : TypeParam::groups()) {
    SCOPED_TRACE(each.group);
    typename TypeParam::Dh mine(each.group);
    typename TypeParam::Dh theirs(each.group);
    ASSERT_TRUE(mine.initIpsecDH());
    ASSERT_TRUE(theirs.initIpsecDH());
    const ByteVector myValue = publicKey(mine);
    const ByteVector theirValue = publicKey(theirs);
    EXPECT_EQ(myValue.size(), each.publicSize);
    EXPECT_NE(myValue, theirValue);
    EXPECT_TRUE(mine.setPeerPublicKey(&theirValue));
    EXPECT_TRUE(theirs.setPeerPublicKey(&myValue));
    EXPECT_EQ(secret(mine).size(), each.secretSize);
    EXPECT_EQ(secret(mine), secret(theirs));
    EXPECT_EQ(secret(mine), secret(mine));
  }
}

TYPED_TEST(DhContract, RefusesEverythingBeforeInit) {
  for (const GroupCase& each : TypeParam::groups()) {
    SCOPED_TRACE(each.group);
    typename TypeParam::Dh dh(each.group);
    expectNotInitialized(dh, TypeParam::className);
  }
}

TYPED_TEST(DhContract, HasNoSecretBeforeThePeersValue) {
  for (const GroupCase& each : TypeParam::groups()) {
    SCOPED_TRACE(each.group);
    typename TypeParam::Dh dh(each.group);
    ASSERT_TRUE(dh.initIpsecDH());
    TraceRecorder traces("IpsecKeyGen=0");
    expectUntouched(traces, noSecret(each.group), [&dh](ByteVector* out) { return dh.getSharedSecret(out); });
  }
}

// Kept: the forms are silent about a second init, the facade reports it as an error; all three answer a success.
TYPED_TEST(DhContract, SecondInitKeepsTheKeyPair) {
  for (const GroupCase& each : TypeParam::groups()) {
    SCOPED_TRACE(each.group);
    typename TypeParam::Dh dh(each.group);
    ASSERT_TRUE(dh.initIpsecDH());
    const ByteVector before = publicKey(dh);
    TraceRecorder traces("IpsecKeyGen=0");
    EXPECT_TRUE(dh.initIpsecDH());
    expectErrors(traces, TypeParam::secondInit());
    EXPECT_EQ(publicKey(dh), before);
  }
}

// Kept: any number is taken as the group, and refused at init.
TYPED_TEST(DhContract, TakesAnyGroupUntilItIsInitialized) {
  for (const GroupCase& each : TypeParam::groups()) {
    SCOPED_TRACE(each.group);
    typename TypeParam::Dh dh(static_cast<DhGroupNum>(99));
    EXPECT_FALSE(dh.initIpsecDH());
    for (const std::uint32_t unknown : {0U, 3U, 4294967295U}) {
      EXPECT_TRUE(dh.setDHGroup(static_cast<DhGroupNum>(unknown)));
      EXPECT_FALSE(dh.initIpsecDH());
    }
    EXPECT_TRUE(dh.setDHGroup(each.group));
    ASSERT_TRUE(dh.initIpsecDH());
    EXPECT_EQ(publicKey(dh).size(), each.publicSize);

    TraceRecorder traces("IpsecKeyGen=0");
    for (const DhGroupNum other : {MODP_2048, ECP_256, ECP_384, each.group}) {
      EXPECT_FALSE(dh.setDHGroup(other));
      expectErrors(traces, TypeParam::groupIsFixed());
    }
    const ByteVector value(1, 7);
    EXPECT_FALSE(dh.setPeerPublicKey(&value));  // the group stayed
    expectErrors(traces, lengthRefused(each, 1));
  }
}

// --- Outputs ---------------------------------------------------------------------------------------------------------

TYPED_TEST(DhContract, OutputsAreResizedAndOverwritten) {
  for (const GroupCase& each : TypeParam::groups()) {
    SCOPED_TRACE(each.group);
    typename TypeParam::Dh dh(each.group);
    ASSERT_TRUE(dh.initIpsecDH());
    const ByteVector key = {1, 2};
    ASSERT_TRUE(dh.setMyPrivateKey(&key));
    const ByteVector own = publicKey(dh);
    ASSERT_TRUE(dh.setPeerPublicKey(&own));
    const ByteVector agreed = secret(dh);
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, each.publicSize, std::size_t{1000}}) {
      ByteVector out(size, 0xEE);
      EXPECT_TRUE(dh.getMyPublicKey(&out));
      EXPECT_EQ(out, own);
      out.assign(size, 0xEE);
      EXPECT_TRUE(dh.getSharedSecret(&out));
      EXPECT_EQ(out, agreed);
      out.assign(size, 0xEE);
      EXPECT_TRUE(dh.getMyPrivateKey(&out));
      EXPECT_EQ(out, key);
    }
  }
}

TYPED_TEST(DhContract, FailuresNameTheirPlaceInTheSource) {
  TraceRecorder traces("IpsecKeyGen=0");
  typename TypeParam::Dh dh(TypeParam::groups().front().group);
  ByteVector value;
  EXPECT_FALSE(dh.getMyPublicKey(&value));
  ASSERT_EQ(traces.lines().size(), 2U);
  EXPECT_EQ(traces.lines()[0].sink, Cor::TraceSink::Ring);  // the ring comes first
  EXPECT_EQ(traces.lines()[1].sink, Cor::TraceSink::Text);
  for (const Cor::TraceLine& line : traces.lines()) {
    EXPECT_EQ(line.file, "src/IpsecDH.cpp");
    EXPECT_EQ(line.function, "getMyPublicKey");
    EXPECT_GT(line.line, 100);
  }
}

TYPED_TEST(DhContract, ErrorsReachTheRingWhenTheirLevelIsOff) {
  TraceRecorder traces("IpsecKeyGen=31");
  typename TypeParam::Dh dh(TypeParam::groups().front().group);
  ByteVector value;
  EXPECT_FALSE(dh.getMyPublicKey(&value));
  const std::string className = TypeParam::className;
  EXPECT_EQ(traces.errors(), Lines{className + "::getMyPublicKey " + className + " is not initialized"});
  EXPECT_EQ(traces.text(), Lines{});
}

// --- Own keys --------------------------------------------------------------------------------------------------------

TYPED_TEST(DhContract, KeyPairMovesToAnotherObjectByItsPrivateKey) {
  for (const GroupCase& each : TypeParam::groups()) {
    SCOPED_TRACE(each.group);
    typename TypeParam::Dh first(each.group);
    typename TypeParam::Dh second(each.group);
    ASSERT_TRUE(first.initIpsecDH());
    ASSERT_TRUE(second.initIpsecDH());
    const ByteVector key = privateKey(first);
    EXPECT_TRUE(second.setMyPrivateKey(&key));
    EXPECT_EQ(publicKey(second), publicKey(first));
    EXPECT_EQ(privateKey(second), key);
  }
}

// Kept: private keys come out without padding.
TYPED_TEST(DhContract, PrivateKeyComesOutWithoutPadding) {
  for (const GroupCase& each : TypeParam::groups()) {
    SCOPED_TRACE(each.group);
    typename TypeParam::Dh dh(each.group);
    ASSERT_TRUE(dh.initIpsecDH());
    for (const ByteVector& key : {fromHex("0102"), ByteVector(31, 0x5A), ByteVector(32, 0x5A)}) {
      for (const std::size_t zeros : {0U, 1U, 5U, 1000U}) {
        const ByteVector given = ByteVector(zeros, 0) + key;
        ASSERT_TRUE(dh.setMyPrivateKey(&given));
        EXPECT_EQ(privateKey(dh), key);
      }
    }
  }
}

// --- Peers -----------------------------------------------------------------------------------------------------------

TYPED_TEST(DhContract, RefusesEveryOtherLength) {
  for (const GroupCase& each : TypeParam::groups()) {
    typename TypeParam::Dh dh(each.group);
    ASSERT_TRUE(dh.initIpsecDH());
    const ByteVector good = publicKey(dh);
    ASSERT_TRUE(dh.setPeerPublicKey(&good));
    const ByteVector earlier = secret(dh);
    TraceRecorder traces("IpsecKeyGen=0");
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, each.publicSize / 2, each.publicSize - 2, each.publicSize - 1,
          each.publicSize + 1, each.publicSize + 2, 2 * each.publicSize, std::size_t{65536}}) {
      SCOPED_TRACE(std::to_string(each.group) + " with bytes " + std::to_string(size));
      for (const ByteVector& value : {ByteVector(size, 0), ByteVector(size, 2)}) {
        EXPECT_FALSE(dh.setPeerPublicKey(&value));
        expectErrors(traces, lengthRefused(each, size));
      }
    }
    const ByteVector prefixed = ByteVector{0x04} + good;  // as an uncompressed point with its format byte
    EXPECT_FALSE(dh.setPeerPublicKey(&prefixed));
    expectErrors(traces, lengthRefused(each, each.publicSize + 1));
    EXPECT_EQ(secret(dh), earlier);  // a value refused for its length changes nothing
  }
}

TYPED_TEST(DhContract, AValueOfAnotherLengthGivesNoSecret) {
  for (const GroupCase& each : TypeParam::groups()) {
    SCOPED_TRACE(each.group);
    typename TypeParam::Dh dh(each.group);
    ASSERT_TRUE(dh.initIpsecDH());
    const ByteVector oneShort(each.publicSize - 1, 2);
    TraceRecorder traces("IpsecKeyGen=0");
    EXPECT_FALSE(dh.setPeerPublicKey(&oneShort));
    expectErrors(traces, lengthRefused(each, each.publicSize - 1));
    expectUntouched(traces, noSecret(each.group), [&dh](ByteVector* out) { return dh.getSharedSecret(out); });
  }
}

// Kept: the own public value coming back is an answer like any other.
TYPED_TEST(DhContract, TakesItsOwnPublicValue) {
  for (const GroupCase& each : TypeParam::groups()) {
    SCOPED_TRACE(each.group);
    typename TypeParam::Dh dh(each.group);
    ASSERT_TRUE(dh.initIpsecDH());
    const ByteVector own = publicKey(dh);
    EXPECT_TRUE(dh.setPeerPublicKey(&own));
    EXPECT_EQ(secret(dh).size(), each.secretSize);
  }
}

TYPED_TEST(DhContract, EachPeerGivesItsOwnSecret) {
  for (const GroupCase& each : TypeParam::groups()) {
    SCOPED_TRACE(each.group);
    typename TypeParam::Dh dh(each.group);
    typename TypeParam::Dh first(each.group);
    typename TypeParam::Dh second(each.group);
    ASSERT_TRUE(dh.initIpsecDH());
    ASSERT_TRUE(first.initIpsecDH());
    ASSERT_TRUE(second.initIpsecDH());
    const ByteVector own = publicKey(dh);
    for (typename TypeParam::Dh* peer : {&first, &second, &first}) {
      const ByteVector value = publicKey(*peer);
      EXPECT_TRUE(dh.setPeerPublicKey(&value));
      EXPECT_TRUE(peer->setPeerPublicKey(&own));
      EXPECT_EQ(secret(dh), secret(*peer));
    }
    EXPECT_NE(secret(first), secret(second));
  }
}

}  // namespace
}  // namespace Ipsec::Testing

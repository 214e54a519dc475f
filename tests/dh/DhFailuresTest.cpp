// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Every branch of the key exchange that only a failure of the crypto shim or of OpenSSL reaches, one call at a time.

#include "tests/support/CryptoCases.h"
#include "tests/support/ShimFaults.h"

#include <openssl/err.h>

namespace Ipsec::Testing {
namespace {

struct Case {
  const char* function;
  unsigned nth;
  Lines lines;
  std::optional<int> answer = {};
};

const ByteVector two = {2};
const ByteVector three = padded({3}, 256);
const ByteVector nine = padded({9}, 256);

// --- MODP ------------------------------------------------------------------------------------------------------------

class ModpFailures : public testing::Test {
 protected:
  // An object that has agreed on the secret 9 with the private key 2.
  void SetUp() override {
    ASSERT_TRUE(dh.initIpsecDH());
    ASSERT_TRUE(dh.setMyPrivateKey(&two));
    ASSERT_TRUE(dh.setPeerPublicKey(&three));
    ASSERT_EQ(secret(dh), nine);
  }

  IpsecDHModp dh{MODP_2048};
  TraceRecorder traces{"IpsecKeyGen=0"};
};

TEST_F(ModpFailures, InitFailsAndMayBeRetried) {
  const Lines noNumbers = {"IpsecDHModp::initIpsecDH Failed assigning p and g, p or g is NULL"};
  const Lines noKey = {"IpsecDHModp::initIpsecDH Failed to generate dh key"};
  for (const Case& each : {Case{"BN_get_rfc3526_prime_2048", 1, noNumbers}, Case{"BN_bin2bn", 1, noNumbers},
                           Case{"EVP_PKEY_DH_from_params", 1, noKey}, Case{"EVP_PKEY_DH_generate_keys", 1, noKey}}) {
    SCOPED_TRACE(each.function);
    IpsecDHModp fresh(MODP_2048);
    {
      const Fault fault(each.function, each.nth);
      EXPECT_FALSE(fresh.initIpsecDH());
    }
    expectErrors(traces, each.lines);
    expectNotInitialized(fresh, "IpsecDHModp");
    traces.clear();
    EXPECT_TRUE(fresh.initIpsecDH());
    expectExchange(fresh, two, padded({4}, 256), three, nine);
  }
}

TEST_F(ModpFailures, InitOfGroup24FailsAndMayBeRetriedWithAnotherGroup) {
  for (const char* function : {"EVP_PKEY_DH_params_2048_256", "EVP_PKEY_DH_generate_keys"}) {
    IpsecDHModp fresh(MODP_2048_256);
    {
      const Fault fault(function);
      EXPECT_FALSE(fresh.initIpsecDH());
    }
    expectErrors(traces, {"IpsecDHModp::initIpsecDH Failed to generate dh key"});
    EXPECT_TRUE(fresh.setDHGroup(MODP_768));
    EXPECT_TRUE(fresh.initIpsecDH());
    EXPECT_EQ(publicKey(fresh).size(), 96U);
  }
}

TEST_F(ModpFailures, FacadeReportsAfterItsForm) {
  IpsecDHGeneral facade(MODP_2048);
  {
    const Fault fault("EVP_PKEY_DH_generate_keys");
    EXPECT_FALSE(facade.initIpsecDH());
  }
  expectErrors(traces, {"IpsecDHModp::initIpsecDH Failed to generate dh key",
                        "IpsecDHGeneral::initIpsecDH setDHGroup or initIpsecDH failed on ipsecDH"});
  expectNotInitialized(facade, "IpsecDHGeneral");
  EXPECT_TRUE(facade.isModp);
  EXPECT_TRUE(facade.initIpsecDH());  // the same group again
  EXPECT_EQ(publicKey(facade).size(), 256U);
}

TEST_F(ModpFailures, FacadeMayChooseTheOtherFormAfterAFailure) {
  IpsecDHGeneral facade(ECP_256);
  {
    const Fault fault("EC_POINT_new");
    EXPECT_FALSE(facade.initIpsecDH());
  }
  expectErrors(traces, {"IpsecDHEcp::initIpsecDH Failed to initialize peer's public key",
                        "IpsecDHGeneral::initIpsecDH setDHGroup or initIpsecDH failed on ipsecDH"});
  EXPECT_FALSE(facade.isModp);  // the choice stays
  expectNotInitialized(facade, "IpsecDHGeneral");
  EXPECT_TRUE(facade.setDHGroup(MODP_2048));
  EXPECT_TRUE(facade.initIpsecDH());
  EXPECT_TRUE(facade.isModp);
  expectExchange(facade, two, padded({4}, 256), three, nine);
}

// The number for the peer's value is created at init, or later if that failed.
TEST_F(ModpFailures, MissingNumberAtInitIsMadeLater) {
  IpsecDHModp fresh(MODP_2048);
  {
    const Fault fault("BN_new");
    EXPECT_TRUE(fresh.initIpsecDH());
  }
  expectErrors(traces, {});
  {
    const Fault fault("BN_bin2bn");
    EXPECT_FALSE(fresh.setPeerPublicKey(&three));
  }
  expectErrors(traces, {"IpsecDHModp::setPeerPublicKey Failed to generate the peer key"});
  expectExchange(fresh, two, padded({4}, 256), three, nine);
  expectErrors(traces, {});
}

TEST_F(ModpFailures, PublicKeyCannotBeRead) {
  for (const Case& each : {Case{"BN_new", 1, {}}, Case{"EVP_PKEY_DH_get_params", 1, {}},
                           Case{"EVP_PKEY_DH_get_params", 1, {}, -5}, Case{"BN_bn2binpad", 1, {}}}) {
    SCOPED_TRACE(each.function);
    ByteVector out(500, 0xEE);
    {
      const Fault fault(each.function, each.nth, each.answer);
      EXPECT_FALSE(dh.getMyPublicKey(&out));
    }
    expectErrors(traces, {"IpsecDHModp::getMyPublicKey Failed to get pubkey"});
    EXPECT_EQ(out, ByteVector(256, 0));
    EXPECT_EQ(publicKey(dh), padded({4}, 256));
  }
}

TEST_F(ModpFailures, PrivateKeyCannotBeRead) {
  for (const char* function : {"BN_new", "EVP_PKEY_DH_get_params"}) {
    {
      const Fault fault(function);
      expectUntouched(traces, {"IpsecDHModp::getMyPrivateKey Wrong private key size, privKeyLen is 0"},
                      [this](ByteVector* out) { return dh.getMyPrivateKey(out); });
    }
    EXPECT_EQ(privateKey(dh), two);
  }
}

TEST_F(ModpFailures, UndecodedPrivateKeyChangesNothing) {
  {
    const Fault fault("BN_bin2bn");
    EXPECT_FALSE(dh.setMyPrivateKey(&three));
  }
  expectErrors(traces, {"IpsecDHModp::setMyPrivateKey Failed to get or assign the private key"});
  EXPECT_EQ(secret(dh), nine);
  EXPECT_EQ(privateKey(dh), two);
}

TEST_F(ModpFailures, UnreadParametersKeepTheKeyAndForgetTheSecret) {
  for (const Case& each : {Case{"BN_new", 1, {}}, Case{"BN_new", 2, {}}, Case{"EVP_PKEY_DH_get_params", 1, {}}}) {
    SCOPED_TRACE(each.function);
    ASSERT_TRUE(dh.setPeerPublicKey(&three));
    {
      const Fault fault(each.function, each.nth);
      EXPECT_FALSE(dh.setMyPrivateKey(&three));
    }
    expectErrors(traces, {"IpsecDHModp::setMyPrivateKey Failed to generate the public key"});
    expectUntouched(traces, {"IpsecDHModp::getSharedSecret Shared secret has not been computed"},
                    [this](ByteVector* out) { return dh.getSharedSecret(out); });
    EXPECT_EQ(privateKey(dh), two);
  }
  EXPECT_TRUE(dh.setPeerPublicKey(&three));
  EXPECT_EQ(secret(dh), nine);
}

// Kept: the object then has no key and is still initialised.
TEST_F(ModpFailures, KeyThatCannotBeMadeLeavesTheObjectWithoutOne) {
  {
    const Fault fault("EVP_PKEY_DH_from_params");
    EXPECT_FALSE(dh.setMyPrivateKey(&three));
  }
  expectErrors(traces, {"IpsecDHModp::setMyPrivateKey Failed to generate the public key"});
  EXPECT_TRUE(dh.initIpsecDH());
  expectErrors(traces, {});
  ByteVector out;
  EXPECT_FALSE(dh.getMyPublicKey(&out));
  expectErrors(traces, {"IpsecDHModp::getMyPublicKey Failed to get pubkey"});
  EXPECT_EQ(out, ByteVector(256, 0));
  expectUntouched(traces, {"IpsecDHModp::getMyPrivateKey Wrong private key size, privKeyLen is 0"},
                  [this](ByteVector* value) { return dh.getMyPrivateKey(value); });
  EXPECT_FALSE(dh.setPeerPublicKey(&three));
  expectErrors(traces, {"IpsecDHModp::setPeerPublicKey Failed to generate the public key"});
  EXPECT_FALSE(dh.setMyPrivateKey(&two));
  expectErrors(traces, {"IpsecDHModp::setMyPrivateKey Failed to generate the public key"});
  expectUntouched(traces, {"IpsecDHModp::getSharedSecret Shared secret has not been computed"},
                  [this](ByteVector* value) { return dh.getSharedSecret(value); });
}

TEST_F(ModpFailures, PeerThatCannotBeLoadedKeepsTheSecret) {
  const ByteVector five = padded({5}, 256);
  const Lines noPeer = {"IpsecDHModp::setPeerPublicKey Failed to generate the peer key"};
  const Lines noParameters = {"IpsecDHModp::setPeerPublicKey Failed to generate the public key"};
  for (const Case& each :
       {Case{"BN_bin2bn", 1, noPeer}, Case{"BN_new", 1, noParameters}, Case{"BN_new", 2, noParameters},
        Case{"EVP_PKEY_DH_get_params", 1, noParameters}, Case{"EVP_PKEY_DH_from_params", 1, noPeer}}) {
    SCOPED_TRACE(each.function);
    {
      const Fault fault(each.function, each.nth);
      EXPECT_FALSE(dh.setPeerPublicKey(&five));
    }
    expectErrors(traces, each.lines);
    EXPECT_EQ(secret(dh), nine);
  }
  EXPECT_TRUE(dh.setPeerPublicKey(&five));
  EXPECT_EQ(secret(dh), padded({25}, 256));
}

TEST_F(ModpFailures, FailedDerivationLeavesTheFiller) {
  for (const int answer : {1, -1, successWithoutLength}) {
    {
      const Fault fault("EVP_PKEY_get_shared_secret", 1, answer);
      EXPECT_FALSE(dh.setPeerPublicKey(&three));
    }
    expectErrors(traces, {"IpsecDHModp::setPeerPublicKey Failed to compute the shared secret"});
    EXPECT_EQ(secret(dh), ByteVector(256, 0xFF));
    ASSERT_TRUE(dh.setPeerPublicKey(&three));
    EXPECT_EQ(secret(dh), nine);
  }
}

TEST_F(ModpFailures, FirstDerivationFailingGivesNoSecret) {
  IpsecDHModp fresh(MODP_2048);
  ASSERT_TRUE(fresh.initIpsecDH());
  {
    const Fault fault("EVP_PKEY_get_shared_secret");
    EXPECT_FALSE(fresh.setPeerPublicKey(&three));
  }
  traces.clear();
  expectUntouched(traces, {"IpsecDHModp::getSharedSecret Shared secret has not been computed"},
                  [&fresh](ByteVector* out) { return fresh.getSharedSecret(out); });
}

// Another shim may remove leading zero bytes.
TEST_F(ModpFailures, ShortSecretIsPaddedWhenItIsRead) {
  ASSERT_TRUE(dh.setPeerPublicKey(&three));
  {
    const Fault fault("EVP_PKEY_get_shared_secret", 1, secretOfOneByte);
    EXPECT_TRUE(dh.setPeerPublicKey(&three));
  }
  EXPECT_EQ(secret(dh), nine);
  EXPECT_EQ(secret(dh), nine);
}

TEST_F(ModpFailures, NumbersAreBorrowedByTheShimAndFreedByTheLibrary) {
  const CallCount count("EVP_PKEY_DH_from_params");
  ASSERT_TRUE(dh.setPeerPublicKey(&three));
  EXPECT_EQ(count.calls(), 1U);
}

// --- Curves ----------------------------------------------------------------------------------------------------------

const Lines noOwnKey = {"IpsecDHEcp::initIpsecDH Failed to initialize its own private and public EC keys"};
const Lines noPeerPoint = {"IpsecDHEcp::initIpsecDH Failed to initialize peer's public key"};

void expectInitFailsOnce(const Case& each) {
  SCOPED_TRACE(each.function);
  TraceRecorder traces("IpsecKeyGen=0");
  IpsecDHEcp fresh(ECP_521);
  {
    const Fault fault(each.function, each.nth, each.answer);
    EXPECT_FALSE(fresh.initIpsecDH());
  }
  expectErrors(traces, each.lines);
  expectNotInitialized(fresh, "IpsecDHEcp");
}

// These calls are made only once in a process, for the first object of a curve, so this must be a separate process.
TEST(EcpFailuresDeathTest, FirstUseOfACurveFailsAndMayBeRetried) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        expectInitFailsOnce({"EC_GROUP_new_by_curve_name", 1, noPeerPoint});
        expectInitFailsOnce({"EVP_PKEY_CTX_new_from_name", 1, noOwnKey});
        expectInitFailsOnce({"EVP_PKEY_paramgen_init", 1, noOwnKey});
        expectInitFailsOnce({"EVP_PKEY_paramgen_init", 1, noOwnKey, -2});
        expectInitFailsOnce({"EVP_PKEY_CTX_set_group_name", 1, noOwnKey});
        expectInitFailsOnce({"EVP_PKEY_paramgen", 1, noOwnKey});
        IpsecDHEcp fresh(ECP_521);
        EXPECT_TRUE(fresh.initIpsecDH());
        EXPECT_EQ(publicKey(fresh).size(), 132U);
        std::exit(testing::Test::HasFailure() ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}

class EcpFailures : public testing::Test {
 protected:
  // An object that has agreed on a secret with the private key 2.
  void SetUp() override {
    IpsecDHEcp other(ECP_256);
    ASSERT_TRUE(other.initIpsecDH());
    peer = publicKey(other);
    ASSERT_TRUE(dh.initIpsecDH());
    ASSERT_TRUE(dh.setMyPrivateKey(&two));
    own = publicKey(dh);
    ASSERT_TRUE(dh.setPeerPublicKey(&peer));
    ASSERT_TRUE(other.setPeerPublicKey(&own));
    agreed = secret(dh);
    ASSERT_EQ(secret(other), agreed);
  }

  // A point of group 19 whose x is 0, and the same with the field's prime for x. OpenSSL does not take that as it is.
  const ByteVector y = fromHex("66485c780e2f83d72433bd5d84a06bb6541c2af31dae871728bf856a174f93f4");
  const ByteVector reduced = ByteVector(32, 0) + y;
  const ByteVector unreduced = fromHex("ffffffff00000001000000000000000000000000ffffffffffffffffffffffff") + y;

  IpsecDHEcp dh{ECP_256};
  ByteVector own;
  ByteVector peer;
  ByteVector agreed;
  TraceRecorder traces{"IpsecKeyGen=0"};
};

TEST_F(EcpFailures, InitFailsAndMayBeRetried) {
  for (const Case& each : {Case{"EC_GROUP_dup", 1, noPeerPoint}, Case{"EC_POINT_new", 1, noPeerPoint},
                           Case{"EVP_PKEY_CTX_new_from_pkey", 1, noOwnKey}, Case{"EVP_PKEY_keygen_init", 1, noOwnKey},
                           Case{"EVP_PKEY_generate", 1, noOwnKey}, Case{"EVP_PKEY_generate", 1, noOwnKey, -1}}) {
    SCOPED_TRACE(each.function);
    IpsecDHEcp fresh(ECP_521);
    {
      const Fault fault(each.function, each.nth, each.answer);
      EXPECT_FALSE(fresh.initIpsecDH());
    }
    expectErrors(traces, each.lines);
    expectNotInitialized(fresh, "IpsecDHEcp");
    traces.clear();
    EXPECT_TRUE(fresh.setDHGroup(ECP_256));  // what the failed attempt has left belongs to another curve
    EXPECT_TRUE(fresh.initIpsecDH());
    expectExchange(fresh, two, own, peer, agreed);
  }
}

TEST_F(EcpFailures, PublicKeyIsWrittenFromEveryFormOfThePoint) {
  const CompressedPoints compressed;
  EXPECT_EQ(publicKey(dh), own);
}

TEST_F(EcpFailures, PublicKeyCannotBeRead) {
  const CompressedPoints compressed;  // the point must then be decoded
  for (const Case& each :
       {Case{"EVP_PKEY_get_octet_string_param", 1, {}},
        Case{"EVP_PKEY_get_octet_string_param", 1, {}, successWithLengthZero}, Case{"EC_POINT_new", 1, {}},
        Case{"BN_CTX_new", 1, {}}, Case{"EC_POINT_oct2point", 1, {}},
        Case{"BN_CTX_new", 2, {"ecpToVector BN_CTX_new failed"}},
        Case{"BN_CTX_get", 1, {"ecpToVector BN_CTX_get failed"}},
        Case{"BN_CTX_get", 2, {"ecpToVector BN_CTX_get failed"}},
        Case{"EC_POINT_get_affine_coordinates", 1, {"ecpToVector EC_POINT_get_affine_coordinates failed"}}}) {
    SCOPED_TRACE(std::string(each.function) + " " + std::to_string(each.nth));
    {
      const Fault fault(each.function, each.nth, each.answer);
      expectUntouched(traces, each.lines, [this](ByteVector* out) { return dh.getMyPublicKey(out); });
    }
    EXPECT_EQ(publicKey(dh), own);
  }
}

TEST_F(EcpFailures, CoordinateCannotBeWritten) {
  const CompressedPoints compressed;
  for (const unsigned nth : {1U, 2U}) {
    ByteVector out;
    {
      const Fault fault("BN_bn2bin", nth);
      EXPECT_FALSE(dh.getMyPublicKey(&out));
    }
    expectErrors(traces, {"ecpToVector bnCat failed"});
    EXPECT_EQ(out.size(), 64U);
  }
}

TEST_F(EcpFailures, PrivateKeyCannotBeRead) {
  {
    const Fault fault("EVP_PKEY_get_bn_param");
    expectUntouched(traces, {}, [this](ByteVector* out) { return dh.getMyPrivateKey(out); });
  }
  EXPECT_EQ(privateKey(dh), two);
}

TEST_F(EcpFailures, FailureBeforeTheNewKeyKeepsTheOldOne) {
  for (const Case& each : {Case{"BN_bin2bn", 1, {}}, Case{"EC_POINT_new", 1, {}}, Case{"EC_POINT_mul", 1, {}},
                           Case{"EC_POINT_mul", 1, {}, -1}}) {
    SCOPED_TRACE(each.function);
    {
      const Fault fault(each.function, each.nth, each.answer);
      EXPECT_FALSE(dh.setMyPrivateKey(&peer));
    }
    expectErrors(traces, {});
    EXPECT_EQ(privateKey(dh), two);
    EXPECT_EQ(publicKey(dh), own);
    EXPECT_EQ(secret(dh), agreed);
  }
}

// Kept: the old key is gone also when the new one cannot be made, and the secret stays.
TEST_F(EcpFailures, KeyThatCannotBeMadeLeavesTheObjectWithoutOne) {
  {
    const Fault fault("EVP_PKEY_EC_from_params");
    EXPECT_FALSE(dh.setMyPrivateKey(&peer));
  }
  expectErrors(traces, {});
  EXPECT_TRUE(dh.initIpsecDH());
  EXPECT_EQ(secret(dh), agreed);
  expectUntouched(traces, {}, [this](ByteVector* out) { return dh.getMyPublicKey(out); });
  expectUntouched(traces, {}, [this](ByteVector* out) { return dh.getMyPrivateKey(out); });
  EXPECT_FALSE(dh.setPeerPublicKey(&peer));
  expectErrors(traces, {"IpsecDHEcp::setPeerPublicKey ECDH_compute_key failed on shared secret with ecdhSize 32"});
  EXPECT_EQ(secret(dh), ByteVector(32, 0));
  expectExchange(dh, two, own, peer, agreed);  // with a new key the object works again
}

TEST_F(EcpFailures, PeerThatCannotBeReadKeepsTheSecret) {
  const std::string caller = "IpsecDHEcp::setPeerPublicKey vectorToEcp failed";
  for (const Case& each :
       {Case{"BN_CTX_new", 1, {"vectorToEcp BN_CTX_new failed", caller}},
        Case{"BN_CTX_get", 1, {"vectorToEcp BN_CTX_get failed", caller}},
        Case{"BN_CTX_get", 2, {"vectorToEcp BN_CTX_get failed", caller}},
        Case{"BN_bin2bn", 1, {"vectorToEcp bnSplit failed", caller}},
        Case{"BN_bin2bn", 2, {"vectorToEcp bnSplit failed", caller}},
        Case{"EC_POINT_set_affine_coordinates", 1, {"vectorToEcp EC_POINT_set_affine_coordinates_GFp failed", caller}},
        Case{"EC_POINT_is_on_curve", 1, {"vectorToEcp EC_POINT_is_on_curve failed", caller}}}) {
    SCOPED_TRACE(std::string(each.function) + " " + std::to_string(each.nth));
    {
      const Fault fault(each.function, each.nth);
      EXPECT_FALSE(dh.setPeerPublicKey(&unreduced));
    }
    expectErrors(traces, each.lines);
    EXPECT_EQ(secret(dh), agreed);
  }
}

// Kept: an error of the curve check itself (-1) is no refusal.
TEST_F(EcpFailures, ErrorOfTheCurveCheckIsNoRefusal) {
  ASSERT_TRUE(dh.setPeerPublicKey(&reduced));
  const ByteVector expected = secret(dh);
  const Fault fault("EC_POINT_is_on_curve", 1, -1);
  EXPECT_TRUE(dh.setPeerPublicKey(&unreduced));
  expectErrors(traces, {});
  EXPECT_EQ(secret(dh), expected);
}

TEST_F(EcpFailures, PeerThatOpenSslTakesAsItCameIsNotDecoded) {
  const CallCount decoded("EC_POINT_set_affine_coordinates");
  EXPECT_TRUE(dh.setPeerPublicKey(&peer));
  EXPECT_EQ(decoded.calls(), 0U);
  EXPECT_TRUE(dh.setPeerPublicKey(&unreduced));
  EXPECT_EQ(decoded.calls(), 1U);
}

TEST_F(EcpFailures, PeersKeyThatCannotBeMadeFromItsBytesIsMadeFromThePoint) {
  ERR_clear_error();
  for (const char* function : {"EVP_PKEY_new", "EVP_PKEY_copy_parameters", "EVP_PKEY_set1_encoded_public_key"}) {
    SCOPED_TRACE(function);
    ASSERT_TRUE(dh.setPeerPublicKey(&own));
    ASSERT_NE(secret(dh), agreed);
    const Fault fault(function);
    EXPECT_TRUE(dh.setPeerPublicKey(&peer));
    expectErrors(traces, {});
    EXPECT_EQ(secret(dh), agreed);
  }
  EXPECT_TRUE(dh.setPeerPublicKey(&unreduced));
  EXPECT_EQ(ERR_peek_error(), 0U) << "a refusal that was no failure";
}

TEST_F(EcpFailures, FailedDerivationLeavesZeros) {
  for (const Case& each : {Case{"EVP_PKEY_EC_from_params", 1, {}}, Case{"EVP_PKEY_get_shared_secret", 1, {}, 1},
                           Case{"EVP_PKEY_get_shared_secret", 1, {}, -1},
                           Case{"EVP_PKEY_get_shared_secret", 1, {}, successWithoutLength}}) {
    {
      const Fault fault(each.function, each.nth, each.answer);
      EXPECT_FALSE(dh.setPeerPublicKey(&unreduced));
    }
    expectErrors(traces, {"IpsecDHEcp::setPeerPublicKey ECDH_compute_key failed on shared secret with ecdhSize 32"});
    EXPECT_EQ(secret(dh), ByteVector(32, 0));
    ASSERT_TRUE(dh.setPeerPublicKey(&peer));
    EXPECT_EQ(secret(dh), agreed);
  }
}

// Kept: the bytes are handed out as the failed derivation left them.
TEST_F(EcpFailures, BytesOfAFailedDerivationAreHandedOut) {
  {
    const Fault fault("EVP_PKEY_get_shared_secret", 1, failureAfterWriting);
    EXPECT_FALSE(dh.setPeerPublicKey(&peer));
  }
  EXPECT_EQ(secret(dh), ByteVector{0xEE} + ByteVector(31, 0));
}

TEST_F(EcpFailures, SecretHasTheLengthThatTheShimReports) {
  const Fault fault("EVP_PKEY_get_shared_secret", 1, secretOfOneByte);
  EXPECT_TRUE(dh.setPeerPublicKey(&peer));
  EXPECT_EQ(secret(dh), ByteVector{9});
}

}  // namespace
}  // namespace Ipsec::Testing

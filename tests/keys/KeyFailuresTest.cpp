// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Every branch of the PRFs, the nonces and the set-up that only a failure of the crypto shim or of OpenSSL reaches, one
// call at a time.

#include "tests/support/CryptoCases.h"
#include "tests/support/ShimFaults.h"

namespace Ipsec::Testing {
namespace {

// --- HMAC and prf+ ---------------------------------------------------------------------------------------------------

const ByteVector hmacKey(32, 0x4B);
const ByteVector input = {'d', 'a', 't', 'a'};

class HmacFailures : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA256));
    ASSERT_TRUE(prf.setKey(&hmacKey));
    ASSERT_TRUE(prf.generatePRStream(&input, &mac));
  }

  HmacPRFunc prf;
  ByteVector mac;
  TraceRecorder traces{"IpsecKeyGen=0"};
};

void expectUnknownDigest() {
  TraceRecorder traces("IpsecKeyGen=0");
  HmacPRFunc fresh;
  {
    const Fault fault("EVP_get_digestbyname");
    EXPECT_FALSE(fresh.initHmacPRFunc(HASH_SHA256));
  }
  expectErrors(traces, {"HmacPRFunc::initHmacPRFunc Failed to get the hash function by hashAlgo's name"});
  EXPECT_EQ(fresh.getOutputSize(), 0U);
  EXPECT_TRUE(fresh.initHmacPRFunc(HASH_SHA256));
  EXPECT_EQ(fresh.getOutputSize(), 32U);
}

// A digest is looked up only once in a process, so this must be a separate process.
TEST(HmacFailuresDeathTest, UnknownDigestMayBeRetried) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT((expectUnknownDigest(), std::exit(testing::Test::HasFailure() ? 1 : 0)), testing::ExitedWithCode(0), "");
}

// Kept: whether the context could be made is not looked at. The key then cannot be set.
TEST_F(HmacFailures, MissingContextShowsWhenTheKeyIsSet) {
  HmacPRFunc fresh;
  {
    const Fault fault("hmac_create");
    EXPECT_TRUE(fresh.initHmacPRFunc(HASH_SHA256));
  }
  expectErrors(traces, {});
  EXPECT_EQ(fresh.getOutputSize(), 32U);
  EXPECT_FALSE(fresh.setKey(&hmacKey));
  expectErrors(traces, {"HmacPRFunc::setKey HMAC_Init_ex failed"});
  expectUntouched(traces, {"HmacPRFunc::generatePRStream Has not set the key"},
                  [&fresh](ByteVector* out) { return fresh.generatePRStream(&input, out); });
}

TEST_F(HmacFailures, RefusedKeyLeavesTheObjectUnkeyed) {
  HmacPRFunc fresh;
  ASSERT_TRUE(fresh.initHmacPRFunc(HASH_SHA256));
  {
    const Fault fault("hmac_init");
    EXPECT_FALSE(fresh.setKey(&hmacKey));
  }
  expectErrors(traces, {"HmacPRFunc::setKey HMAC_Init_ex failed"});
  expectUntouched(traces, {"HmacPRFunc::generatePRStream Has not set the key"},
                  [&fresh](ByteVector* out) { return fresh.generatePRStream(&input, out); });
  EXPECT_TRUE(fresh.setKey(nullptr));  // the refused key was remembered
  ByteVector out;
  EXPECT_TRUE(fresh.generatePRStream(&input, &out));
  EXPECT_EQ(out, mac);
}

TEST_F(HmacFailures, RefusedKeyLeavesAKeyedObjectKeyed) {
  {
    const Fault fault("hmac_init");
    EXPECT_FALSE(prf.setKey(&hmacKey));
  }
  traces.clear();
  ByteVector out;
  (void)prf.generatePRStream(&input, &out);  // continues with what the shim has: it is not refused for lack of a key
  for (const std::string& line : traces.errors()) {
    EXPECT_NE(line, "HmacPRFunc::generatePRStream Has not set the key");
  }
}

TEST_F(HmacFailures, InputIsNotAbsorbed) {
  for (const bool finishing : {true, false}) {
    ByteVector out = {1, 2, 3};
    {
      const Fault fault("hmac_update");
      EXPECT_FALSE(prf.generatePRStream(&input, finishing ? &out : nullptr));
    }
    expectErrors(traces, {"HmacPRFunc::generatePRStream HMAC_Update failed"});
    EXPECT_EQ(out, (ByteVector{1, 2, 3}));
  }
}

TEST_F(HmacFailures, OutputIsNotWritten) {
  for (const int answer : {1, successWithoutBytes}) {
    ByteVector out = {1, 2, 3};
    {
      const Fault fault("hmac_final", 1, answer);
      EXPECT_FALSE(prf.generatePRStream(&input, &out));
    }
    expectErrors(traces, {"HmacPRFunc::generatePRStream HMAC_Final failed"});
    EXPECT_EQ(out.size(), 32U);
    ASSERT_TRUE(prf.setKey(nullptr));
    EXPECT_TRUE(prf.generatePRStream(&input, &out));
    EXPECT_EQ(out, mac);
  }
}

// Kept: what was written counts, not what the call says of itself.
TEST_F(HmacFailures, WrittenOutputCountsWhateverTheCallAnswers) {
  ByteVector out;
  const Fault fault("hmac_final", 1, failureAfterFinishing);
  EXPECT_TRUE(prf.generatePRStream(&input, &out));
  EXPECT_EQ(out, mac);
  expectErrors(traces, {});
}

TEST_F(HmacFailures, RekeyingFailsAfterTheOutput) {
  ByteVector out;
  {
    const Fault fault("hmac_init");
    EXPECT_FALSE(prf.generatePRStream(&input, &out));
  }
  expectErrors(traces,
               {"HmacPRFunc::setKey HMAC_Init_ex failed", "HmacPRFunc::generatePRStream Set key to original failed"});
  EXPECT_EQ(out, mac);
}

TEST_F(HmacFailures, EveryOutputReadsTheKeyAgainThroughTheShim) {
  ByteVector out;
  const CallCount count("hmac_init");
  for (unsigned n = 1; n <= 5; ++n) {
    ASSERT_TRUE(prf.generatePRStream(&input, nullptr));
    ASSERT_TRUE(prf.generatePRStream(&input, &out));
    EXPECT_EQ(count.calls(), n);
  }
}

TEST_F(HmacFailures, ContextIsMadeOnceAndCleanedUpAlways) {
  {
    const CallCount count("hmac_create");
    HmacPRFunc fresh;
    ASSERT_TRUE(fresh.initHmacPRFunc(HASH_SHA1));
    ASSERT_TRUE(fresh.initHmacPRFunc(HASH_SHA256));
    EXPECT_EQ(count.calls(), 1U);
  }
  const CallCount count("hmac_cleanup");
  { const HmacPRFunc never; }
  EXPECT_EQ(count.calls(), 1U);
  {
    HmacPRFunc fresh;
    ASSERT_TRUE(fresh.initHmacPRFunc(HASH_SHA1));
  }
  EXPECT_EQ(count.calls(), 2U);
}

TEST_F(HmacFailures, StreamReportsFromTheInsideOut) {
  struct Step {
    bool counter;
    const char* function;
    unsigned nth;
    Lines lines;
  };
  const std::string update = "HmacPRFunc::generatePRStream HMAC_Update failed";
  const std::string final = "HmacPRFunc::generatePRStream HMAC_Final failed";
  const std::string buffer = "PRFuncPlus::generatePRStream GeneratePRStream from buffer failed";
  const std::string counted = "PRFuncPlus::generatePRStream Counter based generatePRStream failed";
  const std::string chained = "PRFuncPlus::generatePRStream Non-counter based generatePRStream failed";
  for (const Step& each :
       {Step{true, "hmac_update", 1, {update, buffer}}, Step{true, "hmac_update", 2, {update, counted}},
        Step{true, "hmac_update", 3, {update, counted}}, Step{true, "hmac_final", 1, {final, counted}},
        Step{true,
             "hmac_init",
             1,
             {"HmacPRFunc::setKey HMAC_Init_ex failed", "HmacPRFunc::generatePRStream Set key to original failed",
              counted}},
        Step{false, "hmac_update", 1, {update, buffer}}, Step{false, "hmac_update", 2, {update, chained}},
        Step{false, "hmac_final", 1, {final, chained}}}) {
    SCOPED_TRACE(std::string(each.function) + " " + std::to_string(each.nth));
    HmacPRFunc fresh;
    ASSERT_TRUE(fresh.initHmacPRFunc(HASH_SHA256));
    ASSERT_TRUE(fresh.setKey(&hmacKey));
    PRFuncPlus plus(&fresh, each.counter);
    ASSERT_TRUE(plus.initPRFuncPlus(&input));
    ByteVector out;
    {
      const Fault fault(each.function, each.nth);
      EXPECT_FALSE(plus.generatePRStream(33, &out));
    }
    expectErrors(traces, each.lines);
    EXPECT_EQ(out.size(), 33U);
    EXPECT_EQ(out.back(), 0);  // not filled
  }
}

// --- Set-up ----------------------------------------------------------------------------------------------------------

TEST(SetUpFailures, ResultIsOpenSsls) {
  {
    const CallCount count("OPENSSL_init_crypto");
    EXPECT_EQ(initKeyGenLib(), 1);
    EXPECT_EQ(count.calls(), 1U);
    EXPECT_EQ(initOptions(), 0x0CU);  // all ciphers, all digests
    cleanupKeyGenLib();
    EXPECT_EQ(count.calls(), 1U);
  }
  const Fault fault("OPENSSL_init_crypto", 1, 0);
  EXPECT_EQ(initKeyGenLib(), 0);
}

// --- Nonces ----------------------------------------------------------------------------------------------------------

TEST(NonceFailures, OnlyMinusOneIsAFailure) {
  NonceGenerator generator(16);
  TraceRecorder traces("IpsecKeyGen=0");
  ByteVector out = {1, 2, 3};
  {
    const Fault fault("RAND_bytes", 1, -1);
    EXPECT_FALSE(generator.generateNonce(&out));
  }
  expectErrors(traces, {"NonceGenerator::generateNonce Failed to generate random number"});
  EXPECT_EQ(out.size(), 16U);
  // Kept: 0 is OpenSSL's answer when its generator fails, and counts as a success here.
  for (const int answer : {0, 1, 2, -2}) {
    const Fault fault("RAND_bytes", 1, answer);
    EXPECT_TRUE(generator.generateNonce(&out));
    expectErrors(traces, {});
  }
}

}  // namespace
}  // namespace Ipsec::Testing

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Key lengths of transforms, OpenSSL's set-up, the dump of a byte vector.

#include "tests/support/CryptoCases.h"

#include <iomanip>
#include <sstream>

namespace Ipsec::Testing {
namespace {

TEST(KeyLength, FixedLengthOf3Des) {
  EXPECT_EQ(getEncryptKeyLen({ENCR_3DES, 0}), 24U);
}

TEST(KeyLength, GivenLengthAlwaysWins) {
  EXPECT_EQ(getEncryptKeyLen({ENCR_3DES, 128}), 16U);
  EXPECT_EQ(getEncryptKeyLen({ENCR_AES_CBC, 128}), 16U);
  EXPECT_EQ(getEncryptKeyLen({ENCR_AES_CBC, 192}), 24U);
  EXPECT_EQ(getEncryptKeyLen({ENCR_AES_CBC, 256}), 32U);
  EXPECT_EQ(getEncryptKeyLen({ENCR_AES_CBC, 135}), 16U);  // whole bytes
  EXPECT_EQ(getEncryptKeyLen({ENCR_AES_CBC, 7}), 0U);
  EXPECT_EQ(getEncryptKeyLen({static_cast<EncryptionAlgo>(999), 64}), 8U);
  EXPECT_EQ(getEncryptKeyLen({ENCR_AES_CBC, 0xFFFFFFFFFFFFFFFFU}), 0x1FFFFFFFFFFFFFFFU);
}

// Kept: AES-GCM with a 12-byte ICV gets no salt bytes, the two others get the four of RFC 4106.
TEST(KeyLength, SaltGoesToTwoOfThreeGcmForms) {
  EXPECT_EQ(getEncryptKeyLen({ENCR_AES_GCM_16, 256}), 36U);
  EXPECT_EQ(getEncryptKeyLen({ENCR_AES_GCM_16, 128}), 20U);
  EXPECT_EQ(getEncryptKeyLen({ENCR_AES_GCM_8, 128}), 20U);
  EXPECT_EQ(getEncryptKeyLen({ENCR_AES_GCM_12, 128}), 16U);
}

TEST(KeyLength, NullEncryptionTakesNothing) {
  EXPECT_EQ(getEncryptKeyLen({ENCR_NULL, 0}), 0U);
  EXPECT_EQ(getEncryptKeyLen({ENCR_NULL, 256}), 0U);
}

TEST(KeyLength, TransformsWithoutALengthThrow) {
  for (const std::uint32_t algo : {0U, 1U, 2U, 4U, 10U, 12U, 13U, 18U, 19U, 20U, 23U, 28U, 259U, 4294967295U}) {
    expectOutOfRange([algo] { return getEncryptKeyLen({static_cast<EncryptionAlgo>(algo), 0}); });
  }
}

TEST(KeyLength, IntegrityTransforms) {
  EXPECT_EQ(getIntegKeyLen(AUTH_HMAC_SHA1_96), 20U);
  EXPECT_EQ(getIntegKeyLen(AUTH_HMAC_SHA2_256_128), 32U);
  EXPECT_EQ(getIntegKeyLen(AUTH_HMAC_SHA2_384_192), 48U);
  EXPECT_EQ(getIntegKeyLen(AUTH_HMAC_SHA2_512_256), 64U);
}

TEST(KeyLength, OtherIntegrityTransformsThrow) {
  for (const std::uint32_t algo : {0U, 1U, 3U, 5U, 11U, 15U, 258U, 4294967295U}) {
    expectOutOfRange([algo] { return getIntegKeyLen(static_cast<IntegrityAlgo>(algo)); });
  }
}

TEST(KeyLength, SetUpSucceedsAsOftenAsItIsCalled) {
  EXPECT_EQ(initKeyGenLib(), 1);
  EXPECT_EQ(initKeyGenLib(), 1);
  cleanupKeyGenLib();
  cleanupKeyGenLib();
  EXPECT_EQ(initKeyGenLib(), 1);
}

TEST(KeyLength, NothingIsTraced) {
  TraceRecorder traces("IpsecKeyGen=0-31");
  (void)getEncryptKeyLen({ENCR_AES_CBC, 128});
  (void)getIntegKeyLen(AUTH_HMAC_SHA1_96);
  (void)initKeyGenLib();
  cleanupKeyGenLib();
  expectOutOfRange([] { return getEncryptKeyLen({ENCR_AES_CBC, 0}); });
  EXPECT_TRUE(traces.lines().empty());
}

// --- Dumps -----------------------------------------------------------------------------------------------------------

// Collects what is written to std::cout while the object lives, and restores the stream afterwards.
class CoutCapture {
 public:
  CoutCapture() : kept(std::cout.rdbuf(captured.rdbuf())), fill(std::cout.fill()), flags(std::cout.flags()) {}
  ~CoutCapture() {
    std::cout.clear();
    std::cout.rdbuf(kept);
    std::cout.fill(fill);
    std::cout.flags(flags);
  }
  CoutCapture(const CoutCapture&) = delete;
  CoutCapture& operator=(const CoutCapture&) = delete;

  std::string text() const { return captured.str(); }

 private:
  std::ostringstream captured;
  std::streambuf* kept;
  char fill;
  std::ios::fmtflags flags;
};

TEST(KeyLength, DumpIsFourLines) {
  CoutCapture output;
  const ByteVector bytes = {0x01, 0xab, 0x10};
  printVector("label", &bytes);
  EXPECT_EQ(output.text(), "label is\nlen is: 3\n01ab10\nend\n");
}

TEST(KeyLength, DumpOfAnEmptyVectorHasAnEmptyLine) {
  CoutCapture output;
  const ByteVector bytes;
  printVector("", &bytes);
  EXPECT_EQ(output.text(), " is\nlen is: 0\n\nend\n");
}

TEST(KeyLength, DumpCountsInDecimalWhateverTheBaseWas) {
  CoutCapture output;
  const ByteVector bytes(20, 0);
  std::cout << std::hex;
  printVector("x", &bytes);
  EXPECT_EQ(output.text(), "x is\nlen is: 20\n" + std::string(40, '0') + "\nend\n");
}

TEST(KeyLength, DumpHasNoLineBreaksHoweverLong) {
  CoutCapture output;
  const ByteVector bytes(1000, 0x0f);
  printVector("x", &bytes);
  std::string digits;
  for (int i = 0; i < 1000; ++i) {
    digits += "0f";
  }
  EXPECT_EQ(output.text(), "x is\nlen is: 1000\n" + digits + "\nend\n");
}

// Kept: the base is put back, the fill character is not.
TEST(KeyLength, DumpRestoresTheBaseAndLeavesTheFill) {
  CoutCapture output;
  const ByteVector bytes = {0xff};
  printVector("x", &bytes);
  std::cout << 255 << '|' << std::setw(4) << 7;
  EXPECT_EQ(output.text(), "x is\nlen is: 1\nff\nend\n255|0007");
}

// Kept: a null label puts the stream into its bad state, and nothing is written until somebody clears it.
TEST(KeyLength, NullLabelPutsTheStreamIntoItsBadState) {
  CoutCapture output;
  const ByteVector bytes = {1};
  printVector(nullptr, &bytes);
  EXPECT_TRUE(std::cout.bad());
  printVector("x", &bytes);
  EXPECT_EQ(output.text(), "");
  std::cout.clear();
  (void)std::cout.width(0);  // the digits that were not written have left their width
  printVector("x", &bytes);
  EXPECT_EQ(output.text(), "x is\nlen is: 1\n01\nend\n");
}

}  // namespace
}  // namespace Ipsec::Testing

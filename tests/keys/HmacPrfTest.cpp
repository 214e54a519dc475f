// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// HmacPRFunc: call order, known answers, each refusal with its trace lines, kept behaviour.

#include "tests/support/CryptoCases.h"

#include <algorithm>

namespace Ipsec::Testing {
namespace {

const ByteVector key = fromHex("000102030405060708090a0b0c0d0e0f10111213");
const ByteVector data = {'d', 'a', 't', 'a'};

ByteVector hmac(HashAlgorithm hash, const ByteVector& hmacKey, const ByteVector& input) {
  HmacPRFunc prf;
  ByteVector output;
  EXPECT_TRUE(prf.initHmacPRFunc(hash));
  EXPECT_TRUE(prf.setKey(&hmacKey));
  EXPECT_TRUE(prf.generatePRStream(&input, &output));
  return output;
}

// --- Call order ------------------------------------------------------------------------------------------------------

TEST(HmacPrf, RefusesEverythingBeforeInit) {
  HmacPRFunc prf;
  TraceRecorder traces("IpsecKeyGen=0");
  EXPECT_FALSE(prf.setKey(&key));
  expectErrors(traces, {"HmacPRFunc::setKey HmacPRFunc is not initialized"});
  EXPECT_EQ(prf.getOutputSize(), 0U);
  expectErrors(traces, {"HmacPRFunc::getOutputSize HmacPRFunc is not initialized"});
  EXPECT_EQ(prf.getKeySize(), 0U);  // asks for the output size, which reports the failure
  expectErrors(traces, {"HmacPRFunc::getOutputSize HmacPRFunc is not initialized"});
  expectUntouched(traces, {"HmacPRFunc::generatePRStream HmacPRFunc is not initialized"},
                  [&prf](ByteVector* out) { return prf.generatePRStream(&data, out); });
}

TEST(HmacPrf, RefusesToComputeWithoutAKey) {
  HmacPRFunc prf;
  ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA256));
  TraceRecorder traces("IpsecKeyGen=0");
  expectUntouched(traces, {"HmacPRFunc::generatePRStream Has not set the key"},
                  [&prf](ByteVector* out) { return prf.generatePRStream(&data, out); });
  EXPECT_FALSE(prf.generatePRStream(&data, nullptr));
  expectErrors(traces, {"HmacPRFunc::generatePRStream Has not set the key"});
}

TEST(HmacPrf, SizesAreTheDigests) {
  const std::array<std::size_t, 4> sizes = {20, 32, 48, 64};
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    HmacPRFunc prf;
    ASSERT_TRUE(prf.initHmacPRFunc(static_cast<HashAlgorithm>(i + 1)));
    EXPECT_EQ(prf.getOutputSize(), sizes[i]);
    EXPECT_EQ(prf.getKeySize(), sizes[i]);
  }
}

TEST(HmacPrf, SecondInitKeepsTheDigestAndTheKey) {
  HmacPRFunc prf;
  ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA256));
  ASSERT_TRUE(prf.setKey(&key));
  EXPECT_TRUE(prf.initHmacPRFunc(HASH_SHA512));
  EXPECT_TRUE(prf.initHmacPRFunc(static_cast<HashAlgorithm>(99)));  // not looked up any more
  EXPECT_EQ(prf.getOutputSize(), 32U);
  ByteVector output;
  EXPECT_TRUE(prf.generatePRStream(&data, &output));
  EXPECT_EQ(output, hmac(HASH_SHA256, key, data));
}

TEST(HmacPrf, InitThrowsForAnUnknownHash) {
  for (const std::uint32_t hash : {0U, 5U, 256U, 4294967295U}) {
    HmacPRFunc prf;
    expectOutOfRange([&prf, hash] { return prf.initHmacPRFunc(static_cast<HashAlgorithm>(hash)); });
    EXPECT_EQ(prf.getOutputSize(), 0U);
    EXPECT_TRUE(prf.initHmacPRFunc(HASH_SHA1));
    EXPECT_EQ(prf.getOutputSize(), 20U);
  }
}

TEST(HmacPrf, EntersItsFunctionsAtLevel4) {
  TraceRecorder traces("IpsecKeyGen=4");
  {
    HmacPRFunc prf;
    ByteVector output;
    EXPECT_TRUE(prf.initHmacPRFunc(HASH_SHA1));
    EXPECT_TRUE(prf.setKey(&key));
    EXPECT_EQ(prf.getKeySize(), 20U);
    EXPECT_TRUE(prf.generatePRStream(&data, nullptr));
    EXPECT_TRUE(prf.generatePRStream(&data, &output));
  }
  EXPECT_EQ(traces.text(),
            (Lines{"initHmacPRFunc: ", "setKey: ", "getKeySize: ", "getOutputSize: ", "generatePRStream: ",
                   "generatePRStream: ", "getOutputSize: ", "setKey: ", "~HmacPRFunc: "}));
  EXPECT_EQ(traces.text(4).size(), 9U);
  for (const Cor::TraceLine& line : traces.lines()) {
    EXPECT_EQ(line.handle, "IpsecKeyGen");
    EXPECT_EQ(line.file, "src/IpsecKeyGen.cpp");
  }
}

TEST(HmacPrf, UnusedObjectIsDestroyedQuietly) {
  TraceRecorder traces("IpsecKeyGen=0-31");
  { HmacPRFunc prf; }
  EXPECT_EQ(traces.text(), Lines{"~HmacPRFunc: "});
}

// --- Known answers ---------------------------------------------------------------------------------------------------

TEST(HmacPrf, AnswersTheVectors) {
  const std::size_t blocks = forEachBlock(vectors("hmac.txt"), [](Block& block) {
    ByteVector output = hmac(hashNamed(block.text("Hash")), block.bytes("Key"), block.bytes("Input"));
    if (block.has("Truncated")) {
      output.resize(block.number("Truncated"));
    }
    EXPECT_EQ(output, block.bytes("Output"));
  });
  EXPECT_EQ(blocks, 76U);
}

TEST(HmacPrf, InputInPiecesIsTheInputJoined) {
  ByteVector input(300);
  for (std::size_t i = 0; i < input.size(); ++i) {
    input[i] = static_cast<unsigned char>(i);
  }
  for (const HashAlgorithm hash : {HASH_SHA1, HASH_SHA256, HASH_SHA384, HASH_SHA512}) {
    const ByteVector expected = hmac(hash, key, input);
    HmacPRFunc prf;
    ASSERT_TRUE(prf.initHmacPRFunc(hash));
    ASSERT_TRUE(prf.setKey(&key));
    for (const std::size_t step : {1U, 7U, 64U, 127U, 299U}) {
      std::size_t at = 0;
      for (; at + step < input.size(); at += step) {
        const ByteVector piece(&input[at], &input[at] + step);
        EXPECT_TRUE(prf.generatePRStream(&piece, nullptr));
      }
      const ByteVector last(&input[at], input.data() + input.size());
      ByteVector output;
      EXPECT_TRUE(prf.generatePRStream(&last, &output));
      EXPECT_EQ(output, expected);
    }
  }
}

TEST(HmacPrf, EmptyPiecesChangeNothing) {
  HmacPRFunc prf;
  ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA256));
  ASSERT_TRUE(prf.setKey(&key));
  const ByteVector nothing;
  ByteVector output;
  EXPECT_TRUE(prf.generatePRStream(&nothing, &output));
  EXPECT_EQ(output, hmac(HASH_SHA256, key, {}));
  EXPECT_EQ(output.size(), 32U);
  EXPECT_TRUE(prf.generatePRStream(&nothing, nullptr));
  EXPECT_TRUE(prf.generatePRStream(&data, nullptr));
  EXPECT_TRUE(prf.generatePRStream(&nothing, &output));
  EXPECT_EQ(output, hmac(HASH_SHA256, key, data));
}

TEST(HmacPrf, OutputIsResizedAndOverwritten) {
  HmacPRFunc prf;
  ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA1));
  ASSERT_TRUE(prf.setKey(&key));
  for (const std::size_t size : {0U, 1U, 20U, 500U}) {
    ByteVector output(size, 0xEE);
    EXPECT_TRUE(prf.generatePRStream(&data, &output));
    EXPECT_EQ(output, hmac(HASH_SHA1, key, data));
  }
}

// prf+ writes each block over the one that it absorbed before.
TEST(HmacPrf, OutputMayBeAVectorThatWasAbsorbed) {
  HmacPRFunc prf;
  ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA256));
  ASSERT_TRUE(prf.setKey(&key));
  ByteVector absorbed = data;
  EXPECT_TRUE(prf.generatePRStream(&absorbed, nullptr));
  EXPECT_TRUE(prf.generatePRStream(&key, &absorbed));
  EXPECT_EQ(absorbed, hmac(HASH_SHA256, key, data + key));
}

// --- Keys ------------------------------------------------------------------------------------------------------------

TEST(HmacPrf, EachOutputStartsAfreshUnderTheSameKey) {
  for (const HashAlgorithm hash : {HASH_SHA1, HASH_SHA256, HASH_SHA384, HASH_SHA512}) {
    HmacPRFunc prf;
    ASSERT_TRUE(prf.initHmacPRFunc(hash));
    ASSERT_TRUE(prf.setKey(&key));
    for (int i = 0; i < 3; ++i) {
      ByteVector output;
      EXPECT_TRUE(prf.generatePRStream(&data, &output));
      EXPECT_EQ(output, hmac(hash, key, data));
    }
  }
}

TEST(HmacPrf, NullKeyInstallsTheLastOneAgainAndDropsPendingInput) {
  HmacPRFunc prf;
  ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA256));
  ASSERT_TRUE(prf.setKey(&key));
  EXPECT_TRUE(prf.generatePRStream(&key, nullptr));
  EXPECT_TRUE(prf.setKey(nullptr));
  ByteVector output;
  EXPECT_TRUE(prf.generatePRStream(&data, &output));
  EXPECT_EQ(output, hmac(HASH_SHA256, key, data));
}

TEST(HmacPrf, NewKeyDropsPendingInput) {
  HmacPRFunc prf;
  ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA256));
  for (const ByteVector& each : {ByteVector(), key, ByteVector(64, 1), ByteVector(65, 1), ByteVector(), key}) {
    ASSERT_TRUE(prf.setKey(&each));
    EXPECT_TRUE(prf.generatePRStream(&key, nullptr));
    ASSERT_TRUE(prf.setKey(&each));
    ByteVector output;
    EXPECT_TRUE(prf.generatePRStream(&data, &output));
    EXPECT_EQ(output, hmac(HASH_SHA256, each, data));
  }
}

// Kept: the key is borrowed and read again after every output.
TEST(HmacPrf, KeyChangedBehindItsBackCountsFromTheNextOutputOn) {
  for (const ByteVector& changed : {ByteVector(20, 0xAB), ByteVector(19, 0), ByteVector(), ByteVector(200, 1)}) {
    HmacPRFunc prf;
    ByteVector borrowed(20, 0);
    ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA256));
    ASSERT_TRUE(prf.setKey(&borrowed));
    borrowed = changed;
    ByteVector output;
    EXPECT_TRUE(prf.generatePRStream(&data, &output));
    EXPECT_EQ(output, hmac(HASH_SHA256, ByteVector(20, 0), data));
    EXPECT_TRUE(prf.generatePRStream(&data, &output));
    EXPECT_EQ(output, hmac(HASH_SHA256, changed, data));
  }
}

TEST(HmacPrf, EveryByteOfABorrowedKeyCounts) {
  const std::array<std::size_t, 15> lengths = {1, 7, 8, 9, 15, 16, 17, 63, 64, 65, 128, 129, 511, 512, 513};
  for (const std::size_t length : lengths) {
    for (std::size_t flipped = 0; flipped < length; ++flipped) {
      HmacPRFunc prf;
      ByteVector borrowed(length, 0x5A);
      ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA256));
      ASSERT_TRUE(prf.setKey(&borrowed));
      borrowed[flipped] ^= 0x80;
      ByteVector output;
      ASSERT_TRUE(prf.generatePRStream(&data, &output));
      ASSERT_TRUE(prf.generatePRStream(&data, &output));
      ASSERT_EQ(output, hmac(HASH_SHA256, borrowed, data)) << "byte " << flipped << " of " << length;
    }
  }
}

// Short pieces are collected before they are absorbed. Nothing may be lost at the limit of the collection.
TEST(HmacPrf, PiecesOfAnyLengthsAreTheInputJoined) {
  const std::array<std::size_t, 9> lengths = {0, 1, 127, 128, 255, 256, 257, 512, 1000};
  for (const std::size_t first : lengths) {
    for (const std::size_t second : lengths) {
      ByteVector one(first, 0x11);
      const ByteVector two(second, 0x22);
      HmacPRFunc prf;
      ByteVector output;
      ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA512));
      ASSERT_TRUE(prf.setKey(&key));
      ASSERT_TRUE(prf.generatePRStream(&one, nullptr));
      ASSERT_TRUE(prf.generatePRStream(&two, nullptr));
      ASSERT_TRUE(prf.generatePRStream(&data, &output));
      one.insert(one.end(), two.begin(), two.end());
      one.insert(one.end(), data.begin(), data.end());
      ASSERT_EQ(output, hmac(HASH_SHA512, key, one)) << first << " and " << second;
    }
  }
}

// An empty key is a valid key, although a null pointer means "the key given last" in OpenSSL's own interface.
TEST(HmacPrf, EmptyKeyReplacesTheKeyBefore) {
  HmacPRFunc prf;
  ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA1));
  ASSERT_TRUE(prf.setKey(&key));
  const ByteVector empty;
  ASSERT_TRUE(prf.setKey(&empty));
  ByteVector output;
  EXPECT_TRUE(prf.generatePRStream(&data, &output));
  EXPECT_EQ(output, hmac(HASH_SHA1, {}, data));
  EXPECT_NE(output, hmac(HASH_SHA1, key, data));
}

TEST(HmacPrf, ObjectsDoNotShareAnything) {
  HmacPRFunc first;
  HmacPRFunc second;
  const ByteVector other(40, 0x77);
  ASSERT_TRUE(first.initHmacPRFunc(HASH_SHA256));
  ASSERT_TRUE(second.initHmacPRFunc(HASH_SHA384));
  ASSERT_TRUE(first.setKey(&key));
  ASSERT_TRUE(second.setKey(&other));
  ByteVector firstOutput;
  ByteVector secondOutput;
  EXPECT_TRUE(first.generatePRStream(&data, nullptr));
  EXPECT_TRUE(second.generatePRStream(&key, nullptr));
  EXPECT_TRUE(first.generatePRStream(&data, &firstOutput));
  EXPECT_TRUE(second.generatePRStream(&data, &secondOutput));
  EXPECT_EQ(firstOutput, hmac(HASH_SHA256, key, data + data));
  EXPECT_EQ(secondOutput, hmac(HASH_SHA384, other, key + data));
}

// --- Through the virtual slots ---------------------------------------------------------------------------------------

class ShortPrf : public HmacPRFunc {
 public:
  std::size_t getOutputSize() override { return 12; }
  bool setKey(const ByteVector* newKey) override {
    rekeyed += newKey == nullptr;
    return accept && HmacPRFunc::setKey(newKey);
  }

  int rekeyed = 0;
  bool accept = true;
};

TEST(HmacPrf, OverriddenOutputSizeMovesKeySizeAndOutput) {
  ShortPrf prf;
  EXPECT_EQ(prf.getKeySize(), 12U);
  ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA256));
  ASSERT_TRUE(prf.setKey(&key));
  ByteVector output;
  EXPECT_TRUE(prf.generatePRStream(&data, &output));
  ByteVector expected = hmac(HASH_SHA256, key, data);
  expected.resize(12);
  EXPECT_EQ(output, expected);
}

TEST(HmacPrf, RekeyingGoesThroughTheVirtualSlot) {
  ShortPrf prf;
  ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA256));
  ASSERT_TRUE(prf.setKey(&key));
  ByteVector output;
  EXPECT_TRUE(prf.generatePRStream(&data, nullptr));
  EXPECT_EQ(prf.rekeyed, 0);
  EXPECT_TRUE(prf.generatePRStream(&data, &output));
  EXPECT_EQ(prf.rekeyed, 1);
  prf.accept = false;
  TraceRecorder traces("IpsecKeyGen=0");
  EXPECT_FALSE(prf.generatePRStream(&data, &output));
  expectErrors(traces, {"HmacPRFunc::generatePRStream Set key to original failed"});
}

}  // namespace
}  // namespace Ipsec::Testing

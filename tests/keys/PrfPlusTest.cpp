// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// PRFuncPlus: known answers, pieces, any kind of PRF, each refusal with its trace lines, kept behaviour.

#include "tests/support/CryptoCases.h"

#include <openssl/evp.h>

#include <algorithm>

namespace Ipsec::Testing {
namespace {

const ByteVector streamKey(32, 0x4B);
const ByteVector seed = {'s', 'e', 'e', 'd'};

// An HMAC with a key, for the streams below.
struct KeyedPrf : HmacPRFunc {
  explicit KeyedPrf(HashAlgorithm hash = HASH_SHA256, const ByteVector& hmacKey = streamKey) : held(hmacKey) {
    EXPECT_TRUE(initHmacPRFunc(hash));
    EXPECT_TRUE(setKey(&held));
  }

  ByteVector of(const ByteVector& input) {
    ByteVector output;
    EXPECT_TRUE(generatePRStream(&input, &output));
    return output;
  }

  ByteVector held;
};

ByteVector draw(PRFuncPlus& stream, std::size_t length) {
  ByteVector out;
  EXPECT_TRUE(stream.generatePRStream(length, &out));
  EXPECT_EQ(out.size(), length);
  return out;
}

ByteVector sha256(const ByteVector& bytes) {
  ByteVector digest(32);
  EXPECT_EQ(EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr), 1);
  return digest;
}

// --- Known answers ---------------------------------------------------------------------------------------------------

TEST(PrfPlus, AnswersTheVectors) {
  const std::size_t blocks = forEachBlock(vectors("prf_plus.txt"), [](Block& block) {
    KeyedPrf prf(hashNamed(block.text("Hash")), block.bytes("Key"));
    const ByteVector streamSeed = block.bytes("Seed");
    PRFuncPlus plus(&prf, block.text("Mode") == "counter");
    ASSERT_TRUE(plus.initPRFuncPlus(&streamSeed));
    const std::size_t size = prf.getOutputSize();
    const ByteVector stream = draw(plus, block.number("Blocks") * size);
    EXPECT_EQ(sha256(stream), block.bytes("StreamSha256"));
    for (const std::size_t n : {1U, 2U, 255U, 256U, 257U, 520U}) {
      const unsigned char* start = stream.data() + (n - 1) * size;
      EXPECT_EQ(ByteVector(start, start + size), block.bytes("Block" + std::to_string(n))) << n;
    }
  });
  EXPECT_EQ(blocks, 48U);
}

TEST(PrfPlus, CounterModeIsTheStreamOfRfc7296) {
  KeyedPrf prf;
  PRFuncPlus plus(&prf, true);
  ASSERT_TRUE(plus.initPRFuncPlus(&seed));
  KeyedPrf reference;
  ByteVector block = reference.of(seed + ByteVector{1});
  ByteVector expected = block;
  for (unsigned n = 2; n <= 258; ++n) {
    block = reference.of(block + seed + ByteVector{static_cast<unsigned char>(n)});  // wraps to 0 at block 256
    expected = expected + block;
  }
  EXPECT_EQ(draw(plus, expected.size()), expected);
}

TEST(PrfPlus, ChainedModeIsTheStreamOfRfc2409) {
  KeyedPrf prf;
  PRFuncPlus plus(&prf, false);
  ASSERT_TRUE(plus.initPRFuncPlus(&seed));
  KeyedPrf reference;
  ByteVector block = reference.of(seed);
  ByteVector expected = block;
  for (unsigned n = 2; n <= 258; ++n) {
    block = reference.of(block + seed);
    expected = expected + block;
  }
  EXPECT_EQ(draw(plus, expected.size()), expected);
}

// --- Pieces ----------------------------------------------------------------------------------------------------------

TEST(PrfPlus, PiecesJoinToTheStream) {
  for (const bool counter : {true, false}) {
    KeyedPrf wholePrf;
    PRFuncPlus whole(&wholePrf, counter);
    ASSERT_TRUE(whole.initPRFuncPlus(&seed));
    const ByteVector expected = draw(whole, 2000);
    // Single bytes; pieces that end at, before and after block boundaries; whole blocks; with empty pieces in between.
    for (const std::vector<std::size_t>& pattern : std::vector<std::vector<std::size_t>>{
             {1}, {10, 22}, {31, 1}, {31, 2}, {32}, {33}, {64, 0}, {0, 5, 0}, {100, 1, 27}, {2000}}) {
      KeyedPrf prf;
      PRFuncPlus plus(&prf, counter);
      ASSERT_TRUE(plus.initPRFuncPlus(&seed));
      ByteVector joined;
      for (std::size_t i = 0; joined.size() < expected.size(); ++i) {
        joined = joined + draw(plus, std::min(pattern[i % pattern.size()], expected.size() - joined.size()));
      }
      EXPECT_EQ(joined, expected) << counter << " " << pattern.front();
    }
  }
}

TEST(PrfPlus, OutputIsResizedAndOverwritten) {
  KeyedPrf prf;
  PRFuncPlus plus(&prf, true);
  ASSERT_TRUE(plus.initPRFuncPlus(&seed));
  ByteVector out(500, 0xEE);
  EXPECT_TRUE(plus.generatePRStream(3, &out));
  EXPECT_EQ(out.size(), 3U);
  EXPECT_TRUE(plus.generatePRStream(0, &out));
  EXPECT_TRUE(out.empty());
}

// --- Any PRF below ---------------------------------------------------------------------------------------------------

// A PRF that records its input, returns blocks of chosen sizes, and fails where a test wants it.
class ScriptedPrf : public PRFunc {
 public:
  bool generatePRStream(const ByteVector* input, ByteVector* output) override {
    if (++calls == throwAt) {
      throw std::bad_alloc();
    }
    if (calls == failAt) {
      if (clearsOnFailure && output != nullptr) {
        output->clear();
      }
      return false;
    }
    pending = pending + *input;
    if (output == nullptr) {
      return true;
    }
    computations.push_back(pending);
    pending.clear();
    output->assign(sizes[(computations.size() - 1) % sizes.size()], static_cast<unsigned char>(computations.size()));
    return true;
  }
  std::size_t getOutputSize() override {
    ++sizeQuestions;
    return 32;
  }
  std::size_t getKeySize() override { return getOutputSize(); }
  bool setKey(const ByteVector*) override {
    pending.clear();  // as every key does, given or installed again
    ++keysSet;
    return true;
  }

  std::vector<std::size_t> sizes = {4};
  int calls = 0;
  int failAt = 0;
  int throwAt = 0;
  bool clearsOnFailure = false;
  int sizeQuestions = 0;
  int keysSet = 0;
  ByteVector pending;
  std::vector<ByteVector> computations;
};

TEST(PrfPlus, ComputesABlockOnlyWhenItsFirstByteIsDrawn) {
  ScriptedPrf prf;
  PRFuncPlus plus(&prf, true);
  ASSERT_TRUE(plus.initPRFuncPlus(&seed));
  EXPECT_EQ(prf.computations.size(), 1U);
  EXPECT_EQ(draw(plus, 4), (ByteVector{1, 1, 1, 1}));  // ends at the boundary
  EXPECT_EQ(prf.computations.size(), 1U);
  const int callsBefore = prf.calls;
  EXPECT_EQ(draw(plus, 0), ByteVector());
  EXPECT_EQ(prf.calls, callsBefore);
  EXPECT_EQ(draw(plus, 1), ByteVector{2});
  EXPECT_EQ(prf.computations.size(), 2U);
  EXPECT_EQ(draw(plus, 3), (ByteVector{2, 2, 2}));
  EXPECT_EQ(prf.computations.size(), 2U);
}

// A stream must not be used after a failure. A caller that does so gets no bytes from beyond the block that the failure
// left.
TEST(PrfPlus, DrawAfterAFailedBlockStaysInsideTheBuffer) {
  ScriptedPrf prf;
  PRFuncPlus plus(&prf, true);
  ASSERT_TRUE(plus.initPRFuncPlus(&seed));
  (void)draw(plus, 4);
  prf.failAt = prf.calls + 3;
  prf.clearsOnFailure = true;
  ByteVector out;
  EXPECT_FALSE(plus.generatePRStream(4, &out));
  EXPECT_TRUE(plus.generatePRStream(1 << 20, &out));
  const std::size_t failedBlocks = 1;
  EXPECT_EQ(prf.computations.size(), failedBlocks + (1 << 20) / 4);
}

// A stream of empty blocks would have no end.
TEST(PrfPlus, AnEmptyBlockFailsWithTheMessageOfItsMode) {
  struct Mode {
    bool counter;
    const char* line;
  };
  for (const Mode& mode : {Mode{true, "PRFuncPlus::generatePRStream Counter based generatePRStream failed"},
                           Mode{false, "PRFuncPlus::generatePRStream Non-counter based generatePRStream failed"}}) {
    TraceRecorder traces("IpsecKeyGen=0");
    ScriptedPrf prf;
    prf.sizes = {0, 3, 0};
    PRFuncPlus plus(&prf, mode.counter);
    ASSERT_TRUE(plus.initPRFuncPlus(&seed));  // the first block may be empty
    EXPECT_EQ(draw(plus, 3), (ByteVector{2, 2, 2}));
    ByteVector out;
    EXPECT_FALSE(plus.generatePRStream(5, &out));
    EXPECT_EQ(out, ByteVector(5, 0));
    expectErrors(traces, {mode.line});
  }
}

// Whatever a PRF has absorbed before it throws must not get into another block.
TEST(PrfPlus, AnExceptionOfThePrfLeavesNoWrongStream) {
  for (const bool counter : {true, false}) {
    ScriptedPrf undisturbed;
    PRFuncPlus expected(&undisturbed, counter);
    ASSERT_TRUE(expected.initPRFuncPlus(&seed));
    (void)draw(expected, 12);
    for (int throwAt = 1; throwAt <= undisturbed.calls; ++throwAt) {
      ScriptedPrf prf;
      prf.throwAt = throwAt;
      PRFuncPlus plus(&prf, counter);
      ByteVector out;
      const auto start = [&] { return plus.initPRFuncPlus(&seed); };
      const auto drawTwelve = [&] { return plus.generatePRStream(12, &out); };
      const int callsOfInit = counter ? 2 : 1;
      if (throwAt <= callsOfInit) {
        EXPECT_THROW((void)start(), std::bad_alloc);
      } else {
        ASSERT_TRUE(start());
        EXPECT_THROW((void)drawTwelve(), std::bad_alloc);
        EXPECT_FALSE(drawTwelve()) << "a stream that was interrupted goes on";
        prf.computations.clear();  // the stream begins anew
      }
      EXPECT_TRUE(start());
      EXPECT_TRUE(drawTwelve());
      EXPECT_EQ(prf.computations, undisturbed.computations) << "call " << throwAt;
    }
  }
}

TEST(PrfPlus, FeedsCounterBytesThatWrap) {
  ScriptedPrf prf;
  PRFuncPlus plus(&prf, true);
  ASSERT_TRUE(plus.initPRFuncPlus(&seed));
  (void)draw(plus, std::size_t{4} * 600);
  ASSERT_EQ(prf.computations.size(), 600U);
  EXPECT_EQ(prf.computations[0], seed + ByteVector{1});
  for (std::size_t n = 2; n <= 600; ++n) {
    const ByteVector previous(4, static_cast<unsigned char>(n - 1));
    EXPECT_EQ(prf.computations[n - 1], previous + seed + ByteVector{static_cast<unsigned char>(n)}) << n;
  }
}

TEST(PrfPlus, ChainedModeFeedsNoCounter) {
  ScriptedPrf prf;
  PRFuncPlus plus(&prf, false);
  ASSERT_TRUE(plus.initPRFuncPlus(&seed));
  (void)draw(plus, 12);
  ASSERT_EQ(prf.computations.size(), 3U);
  EXPECT_EQ(prf.computations[0], seed);
  EXPECT_EQ(prf.computations[1], (ByteVector{1, 1, 1, 1}) + seed);
  EXPECT_EQ(prf.computations[2], (ByteVector{2, 2, 2, 2}) + seed);
}

TEST(PrfPlus, BlocksMayHaveAnySizeAndOnlyTheComputationIsUsed) {
  ScriptedPrf prf;
  prf.sizes = {3, 1, 200, 5};
  PRFuncPlus plus(&prf, true);
  ASSERT_TRUE(plus.initPRFuncPlus(&seed));
  const ByteVector expected = (ByteVector{1, 1, 1, 2}) + ByteVector(200, 3) + ByteVector(5, 4) + ByteVector(3, 5);
  ByteVector drawn = draw(plus, 2);
  drawn = drawn + draw(plus, 5);
  EXPECT_EQ(drawn + draw(plus, expected.size() - 7), expected);
  EXPECT_EQ(prf.sizeQuestions, 0);
  EXPECT_EQ(prf.keysSet, 0);
}

TEST(PrfPlus, SeedIsCopied) {
  ScriptedPrf prf;
  PRFuncPlus plus(&prf, false);
  ByteVector given = seed;
  ASSERT_TRUE(plus.initPRFuncPlus(&given));
  given.assign(1000, 0);
  (void)draw(plus, 5);
  EXPECT_EQ(prf.computations[1], (ByteVector{1, 1, 1, 1}) + seed);
}

TEST(PrfPlus, EmptySeedIsASeed) {
  const ByteVector empty;
  KeyedPrf prf;
  PRFuncPlus plus(&prf, true);
  ASSERT_TRUE(plus.initPRFuncPlus(&empty));
  KeyedPrf reference;
  EXPECT_EQ(draw(plus, 32), reference.of({1}));
}

TEST(PrfPlus, SecondInitKeepsSeedAndPosition) {
  ScriptedPrf prf;
  PRFuncPlus plus(&prf, true);
  ASSERT_TRUE(plus.initPRFuncPlus(&seed));
  (void)draw(plus, 6);
  const ByteVector other = {9};
  EXPECT_TRUE(plus.initPRFuncPlus(&other));
  EXPECT_EQ(prf.computations.size(), 2U);
  EXPECT_EQ(draw(plus, 3), (ByteVector{2, 2, 3}));
  EXPECT_EQ(prf.computations[2], (ByteVector{2, 2, 2, 2}) + seed + ByteVector{3});
}

// --- Refusals --------------------------------------------------------------------------------------------------------

TEST(PrfPlus, RefusesToDrawBeforeInit) {
  ScriptedPrf prf;
  PRFuncPlus plus(&prf, true);
  TraceRecorder traces("IpsecKeyGen=0");
  for (const std::size_t length : {0U, 1U, 100U}) {
    expectUntouched(traces, {"PRFuncPlus::generatePRStream PRFuncPlus is not initialized"},
                    [&plus, length](ByteVector* out) { return plus.generatePRStream(length, out); });
  }
  EXPECT_EQ(prf.calls, 0);
}

TEST(PrfPlus, FailedInitMayBeRetried) {
  struct Case {
    bool counter;
    int failAt;
    const char* line;
  };
  for (const Case& each :
       {Case{true, 1, "PRFuncPlus::initPRFuncPlus Failed to init prf function plus with counter enabled"},
        Case{true, 2, "PRFuncPlus::initPRFuncPlus Failed to init prf function plus with counter enabled"},
        Case{false, 1, "PRFuncPlus::initPRFuncPlus Failed to init prf function plus with counter disabled"}}) {
    ScriptedPrf prf;
    prf.failAt = each.failAt;
    PRFuncPlus plus(&prf, each.counter);
    TraceRecorder traces("IpsecKeyGen=0");
    EXPECT_FALSE(plus.initPRFuncPlus(&seed));
    expectErrors(traces, {each.line});
    expectUntouched(traces, {"PRFuncPlus::generatePRStream PRFuncPlus is not initialized"},
                    [&plus](ByteVector* out) { return plus.generatePRStream(4, out); });
    prf.pending.clear();
    EXPECT_TRUE(plus.initPRFuncPlus(&seed));
    EXPECT_EQ(draw(plus, 4), (ByteVector{1, 1, 1, 1}));
    EXPECT_EQ(prf.computations[0], each.counter ? seed + ByteVector{1} : seed);
  }
}

TEST(PrfPlus, FailureInABlockIsReportedAndLeavesTheOutputPartlyFilled) {
  struct Case {
    bool counter;
    int failAt;
    const char* line;
  };
  for (const Case& each : {Case{true, 3, "PRFuncPlus::generatePRStream GeneratePRStream from buffer failed"},
                           Case{true, 4, "PRFuncPlus::generatePRStream Counter based generatePRStream failed"},
                           Case{true, 5, "PRFuncPlus::generatePRStream Counter based generatePRStream failed"},
                           Case{false, 2, "PRFuncPlus::generatePRStream GeneratePRStream from buffer failed"},
                           Case{false, 3, "PRFuncPlus::generatePRStream Non-counter based generatePRStream failed"}}) {
    ScriptedPrf prf;
    prf.failAt = each.failAt;
    PRFuncPlus plus(&prf, each.counter);
    ASSERT_TRUE(plus.initPRFuncPlus(&seed));
    TraceRecorder traces("IpsecKeyGen=0");
    ByteVector out(2, 0xEE);
    EXPECT_FALSE(plus.generatePRStream(9, &out));
    expectErrors(traces, {each.line});
    EXPECT_EQ(out, (ByteVector{1, 1, 1, 1, 0, 0, 0, 0, 0}));
  }
}

TEST(PrfPlus, FailureOfTheHmacIsReportedFromTheInside) {
  HmacPRFunc unkeyed;
  ASSERT_TRUE(unkeyed.initHmacPRFunc(HASH_SHA256));
  TraceRecorder traces("IpsecKeyGen=0");
  for (const bool counter : {true, false}) {
    PRFuncPlus plus(&unkeyed, counter);
    EXPECT_FALSE(plus.initPRFuncPlus(&seed));
    expectErrors(traces, {"HmacPRFunc::generatePRStream Has not set the key",
                          std::string("PRFuncPlus::initPRFuncPlus Failed to init prf function plus with counter ") +
                              (counter ? "enabled" : "disabled")});
  }
}

TEST(PrfPlus, EntersItsFunctionsAtLevel4) {
  ScriptedPrf prf;
  TraceRecorder traces("IpsecKeyGen=4");
  {
    PRFuncPlus plus(&prf, true);
    EXPECT_TRUE(plus.initPRFuncPlus(&seed));
    (void)draw(plus, 100);
  }
  EXPECT_EQ(traces.text(), (Lines{"initPRFuncPlus: ", "generatePRStream: "}));
  EXPECT_EQ(traces.text(4).size(), 2U);
}

}  // namespace
}  // namespace Ipsec::Testing

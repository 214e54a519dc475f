// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What HMAC and prf+ leave of keys, of what is made of keys, and of input in memory: nothing.
#define OPENSSL_SUPPRESS_DEPRECATED  // the old interface alone shows the state of a digest

#include "platform/CryptoShim.h"
#include "tests/support/CryptoCases.h"
#include "tests/support/Remains.h"

#include <gmock/gmock.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include <dlfcn.h>

#include <memory>

namespace {

int failingCopy = 0;  // counts down; the copy at which it becomes 0 fails

}  // namespace

extern "C" int EVP_MD_CTX_copy_ex(EVP_MD_CTX* to, const EVP_MD_CTX* from) {
  static const auto real = reinterpret_cast<decltype(&EVP_MD_CTX_copy_ex)>(dlsym(RTLD_NEXT, "EVP_MD_CTX_copy_ex"));
  return failingCopy != 0 && --failingCopy == 0 ? 0 : real(to, from);
}

namespace Ipsec::Testing {
namespace {

struct HashCase {
  HashAlgorithm algorithm;
  const EVP_MD* (*digest)();
  std::size_t block;
  ByteVector (*stateAfter)(const ByteVector& block);
};

// Returns the chaining value after one block. The words are in the machine's order, as they are in memory.
template <class State, auto init, auto update>
ByteVector stateAfter(const ByteVector& block) {
  State state;
  init(&state);
  update(&state, block.data(), block.size());
  const auto* const words = reinterpret_cast<const unsigned char*>(&state);  // the state begins with them
  return {words, words + (sizeof(State) == sizeof(SHA512_CTX) ? 64 : sizeof(State) == sizeof(SHA256_CTX) ? 32 : 20)};
}

const HashCase hashes[] = {
    {HASH_SHA1, EVP_sha1, 64, stateAfter<SHA_CTX, SHA1_Init, SHA1_Update>},
    {HASH_SHA256, EVP_sha256, 64, stateAfter<SHA256_CTX, SHA256_Init, SHA256_Update>},
    {HASH_SHA384, EVP_sha384, 128, stateAfter<SHA512_CTX, SHA384_Init, SHA384_Update>},
    {HASH_SHA512, EVP_sha512, 128, stateAfter<SHA512_CTX, SHA512_Init, SHA512_Update>},
};

ByteVector random(std::size_t size) {
  NonceGenerator generator(size);
  ByteVector bytes;
  EXPECT_TRUE(generator.generateNonce(&bytes));
  return bytes;
}

ByteVector digestOf(const HashCase& hash, const ByteVector& input) {
  ByteVector digest(EVP_MAX_MD_SIZE);
  unsigned size = 0;
  EXPECT_EQ(EVP_Digest(input.data(), input.size(), digest.data(), &size, hash.digest(), nullptr), 1);
  digest.resize(size);
  return digest;
}

ByteVector xored(ByteVector block, unsigned char pad) {
  for (unsigned char& byte : block) {
    byte = static_cast<unsigned char>(byte ^ pad);
  }
  return block;
}

// RFC 2104, with names for all that it computes on the way.
class KnownHmac {
 public:
  KnownHmac(const HashCase& computed, const ByteVector& key) : hash(computed) {
    ByteVector block = key.size() > hash.block ? digestOf(hash, key) : key;
    if (key.size() > hash.block) {
      needles.add("hashed key", block);
    }
    block.resize(hash.block);
    inner = xored(block, 0x36);
    outer = xored(block, 0x5c);
    needles.add("key", key);
    needles.add("inner pad", inner);
    needles.add("outer pad", outer);
    needles.add("inner state", hash.stateAfter(inner));
    needles.add("outer state", hash.stateAfter(outer));
  }

  // Also remembers the input, the inner hash and the MAC.
  ByteVector mac(const ByteVector& input) {
    const ByteVector innerHash = digestOf(hash, inner + input);
    needles.add("input", input);
    needles.add("inner hash", innerHash);
    ByteVector computed = digestOf(hash, outer + innerHash);
    needles.add("MAC", computed);
    return computed;
  }

  Needles needles;

 private:
  const HashCase& hash;
  ByteVector inner;
  ByteVector outer;
};

// --- HMAC ------------------------------------------------------------------------------------------------------------

class HmacRemains : public testing::TestWithParam<std::tuple<HashCase, std::size_t, std::size_t>> {
 protected:
  HmacRemains()
      : hash(std::get<0>(GetParam())),
        key(random(std::get<1>(GetParam()))),
        input(random(std::get<2>(GetParam()))),
        known(hash, key),
        expected(known.mac(input)) {
    EXPECT_EQ(hmac_create(&context), 0);
  }
  ~HmacRemains() override { (void)hmac_cleanup(&context); }

  void install(const ByteVector& installed) {
    ASSERT_EQ(hmac_init(&context, hash.digest(), installed.data(), installed.size()), 0);
  }

  void absorb() { ASSERT_EQ(hmac_update(&context, input.data(), input.size()), 0); }

  const HashCase& hash;
  const ByteVector key;
  const ByteVector input;
  KnownHmac known;
  const ByteVector expected;
  hmac_ctx context = {};
};

TEST_P(HmacRemains, OfEachCall) {
  ByteVector out(EVP_MAX_MD_SIZE);
  std::size_t written = 0;
  const auto finish = [&] { EXPECT_EQ(hmac_final(&context, out.data(), out.size(), &written), 0); };
  expectFindings(Remains([&] { install(key); }).dead(known.needles), {});
  expectFindings(Remains([&] { absorb(); }).dead(known.needles), {});
  expectFindings(Remains(finish).dead(known.needles), {});
  out.resize(written);
  EXPECT_EQ(out, expected);
  expectFindings(Remains([&] { (void)hmac_cleanup(&context); }).dead(known.needles), {});
}

TEST_P(HmacRemains, OfAnOutputThatIsCutOff) {
  std::array<unsigned char, 4> out = {};
  std::size_t written = 0;
  install(key);
  absorb();
  const Remains left([&] { EXPECT_EQ(hmac_final(&context, out.data(), out.size(), &written), 0); });
  EXPECT_EQ(written, out.size());
  expectFindings(left.dead(known.needles), {});
}

TEST_P(HmacRemains, OfAnOutputThatFails) {
  ByteVector out(EVP_MAX_MD_SIZE);
  std::size_t written = 0;
  install(key);
  absorb();
  const bool begun = input.size() > 256;  // long input is absorbed at once
  const Remains left([&] {
    failingCopy = begun ? 1 : 2;  // the copy of the outer state: the inner hash has been written
    EXPECT_NE(hmac_final(&context, out.data(), out.size(), &written), 0);
  });
  EXPECT_EQ(failingCopy, 0);
  expectFindings(left.dead(known.needles), {});
  EXPECT_THAT(known.needles.foundIn(out.data(), out.size()), std::set<std::string>()) << "in the output";
}

// The second key is shorter, and does not cover what is left of the first.
TEST_P(HmacRemains, OfAKeyThatIsReplaced) {
  const ByteVector shorter = random(9);
  install(key);
  absorb();
  expectFindings(Remains([&] { install(shorter); }).dead(known.needles), {});
  expectFindings(Remains([&] { (void)hmac_cleanup(&context); }).dead(known.needles), {});
}

// Of each key length: shorter than a block, as long, longer, and too long to be compared with the next one. Of each
// input: shorter than what is collected, and longer.
INSTANTIATE_TEST_SUITE_P(Hashes, HmacRemains,
                         testing::Combine(testing::ValuesIn(hashes), testing::Values(20, 64, 200, 600),
                                          testing::Values(80, 500)));

// --- The library's classes -------------------------------------------------------------------------------------------

class PrfRemains : public testing::TestWithParam<HashCase> {
 protected:
  PrfRemains() : key(random(32)), seed(random(80)), known(GetParam(), key), prf(std::make_unique<HmacPRFunc>()) {
    EXPECT_TRUE(prf->initHmacPRFunc(GetParam().algorithm));
  }

  // Adds T(1) to T(blocks), and everything that leads to them (RFC 7296 section 2.13).
  void addBlocks(unsigned char blocks) {
    ByteVector last;
    for (unsigned char number = 1; number <= blocks; ++number) {
      last = known.mac(last + seed + ByteVector{number});
    }
  }

  const ByteVector key;
  const ByteVector seed;
  KnownHmac known;
  std::unique_ptr<HmacPRFunc> prf;
};

TEST_P(PrfRemains, OfAnOutput) {
  const ByteVector expected = known.mac(seed);
  ByteVector out;
  out.reserve(EVP_MAX_MD_SIZE);
  const Remains left([&] {
    EXPECT_TRUE(prf->setKey(&key));
    EXPECT_TRUE(prf->generatePRStream(&seed, &out));
    prf.reset();
  });
  EXPECT_EQ(out, expected);
  expectFindings(left.dead(known.needles), {});
  expectFindings(left.live(known.needles), {});
}

TEST_P(PrfRemains, OfAStream) {
  addBlocks(4);
  known.needles.add("seed", seed);
  const std::size_t length = 3 * prf->getOutputSize() + 1;
  ByteVector out;
  out.reserve(length);
  const Remains left([&] {
    EXPECT_TRUE(prf->setKey(&key));
    PRFuncPlus stream(prf.get(), true);
    EXPECT_TRUE(stream.initPRFuncPlus(&seed));
    EXPECT_TRUE(stream.generatePRStream(length, &out));
    prf.reset();
  });
  expectFindings(left.dead(known.needles), {});
  expectFindings(left.live(known.needles), {});
}

INSTANTIATE_TEST_SUITE_P(Hashes, PrfRemains, testing::ValuesIn(hashes));

// Gives what a test has told it to give.
struct ToldPrf : PRFunc {
  bool generatePRStream(const ByteVector*, ByteVector* output) override {
    if (output != nullptr) {
      *output = next;
    }
    return succeeds;
  }
  std::size_t getOutputSize() override { return next.size(); }
  std::size_t getKeySize() override { return next.size(); }
  bool setKey(const ByteVector*) override { return true; }

  ByteVector next;
  bool succeeds = true;
};

// After a failure, a stream may begin again with another seed. The longer one needs other memory, and the shorter one
// does not cover the first.
TEST(StreamRemains, OfASeedThatIsReplaced) {
  for (const std::size_t size : {std::size_t{12}, std::size_t{200}}) {
    const ByteVector first = random(60);
    const ByteVector second = random(size);
    Needles needles;
    needles.add("first seed", first);
    needles.add("second seed", second);
    ToldPrf prf;
    const Remains left([&] {
      PRFuncPlus stream(&prf, true);
      prf.succeeds = false;
      EXPECT_FALSE(stream.initPRFuncPlus(&first));
      prf.succeeds = true;
      EXPECT_TRUE(stream.initPRFuncPlus(&second));
    });
    expectFindings(left.dead(needles), {});
  }
}

// A block of another function may be shorter than the one before it.
TEST(StreamRemains, OfABlockThatShrinks) {
  const ByteVector seed = random(20);
  const ByteVector first = random(40);
  ByteVector out;
  out.reserve(100);
  Needles needles;
  needles.add("T(1)", first);
  ToldPrf prf;
  prf.next = first;
  const Remains left([&] {
    PRFuncPlus stream(&prf, true);
    EXPECT_TRUE(stream.initPRFuncPlus(&seed));
    aside([&] { prf.next = ByteVector(3, 1); });
    EXPECT_TRUE(stream.generatePRStream(first.size() + 1, &out));
  });
  expectFindings(left.dead(needles), {});
}

}  // namespace
}  // namespace Ipsec::Testing

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Different objects on many threads at once, including the first use of the shared objects. Also run under
// ThreadSanitizer.

#include "tests/support/CryptoCases.h"

#include <atomic>
#include <functional>
#include <thread>

namespace Ipsec::Testing {
namespace {

// Starts the threads' work at the same moment and returns how many of them found everything right.
unsigned together(unsigned count, const std::function<bool(unsigned)>& work) {
  std::atomic<unsigned> waiting = count;
  std::atomic<unsigned> right = 0;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      --waiting;
      while (waiting != 0) {
        std::this_thread::yield();
      }
      if (work(i)) {
        ++right;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return right;
}

// A whole exchange of two objects; true when everything succeeded and both sides agree.
bool exchange(DhGroupNum group) {
  IpsecDHGeneral mine(group);
  IpsecDHGeneral theirs(group);
  ByteVector myValue;
  ByteVector theirValue;
  ByteVector mySecret;
  ByteVector theirSecret;
  ByteVector key;
  return mine.initIpsecDH() && theirs.initIpsecDH() && mine.getMyPrivateKey(&key) && mine.setMyPrivateKey(&key) &&
         mine.getMyPublicKey(&myValue) && theirs.getMyPublicKey(&theirValue) && mine.setPeerPublicKey(&theirValue) &&
         theirs.setPeerPublicKey(&myValue) && mine.getSharedSecret(&mySecret) && theirs.getSharedSecret(&theirSecret) &&
         mySecret == theirSecret && !mySecret.empty();
}

const ByteVector streamKey(32, 0x4B);
const ByteVector streamSeed(48, 0x53);

ByteVector stream(HashAlgorithm hash) {
  HmacPRFunc prf;
  PRFuncPlus plus(&prf, true);
  ByteVector out;
  const bool drawn = prf.initHmacPRFunc(hash) && prf.setKey(&streamKey) && plus.initPRFuncPlus(&streamSeed) &&
                     plus.generatePRStream(1000, &out);
  return drawn ? out : ByteVector();
}

// This must be a separate process, because the first use happens only once.
void expectFirstUseToSucceed(const std::vector<DhGroupNum>& groups) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        const unsigned right = together(8, [&groups](unsigned i) { return exchange(groups[i % groups.size()]); });
        std::_Exit(right == 8 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(ThreadsDeathTest, FirstUseOfOneGroupByAllThreads) {
  for (const DhGroupNum group : {MODP_768, MODP_2048, MODP_2048_256, ECP_256, ECP_384, ECP_521}) {
    SCOPED_TRACE(group);
    expectFirstUseToSucceed({group});
  }
}

TEST(ThreadsDeathTest, FirstUseOfAllGroupsAtOnce) {
  expectFirstUseToSucceed({MODP_768, MODP_1024, MODP_1536, MODP_2048, MODP_2048_256, ECP_256, ECP_384, ECP_521});
}

TEST(ThreadsDeathTest, FirstUseOfTheDigests) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto firstUse = [] {
    std::array<ByteVector, 8> streams;
    const unsigned right = together(streams.size(), [&streams](unsigned i) {
      streams[i] = stream(static_cast<HashAlgorithm>(1 + i % 4));
      return streams[i].size() == 1000;
    });
    return right == streams.size() && streams[0] == streams[4] && streams[3] == streams[7];
  };
  EXPECT_EXIT(std::_Exit(firstUse() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(Threads, ExchangesOfAllGroups) {
  const std::vector<DhGroupNum> groups = {MODP_768,      MODP_1024, MODP_1536, MODP_2048, MODP_3072,
                                          MODP_2048_256, ECP_256,   ECP_384,   ECP_521};
  EXPECT_EQ(together(6,
                     [&groups](unsigned i) {
                       bool right = true;
                       for (std::size_t n = 0; n < 2 * groups.size(); ++n) {
                         right = exchange(groups[(i + n) % groups.size()]) && right;
                       }
                       return right;
                     }),
            6U);
}

TEST(Threads, StreamsOfAllDigests) {
  std::array<ByteVector, 4> expected;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    expected[i] = stream(static_cast<HashAlgorithm>(i + 1));
    ASSERT_EQ(expected[i].size(), 1000U);
  }
  EXPECT_EQ(together(8,
                     [&expected](unsigned i) {
                       bool right = true;
                       for (std::size_t n = 0; n < 40; ++n) {
                         const std::size_t hash = (i + n) % 4;
                         right = stream(static_cast<HashAlgorithm>(hash + 1)) == expected[hash] && right;
                       }
                       return right;
                     }),
            8U);
}

TEST(Threads, OneNonceGeneratorServesAll) {
  NonceGenerator generator;
  std::array<std::vector<ByteVector>, 8> drawn;
  EXPECT_EQ(together(8,
                     [&](unsigned i) {
                       bool right = true;
                       for (int n = 0; n < 100; ++n) {
                         ByteVector out;
                         right = generator.generateNonce(&out) && out.size() == 32 && right;
                         drawn[i].push_back(out);
                       }
                       return right;
                     }),
            8U);
  for (std::size_t i = 1; i < drawn.size(); ++i) {
    EXPECT_NE(drawn[i].front(), drawn[0].front());
  }
}

TEST(Threads, FailuresAndFunctionsOfLookupsOnly) {
  EXPECT_EQ(together(8,
                     [](unsigned) {
                       bool right = initKeyGenLib() == 1;
                       for (int n = 0; n < 50; ++n) {
                         IpsecDHGeneral dh(MODP_NONE);
                         ByteVector out;
                         right = !dh.initIpsecDH() && !dh.getMyPublicKey(&out) &&
                                 getIntegKeyLen(AUTH_HMAC_SHA1_96) == 20 && getEncryptKeyLen({ENCR_3DES, 0}) == 24 &&
                                 right;
                       }
                       return right;
                     }),
            8U);
}

}  // namespace
}  // namespace Ipsec::Testing

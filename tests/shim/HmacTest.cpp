// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// HMAC contexts: call order, keys, pieces, truncation, and what a failure leaves. They are compared with OpenSSL's
// HMAC.

#include "tests/shim/ShimCases.h"

#include <algorithm>

namespace Ipsec::Testing {
namespace {

const ByteVector key = fromHex("000102030405060708090a0b0c0d0e0f10111213");
const ByteVector data = {'d', 'a', 't', 'a'};

// A context that is created and cleaned up.
struct HmacContext {
  HmacContext() { EXPECT_EQ(hmac_create(&context), 0); }
  ~HmacContext() { EXPECT_EQ(hmac_cleanup(&context), 0); }
  HmacContext(const HmacContext&) = delete;
  HmacContext& operator=(const HmacContext&) = delete;
  hmac_ctx* operator&() { return &context; }

  hmac_ctx context = {};
};

const EVP_MD* digest(const char* name) {
  const EVP_MD* found = EVP_get_digestbyname(name);
  EXPECT_NE(found, nullptr) << name;
  return found;
}

ByteVector opensslHmac(const char* name, const ByteVector& macKey, const ByteVector& input) {
  ByteVector mac(EVP_MAX_MD_SIZE);
  std::size_t length = 0;
  EXPECT_NE(EVP_Q_mac(nullptr, "HMAC", nullptr, name, nullptr, macKey.data(), macKey.size(), input.data(), input.size(),
                      mac.data(), mac.size(), &length),
            nullptr);
  mac.resize(length);
  return mac;
}

int init(hmac_ctx* context, const char* name, const ByteVector& macKey) {
  return hmac_init(context, digest(name), macKey.data(), macKey.size());
}

int update(hmac_ctx* context, const ByteVector& input) {
  return hmac_update(context, input.data(), input.size());
}

// Finishes into a buffer of this size. The test fails if a byte after the buffer, or after what was written, was
// changed.
ByteVector final(hmac_ctx* context, std::size_t size = EVP_MAX_MD_SIZE) {
  ByteVector out(size + guardBytes, guard);
  std::size_t written = 12345;
  EXPECT_EQ(hmac_final(context, out.data(), size, &written), 0);
  EXPECT_LE(written, size);
  for (std::size_t at = written; at < out.size(); ++at) {
    EXPECT_EQ(out[at], guard) << at;
  }
  out.resize(written);
  return out;
}

ByteVector mac(hmac_ctx* context, const char* name, const ByteVector& macKey, const ByteVector& input) {
  EXPECT_EQ(init(context, name, macKey), 0);
  EXPECT_EQ(update(context, input), 0);
  return final(context);
}

// Expects that there is no open computation: nothing is absorbed, nothing comes out.
void expectNotOpen(hmac_ctx* context) {
  EXPECT_NE(update(context, data), 0);
  ByteVector out(EVP_MAX_MD_SIZE, guard);
  std::size_t written = 12345;
  EXPECT_NE(hmac_final(context, out.data(), out.size(), &written), 0);
  EXPECT_EQ(written, 0U);
}

// --- Values ----------------------------------------------------------------------------------------------------------

TEST(HmacShim, AnswersTheVectors) {
  HmacContext context;
  const std::size_t blocks = forEachBlock(vectors("hmac.txt"), [&context](Block& block) {
    const std::array<const char*, 4> names = {"SHA1", "SHA256", "SHA384", "SHA512"};
    const char* name = names.at(hashNamed(block.text("Hash")) - 1);
    ByteVector output = mac(&context, name, block.bytes("Key"), block.bytes("Input"));
    if (block.has("Truncated")) {
      output.resize(block.number("Truncated"));
    }
    EXPECT_EQ(output, block.bytes("Output"));
  });
  EXPECT_EQ(blocks, 76U);
}

TEST(HmacShim, TakesAnyDigestOfOpenSsls) {
  HmacContext context;
  for (const char* name : {"MD5", "SHA1", "SHA224", "SHA256", "SHA384", "SHA512", "SHA512-224", "SHA512-256",
                           "SHA3-224", "SHA3-256", "SHA3-384", "SHA3-512", "BLAKE2b512", "BLAKE2s256", "SM3"}) {
    SCOPED_TRACE(name);
    for (const std::size_t length : {0U, 20U, 64U, 72U, 104U, 128U, 136U, 144U, 145U, 1000U}) {
      const ByteVector each(length, 0x5A);
      EXPECT_EQ(mac(&context, name, each, data), opensslHmac(name, each, data)) << length;
    }
  }
}

TEST(HmacShim, DigestMayChangeFromOneComputationToTheNext) {
  HmacContext context;
  for (const char* name : {"SHA256", "SHA1", "SHA3-256", "SHA256", "SHA512", "SHA3-256"}) {
    EXPECT_EQ(mac(&context, name, key, data), opensslHmac(name, key, data)) << name;
  }
}

TEST(HmacShim, PiecesAreTheInputJoined) {
  HmacContext context;
  for (const std::size_t first : {0U, 1U, 55U, 64U, 255U, 256U, 257U, 1000U}) {
    for (const std::size_t second : {0U, 1U, 255U, 256U, 300U}) {
      const ByteVector one(first, 0x11);
      const ByteVector two(second, 0x22);
      ASSERT_EQ(init(&context, "SHA256", key), 0);
      EXPECT_EQ(update(&context, one), 0);
      EXPECT_EQ(update(&context, two), 0);
      EXPECT_EQ(update(&context, data), 0);
      EXPECT_EQ(final(&context), opensslHmac("SHA256", key, one + two + data)) << first << " and " << second;
    }
  }
}

TEST(HmacShim, InputMayBeChangedOnceItIsAbsorbed) {
  HmacContext context;
  for (const std::size_t size : {4U, 300U}) {
    ByteVector input(size, 1);
    ASSERT_EQ(init(&context, "SHA256", key), 0);
    EXPECT_EQ(update(&context, input), 0);
    input.assign(size, 2);
    EXPECT_EQ(final(&context), opensslHmac("SHA256", key, ByteVector(size, 1)));
  }
}

TEST(HmacShim, NoInputIsFine) {
  HmacContext context;
  const ByteVector expected = opensslHmac("SHA256", key, {});
  ASSERT_EQ(init(&context, "SHA256", key), 0);
  EXPECT_EQ(final(&context), expected);
  ASSERT_EQ(init(&context, "SHA256", key), 0);
  EXPECT_EQ(hmac_update(&context, nullptr, 0), 0);
  EXPECT_EQ(hmac_update(&context, data.data(), 0), 0);
  EXPECT_EQ(final(&context), expected);
  ASSERT_EQ(init(&context, "SHA256", key), 0);
  EXPECT_EQ(update(&context, data), 0);
  EXPECT_EQ(hmac_update(&context, nullptr, 0), 0);
  EXPECT_EQ(final(&context), opensslHmac("SHA256", key, data));
}

TEST(HmacShim, NoInputIsFineAfterMuch) {
  HmacContext context;
  const ByteVector much(256, 3);  // fills whatever short input is collected in
  ASSERT_EQ(init(&context, "SHA256", key), 0);
  EXPECT_EQ(update(&context, much), 0);
  EXPECT_EQ(hmac_update(&context, nullptr, 0), 0);
  EXPECT_EQ(final(&context), opensslHmac("SHA256", key, much));
}

// --- Keys ------------------------------------------------------------------------------------------------------------

TEST(HmacShim, EmptyKeyIsAKey) {
  HmacContext context;
  const ByteVector expected = opensslHmac("SHA256", {}, data);
  EXPECT_EQ(mac(&context, "SHA256", {}, data), expected);
  (void)mac(&context, "SHA256", key, data);
  ASSERT_EQ(hmac_init(&context, digest("SHA256"), nullptr, 0), 0);
  EXPECT_EQ(update(&context, data), 0);
  EXPECT_EQ(final(&context), expected);
  (void)mac(&context, "SHA256", key, data);
  ASSERT_EQ(hmac_init(&context, digest("SHA256"), key.data(), 0), 0);
  EXPECT_EQ(update(&context, data), 0);
  EXPECT_EQ(final(&context), expected);
}

TEST(HmacShim, LongKeysAreHashedFirst) {
  HmacContext context;
  for (const char* name : {"SHA1", "SHA256", "SHA384", "SHA512"}) {
    for (const std::size_t length : {63U, 64U, 65U, 127U, 128U, 129U, 511U, 512U, 513U, 100000U}) {
      const ByteVector each(length, 0xC3);
      for (int again = 0; again < 2; ++again) {
        EXPECT_EQ(mac(&context, name, each, data), opensslHmac(name, each, data)) << name << " " << length;
      }
    }
  }
}

// At every call the bytes count, and not their address.
TEST(HmacShim, KeyIsReadAtEachInit) {
  HmacContext context;
  for (const std::size_t length : {1U, 7U, 8U, 20U, 64U, 65U, 512U, 513U}) {
    ByteVector changing(length, 0x5A);
    (void)mac(&context, "SHA256", changing, data);
    for (const std::size_t at : {std::size_t{0}, length / 2, length - 1}) {
      changing[at] ^= 0x01;
      ASSERT_EQ(mac(&context, "SHA256", changing, data), opensslHmac("SHA256", changing, data))
          << "byte " << at << " of " << length;
    }
  }
}

TEST(HmacShim, KeyMayGoOnceItIsRead) {
  HmacContext context;
  ByteVector going = key;
  ASSERT_EQ(init(&context, "SHA256", going), 0);
  going.assign(going.size(), 0);
  EXPECT_EQ(update(&context, data), 0);
  EXPECT_EQ(final(&context), opensslHmac("SHA256", key, data));
}

// --- Call order ------------------------------------------------------------------------------------------------------

TEST(HmacShim, InitDropsPendingInput) {
  HmacContext context;
  for (const std::size_t size : {4U, 300U}) {
    ASSERT_EQ(init(&context, "SHA256", key), 0);
    EXPECT_EQ(update(&context, ByteVector(size, 9)), 0);
    EXPECT_EQ(mac(&context, "SHA256", key, data), opensslHmac("SHA256", key, data));
    ASSERT_EQ(init(&context, "SHA256", key), 0);
    EXPECT_EQ(update(&context, ByteVector(size, 9)), 0);
    EXPECT_EQ(mac(&context, "SHA1", data, data), opensslHmac("SHA1", data, data));
  }
}

TEST(HmacShim, NeedsInitBeforeEachUse) {
  HmacContext context;
  expectNotOpen(&context);
  ASSERT_EQ(init(&context, "SHA256", key), 0);
  EXPECT_EQ(update(&context, data), 0);
  (void) final(&context);
  expectNotOpen(&context);
  EXPECT_EQ(mac(&context, "SHA256", key, data), opensslHmac("SHA256", key, data));
}

TEST(HmacShim, ContextThatWasNeverCreatedComputesNothing) {
  hmac_ctx context = {};
  EXPECT_NE(init(&context, "SHA256", key), 0);
  expectNotOpen(&context);
  EXPECT_EQ(hmac_cleanup(&context), 0);
}

TEST(HmacShim, InitWithoutADigestClosesTheComputation) {
  HmacContext context;
  EXPECT_NE(hmac_init(&context, nullptr, key.data(), key.size()), 0);
  expectNotOpen(&context);
  ASSERT_EQ(init(&context, "SHA256", key), 0);
  EXPECT_EQ(update(&context, data), 0);
  EXPECT_NE(hmac_init(&context, nullptr, key.data(), key.size()), 0);
  expectNotOpen(&context);
}

// A digest without blocks has no HMAC (RFC 2104).
TEST(HmacShim, InitWithAnUnfitDigestClosesTheComputation) {
  HmacContext context;
  ASSERT_EQ(init(&context, "SHA256", key), 0);
  EXPECT_EQ(update(&context, data), 0);
  EXPECT_NE(hmac_init(&context, EVP_md_null(), key.data(), key.size()), 0);
  expectNotOpen(&context);
  EXPECT_EQ(mac(&context, "SHA256", key, data), opensslHmac("SHA256", key, data));
}

TEST(HmacShim, WritesNoMoreThanItsBufferHolds) {
  HmacContext context;
  const ByteVector whole = opensslHmac("SHA384", key, data);
  for (std::size_t size = 0; size <= whole.size() + 2; ++size) {
    ASSERT_EQ(init(&context, "SHA384", key), 0);
    EXPECT_EQ(update(&context, data), 0);
    const auto end = whole.begin() + static_cast<std::ptrdiff_t>(std::min(size, whole.size()));
    EXPECT_EQ(final(&context, size), ByteVector(whole.begin(), end));
  }
}

TEST(HmacShim, OutputMayLieWhereTheInputLay) {
  HmacContext context;
  for (const std::size_t size : {32U, 300U}) {
    ByteVector bytes(size, 7);
    ASSERT_EQ(init(&context, "SHA256", key), 0);
    EXPECT_EQ(update(&context, bytes), 0);
    std::size_t written = 0;
    EXPECT_EQ(hmac_final(&context, bytes.data(), bytes.size(), &written), 0);
    bytes.resize(written);
    EXPECT_EQ(bytes, opensslHmac("SHA256", key, ByteVector(size, 7)));
  }
}

// --- The context's life ----------------------------------------------------------------------------------------------

TEST(HmacShim, CleanupIsSafeAtAnyTime) {
  hmac_ctx context = {};
  EXPECT_EQ(hmac_cleanup(&context), 0);  // never created
  EXPECT_EQ(hmac_cleanup(&context), 0);
  ASSERT_EQ(hmac_create(&context), 0);
  EXPECT_EQ(hmac_cleanup(&context), 0);  // never used
  EXPECT_EQ(hmac_cleanup(&context), 0);
  ASSERT_EQ(hmac_create(&context), 0);
  ASSERT_EQ(init(&context, "SHA256", key), 0);
  EXPECT_EQ(update(&context, data), 0);
  EXPECT_EQ(hmac_cleanup(&context), 0);  // in the middle of a computation
  EXPECT_EQ(hmac_cleanup(&context), 0);
}

TEST(HmacShim, ContextMayBeCreatedAgainAfterCleanup) {
  hmac_ctx context = {};
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(hmac_create(&context), 0);
    EXPECT_EQ(mac(&context, "SHA256", key, data), opensslHmac("SHA256", key, data));
    EXPECT_EQ(hmac_cleanup(&context), 0);
    EXPECT_NE(init(&context, "SHA256", key), 0);
    expectNotOpen(&context);
  }
}

// Nothing is leaked either: the sanitizers look for leaks.
TEST(HmacShim, SecondCreateLeavesAContextThatComputes) {
  hmac_ctx context = {};
  ASSERT_EQ(hmac_create(&context), 0);
  EXPECT_EQ(hmac_create(&context), 0);
  EXPECT_EQ(mac(&context, "SHA256", key, data), opensslHmac("SHA256", key, data));
  EXPECT_EQ(hmac_create(&context), 0);
  EXPECT_EQ(mac(&context, "SHA1", data, data), opensslHmac("SHA1", data, data));
  EXPECT_EQ(hmac_cleanup(&context), 0);
}

TEST(HmacShim, ContextsDoNotShareAnything) {
  HmacContext first;
  HmacContext second;
  ASSERT_EQ(init(&first, "SHA256", key), 0);
  ASSERT_EQ(init(&second, "SHA256", data), 0);
  EXPECT_EQ(update(&first, data), 0);
  EXPECT_EQ(update(&second, key), 0);
  EXPECT_EQ(final(&first), opensslHmac("SHA256", key, data));
  EXPECT_EQ(final(&second), opensslHmac("SHA256", data, key));
}

}  // namespace
}  // namespace Ipsec::Testing

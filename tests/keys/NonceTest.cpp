// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// NonceGenerator: lengths, a simple check of randomness, joining.

#include "tests/support/CryptoCases.h"

#include <set>

namespace Ipsec::Testing {
namespace {

ByteVector nonce(NonceGenerator generator) {
  ByteVector out(5, 0xEE);
  EXPECT_TRUE(generator.generateNonce(&out));
  return out;
}

TEST(Nonce, HasTheLengthAskedFor) {
  EXPECT_EQ(nonce(NonceGenerator()).size(), 32U);
  for (const unsigned long length : {0UL, 1UL, 16UL, 32UL, 256UL, 100000UL}) {
    EXPECT_EQ(nonce(NonceGenerator(length)).size(), length);
  }
}

TEST(Nonce, IsFreshEachTime) {
  std::set<ByteVector> seen;
  for (int i = 0; i < 1000; ++i) {
    seen.insert(nonce(NonceGenerator(16)));
  }
  EXPECT_EQ(seen.size(), 1000U);
}

TEST(Nonce, IsRandomToItsLastByte) {
  std::array<bool, 32> changed = {};
  const ByteVector first = nonce(NonceGenerator());
  for (int i = 0; i < 16; ++i) {
    const ByteVector other = nonce(NonceGenerator());
    for (std::size_t at = 0; at < changed.size(); ++at) {
      changed[at] = changed[at] || other[at] != first[at];
    }
  }
  for (const bool each : changed) {
    EXPECT_TRUE(each);
  }
}

TEST(Nonce, FullNonceIsBothInOrder) {
  NonceGenerator generator(7);  // its own length does not matter here
  const ByteVector initiator = fromHex("00010203");
  const ByteVector responder = fromHex("fffefdfc");
  for (const std::size_t size : {0U, 1U, 8U, 100U}) {
    ByteVector out(size, 0xEE);
    EXPECT_TRUE(generator.generateFullNonce(&out, &initiator, &responder));
    EXPECT_EQ(out, fromHex("00010203fffefdfc"));
  }
  ByteVector out;
  EXPECT_TRUE(generator.generateFullNonce(&out, &initiator, &initiator));
  EXPECT_EQ(out, fromHex("0001020300010203"));
}

TEST(Nonce, TwoEmptyNoncesGiveAnEmptyOne) {
  NonceGenerator generator;
  const ByteVector empty;
  ByteVector out = {1, 2, 3};
  EXPECT_TRUE(generator.generateFullNonce(&out, &empty, &empty));
  EXPECT_TRUE(out.empty());
}

TEST(Nonce, NoncesOfDifferentLengthsAreRefused) {
  NonceGenerator generator;
  TraceRecorder traces("IpsecKeyGen=0");
  const ByteVector longer(32, 1);
  for (const std::size_t size : {0U, 16U, 31U, 33U}) {
    const ByteVector other(size, 2);
    const Lines line = {"NonceGenerator::generateFullNonce Two nonces should have the same length"};
    expectUntouched(traces, line, [&](ByteVector* out) { return generator.generateFullNonce(out, &longer, &other); });
    expectUntouched(traces, line, [&](ByteVector* out) { return generator.generateFullNonce(out, &other, &longer); });
  }
}

TEST(Nonce, EntersItsFunctionsAtLevel4) {
  TraceRecorder traces("IpsecKeyGen=4");
  NonceGenerator generator;
  ByteVector first;
  ByteVector out;
  EXPECT_TRUE(generator.generateNonce(&first));
  EXPECT_TRUE(generator.generateFullNonce(&out, &first, &first));
  EXPECT_EQ(traces.text(), (Lines{"generateNonce: ", "generateFullNonce: "}));
  EXPECT_EQ(traces.text(4).size(), 2U);
}

}  // namespace
}  // namespace Ipsec::Testing

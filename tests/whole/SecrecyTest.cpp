// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// No private key, secret, nonce, PRF key or output reaches a trace, at any level, in any form that can be read back.

#include "platform/Trace.h"
#include "tests/support/CryptoCases.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>
#include <set>
#include <unordered_map>

namespace Ipsec::Testing {
namespace {

constexpr std::size_t window = 8;

std::uint64_t wordAt(const unsigned char* bytes) {
  std::uint64_t word;
  std::memcpy(&word, bytes, window);
  return word;
}

// Secrets remembers every eight consecutive bytes of what it is given, and finds them in a text: as raw bytes, and as
// hex digits of either case, together or with separators.
class Secrets {
 public:
  void add(const std::string& name, const ByteVector& bytes) {
    for (std::size_t i = 0; i + window <= bytes.size(); ++i) {
      // Eight bytes with few different values prove nothing: a vector after a failed call is full of zeros.
      if (std::set<unsigned char>(&bytes[i], &bytes[i] + window).size() > window / 2) {
        windows.emplace(wordAt(&bytes[i]), name);
      }
    }
  }

  std::size_t size() const { return windows.size(); }

  // Returns the name of a secret that the text holds, or nothing.
  std::string foundIn(const std::string& text) const {
    std::string name = foundAt(ByteVector(text.begin(), text.end()));
    std::string withoutSeparators;
    std::copy_if(text.begin(), text.end(), std::back_inserter(withoutSeparators),
                 [](unsigned char c) { return std::isalnum(c) != 0; });
    for (const std::string& each : {text, withoutSeparators}) {
      for (std::size_t i = 0; i < each.size() && name.empty(); ++i) {
        name = foundInHexAt(each, i);
      }
    }
    return name;
  }

 private:
  std::string foundAt(const ByteVector& bytes) const {
    for (std::size_t i = 0; i + window <= bytes.size(); ++i) {
      const auto found = windows.find(wordAt(&bytes[i]));
      if (found != windows.end()) {
        return found->second;
      }
    }
    return {};
  }

  // Looks at the sixteen characters from a place on, if they are all hex digits.
  std::string foundInHexAt(const std::string& text, std::size_t at) const {
    const std::string digits = text.substr(at, 2 * window);
    if (digits.size() != 2 * window || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
      return {};
    }
    return foundAt(fromHex(digits));
  }

  std::unordered_map<std::uint64_t, std::string> windows;
};

std::string textOf(const Cor::TraceLine& line) {
  return line.handle + " " + line.file + " " + line.function + " " + line.message;
}

void expectSecrecy(const TraceRecorder& traces, const Secrets& secrets) {
  std::string all;
  for (const Cor::TraceLine& line : traces.lines()) {
    EXPECT_EQ(secrets.foundIn(textOf(line)), "") << line.file << ":" << line.line;
    all += line.message;  // a secret could be spread over several lines
  }
  EXPECT_EQ(secrets.foundIn(all), "");
  for (const std::string& line : RingTrace::lines()) {
    EXPECT_EQ(secrets.foundIn(line), "") << line.substr(0, 20);
  }
}

// --- The scan itself -------------------------------------------------------------------------------------------------

TEST(Secrecy, TheScanFindsPlantedSecrets) {
  Secrets secrets;
  const ByteVector planted = fromHex("00112233deadbeef445566778899aabb");
  secrets.add("planted", planted);
  EXPECT_EQ(secrets.foundIn("x" + std::string(planted.begin(), planted.end()) + "y"), "planted");
  for (const char* text : {"key 33deadbeef445566 end", "33DEADBEEF445566", "x33:de:ad:be:ef:44:55:66",
                           "a 33 de ad be ef 44 55 66", "{0x33, 0xde}33deadbeef445566"}) {
    EXPECT_EQ(secrets.foundIn(text), "planted") << text;
  }
  EXPECT_EQ(secrets.foundIn("IpsecDHModp::getMyPublicKey IpsecDHModp is not initialized"), "");
  EXPECT_EQ(secrets.foundIn("33deadbeef4455"), "");  // seven bytes
}

// --- Everything the crypto core does ---------------------------------------------------------------------------------

template <class Dh>
void exchange(DhGroupNum group, Secrets& secrets) {
  Dh mine(group);
  Dh theirs(group);
  ASSERT_TRUE(mine.initIpsecDH());
  ASSERT_TRUE(theirs.initIpsecDH());
  EXPECT_TRUE(mine.initIpsecDH());
  const ByteVector theirValue = publicKey(theirs);
  secrets.add("own private key", privateKey(mine));
  secrets.add("peer's private key", privateKey(theirs));
  EXPECT_TRUE(mine.setPeerPublicKey(&theirValue));
  secrets.add("shared secret", secret(mine));

  // Imports: good, odd, and refused ones.
  ByteVector imported;
  NonceGenerator generator(40);
  ASSERT_TRUE(generator.generateNonce(&imported));
  secrets.add("imported private key", imported);
  EXPECT_TRUE(mine.setMyPrivateKey(&imported));
  EXPECT_TRUE(mine.setPeerPublicKey(&theirValue));
  secrets.add("secret of the imported key", secret(mine));
  ByteVector longKey;
  NonceGenerator longGenerator(1000);
  ASSERT_TRUE(longGenerator.generateNonce(&longKey));
  secrets.add("long private key", longKey);
  EXPECT_TRUE(theirs.setMyPrivateKey(&longKey));
  ByteVector out;
  (void)theirs.getMyPrivateKey(&out);

  // Refusals, with what the objects answer afterwards.
  for (const ByteVector& bad : {ByteVector(), ByteVector(theirValue.size(), 0), ByteVector(theirValue.size(), 0xFF),
                                ByteVector(theirValue.size() + 1, 4)}) {
    EXPECT_FALSE(mine.setPeerPublicKey(&bad));
    (void)mine.getSharedSecret(&out);
  }
  const ByteVector zero;
  EXPECT_TRUE(mine.setMyPrivateKey(&zero));
  (void)mine.getMyPrivateKey(&out);
  (void)mine.getMyPublicKey(&out);
  EXPECT_FALSE(mine.setPeerPublicKey(&theirValue));
  EXPECT_FALSE(mine.setDHGroup(MODP_768));
}

TEST(Secrecy, NoTraceHoldsASecretOfAnExchange) {
  TraceRecorder traces("IpsecKeyGen=0-31,IpsecUtils=0-31");
  for (const GroupCase& each : allGroups()) {
    SCOPED_TRACE(each.group);
    Secrets secrets;
    exchange<IpsecDHGeneral>(each.group, secrets);
    if (isCurve(each.group)) {
      exchange<IpsecDHEcp>(each.group, secrets);
    } else {
      exchange<IpsecDHModp>(each.group, secrets);
    }
    EXPECT_GT(secrets.size(), 100U);
    EXPECT_GT(traces.lines().size(), 50U);
    expectSecrecy(traces, secrets);
    traces.clear();
  }
}

// A PRF whose nth call fails.
struct FailingPrf : HmacPRFunc {
  bool generatePRStream(const ByteVector* input, ByteVector* output) override {
    return ++calls != failAt && HmacPRFunc::generatePRStream(input, output);
  }
  int calls = 0;
  int failAt = 0;
};

TEST(Secrecy, NoTraceHoldsAKeyANonceOrAStream) {
  TraceRecorder traces("IpsecKeyGen=0-31,IpsecUtils=0-31");
  for (const HashAlgorithm hash : {HASH_SHA1, HASH_SHA256, HASH_SHA384, HASH_SHA512}) {
    Secrets secrets;
    NonceGenerator generator;
    ByteVector initiator;
    ByteVector responder;
    ByteVector nonces;
    ByteVector key;
    ASSERT_TRUE(generator.generateNonce(&initiator));
    ASSERT_TRUE(generator.generateNonce(&responder));
    ASSERT_TRUE(generator.generateNonce(&key));
    ASSERT_TRUE(generator.generateFullNonce(&nonces, &initiator, &responder));
    const ByteVector shorter(initiator.begin(), initiator.begin() + 20);
    EXPECT_FALSE(generator.generateFullNonce(&key, &initiator, &shorter));
    secrets.add("nonces", nonces);
    secrets.add("PRF key", key);
    for (const bool counter : {true, false}) {
      for (int failAt = 0; failAt < 8; ++failAt) {
        FailingPrf prf;
        prf.failAt = failAt;
        ByteVector out;
        EXPECT_FALSE(prf.setKey(&key));
        EXPECT_FALSE(prf.generatePRStream(&key, &out));
        ASSERT_TRUE(prf.initHmacPRFunc(hash));
        EXPECT_FALSE(prf.generatePRStream(&key, &out) && failAt == 0);
        ASSERT_TRUE(prf.setKey(&key));
        PRFuncPlus plus(&prf, counter);
        (void)plus.generatePRStream(10, &out);
        (void)plus.initPRFuncPlus(&nonces);
        (void)plus.generatePRStream(200, &out);
        secrets.add("stream", out);
        (void)prf.generatePRStream(&nonces, &out);
        secrets.add("PRF output", out);
      }
    }
    EXPECT_GT(secrets.size(), 100U);
    EXPECT_GT(traces.lines().size(), 100U);
    expectSecrecy(traces, secrets);
    traces.clear();
  }
}

}  // namespace
}  // namespace Ipsec::Testing

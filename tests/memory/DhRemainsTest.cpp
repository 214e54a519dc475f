// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What the key exchange leaves of private numbers and secrets in memory: nothing, but for what OpenSSL itself leaves.
#include "base/OpenSslPtr.h"
#include "platform/CryptoShim.h"
#include "tests/support/CryptoCases.h"
#include "tests/support/Remains.h"

#include <openssl/bn.h>
#include <openssl/crypto.h>

#include <memory>

namespace Ipsec::Testing {
namespace {

using Base::KeyPtr;
using Base::PublicBn;
using Base::SecretBn;

// --- The search itself -----------------------------------------------------------------------------------------------

ByteVector bytesFrom(unsigned char first, std::size_t count) {
  ByteVector bytes;
  for (std::size_t i = 0; i < count; ++i) {
    bytes.push_back(static_cast<unsigned char>(first + 7 * i));
  }
  return bytes;
}

// Nobody may optimise the copy away.
[[gnu::noinline]] void copyTo(unsigned char* place, const ByteVector& bytes) {
  volatile unsigned char* const written = place;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    written[i] = bytes[i];
  }
}

[[gnu::noinline]] void leaveOnTheStack(const ByteVector& bytes) {
  std::array<unsigned char, 64> local;
  copyTo(local.data(), bytes);
}

Needles needlesOf(const char* name, const ByteVector& bytes) {
  Needles needles;
  needles.add(name, bytes);
  return needles;
}

TEST(Remains, OfAFreedBlockAreFound) {
  const ByteVector planted = bytesFrom(3, 20);
  const Remains left([&] {
    ByteVector copy(planted.rbegin(), planted.rend());
    copy.front() = 0;
  });
  expectFindings(left.dead(needlesOf("planted", planted)), {"planted in 20 freed bytes"});
  expectFindings(left.dead(needlesOf("another", bytesFrom(4, 20))), {});
}

TEST(Remains, OfOpenSslsBlocksAreFound) {
  const ByteVector planted = bytesFrom(3, 32);
  const Remains left([&] {
    void* const grown = OPENSSL_realloc(OPENSSL_memdup(planted.data(), planted.size()), 48);
    OPENSSL_clear_free(grown, 48);
  });
  expectFindings(left.dead(needlesOf("planted", planted)), {"planted in 32 freed bytes"});
}

TEST(Remains, OnTheStackAreFound) {
  const ByteVector planted = bytesFrom(3, 8);
  const Remains left([&] { leaveOnTheStack(planted); });
  expectFindings(left.dead(needlesOf("planted", planted)), {"planted on the stack"});
}

TEST(Remains, InALiveBlockAreFound) {
  const ByteVector planted = bytesFrom(3, 8);
  ByteVector kept;
  const Remains left([&] { kept = planted; });
  expectFindings(left.dead(needlesOf("planted", planted)), {});
  expectFindings(left.live(needlesOf("planted", planted)), {"planted in 8 live bytes"});
}

TEST(Remains, NeedMoreThanZerosToBeRecognised) {
  EXPECT_THROW(needlesOf("zeros", ByteVector(20, 0)), std::invalid_argument);
}

// --- The exchange ----------------------------------------------------------------------------------------------------

// Where OpenSSL multiplies a point by a private number with code for a single curve, it copies the number, and frees
// the copy without clearing it. Version 3.0 has such code for groups 19 and 21, and version 3.5 for group 20 too.
// SECURITY.md says so: it must change with this list.
std::vector<std::string> leftByMultiplication(DhGroupNum group) {
  const bool codeForEachCurve = OPENSSL_version_major() > 3 || OPENSSL_version_minor() >= 5;
  switch (group) {
    case ECP_256:
      return {"private key in 33 freed bytes"};
    case ECP_384:
      return codeForEachCurve ? std::vector<std::string>{"private key in 48 freed bytes"} : std::vector<std::string>{};
    case ECP_521:
      return {"private key in 66 freed bytes"};
    default:
      return {};
  }
}

// What an output holds belongs to the caller, so it may not be reallocated.
ByteVector withRoom() {
  ByteVector bytes;
  bytes.reserve(1024);
  return bytes;
}

class DhRemains : public testing::TestWithParam<GroupCase> {
 protected:
  DhRemains() : group(GetParam().group), dh(std::make_unique<IpsecDHGeneral>(group)) {
    NonceGenerator generator(GetParam().privateSize - 1);
    EXPECT_TRUE(generator.generateNonce(&imported));
    IpsecDHGeneral other(group);
    EXPECT_TRUE(other.initIpsecDH());
    peer = publicKey(other);
  }

  // Adds what the object holds.
  void addSecretsOf(IpsecDHGeneral& exchange) {
    needles.add("private key", privateKey(exchange));
    if (ByteVector computed; exchange.getSharedSecret(&computed)) {
      needles.add("secret", computed);
    }
  }

  void initialize() { ASSERT_TRUE(dh->initIpsecDH()); }

  void agree() {
    initialize();
    ASSERT_TRUE(dh->setPeerPublicKey(&peer));
  }

  const DhGroupNum group;
  ByteVector imported;
  ByteVector peer;
  Needles needles;
  std::unique_ptr<IpsecDHGeneral> dh;
};

TEST_P(DhRemains, OfAGeneratedPrivateKey) {
  const Remains left([&] { initialize(); });
  addSecretsOf(*dh);
  expectFindings(left.dead(needles), {});
}

TEST_P(DhRemains, OfReadingThePrivateKey) {
  initialize();
  addSecretsOf(*dh);
  ByteVector out = withRoom();
  const Remains left([&] { EXPECT_TRUE(dh->getMyPrivateKey(&out)); });
  expectFindings(left.dead(needles), {});
}

TEST_P(DhRemains, OfReadingThePublicKey) {
  initialize();
  addSecretsOf(*dh);
  ByteVector out = withRoom();
  const Remains left([&] { EXPECT_TRUE(dh->getMyPublicKey(&out)); });
  expectFindings(left.dead(needles), {});
}

TEST_P(DhRemains, OfAnImportedPrivateKey) {
  agree();
  addSecretsOf(*dh);  // the old key, and the secret that was computed with it
  needles.add("private key", imported);
  const Remains left([&] { EXPECT_TRUE(dh->setMyPrivateKey(&imported)); });
  expectFindings(left.dead(needles), {});
}

TEST_P(DhRemains, OfALongImportedPrivateKey) {
  initialize();
  NonceGenerator generator(1500);  // longer than the number of any group
  ByteVector longKey;
  ASSERT_TRUE(generator.generateNonce(&longKey));
  needles.add("private key", longKey);
  ByteVector out;
  out.reserve(2 * longKey.size());
  const Remains left([&] {
    EXPECT_TRUE(dh->setMyPrivateKey(&longKey));
    (void)dh->getMyPrivateKey(&out);
  });
  expectFindings(left.dead(needles), {});
}

TEST_P(DhRemains, OfAnAgreement) {
  initialize();
  const Remains left([&] { EXPECT_TRUE(dh->setPeerPublicKey(&peer)); });
  addSecretsOf(*dh);
  expectFindings(left.dead(needles), leftByMultiplication(group));
}

TEST_P(DhRemains, OfASecondAgreement) {
  agree();
  addSecretsOf(*dh);
  IpsecDHGeneral other(group);
  ASSERT_TRUE(other.initIpsecDH());
  const ByteVector second = publicKey(other);
  const Remains left([&] { EXPECT_TRUE(dh->setPeerPublicKey(&second)); });
  addSecretsOf(*dh);
  expectFindings(left.dead(needles), leftByMultiplication(group));
}

TEST_P(DhRemains, OfReadingTheSecret) {
  agree();
  addSecretsOf(*dh);
  ByteVector out = withRoom();
  const Remains left([&] { EXPECT_TRUE(dh->getSharedSecret(&out)); });
  expectFindings(left.dead(needles), {});
}

TEST_P(DhRemains, OfADestroyedObject) {
  agree();
  addSecretsOf(*dh);
  const Remains left([&] { dh.reset(); });
  expectFindings(left.dead(needles), {});
}

INSTANTIATE_TEST_SUITE_P(Groups, DhRemains, testing::ValuesIn(allGroups()),
                         [](const auto& tested) { return std::to_string(tested.param.group); });

// --- The crypto shim -------------------------------------------------------------------------------------------------

// Only one call at a time: what a later call does would write over what an earlier one has left on the stack.
class ShimRemains : public testing::Test {
 protected:
  ShimRemains()
      : p(BN_get_rfc3526_prime_2048(nullptr)),
        g(BN_new()),
        priv(BN_bin2bn(privateBytes.data(), static_cast<int>(privateBytes.size()), nullptr)) {
    EXPECT_EQ(BN_set_word(g.get(), 2), 1);
    needles.add("private key", privateBytes);
  }

  KeyPtr keyPair() { return KeyPtr(EVP_PKEY_DH_from_params(p.get(), g.get(), nullptr, priv.get())); }

  const ByteVector privateBytes = bytesFrom(3, 32);
  const PublicBn p;
  const PublicBn g;
  const SecretBn priv;
  Needles needles;
};

TEST_F(ShimRemains, OfAKeyPair) {
  KeyPtr key;
  const Remains left([&] { key = keyPair(); });
  ASSERT_NE(key, nullptr);
  expectFindings(left.dead(needles), {});
}

TEST_F(ShimRemains, OfAPrivateValueThatIsRead) {
  const KeyPtr key = keyPair();
  const SecretBn out(BN_new());
  ASSERT_EQ(BN_set_bit(out.get(), 2048), 1);  // room for the value
  const Remains left([&] { EXPECT_EQ(EVP_PKEY_DH_get_params(key.get(), nullptr, nullptr, nullptr, out.get()), 0); });
  expectFindings(left.dead(needles), {});
}

TEST_F(ShimRemains, OfASecret) {
  const KeyPtr key = keyPair();
  const KeyPtr peer(EVP_PKEY_DH_generate_keys(key.get()));
  ByteVector computed(256);
  unsigned char* bytes = computed.data();
  std::size_t length = 0;
  const Remains left([&] { EXPECT_EQ(EVP_PKEY_get_shared_secret(key.get(), peer.get(), &bytes, &length), 0); });
  needles.add("secret", computed);
  expectFindings(left.dead(needles), {});
}

// --- Two objects in turn ---------------------------------------------------------------------------------------------

// Everything from the first call to the last, with what is still allocated then.
TEST(DhRemainsOfAll, NothingIsKeptOfADiscardedSecret) {
  IpsecDHModp other(MODP_2048);
  ASSERT_TRUE(other.initIpsecDH());
  const ByteVector peer = publicKey(other);
  const ByteVector imported = bytesFrom(3, 32);
  Needles needles;
  std::unique_ptr<IpsecDHModp> dh;
  const Remains left([&] {
    dh = std::make_unique<IpsecDHModp>(MODP_2048);
    EXPECT_TRUE(dh->initIpsecDH());
    EXPECT_TRUE(dh->setPeerPublicKey(&peer));
    aside([&] {
      needles.add("secret", secret(*dh));
      needles.add("private key", privateKey(*dh));
    });
    EXPECT_TRUE(dh->setMyPrivateKey(&imported));
  });
  expectFindings(left.dead(needles), {});
  expectFindings(left.live(needles), {});
}

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  Ipsec::Testing::startWatching(argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Published test sets that are not part of the source tree: NIST's, as Debian packages them, and a folder with further
// ones (see IPSEC_SHARED_VECTORS in the top CMakeLists.txt). Every case for our groups and digests is run and counted.

#include "base/OpenSslPtr.h"
#include "tests/support/CryptoCases.h"
#include "tests/support/Skip.h"

#include <openssl/bn.h>
#include <openssl/evp.h>

#include <iostream>
#include <map>

namespace Ipsec::Testing {
namespace {

struct Counted {
  ~Counted() {
    for (const auto& [file, count] : counts) {
      std::cout << "cases run, " << file << ": " << count << '\n';
    }
  }
  std::map<std::string, std::size_t> counts;
};

// Runs the check on every block of a file below a folder and counts the blocks. A file without blocks fails.
void run(const std::string& folder, const std::string& file, const std::function<void(Block&)>& check) {
  static Counted counted;
  const std::size_t blocks = forEachBlock(folder + "/" + file, check);
  EXPECT_GT(blocks, 0U) << file;
  counted.counts[file] += blocks;
}

constexpr const char* package = IPSEC_PACKAGE_VECTORS;      // converted; empty without the package
constexpr const char* converted = IPSEC_CONVERTED_VECTORS;  // of the shared folder; empty without it
constexpr const char* shared = IPSEC_SHARED_VECTORS;        // as it is

#define IPSEC_NEEDS(folder, what)                     \
  do {                                                \
    if (*(folder) == '\0') {                          \
      IPSEC_SKIP(std::string(what " are not given")); \
    }                                                 \
  } while (false)

#define IPSEC_NEEDS_PACKAGE() IPSEC_NEEDS(package, "NIST's sets of the package python3-cryptography-vectors")
#define IPSEC_NEEDS_SHARED() IPSEC_NEEDS(shared, "the further sets of the folder IPSEC_SHARED_VECTORS")

// --- Checks ----------------------------------------------------------------------------------------------------------

void exchange(Block& block) {
  IpsecDHGeneral dh(groupOf(block));
  ASSERT_TRUE(dh.initIpsecDH());
  expectExchange(dh, block.bytes("Private"), block.bytes("Public"), block.bytes("Peer"), block.bytes("Secret"));
}

void refusal(DhGroupNum group, const ByteVector& peer) {
  IpsecDHGeneral dh(group);
  ASSERT_TRUE(dh.initIpsecDH());
  EXPECT_FALSE(dh.setPeerPublicKey(&peer));
  ByteVector out;
  EXPECT_FALSE(dh.getSharedSecret(&out));
}

ByteVector hmac(HashAlgorithm hash, const ByteVector& key, const std::vector<ByteVector>& pieces) {
  HmacPRFunc prf;
  ByteVector output;
  EXPECT_TRUE(prf.initHmacPRFunc(hash));
  EXPECT_TRUE(prf.setKey(&key));
  for (const ByteVector& piece : pieces) {
    EXPECT_TRUE(prf.generatePRStream(&piece, &piece == &pieces.back() ? &output : nullptr));
  }
  return output;
}

ByteVector prfPlus(HashAlgorithm hash, const ByteVector& key, const ByteVector& seed, std::size_t length,
                   bool counter = true) {
  HmacPRFunc prf;
  PRFuncPlus plus(&prf, counter);
  ByteVector output;
  EXPECT_TRUE(prf.initHmacPRFunc(hash));
  EXPECT_TRUE(prf.setKey(&key));
  EXPECT_TRUE(plus.initPRFuncPlus(&seed));
  EXPECT_TRUE(plus.generatePRStream(length, &output));
  return output;
}

void hmacBlock(Block& block) {
  ByteVector output = hmac(hashNamed(block.text("Hash")), block.bytes("Key"), {block.bytes("Input")});
  if (block.has("Truncated")) {
    output.resize(block.number("Truncated"));
  }
  EXPECT_EQ(output, block.bytes("Output"));
}

// Expects generator^private modulo the block's prime for the public value of a private key: the library's own prime is
// the published one.
void expectPrime(DhGroupNum group, const ByteVector& prime, const ByteVector& generator) {
  const auto number = [](const ByteVector& bytes) {
    return Base::PublicBn(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
  };
  const ByteVector key(40, 0xC3);
  const Base::BnContextPtr context(BN_CTX_new());
  const Base::PublicBn expected(BN_new());
  ASSERT_EQ(BN_mod_exp(expected.get(), number(generator).get(), number(key).get(), number(prime).get(), context.get()),
            1);
  IpsecDHGeneral dh(group);
  ASSERT_TRUE(dh.initIpsecDH());
  ASSERT_TRUE(dh.setMyPrivateKey(&key));
  ByteVector value(prime.size());
  ASSERT_EQ(BN_bn2binpad(expected.get(), value.data(), static_cast<int>(value.size())), static_cast<int>(value.size()));
  EXPECT_EQ(publicKey(dh), value);
  refusal(group, prime);
}

// --- NIST's sets, as Debian packages them ----------------------------------------------------------------------------

TEST(SharedVectors, NistEcdh) {
  IPSEC_NEEDS_PACKAGE();
  run(package, "kas_ecdh.txt", exchange);
}

TEST(SharedVectors, NistEcdhSpoiltPublicValues) {
  IPSEC_NEEDS_PACKAGE();
  run(package, "kas_ecdh_invalid.txt", [](Block& block) { refusal(groupOf(block), block.bytes("Peer")); });
}

TEST(SharedVectors, NistEcdhSpoiltFigures) {
  IPSEC_NEEDS_PACKAGE();
  run(package, "kas_ecdh_wrong.txt", [](Block& block) {
    const ByteVector key = block.bytes("Private");
    IpsecDHGeneral dh(groupOf(block));
    ASSERT_TRUE(dh.initIpsecDH());
    ASSERT_TRUE(dh.setMyPrivateKey(&key));
    if (block.has("WrongPublic")) {
      EXPECT_NE(publicKey(dh), block.bytes("WrongPublic"));
      return;
    }
    const ByteVector peer = block.bytes("Peer");
    EXPECT_EQ(publicKey(dh), block.bytes("Public"));
    EXPECT_TRUE(dh.setPeerPublicKey(&peer));
    EXPECT_NE(secret(dh), block.bytes("WrongSecret"));
  });
}

TEST(SharedVectors, PackagedFiguresOfRfc5114And3526) {
  IPSEC_NEEDS_PACKAGE();
  run(package, "rfc5114_dh.txt", exchange);
  run(package, "rfc3526_parameters.txt",
      [](Block& block) { expectPrime(groupOf(block), block.bytes("Prime"), block.bytes("Generator")); });
}

// --- The further sets ------------------------------------------------------------------------------------------------

TEST(SharedVectors, NistIkev2KeyDerivation) {
  IPSEC_NEEDS_SHARED();
  run(converted, "cavs_ikev2.txt", [](Block& block) {
    const HashAlgorithm hash = hashNamed(block.text("Hash"));
    const ByteVector nonces = block.bytes("Ni") + block.bytes("Nr");
    const ByteVector newSecret = block.bytes("NewSecret");
    const ByteVector skeySeed = hmac(hash, nonces, {block.bytes("Secret")});
    EXPECT_EQ(skeySeed, block.bytes("SkeySeed"));
    const ByteVector keys = block.bytes("Keys");
    EXPECT_EQ(prfPlus(hash, skeySeed, nonces + block.bytes("SpiI") + block.bytes("SpiR"), keys.size()), keys);
    const ByteVector skD(keys.begin(), keys.begin() + static_cast<std::ptrdiff_t>(skeySeed.size()));
    const ByteVector childKeys = block.bytes("ChildKeys");
    EXPECT_EQ(prfPlus(hash, skD, nonces, childKeys.size()), childKeys);
    const ByteVector childDhKeys = block.bytes("ChildDhKeys");
    EXPECT_EQ(prfPlus(hash, skD, newSecret + nonces, childDhKeys.size()), childDhKeys);
    EXPECT_EQ(hmac(hash, skD, {newSecret, nonces}), block.bytes("RekeySkeySeed"));
  });
}

TEST(SharedVectors, NistIkev1KeyDerivation) {
  IPSEC_NEEDS_SHARED();
  run(converted, "cavs_ikev1.txt", [](Block& block) {
    const HashAlgorithm hash = hashNamed(block.text("Hash"));
    const ByteVector nonces = block.bytes("Ni") + block.bytes("Nr");
    const ByteVector dhSecret = block.bytes("Secret");
    const ByteVector cookies = block.bytes("CookieI") + block.bytes("CookieR");
    const ByteVector skeyId = block.has("PreSharedKey")
                                  ? hmac(hash, block.bytes("PreSharedKey"), {block.bytes("Ni"), block.bytes("Nr")})
                                  : hmac(hash, nonces, {dhSecret});
    EXPECT_EQ(skeyId, block.bytes("SkeyId"));
    const ByteVector d = hmac(hash, skeyId, {dhSecret, cookies, {0}});
    EXPECT_EQ(d, block.bytes("SkeyIdD"));
    const ByteVector a = hmac(hash, skeyId, {d, dhSecret, cookies, {1}});
    EXPECT_EQ(a, block.bytes("SkeyIdA"));
    EXPECT_EQ(hmac(hash, skeyId, {a, dhSecret, cookies, {2}}), block.bytes("SkeyIdE"));
  });
}

TEST(SharedVectors, NistEcdhPrimitive) {
  IPSEC_NEEDS_SHARED();
  run(converted, "cavp_ecdh.txt", exchange);
}

TEST(SharedVectors, Hmac) {
  IPSEC_NEEDS_SHARED();
  run(converted, "acvp_hmac.txt", hmacBlock);
  run(converted, "boringssl_hmac.txt", hmacBlock);
}

TEST(SharedVectors, NistSafePrimeKeys) {
  IPSEC_NEEDS_SHARED();
  run(converted, "acvp_dh_keys.txt", [](Block& block) {
    const ByteVector key = block.bytes("Private");
    IpsecDHGeneral dh(groupOf(block));
    ASSERT_TRUE(dh.initIpsecDH());
    ASSERT_TRUE(dh.setMyPrivateKey(&key));
    if (block.has("Public")) {
      EXPECT_EQ(publicKey(dh), block.bytes("Public"));
    } else {
      EXPECT_NE(publicKey(dh), block.bytes("WrongPublic"));
    }
  });
}

TEST(SharedVectors, PaddedSecretsOfBoringssl) {
  IPSEC_NEEDS_SHARED();
  run(converted, "boringssl_dh.txt", exchange);
}

TEST(SharedVectors, ModpExchangesFromBothSides) {
  IPSEC_NEEDS_SHARED();
  run(shared, "generated/modp_kat.txt", [](Block& block) {
    const ByteVector a = block.bytes("ya");
    const ByteVector b = block.bytes("yb");
    const ByteVector z = block.bytes("z");
    IpsecDHGeneral dh(groupOf(block, "group"));
    ASSERT_TRUE(dh.initIpsecDH());
    expectExchange(dh, block.bytes("xa"), a, b, z);
    expectExchange(dh, block.bytes("xb"), b, a, z);
  });
}

TEST(SharedVectors, ModpValuesToRefuse) {
  IPSEC_NEEDS_SHARED();
  run(shared, "generated/modp_bad_public.txt", [](Block& block) {
    block.ignore("name");
    block.ignore("expect");  // by a bare OpenSSL; the library refuses them all
    refusal(groupOf(block, "group"), block.bytes("y"));
  });
}

TEST(SharedVectors, ModpParameters) {
  IPSEC_NEEDS_SHARED();
  run(shared, "generated/modp_params.txt", [](Block& block) {
    block.ignore("q");
    expectPrime(groupOf(block, "group"), block.bytes("p"), block.bytes("g"));
  });
}

TEST(SharedVectors, CurveEdges) {
  IPSEC_NEEDS_SHARED();
  run(shared, "generated/ecp_edge.txt", [](Block& block) {
    const ByteVector key = block.bytes("d");
    const ByteVector peer = block.bytes("peer");
    const DhGroupNum group = groupOf(block, "group");
    const std::string result = block.text("result");
    if (!block.has("z")) {
      EXPECT_EQ(result, "invalid");
      refusal(group, peer);
      return;
    }
    EXPECT_TRUE(result == "valid" || result == "unreduced") << result;
    IpsecDHGeneral dh(group);
    ASSERT_TRUE(dh.initIpsecDH());
    EXPECT_TRUE(dh.setMyPrivateKey(&key));
    EXPECT_TRUE(dh.setPeerPublicKey(&peer));
    EXPECT_EQ(secret(dh), block.bytes("z"));
  });
}

TEST(SharedVectors, Streams) {
  IPSEC_NEEDS_SHARED();
  run(shared, "generated/prfplus_stream.txt", [](Block& block) {
    const HashAlgorithm hash = hashNamed(block.text("hash"));
    const std::uint64_t blocks = block.number("blocks");
    const std::size_t size = block.bytes("t1").size();
    const ByteVector stream =
        prfPlus(hash, block.bytes("key"), block.bytes("seed"), blocks * size, block.text("mode") == "counter");
    for (const std::size_t n : {1U, 2U, 3U, 255U, 256U, 257U, 300U}) {
      const unsigned char* const start = stream.data() + (n - 1) * size;
      EXPECT_EQ(ByteVector(start, start + size), block.bytes("t" + std::to_string(n)));
    }
    ByteVector digest(32);
    ASSERT_EQ(EVP_Digest(stream.data(), stream.size(), digest.data(), nullptr, EVP_sha256(), nullptr), 1);
    EXPECT_EQ(digest, block.bytes("stream_sha256"));
  });
}

TEST(SharedVectors, FiguresOfRfcs) {
  IPSEC_NEEDS_SHARED();
  run(shared, "rfc/rfc5903_ecp.txt", [](Block& block) {
    block.ignore("curve");
    const ByteVector i = block.bytes("gi");
    const ByteVector r = block.bytes("gr");
    IpsecDHGeneral dh(groupOf(block, "group"));
    ASSERT_TRUE(dh.initIpsecDH());
    expectExchange(dh, block.bytes("i"), i, r, block.bytes("gir"));
    expectExchange(dh, block.bytes("r"), r, i, block.bytes("gir"));
  });
  run(shared, "rfc/rfc5114_a3_a6_a8.txt", [](Block& block) {
    block.ignore("curve");
    block.ignore("q");
    if (block.has("p")) {
      expectPrime(groupOf(block, "group"), block.bytes("p"), block.bytes("g"));
    }
    IpsecDHGeneral dh(groupOf(block, "group"));
    ASSERT_TRUE(dh.initIpsecDH());
    expectExchange(dh, block.bytes("xa"), block.bytes("ya"), block.bytes("yb"), block.bytes("z"));
    expectExchange(dh, block.bytes("xb"), block.bytes("yb"), block.bytes("ya"), block.bytes("z"));
  });
  run(shared, "rfc/rfc2202_rfc4231_hmac.txt", [](Block& block) {
    block.ignore("rfc");
    block.ignore("case");
    block.ignore("published_len");
    EXPECT_EQ(hmac(hashNamed(block.text("hash")), block.bytes("key"), {block.bytes("data")}), block.bytes("mac"));
  });
}

}  // namespace
}  // namespace Ipsec::Testing

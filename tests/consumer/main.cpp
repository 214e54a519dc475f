// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Uses each part of the public interface once, in C++17, with nothing but the public headers.
#include "Ipsec.h"
#include "IpsecVersion.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

using Ipsec::ByteVector;

int failures = 0;

void check(const char* what, bool holds) {
  if (!holds) {
    (void)std::fprintf(stderr, "consumer: this does not hold: %s\n", what);
    ++failures;
  }
}

ByteVector bytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}

// The consumer's own pseudo-random function, and a bad one: the sum of the key and all input, as one byte.
class SumPRFunc : public Ipsec::PRFunc {
 public:
  bool generatePRStream(const ByteVector* input, ByteVector* output) override {
    for (const unsigned char byte : *input) {
      sum = static_cast<unsigned char>(sum + byte);
    }
    if (output == nullptr) {
      return true;
    }
    output->assign(1, sum);
    sum = key;
    return true;
  }
  std::size_t getOutputSize() override { return 1; }
  std::size_t getKeySize() override { return 1; }
  bool setKey(const ByteVector* newKey) override {
    if (newKey != nullptr) {
      key = newKey->at(0);
    }
    sum = key;
    return true;
  }

 private:
  unsigned char key = 0;
  unsigned char sum = 0;
};

template <class Exchange>
void exchangeKeys(Ipsec::DhGroupNum group, std::size_t publicBytes, std::size_t secretBytes) {
  Exchange ours(group);
  Exchange theirs(Ipsec::MODP_NONE);
  check("setDHGroup before initIpsecDH", theirs.setDHGroup(group));
  check("initIpsecDH", ours.initIpsecDH() && theirs.initIpsecDH());
  check("setDHGroup after initIpsecDH", !theirs.setDHGroup(group));

  ByteVector privateKey;
  check("private key, out and in", ours.getMyPrivateKey(&privateKey) && ours.setMyPrivateKey(&privateKey));
  ByteVector ourPublic;
  ByteVector theirPublic;
  check("getMyPublicKey", ours.getMyPublicKey(&ourPublic) && theirs.getMyPublicKey(&theirPublic));
  check("length of the public value", ourPublic.size() == publicBytes && theirPublic.size() == publicBytes);

  ByteVector ourSecret;
  ByteVector theirSecret;
  check("setPeerPublicKey", ours.setPeerPublicKey(&theirPublic) && theirs.setPeerPublicKey(&ourPublic));
  check("getSharedSecret", ours.getSharedSecret(&ourSecret) && theirs.getSharedSecret(&theirSecret));
  check("both sides have one secret", ourSecret == theirSecret && ourSecret.size() == secretBytes);
}

void useDh() {
  exchangeKeys<Ipsec::IpsecDHModp>(Ipsec::MODP_2048, 256, 256);
  exchangeKeys<Ipsec::IpsecDHEcp>(Ipsec::ECP_384, 96, 48);
  exchangeKeys<Ipsec::IpsecDHGeneral>(Ipsec::MODP_2048_256, 256, 256);
  exchangeKeys<Ipsec::IpsecDHGeneral>(Ipsec::ECP_521, 132, 66);

  Ipsec::IpsecDHEcp form(Ipsec::ECP_256);
  Ipsec::IpsecDH& anyForm = form;
  ByteVector publicValue;
  check("a form through the abstract class", anyForm.initIpsecDH() && anyForm.getMyPublicKey(&publicValue));
  check("isModp", Ipsec::IpsecDHGeneral(Ipsec::MODP_768).isModp);
}

// RFC 4231 section 4.3, test case 2.
void useHmac() {
  const ByteVector key = bytesOf("Jefe");
  const ByteVector input = bytesOf("what do ya want for nothing?");
  const ByteVector published = {0x5b, 0xdc, 0xc1, 0x46, 0xbf, 0x60, 0x75, 0x4e, 0x6a, 0x04, 0x24,
                                0x26, 0x08, 0x95, 0x75, 0xc7, 0x5a, 0x00, 0x3f, 0x08, 0x9d, 0x27,
                                0x39, 0x83, 0x9d, 0xec, 0x58, 0xb9, 0x64, 0xec, 0x38, 0x43};
  Ipsec::HmacPRFunc hmac;
  ByteVector output;
  check("HmacPRFunc", hmac.initHmacPRFunc(Ipsec::HASH_SHA256) && hmac.setKey(&key));
  check("HMAC computed", hmac.generatePRStream(&input, &output));
  check("HMAC as published", output == published);
  check("HMAC's sizes", hmac.getOutputSize() == 32 && hmac.getKeySize() == 32);
}

void usePrfPlus() {
  // By hand, with key 10 and seed 5: T1 = 10+5+1, T2 = 10+16+5+2, T3 = 10+33+5+3.
  const ByteVector key = {10};
  const ByteVector seed = {5};
  SumPRFunc sum;
  check("a PRFunc of one's own takes a key", sum.setKey(&key));
  Ipsec::PRFuncPlus stream(&sum, true);
  ByteVector output;
  check("prf+ over a PRFunc of one's own", stream.initPRFuncPlus(&seed) && stream.generatePRStream(3, &output));
  check("prf+ as by hand", output == ByteVector({16, 33, 51}));
}

void useKeyMaterial() {
  check("initKeyGenLib", Ipsec::initKeyGenLib() == 1);
  useHmac();
  usePrfPlus();

  ByteVector nonce;
  ByteVector other;
  ByteVector both;
  check("nonces", Ipsec::NonceGenerator().generateNonce(&nonce) && Ipsec::NonceGenerator(32).generateNonce(&other));
  check("full nonce", Ipsec::NonceGenerator().generateFullNonce(&both, &nonce, &other) && both.size() == 64);

  check("AES-GCM-16-256 takes 36 bytes", Ipsec::getEncryptKeyLen({Ipsec::ENCR_AES_GCM_16, 256}) == 36);
  check("HMAC-SHA2-512-256 takes 64 bytes", Ipsec::getIntegKeyLen(Ipsec::AUTH_HMAC_SHA2_512_256) == 64);
  bool thrown = false;
  try {
    (void)Ipsec::getIntegKeyLen(static_cast<Ipsec::IntegrityAlgo>(1));
  } catch (const std::out_of_range&) {
    thrown = true;
  }
  check("an exception crosses the library's boundary", thrown);
  Ipsec::cleanupKeyGenLib();
}

void useDump() {
  std::ostringstream captured;
  std::streambuf* const before = std::cout.rdbuf(captured.rdbuf());
  const ByteVector bytes = {0x01, 0xab, 0x10};
  Ipsec::printVector("vector", &bytes);
  std::cout.rdbuf(before);
  check("printVector", captured.str() == "vector is\nlen is: 3\n01ab10\nend\n");
}

void useNamesAndFormatting() {
  const Ipsec::ConnectionKey key(Vrf::VrfIdMap::VrfId::defaultVrf(), 7, Ipsec::ConnIdSrc::Local,
                                 Ipnet::IpGenAddr("10.0.0.1"), Ipnet::IpGenAddr("10.0.0.2"));
  check("getConnNameFromKey", Ipsec::getConnNameFromKey(key) == "default-10.0.0.1-10.0.0.2-local-7");
  check("fillSpace", Ipsec::fillSpace(3) == "   ");
  check("roundUp", Ipsec::roundUp(33) == 64);
  check("secondsToTimestamp", Ipsec::secondsToTimestamp(Vello::Duration(86400)).size() == 19);
  const Ipsec::stringmap settings = {{"config", "name"}, {"reqid", "1"}};
  check("stringmap", settings.find(Vello::String("config")) != settings.end());
}

// The package's version is what CMake or pkg-config say.
void useVersion() {
  char composed[32];
  (void)std::snprintf(composed, sizeof composed, "%d.%d.%d", IPSEC_HELPERS_VERSION_MAJOR, IPSEC_HELPERS_VERSION_MINOR,
                      IPSEC_HELPERS_VERSION_PATCH);
  check("the version's numbers", std::strcmp(composed, PACKAGE_VERSION) == 0);
  check("the version's text", std::strcmp(IPSEC_HELPERS_VERSION_STRING, PACKAGE_VERSION) == 0);
#if IPSEC_HELPERS_VERSION < IPSEC_HELPERS_VERSION_NUMBER(1, 0, 0)
  check("the preprocessor compares versions", false);
#elif IPSEC_HELPERS_VERSION >= IPSEC_HELPERS_VERSION_NUMBER(2, 0, 0)
  check("the preprocessor compares versions", false);
#endif
}

// These change the host. They are only linked here, and never called.
void linkHostControl() {
  using Function = void (*)();
  const std::array<Function, 9> functions = {
      reinterpret_cast<Function>(&Ipsec::writeConnections),
      reinterpret_cast<Function>(&Ipsec::writeSecrets),
      reinterpret_cast<Function>(&Ipsec::_execCommand),
      &Ipsec::enableCryptoModules,
      &Ipsec::disableCryptoModules,
      &Ipsec::enableFlowEncapModule,
      &Ipsec::setMaxReplayWindow,
      reinterpret_cast<Function>(&Ipsec::isSswanRunning),
      reinterpret_cast<Function>(&Ipsec::vrfIdToName),
  };
  for (const Function function : functions) {
    check("a function of host control is there", function != nullptr);
  }
}

}  // namespace

int main() {
  useDh();
  useKeyMaterial();
  useDump();
  useNamesAndFormatting();
  useVersion();
  linkHostControl();
  return failures == 0 ? 0 : 1;
}

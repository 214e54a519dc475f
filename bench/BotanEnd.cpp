// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Botan 2 or 3, with its own key generation, key agreement and HMAC. Groups are created once per process.

#include "End.h"
#include "base/OpenSslPtr.h"

#include <botan/auto_rng.h>
#include <botan/bigint.h>
#include <botan/dh.h>
#include <botan/dl_group.h>
#include <botan/ec_group.h>
#include <botan/ecdh.h>
#include <botan/hex.h>
#include <botan/mac.h>
#include <botan/pubkey.h>
#include <botan/version.h>
#include <openssl/bn.h>

#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>

namespace Bench {
namespace {

Botan::RandomNumberGenerator& generator() {
  static Botan::AutoSeeded_RNG rng;
  return rng;
}

std::string hexOf(BIGNUM* (*prime)(BIGNUM*)) {
  const Base::PublicBn number(prime(nullptr));
  std::string bytes(static_cast<std::size_t>(BN_num_bytes(number.get())), '\0');
  BN_bn2bin(number.get(), reinterpret_cast<unsigned char*>(bytes.data()));
  return "0x" + Botan::hex_encode(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

// RFC 5114 section 2.3.
constexpr const char* group24Prime =
    "0x87A8E61DB4B6663CFFBBD19C651959998CEEF608660DD0F25D2CEED4435E3B00E00DF8F1D61957D4FAF7DF4561B2AA3016C3D91134096FAA"
    "3"
    "BF4296D830E9A7C209E0C6497517ABD5A8A9D306BCF67ED91F9E6725B4758C022E0B1EF4275BF7B6C5BFC11D45F9088B941F54EB1E59BB8BC3"
    "9"
    "A0BF12307F5C4FDB70C581B23F76B63ACAE1CAA6B7902D52526735488A0EF13C6D9A51BFA4AB3AD8347796524D8EF6A167B5A41825D967E144"
    "E"
    "5140564251CCACB83E6B486F6B3CA3F7971506026C0B857F689962856DED4010ABD0BE621C3A3960A54E710C375F26375D7014103A4B54330C"
    "1"
    "98AF126116D2276E11715F693877FAD7EF09CADB094AE91E1A1597";
constexpr const char* group24Generator =
    "0x3FB32C9B73134D0B2E77506660EDBD484CA7B18F21EF205407F4793A1A0BA12510DBC15077BE463FFF4FED4AAC0BB555BE3A6C1B0C6B47B1"
    "B"
    "C3773BF7E8C6F62901228F8C28CBB18A55AE31341000A650196F931C77A57F2DDF463E5E9EC144B777DE62AAAB8A8628AC376D282D6ED3864E"
    "6"
    "7982428EBC831D14348F6F2F9193B5045AF2767164E1DFC967C1FB3F2E55A4BD1BFFE83B9C80D052B985D182EA0ADB2A3B7313D3FE14C8484B"
    "1"
    "E052588B9B7D2BBD2DF016199ECD06E1557CD0915B3353BBB64E0EC377FD028370DF92B52C7891428CDC67EB6184B523D1DB246C32F6307849"
    "0"
    "F00EF8D647D148D47954515E2327CFEF98C582664B4C0F6CC41659";
constexpr const char* group24Order = "0x8CF83642A709A097B447997640129DA299B1A47D1EB3750BA308B0FE64F5FBD3";

Botan::DL_Group makeModpGroup(unsigned group) {
  switch (group) {
    case 1:
      return {Botan::BigInt(hexOf(BN_get_rfc2409_prime_768)), Botan::BigInt(2)};
    case 2:
      return {Botan::BigInt(hexOf(BN_get_rfc2409_prime_1024)), Botan::BigInt(2)};
    case 5:
      return {Botan::BigInt(hexOf(BN_get_rfc3526_prime_1536)), Botan::BigInt(2)};
    case 14:
      return {Botan::BigInt(hexOf(BN_get_rfc3526_prime_2048)), Botan::BigInt(2)};
    case 15:
      return {Botan::BigInt(hexOf(BN_get_rfc3526_prime_3072)), Botan::BigInt(2)};
    case 16:
      return {Botan::BigInt(hexOf(BN_get_rfc3526_prime_4096)), Botan::BigInt(2)};
    case 17:
      return {Botan::BigInt(hexOf(BN_get_rfc3526_prime_6144)), Botan::BigInt(2)};
    case 24:
      return {Botan::BigInt(group24Prime), Botan::BigInt(group24Order), Botan::BigInt(group24Generator)};
    default:
      throw std::invalid_argument("no such group");
  }
}

const Botan::DL_Group& modpGroup(unsigned group) {
  static std::map<unsigned, Botan::DL_Group> made;
  const auto found = made.find(group);
  return found != made.end() ? found->second : made.emplace(group, makeModpGroup(group)).first->second;
}

const Botan::EC_Group& curve(unsigned group) {
  static std::map<unsigned, Botan::EC_Group> made;
  const auto found = made.find(group);
  if (found != made.end()) {
    return found->second;
  }
  const char* const name = group == 19 ? "secp256r1" : group == 20 ? "secp384r1" : "secp521r1";
#if BOTAN_VERSION_MAJOR >= 3
  return made.emplace(group, Botan::EC_Group::from_name(name)).first->second;
#else
  return made.emplace(group, Botan::EC_Group(name)).first->second;
#endif
}

// What both kinds share: nonces and keys.
class BotanEnd : public End {
 public:
  bool nonces(Bytes& both) override {
    both.resize(2 * nonceBytes);
    generator().randomize(both.data(), nonceBytes);
    generator().randomize(both.data() + nonceBytes, nonceBytes);
    return true;
  }

  bool keys(const Bytes& secret, const Bytes& both, Bytes& out) override {
    const auto prf = Botan::MessageAuthenticationCode::create_or_throw("HMAC(SHA-256)");
    prf->set_key(both);
    prf->update(secret);
    prf->set_key(prf->final());
    Botan::secure_vector<unsigned char> block;
    out.resize(keyCount * keyBytes);
    for (unsigned char counter = 1; counter <= keyCount; ++counter) {
      prf->update(block);
      prf->update(both);
      prf->update(spis);
      prf->update(counter);
      block = prf->final();
      std::copy(block.begin(), block.end(), out.begin() + (counter - 1) * static_cast<std::ptrdiff_t>(keyBytes));
    }
    return true;
  }

 protected:
  static void derive(const Botan::Private_Key& own, const Bytes& peer, Bytes& secret) {
    const Botan::PK_Key_Agreement agreement(own, generator(), "Raw");
    const auto bits = agreement.derive_key(0, peer).bits_of();
    secret.assign(bits.begin(), bits.end());
  }
};

class BotanModp : public BotanEnd {
 public:
  explicit BotanModp(unsigned number) : group(number) {}

  bool generate() override {
    own = std::make_unique<Botan::DH_PrivateKey>(generator(), modpGroup(group));
    return true;
  }

  bool import(const Bytes& privateKey) override {
    const Botan::BigInt x(privateKey.data(), privateKey.size());
#if BOTAN_VERSION_MAJOR >= 3
    own = std::make_unique<Botan::DH_PrivateKey>(modpGroup(group), x);
#else
    own = std::make_unique<Botan::DH_PrivateKey>(generator(), modpGroup(group), x);
#endif
    return true;
  }

  bool publicValue(Bytes& out) override {
    out = own->public_value();
    return true;
  }

  bool agree(const Bytes& peer, Bytes& secret) override {
    // Botan's agreement checks the range. The caller must check the subgroup of group 24.
    const Botan::BigInt y(peer.data(), peer.size());
    if (group == 24 && !modpGroup(group).verify_public_element(y)) {
      return false;
    }
    derive(*own, peer, secret);
    return true;
  }

 private:
  unsigned group;
  std::unique_ptr<Botan::DH_PrivateKey> own;
};

class BotanCurve : public BotanEnd {
 public:
  explicit BotanCurve(unsigned number) : group(number) {}

  bool generate() override {
    own = std::make_unique<Botan::ECDH_PrivateKey>(generator(), curve(group));
    return true;
  }

  bool import(const Bytes& privateKey) override {
    const Botan::BigInt x(privateKey.data(), privateKey.size());
    own = std::make_unique<Botan::ECDH_PrivateKey>(generator(), curve(group), x);
    return true;
  }

  bool publicValue(Bytes& out) override {
    const Bytes point = own->public_value();  // one format octet, then x | y
    out.assign(point.begin() + 1, point.end());
    return true;
  }

  bool agree(const Bytes& peer, Bytes& secret) override {
    Bytes point = {0x04};
    point.insert(point.end(), peer.begin(), peer.end());
    derive(*own, point, secret);
    return true;
  }

 private:
  unsigned group;
  std::unique_ptr<Botan::ECDH_PrivateKey> own;
};

}  // namespace

std::unique_ptr<End> botanEnd(unsigned group) {
  if (group >= 19 && group <= 21) {
    return std::make_unique<BotanCurve>(group);
  }
  return std::make_unique<BotanModp>(group);
}

}  // namespace Bench

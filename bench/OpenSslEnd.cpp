// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Bare OpenSSL 3, called in the fastest way that its interface offers without giving up a check. The library is
// measured against this. Parameters are loaded once per process. Private exponents have twice the bits of the group's
// strength. A peer's value gets the range check (safe primes), the subgroup check (group 24) or the curve check that is
// part of decoding, and no check twice. Values are written directly into their places.

#include "End.h"
#include "KeyedStates.h"
#include "base/OpenSslPtr.h"

#include <openssl/core_names.h>
#include <openssl/dh.h>
#include <openssl/ec.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace Bench {
namespace {

enum class Kind { SafePrime, Subgroup, Curve };

struct Group {
  unsigned number;
  Kind kind;
  const char* name;              // null: OpenSSL has no name for the group
  BIGNUM* (*prime)(BIGNUM*);     // of groups without a name
  std::size_t publicValueBytes;  // on the wire
  std::size_t secretBytes;
  int exponentBits;  // of MODP groups
};

constexpr std::array<Group, 11> groups = {{
    {1, Kind::SafePrime, nullptr, BN_get_rfc2409_prime_768, 96, 96, 192},
    {2, Kind::SafePrime, nullptr, BN_get_rfc2409_prime_1024, 128, 128, 192},
    {5, Kind::SafePrime, "modp_1536", nullptr, 192, 192, 256},
    {14, Kind::SafePrime, "modp_2048", nullptr, 256, 256, 256},
    {15, Kind::SafePrime, "modp_3072", nullptr, 384, 384, 320},
    {16, Kind::SafePrime, "modp_4096", nullptr, 512, 512, 384},
    {17, Kind::SafePrime, "modp_6144", nullptr, 768, 768, 384},
    {19, Kind::Curve, "P-256", nullptr, 64, 32, 0},
    {20, Kind::Curve, "P-384", nullptr, 96, 48, 0},
    {21, Kind::Curve, "P-521", nullptr, 132, 66, 0},
    {24, Kind::Subgroup, "dh_2048_256", nullptr, 256, 256, 256},
}};

constexpr std::size_t maxPublicValueBytes = 768;

const Group& groupOf(unsigned number) {
  const auto* found =
      std::find_if(groups.begin(), groups.end(), [number](const Group& g) { return g.number == number; });
  if (found == groups.end()) {
    throw std::invalid_argument("no such group");
  }
  return *found;
}

Base::KeyPtr fromData(const char* type, int selection, OSSL_PARAM* params) {
  const Base::KeyContextPtr context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
  Base::KeyPtr key;
  if (!context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), Base::into(key), selection, params) != 1) {
    return nullptr;
  }
  return key;
}

Base::KeyPtr loadParameters(const Group& group) {
  const Base::BuilderPtr builder(OSSL_PARAM_BLD_new());
  const Base::SecretBn two(BN_new());
  const Base::SecretBn prime(group.name == nullptr ? group.prime(nullptr) : nullptr);
  if (group.name != nullptr) {
    OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, group.name, 0);
  } else {
    BN_set_word(two.get(), 2);
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_P, prime.get());
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_G, two.get());
  }
  const Base::ParamsPtr params(OSSL_PARAM_BLD_to_param(builder.get()));
  return fromData(group.kind == Kind::Curve ? "EC" : "DH", EVP_PKEY_KEY_PARAMETERS, params.get());
}

EVP_PKEY* parametersOf(const Group& group) {
  static std::array<Base::KeyPtr, groups.size()> loaded;
  Base::KeyPtr& key = loaded[static_cast<std::size_t>(&group - groups.data())];
  if (!key) {
    key = loadParameters(group);
  }
  return key.get();
}

class OpenSslEnd : public End {
 public:
  explicit OpenSslEnd(unsigned number) : group(groupOf(number)) {}

  bool generate() override {
    const Base::KeyContextPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, parametersOf(group), nullptr));
    if (!context || EVP_PKEY_keygen_init(context.get()) != 1) {
      return false;
    }
    if (group.kind != Kind::Curve) {
      int bits = group.exponentBits;
      const std::array<OSSL_PARAM, 2> length = {OSSL_PARAM_construct_int(OSSL_PKEY_PARAM_DH_PRIV_LEN, &bits),
                                                OSSL_PARAM_construct_end()};
      if (EVP_PKEY_CTX_set_params(context.get(), length.data()) != 1) {
        return false;
      }
    }
    EVP_PKEY* key = nullptr;
    const bool made = EVP_PKEY_generate(context.get(), &key) == 1;
    own.reset(key);
    return made;
  }

  // This is not timed: it serves the comparison of outputs.
  bool import(const Bytes& privateKey) override {
    const Base::SecretBn priv(BN_bin2bn(privateKey.data(), static_cast<int>(privateKey.size()), nullptr));
    // The builder borrows its arguments until it is done.
    Bytes point;
    Base::PublicBn p;
    Base::PublicBn g;
    const Base::SecretBn pub(BN_new());
    const Base::BuilderPtr builder(OSSL_PARAM_BLD_new());
    if (group.kind == Kind::Curve) {
      point = pointOf(priv.get());
      OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, group.name, 0);
      OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size());
    } else {
      p = parameter(OSSL_PKEY_PARAM_FFC_P);
      g = parameter(OSSL_PKEY_PARAM_FFC_G);
      const Base::BnContextPtr context(BN_CTX_new());
      BN_mod_exp(pub.get(), g.get(), priv.get(), p.get(), context.get());
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_P, p.get());
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_G, g.get());
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, pub.get());
    }
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, priv.get());
    const Base::ParamsPtr params(OSSL_PARAM_BLD_to_param(builder.get()));
    own = fromData(group.kind == Kind::Curve ? "EC" : "DH", EVP_PKEY_KEYPAIR, params.get());
    return own != nullptr;
  }

  bool publicValue(Bytes& out) override {
    // MODP: already left-padded to the prime. Curves: one format octet, then x | y.
    const std::size_t skipped = group.kind == Kind::Curve ? 1 : 0;
    std::array<unsigned char, maxPublicValueBytes> encoded;
    std::size_t length = 0;
    if (EVP_PKEY_get_octet_string_param(own.get(), OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, encoded.data(), encoded.size(),
                                        &length) != 1 ||
        length != group.publicValueBytes + skipped) {
      return false;
    }
    out.assign(encoded.begin() + skipped, encoded.begin() + length);
    return true;
  }

  bool agree(const Bytes& value, Bytes& secret) override {
    const Base::KeyPtr peer = decode(value);
    if (!peer || !judge(peer.get())) {
      return false;
    }
    const Base::KeyContextPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, own.get(), nullptr));
    if (!context || EVP_PKEY_derive_init(context.get()) != 1 ||
        EVP_PKEY_derive_set_peer_ex(context.get(), peer.get(), 0) != 1 ||
        (group.kind != Kind::Curve && EVP_PKEY_CTX_set_dh_pad(context.get(), 1) != 1)) {
      return false;
    }
    secret.resize(group.secretBytes);
    std::size_t length = secret.size();
    return EVP_PKEY_derive(context.get(), secret.data(), &length) == 1 && length == secret.size();
  }

  bool nonces(Bytes& both) override {
    both.resize(2 * nonceBytes);
    return RAND_bytes(both.data(), nonceBytes) == 1 && RAND_bytes(both.data() + nonceBytes, nonceBytes) == 1;
  }

  bool keys(const Bytes& secret, const Bytes& both, Bytes& out) override {
    const EVP_MD* md = fetchedDigest("SHA256");
    std::array<unsigned char, keyBytes> skeyseed;
    if (!hmacOnce(md, both, secret, skeyseed.data())) {
      return false;
    }
    Bytes seed;
    seed.reserve(both.size() + spis.size());
    seed.insert(seed.end(), both.begin(), both.end());
    seed.insert(seed.end(), spis.begin(), spis.end());
    out.resize(keyCount * keyBytes);
    KeyedStates prf(md);
    return prf.setKey(skeyseed.data(), skeyseed.size()) && prf.expandJoined(seed, out);
  }

 private:
  Base::KeyPtr decode(const Bytes& value) const {
    std::array<unsigned char, 1 + maxPublicValueBytes> encoded;
    std::size_t length = 0;
    if (value.size() != group.publicValueBytes) {
      return nullptr;
    }
    if (group.kind == Kind::Curve) {
      encoded[length++] = POINT_CONVERSION_UNCOMPRESSED;
    }
    std::copy(value.begin(), value.end(), encoded.begin() + length);
    length += value.size();
    Base::KeyPtr key(EVP_PKEY_new());
    if (!key || EVP_PKEY_copy_parameters(key.get(), parametersOf(group)) != 1 ||
        EVP_PKEY_set1_encoded_public_key(key.get(), encoded.data(), length) != 1) {
      return nullptr;
    }
    return key;
  }

  bool judge(EVP_PKEY* peer) const {
    if (group.kind == Kind::Curve) {
      return true;  // decoding has checked the equation of the curve
    }
    const Base::KeyContextPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, peer, nullptr));
    return context && (group.kind == Kind::SafePrime ? EVP_PKEY_public_check_quick(context.get())
                                                     : EVP_PKEY_public_check(context.get())) == 1;
  }

  Base::PublicBn parameter(const char* name) const {
    Base::PublicBn number;
    (void)EVP_PKEY_get_bn_param(parametersOf(group), name, Base::into(number));  // null if it fails
    return number;
  }

  // Computes the public point, with its format octet.
  Bytes pointOf(const BIGNUM* priv) const {
    const Base::CurvePtr curve(EC_GROUP_new_by_curve_name(EC_curve_nist2nid(group.name)));
    const Base::PointPtr point(EC_POINT_new(curve.get()));
    Bytes encoded(1 + group.publicValueBytes);
    EC_POINT_mul(curve.get(), point.get(), priv, nullptr, nullptr, nullptr);
    EC_POINT_point2oct(curve.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, encoded.data(), encoded.size(),
                       nullptr);
    return encoded;
  }

  const Group& group;
  Base::KeyPtr own;
};

}  // namespace

std::unique_ptr<End> opensslEnd(unsigned group) {
  return std::make_unique<OpenSslEnd>(group);
}

}  // namespace Bench

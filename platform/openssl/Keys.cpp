// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Key objects of MODP groups and curves. Most of what this part of the crypto shim does is arranged so that OpenSSL's
// calls take little time:
//
// - The time of a modular exponentiation grows with the words of the exponent. OpenSSL does not know groups 1 and 2 by
//   name and draws exponents of the prime's length for them. Twice the strength is enough and takes a third of the
//   time.
// - EVP_PKEY_derive_set_peer checks a peer with a full-size exponentiation. For a safe prime the range check proves the
//   same (RFC 6989 section 2.1) in a microsecond. Group 24 has small subgroups and gets the full check (section 2.2).
// - Loading parameters takes longer than everything else around a key. Those of a known group are loaded once and
//   shared.
//
// The caller passes numbers and key objects, never a group's number. knownGroup() recognises the group by its prime.

#include "base/MadeOnce.h"
#include "base/OpenSslPtr.h"
#include "base/PublicValue.h"
#include "base/SecretBytes.h"
#include "platform/CryptoShim.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/dh.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/objects.h>
#include <openssl/param_build.h>
#include <openssl/params.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <optional>

namespace {

using Base::BnContextPtr;
using Base::BuilderPtr;
using Base::into;
using Base::KeyContextPtr;
using Base::KeyPtr;
using Base::MadeOnce;
using Base::ParamsPtr;
using Base::PublicBn;
using Base::SecretBn;
using Base::SecretBytes;
using Base::triedPublicValue;
using Base::withPublicValue;

// Creates a key object from parameters. The selection says what they hold (EVP_PKEY_KEY_PARAMETERS and so on).
KeyPtr fromData(const char* type, int selection, OSSL_PARAM* params) {
  const KeyContextPtr context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
  KeyPtr key;
  if (params == nullptr || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), into(key), selection, params) != 1) {
    return nullptr;
  }
  return key;
}

// --- MODP groups ----------------------------------------------------------------------------------------------------

constexpr std::size_t maxPrimeBytes = OPENSSL_DH_MAX_MODULUS_BITS / 8;

struct ModpGroup {
  int primeBits;
  BIGNUM* (*prime)(BIGNUM*);  // null: the group can be loaded only by its name
  const char* name;           // OpenSSL's name; null: OpenSSL has no name for the group
  int exponentBits;           // of generated private values
  bool safePrime;             // q = (p - 1) / 2 is prime too: no subgroup needs a check beyond the range
};

// Exponents have at least twice the bits of the group's strength (RFC 3526 section 8; 80 bits for groups 1 and 2). They
// are rounded up to whole words, which takes no more time.
constexpr std::array<ModpGroup, 8> modpGroups = {{
    {768, BN_get_rfc2409_prime_768, nullptr, 192, true},        // 1
    {1024, BN_get_rfc2409_prime_1024, nullptr, 192, true},      // 2
    {1536, BN_get_rfc3526_prime_1536, "modp_1536", 256, true},  // 5
    {2048, BN_get_rfc3526_prime_2048, "modp_2048", 256, true},  // 14
    {3072, BN_get_rfc3526_prime_3072, "modp_3072", 320, true},  // 15
    {4096, BN_get_rfc3526_prime_4096, "modp_4096", 384, true},  // 16
    {6144, BN_get_rfc3526_prime_6144, "modp_6144", 384, true},  // 17
    {2048, nullptr, "dh_2048_256", 256, false},                 // 24
}};
constexpr std::size_t group24 = modpGroups.size() - 1;

// A group's parameters as a key object, and its prime and generator, by which it is recognised.
struct ModpParameters {
  KeyPtr key;
  PublicBn p;
  PublicBn g;
};

std::array<MadeOnce<std::unique_ptr<ModpParameters>>, modpGroups.size()> keptModpParameters;

// Reads one value of a key into a number. Every value except an imported private one fits into the length of the prime.
bool readNumber(const EVP_PKEY* key, const char* name, BIGNUM* number) {
  SecretBytes<maxPrimeBytes> bytes;
  const auto length = static_cast<std::size_t>((EVP_PKEY_get_bits(key) + 7) / 8);
  std::array<OSSL_PARAM, 2> params = {OSSL_PARAM_construct_BN(name, bytes.data(), std::min(length, bytes.size())),
                                      OSSL_PARAM_construct_end()};
  if (EVP_PKEY_get_params(key, params.data()) == 1 && OSSL_PARAM_modified(params.data()) == 1) {
    return OSSL_PARAM_get_BN(params.data(), &number) == 1;
  }
  return EVP_PKEY_get_bn_param(key, name, &number) == 1;
}

ParamsPtr modpParams(const BIGNUM* p, const BIGNUM* g, const BIGNUM* pub, const BIGNUM* priv) {
  const BuilderPtr builder(OSSL_PARAM_BLD_new());
  if (!builder || OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_P, p) != 1 ||
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_G, g) != 1 ||
      (pub != nullptr && OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, pub) != 1) ||
      (priv != nullptr && OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, priv) != 1)) {
    return nullptr;
  }
  return ParamsPtr(OSSL_PARAM_BLD_to_param(builder.get()));
}

KeyPtr namedModpParameters(const char* name) {
  std::array<OSSL_PARAM, 2> params = {
      OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char*>(name), 0),
      OSSL_PARAM_construct_end()};
  return fromData("DH", EVP_PKEY_KEY_PARAMETERS, params.data());
}

KeyPtr unnamedModpParameters(BIGNUM* (*prime)(BIGNUM*)) {
  const PublicBn p(prime(nullptr));
  const PublicBn g(BN_new());
  if (!p || !g || BN_set_word(g.get(), 2) != 1) {
    return nullptr;
  }
  return fromData("DH", EVP_PKEY_KEY_PARAMETERS, modpParams(p.get(), g.get(), nullptr, nullptr).get());
}

std::unique_ptr<ModpParameters> loadModpParameters(const ModpGroup& group) {
  std::unique_ptr<ModpParameters> loaded(new (std::nothrow) ModpParameters);
  if (!loaded) {
    return nullptr;
  }
  loaded->key = group.name != nullptr ? namedModpParameters(group.name) : unnamedModpParameters(group.prime);
  loaded->p.reset(BN_new());
  loaded->g.reset(BN_new());
  if (!loaded->key || !loaded->p || !loaded->g ||
      !readNumber(loaded->key.get(), OSSL_PKEY_PARAM_FFC_P, loaded->p.get()) ||
      !readNumber(loaded->key.get(), OSSL_PKEY_PARAM_FFC_G, loaded->g.get())) {
    return nullptr;
  }
  return loaded;
}

const ModpParameters* modpParameters(std::size_t group) {
  return keptModpParameters[group].get([group] { return loadModpParameters(modpGroups[group]); });
}

struct KnownGroup {
  const ModpGroup* group;
  const ModpParameters* parameters;
};

// Recognises a group by its prime, which no other group has. Returns nothing for any other prime, and when the group's
// parameters cannot be loaded. The values are then used as they are, with the full checks.
std::optional<KnownGroup> knownGroup(const BIGNUM* p) {
  const int bits = BN_num_bits(p);
  for (std::size_t i = 0; i < modpGroups.size(); ++i) {
    if (modpGroups[i].primeBits != bits) {
      continue;
    }
    const ModpParameters* parameters = modpParameters(i);
    if (parameters != nullptr && BN_cmp(parameters->p.get(), p) == 0) {
      return KnownGroup{&modpGroups[i], parameters};
    }
  }
  return std::nullopt;
}

// Does the same for a key object of OpenSSL's kind "DH" or "DHX" (X9.42).
std::optional<KnownGroup> knownGroup(const EVP_PKEY* key) {
  const PublicBn p(BN_new());
  return p && readNumber(key, OSSL_PKEY_PARAM_FFC_P, p.get()) ? knownGroup(p.get()) : std::nullopt;
}

// Returns one more reference to a group's parameters, or null if there are none.
EVP_PKEY* share(const ModpParameters* parameters) {
  if (parameters == nullptr || EVP_PKEY_up_ref(parameters->key.get()) != 1) {
    return nullptr;
  }
  return parameters->key.get();
}

// Computes g^priv mod p in a time that does not depend on the exponent.
PublicBn publicValue(const BIGNUM* p, const BIGNUM* g, const BIGNUM* priv) {
  PublicBn pub(BN_new());
  const SecretBn exponent(BN_dup(priv));
  const BnContextPtr context(BN_CTX_new());
  if (!pub || !exponent || !context) {
    return nullptr;
  }
  BN_set_flags(exponent.get(), BN_FLG_CONSTTIME);
  if (BN_mod_exp_mont_consttime(pub.get(), g, exponent.get(), p, context.get(), nullptr) != 1) {
    return nullptr;
  }
  return pub;
}

// Creates a peer's key for a known group. Returns null for a value outside 2..p-2, which OpenSSL refuses here already,
// and for one longer than the prime. The caller loads such a value in the slow way, and it is refused when the secret
// is computed.
KeyPtr peerOfKnownGroup(const KnownGroup& known, const BIGNUM* pub) {
  std::array<unsigned char, maxPrimeBytes> encoded;
  const int length = (known.group->primeBits + 7) / 8;
  if (BN_bn2binpad(pub, encoded.data(), length) != length) {
    return nullptr;
  }
  return triedPublicValue(known.parameters->key.get(), encoded.data(), static_cast<std::size_t>(length));
}

// Checks a peer's MODP value (RFC 6989 section 2).
bool peerIsAcceptable(EVP_PKEY* own, EVP_PKEY* peer) {
  const KeyContextPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, peer, nullptr));
  if (!context) {
    return false;
  }
  const std::optional<KnownGroup> known = knownGroup(own);
  if (known && known->group->safePrime) {
    return EVP_PKEY_public_check_quick(context.get()) == 1;
  }
  return EVP_PKEY_public_check(context.get()) == 1;
}

// --- Curves ---------------------------------------------------------------------------------------------------------

constexpr std::size_t maxPointBytes = 1 + 2 * 66;  // group 21, with the format byte

// The curves of IKE's groups 19, 20, 21.
constexpr std::array<int, 3> curveNids = {NID_X9_62_prime256v1, NID_secp384r1, NID_secp521r1};

std::array<MadeOnce<KeyPtr>, curveNids.size()> keptCurveParameters;

KeyPtr loadCurveParameters(int nid) {
  std::array<OSSL_PARAM, 2> params = {
      OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char*>(OBJ_nid2sn(nid)), 0),
      OSSL_PARAM_construct_end()};
  return fromData("EC", EVP_PKEY_KEY_PARAMETERS, params.data());
}

// Returns a key object with the parameters of a curve, or null for a curve that is not one of IKE's.
const EVP_PKEY* curveParameters(int nid) {
  const auto* found = std::find(curveNids.begin(), curveNids.end(), nid);
  if (found == curveNids.end()) {
    return nullptr;
  }
  const auto index = static_cast<std::size_t>(found - curveNids.begin());
  return keptCurveParameters[index].get([nid] { return loadCurveParameters(nid); });
}

KeyPtr curveKeyPair(int nid, const unsigned char* point, std::size_t length, const BIGNUM* priv) {
  const BuilderPtr builder(OSSL_PARAM_BLD_new());
  if (!builder || OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, OBJ_nid2sn(nid), 0) != 1 ||
      OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point, length) != 1 ||
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, priv) != 1) {
    return nullptr;
  }
  return fromData("EC", EVP_PKEY_KEYPAIR, ParamsPtr(OSSL_PARAM_BLD_to_param(builder.get())).get());
}

}  // namespace

EVP_PKEY* EVP_PKEY_DH_params_2048_256() {
  return share(modpParameters(group24));
}

EVP_PKEY* EVP_PKEY_DH_from_params(BIGNUM* p, BIGNUM* g, BIGNUM* pub, BIGNUM* priv) {
  if (p == nullptr || g == nullptr) {
    return nullptr;
  }
  if (priv == nullptr) {
    const std::optional<KnownGroup> known = knownGroup(p);
    const bool asShared = known && BN_cmp(known->parameters->g.get(), g) == 0;
    if (asShared && pub == nullptr) {
      return share(known->parameters);
    }
    if (asShared) {
      if (KeyPtr peer = peerOfKnownGroup(*known, pub)) {
        return peer.release();
      }
    }
    const int selection = pub != nullptr ? EVP_PKEY_PUBLIC_KEY : EVP_PKEY_KEY_PARAMETERS;
    return fromData("DH", selection, modpParams(p, g, pub, nullptr).get()).release();
  }
  const PublicBn computed(pub == nullptr ? publicValue(p, g, priv) : nullptr);
  const BIGNUM* matching = pub != nullptr ? pub : computed.get();
  if (matching == nullptr) {
    return nullptr;
  }
  return fromData("DH", EVP_PKEY_KEYPAIR, modpParams(p, g, matching, priv).get()).release();
}

EVP_PKEY* EVP_PKEY_DH_generate_keys(EVP_PKEY* params) {
  if (params == nullptr) {
    return nullptr;
  }
  const KeyContextPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, params, nullptr));
  if (!context || EVP_PKEY_keygen_init(context.get()) != 1) {
    return nullptr;
  }
  if (const std::optional<KnownGroup> known = knownGroup(params)) {
    int bits = known->group->exponentBits;
    const std::array<OSSL_PARAM, 2> length = {OSSL_PARAM_construct_int(OSSL_PKEY_PARAM_DH_PRIV_LEN, &bits),
                                              OSSL_PARAM_construct_end()};
    if (EVP_PKEY_CTX_set_params(context.get(), length.data()) != 1) {
      return nullptr;
    }
  }
  KeyPtr key;
  if (EVP_PKEY_generate(context.get(), into(key)) != 1) {
    return nullptr;
  }
  return key.release();
}

int EVP_PKEY_DH_get_params(EVP_PKEY* key, BIGNUM* p, BIGNUM* g, BIGNUM* pub, BIGNUM* priv) {
  const bool read = key != nullptr && (p == nullptr || readNumber(key, OSSL_PKEY_PARAM_FFC_P, p)) &&
                    (g == nullptr || readNumber(key, OSSL_PKEY_PARAM_FFC_G, g)) &&
                    (pub == nullptr || readNumber(key, OSSL_PKEY_PARAM_PUB_KEY, pub)) &&
                    (priv == nullptr || readNumber(key, OSSL_PKEY_PARAM_PRIV_KEY, priv));
  return read ? 0 : 1;
}

EVP_PKEY* EVP_PKEY_EC_from_params(EC_GROUP* group, EC_POINT* pub, BIGNUM* priv) {
  if (group == nullptr || pub == nullptr) {
    return nullptr;
  }
  const int nid = EC_GROUP_get_curve_name(group);
  const EVP_PKEY* parameters = curveParameters(nid);
  std::array<unsigned char, maxPointBytes> point;
  const std::size_t length =
      EC_POINT_point2oct(group, pub, POINT_CONVERSION_UNCOMPRESSED, point.data(), point.size(), nullptr);
  if (parameters == nullptr || length == 0) {
    return nullptr;
  }
  if (priv == nullptr) {
    return withPublicValue(parameters, point.data(), length).release();
  }
  return curveKeyPair(nid, point.data(), length, priv).release();
}

int EVP_PKEY_get_shared_secret(EVP_PKEY* own, EVP_PKEY* peer, unsigned char** secret, size_t* secretLen) {
  if (own == nullptr || peer == nullptr) {
    return 1;
  }
  // Asked by number: EVP_PKEY_is_a() would look the name up under four locks that all threads share.
  const bool modp = EVP_PKEY_get_id(own) != EVP_PKEY_EC;
  if (modp && !peerIsAcceptable(own, peer)) {
    return 1;
  }
  const KeyContextPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, own, nullptr));
  if (!context || EVP_PKEY_derive_init(context.get()) != 1 ||
      EVP_PKEY_derive_set_peer_ex(context.get(), peer, 0) != 1 ||
      (modp && EVP_PKEY_CTX_set_dh_pad(context.get(), 1) != 1)) {
    return 1;
  }
  // The secret goes into local bytes first, because a failure must leave the caller's unchanged.
  SecretBytes<maxPrimeBytes> derived;
  std::size_t length = derived.size();
  if (EVP_PKEY_derive(context.get(), derived.data(), &length) != 1 || length == 0) {
    return 1;
  }
  std::copy_n(derived.begin(), length, *secret);
  *secretLen = length;
  return 0;
}

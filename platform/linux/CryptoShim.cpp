// Crypto shim over OpenSSL 3's provider interface, arranged by what its calls cost.
//
// - A modular exponentiation costs by the words of the exponent. OpenSSL draws exponents of the prime's length for
//   groups 1 and 2, which are no named groups to it; twice the strength is enough, and costs a third.
// - EVP_PKEY_derive_set_peer validates a peer with a full-size exponentiation. For a safe prime the range says the same
//   (RFC 6989 section 2.1) in a microsecond. Group 24 has small subgroups and gets the full check (section 2.2).
// - Loading parameters costs more than all else around a key, so that of a known group are loaded once and shared.

#include "base/MadeOnce.h"
#include "base/OpenSslPtr.h"
#include "platform/CryptoShim.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/dh.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/objects.h>
#include <openssl/param_build.h>
#include <openssl/params.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <utility>

namespace {

using Base::BnContextPtr;
using Base::BuilderPtr;
using Base::DigestContextPtr;
using Base::DigestPtr;
using Base::into;
using Base::KeyContextPtr;
using Base::KeyPtr;
using Base::MadeOnce;
using Base::ParamsPtr;
using Base::PublicBn;
using Base::SecretBn;

// Bytes on the stack that held a secret: cleared when they go.
template <std::size_t size>
struct SecretBytes : std::array<unsigned char, size> {
  ~SecretBytes() { OPENSSL_cleanse(this->data(), size); }
};

// Makes a key object from parameters. The selection says what they hold (EVP_PKEY_KEY_PARAMETERS and so on).
KeyPtr fromData(const char* type, int selection, OSSL_PARAM* params) {
  const KeyContextPtr context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
  KeyPtr key;
  if (params == nullptr || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), into(key), selection, params) != 1) {
    return nullptr;
  }
  return key;
}

// Makes a key object with the given parameters and public value. Null when it cannot be made or OpenSSL refuses the
// value. Three times faster than loading parameters and value together.
KeyPtr withPublicValue(const EVP_PKEY* parameters, const unsigned char* encoded, std::size_t length) {
  KeyPtr key(EVP_PKEY_new());
  if (!key || EVP_PKEY_copy_parameters(key.get(), parameters) != 1 ||
      EVP_PKEY_set1_encoded_public_key(key.get(), encoded, length) != 1) {
    return nullptr;
  }
  return key;
}

// --- MODP groups ----------------------------------------------------------------------------------------------------

constexpr std::size_t maxPrimeBytes = OPENSSL_DH_MAX_MODULUS_BITS / 8;

struct ModpGroup {
  int primeBits;
  BIGNUM* (*prime)(BIGNUM*);  // null: the group comes by name only
  const char* name;           // OpenSSL's name; null: OpenSSL knows no such group
  int exponentBits;           // of generated private values
  bool safePrime;             // q = (p - 1) / 2: no subgroups worth a check beyond the range
};

// Exponents: at least twice the group's strength (RFC 3526 section 8; 80 bits for groups 1 and 2), rounded up to whole
// words, which cost no more.
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

// A group's parameters as a key object, and its prime and generator to recognise it by.
struct ModpParameters {
  KeyPtr key;
  PublicBn p;
  PublicBn g;
};

std::array<MadeOnce<std::unique_ptr<ModpParameters>>, modpGroups.size()> keptModpParameters;

// Reads one value of a key into a number. Any value but an imported private one fits the prime's length.
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

// Finds the group with this prime and, where given, this generator. Nothing for any other and when memory is exhausted:
// such parameters are then used as they are, with the full checks.
std::optional<KnownGroup> findGroup(const BIGNUM* p, const BIGNUM* g) {
  const int bits = BN_num_bits(p);
  for (std::size_t i = 0; i < modpGroups.size(); ++i) {
    if (modpGroups[i].primeBits != bits) {
      continue;
    }
    const ModpParameters* parameters = modpParameters(i);
    if (parameters != nullptr && BN_cmp(parameters->p.get(), p) == 0 &&
        (g == nullptr || BN_cmp(parameters->g.get(), g) == 0)) {
      return KnownGroup{&modpGroups[i], parameters};
    }
  }
  return std::nullopt;
}

EVP_PKEY* share(const ModpParameters* parameters) {
  if (parameters == nullptr || EVP_PKEY_up_ref(parameters->key.get()) != 1) {
    return nullptr;
  }
  return parameters->key.get();
}

// Computes g^priv mod p without leaking the exponent through time.
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

// Makes a peer's key of a known group. OpenSSL refuses a value outside 2..p-2 here already; such a value, and one longer
// than the prime, is loaded the slow way and refused with the secret. Null for it.
KeyPtr peerOfKnownGroup(const KnownGroup& known, const BIGNUM* pub) {
  std::array<unsigned char, maxPrimeBytes> encoded;
  const int length = (known.group->primeBits + 7) / 8;
  if (BN_bn2binpad(pub, encoded.data(), length) != length) {
    return nullptr;
  }
  (void)ERR_set_mark();  // a refusal here is no failure yet
  KeyPtr key = withPublicValue(known.parameters->key.get(), encoded.data(), static_cast<std::size_t>(length));
  (void)ERR_pop_to_mark();
  return key;
}

// Judges a peer's MODP value (RFC 6989 section 2).
bool peerIsAcceptable(EVP_PKEY* own, EVP_PKEY* peer) {
  const PublicBn p(BN_new());
  const KeyContextPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, peer, nullptr));
  if (!p || !context || !readNumber(own, OSSL_PKEY_PARAM_FFC_P, p.get())) {
    return false;
  }
  const std::optional<KnownGroup> known = findGroup(p.get(), nullptr);
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

// Returns the parameters key of a curve; null for a curve that is not IKE's.
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

// --- HMAC -----------------------------------------------------------------------------------------------------------

// The pads of RFC 2104, as they are absorbed in front of the inner and the outer hash.
constexpr unsigned char innerPad = 0x36;
constexpr unsigned char outerPad = 0x5c;
constexpr std::size_t maxBlockBytes = 144;  // the longest block of OpenSSL's digests, SHA3-224's

// A key's own copy, to tell whether the next key is the same. A key longer than this is never the same: no nonces that
// IKE allows (RFC 7296 section 2.10) make a longer one.
class KeyCopy {
 public:
  KeyCopy() = default;
  ~KeyCopy() { clear(); }
  KeyCopy(const KeyCopy&) = delete;
  KeyCopy& operator=(const KeyCopy&) = delete;

  // Takes the same time wherever two keys of one length differ, as CRYPTO_memcmp does, which goes byte by byte: that
  // would be a tenth of what an output costs.
  bool equals(const unsigned char* key, std::size_t keyLen) const {
    if (!held || keyLen != length) {
      return false;
    }
    std::uint64_t difference = 0;
    if (length >= wordSize) {
      for (std::size_t at = 0; at < length - wordSize; at += wordSize) {
        difference |= word(bytes.data() + at) ^ word(key + at);
      }
      difference |= word(bytes.data() + length - wordSize) ^ word(key + length - wordSize);
    } else if (length != 0) {
      difference = static_cast<std::uint64_t>(CRYPTO_memcmp(bytes.data(), key, length));
    }
    return difference == 0;
  }

  void assign(const unsigned char* key, std::size_t keyLen) {
    clear();
    if (keyLen > bytes.size()) {
      return;
    }
    std::copy_n(key, keyLen, bytes.begin());
    length = keyLen;
    held = true;
  }

  void clear() {
    OPENSSL_cleanse(bytes.data(), length);
    length = 0;
    held = false;
  }

 private:
  static constexpr std::size_t wordSize = sizeof(std::uint64_t);

  static std::uint64_t word(const unsigned char* from) {
    std::uint64_t read = 0;
    std::memcpy(&read, from, wordSize);
    return read;
  }

  std::array<unsigned char, 512> bytes;
  std::size_t length = 0;
  bool held = false;
};

}  // namespace

// Two digest states that have absorbed a padded key, copied for each computation: an unchanged key costs two copies
// instead of two more blocks and an initialisation. OpenSSL clears a state's memory when it frees it.
//
// Short input is collected and absorbed in one piece: a prf+ block comes as three, and absorbing costs by the call.
struct hmac_state {
  const EVP_MD* requested = nullptr;  // what the caller named
  const EVP_MD* fetched = nullptr;    // the same, looked up once
  DigestPtr owned;                    // holds fetched unless that is shared
  std::size_t macLength = 0;
  DigestContextPtr inner{EVP_MD_CTX_new()};
  DigestContextPtr outer{EVP_MD_CTX_new()};
  DigestContextPtr running{EVP_MD_CTX_new()};
  KeyCopy key;
  std::array<unsigned char, 256> pending;  // input that running has not absorbed yet
  std::size_t pendingLength = 0;
  std::size_t pendingUsed = 0;  // by all computations: to be cleared
  bool open = false;            // a computation is under way
  bool started = false;         // running holds it

  ~hmac_state() { OPENSSL_cleanse(pending.data(), pendingUsed); }
};

namespace {

// The digests of IKE's PRFs. Looking one up costs as much as a short output.
constexpr std::array<int, 4> digestNids = {NID_sha1, NID_sha256, NID_sha384, NID_sha512};

std::array<MadeOnce<DigestPtr>, digestNids.size()> keptDigests;

DigestPtr lookUp(const EVP_MD* md) {
  return DigestPtr(EVP_MD_fetch(nullptr, EVP_MD_get0_name(md), nullptr));
}

bool fetchDigest(hmac_state& state, const EVP_MD* md) {
  if (state.requested == md) {
    return true;
  }
  state.requested = nullptr;
  const auto* found = std::find(digestNids.begin(), digestNids.end(), EVP_MD_get_type(md));
  if (found == digestNids.end()) {
    state.owned = lookUp(md);
    state.fetched = state.owned.get();
  } else {
    const auto index = static_cast<std::size_t>(found - digestNids.begin());
    state.fetched = keptDigests[index].get([md] { return lookUp(md); });
  }
  if (state.fetched == nullptr) {
    return false;
  }
  state.requested = md;
  state.macLength = static_cast<std::size_t>(EVP_MD_get_size(state.fetched));
  return true;
}

bool absorbFirst(EVP_MD_CTX* context, const EVP_MD* md, const unsigned char* block, std::size_t length) {
  return EVP_DigestInit_ex2(context, md, nullptr) == 1 && EVP_DigestUpdate(context, block, length) == 1;
}

// Prepares both states for a key: RFC 2104 section 2, a key longer than a block is hashed first.
bool absorbKey(hmac_state& state, const unsigned char* key, std::size_t keyLen) {
  const EVP_MD* md = state.fetched;
  const int blockSize = EVP_MD_get_block_size(md);
  if (blockSize <= 0 || static_cast<std::size_t>(blockSize) > maxBlockBytes) {
    return false;
  }
  const auto length = static_cast<std::size_t>(blockSize);
  std::array<unsigned char, maxBlockBytes> block;
  const auto pad = [&](unsigned char value) {
    std::transform(block.begin(), block.begin() + length, block.begin(),
                   [value](unsigned char byte) { return static_cast<unsigned char>(byte ^ value); });
  };
  std::fill_n(block.begin(), length, static_cast<unsigned char>(0));
  bool absorbed = true;
  if (keyLen > length) {
    absorbed = EVP_Digest(key, keyLen, block.data(), nullptr, md, nullptr) == 1;
  } else if (keyLen != 0) {
    std::copy_n(key, keyLen, block.begin());
  }
  pad(innerPad);
  absorbed = absorbed && absorbFirst(state.inner.get(), md, block.data(), length);
  pad(innerPad ^ outerPad);  // from one pad to the other
  absorbed = absorbed && absorbFirst(state.outer.get(), md, block.data(), length);
  OPENSSL_cleanse(block.data(), length);
  return absorbed;
}

bool installKey(hmac_state& state, const EVP_MD* md, const unsigned char* key, std::size_t keyLen) {
  if (state.requested == md && state.key.equals(key, keyLen)) {
    return true;
  }
  state.key.clear();  // until both states are ready they belong to no key
  if (!fetchDigest(state, md) || !absorbKey(state, key, keyLen)) {
    return false;
  }
  state.key.assign(key, keyLen);
  return true;
}

// Lets running absorb what is pending.
bool absorbPending(hmac_state& state) {
  if (!state.started && EVP_MD_CTX_copy_ex(state.running.get(), state.inner.get()) != 1) {
    return false;
  }
  state.started = true;
  const std::size_t length = std::exchange(state.pendingLength, 0);
  return length == 0 || EVP_DigestUpdate(state.running.get(), state.pending.data(), length) == 1;
}

// Writes the MAC. The inner hash goes through the same bytes.
bool finish(hmac_state& state, unsigned char* mac) {
  EVP_MD_CTX* running = state.running.get();
  return absorbPending(state) && EVP_DigestFinal_ex(running, mac, nullptr) == 1 &&
         EVP_MD_CTX_copy_ex(running, state.outer.get()) == 1 && EVP_DigestUpdate(running, mac, state.macLength) == 1 &&
         EVP_DigestFinal_ex(running, mac, nullptr) == 1;
}

}  // namespace

extern "C" {

EVP_PKEY* EVP_PKEY_DH_params_2048_256(void) {
  return share(modpParameters(group24));
}

EVP_PKEY* EVP_PKEY_DH_from_params(BIGNUM* p, BIGNUM* g, BIGNUM* pub, BIGNUM* priv) {
  if (p == nullptr || g == nullptr) {
    return nullptr;
  }
  if (priv == nullptr) {
    const std::optional<KnownGroup> known = findGroup(p, g);
    if (known && pub == nullptr) {
      return share(known->parameters);
    }
    if (known) {
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
  // Parameters of a known group are always the shared object.
  for (std::size_t i = 0; i < modpGroups.size(); ++i) {
    const ModpParameters* shared = keptModpParameters[i].peek();
    if (shared == nullptr || shared->key.get() != params) {
      continue;
    }
    int bits = modpGroups[i].exponentBits;
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
  const bool modp = EVP_PKEY_is_a(own, "DH") == 1;
  if (modp && !peerIsAcceptable(own, peer)) {
    return 1;
  }
  const KeyContextPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, own, nullptr));
  if (!context || EVP_PKEY_derive_init(context.get()) != 1 ||
      EVP_PKEY_derive_set_peer_ex(context.get(), peer, 0) != 1 ||
      (modp && EVP_PKEY_CTX_set_dh_pad(context.get(), 1) != 1)) {
    return 1;
  }
  // Into bytes of our own first: a failure must leave the caller's as they are.
  SecretBytes<maxPrimeBytes> derived;
  std::size_t length = derived.size();
  if (EVP_PKEY_derive(context.get(), derived.data(), &length) != 1 || length == 0) {
    return 1;
  }
  std::copy_n(derived.begin(), length, *secret);
  *secretLen = length;
  return 0;
}

int hmac_create(struct hmac_ctx* ctx) {
  if (ctx->state != nullptr) {
    return 0;
  }
  std::unique_ptr<hmac_state> state(new (std::nothrow) hmac_state);
  if (!state || !state->inner || !state->outer || !state->running) {
    return 1;
  }
  ctx->state = state.release();
  return 0;
}

int hmac_init(struct hmac_ctx* ctx, const EVP_MD* md, const unsigned char* key, size_t keyLen) {
  hmac_state* state = ctx->state;
  if (state == nullptr || md == nullptr) {
    return 1;
  }
  state->open = installKey(*state, md, key, keyLen);
  state->started = false;
  state->pendingLength = 0;
  return state->open ? 0 : 1;
}

int hmac_update(struct hmac_ctx* ctx, const unsigned char* data, size_t dataLen) {
  hmac_state* state = ctx->state;
  if (state == nullptr || !state->open) {
    return 1;
  }
  if (dataLen <= state->pending.size() - state->pendingLength) {
    std::copy_n(data, dataLen, state->pending.begin() + state->pendingLength);
    state->pendingLength += dataLen;
    state->pendingUsed = std::max(state->pendingUsed, state->pendingLength);
    return 0;
  }
  state->open = absorbPending(*state) && EVP_DigestUpdate(state->running.get(), data, dataLen) == 1;
  return state->open ? 0 : 1;
}

int hmac_final(struct hmac_ctx* ctx, unsigned char* out, size_t outSize, size_t* written) {
  *written = 0;
  hmac_state* state = ctx->state;
  if (state == nullptr || !state->open) {
    return 1;
  }
  state->open = false;
  if (outSize >= state->macLength) {
    if (!finish(*state, out)) {
      OPENSSL_cleanse(out, state->macLength);  // may hold the inner hash
      return 1;
    }
    *written = state->macLength;
    return 0;
  }
  SecretBytes<EVP_MAX_MD_SIZE> mac;
  if (!finish(*state, mac.data())) {
    return 1;
  }
  std::copy_n(mac.begin(), outSize, out);
  *written = outSize;
  return 0;
}

void hmac_cleanup(struct hmac_ctx* ctx) {
  delete ctx->state;
  ctx->state = nullptr;
}

}  // extern "C"

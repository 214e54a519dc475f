// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Diffie-Hellman for IKE: the registered log message, the length check, the MODP and the elliptic-curve form, the
// facade.

#include "Curves.h"
#include "GroupTable.h"
#include "Ipsec.h"
#include "Tracer.h"
#include "base/CancellationHeld.h"
#include "base/OpenSslPtr.h"
#include "base/SecretBytes.h"
#include "platform/CryptoShim.h"
#include "platform/Log.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <climits>
#include <utility>

namespace Ipsec {

using Base::adopt;
using Base::BnContextPtr;
using Base::into;
using Base::KeyPtr;
using Base::PointPtr;
using Base::PublicBn;
using Base::SecretBn;
using Base::SecretPointPtr;

namespace {

const Tracer<4> trace("IpsecKeyGen");

// Nothing in the library emits this message. It is registered so that it is listed wherever the library is loaded.
// Kept (log-message-text): operators' tools match the format's last blank and the missing one in "ofRelative".
const Cor::LogHandle invalidDistinguishedName(
    {"IPSEC_INVALID_DN_AS_REMOTE_ID", "Distinguished Name: %s configured for IKE Policy %s is invalid ",
     "Distinguished Name expects a Comma separated list ofRelative Distinguished Names (RDNs), "
     "Example: C=XX,O='Organization Name',CN=commonName",
     "Update Distinguished Name configured as part of remote-id to adhere to X.500 format", 4},
    Vello::Duration(0), 1.0, 0U, 0U);

// Kept (peer-length-only): range, subgroup and curve membership are checked later, when the value is used.
// Kept (refused-length-keeps-secret): nothing has been computed yet, and an earlier secret stays readable.
// Kept (own-value-accepted): this side's own value is like any other. The protocol must notice a reflected exchange.
bool verifyDHValue(DhGroupNum group, const ByteVector* value) {
  trace.note(trace.entryLevel, Cor::TraceSite::here(), "verifyDHValue: DH group: ", std::uint32_t{group});
  const std::uint64_t expected = dhGroupToSize(group);
  if (expected == 0) {
    return trace.failed("verifyDHValue", "Unsupported group number");
  }
  if (value->size() != expected) {
    return trace.failed("verifyDHValue", "Invalid DH public value size ", value->size(), " for the DH group ",
                        std::uint32_t{group}, " with size ", expected);
  }
  return true;
}

// Reads bytes as one big-endian number into the given one, or into a new one if that is null. Returns null on failure,
// also when there are more bytes than OpenSSL can count.
BIGNUM* toNumber(const ByteVector& bytes, BIGNUM* number) {
  return bytes.size() > INT_MAX ? nullptr : BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), number);
}

}  // namespace

// --- Base -----------------------------------------------------------------------------------------------------------

IpsecDH::IpsecDH(DhGroupNum group) : dhGroup(group), sharedSecretComputed(false), initialized(false) {}

IpsecDH::~IpsecDH() {
  Base::clearAll(sharedSecret);
}

bool IpsecDH::setDHGroup(DhGroupNum group) {
  trace.entered();
  if (initialized) {
    return trace.failed("IpsecDH::setDHGroup", "Cannot change DH group after initIpsecDH");
  }
  dhGroup = group;  // Kept (group-unchecked): any number is accepted, and initIpsecDH refuses it.
  return true;
}

// --- MODP -----------------------------------------------------------------------------------------------------------

namespace {

struct ModpParameters {
  PublicBn p;
  PublicBn g;
};

// Reads the parameters of a key. Both numbers are null on failure.
ModpParameters parametersOf(EVP_PKEY* key) {
  ModpParameters read{PublicBn(BN_new()), PublicBn(BN_new())};
  if (!read.p || !read.g || EVP_PKEY_DH_get_params(key, read.p.get(), read.g.get(), nullptr, nullptr) != 0) {
    return {};
  }
  return read;
}

}  // namespace

IpsecDHModp::IpsecDHModp(DhGroupNum group) : IpsecDH(group), dhKey(nullptr), peerPublicValue(nullptr), dhSize(0) {}

IpsecDHModp::~IpsecDHModp() {
  trace.entered();
  BN_clear_free(peerPublicValue);
  EVP_PKEY_free(dhKey);
}

bool IpsecDHModp::initIpsecDH() {
  const Base::CancellationHeld held;
  trace.entered();
  if (initialized) {
    return true;
  }
  if (dhGroupToSize(dhGroup) == 0) {
    return trace.failed("IpsecDHModp::initIpsecDH", "Not a supported modp DH group: ", std::uint32_t{dhGroup});
  }
  sharedSecretComputed = false;
  if (peerPublicValue == nullptr) {
    peerPublicValue = BN_new();  // if this fails, setPeerPublicKey creates it
  }
  KeyPtr parameters;
  if (dhGroup == MODP_2048_256) {
    parameters.reset(EVP_PKEY_DH_params_2048_256());
    dhSize = 256;
  } else {
    constexpr unsigned char generator = 0x02;
    const PublicBn p(dhGroupToPrime(dhGroup)(nullptr));
    const PublicBn g(BN_bin2bn(&generator, 1, nullptr));
    if (!p || !g) {
      return trace.failed("IpsecDHModp::initIpsecDH", "Failed assigning p and g, p or g is NULL");
    }
    parameters.reset(EVP_PKEY_DH_from_params(p.get(), g.get(), nullptr, nullptr));
    dhSize = BN_num_bytes(p.get());
  }
  KeyPtr key(EVP_PKEY_DH_generate_keys(parameters.get()));  // null for null parameters
  if (!key) {
    return trace.failed("IpsecDHModp::initIpsecDH", "Failed to generate dh key");
  }
  adopt(dhKey, std::move(key));
  initialized = true;
  return true;
}

bool IpsecDHModp::getMyPublicKey(ByteVector* out) {
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHModp::getMyPublicKey", "IpsecDHModp is not initialized");
  }
  if (dhSize == 0) {
    return trace.failed("IpsecDHModp::getMyPublicKey", "Wrong dh size, dhSize is 0");
  }
  out->assign(static_cast<std::size_t>(dhSize), 0);
  const PublicBn pub(BN_new());
  if (!pub || EVP_PKEY_DH_get_params(dhKey, nullptr, nullptr, pub.get(), nullptr) != 0 ||
      BN_bn2binpad(pub.get(), out->data(), dhSize) != dhSize) {
    return trace.failed("IpsecDHModp::getMyPublicKey", "Failed to get pubkey");
  }
  return true;
}

bool IpsecDHModp::getMyPrivateKey(ByteVector* out) {
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHModp::getMyPrivateKey", "IpsecDHModp is not initialized");
  }
  const SecretBn priv(BN_new());
  if (!priv || EVP_PKEY_DH_get_params(dhKey, nullptr, nullptr, nullptr, priv.get()) != 0 || BN_is_zero(priv.get())) {
    return trace.failed("IpsecDHModp::getMyPrivateKey", "Wrong private key size, privKeyLen is 0");
  }
  // Kept (private-key-unpadded): the key is shorter than the group's size where its first bytes are zero.
  out->resize(static_cast<std::size_t>(BN_num_bytes(priv.get())));
  (void)BN_bn2bin(priv.get(), out->data());  // its result is the length just taken
  return true;
}

bool IpsecDHModp::setMyPrivateKey(const ByteVector* key) {
  const Base::CancellationHeld held;
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHModp::setMyPrivateKey", "IpsecDHModp is not initialized");
  }
  // Kept (private-key-unchecked): any number is accepted. Zero fails when the key is used.
  const SecretBn priv(toNumber(*key, nullptr));
  if (!priv) {
    return trace.failed("IpsecDHModp::setMyPrivateKey", "Failed to get or assign the private key");
  }
  // Kept (secret-after-new-key): the secret is discarded here. The ECP form keeps it.
  Base::clearAll(sharedSecret);
  sharedSecretComputed = false;
  const ModpParameters own = parametersOf(dhKey);
  if (!own.p) {
    // Kept (unreadable-parameters): the key stays, but the secret has already been discarded.
    return trace.failed("IpsecDHModp::setMyPrivateKey", "Failed to generate the public key");
  }
  // Kept (modp-without-key): if the new key cannot be created, the object has no key, but is still initialised.
  adopt(dhKey, KeyPtr(EVP_PKEY_DH_from_params(own.p.get(), own.g.get(), nullptr, priv.get())));
  if (dhKey == nullptr) {
    return trace.failed("IpsecDHModp::setMyPrivateKey", "Failed to generate the public key");
  }
  return true;
}

bool IpsecDHModp::setPeerPublicKey(const ByteVector* peer) {
  const Base::CancellationHeld held;
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHModp::setPeerPublicKey", "IpsecDHModp is not initialized");
  }
  if (!verifyDHValue(dhGroup, peer)) {
    // Kept (peer-messages-differ): the ECP form's message has no "the". Tools that read logs match both.
    return trace.failed("IpsecDHModp::setPeerPublicKey", "Failed to verify the peer's public key");
  }
  BIGNUM* const decoded = toNumber(*peer, peerPublicValue);
  if (decoded == nullptr) {
    return trace.failed("IpsecDHModp::setPeerPublicKey", "Failed to generate the peer key");
  }
  peerPublicValue = decoded;  // the same number, or a new one if there was none
  const ModpParameters own = parametersOf(dhKey);
  if (!own.p) {
    return trace.failed("IpsecDHModp::setPeerPublicKey", "Failed to generate the public key");
  }
  const KeyPtr peerKey(EVP_PKEY_DH_from_params(own.p.get(), own.g.get(), peerPublicValue, nullptr));
  if (!peerKey) {
    return trace.failed("IpsecDHModp::setPeerPublicKey", "Failed to generate the peer key");
  }
  // Kept (modp-filler): a failure from here on leaves the filler in the buffer, and getSharedSecret hands it out if an
  // earlier exchange succeeded. The ECP form leaves zeros.
  sharedSecret.assign(static_cast<std::size_t>(dhSize), 0xFF);
  unsigned char* secret = sharedSecret.data();
  std::size_t secretLen = 0;
  if (EVP_PKEY_get_shared_secret(dhKey, peerKey.get(), &secret, &secretLen) != 0 || secretLen == 0) {
    return trace.failed("IpsecDHModp::setPeerPublicKey", "Failed to compute the shared secret");
  }
  sharedSecret.resize(secretLen);
  sharedSecretComputed = true;
  return true;
}

bool IpsecDHModp::getSharedSecret(ByteVector* out) {
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHModp::getSharedSecret", "IpsecDHModp is not initialized");
  }
  if (!sharedSecretComputed) {
    return trace.failed("IpsecDHModp::getSharedSecret", "Shared secret has not been computed");
  }
  out->assign(static_cast<std::size_t>(dhSize), 0);
  std::copy_backward(sharedSecret.begin(), sharedSecret.end(), out->end());
  return true;
}

// --- Elliptic curves ------------------------------------------------------------------------------------------------

namespace {

// A BN context with one open frame. The destructor ends the frame and frees the context.
class Scratch {
 public:
  Scratch() : context(BN_CTX_new()) {
    if (context) {
      BN_CTX_start(context.get());
    }
  }
  ~Scratch() { BN_CTX_end(context.get()); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  BN_CTX* get() const { return context.get(); }

 private:
  BnContextPtr context;
};

// Writes two numbers into a zero-filled vector, each right-aligned in its half.
// Kept (zero-coordinate): fails for a number that is zero, because BN_bn2bin writes nothing for it and returns 0.
bool bnCat(const BIGNUM* x, const BIGNUM* y, int half, ByteVector* out) {
  unsigned char* bytes = out->data();
  return BN_bn2bin(x, bytes + (half - BN_num_bytes(x))) != 0 && BN_bn2bin(y, bytes + (2 * half - BN_num_bytes(y))) != 0;
}

// Reads the two halves of a vector as numbers.
// Kept (halves-of-any-length): the length has been checked before, against that of the group.
bool bnSplit(const ByteVector& in, BIGNUM* x, BIGNUM* y) {
  if (in.size() % 2 != 0 || in.size() / 2 > INT_MAX) {
    return false;
  }
  const int half = static_cast<int>(in.size() / 2);
  return BN_bin2bn(in.data(), half, x) != nullptr && BN_bin2bn(in.data() + half, half, y) != nullptr;
}

// Writes a point as x | y (RFC 5903 section 7).
bool ecpToVector(const EC_GROUP* group, const EC_POINT* point, ByteVector* out) {
  const Scratch scratch;
  if (scratch.get() == nullptr) {
    return trace.failed("ecpToVector", "BN_CTX_new failed");
  }
  BIGNUM* const x = BN_CTX_get(scratch.get());
  BIGNUM* const y = BN_CTX_get(scratch.get());
  if (x == nullptr || y == nullptr) {
    return trace.failed("ecpToVector", "BN_CTX_get failed");
  }
  if (EC_POINT_get_affine_coordinates(group, point, x, y, scratch.get()) == 0) {
    return trace.failed("ecpToVector", "EC_POINT_get_affine_coordinates failed");
  }
  const int fieldLen = fieldLength(group);
  out->assign(2 * static_cast<std::size_t>(fieldLen), 0);
  if (!bnCat(x, y, fieldLen, out)) {
    return trace.failed("ecpToVector", "bnCat failed");
  }
  return true;
}

// Returns whether an encoded point is 0x04 | x | y, has the full length, and has no coordinate that is zero. What
// follows its first octet is then exactly what ecpToVector would write. To decode such a point and encode it again
// would take two thirds of getMyPublicKey's time, because OpenSSL inverts a field element for that. Any other encoding,
// of the infinity or of a compressed point, is decoded.
bool isWireForm(const unsigned char* octets, std::size_t length, std::size_t fieldLen) {
  const auto nonZero = [](unsigned char byte) { return byte != 0; };
  const unsigned char* const x = octets + 1;
  const unsigned char* const y = x + fieldLen;
  return length == 1 + 2 * fieldLen && octets[0] == POINT_CONVERSION_UNCOMPRESSED && std::any_of(x, y, nonZero) &&
         std::any_of(y, y + fieldLen, nonZero);
}

// Reads x | y as a point and refuses one that is not on the curve.
// Kept (coordinates-reduced): OpenSSL reduces coordinates that are equal to or above the field's prime before the point
// is checked.
bool vectorToEcp(const EC_GROUP* group, const ByteVector* in, EC_POINT* point) {
  const Scratch scratch;
  if (scratch.get() == nullptr) {
    return trace.failed("vectorToEcp", "BN_CTX_new failed");
  }
  BIGNUM* const x = BN_CTX_get(scratch.get());
  BIGNUM* const y = BN_CTX_get(scratch.get());
  if (x == nullptr || y == nullptr) {
    return trace.failed("vectorToEcp", "BN_CTX_get failed");
  }
  if (!bnSplit(*in, x, y)) {
    return trace.failed("vectorToEcp", "bnSplit failed");
  }
  if (EC_POINT_set_affine_coordinates(group, point, x, y, scratch.get()) == 0) {
    return trace.failed("vectorToEcp", "EC_POINT_set_affine_coordinates_GFp failed");
  }
  // Kept (curve-check-error): an error of the check itself (-1) does not refuse the point. Setting the coordinates has
  // already checked them.
  if (EC_POINT_is_on_curve(group, point, scratch.get()) == 0) {
    return trace.failed("vectorToEcp", "EC_POINT_is_on_curve failed");
  }
  return true;
}

}  // namespace

IpsecDHEcp::IpsecDHEcp(DhGroupNum group) : IpsecDH(group), ecKey(nullptr), ecGroup(nullptr), peerPoint(nullptr) {}

IpsecDHEcp::~IpsecDHEcp() {
  EC_POINT_clear_free(peerPoint);
  EVP_PKEY_free(ecKey);
  EC_GROUP_free(ecGroup);
}

bool IpsecDHEcp::initIpsecDH() {
  const Base::CancellationHeld held;
  trace.entered();
  if (initialized) {
    return true;
  }
  const Group* const group = findGroup(dhGroup);
  if (group == nullptr || group->isModp()) {
    // Kept (unknown-curve-two-lines): this line, and below that of the step that failed.
    trace.failed("IpsecDHEcp::initIpsecDH", "Unsupported ECDH group: ", std::uint32_t{dhGroup});
    adopt(ecKey, KeyPtr());
    return trace.failed("IpsecDHEcp::initIpsecDH", "Failed to initialize its own private and public EC keys");
  }
  adopt(peerPoint, SecretPointPtr());  // the point of a failed attempt belongs to the group that is replaced next
  adopt(ecGroup, newCurve(*group));
  adopt(peerPoint, SecretPointPtr(EC_POINT_new(ecGroup)));  // null for a null group
  if (peerPoint == nullptr) {
    return trace.failed("IpsecDHEcp::initIpsecDH", "Failed to initialize peer's public key");
  }
  adopt(ecKey, newCurveKey(*group));
  if (ecKey == nullptr) {
    return trace.failed("IpsecDHEcp::initIpsecDH", "Failed to initialize its own private and public EC keys");
  }
  initialized = true;
  return true;
}

bool IpsecDHEcp::getMyPublicKey(ByteVector* out) {
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHEcp::getMyPublicKey", "IpsecDHEcp is not initialized");
  }
  // The longest encoding, that of group 21, fits. One read is then enough, instead of one for the length and one for
  // the bytes.
  // Kept (silent-curve-failures): failures of OpenSSL from here to ecpToVector have no message.
  std::array<unsigned char, 1 + 2 * 66> octets;
  std::size_t length = 0;
  if (ecKey == nullptr ||
      EVP_PKEY_get_octet_string_param(ecKey, OSSL_PKEY_PARAM_PUB_KEY, octets.data(), octets.size(), &length) != 1 ||
      length == 0) {
    return false;
  }
  if (isWireForm(octets.data(), length, static_cast<std::size_t>(fieldLength(ecGroup)))) {
    out->assign(octets.data() + 1, octets.data() + length);
    return true;
  }
  const PointPtr point(EC_POINT_new(ecGroup));
  const BnContextPtr context(BN_CTX_new());
  if (!point || !context || EC_POINT_oct2point(ecGroup, point.get(), octets.data(), length, context.get()) != 1) {
    return false;
  }
  return ecpToVector(ecGroup, point.get(), out);
}

bool IpsecDHEcp::getMyPrivateKey(ByteVector* out) {
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHEcp::getMyPrivateKey", "IpsecDHEcp is not initialized");
  }
  SecretBn priv;
  if (ecKey == nullptr || EVP_PKEY_get_bn_param(ecKey, OSSL_PKEY_PARAM_PRIV_KEY, into(priv)) == 0) {
    return false;  // Kept (silent-curve-failures): a key that cannot be read has no message
  }
  if (BN_is_zero(priv.get())) {
    return trace.failed("IpsecDHEcp::getMyPrivateKey", "Wrong privKeyLen size, privKeyLen is 0");
  }
  // Kept (private-key-unpadded): the key is shorter than the group's size where its first bytes are zero.
  out->resize(static_cast<std::size_t>(BN_num_bytes(priv.get())));
  (void)BN_bn2bin(priv.get(), out->data());  // its result is the length just taken
  return true;
}

// Kept (silent-curve-failures): failures here have no message.
// Kept (private-key-unchecked): any number is accepted. A multiple of the curve's order fails when the key is used.
// Kept (long-private-key): a number longer than the order is used completely, and cannot be read back.
// Kept (secret-after-new-key): an earlier secret stays readable after a new private key is set. The MODP form discards
// it.
bool IpsecDHEcp::setMyPrivateKey(const ByteVector* key) {
  const Base::CancellationHeld held;
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHEcp::setMyPrivateKey", "IpsecDHEcp is not initialized");
  }
  const SecretBn priv(toNumber(*key, nullptr));
  const PointPtr pub(EC_POINT_new(ecGroup));
  if (!priv || !pub || EC_POINT_mul(ecGroup, pub.get(), priv.get(), nullptr, nullptr, nullptr) != 1) {
    return false;
  }
  adopt(ecKey, KeyPtr());  // Kept (ecp-without-key): the old key is gone even if the new one cannot be created
  adopt(ecKey, KeyPtr(EVP_PKEY_EC_from_params(ecGroup, pub.get(), priv.get())));
  return ecKey != nullptr;
}

bool IpsecDHEcp::setPeerPublicKey(const ByteVector* peer) {
  const Base::CancellationHeld held;
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHEcp::setPeerPublicKey", "IpsecDHEcp is not initialized");
  }
  if (!verifyDHValue(dhGroup, peer)) {
    return trace.failed("IpsecDHEcp::setPeerPublicKey", "Failed to verify peer's public key");
  }
  // OpenSSL takes the bytes as they came, and checks the point. To decode the point here and to encode it again would
  // cost an inversion in the field. Only what OpenSSL refuses is decoded, for the line that says why.
  KeyPtr peerKey = newPeerKey(ecGroup, *peer);
  if (!peerKey && !vectorToEcp(ecGroup, peer, peerPoint)) {
    // Kept (off-curve-keeps-secret): the buffer of an earlier secret has not been changed yet.
    return trace.failed("IpsecDHEcp::setPeerPublicKey", "vectorToEcp failed");
  }
  // Kept (ecp-zeros): a failure from here on leaves zeros in the buffer, and getSharedSecret hands them out if an
  // earlier exchange succeeded. The MODP form leaves 0xFF.
  const int ecdhSize = fieldLength(ecGroup);
  sharedSecret.assign(static_cast<std::size_t>(ecdhSize), 0);
  unsigned char* secret = sharedSecret.data();
  std::size_t secretLen = 0;
  if (!peerKey) {
    peerKey.reset(EVP_PKEY_EC_from_params(ecGroup, peerPoint, nullptr));
  }
  if (!peerKey || EVP_PKEY_get_shared_secret(ecKey, peerKey.get(), &secret, &secretLen) != 0 || secretLen == 0) {
    return trace.failed("IpsecDHEcp::setPeerPublicKey", "ECDH_compute_key failed on shared secret with ecdhSize ",
                        ecdhSize);
  }
  sharedSecret.resize(secretLen);
  sharedSecretComputed = true;
  return true;
}

bool IpsecDHEcp::getSharedSecret(ByteVector* out) {
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHEcp::getSharedSecret", "IpsecDHEcp is not initialized");
  }
  if (!sharedSecretComputed) {
    return trace.failed("IpsecDHEcp::getSharedSecret", "Shared secret has not been computed");
  }
  *out = sharedSecret;
  return true;
}

// --- Facade ---------------------------------------------------------------------------------------------------------

IpsecDHGeneral::IpsecDHGeneral(DhGroupNum group)
    : dhGroup(group), isModp(true), ipsecDH(nullptr), modpDH(MODP_NONE), ecpDH(MODP_NONE), initialized(false) {}

bool IpsecDHGeneral::setDHGroup(DhGroupNum group) {
  trace.entered();
  if (initialized) {
    return trace.failed("IpsecDHGeneral::setDHGroup", "Cannot change DH group after initIpsecDH");
  }
  dhGroup = group;
  return true;
}

bool IpsecDHGeneral::initIpsecDH() {
  trace.entered();
  if (initialized) {
    // Kept (second-init): this is traced as an error, but the result is true. The key pair stays.
    trace.failed("IpsecDHGeneral::initIpsecDH", "IpsecDHGeneral is already initialized");
    return true;
  }
  if (dhGroup == MODP_NONE) {
    return trace.failed("IpsecDHGeneral::initIpsecDH", "Cannot initialize the MODP_NONE group");
  }
  const Group* const group = findGroup(dhGroup);
  if (group == nullptr) {
    return trace.failed("IpsecDHGeneral::initIpsecDH", "Unsupported DH group: ", std::uint32_t{dhGroup});
  }
  // Kept (form-stays-chosen): even if its init fails below. The next attempt chooses again by the group.
  isModp = group->isModp();
  ipsecDH = isModp ? static_cast<IpsecDH*>(&modpDH) : &ecpDH;
  if (!ipsecDH->setDHGroup(dhGroup) || !ipsecDH->initIpsecDH()) {
    return trace.failed("IpsecDHGeneral::initIpsecDH", "setDHGroup or initIpsecDH failed on ipsecDH");
  }
  initialized = true;
  return true;
}

bool IpsecDHGeneral::getMyPublicKey(ByteVector* out) {
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHGeneral::getMyPublicKey", "IpsecDHGeneral is not initialized");
  }
  return ipsecDH->getMyPublicKey(out);
}

bool IpsecDHGeneral::getMyPrivateKey(ByteVector* out) {
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHGeneral::getMyPrivateKey", "IpsecDHGeneral is not initialized");
  }
  return ipsecDH->getMyPrivateKey(out);
}

bool IpsecDHGeneral::setMyPrivateKey(const ByteVector* key) {
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHGeneral::setMyPrivateKey", "IpsecDHGeneral is not initialized");
  }
  return ipsecDH->setMyPrivateKey(key);
}

bool IpsecDHGeneral::setPeerPublicKey(const ByteVector* peer) {
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHGeneral::setPeerPublicKey", "IpsecDHGeneral is not initialized");
  }
  return ipsecDH->setPeerPublicKey(peer);
}

bool IpsecDHGeneral::getSharedSecret(ByteVector* out) {
  trace.entered();
  if (!initialized) {
    return trace.failed("IpsecDHGeneral::getSharedSecret", "IpsecDHGeneral is not initialized");
  }
  return ipsecDH->getSharedSecret(out);
}

}  // namespace Ipsec

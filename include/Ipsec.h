// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// IPsec helpers for IKE agents: Diffie-Hellman, key material, the IKE daemon's files, host control.
//
// The declarations follow the order in which an agent uses them: shared types, Diffie-Hellman, key material,
// configuration files, host control.
//
// The following holds for every declaration, unless the declaration says otherwise:
// - Numbers in byte vectors are big-endian. Lengths are in bytes. The key lengths of transforms are in bits.
// - Inputs are pointers to vectors that are only read. Outputs are pointers to vectors that the function resizes to the
//   exact length of the result and fills. Neither may be null, and an output may not be the same vector as an input.
// - The caller owns every object that it creates and passes. Where an object keeps a pointer beyond the call, its
//   declaration says so.
// - A bool result of true means success. Every function that fails traces one line (ring buffer and text trace, level
//   0), after the lines of the functions that it called, and leaves its outputs unchanged.
// - Exceptions: std::bad_alloc or std::length_error when a container cannot grow, and those that a declaration names.
//   No resource is leaked when an exception is thrown. When OpenSSL runs out of memory, that is an ordinary failure and
//   not an exception.
// - Threads: the library creates none and has no locks of its own; the platform's trace and OpenSSL have theirs. An
//   object is used by one thread at a time; different objects may be used on different threads at once. Functions
//   outside a class may be called from any thread.
// - A thread that is cancelled (pthread_cancel) in one of these functions leaves it when its work is done. Only while
//   _execCommand and the functions for kernel modules wait for their tool does the thread leave at once, and the tool's
//   process is then left to be reaped.
// - No key, secret, nonce or value of a setting is ever written to a trace.
// - After a failure, OpenSSL's reasons for it may be in the calling thread's OpenSSL error queue.
// - A static destructor that runs after OpenSSL's clean-up may destroy these objects but must not exchange keys with
//   them.
//
// "Warning:" marks what a caller can easily get wrong: first the trap, then its consequence. The lines below "Example:"
// are the body of a function; those that return a bool return true. The installation's test compiles and runs them.
//
// Callers were compiled against the order of the virtual functions and data members: none may be added or moved.
#pragma once

#include "platform/AgentTypes.h"
#include "platform/CryptoTypes.h"
#include "platform/Framework.h"
#include "platform/Vrf.h"

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#define IPSEC_EXPORT __attribute__((visibility("default")))

namespace Ipsec {

// --- Shared types ---------------------------------------------------------------------------------------------------

// The type of every key, public value, nonce and secret, and of the input and output of every PRF.
using ByteVector = std::vector<unsigned char>;

// Diffie-Hellman groups, by IANA's IKEv2 key exchange method numbers (transform type 4). The comment at each group
// gives the length in bytes of a public value on the wire, and that of a shared secret.
//
// Warning: the groups 1, 2, 5 and 24 are accepted like all others, although RFC 8247 advises against them. Their
// secrets are weak or of doubtful strength: use them with old peers only.
enum DhGroupNum : std::uint32_t {
  MODP_NONE = 0,       // no group
  MODP_768 = 1,        //  96,  96  RFC 2409 section 6.1
  MODP_1024 = 2,       // 128, 128  RFC 2409 section 6.2
  MODP_1536 = 5,       // 192, 192  RFC 3526
  MODP_2048 = 14,      // 256, 256  RFC 3526
  MODP_3072 = 15,      // 384, 384  RFC 3526
  MODP_4096 = 16,      // 512, 512  RFC 3526
  MODP_6144 = 17,      // 768, 768  RFC 3526
  ECP_256 = 19,        //  64,  32  RFC 5903, NIST P-256
  ECP_384 = 20,        //  96,  48  RFC 5903, NIST P-384
  ECP_521 = 21,        // 132,  66  RFC 5903, NIST P-521
  MODP_2048_256 = 24,  // 256, 256  RFC 5114 section 2.3, with a 256-bit prime-order subgroup
};

// Integrity transforms, by IANA's IKEv2 numbers (transform type 3).
enum IntegrityAlgo : std::uint32_t {
  AUTH_HMAC_SHA1_96 = 2,
  AUTH_HMAC_SHA2_256_128 = 12,
  AUTH_HMAC_SHA2_384_192 = 13,
  AUTH_HMAC_SHA2_512_256 = 14,
};

// Pseudo-random functions, by IANA's IKEv2 numbers (transform type 2).
enum PrfType : std::uint32_t {
  PRF_HMAC_SHA1 = 2,
  PRF_HMAC_SHA2_256 = 5,
  PRF_HMAC_SHA2_384 = 6,
  PRF_HMAC_SHA2_512 = 7,
};

// Encryption transforms, by IANA's IKEv2 numbers (transform type 1). The numbers of other encryption transforms in the
// registry may be cast to this type.
enum EncryptionAlgo : std::uint32_t {
  ENCR_3DES = 3,
  ENCR_NULL = 11,
  ENCR_AES_CBC = 12,
  ENCR_AES_GCM_8 = 18,   // RFC 4106, 8-byte ICV
  ENCR_AES_GCM_12 = 19,  // RFC 4106, 12-byte ICV
  ENCR_AES_GCM_16 = 20,  // RFC 4106, 16-byte ICV
};

// Hash algorithms. The numbers are this library's and come from no registry.
enum HashAlgorithm : std::uint32_t {
  HASH_SHA1 = 1,
  HASH_SHA256 = 2,
  HASH_SHA384 = 3,
  HASH_SHA512 = 4,
};

// A negotiated encryption transform.
struct EncryptAlgoWithKeyLen {
  EncryptionAlgo algo;
  std::uint64_t keyLen;  // in bits; 0 when the transform's key length is fixed
};

// --- Diffie-Hellman -------------------------------------------------------------------------------------------------

// IpsecDH is one IKE Diffie-Hellman exchange for one group. It has a form for the MODP groups, IpsecDHModp, and one for
// the elliptic-curve groups, IpsecDHEcp. Most callers use IpsecDHGeneral, which chooses the form.
//
// Call order: construct the object; call setDHGroup if the group changes; call initIpsecDH; call getMyPublicKey,
// getMyPrivateKey and setMyPrivateKey as needed; call setPeerPublicKey; call getSharedSecret as often as needed. Until
// initIpsecDH has succeeded, the calls that come after it return false and change nothing. Objects cannot be copied:
// they own OpenSSL handles, which the destructor clears and frees.
//
// Example:
//     IpsecDHModp form(MODP_2048);
//     IpsecDH& exchange = form;  // from here on, the same for either form
//     ByteVector mine;
//     return exchange.initIpsecDH() && exchange.getMyPublicKey(&mine) && mine.size() == 256;
class IPSEC_EXPORT IpsecDH {
 public:
  // Accepts any number as the group. initIpsecDH refuses a group that the form does not support.
  explicit IpsecDH(DhGroupNum group);
  IpsecDH(const IpsecDH&) = delete;
  IpsecDH& operator=(const IpsecDH&) = delete;

  // Changes the group, without checking it. Once initIpsecDH has succeeded, returns false and keeps the group.
  bool setDHGroup(DhGroupNum group);

  // Writes this side's public value in IKE's wire form. For MODP that is the number, left-padded with zero bytes to the
  // length of the prime (RFC 7296 section 3.4). For elliptic curves it is x followed by y, each left-padded to the
  // length of a field element, with no point-format byte (RFC 5903 section 7).
  // After a failure out may have been resized and zeroed.
  virtual bool getMyPublicKey(ByteVector* out) = 0;

  // Writes this side's private key, without padding. Fails when the private number is zero. Clear the vector after use
  // (OPENSSL_cleanse).
  // Warning: the length varies. A key whose first bytes are zero is written without them, and is then shorter than the
  // group's size.
  virtual bool getMyPrivateKey(ByteVector* out) = 0;

  // Replaces this side's key pair with the one that belongs to this private key, a big-endian number of any length.
  // What happens to an earlier secret depends on the form: see IpsecDHModp and IpsecDHEcp.
  // Warning: the key is not checked against the group's order or length. A useless key such as zero is accepted and
  // fails, or gives a worthless secret, only when it is used.
  virtual bool setMyPrivateKey(const ByteVector* key) = 0;

  // Reads the peer's public value, in the wire form of getMyPublicKey, and computes the shared secret. Refuses a value
  // whose length is not that of the group's public values (an earlier secret then stays readable), and a value that
  // does not belong to the group: see IpsecDHModp and IpsecDHEcp.
  // Warning: after a failure, getSharedSecret may still return true, because an earlier secret was computed. It then
  // hands out that secret, or filler bytes that anyone can guess: 0xFF from the MODP form, zeros from the
  // elliptic-curve form. Never read a secret after a failed setPeerPublicKey.
  // Warning: this side's own public value is not refused. A peer that merely sends it back goes unnoticed unless the
  // agent compares the two values itself.
  virtual bool setPeerPublicKey(const ByteVector* peer) = 0;

  // Writes the shared secret g^ir in the form in which IKE passes it to the PRF (RFC 7296 section 2.14). For MODP that
  // is the number, left-padded with zero bytes to the length of the prime. For elliptic curves it is the x coordinate
  // (RFC 5903 section 9). Clear the vector after use.
  virtual bool getSharedSecret(ByteVector* out) = 0;

  // Sets up the group and generates a fresh key pair. If an earlier call has succeeded, returns true and keeps the key
  // pair of that call. May be called again after a failure.
  virtual bool initIpsecDH() = 0;

  virtual ~IpsecDH();

 protected:
  DhGroupNum dhGroup;
  ByteVector sharedSecret;
  bool sharedSecretComputed;
  bool initialized;
};

// IpsecDHModp is the form for the MODP groups 1, 2, 5, 14, 15, 16, 17 (RFC 2409, RFC 3526) and 24 (RFC 5114).
//
// A generated private exponent has at least twice as many bits as the group's strength. It is not as long as the prime.
//
// setPeerPublicKey refuses a value outside 2..p-2 and, for group 24, a value outside the prime-order subgroup (RFC 6989
// sections 2.1, 2.2).
// Warning: when a value is refused by that check, the buffer of an earlier secret has already been filled with 0xFF
// bytes, and getSharedSecret returns them with true. Never read a secret after a failed setPeerPublicKey.
//
// setMyPrivateKey discards an earlier secret. If the group's parameters cannot be read, the old key pair stays. If the
// new key pair cannot be created, the object has no key pair from then on, and every operation that needs one fails
// permanently, setMyPrivateKey included.
//
// Warning: for the groups 19, 20 and 21 initIpsecDH does not return false, it throws std::out_of_range
// ("_Map_base::at"). For any other group that is not in the list above it returns false.
//
// Example:
//     IpsecDHModp known(MODP_2048);
//     const ByteVector two = {2};
//     ByteVector three(256, 0), secret;
//     three.back() = 3;
//     if (!known.initIpsecDH() || !known.setMyPrivateKey(&two) || !known.setPeerPublicKey(&three)) return false;
//     return known.getSharedSecret(&secret) && secret.size() == 256 && secret.back() == 9;  // 3^2, left-padded
class IPSEC_EXPORT IpsecDHModp : public IpsecDH {
 public:
  explicit IpsecDHModp(DhGroupNum group);

  bool getMyPublicKey(ByteVector* out) override;
  bool getMyPrivateKey(ByteVector* out) override;
  bool setMyPrivateKey(const ByteVector* key) override;
  bool setPeerPublicKey(const ByteVector* peer) override;
  bool getSharedSecret(ByteVector* out) override;
  bool initIpsecDH() override;
  ~IpsecDHModp() override;

 private:
  EVP_PKEY* dhKey;
  BIGNUM* peerPublicValue;
  std::int32_t dhSize;
};

// IpsecDHEcp is the form for the elliptic-curve groups 19, 20 and 21 (RFC 5903).
//
// setPeerPublicKey refuses a point that is not on the curve; an earlier secret then stays readable. Coordinates equal
// to or above the field's prime are first reduced by it, and the resulting point is checked. The curves have cofactor
// 1, so a point on the curve needs no subgroup check.
// Warning: when the derivation of the secret itself fails, the buffer of an earlier secret has already been filled with
// zero bytes, and getSharedSecret returns them with true. Never read a secret after a failed setPeerPublicKey.
//
// setMyPrivateKey keeps an earlier secret readable. If the new key object cannot be created, the old one is gone, and
// every operation that needs a key fails until another private key is set; a failure before that point keeps the old
// key. A private number longer than the group's order is accepted and used, but cannot be read back.
//
// Warning: when OpenSSL cannot read or import this side's key, the call returns false and traces nothing. A caller that
// wants a line in the log writes it itself.
//
// Example:
//     IpsecDHEcp ours(ECP_384), theirs(ECP_384);
//     ByteVector ourPublic, theirPublic, ourSecret, theirSecret;
//     if (!ours.initIpsecDH() || !theirs.initIpsecDH()) return false;
//     if (!ours.getMyPublicKey(&ourPublic) || !theirs.getMyPublicKey(&theirPublic)) return false;
//     if (!ours.setPeerPublicKey(&theirPublic) || !theirs.setPeerPublicKey(&ourPublic)) return false;
//     return ours.getSharedSecret(&ourSecret) && theirs.getSharedSecret(&theirSecret) && ourSecret == theirSecret;
class IPSEC_EXPORT IpsecDHEcp : public IpsecDH {
 public:
  explicit IpsecDHEcp(DhGroupNum group);

  bool getMyPublicKey(ByteVector* out) override;
  bool getMyPrivateKey(ByteVector* out) override;
  bool setMyPrivateKey(const ByteVector* key) override;
  bool setPeerPublicKey(const ByteVector* peer) override;
  bool getSharedSecret(ByteVector* out) override;
  bool initIpsecDH() override;
  ~IpsecDHEcp() override;

 private:
  EVP_PKEY* ecKey;
  EC_GROUP* ecGroup;
  EC_POINT* peerPoint;
};

// IpsecDHGeneral is one exchange for any supported group: the object that an agent creates for the group that was
// negotiated. Call order, results, encodings and warnings are those of IpsecDH. Each call is passed on to the form that
// fits the group, and the form traces why it failed.
//
// Example:
//     IpsecDHGeneral exchange(ECP_256);
//     ByteVector mine, secret;
//     if (!exchange.initIpsecDH() || !exchange.getMyPublicKey(&mine)) return false;
//     const ByteVector theirs = exchangeKePayloads(ECP_256, mine);  // the agent's own: sends mine, receives the peer's
//     return exchange.setPeerPublicKey(&theirs) && exchange.getSharedSecret(&secret) && secret.size() == 32;
class IPSEC_EXPORT IpsecDHGeneral {
 public:
  explicit IpsecDHGeneral(DhGroupNum group);
  IpsecDHGeneral(const IpsecDHGeneral&) = delete;
  IpsecDHGeneral& operator=(const IpsecDHGeneral&) = delete;

  bool setDHGroup(DhGroupNum group);

  // Chooses the form that fits the group and initialises it. Returns false for a group that is not supported. May be
  // called again after a failure, also with another group. If an earlier call has succeeded, returns true, keeps the
  // key pair of that call, and traces an error line all the same.
  bool initIpsecDH();

  bool getMyPublicKey(ByteVector* out);
  bool getMyPrivateKey(ByteVector* out);
  bool setMyPrivateKey(const ByteVector* key);
  bool setPeerPublicKey(const ByteVector* peer);
  bool getSharedSecret(ByteVector* out);

 private:
  DhGroupNum dhGroup;

 public:
  // True while the MODP form is in use, and also before initIpsecDH has chosen a form. For reading only.
  bool isModp;

 private:
  IpsecDH* ipsecDH;
  IpsecDHModp modpDH;
  IpsecDHEcp ecpDH;
  bool initialized;
};

// --- Key material ---------------------------------------------------------------------------------------------------

// Prepares OpenSSL's tables of ciphers and digests. Call it once before key generation; further calls do no harm.
// Returns 1 on success and 0 on failure. A failure is not traced.
IPSEC_EXPORT int initKeyGenLib();

// Does nothing. It exists as the counterpart of initKeyGenLib.
IPSEC_EXPORT void cleanupKeyGenLib();

// NonceGenerator draws the random nonces of an exchange (RFC 7296 section 2.10: 16 to 256 bytes, and at least half the
// key size of the PRF) and joins the two. Several threads may use one generator at once.
//
// Example:
//     NonceGenerator generator;
//     ByteVector ni, nonces;
//     if (RAND_status() != 1 || !generator.generateNonce(&ni)) return false;  // RAND_status: <openssl/rand.h>
//     const ByteVector nr = exchangeNoncePayloads(ni);                        // the agent's own, as above
//     return generator.generateFullNonce(&nonces, &ni, &nr) && nonces.size() == 64;
class IPSEC_EXPORT NonceGenerator {
 public:
  NonceGenerator();  // draws nonces of 32 bytes
  // Accepts any length in bytes, including 0.
  // Warning: a nonce longer than INT_MAX bytes is reported as a success, but its bytes are not random, or only the
  // first of them are.
  explicit NonceGenerator(unsigned long nonceLen);

  // Writes a fresh nonce from OpenSSL's RAND_bytes. Returns false only when RAND_bytes returns -1 (there is no
  // generator); out then has the length of a nonce and undefined contents.
  // Warning: when the generator fails and RAND_bytes returns 0, the result is still true and nothing is traced. The
  // bytes in out are then not random, and an exchange with them is not safe: call RAND_status() first, and draw no
  // nonce unless it returns 1.
  bool generateNonce(ByteVector* out);

  // Writes nonce1 | nonce2. IKE has the initiator's nonce first: Ni | Nr. Returns false when their lengths differ.
  bool generateFullNonce(ByteVector* out, const ByteVector* nonce1, const ByteVector* nonce2);

 private:
  std::size_t nonceLen;
};

// PRFunc is a keyed pseudo-random function whose input is given in pieces. PRFuncPlus draws its stream from one.
//
// Example:
//     const ByteVector key(20, 0x0b), head = {'H', 'i', ' '}, rest = {'T', 'h', 'e', 'r', 'e'};
//     HmacPRFunc hmac;
//     PRFunc& prf = hmac;
//     ByteVector mac;
//     if (!hmac.initHmacPRFunc(HASH_SHA256) || !prf.setKey(&key)) return false;
//     // The MAC of "Hi There", as in RFC 4231 section 4.2:
//     return prf.generatePRStream(&head, nullptr) && prf.generatePRStream(&rest, &mac) && mac.front() == 0xb0;
class IPSEC_EXPORT PRFunc {
 public:
  // Absorbs input. With a null output, that is all, and the computation stays open for more input. Otherwise finishes
  // the computation, resizes output to getOutputSize, writes the result there, and is ready for the next computation
  // under the same key. The output may be a vector that an earlier call absorbed.
  virtual bool generatePRStream(const ByteVector* input, ByteVector* output) = 0;

  // Returns the length of one output in bytes.
  virtual std::size_t getOutputSize() = 0;

  // Returns the preferred key length in bytes.
  virtual std::size_t getKeySize() = 0;

  // Installs a key. Null installs the most recently given key again.
  virtual bool setKey(const ByteVector* key) = 0;

  virtual ~PRFunc();
};

// HmacPRFunc computes HMAC (RFC 2104) over input that is given in pieces. Call initHmacPRFunc, then setKey, then
// compute as often as needed: calls with a null output absorb input, the call with an output finishes and installs the
// key again for the next computation. A key of any length is accepted, including an empty one. Objects cannot be
// copied. The destructor clears what was derived from the key, but not the caller's vector.
//
// Warning: the object borrows the key vector and reads its bytes again after every output. If the vector is changed,
// later computations use the new bytes; if it is destroyed, the object reads freed memory. Keep the vector alive and
// unchanged as long as the object computes.
//
// Example:
//     const ByteVector nonces(64, 0x01), secret(256, 0x02);  // Ni | Nr and g^ir; nonces outlives prf
//     HmacPRFunc prf;
//     ByteVector skeyseed;
//     if (!prf.initHmacPRFunc(HASH_SHA256) || !prf.setKey(&nonces)) return false;
//     return prf.generatePRStream(&secret, &skeyseed) && skeyseed.size() == prf.getOutputSize();
class IPSEC_EXPORT HmacPRFunc : public PRFunc {
 public:
  HmacPRFunc();
  HmacPRFunc(const HmacPRFunc&) = delete;
  HmacPRFunc& operator=(const HmacPRFunc&) = delete;

  // Chooses the digest. Throws std::out_of_range ("_Map_base::at") for a hash that is not in HashAlgorithm.
  // Warning: if an earlier call has succeeded, returns true and keeps the digest of that call, whatever hashAlgo is.
  // For another digest create another object.
  bool initHmacPRFunc(HashAlgorithm hashAlgo);

  // After any failure the result of the computation is undefined: abandon the derivation. If finishing fails, output
  // has its new size and undefined contents. After std::bad_alloc nothing of the call's input has been absorbed, and
  // the call can be repeated. If an override of getOutputSize asks for more than 64 bytes, the call fails instead until
  // setKey has succeeded again.
  bool generatePRStream(const ByteVector* input, ByteVector* output) override;

  // Returns 20, 32, 48 or 64. Before initHmacPRFunc, returns 0 and traces an error line.
  std::size_t getOutputSize() override;

  // Returns the same as getOutputSize: an HMAC prefers a key of the size of its output (RFC 7296 section 2.12).
  std::size_t getKeySize() override;

  // If this fails, abandon any computation begun under the old key.
  // Warning: a null key is allowed only after a first key has been given. Before that the behaviour is undefined.
  bool setKey(const ByteVector* key) override;

  ~HmacPRFunc() override;

 private:
  const EVP_MD* md;
  hmac_ctx hmacCtx;
  bool keySet;
  bool initialized;
  const ByteVector* key;
};

// PRFuncPlus is the stream of key material prf+ of IKEv2 (RFC 7296 section 2.13) or, with counterEnabled false, the
// chained expansion without a counter of IKEv1's quick mode (RFC 2409 section 5.5). Any PRFunc will do.
//
// Warning: the object borrows the PRFunc, which must already have its key and must outlive the object. Between the
// first call and the last nobody else may use or re-key it, or the stream is no longer prf+.
//
// Example:
//     const ByteVector skeyseed(32, 0x01), seed(80, 0x02);  // the seed is Ni | Nr | SPIi | SPIr
//     HmacPRFunc prf;
//     ByteVector skD, skAi;
//     if (!prf.initHmacPRFunc(HASH_SHA256) || !prf.setKey(&skeyseed)) return false;
//     PRFuncPlus stream(&prf, true);
//     if (!stream.initPRFuncPlus(&seed) || !stream.generatePRStream(prf.getKeySize(), &skD)) return false;
//     return stream.generatePRStream(getIntegKeyLen(AUTH_HMAC_SHA2_256_128), &skAi) && skAi.size() == 32;
class IPSEC_EXPORT PRFuncPlus {
 public:
  PRFuncPlus(PRFunc* prf, bool counterEnabled);
  ~PRFuncPlus();
  PRFuncPlus(const PRFuncPlus&) = delete;
  PRFuncPlus& operator=(const PRFuncPlus&) = delete;

  // Copies the seed and computes the first block. If an earlier call has succeeded, returns true and keeps the seed and
  // the position in the stream. After an exception the call can be repeated.
  bool initPRFuncPlus(const ByteVector* seed);

  // Writes the next length bytes of the stream. The stream is the same however it is divided into calls. After a
  // failure out has its new size and is filled up to the point of the failure, and the stream must not be used again. A
  // PRFunc that returns true with an empty output is such a failure. Clear the vector after use. After std::bad_alloc
  // the call can be repeated. If a PRFunc other than HmacPRFunc throws, the stream starts anew: call initPRFuncPlus
  // again.
  // Warning: RFC 7296 ends the stream after 255 blocks, but this object does not. The one-byte counter wraps to 0 and
  // the stream goes on beyond what the RFC defines: the caller must not draw more than 255 times the length of one
  // output in all.
  bool generatePRStream(std::size_t length, ByteVector* out);

 private:
  PRFunc* prf;
  ByteVector seed;
  std::uint8_t counter;
  std::size_t bufferPos;
  ByteVector buffer;
  bool counterEnabled;
  bool initialized;
};

// Returns how many bytes of key material an encryption transform takes from the stream: its key length (the given one
// or, where that is 0, the fixed one of 3DES), and for AES-GCM with an ICV of 8 or 16 bytes 4 bytes of salt in addition
// (RFC 4106 section 8.1). Returns 0 for ENCR_NULL.
// Throws std::out_of_range ("_Map_base::at") for any other transform that is given without a key length.
// Warning: for AES-GCM with an ICV of 12 bytes the salt is not counted. The caller must draw 4 bytes more, or the two
// sides read different keys from the stream.
//
// Example:
//     const EncryptAlgoWithKeyLen negotiated = {ENCR_AES_GCM_16, 256};
//     return getEncryptKeyLen(negotiated) == 36;  // 32 bytes of key, 4 of salt
IPSEC_EXPORT std::size_t getEncryptKeyLen(EncryptAlgoWithKeyLen algo);

// Returns the key length of an integrity transform in bytes. Throws std::out_of_range ("_Map_base::at") for a transform
// that is not in IntegrityAlgo.
// Warning: do not call this for a suite whose cipher provides its own integrity (AEAD). Such a suite needs 0 bytes, and
// the transform number 0 (NONE) throws.
IPSEC_EXPORT std::size_t getIntegKeyLen(IntegrityAlgo algo);

// Writes a vector to std::cout for debugging: "LABEL is", "len is: N", the bytes as lower-case hex digits on one line,
// "end". Afterwards the stream's fill character is '0'. The dumps of two threads may interleave.
// Warning: it prints whatever it is given. If that is a key, the key is on the terminal or in a log from then on.
// Warning: a null label puts std::cout into its bad state, and nothing more is written to it until it is cleared.
IPSEC_EXPORT void printVector(const char* label, const ByteVector* vec);

// --- The IKE daemon's files -----------------------------------------------------------------------------------------
//
// Both writers build a whole new file next to the old one (its name with ".tmp" appended) and move it into place with
// rename. The daemon therefore sees the old file or the new one, and nothing in between. For both:
// - A new file that cannot be written completely is never moved into place: the old file stays, and one line is traced
//   ("Error renaming tmp file to ..."). The temporary file stays too; the next call empties it.
// - An exception leaves the call before anything is moved: the old file is unchanged, and the temporary file stays.
// - Nothing is synced to disk, and the daemon is not notified. It rereads the connections when its starter receives
//   SIGHUP, and the secrets on `ipsec rereadsecrets`.
// - Only one call at a time per file is allowed, over all threads and processes; the callers must see to it.
// - When the process has no descriptor or memory left to open the old file, the call fails like a failed rename: the
//   old file stays.
// - Nothing that is not a regular file is waited for. A pipe, folder or device in the place of the old file counts as
//   an empty file; a link is followed. In the place of the temporary file, anything but a regular file that belongs to
//   this user and has no second name is neither written nor moved: the call fails like a failed rename.
//
// Warning: an old file that cannot be read for another reason counts as empty, like a missing one; if reading fails
// half-way, the whole lines read so far count as its contents. The rest is not in the new file and is lost when that is
// moved into place.
//
// Warning: values are written exactly as they are given. A newline in a value is a newline in the file, and what
// follows it is a setting to the daemon: the caller must check values that come from outside.
//
// Warning: the new file's mode comes from the process's umask, whatever the mode of the old file was. Without
// umask(077) around every call of writeSecrets, other users may be able to read the keys. Restore the umask afterwards.
// It applies to the whole process, and so to files that other threads create meanwhile. A temporary file left by an
// earlier failed call keeps the mode that it was created with and passes it on to the new file, and it holds the keys
// that were copied so far.
//
// Warning: the name of the section and the address of the entry are put unescaped into the regular expression
// (ECMAScript) that finds what is to be replaced. "." matches any character, so another section or entry that is
// spelled similarly may be removed instead. Other metacharacters have their meaning too: such a name, if it is long or
// is compared with long lines, can exhaust the stack in the standard library's compiler or matcher, or keep the matcher
// busy for hours ("(|a)*"). The names from getConnNameFromKey hold no metacharacter but ".".

// The settings of one section or entry, by name. The names are listed at the two writers.
using stringmap = std::unordered_map<Vello::String, Vello::String>;

// Returns the name of a connection's section: "default", the first address, the second address, the source's text and
// the connection number in decimal, joined by hyphens ("default-10.0.0.1-10.0.0.2-local-7"). It is up to the caller
// which of the two addresses is the local one.
// Warning: the key's VRF must be the default VRF. Any other stops the process (assertion).
//
// Example:
//     const Ipnet::IpGenAddr ours("10.0.0.1"), theirs("10.0.0.2");
//     const ConnectionKey key(Vrf::VrfIdMap::VrfId::defaultVrf(), 7, ConnIdSrc::Local, ours, theirs);
//     return getConnNameFromKey(key) == "default-10.0.0.1-10.0.0.2-local-7";
IPSEC_EXPORT Vello::String getConnNameFromKey(const ConnectionKey& key);

// Adds, replaces or removes one section of the daemon's connections file, "/etc/strongswan/ipsec.conf". The old section
// is removed wherever it is in the file, and the new one is appended at the end.
//
// These settings say what the call does. For delete, any value counts, also "no":
//   config      the section's name; required for an ordinary section
//   default     "%default": the call concerns the section "conn %default". Any other value names the section to remove,
//               while the section that is written is named by config
//   delete      if present: the section is removed and none is written
//   uniqueids   "add": "config setup" with uniqueids=no is put at the top and replaces the file's own. Any other value:
//               the file's "config setup" section is dropped. Absent: it is kept
//
// An ordinary section holds these settings; those with * are required:
//   config*            conn, the head line
//   ikeVersion         keyexchange; pass ikev1, ikev2 or ike, because the daemon refuses numbers
//   authby             authby; the text of the authentication type PreSharedKey or PublicKey
//   ikelifetime        ikelifetime in seconds; digits only, the unit is added
//   lifetime           lifetime in seconds; digits only, the unit is added
//   reqid*             reqid
//   left*              left, the local address
//   leftsubnet         leftsubnet
//   localid            leftid; an X.500 name needs quotes inside the value, or the daemon refuses the whole file
//   right*             right, the remote address
//   remoteid           rightid; quotes as for localid
//   ike, esp           proposals; end them with "!", or the daemon adds its own proposals
//   tunnelMode         "IpsecGre": leftprotoport=47 and rightprotoport=47. "IpsecVti": leftsubnet=0.0.0.0/0 and
//                      rightsubnet=0.0.0.0/0, after the line of the leftsubnet setting if that is given too (the
//                      daemon takes the last one)
//   mark               mark
//   action             dpdaction; then interval* is dpddelay and timeout* is dpdtimeout
//   encap              forceencaps=yes if present; any value counts, also "no"
//   type               type
//   replayWindowSize   replay_window
//   packetLimit        lifepackets
//   marginpackets      marginpackets; the daemon does not check that it is below packetLimit
//   byteLimit          lifebytes
//   marginbytes        marginbytes; the daemon does not check that it is below byteLimit
//   reauth             reauth
// The default section holds authby, ikelifetime, lifetime, ikeVersion, esp, ike, packetLimit, marginpackets, byteLimit
// and marginbytes, all optional.
//
// Warning: removing a section removes every line from its head up to the next line that begins with "conn ". Comments,
// `include` lines and `ca` sections in between belong to the removed body as well. Only the first section of the name
// is removed; a second one stays in force.
//
// Warning: any value of uniqueids drops every line from the first one that contains "config setup", even in a comment,
// up to the next line that begins with "conn ". `ca` sections and `include` lines in between are dropped as well.
//
// Warning: without ikeVersion the default section says keyexchange=2, which is not a version to the daemon. Give every
// section its own ikeVersion.
//
// The expression that finds the section is "^conn NAME$": see the warning above about names in expressions.
//
// Throws std::regex_error for a name that is not a valid expression or is too long for one (about 100,000 characters),
// and std::out_of_range ("_Map_base::at") for a required setting that is missing or an authby other than the two texts.
//
// Example:
//     stringmap settings = {{"config", "default-10.0.0.1-10.0.0.2-local-7"}, {"ikeVersion", "ikev2"}, {"reqid", "7"}};
//     settings["authby"] = Ike::stringValue(Ike::IpsecAuthType::PreSharedKey);
//     settings["left"] = "10.0.0.1";
//     settings["right"] = "10.0.0.2";
//     settings["ike"] = "aes256-sha256-modp2048!";
//     writeConnections(settings);
IPSEC_EXPORT void writeConnections(stringmap settings);

// Adds, replaces or removes one pre-shared key in the daemon's secrets file, "/etc/strongswan/ipsec.secrets". The first
// entry of the peer is removed, and the new one is appended at the end.
//
//   peerIp      the peer's address, by which the daemon selects the entry; required, except for the default entry
//   secret      "%default": the call concerns the entry for any peer. Other values have no effect
//   key         the key as it is to appear in the file; required unless delete is present
//   delete      if present: the entry is removed and none is written; any value counts, also "no"
//
// Warning: put the key in quotes inside the value. The daemon cuts an unquoted key at the first blank ("0x" and "0s"
// introduce hexadecimal and base64).
//
// Warning: the first entry of the peer is removed whatever its kind. An RSA entry may be removed where a pre-shared key
// was meant.
//
// The expression that finds the entry is "^ADDRESS :": see the warning above about names in expressions.
//
// Throws std::regex_error for an address that is not a valid expression or is too long for one, and std::out_of_range
// ("_Map_base::at") for a required setting that is missing.
//
// Example:
//     const mode_t before = umask(077);  // <sys/stat.h>
//     writeSecrets({{"peerIp", "10.0.0.2"}, {"key", "\"a secret\""}});
//     umask(before);
IPSEC_EXPORT void writeSecrets(stringmap entry);

// --- Host control ---------------------------------------------------------------------------------------------------

// Runs a program and waits until it ends. argv is null-terminated, and argv[0] is the program's absolute path.
// Returns the raw wait status as waitpid gives it: 0 for exit code 0, otherwise exit code << 8 or the number of the
// signal that ended the program.
// Returns -1 when the wait failed. Either the program could not be started or somebody else reaped it: errno is ECHILD.
// Or a signal handler without SA_RESTART interrupted the wait: errno is EINTR, and the caller must reap the child.
// Warning: there is no time limit. A program that does not end blocks the calling thread.
IPSEC_EXPORT int _execCommand(const char** argv);

// Load and unload the kernel's crypto modules (aes-x86_64, aesni_intel, crypto_null) with /sbin/modprobe and
// /sbin/rmmod, one after the other. Both functions need CAP_SYS_MODULE. A module that cannot be loaded or unloaded is
// not an error. Only a command that could not be run or waited for is traced (level 1), and the next command is run all
// the same.
IPSEC_EXPORT void enableCryptoModules();
IPSEC_EXPORT void disableCryptoModules();

// Loads the netfilter module ipsec_flow_parallelization in the same way, but traces a failure at level 0.
IPSEC_EXPORT void enableFlowEncapModule();

// Raises the kernel's limit for the replay window of an IPsec state to 65536 packets, by writing to
// /proc/sys/net/core/xfrm_replay_esn_max. Every call traces the attempt at level 1, in the form of a failure. If the
// host does not have the setting, or the caller may not write to it, a second line follows.
// Warning: a value that the kernel refuses adds no line. The line of the attempt does not mean that the limit was
// raised.
IPSEC_EXPORT void setMaxReplayWindow();

// Returns whether the IKE daemon runs, which is whether the caller can send a signal to the process whose number is in
// the first line of /etc/strongswan/ipsec.d/run/charon.pid. Returns false for a missing, unreadable or empty file.
// Converting the number leaves errno unchanged unless it throws.
// Throws std::invalid_argument ("stoi") for a first line that does not begin with a number, and std::out_of_range
// ("stoi") for a number outside the range of an int.
// Warning: returns false also for a daemon of another user that the caller may not signal. The daemon then runs, but
// looks stopped.
// Warning: a number of 0 or below addresses process groups, as in kill(2). For 0 the result is always true.
IPSEC_EXPORT bool isSswanRunning();

// Returns a VRF's name from the VRF status table. If the table is damaged, its message goes to its corruption handler,
// and the VRF counts as missing from it. Throws Vello::RangeException for a stored name of more than 100 bytes.
// Warning: a VRF that is not in the table, or one without a name, stops the process (assertion).
IPSEC_EXPORT L3::VrfName vrfIdToName(Vrf::VrfIdMap::VrfId vrfId, const Vello::Ptr<const Vrf::VrfIdMap::Status>& status);

// Returns count blanks.
IPSEC_EXPORT std::string fillSpace(unsigned int count);

// Returns the smallest multiple of 32 that is not below value. For 0 that is 0.
// Warning: values above 4294967264 wrap around to 0.
IPSEC_EXPORT unsigned int roundUp(unsigned int value);

// Returns a time in seconds since the epoch as "YYYY-MM-DD hh:mm:ss" in the host's time zone. The fraction is dropped
// (rounding toward zero). Returns an empty string for a time whose year does not fit into an int.
IPSEC_EXPORT Cor::String secondsToTimestamp(Vello::Duration time);

}  // namespace Ipsec

// IPsec helpers for IKE agents: Diffie-Hellman, key material, the IKE daemon's files, host control.
//
// In the order in which an agent uses it: shared types, Diffie-Hellman, key material, configuration files, host
// control.
//
// Conventions that hold for every declaration here, unless it says otherwise:
// - Numbers in byte vectors are big-endian. Lengths are in bytes. Key lengths of transforms are in bits.
// - Inputs are pointers to vectors that are only read; outputs are pointers to vectors that the callee resizes to the
//   exact result and fills. Neither may be null. An output may not be the same vector as an input.
// - The caller owns what it creates and passes. What is borrowed beyond a call is said at the parameter.
// - bool results: true is success. A failure is traced (ring buffer and text trace, level 0), as one line by the
//   function called after those of what it called inside, and leaves outputs untouched unless the declaration says what
//   is left.
// - Exceptions: std::bad_alloc or std::length_error when a container cannot grow, and what a declaration names. Nothing
//   leaks when one is thrown. OpenSSL running out of memory is an ordinary failure, not an exception.
// - Threads: none are made and no locks are taken. An object is used by one thread at a time; different objects may be
//   used on different threads at once. Free functions may be called from any thread unless they say otherwise.
// - No key, secret, nonce or setting's value is ever written to a trace.
// - OpenSSL's reasons for a failure may be left in the calling thread's OpenSSL error queue.
// - Objects may be destroyed, but keys not be exchanged, in static destructors that run after OpenSSL's own clean-up.
//
// Virtual functions and data members stand in an order that callers were compiled against: append nothing, move
// nothing.
#pragma once

#include "platform/AgentTypes.h"
#include "platform/CryptoShim.h"
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

// Every key, public value, nonce, secret, PRF input and output.
using ByteVector = std::vector<unsigned char>;

// Diffie-Hellman groups, by IANA's IKEv2 key exchange method numbers (transform type 4). In the comment: the length of
// a public value on the wire and of a shared secret, in bytes.
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

// Encryption transforms, by IANA's IKEv2 numbers (transform type 1). Any other number of the registry may be cast to
// this type.
enum EncryptionAlgo : std::uint32_t {
  ENCR_3DES = 3,
  ENCR_NULL = 11,
  ENCR_AES_CBC = 12,
  ENCR_AES_GCM_8 = 18,   // RFC 4106, 8-byte ICV
  ENCR_AES_GCM_12 = 19,  // RFC 4106, 12-byte ICV
  ENCR_AES_GCM_16 = 20,  // RFC 4106, 16-byte ICV
};

// Hash algorithms, in this library's own numbering.
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

// IpsecDH is one IKE Diffie-Hellman exchange for one group. Most callers use IpsecDHGeneral, which picks the form.
//
// Call order: construct; setDHGroup if the group changes; initIpsecDH; getMyPublicKey, getMyPrivateKey, setMyPrivateKey
// as needed; setPeerPublicKey; getSharedSecret as often as needed. A call before initIpsecDH has succeeded returns
// false and touches nothing. Objects are not copyable: they own OpenSSL handles, which the destructor clears and frees.
class IPSEC_EXPORT IpsecDH {
 public:
  // Takes any number as the group; initIpsecDH refuses one that it does not know.
  explicit IpsecDH(DhGroupNum group);
  IpsecDH(const IpsecDH&) = delete;
  IpsecDH& operator=(const IpsecDH&) = delete;

  // Changes the group, unchecked. Returns false once initIpsecDH has succeeded; the group then stays.
  bool setDHGroup(DhGroupNum group);

  // Writes the own public value in IKE's wire form: MODP, the number left-padded with zero bytes to the length of the
  // prime (RFC 7296 section 3.4); elliptic curves, x and y each left-padded to the length of a field element, with no
  // point-format byte (RFC 5903 section 7).
  // On failure out may have been resized and zeroed.
  virtual bool getMyPublicKey(ByteVector* out) = 0;

  // Writes the own private key without padding: a key with leading zero bytes comes out shorter than the group's size.
  // Clear the vector when done (OPENSSL_cleanse). Fails when the private number is zero.
  virtual bool getMyPrivateKey(ByteVector* out) = 0;

  // Replaces the own key pair by the one of this private key, a big-endian number of any length. It is not checked
  // against the group's order or length. What happens to an earlier secret depends on the form: see there.
  virtual bool setMyPrivateKey(const ByteVector* key) = 0;

  // Takes the peer's public value in the wire form of getMyPublicKey and computes the shared secret. Refuses a value of
  // another length than the group's, and one that does not belong to the group: see the forms. The own public value
  // coming back is not refused. An earlier secret stays readable when the value is refused, except as the forms say.
  virtual bool setPeerPublicKey(const ByteVector* peer) = 0;

  // Writes the shared secret g^ir in the form IKE feeds to the PRF (RFC 7296 section 2.14): MODP, left-padded with zero
  // bytes to the length of the prime; elliptic curves, the x coordinate (RFC 5903 section 9).
  // Clear the vector when done.
  virtual bool getSharedSecret(ByteVector* out) = 0;

  // Sets up the group and generates a fresh key pair. Returns true at once when it has succeeded before: the key pair
  // stays. May be retried after a failure.
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
// Generated private exponents have at least twice the bits of the group's strength, not the length of the prime.
//
// setPeerPublicKey refuses a value outside 2..p-2 and, for group 24, one outside the prime-order subgroup (RFC 6989
// sections 2.1, 2.2). When the refusal comes from that check, the buffer of an earlier secret has been overwritten with
// 0xFF bytes while getSharedSecret still answers: do not read a secret after a failed setPeerPublicKey.
//
// setMyPrivateKey forgets an earlier secret. When the new key pair cannot be made, the object keeps its old one if the
// parameters could not be read, and has none otherwise; then all that needs a key fails for good.
//
// initIpsecDH throws std::out_of_range ("_Map_base::at") for the groups 19, 20 and 21.
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
// setPeerPublicKey refuses a point that is not on the curve. Coordinates at or above the field's prime are first
// reduced by it, and the point they then name is judged. The curves have cofactor 1, so a point on the curve needs no
// subgroup check. When the derivation itself fails, the buffer of an earlier secret has been overwritten with zero
// bytes while getSharedSecret still answers: do not read a secret after a failed setPeerPublicKey.
//
// setMyPrivateKey leaves an earlier secret readable. When the new key object cannot be made the old one is gone, and
// all that needs a key fails until another private key is set; a failure before that keeps the old key. A private
// number longer than the group's order is taken, but cannot be read back. Failures to read or import the own key are
// not traced.
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

// IpsecDHGeneral is one exchange for any supported group: the object an agent creates when the group is negotiated.
// Call order, results and encodings are those of IpsecDH; each call is handed to the form that fits the group.
class IPSEC_EXPORT IpsecDHGeneral {
 public:
  explicit IpsecDHGeneral(DhGroupNum group);
  IpsecDHGeneral(const IpsecDHGeneral&) = delete;
  IpsecDHGeneral& operator=(const IpsecDHGeneral&) = delete;

  bool setDHGroup(DhGroupNum group);

  // Picks the form by group and initialises it. A second call after a success returns true and traces an error line;
  // the key pair stays. Returns false for a group that is not supported; may be retried, also with another group.
  bool initIpsecDH();

  bool getMyPublicKey(ByteVector* out);
  bool getMyPrivateKey(ByteVector* out);
  bool setMyPrivateKey(const ByteVector* key);
  bool setPeerPublicKey(const ByteVector* peer);
  bool getSharedSecret(ByteVector* out);

 private:
  DhGroupNum dhGroup;

 public:
  // Tells which form is in use once initIpsecDH has picked one: true for MODP, also before. Only to be read.
  bool isModp;

 private:
  IpsecDH* ipsecDH;
  IpsecDHModp modpDH;
  IpsecDHEcp ecpDH;
  bool initialized;
};

// --- Key material ---------------------------------------------------------------------------------------------------

// Prepares OpenSSL's tables of ciphers and digests. Call once before key generation; further calls are harmless.
// Returns 1 on success, 0 on failure.
IPSEC_EXPORT int initKeyGenLib();

// Does nothing; stands beside initKeyGenLib for symmetry.
IPSEC_EXPORT void cleanupKeyGenLib();

// NonceGenerator draws the random nonces of an exchange (RFC 7296 section 2.10: 16 to 256 bytes, and at least half the
// PRF's key size) and joins the two. One generator may serve several threads.
class IPSEC_EXPORT NonceGenerator {
 public:
  NonceGenerator();  // 32 bytes
  // Takes any length in bytes, 0 too. Nonces above INT_MAX bytes are answered with true, but are not random.
  explicit NonceGenerator(unsigned long nonceLen);

  // Writes a fresh nonce from OpenSSL's RAND_bytes. Returns false only for RAND_bytes' result -1 (no generator); out
  // then has the nonce's length and undefined contents. A generator that fails otherwise (RAND_bytes' result 0) is not
  // reported: a caller that must know asks RAND_status() first.
  bool generateNonce(ByteVector* out);

  // Writes nonce1 | nonce2 (the initiator's first: Ni | Nr). Returns false when their lengths differ.
  bool generateFullNonce(ByteVector* out, const ByteVector* nonce1, const ByteVector* nonce2);

 private:
  std::size_t nonceLen;
};

// PRFunc is a keyed pseudo-random function fed in pieces: what PRFuncPlus draws from.
class IPSEC_EXPORT PRFunc {
 public:
  // Absorbs input. With a null output that is all, and the computation stays open; otherwise finishes it into output
  // (resized to getOutputSize) and is ready for the next computation under the same key. The output may be a vector
  // that was absorbed by an earlier call.
  virtual bool generatePRStream(const ByteVector* input, ByteVector* output) = 0;

  // Returns the length of one output in bytes.
  virtual std::size_t getOutputSize() = 0;

  // Returns the preferred key length in bytes.
  virtual std::size_t getKeySize() = 0;

  // Installs a key; null installs the key given last again.
  virtual bool setKey(const ByteVector* key) = 0;

  virtual ~PRFunc();
};

// HmacPRFunc computes HMAC (RFC 2104) over input given in pieces. Call initHmacPRFunc, then setKey, then any number of
// computations: calls with a null output absorb, the call with an output finishes and re-keys.
//
// The key vector is borrowed, and its bytes are read again after every output: keep it alive and unchanged as long as
// the object computes. A key of any length is taken, an empty one too. Objects are not copyable. The destructor clears
// what was derived from the key, not the caller's vector.
class IPSEC_EXPORT HmacPRFunc : public PRFunc {
 public:
  HmacPRFunc();
  HmacPRFunc(const HmacPRFunc&) = delete;
  HmacPRFunc& operator=(const HmacPRFunc&) = delete;

  // Chooses the digest. Returns true at once when it has succeeded before: the digest stays, whatever hashAlgo is.
  // Throws std::out_of_range ("_Map_base::at") for a hash that is not in HashAlgorithm.
  bool initHmacPRFunc(HashAlgorithm hashAlgo);

  // After a failed step a computation is undefined: abandon the derivation. When finishing fails, output has its new
  // size and undefined contents.
  bool generatePRStream(const ByteVector* input, ByteVector* output) override;

  // 20, 32, 48 or 64; 0, with an error line, before initHmacPRFunc.
  std::size_t getOutputSize() override;

  // The same as getOutputSize (RFC 7296 section 2.12: the preferred key size of an HMAC is its output's).
  std::size_t getKeySize() override;

  // A null key before any real one is a caller's error with undefined behaviour. After a failure, what was computed
  // under the old key must not go on.
  bool setKey(const ByteVector* key) override;

  ~HmacPRFunc() override;

 private:
  const EVP_MD* md;
  hmac_ctx hmacCtx;
  bool keySet;
  bool initialized;
  const ByteVector* key;
};

// PRFuncPlus is the endless stream of key material prf+ (RFC 7296 section 2.13), or the chained expansion without the
// counter of IKEv1's quick mode (RFC 2409 section 5.5).
//
// The PRFunc is borrowed, and must be keyed and used by nobody else while the stream is drawn. Any PRFunc will do.
class IPSEC_EXPORT PRFuncPlus {
 public:
  PRFuncPlus(PRFunc* prf, bool counterEnabled);
  ~PRFuncPlus();
  PRFuncPlus(const PRFuncPlus&) = delete;
  PRFuncPlus& operator=(const PRFuncPlus&) = delete;

  // Copies the seed and computes the first block. Returns true at once when it has succeeded before: seed and position
  // stay.
  bool initPRFuncPlus(const ByteVector* seed);

  // Writes the next length bytes of the stream, whatever the pieces drawn before. RFC 7296 ends the stream after 255
  // blocks; here the one-byte counter wraps to 0 and the stream goes on: drawing no more is up to the caller.
  // On failure out has its new size and is filled up to the failure; the stream must not be used further. Clear the
  // vector when done.
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

// Returns the bytes of key material that an encryption transform takes from the stream: the key length given, or the
// fixed one of 3DES, plus the 4 salt bytes of AES-GCM (RFC 4106 section 8.1) with an 8- or a 16-byte ICV. 0 for
// ENCR_NULL. AES-GCM with a 12-byte ICV gets no salt bytes here: the caller adds 4.
// Throws std::out_of_range ("_Map_base::at") for any other transform given without a key length.
IPSEC_EXPORT std::size_t getEncryptKeyLen(EncryptAlgoWithKeyLen algo);

// Returns the key length of an integrity transform in bytes. Throws std::out_of_range ("_Map_base::at") for a transform
// that is not in IntegrityAlgo; a suite whose cipher has its own integrity (AEAD) needs 0 bytes and must not ask.
IPSEC_EXPORT std::size_t getIntegKeyLen(IntegrityAlgo algo);

// Writes a vector to std::cout for debugging: "LABEL is", "len is: N", the bytes as lower-case hex digits on one line,
// "end". It prints key material if that is what it is given. A null label puts std::cout into its bad state. Leaves the
// stream's fill character at '0'. Dumps of two threads may interleave.
IPSEC_EXPORT void printVector(const char* label, const ByteVector* vec);

// --- The IKE daemon's files -----------------------------------------------------------------------------------------
//
// Both writers rebuild the whole file beside the old one (".tmp" appended to its name) and move it into place with
// rename, so that the daemon sees the old file or the new one and nothing between. Common to both:
// - What cannot be written whole is never moved into place: the old file stays, and one line is traced ("Error renaming
//   tmp file to ..."). The temporary file stays behind; the next call empties it.
// - An exception leaves the call before anything is moved: the old file is untouched, the temporary file stays behind.
// - An old file that is missing or cannot be read counts as empty; one whose reading fails midway, as its whole lines
//   so far.
// - Values are written exactly as they are given: a newline in a value is a newline in the file. The caller checks
//   them.
// - The new file's mode comes from the process's umask, whatever the old file's was: set umask(077) around every call
//   of writeSecrets, and restore it. A temporary file that an earlier failed call left keeps the mode it was made with
//   and gives it to the new file; it also holds the keys copied so far. The umask is the whole process's: mind other
//   threads.
// - Nothing is synced to disk, and the daemon is not told: it rereads the connections on SIGHUP to its starter and the
//   secrets on `ipsec rereadsecrets`.
// - One call at a time per file, over all threads and processes: the caller serialises.

// Settings of one section or entry: the names are listed at the writers.
using stringmap = std::unordered_map<Vello::String, Vello::String>;

// Returns the name of a connection's section: "default", the first address, the second address, the source's text and
// the connection number in decimal, joined by hyphens ("default-10.0.0.1-10.0.0.2-local-7"). Which address is the local
// one is the caller's convention.
// The key's VRF must be the default VRF: any other stops the process (assertion).
IPSEC_EXPORT Vello::String getConnNameFromKey(const ConnectionKey& key);

// Adds, replaces or removes one section of the daemon's connections file, "/etc/strongswan/ipsec.conf". The section is
// taken out wherever it stands (the first of its name only) and the new one is appended at the end.
//
// What the call does:
//   config      the section's name; required for an ordinary section
//   default     "%default": the call concerns the section "conn %default". Any other value names the section to take
//               out, while the one written is named by config
//   delete      present: take the section out, write none
//   uniqueids   "add": put "config setup" with uniqueids=no at the top in place of the file's own; any other value:
//               drop the file's "config setup" section; absent: keep it
//
// What an ordinary section holds; the settings with * are required:
//   config*            conn, the head line
//   ikeVersion         keyexchange; pass ikev1, ikev2 or ike: the daemon refuses numbers
//   authby             authby; an authentication type's text, that of PreSharedKey or of PublicKey
//   ikelifetime        ikelifetime in seconds; digits only, the unit is added
//   lifetime           lifetime in seconds, likewise
//   reqid*             reqid
//   left*              left, the local address
//   leftsubnet         leftsubnet
//   localid            leftid; an X.500 name needs its quotes in the value, or the daemon refuses the whole file
//   right*             right, the remote address
//   remoteid           rightid, as localid
//   ike, esp           proposals; end them with "!", or the daemon adds its own
//   tunnelMode         "IpsecGre": leftprotoport=47 and rightprotoport=47; "IpsecVti": leftsubnet=0.0.0.0/0 and
//                      rightsubnet=0.0.0.0/0, also behind a leftsubnet of the settings
//   mark               mark
//   action             dpdaction; then interval* is dpddelay and timeout* is dpdtimeout
//   encap              present: forceencaps=yes
//   type               type
//   replayWindowSize   replay_window
//   packetLimit        lifepackets; marginpackets beside it. The daemon does not check that a margin is below its limit
//   byteLimit          lifebytes; marginbytes beside it
//   reauth             reauth
// The default section takes authby, ikelifetime, lifetime, ikeVersion, esp, ike, packetLimit, marginpackets, byteLimit
// and marginbytes, all optional. Without ikeVersion it says keyexchange=2, which the daemon does not take as a version:
// give every section its own ikeVersion.
//
// The name stands unescaped in the regular expression that finds the section ("^conn NAME$", ECMAScript): "." matches
// any character, and a name with other metacharacters means what it means as an expression. Such a name, when it is
// long or meets long lines, can exhaust the stack in the standard library's compiler or matcher; getConnNameFromKey
// makes none.
//
// Throws std::regex_error for a name that is no expression or too long for one (about 100,000 characters), and
// std::out_of_range ("_Map_base::at") for a required setting that is missing or an authby that is not one of the two
// texts.
IPSEC_EXPORT void writeConnections(stringmap settings);

// Adds, replaces or removes one pre-shared key of the daemon's secrets file, "/etc/strongswan/ipsec.secrets". The first
// entry of the peer is taken out and the new one is appended at the end.
//
//   peerIp      the peer's address as the daemon selects by it; required, except for the default entry
//   secret      "%default": the call concerns the entry for any peer; other values have no effect
//   key         the key as the file shall hold it; required unless delete is present. Quote it: the daemon cuts an
//               unquoted key at a blank ("0x" and "0s" introduce hexadecimal and base64)
//   delete      present: take the entry out, write none
//
// The address stands unescaped in the regular expression that finds the entry ("^ADDRESS :"), as above.
//
// Throws std::regex_error for an address that is no expression or too long for one, and std::out_of_range
// ("_Map_base::at") for a required setting that is missing.
IPSEC_EXPORT void writeSecrets(stringmap entry);

// --- Host control ---------------------------------------------------------------------------------------------------

// Runs a program and waits for it, with no time limit. argv is null-terminated, argv[0] the program's absolute path.
// Returns the raw wait status as waitpid gives it (0: exit code 0; exit code << 8; the signal's number), or -1 when the
// wait failed: the program could not be started, somebody else reaped it, or a signal handler without SA_RESTART
// interrupted the wait and the child is left for the caller to reap. errno is ECHILD in the first two cases and EINTR
// in the third.
IPSEC_EXPORT int _execCommand(const char** argv);

// Load and unload the kernel's crypto modules (aes-x86_64, aesni_intel, crypto_null) with /sbin/modprobe and
// /sbin/rmmod, one after the other. A module that cannot be loaded is not an error: only a command that could not be
// run or waited for is reported (level 1), and the next one goes on. Need CAP_SYS_MODULE.
IPSEC_EXPORT void enableCryptoModules();
IPSEC_EXPORT void disableCryptoModules();

// Loads the netfilter module ipsec_flow_parallelization, in the same way; its failure is reported at level 0.
IPSEC_EXPORT void enableFlowEncapModule();

// Raises the kernel's limit of an IPsec state's replay window to 65536 packets, by writing
// /proc/sys/net/core/xfrm_replay_esn_max. Every call traces the attempt at level 1, as a failure is traced; a host
// without the setting, or a caller without the right, adds a second line. A value that the kernel refuses adds none.
IPSEC_EXPORT void setMaxReplayWindow();

// Tells whether the IKE daemon runs: whether the process named by the first line of
// /etc/strongswan/ipsec.d/run/charon.pid can be signalled by the caller. False for a missing, unreadable or empty file,
// and for a process of another user that the caller may not signal. errno is kept by the conversion of the number.
// Throws std::invalid_argument ("stoi") for a first line that does not begin with a number and std::out_of_range
// ("stoi") for one outside the range of an int.
IPSEC_EXPORT bool isSswanRunning();

// Returns a VRF's name from the VRF status table. A damaged table's message goes to the table's corruption handler.
// A VRF that the table does not hold, or one without a name, stops the process (assertion).
// Throws Vello::RangeException for a stored name above 100 bytes.
IPSEC_EXPORT L3::VrfName vrfIdToName(Vrf::VrfIdMap::VrfId vrfId, const Vello::Ptr<const Vrf::VrfIdMap::Status>& status);

// Returns count blanks.
IPSEC_EXPORT std::string fillSpace(unsigned int count);

// Returns the smallest multiple of 32 that is not below value; 0 for 0 and, wrapping around, above 4294967264.
IPSEC_EXPORT unsigned int roundUp(unsigned int value);

// Returns "YYYY-MM-DD hh:mm:ss" in the host's time zone for a time in seconds since the epoch, the fraction dropped
// toward zero. Empty for a time whose year does not fit an int.
IPSEC_EXPORT Cor::String secondsToTimestamp(Vello::Duration time);

}  // namespace Ipsec

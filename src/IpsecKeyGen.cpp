// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Key material: HMAC PRF, prf+, nonces, key lengths, OpenSSL set-up, byte dumps.

#include "AlgorithmTables.h"
#include "CheckedAt.h"
#include "Ipsec.h"
#include "Tracer.h"
#include "base/CancellationHeld.h"
#include "base/SecretBytes.h"
#include "platform/CryptoShim.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <iomanip>
#include <iostream>

namespace Ipsec {
namespace {

const Tracer<4> trace("IpsecKeyGen");

}  // namespace

// --- PRF ------------------------------------------------------------------------------------------------------------

namespace {

// Ends a computation without its output. hmac_update then fails until a key is installed, so that input absorbed before
// an exception cannot get into the next output.
void abandon(hmac_ctx* context) {
  std::size_t written = 0;
  (void)hmac_final(context, nullptr, 0, &written);
}

}  // namespace

PRFunc::~PRFunc() = default;

HmacPRFunc::HmacPRFunc() : md(nullptr), hmacCtx{}, keySet(false), initialized(false), key(nullptr) {}

HmacPRFunc::~HmacPRFunc() {
  trace.entered();
  (void)hmac_cleanup(&hmacCtx);  // always returns 0
}

bool HmacPRFunc::initHmacPRFunc(HashAlgorithm hashAlgo) {
  const Base::CancellationHeld held;
  trace.entered();
  if (initialized) {
    return true;  // Kept (second-hmac-init): the digest stays, whatever hashAlgo is.
  }
  md = EVP_get_digestbyname(checkedAt(hashAlgoToName, hashAlgo));
  if (md == nullptr) {
    return trace.failed("HmacPRFunc::initHmacPRFunc", "Failed to get the hash function by hashAlgo's name");
  }
  (void)hmac_create(&hmacCtx);  // Kept (hmac-context-unchecked): without a context, setKey fails
  initialized = true;
  return true;
}

bool HmacPRFunc::setKey(const ByteVector* newKey) {
  trace.entered();
  if (!initialized) {
    return trace.failed("HmacPRFunc::setKey", "HmacPRFunc is not initialized");
  }
  if (newKey != nullptr) {
    key = newKey;  // Kept (refused-key-remembered): even if it is refused below. An object with a key stays so.
  }
  if (hmac_init(&hmacCtx, md, key->data(), key->size()) != 0) {
    return trace.failed("HmacPRFunc::setKey", "HMAC_Init_ex failed");
  }
  keySet = true;
  return true;
}

std::size_t HmacPRFunc::getOutputSize() {
  trace.entered();
  if (!initialized) {
    trace.failed("HmacPRFunc::getOutputSize", "HmacPRFunc is not initialized");
    return 0;
  }
  return static_cast<std::size_t>(EVP_MD_get_size(md));
}

std::size_t HmacPRFunc::getKeySize() {
  trace.entered();
  return getOutputSize();  // Kept (key-size-by-slot): the call is virtual, so an override changes both.
}

bool HmacPRFunc::generatePRStream(const ByteVector* input, ByteVector* output) {
  trace.entered();
  if (!initialized) {
    return trace.failed("HmacPRFunc::generatePRStream", "HmacPRFunc is not initialized");
  }
  if (!keySet) {
    return trace.failed("HmacPRFunc::generatePRStream", "Has not set the key");
  }
  if (output != nullptr) {
    output->reserve(EVP_MAX_MD_SIZE);  // before anything is absorbed: after std::bad_alloc the call can be repeated
  }
  if (hmac_update(&hmacCtx, input->data(), input->size()) != 0) {
    return trace.failed("HmacPRFunc::generatePRStream", "HMAC_Update failed");
  }
  if (output == nullptr) {
    return true;
  }
  try {
    output->resize(getOutputSize());
  } catch (...) {  // an override wants more than a digest has
    abandon(&hmacCtx);
    throw;
  }
  std::size_t written = 0;
  // Kept (written-output-counts): written shows whether it succeeded. The result is ignored.
  (void)hmac_final(&hmacCtx, output->data(), output->size(), &written);
  if (written == 0) {
    return trace.failed("HmacPRFunc::generatePRStream", "HMAC_Final failed");
  }
  // Kept (key-read-again): the caller's bytes are read after every output. A change takes effect after the next one.
  if (!setKey(nullptr)) {
    return trace.failed("HmacPRFunc::generatePRStream", "Set key to original failed");
  }
  return true;
}

// --- prf+ -----------------------------------------------------------------------------------------------------------

namespace {

// Finishes the computation of a block, prf(K, ... | S [| n]): absorbs the seed and, in a stream with a counter, the
// block's number. The block may be the vector that was absorbed first, because all input is absorbed before the output
// is written.
bool finishBlock(PRFunc& prf, const ByteVector& seed, const ByteVector& number, ByteVector* block) {
  if (number.empty()) {
    return prf.generatePRStream(&seed, block);
  }
  return prf.generatePRStream(&seed, nullptr) && prf.generatePRStream(&number, block);
}

// Computes T(n) in the place of T(n-1). Returns null, or what failed.
const char* nextBlock(PRFunc& prf, const ByteVector& seed, const ByteVector& number, ByteVector* block) {
  if (!prf.generatePRStream(block, nullptr)) {
    return "GeneratePRStream from buffer failed";
  }
  if (finishBlock(prf, seed, number, block) && !block->empty()) {  // a stream of empty blocks would have no end
    return nullptr;
  }
  return number.empty() ? "Non-counter based generatePRStream failed" : "Counter based generatePRStream failed";
}

}  // namespace

PRFuncPlus::PRFuncPlus(PRFunc* keyedPrf, bool withCounter)
    : prf(keyedPrf), counter(0), bufferPos(0), counterEnabled(withCounter), initialized(false) {}

PRFuncPlus::~PRFuncPlus() {
  Base::clearAll(seed);  // for a child SA with a key exchange of its own, it begins with the secret
  Base::clearAll(buffer);
}

// T(1) = prf(K, S [| 1])
bool PRFuncPlus::initPRFuncPlus(const ByteVector* newSeed) {
  trace.entered();
  if (initialized) {
    return true;  // Kept (second-stream-init): seed and position stay.
  }
  Base::clearAll(seed);  // that of a failed attempt
  seed = *newSeed;
  ByteVector number;
  if (counterEnabled) {
    counter = 1;
    number.assign(1, counter);
  }
  buffer.reserve(EVP_MAX_MD_SIZE);  // HmacPRFunc then has nothing to allocate once the seed has been absorbed
  bool finished = false;
  try {
    finished = finishBlock(*prf, seed, number, &buffer);
  } catch (...) {
    (void)prf->setKey(nullptr);  // discards what has been absorbed, so that the call can be repeated
    throw;
  }
  if (!finished) {
    return trace.failed("PRFuncPlus::initPRFuncPlus", counterEnabled
                                                          ? "Failed to init prf function plus with counter enabled"
                                                          : "Failed to init prf function plus with counter disabled");
  }
  if (counterEnabled) {
    ++counter;
  }
  initialized = true;
  return true;
}

// T(n) = prf(K, T(n-1) | S [| n]), and T(n) takes the place of T(n-1).
bool PRFuncPlus::generatePRStream(std::size_t length, ByteVector* out) {
  trace.entered();
  if (!initialized) {
    return trace.failed("PRFuncPlus::generatePRStream", "PRFuncPlus is not initialized");
  }
  out->resize(length);  // Kept (failed-draw): after a failure out has this size and is filled up to the failure.
  ByteVector number;
  if (counterEnabled && bufferPos + length > buffer.size()) {
    number.resize(1);  // before anything is drawn: after std::bad_alloc the call can be repeated
  }
  for (std::size_t written = 0; written < length;) {
    // The position is past the end only if a failed block came out shorter than the one drawn from before.
    if (bufferPos >= buffer.size()) {
      if (counterEnabled) {
        number.front() = counter;
      }
      const char* failure = nullptr;
      try {
        failure = nextBlock(*prf, seed, number, &buffer);
      } catch (...) {  // HmacPRFunc throws nothing here. How far another function's stream got, nobody can tell.
        (void)prf->setKey(nullptr);
        initialized = false;
        bufferPos = 0;
        throw;
      }
      if (failure != nullptr) {
        return trace.failed("PRFuncPlus::generatePRStream", failure);
      }
      if (counterEnabled) {
        // Kept (counter-wraps): to 0 after block 255. The limit of RFC 7296 section 2.13 is not enforced here.
        ++counter;
      }
      bufferPos = 0;
    }
    const std::size_t count = std::min(length - written, buffer.size() - bufferPos);
    std::copy_n(buffer.data() + bufferPos, count, out->data() + written);
    bufferPos += count;
    written += count;
  }
  return true;
}

// --- Nonces ---------------------------------------------------------------------------------------------------------

NonceGenerator::NonceGenerator() : nonceLen(32) {}

NonceGenerator::NonceGenerator(unsigned long length) : nonceLen(length) {}

bool NonceGenerator::generateNonce(ByteVector* out) {
  const Base::CancellationHeld held;
  trace.entered();
  out->resize(nonceLen);
  // Kept (nonce-only-minus-one): only -1 is a failure. OpenSSL 3 returns 0 when its generator fails, and the bytes are
  // then not random.
  if (RAND_bytes(out->data(), static_cast<int>(nonceLen)) == -1) {
    return trace.failed("NonceGenerator::generateNonce", "Failed to generate random number");
  }
  return true;
}

bool NonceGenerator::generateFullNonce(ByteVector* out, const ByteVector* nonce1, const ByteVector* nonce2) {
  trace.entered();
  if (nonce1->size() != nonce2->size()) {
    return trace.failed("NonceGenerator::generateFullNonce", "Two nonces should have the same length");
  }
  out->clear();
  out->reserve(nonce1->size() + nonce2->size());
  out->insert(out->end(), nonce1->begin(), nonce1->end());
  out->insert(out->end(), nonce2->begin(), nonce2->end());
  return true;
}

// --- Key lengths ----------------------------------------------------------------------------------------------------

std::size_t getEncryptKeyLen(EncryptAlgoWithKeyLen algo) {
  constexpr std::size_t gcmSaltBytes = 4;  // RFC 4106 section 8.1
  // Kept (given-length-wins): even for 3DES, whose length is fixed. ENCR_NULL needs no key, whatever length is given.
  if (algo.algo == ENCR_NULL) {
    return 0;
  }
  const std::uint64_t bits =
      algo.keyLen != 0 ? algo.keyLen : static_cast<std::uint64_t>(checkedAt(encryptAlgoToKeyBits, algo.algo));
  // Kept (gcm-12-unsalted): not with a 12-byte ICV. Callers that negotiate that add the 4 bytes themselves.
  const bool salted = algo.algo == ENCR_AES_GCM_8 || algo.algo == ENCR_AES_GCM_16;
  return bits / 8 + (salted ? gcmSaltBytes : 0);
}

std::size_t getIntegKeyLen(IntegrityAlgo algo) {
  return static_cast<std::size_t>(checkedAt(integAlgoToKeyBits, algo)) / 8;
}

// --- Set-up and dumps -----------------------------------------------------------------------------------------------

int initKeyGenLib() {
  const Base::CancellationHeld held;
  return OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
}

void cleanupKeyGenLib() {}

void printVector(const char* label, const ByteVector* vec) {
  std::cout << label;  // Kept (null-label): a null label puts the stream into its bad state.
  std::cout << " is\nlen is: " << std::dec << vec->size() << '\n';
  for (const int byte : *vec) {
    std::cout << std::setw(2) << std::setfill('0') << std::hex << byte;
  }
  // Kept (fill-character): only the base is restored. The fill character stays '0'.
  std::cout << std::dec << "\nend\n";
}

}  // namespace Ipsec

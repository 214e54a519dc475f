// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The part of the crypto shim that computes HMAC in pieces, with two keyed digest states.

#include "base/MadeOnce.h"
#include "base/OpenSslPtr.h"
#include "base/SecretBytes.h"
#include "platform/CryptoShim.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

namespace {

using Base::DigestContextPtr;
using Base::DigestPtr;
using Base::MadeOnce;
using Base::SecretBytes;

// The pads of RFC 2104, which are absorbed before the inner and the outer hash.
constexpr unsigned char innerPad = 0x36;
constexpr unsigned char outerPad = 0x5c;
constexpr std::size_t maxBlockBytes = 144;  // the longest block of OpenSSL's digests, SHA3-224's

// A copy of the last key, to recognise the same key when it comes again. Longer keys are never recognised: 512 bytes
// hold the two longest nonces that IKE allows (RFC 7296 section 2.10).
class KeyCopy {
 public:
  KeyCopy() = default;
  ~KeyCopy() { clear(); }
  KeyCopy(const KeyCopy&) = delete;
  KeyCopy& operator=(const KeyCopy&) = delete;

  // Takes the same time wherever two keys of the same length differ, as CRYPTO_memcmp does. That function compares byte
  // by byte, which would add a tenth to the time of an output.
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

  // The copy must be clear.
  void assign(const unsigned char* key, std::size_t keyLen) {
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

// Holds two digest states that have absorbed a padded key. They are copied for each computation, so that an unchanged
// key costs two copies instead of two more blocks and an initialisation. OpenSSL clears a state's memory when it frees
// it.
//
// Short input is collected and absorbed at once: the input of a prf+ block comes in three pieces, and every call takes
// its time.
struct hmac_state {
  const EVP_MD* requested = nullptr;    // the digest that the caller named
  const EVP_MD_CTX* unkeyed = nullptr;  // the same digest, looked up and started
  DigestContextPtr owned;               // owns unkeyed, unless that is shared
  std::size_t macLength = 0;
  DigestContextPtr inner{EVP_MD_CTX_new()};
  DigestContextPtr outer{EVP_MD_CTX_new()};
  DigestContextPtr running{EVP_MD_CTX_new()};
  KeyCopy key;
  std::array<unsigned char, 256> pending;  // input that running has not absorbed yet
  std::size_t pendingLength = 0;
  std::size_t pendingUsed = 0;  // the most that any computation used, which must be cleared
  bool open = false;            // a computation is under way
  bool started = false;         // running holds its state

  ~hmac_state() { OPENSSL_cleanse(pending.data(), pendingUsed); }
};

namespace {

// The digests of IKE's PRFs. Looking one up takes as long as a short output.
constexpr std::array<int, 4> digestNids = {NID_sha1, NID_sha256, NID_sha384, NID_sha512};

// A state that has absorbed nothing, of each. Copying it costs less than starting another one.
std::array<MadeOnce<DigestContextPtr>, digestNids.size()> keptStates;

DigestContextPtr startedState(const EVP_MD* md) {
  const DigestPtr fetched(EVP_MD_fetch(nullptr, EVP_MD_get0_name(md), nullptr));
  DigestContextPtr state(EVP_MD_CTX_new());
  if (!fetched || !state || EVP_DigestInit_ex2(state.get(), fetched.get(), nullptr) != 1) {
    return nullptr;
  }
  return state;
}

bool startDigest(hmac_state& state, const EVP_MD* md) {
  if (state.requested == md) {
    return true;
  }
  state.requested = nullptr;
  const auto* found = std::find(digestNids.begin(), digestNids.end(), EVP_MD_get_type(md));
  if (found == digestNids.end()) {
    state.owned = startedState(md);
    state.unkeyed = state.owned.get();
  } else {
    const auto index = static_cast<std::size_t>(found - digestNids.begin());
    state.unkeyed = keptStates[index].get([md] { return startedState(md); });
  }
  if (state.unkeyed == nullptr) {
    return false;
  }
  state.requested = md;
  state.macLength = static_cast<std::size_t>(EVP_MD_CTX_get_size(state.unkeyed));
  return true;
}

bool absorbFirst(EVP_MD_CTX* context, const EVP_MD_CTX* unkeyed, const unsigned char* block, std::size_t length) {
  return EVP_MD_CTX_copy_ex(context, unkeyed) == 1 && EVP_DigestUpdate(context, block, length) == 1;
}

// Prepares both states for a key. A key longer than a block is hashed first (RFC 2104 section 2).
bool absorbKey(hmac_state& state, const unsigned char* key, std::size_t keyLen) {
  const EVP_MD* md = EVP_MD_CTX_get0_md(state.unkeyed);
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
  absorbed = absorbed && absorbFirst(state.inner.get(), state.unkeyed, block.data(), length);
  pad(innerPad ^ outerPad);  // from one pad to the other
  absorbed = absorbed && absorbFirst(state.outer.get(), state.unkeyed, block.data(), length);
  OPENSSL_cleanse(block.data(), length);
  return absorbed;
}

// Out of line, so that a key that comes again, as it does after every output, does not pay for it.
[[gnu::noinline]] bool installKey(hmac_state& state, const EVP_MD* md, const unsigned char* key, std::size_t keyLen) {
  state.key.clear();  // the states belong to no key until both are ready
  if (!startDigest(state, md) || !absorbKey(state, key, keyLen)) {
    return false;
  }
  state.key.assign(key, keyLen);
  return true;
}

bool isInstalled(const hmac_state& state, const EVP_MD* md, const unsigned char* key, std::size_t keyLen) {
  return state.requested == md && state.key.equals(key, keyLen);
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

// Writes the MAC. The inner hash is in the same bytes before it.
bool finish(hmac_state& state, unsigned char* mac) {
  EVP_MD_CTX* running = state.running.get();
  return absorbPending(state) && EVP_DigestFinal_ex(running, mac, nullptr) == 1 &&
         EVP_MD_CTX_copy_ex(running, state.outer.get()) == 1 && EVP_DigestUpdate(running, mac, state.macLength) == 1 &&
         EVP_DigestFinal_ex(running, mac, nullptr) == 1;
}

}  // namespace

int hmac_create(hmac_ctx* ctx) {
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

int hmac_init(hmac_ctx* ctx, const EVP_MD* md, const unsigned char* key, std::size_t keyLen) {
  hmac_state* state = ctx->state;
  if (state == nullptr) {
    return 1;
  }
  state->open = md != nullptr && (isInstalled(*state, md, key, keyLen) || installKey(*state, md, key, keyLen));
  state->started = false;
  state->pendingLength = 0;
  return state->open ? 0 : 1;
}

int hmac_update(hmac_ctx* ctx, const unsigned char* data, std::size_t dataLen) {
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

int hmac_final(hmac_ctx* ctx, unsigned char* out, std::size_t outSize, std::size_t* written) {
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

int hmac_cleanup(hmac_ctx* ctx) {
  delete ctx->state;
  ctx->state = nullptr;
  return 0;
}

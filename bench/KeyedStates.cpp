// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "KeyedStates.h"

#include <algorithm>
#include <array>
#include <map>
#include <string>

namespace Bench {
namespace {

constexpr unsigned char innerPad = 0x36;
constexpr unsigned char outerPad = 0x5c;
constexpr std::size_t maxBlock = 128;

bool absorbPad(EVP_MD_CTX* state, const EVP_MD* md, const unsigned char* key, std::size_t length, unsigned char pad) {
  std::array<unsigned char, maxBlock> padded;
  padded.fill(pad);
  for (std::size_t i = 0; i < length; ++i) {
    padded[i] = static_cast<unsigned char>(key[i] ^ pad);
  }
  return EVP_DigestInit_ex2(state, md, nullptr) == 1 &&
         EVP_DigestUpdate(state, padded.data(), static_cast<std::size_t>(EVP_MD_get_block_size(md))) == 1;
}

bool absorbAndFinish(EVP_MD_CTX* state, const unsigned char* input, std::size_t length, unsigned char* output) {
  return EVP_DigestUpdate(state, input, length) == 1 && EVP_DigestFinal_ex(state, output, nullptr) == 1;
}

}  // namespace

const EVP_MD* fetchedDigest(const char* name) {
  static std::map<std::string, Base::DigestPtr, std::less<>> fetched;
  Base::DigestPtr& digest = fetched[name];
  if (!digest) {
    digest.reset(EVP_MD_fetch(nullptr, name, nullptr));
  }
  return digest.get();
}

KeyedStates::KeyedStates(const EVP_MD* digest)
    : md(digest),
      outputSize(static_cast<std::size_t>(EVP_MD_get_size(digest))),
      inner(EVP_MD_CTX_new()),
      outer(EVP_MD_CTX_new()),
      running(EVP_MD_CTX_new()) {}

bool KeyedStates::setKey(const unsigned char* key, std::size_t length) {
  return absorbPad(inner.get(), md, key, length, innerPad) && absorbPad(outer.get(), md, key, length, outerPad);
}

bool KeyedStates::start() {
  return EVP_MD_CTX_copy_ex(running.get(), inner.get()) == 1;
}

bool KeyedStates::absorb(const unsigned char* input, std::size_t length) {
  return EVP_DigestUpdate(running.get(), input, length) == 1;
}

bool KeyedStates::finish(unsigned char* output) {
  return EVP_DigestFinal_ex(running.get(), output, nullptr) == 1 &&
         EVP_MD_CTX_copy_ex(running.get(), outer.get()) == 1 && absorb(output, outputSize) &&
         EVP_DigestFinal_ex(running.get(), output, nullptr) == 1;
}

bool KeyedStates::expand(const Bytes& seed, Bytes& out) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> block;
  std::size_t previous = 0;  // the first block has no T in front
  unsigned char counter = 0;
  for (std::size_t written = 0; written < out.size(); written += outputSize) {
    ++counter;
    if (!start() || !absorb(block.data(), previous) || !absorb(seed.data(), seed.size()) || !absorb(&counter, 1) ||
        !finish(block.data())) {
      return false;
    }
    previous = outputSize;
    std::copy_n(block.data(), std::min(outputSize, out.size() - written), out.data() + written);
  }
  return true;
}

bool KeyedStates::expandJoined(const Bytes& seed, Bytes& out) {
  Bytes input(outputSize + seed.size() + 1);
  std::copy(seed.begin(), seed.end(), input.begin() + static_cast<std::ptrdiff_t>(outputSize));
  std::size_t skipped = outputSize;  // the first block has no T in front
  for (std::size_t written = 0; written < out.size(); written += outputSize) {
    ++input.back();
    if (!start() || !absorb(input.data() + skipped, input.size() - skipped) || !finish(input.data())) {
      return false;
    }
    skipped = 0;
    std::copy_n(input.data(), std::min(outputSize, out.size() - written), out.data() + written);
  }
  return true;
}

bool hmacOnce(const EVP_MD* md, const Bytes& key, const Bytes& input, unsigned char* output) {
  const Base::DigestContextPtr state(EVP_MD_CTX_new());
  return state && absorbPad(state.get(), md, key.data(), key.size(), innerPad) &&
         absorbAndFinish(state.get(), input.data(), input.size(), output) &&
         absorbPad(state.get(), md, key.data(), key.size(), outerPad) &&
         absorbAndFinish(state.get(), output, static_cast<std::size_t>(EVP_MD_get_size(md)), output);
}

}  // namespace Bench

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// prf+ with the counter, from key and seed to 224 and 4096 bytes, for each hash. Compares the library's objects with
// digest states that are copied by hand, in two ways: absorbing T(n-1), S and n one after the other, as a PRF does that
// is given its input in pieces, and joined beforehand, which only a caller can do who has all of the input.

#include "Interleave.h"
#include "Ipsec.h"
#include "KeyedStates.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>

namespace Bench {
namespace {

struct Hash {
  Ipsec::HashAlgorithm algorithm;
  const char* name;
  std::size_t outputSize;
};

constexpr std::array<Hash, 4> hashes = {{{Ipsec::HASH_SHA1, "SHA1", 20},
                                         {Ipsec::HASH_SHA256, "SHA256", 32},
                                         {Ipsec::HASH_SHA384, "SHA384", 48},
                                         {Ipsec::HASH_SHA512, "SHA512", 64}}};

constexpr std::array<std::size_t, 2> lengths = {224, 4096};

void drawFromLibrary(const Hash& hash, const Bytes& key, const Bytes& seed, std::size_t length, Bytes& out) {
  Ipsec::HmacPRFunc prf;
  Ipsec::PRFuncPlus stream(&prf, true);
  require(prf.initHmacPRFunc(hash.algorithm) && prf.setKey(&key) && stream.initPRFuncPlus(&seed) &&
              stream.generatePRStream(length, &out),
          "the library draws nothing");
}

using Expand = bool (KeyedStates::*)(const Bytes&, Bytes&);

void drawByHand(Expand expand, const Hash& hash, const Bytes& key, const Bytes& seed, std::size_t length, Bytes& out) {
  KeyedStates prf(fetchedDigest(hash.name));
  out.resize(length);
  require(prf.setKey(key.data(), key.size()) && (prf.*expand)(seed, out), "OpenSSL draws nothing");
}

void run(const Hash& hash, std::size_t length, const std::string& name, unsigned slices) {
  const Bytes key(hash.outputSize, 0x5a);
  const Bytes seed(80, 0xc3);  // two nonces of 32 bytes and two SPIs
  Bytes ours;
  Bytes theirs;
  const std::vector<Side> sides = {
      {"library", [&] { drawFromLibrary(hash, key, seed, length, ours); }},
      {"openssl", [&] { drawByHand(&KeyedStates::expand, hash, key, seed, length, theirs); }},
      {"openssl joined", [&] { drawByHand(&KeyedStates::expandJoined, hash, key, seed, length, theirs); }}};
  sides[0].operation();
  for (std::size_t i = 1; i < sides.size(); ++i) {
    theirs.clear();
    sides[i].operation();
    require(ours == theirs, name + ": the library and " + sides[i].name + " differ");
  }
  const std::vector<double> times = interleave(sides, slices);
  for (std::size_t i = 0; i < sides.size(); ++i) {
    print("prf+", name, sides[i].name, "us", times[i] / 1000);
  }
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  const Bench::Arguments arguments(argc, argv);
  try {
    for (const std::size_t length : Bench::lengths) {
      for (const Bench::Hash& hash : Bench::hashes) {
        const std::string name = std::string(hash.name) + " " + std::to_string(length);
        if (arguments.wants(name)) {
          Bench::run(hash, length, name, arguments.slices);
        }
      }
    }
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "%s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

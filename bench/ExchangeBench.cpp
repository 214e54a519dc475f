// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A whole IKE SA set-up for each group: a key pair and its public value, the peer's value, the secret, nonces,
// seven keys. The library, bare OpenSSL and Botan are compared by output first, then timed with fresh keys for every
// exchange.

#include "End.h"
#include "Interleave.h"

#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>

namespace Bench {

namespace {

struct Case {
  unsigned group;
  std::size_t privateBytes;  // of keys to import: below every order
};

constexpr std::array<Case, 11> cases = {
    {{1, 24}, {2, 24}, {5, 31}, {14, 31}, {15, 39}, {16, 47}, {17, 47}, {19, 31}, {20, 47}, {21, 65}, {24, 31}}};

std::string named(const Case& which, const char* contestant) {
  return "group " + std::to_string(which.group) + ": " + contestant;
}

Bytes randomBytes(std::size_t length) {
  Bytes bytes(length);
  require(RAND_bytes(bytes.data(), static_cast<int>(length)) == 1, "no random bytes");
  bytes.front() |= 1;  // the full length: no leading zero byte
  return bytes;
}

Yield exchangeWith(const Contestant& contestant, const Case& which, const Bytes& privateKey, const Bytes& peer,
                   const Bytes& nonces) {
  const std::unique_ptr<End> end = contestant.make(which.group);
  Yield yield;
  yield.nonces = nonces;
  require(end->import(privateKey) && end->publicValue(yield.publicValue) && end->agree(peer, yield.secret) &&
              end->keys(yield.secret, nonces, yield.keys),
          named(which, contestant.name) + " fails with an imported key");
  return yield;
}

// The same private key, peer value and nonces give the same public value, secret and keys.
void compareImported(const Case& which, const std::vector<Contestant>& contestants) {
  const Bytes privateKey = randomBytes(which.privateBytes);
  const Bytes peer = publicValueOf(*opensslEnd(which.group));
  const Bytes nonces = randomBytes(2 * nonceBytes);
  const Yield expected = exchangeWith(contestants.front(), which, privateKey, peer, nonces);
  for (const Contestant& other : contestants) {
    require(exchangeWith(other, which, privateKey, peer, nonces) == expected,
            named(which, other.name) + " and " + contestants.front().name + " differ");
  }
}

// Two ends of different implementations, with fresh keys, compute the same secret.
void compareFresh(const Case& which, const std::vector<Contestant>& contestants) {
  for (const Contestant& other : contestants) {
    const std::unique_ptr<End> ours = contestants.front().make(which.group);
    const std::unique_ptr<End> theirs = other.make(which.group);
    const Bytes ourValue = publicValueOf(*ours);
    const Bytes theirValue = publicValueOf(*theirs);
    Bytes ourSecret;
    Bytes theirSecret;
    require(ours->agree(theirValue, ourSecret) && theirs->agree(ourValue, theirSecret) && ourSecret == theirSecret,
            named(which, other.name) + " and " + contestants.front().name + " do not agree");
  }
}

// A refusal costs as much as an acceptance, so all implementations must refuse.
void compareRefusals(const Case& which, const std::vector<Contestant>& contestants) {
  for (const Contestant& contestant : contestants) {
    const std::unique_ptr<End> end = contestant.make(which.group);
    Bytes bad = publicValueOf(*end);
    std::fill(bad.begin(), bad.end(), static_cast<unsigned char>(0));
    bad.back() = 1;
    bool refused = false;
    try {
      Bytes secret;
      refused = !end->agree(bad, secret);
    } catch (const std::exception&) {
      refused = true;  // Botan throws
    }
    require(refused, named(which, contestant.name) + " takes a bad peer value");
  }
}

void time(const Case& which, const std::vector<Contestant>& contestants, unsigned slices) {
  std::vector<Bytes> peers(8);
  for (Bytes& peer : peers) {
    peer = publicValueOf(*opensslEnd(which.group));
  }
  Yield yield;
  std::vector<Side> sides;
  sides.reserve(contestants.size());
  for (const Contestant& contestant : contestants) {
    sides.push_back({contestant.name, [&, turn = std::size_t{0}]() mutable {
                       exchange(contestant, which.group, peers[turn++ % peers.size()], yield);
                     }});
  }
  const std::vector<double> times = interleave(sides, slices);
  for (std::size_t i = 0; i < sides.size(); ++i) {
    print("ike-sa", std::to_string(which.group), sides[i].name, "us", times[i] / 1000);
  }
}

// The ratio to bare OpenSSL is what counts, so these two run by themselves. Botan follows with fewer slices.
void run(const Case& which, unsigned slices) {
  const std::vector<Contestant> pair = {{"library", libraryEnd}, {"openssl", opensslEnd}};
  std::vector<Contestant> all = pair;
  const bool withBotan = botanEnd(which.group) != nullptr;
  if (withBotan) {
    all.push_back({"botan", botanEnd});
  }
  for (int i = 0; i < 3; ++i) {
    compareImported(which, all);
    compareFresh(which, all);
  }
  compareRefusals(which, all);
  time(which, pair, slices);
  if (withBotan) {
    time(which, {{"botan", botanEnd}}, std::max(1U, slices / 8));
  }
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  const Bench::Arguments arguments(argc, argv);
  try {
    for (const Bench::Case& which : Bench::cases) {
      if (arguments.wants(std::to_string(which.group))) {
        Bench::run(which, arguments.slices);
      }
    }
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "%s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

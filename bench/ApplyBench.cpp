// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Configuring many connections: one call of applyConnections compared with one call of writeConnections for each. Runs
// in its own mount namespace, on a tmpfs.
//
// Times are CPU times of the calling thread. What a call waits for the disk is the rest of its duration, and shown
// apart, for a file in the working folder.

#include "Interleave.h"
#include "IpsecDaemon.h"
#include "tests/support/PrivateMounts.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace Bench {
namespace {

using Ipsec::stringmap;
using Changes = std::vector<stringmap>;

constexpr std::size_t mostSingleCalls = 10000;

// An address of IPv4 or IPv6 with parts of all lengths.
std::string address(std::mt19937& random) {
  const auto part = [&random](unsigned limit, unsigned digit) {
    return 1 + random() % limit / (random() % 2 == 0 ? digit : 1) / (random() % 2 == 0 ? digit : 1);
  };
  std::array<char, 48> text;
  if (random() % 2 == 0) {
    (void)std::snprintf(text.data(), text.size(), "%lu.%lu.%lu.%lu", part(223, 10), part(255, 10), part(255, 10),
                        part(255, 10));
  } else {
    (void)std::snprintf(text.data(), text.size(), "2001:%lx:%lx::%lx:%lx", part(65535, 16), part(65535, 16),
                        part(65535, 16), part(65535, 16));
  }
  return text.data();
}

Changes connections(std::size_t count) {
  std::mt19937 random(4711);
  Changes changes;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string ours = address(random);
    const std::string theirs = address(random);
    const Ipsec::ConnectionKey key(Vrf::VrfIdMap::VrfId::defaultVrf(), static_cast<unsigned>(i + 1),
                                   Ipsec::ConnIdSrc::Local, Ipnet::IpGenAddr(ours.c_str()),
                                   Ipnet::IpGenAddr(theirs.c_str()));
    changes.push_back({{"config", Ipsec::getConnNameFromKey(key)},
                       {"ikeVersion", "ikev2"},
                       {"authby", Ipsec::Ike::stringValue(Ipsec::Ike::IpsecAuthType::PreSharedKey)},
                       {"ikelifetime", "28800"},
                       {"lifetime", "3600"},
                       {"reqid", std::to_string(i + 1)},
                       {"left", ours},
                       {"right", theirs},
                       {"ike", "aes256-sha256-modp2048!"},
                       {"esp", "aes256gcm16!"}});
  }
  return changes;
}

Changes removals(const Changes& changes) {
  Changes removing;
  std::transform(changes.rbegin(), changes.rend(), std::back_inserter(removing), [](const stringmap& change) {
    return stringmap{{"config", change.at("config")}, {"delete", ""}};
  });
  return removing;
}

double applied(const Changes& changes) {
  return timeOf([&] { require(Ipsec::applyConnections(changes), "a change is refused"); });
}

double calledOneByOne(const Changes& changes) {
  return timeOf([&] {
    for (const stringmap& change : changes) {
      Ipsec::writeConnections(change);
    }
  });
}

double smallest(unsigned rounds, const std::function<double()>& measure) {
  double best = measure();
  for (unsigned round = 1; round < rounds; ++round) {
    best = std::min(best, measure());
  }
  return best;
}

void report(std::size_t count, const char* what, const char* side, double nanoseconds) {
  print("apply", std::to_string(count) + " " + what, side, "us", nanoseconds / 1000);
}

// Adds, replaces and removes that many connections, in an empty file.
void measureScale(std::size_t count, unsigned rounds) {
  const Changes changes = connections(count);
  const Changes removing = removals(changes);
  const unsigned times = count >= 10000 ? 3 : rounds;
  report(count, "new", "apply", smallest(times, [&] {
           Ipsec::Testing::resetHost();
           return applied(changes);
         }));
  const std::string file = Ipsec::Testing::readFile(Ipsec::Testing::connectionsFile);
  report(count, "replaced", "apply", smallest(times, [&] { return applied(changes); }));
  require(Ipsec::Testing::readFile(Ipsec::Testing::connectionsFile) == file, "replacing changes the file");
  report(count, "removed backwards", "apply", smallest(times, [&] {
           Ipsec::Testing::writeFile(Ipsec::Testing::connectionsFile, file);
           return applied(removing);
         }));
  if (count > mostSingleCalls) {
    return;
  }
  report(count, "new", "single calls", smallest(count >= 1000 ? 1 : times, [&] {
           Ipsec::Testing::resetHost();
           return calledOneByOne(changes);
         }));
  require(Ipsec::Testing::readFile(Ipsec::Testing::connectionsFile) == file, "the two ways differ");
}

// One change, in a file of that many sections.
void measureOne(std::size_t count, unsigned rounds) {
  Ipsec::Testing::resetHost();
  const Changes changes = connections(count);
  require(Ipsec::applyConnections(changes), "a change is refused");
  const Changes one = {changes[count / 2]};
  std::vector<double> ratios;
  for (unsigned round = 0; round < 4 * rounds; ++round) {
    const double single = calledOneByOne(one);
    ratios.push_back(applied(one) / single);
  }
  print("apply", "one change among " + std::to_string(count), "apply to single call", "ratio", median(ratios));
}

// As many changes as there are sections, against as many single calls. Of the single calls only some are made.
void measureMany(std::size_t count) {
  Ipsec::Testing::resetHost();
  const Changes changes = connections(count);
  require(Ipsec::applyConnections(changes), "a change is refused");
  const double atOnce = applied(changes);
  const Changes some(changes.begin(), changes.begin() + 200);
  const double oneByOne = calledOneByOne(some) / static_cast<double>(some.size()) * static_cast<double>(count);
  print("apply", std::to_string(count) + " changes among " + std::to_string(count), "apply to single calls", "ratio",
        atOnce / oneByOne);
}

// One change in a file on the disk: what it computes, and what it waits for the disk.
void measureWaiting(std::size_t count, unsigned rounds) {
  const std::string folder = std::filesystem::current_path() / "apply-bench.tmp";
  std::filesystem::create_directory(folder);
  {
    const Ipsec::Testing::Mount disk = Ipsec::Testing::Mount::bind(folder, Ipsec::Testing::daemonFolder);
    const Changes changes = connections(count);
    require(Ipsec::applyConnections(changes), "a change is refused");
    double computing = std::numeric_limits<double>::infinity();
    const double waiting = smallest(rounds, [&] {
      const auto begun = std::chrono::steady_clock::now();
      const double computed = applied({changes[count / 2]});
      const std::chrono::duration<double, std::nano> whole = std::chrono::steady_clock::now() - begun;
      computing = std::min(computing, computed);
      return whole.count() - computed;
    });
    report(count, "on the disk (one change)", "computing", computing);
    report(count, "on the disk (one change)", "waiting for the disk", waiting);
  }
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  const Bench::Arguments arguments(argc, argv);
  try {
    Ipsec::Testing::enterPrivateMounts();
    for (const std::size_t count : {10U, 100U, 1000U, 10000U, 100000U}) {
      if (arguments.wants(std::to_string(count))) {
        Bench::measureScale(count, arguments.slices);
      }
    }
    if (arguments.wants("among")) {
      Bench::measureOne(10, arguments.slices);
      Bench::measureOne(10000, arguments.slices);
      Bench::measureMany(10000);
      Bench::measureWaiting(10000, arguments.slices);
    }
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "%s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

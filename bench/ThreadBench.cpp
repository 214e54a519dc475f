// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// IKE SA set-ups per second with 1, 2, 4 ... threads, for the library and for bare OpenSSL, and the locks that a set-up
// takes. Threads that share nothing but the library get in each other's way only where they meet at a lock.
//
// The program defines the locking functions of pthread that OpenSSL calls, and counts in them.

#include "End.h"
#include "Interleave.h"

#include <dlfcn.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>

namespace {

struct Locks {
  unsigned long reads = 0;
  unsigned long writes = 0;
  unsigned long mutexes = 0;
};

thread_local Locks taken;

template <typename Function>
Function* next(const char* name) {
  void* const found = dlsym(RTLD_NEXT, name);
  if (found == nullptr) {
    (void)std::fprintf(stderr, "no function %s\n", name);
    std::abort();
  }
  return reinterpret_cast<Function*>(found);
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept {
  static auto* const real = next<int(pthread_rwlock_t*)>("pthread_rwlock_rdlock");
  ++taken.reads;
  return real(lock);
}

[[gnu::visibility("default")]] int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
  static auto* const real = next<int(pthread_rwlock_t*)>("pthread_rwlock_wrlock");
  ++taken.writes;
  return real(lock);
}

[[gnu::visibility("default")]] int pthread_mutex_lock(pthread_mutex_t* lock) noexcept {
  static auto* const real = next<int(pthread_mutex_t*)>("pthread_mutex_lock");
  ++taken.mutexes;
  return real(lock);
}
}

namespace Bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::array<Contestant, 2> contestants = {{{"library", libraryEnd}, {"openssl", opensslEnd}}};
constexpr std::array<unsigned, 4> groups = {14, 19, 20, 21};

// A slice is long enough for the threads' start not to count.
constexpr std::chrono::milliseconds slice(60);

void printLocks(const Contestant& contestant, unsigned group) {
  constexpr unsigned long rounds = 100;
  const Bytes peer = publicValueOf(*opensslEnd(group));
  Yield yield;
  exchange(contestant, group, peer, yield);  // creates what is created once
  const Locks before = taken;
  for (unsigned long round = 0; round < rounds; ++round) {
    exchange(contestant, group, peer, yield);
  }
  const auto perExchange = [](unsigned long from, unsigned long to) { return static_cast<double>(to - from) / rounds; };
  const std::string name = std::to_string(group);
  print("locks", name, std::string(contestant.name) + " read", "count", perExchange(before.reads, taken.reads));
  print("locks", name, std::string(contestant.name) + " write", "count", perExchange(before.writes, taken.writes));
  print("locks", name, std::string(contestant.name) + " mutex", "count", perExchange(before.mutexes, taken.mutexes));
}

// Returns the set-ups per second that the threads make together.
double rate(const Contestant& contestant, unsigned group, unsigned threads) {
  std::atomic<unsigned long> done = 0;
  std::atomic<bool> failed = false;
  const Clock::time_point begin = Clock::now();
  {
    std::vector<std::jthread> running;
    for (unsigned i = 0; i < threads; ++i) {
      running.emplace_back([&] {
        try {
          const Bytes peer = publicValueOf(*opensslEnd(group));
          Yield yield;
          while (Clock::now() - begin < slice) {
            exchange(contestant, group, peer, yield);
            done.fetch_add(1, std::memory_order_relaxed);
          }
        } catch (const std::exception& error) {
          (void)std::fprintf(stderr, "%s\n", error.what());
          failed = true;
        }
      });
    }
  }
  require(!failed, "a thread failed");
  return static_cast<double>(done) / std::chrono::duration<double>(Clock::now() - begin).count();
}

// The two take turns, and each figure is the median.
void measure(unsigned group, unsigned threads, unsigned slices) {
  std::array<std::vector<double>, contestants.size()> rates;
  for (unsigned turn = 0; turn < slices; ++turn) {
    for (std::size_t i = 0; i < contestants.size(); ++i) {
      const std::size_t which = turn % 2 == 0 ? i : contestants.size() - 1 - i;
      rates[which].push_back(rate(contestants[which], group, threads));
    }
  }
  for (std::size_t i = 0; i < contestants.size(); ++i) {
    print("threads", std::to_string(group) + " " + std::to_string(threads), contestants[i].name, "1/s",
          median(rates[i]));
  }
}

void run(unsigned group, unsigned slices) {
  for (const Contestant& contestant : contestants) {
    printLocks(contestant, group);
  }
  for (unsigned threads = 1; threads <= 2 * std::thread::hardware_concurrency(); threads *= 2) {
    measure(group, threads, slices);
  }
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  const Bench::Arguments arguments(argc, argv);
  try {
    for (const unsigned group : Bench::groups) {
      if (arguments.wants(std::to_string(group))) {
        Bench::run(group, arguments.slices);
      }
    }
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "%s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

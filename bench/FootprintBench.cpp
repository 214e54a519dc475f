// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What an exchange keeps in memory, and what a trace call costs whose level is off.
//
// Heap is counted where it is allocated: OpenSSL's allocations through its hooks, those of C++ through operator new. A
// block counts with the bytes that it really takes.

#include "Interleave.h"
#include "Ipsec.h"
#include "platform/Trace.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <malloc.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

namespace {

std::size_t heldBytes = 0;  // one thread only

void* counted(void* block) {
  heldBytes += malloc_usable_size(block);
  return block;
}

void* countedMalloc(std::size_t size, const char*, int) {
  return counted(std::malloc(size));
}

void* countedRealloc(void* block, std::size_t size, const char*, int) {
  heldBytes -= malloc_usable_size(block);
  return counted(std::realloc(block, size));
}

void countedFree(void* block, const char*, int) {
  heldBytes -= malloc_usable_size(block);
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) {
  void* const block = std::malloc(size);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  return counted(block);
}

void operator delete(void* block) noexcept {
  heldBytes -= malloc_usable_size(block);
  std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
  operator delete(block);
}

namespace Bench {
namespace {

using Ipsec::DhGroupNum;
using Ipsec::IpsecDHGeneral;

constexpr std::array<DhGroupNum, 11> groups = {
    Ipsec::MODP_768,  Ipsec::MODP_1024, Ipsec::MODP_1536, Ipsec::MODP_2048, Ipsec::MODP_3072,    Ipsec::MODP_4096,
    Ipsec::MODP_6144, Ipsec::ECP_256,   Ipsec::ECP_384,   Ipsec::ECP_521,   Ipsec::MODP_2048_256};

double heldSince(std::size_t before) {
  return static_cast<double>(heldBytes) - static_cast<double>(before);
}

// The first exchange of a process with a group also creates what all later ones share. A second exchange shows how much
// that is.
void printHeap(DhGroupNum group) {
  const std::string name = std::to_string(group);
  const auto exchange = [&](IpsecDHGeneral& dh, double* initialised, double* agreed) {
    const std::size_t before = heldBytes;
    require(dh.initIpsecDH(), "no key pair");
    *initialised = heldSince(before);
    Bytes value;
    require(dh.getMyPublicKey(&value) && dh.setPeerPublicKey(&value), "no secret");
    value = Bytes();
    *agreed = heldSince(before);
  };
  double initialised = 0;
  double agreed = 0;
  const std::size_t before = heldBytes;
  {
    IpsecDHGeneral first(group);
    exchange(first, &initialised, &agreed);
  }
  print("memory", name, "once per process", "bytes", heldSince(before));
  IpsecDHGeneral second(group);
  exchange(second, &initialised, &agreed);
  print("memory", name, "initialised object", "bytes", initialised);
  print("memory", name, "with its secret", "bytes", agreed);
}

void printPrfHeap() {
  const Bytes key(32, 1);
  const auto held = [&key] {
    const std::size_t before = heldBytes;
    Ipsec::HmacPRFunc prf;
    require(prf.initHmacPRFunc(Ipsec::HASH_SHA256) && prf.setKey(&key), "no PRF");
    return heldSince(before);
  };
  held();  // looks the digest up
  print("memory", "HmacPRFunc", "keyed object", "bytes", held());
}

// The difference of a loop with the call and one without.
void printTraceCost(unsigned slices) {
  static const Cor::TraceHandle trace("Bench");
  constexpr int calls = 1000;
  const auto empty = [] {
    for (int i = 0; i < calls; ++i) {
      asm volatile("" ::: "memory");
    }
  };
  const auto traced = [] {
    for (int i = 0; i < calls; ++i) {
      asm volatile("" ::: "memory");
      trace.write(4, Cor::TraceSite::here(), "a level that is off");
    }
  };
  const std::vector<double> times = interleave({{"with", traced}, {"without", empty}}, slices);
  print("trace", "level off", "library", "ns", (times[0] - times[1]) / calls);
}

// OpenSSL's providers and both random generators must not count as a cost of the first group.
void warmUp() {
  std::array<unsigned char, 32> bytes;
  require(Ipsec::initKeyGenLib() == 1 && RAND_bytes(bytes.data(), bytes.size()) == 1 &&
              RAND_priv_bytes(bytes.data(), bytes.size()) == 1,
          "no random bytes");
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  // Before anything else, because OpenSSL accepts no hooks after its first allocation.
  if (CRYPTO_set_mem_functions(countedMalloc, countedRealloc, countedFree) != 1) {
    (void)std::fprintf(stderr, "OpenSSL has allocated already: its memory cannot be counted\n");
    return EXIT_FAILURE;
  }
  const Bench::Arguments arguments(argc, argv);
  try {
    Bench::warmUp();
    Bench::print("memory", "IpsecDHGeneral", "object itself", "bytes", sizeof(Ipsec::IpsecDHGeneral));
    for (const Ipsec::DhGroupNum group : Bench::groups) {
      Bench::printHeap(group);
    }
    Bench::printPrfHeap();
    Bench::printTraceCost(arguments.slices);
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "%s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

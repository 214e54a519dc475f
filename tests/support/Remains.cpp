// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/Remains.h"

#include "tests/support/OperatorNew.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <dlfcn.h>
#include <execinfo.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace {

// What stands in front of each block.
struct alignas(std::max_align_t) Block {
  std::size_t size;
  bool watched;  // allocated while an operation was watched
  bool freed;
  int callers;
  std::array<void*, 10> freedBy;
  Block* previous;
  Block* next;

  unsigned char* bytes() { return reinterpret_cast<unsigned char*>(this + 1); }
};

std::atomic<bool> watching = false;
std::mutex blocksMutex;
Block* blocks = nullptr;  // those that are watched

Block* blockOf(void* memory) {
  return static_cast<Block*>(memory) - 1;
}

void unlink(Block* block) {
  (block->previous == nullptr ? blocks : block->previous->next) = block->next;
  if (block->next != nullptr) {
    block->next->previous = block->previous;
  }
}

void* take(std::size_t size) {
  auto* const block = static_cast<Block*>(std::malloc(sizeof(Block) + size));
  if (block == nullptr) {
    return nullptr;
  }
  *block = {size, watching, false, 0, {}, nullptr, nullptr};
  std::memset(block->bytes(), 0, size);  // what an earlier owner left is not of this operation
  if (block->watched) {
    const std::lock_guard<std::mutex> lock(blocksMutex);
    block->next = blocks;
    if (blocks != nullptr) {
      blocks->previous = block;
    }
    blocks = block;
  }
  return block->bytes();
}

void give(void* memory) {
  if (memory == nullptr) {
    return;
  }
  Block* const block = blockOf(memory);
  const bool kept = watching;
  if (kept) {
    block->callers = backtrace(block->freedBy.data(), static_cast<int>(block->freedBy.size()));
  }
  const std::lock_guard<std::mutex> lock(blocksMutex);
  if (kept && !block->watched) {  // it is older than the operation
    block->watched = true;
    block->previous = nullptr;
    block->next = blocks;
    if (blocks != nullptr) {
      blocks->previous = block;
    }
    blocks = block;
  }
  if (kept) {
    block->freed = true;
    return;
  }
  if (block->watched) {
    unlink(block);
  }
  std::free(block);
}

void* openSslTake(std::size_t size, const char*, int) {
  return take(size);
}

void openSslGive(void* memory, const char*, int) {
  give(memory);
}

void* openSslResize(void* memory, std::size_t size, const char*, int) {
  void* const larger = take(size);
  if (larger != nullptr && memory != nullptr) {
    std::memcpy(larger, memory, std::min(size, blockOf(memory)->size));
    give(memory);
  }
  return larger;
}

}  // namespace

void* Ipsec::Testing::takeMemory(std::size_t size) noexcept {
  return take(size);
}

void Ipsec::Testing::giveMemory(void* memory) noexcept {
  give(memory);
}

namespace Ipsec::Testing {

namespace {

constexpr std::size_t stackSize = std::size_t{512} * 1024;
constexpr std::size_t window = 8;
constexpr std::size_t leastValues = 5;  // that a window must have: zeros and fillers prove nothing

std::uint64_t wordAt(const unsigned char* bytes) {
  std::uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

std::size_t firstTwo(const unsigned char* bytes) {
  return static_cast<std::size_t>(bytes[0]) << 8 | bytes[1];
}

ByteVector wordsReversed(ByteVector bytes, std::size_t word) {
  for (std::size_t at = 0; at + word <= bytes.size(); at += word) {
    std::reverse(&bytes[at], &bytes[at] + word);
  }
  return bytes;
}

// The sanitizers have marked parts of the dead stack, so it is copied without their knowledge. The copy is byte by
// byte, because a volatile read is not turned into a call of memcpy, which they check.
[[gnu::no_sanitize_address, gnu::noinline]] ByteVector copyOf(const volatile unsigned char* bytes, std::size_t size) {
  ByteVector copy(size);
  for (std::size_t i = 0; i < size; ++i) {
    copy[i] = bytes[i];
  }
  return copy;
}

std::string callersOf(const Block& block) {
  std::string callers;
  for (int i = 0; i < block.callers; ++i) {
    Dl_info info = {};
    if (dladdr(block.freedBy[static_cast<std::size_t>(i)], &info) != 0 && info.dli_sname != nullptr) {
      callers += std::string(" ") + info.dli_sname;
    }
  }
  return callers;
}

// No operation is under way, so the list of blocks stays as it is.
Findings inBlocks(const Needles& needles, bool freed) {
  Findings found;
  for (Block* block = blocks; block != nullptr; block = block->next) {
    if (block->freed != freed) {
      continue;
    }
    for (const std::string& name : needles.foundIn(block->bytes(), block->size)) {
      found.push_back(
          {name + " in " + std::to_string(block->size) + (freed ? " freed" : " live") + " bytes", callersOf(*block)});
    }
  }
  return found;
}

struct Job {
  const std::function<void()>& work;
  std::exception_ptr thrown;
};

// The operation's frames lie below this one's, so that the end of the thread does not write over what they leave.
[[gnu::noinline]] void deepDown(Job& job) {
  std::array<unsigned char, std::size_t{32} * 1024> bytes;
  volatile unsigned char* const room = bytes.data();
  room[0] = 0;
  try {
    job.work();
  } catch (...) {
    job.thrown = std::current_exception();
  }
  room[1] = 0;
}

void* runJob(void* given) {
  watching = true;
  deepDown(*static_cast<Job*>(given));
  watching = false;
  return nullptr;
}

void check(int error, const char* what) {
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), what);
  }
}

}  // namespace

void startWatching(char** argv) {
  constexpr char bindNow[] = "LD_BIND_NOW";
  if (std::getenv(bindNow) == nullptr) {
    check(setenv(bindNow, "1", 1) == 0 ? 0 : errno, bindNow);
    (void)execv("/proc/self/exe", argv);
    check(errno, "starting once more");
  }
  if (CRYPTO_set_mem_functions(openSslTake, openSslResize, openSslGive) != 1) {
    std::cerr << "OpenSSL was used before main\n";
    std::abort();
  }
  std::array<void*, 2> callers;
  (void)backtrace(callers.data(), 2);  // the first call loads a library
}

// --- Needles ---------------------------------------------------------------------------------------------------------

void Needles::add(const std::string& name, const ByteVector& bytes) {
  if (!addWindows(name, bytes)) {
    throw std::invalid_argument("nothing can be recognised by " + name);
  }
  (void)addWindows(name, ByteVector(bytes.rbegin(), bytes.rend()));
  (void)addWindows(name, wordsReversed(bytes, 4));
  (void)addWindows(name, wordsReversed(bytes, 8));
}

// Returns whether there was anything to add.
bool Needles::addWindows(const std::string& name, const ByteVector& bytes) {
  bool any = false;
  for (std::size_t i = 0; i + window <= bytes.size(); ++i) {
    const unsigned char* const first = &bytes[i];
    if (std::set<unsigned char>(first, first + window).size() >= leastValues) {
      windows.emplace(wordAt(first), name);
      begins[firstTwo(first)] = true;
      any = true;
    }
  }
  return any;
}

std::set<std::string> Needles::foundIn(const unsigned char* bytes, std::size_t size) const {
  std::set<std::string> found;
  for (std::size_t i = 0; i + window <= size; ++i) {
    if (!begins[firstTwo(bytes + i)]) {
      continue;
    }
    const auto at = windows.find(wordAt(bytes + i));
    if (at != windows.end()) {
      found.insert(at->second);
    }
  }
  return found;
}

// --- Remains ---------------------------------------------------------------------------------------------------------

Remains::Remains(const std::function<void()>& operation) : stackBytes(nullptr) {
  void* const memory = mmap(nullptr, stackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  check(memory == MAP_FAILED ? errno : 0, "memory for a stack");
  stackBytes = static_cast<unsigned char*>(memory);
  Job job = {operation, nullptr};
  pthread_attr_t attributes;
  pthread_t thread;
  check(pthread_attr_init(&attributes), "attributes");
  check(pthread_attr_setstack(&attributes, stackBytes, stackSize), "a stack of its own");
  check(pthread_create(&thread, &attributes, runJob, &job), "a thread");
  check(pthread_join(thread, nullptr), "the end of the thread");
  check(pthread_attr_destroy(&attributes), "attributes");
  if (job.thrown) {
    release();
    std::rethrow_exception(job.thrown);
  }
}

Remains::~Remains() {
  release();
}

void Remains::release() {
  (void)munmap(stackBytes, stackSize);
  for (Block* block = blocks; block != nullptr;) {
    Block* const next = block->next;
    if (block->freed) {
      unlink(block);
      std::free(block);
    } else {
      block->watched = false;
    }
    block = next;
  }
  blocks = nullptr;
}

Findings Remains::dead(const Needles& needles) const {
  Findings found = inBlocks(needles, true);
  const ByteVector copy = copyOf(stackBytes, stackSize);
  for (const std::string& name : needles.foundIn(copy.data(), copy.size())) {
    found.push_back({name + " on the stack", ""});
  }
  return found;
}

Findings Remains::live(const Needles& needles) const {
  return inBlocks(needles, false);
}

void expectFindings(const Findings& findings, const std::vector<std::string>& expected) {
  std::vector<std::string> found;
  std::string callers;
  for (const Finding& finding : findings) {
    found.push_back(finding.what);
    callers += finding.what + ":" + finding.callers + "\n";
  }
  EXPECT_THAT(found, testing::UnorderedElementsAreArray(expected)) << callers;
}

void aside(const std::function<void()>& work) {
  watching = false;
  std::thread(work).join();
  watching = true;
}

}  // namespace Ipsec::Testing

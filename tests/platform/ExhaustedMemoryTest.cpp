// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What the platform still does when memory is exhausted.

#include "platform/Log.h"
#include "platform/Process.h"
#include "platform/Trace.h"
#include "tests/platform/Roles.h"
#include "tests/support/ThreadSanitizer.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <new>
#include <string>

namespace {

thread_local bool memoryIsExhausted = false;

}  // namespace

#ifndef WITH_THREAD_SANITIZER

// Replaces the whole program's allocation, so that it can be made to fail. Not inlined, because g++ would see new
// paired with free.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const memory = memoryIsExhausted ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

#endif

namespace Ipsec::Testing {

int traceWithoutMemory(const Strings&) {
  const Cor::TraceHandle handle("First");
  const std::string big(100'000, 'x');
  handle.write(0, {"File.cpp", 1, "f"}, "first");
  memoryIsExhausted = true;
  handle.write(0, {"File.cpp", 2, "f"}, big);
  handle.write(0, {"File.cpp", 3, "f"}, "short");
  const Cor::TraceHandle late("Late");
  late.write(0, {"File.cpp", 4, "f"}, "short");
  memoryIsExhausted = false;
  return 0;
}

#ifndef WITH_THREAD_SANITIZER

namespace {

TEST(ExhaustedMemory, LosesOnlyLongTextLines) {
  const Outcome outcome = runRole({"trace-without-memory"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.error.find("xxx"), std::string::npos);
  EXPECT_NE(outcome.error.find(" First 0 File.cpp:3 f short\n"), std::string::npos) << outcome.error;
  EXPECT_NE(outcome.error.find(" Late 0 File.cpp:4 f short\n"), std::string::npos) << outcome.error;
}

TEST(ExhaustedMemory, LosesOnlyLongRingLines) {
  const std::string big(100'000, 'x');
  RingTrace::write({"File.cpp", 1, "f"}, "before");
  memoryIsExhausted = true;
  RingTrace::write({"File.cpp", 2, "f"}, "short");
  RingTrace::write({"File.cpp", 3, "f"}, big);
  memoryIsExhausted = false;
  EXPECT_EQ(RingTrace::lines().back(), "File.cpp:2 f short");
}

TEST(ExhaustedMemory, SwitchesAtLeastTheHandleItself) {
  Cor::TraceHandle handle("SwitchedWithoutMemory, a name that needs memory");
  memoryIsExhausted = true;
  handle.setLevels(0b10);
  memoryIsExhausted = false;
  EXPECT_TRUE(handle.enabled(1));
  EXPECT_FALSE(handle.enabled(0));
}

TEST(ExhaustedMemory, HoldsLogMessagesBackAndThrowsNothing) {
  Cor::LogHandle handle({"TEST_MESSAGE", "%s has %d", "", "", 4}, Vello::Duration(0), 1.0, 0, 1);
  const std::string big(10'000, 'x');
  memoryIsExhausted = true;
  const bool sent = handle.emit(big.c_str(), 1);
  memoryIsExhausted = false;
  EXPECT_FALSE(sent);
  EXPECT_TRUE(handle.emit("x", 1)) << "what was not sent must not count";
}

TEST(ExhaustedMemory, StartsNoProgram) {
  const ArgumentVector program({"/bin/true"});
  memoryIsExhausted = true;
  EXPECT_THROW((void)Cor::run(program, -1, -1, -1, -1), std::bad_alloc);
  memoryIsExhausted = false;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

}  // namespace

#endif

}  // namespace Ipsec::Testing

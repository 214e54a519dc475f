// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The end of the process: the library stays usable for whoever still runs then. That is after its destructors, in the
// destructor of a library that was loaded earlier, and in threads that nobody has stopped.
//
// This program is not linked with the library, so that it can load another one first.

#include "tests/support/ThreadSanitizer.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

using namespace std::chrono_literals;

#ifdef WITH_THREAD_SANITIZER
constexpr int exits = 10;  // it waits a second at each
#else
constexpr int exits = 500;
#endif

class Exit : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    load(callAtTheEnd, IPSEC_EARLIER_LIBRARY, "callAtTheEnd");
    load(exchangeKeys, IPSEC_LATER_LIBRARY, "exchangeKeys");
    load(lookLengthsUp, IPSEC_LATER_LIBRARY, "lookLengthsUp");
  }

  template <class Function>
  static void load(Function*& function, const char* path, const char* name) {
    void* const library = dlopen(path, RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    function = reinterpret_cast<Function*>(dlsym(library, name));
    ASSERT_NE(function, nullptr) << name;
  }

  // Ends the process while three threads look lengths up, which they never stop doing.
  [[noreturn]] static void exitWithBusyThreads() {
    static std::atomic<int> busy = 0;
    for (int i = 0; i < 3; ++i) {
      std::thread([] {
        for (bool first = true;; first = false) {
          if (!lookLengthsUp()) {
            std::abort();
          }
          if (first) {
            ++busy;
            busy.notify_one();
          }
          std::this_thread::yield();  // or the others would wait for a core
        }
      }).detach();
    }
    for (int seen = 0; seen < 3; seen = busy) {
      busy.wait(seen);
    }
    callAtTheEnd([] { std::this_thread::sleep_for(1ms); });  // the threads go on
    std::exit(0);
  }

  static inline void (*callAtTheEnd)(void (*call)()) = nullptr;
  static inline void (*exchangeKeys)() = nullptr;
  static inline bool (*lookLengthsUp)() = nullptr;
};

TEST_F(Exit, MayComeWhileOtherThreadsStillLookLengthsUp) {
  int abnormal = 0;
  (void)std::fflush(nullptr);  // or every child would write what is buffered
  for (int i = 0; i < exits; ++i) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      exitWithBusyThreads();
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    abnormal += status == 0 ? 0 : 1;
  }
  EXPECT_EQ(abnormal, 0) << "of " << exits << " exits";
}

using ExitDeathTest = Exit;

TEST_F(ExitDeathTest, KeysMayBeExchangedInTheDestructorOfALibraryLoadedEarlier) {
  EXPECT_EXIT((callAtTheEnd(exchangeKeys), std::exit(0)), testing::ExitedWithCode(0), "^the secrets are equal\n$");
}

}  // namespace

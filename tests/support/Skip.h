// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// IPSEC_SKIP, for tests that need something of the machine that they run on.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

// Says loudly why a test does not run. Where CI is set, the test fails instead.
#define IPSEC_SKIP(reason)                                   \
  do {                                                       \
    std::cerr << "*** NOT RUN: " << (reason) << " ***\n";    \
    if (std::getenv("CI") != nullptr) {                      \
      FAIL() << "A test was not run under CI: " << (reason); \
    }                                                        \
    GTEST_SKIP() << (reason);                                \
  } while (false)

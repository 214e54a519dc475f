// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/HostTests.h"

#include "tests/support/PrivateMounts.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

namespace Ipsec::Testing {

namespace {

class MachineStaysTheSame : public testing::Environment {
 public:
  void SetUp() override { before = machinesOwnFiles(); }
  void TearDown() override { EXPECT_EQ(machinesOwnFiles(), before) << "The tests reached the machine's own files."; }

 private:
  std::string before;
};

int refused(const std::exception& reason) {
  const bool fails = std::getenv("CI") != nullptr;
  std::cerr << "*** " << (fails ? "FAILED" : "SKIPPED") << ": this machine allows no private mount namespace ("
            << reason.what() << "); none of these tests ran. ***" << std::endl;
  return fails ? 1 : 77;
}

}  // namespace

int runInPrivateMounts(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (GTEST_FLAG_GET(list_tests)) {
    return RUN_ALL_TESTS();
  }
  try {
    enterPrivateMounts();
  } catch (const std::exception& reason) {
    return refused(reason);
  }
  testing::AddGlobalTestEnvironment(new MachineStaysTheSame);  // GoogleTest's from here on.
  return RUN_ALL_TESTS();
}

}  // namespace Ipsec::Testing

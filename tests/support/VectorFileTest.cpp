// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The reader of known answers must not miss a case: what it cannot read, or what a test does not read, is an error.

#include "tests/support/VectorFile.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace Ipsec::Testing {
namespace {

class VectorFileTest : public ::testing::Test {
 protected:
  std::string write(const std::string& text) const {
    std::ofstream(path) << text;
    return path;
  }
  void TearDown() override { (void)std::remove(path.c_str()); }

  const std::string path = ::testing::TempDir() + "vector-file-test.txt";
};

TEST_F(VectorFileTest, ReadsNumbersBytesAndTextOfEachBlock) {
  VectorFile file(
      write("# a comment\nGroup = 14\nSecret = 00ff\nHash = SHA-1\n\nGroup = 19\nSecret =\nHash = SHA-256\n"));
  std::vector<unsigned long> groups;
  std::vector<std::size_t> lengths;
  for (Block& block : file) {
    groups.push_back(static_cast<unsigned long>(block.number("Group")));
    lengths.push_back(block.bytes("Secret").size());
    (void)block.text("Hash");
    block.finish();
  }
  EXPECT_EQ(groups, (std::vector<unsigned long>{14, 19}));
  EXPECT_EQ(lengths, (std::vector<std::size_t>{2, 0}));
}

TEST_F(VectorFileTest, FailsTheTestForAnAttributeThatNobodyRead) {
  write("Group = 14\nSurprise = 1\n");
  EXPECT_NONFATAL_FAILURE(
      {
        VectorFile file(::testing::TempDir() + "vector-file-test.txt");
        for (Block& block : file) {
          (void)block.number("Group");
          block.finish();
        }
      },
      "Surprise");
}

TEST_F(VectorFileTest, RefusesAMissingAttribute) {
  VectorFile file(write("Group = 14\n"));
  for (Block& block : file) {
    EXPECT_THROW((void)block.bytes("Secret"), VectorFileError);
    block.ignore("Group");
    block.finish();
  }
}

TEST_F(VectorFileTest, RefusesValuesThatAreNotWhatIsAskedFor) {
  VectorFile file(write("Group = fourteen\nSecret = 0g\nOdd = 123\n"));
  for (Block& block : file) {
    EXPECT_THROW((void)block.number("Group"), VectorFileError);
    EXPECT_THROW((void)block.bytes("Secret"), VectorFileError);
    EXPECT_THROW((void)block.bytes("Odd"), VectorFileError);
    block.finish();
  }
}

TEST_F(VectorFileTest, RefusesMalformedLinesRepeatedNamesAndFilesWithoutBlocks) {
  EXPECT_THROW(VectorFile file(write("Group 14\n")), VectorFileError);
  EXPECT_THROW(VectorFile file(write("Group = 14\nGroup = 15\n")), VectorFileError);
  EXPECT_THROW(VectorFile file(write("# nothing\n")), VectorFileError);
  EXPECT_THROW(VectorFile file(path + ".missing"), VectorFileError);
}

}  // namespace
}  // namespace Ipsec::Testing

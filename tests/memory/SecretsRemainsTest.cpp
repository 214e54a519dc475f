// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What the functions for the secrets file leave of the old file's secrets and of the new one in memory: nothing.
#include "IpsecDaemon.h"
#include "tests/support/HostTests.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/Remains.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/stat.h>

#include <regex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

bool sizesAreUnknown = false;  // as those of files that the kernel makes up

}  // namespace

// The library calls the program's own fstat instead of that of the C library.
extern "C" __attribute__((visibility("default"))) int fstat(int number, struct stat* status) noexcept {
  static auto* const real = reinterpret_cast<int (*)(int, struct stat*)>(dlsym(RTLD_NEXT, "fstat"));
  const int result = real(number, status);
  if (result == 0 && sizesAreUnknown) {
    status->st_size = 0;
  }
  return result;
}

namespace Ipsec::Testing {
namespace {

const std::string oldSecret = "\"Kx9#vB2$nQ7@wL4\"";
const std::string otherSecret = "\"zT6!hJ3%dM8&rF1\"";
const std::string newSecret = "\"pW5*gY0(cS4)uA7, a new one\"";
const std::string peer = "10.0.0.1";

const std::string oldFile = peer + " : PSK " + oldSecret + "\n10.0.0.2 : PSK " + otherSecret + "\n";
const std::string newFile = "10.0.0.2 : PSK " + otherSecret + "\n" + peer + " : PSK " + newSecret + "\n";

class SecretsRemains : public testing::Test {
 protected:
  SecretsRemains() {
    resetHost();
    writeFile(secretsFile, oldFile);
    needles.add("old secret", oldSecret);
    needles.add("other secret", otherSecret);
    needles.add("new secret", newSecret);
  }
  ~SecretsRemains() override { sizesAreUnknown = false; }

  void expectNothingLeft(const stringmap& entry) const {
    const Remains left([&] { writeSecrets(entry); });
    expectFindings(left.dead(needles), {});
    expectFindings(left.live(needles), {});
  }

  Needles needles;
};

TEST_F(SecretsRemains, OfAnEntryThatIsReplaced) {
  expectNothingLeft({{"peerIp", peer}, {"key", newSecret}});
  EXPECT_EQ(readFile(secretsFile), newFile);
}

TEST_F(SecretsRemains, OfTheMapThatIsHandedOver) {
  stringmap entry = {{"peerIp", peer}, {"key", newSecret}};
  const Remains left([&] { writeSecrets(std::move(entry)); });
  expectFindings(left.dead(needles), {});
  expectFindings(left.live(needles), {});
}

// So short that a string holds it within itself.
TEST_F(SecretsRemains, OfAShortSecret) {
  const std::string shortSecret = "b7Kq!x2Z";
  needles.add("short secret", shortSecret);
  expectNothingLeft({{"secret", "%default"}, {"key", shortSecret}});
  EXPECT_EQ(readFile(secretsFile), oldFile + " : PSK " + shortSecret + "\n");
}

TEST_F(SecretsRemains, OfAnEntryThatIsDeleted) {
  expectNothingLeft({{"peerIp", peer}, {"key", newSecret}, {"delete", "1"}});
}

TEST_F(SecretsRemains, OfAPeerThatIsAnExpression) {
  expectNothingLeft({{"peerIp", "10[.]0[.]0[.](1|3)"}, {"key", newSecret}});
}

TEST_F(SecretsRemains, OfAnEntryWithoutItsPeer) {
  const stringmap entry = {{"secret", "x"}, {"key", newSecret}};
  const Remains left([&] { EXPECT_THROW(writeSecrets(entry), std::out_of_range); });
  expectFindings(left.dead(needles), {});
}

TEST_F(SecretsRemains, OfAnExpressionThatDoesNotCompile) {
  const stringmap entry = {{"peerIp", "("}, {"key", newSecret}};
  const Remains left([&] { EXPECT_THROW(writeSecrets(entry), std::regex_error); });
  expectFindings(left.dead(needles), {});
}

TEST_F(SecretsRemains, OfAFileThatIsNotReplaced) {
  const Mount readOnly = Mount::readOnly(daemonFolder);
  expectNothingLeft({{"peerIp", peer}, {"key", newSecret}});
}

TEST_F(SecretsRemains, OfAppliedChanges) {
  const std::vector<stringmap> changes = {{{"peerIp", peer}, {"key", newSecret}},
                                          {{"peerIp", "10.0.0.3"}, {"delete", ""}}};
  for (const std::size_t count : {2U, 1U}) {
    const std::vector<stringmap> some(changes.begin(), changes.begin() + static_cast<std::ptrdiff_t>(count));
    const Remains left([&] { EXPECT_TRUE(applySecrets(some)); });
    expectFindings(left.dead(needles), {});
    expectFindings(left.live(needles), {});
    EXPECT_EQ(readFile(secretsFile), newFile);
  }
}

TEST_F(SecretsRemains, OfChangesThatAreRefused) {
  const std::vector<stringmap> changes = {{{"peerIp", peer}, {"key", newSecret}},
                                          {{"peerIp", peer}, {"key", "not quoted, " + newSecret}}};
  const Remains left([&] { EXPECT_FALSE(applySecrets(changes)); });
  expectFindings(left.dead(needles), {});
  expectFindings(left.live(needles), {});
  EXPECT_EQ(readFile(secretsFile), oldFile);
}

TEST_F(SecretsRemains, OfAList) {
  std::vector<Vello::String> peers;
  const Remains left([&] { EXPECT_TRUE(listSecrets(&peers)); });
  expectFindings(left.dead(needles), {});
  expectFindings(left.live(needles), {});
  EXPECT_EQ(peers, (std::vector<Vello::String>{peer, "10.0.0.2"}));
}

// The buffer grows several times while such a file is read.
TEST_F(SecretsRemains, OfAFileOfUnknownSize) {
  std::string padding;
  while (padding.size() < 20000) {
    padding += "# a comment\n";
  }
  writeFile(secretsFile, oldFile + padding);
  sizesAreUnknown = true;
  expectNothingLeft({{"peerIp", peer}, {"key", newSecret}});
  sizesAreUnknown = false;
  EXPECT_NE(readFile(secretsFile).find(newSecret), std::string::npos);
}

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  Ipsec::Testing::startWatching(argv);
  return Ipsec::Testing::runInPrivateMounts(argc, argv);
}

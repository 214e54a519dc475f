// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Tests of the secrets file that the golden folders do not have: refusals, unusual bytes, sizes and traces. Full disks
// and dying processes are tested in FileReplacementTest, and the same rules with random files in
// WriterDifferentialTest.
#include "Ipsec.h"
#include "tests/support/HostTests.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/SmallStack.h"
#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <regex>
#include <stdexcept>
#include <string>

namespace Ipsec::Testing {
namespace {

using namespace std::string_literals;

const std::string temporary = std::string(secretsFile) + ".tmp";

class SecretsFile : public testing::Test {
 protected:
  SecretsFile() { resetHost(); }

  static void expectMissing(const stringmap& entry, const std::string& copy) {
    const std::string before = "10.0.0.1 : PSK a\n : PSK z";
    writeFile(secretsFile, before);
    const TraceRecorder traces("IpsecUtils=0-31");
    try {
      writeSecrets(entry);
      ADD_FAILURE() << "The entry was accepted.";
    } catch (const std::out_of_range& refusal) {
      EXPECT_STREQ(refusal.what(), "_Map_base::at");
    }
    EXPECT_EQ(readFile(secretsFile), before);
    EXPECT_EQ(readFile(temporary), copy);
    EXPECT_TRUE(traces.lines().empty());
  }
};

TEST_F(SecretsFile, NeedsAKey) {
  expectMissing({{"peerIp", "10.0.0.1"}}, " : PSK z\n");
  expectMissing({{"secret", "%default"}}, "10.0.0.1 : PSK a\n");
}

TEST_F(SecretsFile, NeedsAPeerForAnEntryThatIsNotTheDefaultOne) {
  expectMissing({{"key", "k"}}, "10.0.0.1 : PSK a\n : PSK z\n");
  expectMissing({{"secret", "other"}, {"key", "k"}}, "10.0.0.1 : PSK a\n : PSK z\n");
  expectMissing({}, "10.0.0.1 : PSK a\n : PSK z\n");
}

TEST_F(SecretsFile, RefusesAnAddressThatIsNoExpressionBeforeItWritesAnything) {
  writeFile(secretsFile, "10.0.0.1 : PSK a\n");
  writeFile(temporary, "of an earlier call");
  EXPECT_THROW(writeSecrets({{"peerIp", "("}, {"key", "k"}}), std::regex_error);
  EXPECT_EQ(readFile(secretsFile), "10.0.0.1 : PSK a\n");
  EXPECT_EQ(readFile(temporary), "");
}

TEST_F(SecretsFile, DoesNotCompileTheAddressBesideTheDefaultEntry) {
  writeSecrets({{"secret", "%default"}, {"peerIp", "("}, {"key", "k"}});
  EXPECT_EQ(readFile(secretsFile), " : PSK k\n");
}

TEST_F(SecretsFile, TakesAnEmptyAddressAsOne) {
  writeFile(secretsFile, " : PSK a\n : PSK b\n");
  writeSecrets({{"peerIp", ""}, {"key", "k"}});
  EXPECT_EQ(readFile(secretsFile), " : PSK b\n : PSK k\n");
}

TEST_F(SecretsFile, TakesAnEmptyKeyAsOne) {
  writeSecrets({{"peerIp", "10.0.0.1"}, {"key", ""}});
  EXPECT_EQ(readFile(secretsFile), "10.0.0.1 : PSK \n");
}

TEST_F(SecretsFile, KeepsOddBytesOnBothSides) {
  const std::string odd = "\0\xff\r\n10.0.0.1\0 : PSK a\r\n"s;
  const std::string key = "k\0\n\xff"s;
  writeFile(secretsFile, odd);
  writeSecrets({{"peerIp", "10.0.0.1"}, {"key", key}});
  EXPECT_EQ(readFile(secretsFile), odd + "10.0.0.1 : PSK " + key + "\n");
}

TEST_F(SecretsFile, KeepsALineOf10Megabytes) {
  const std::string line = "# " + std::string(10000000, 'x');
  writeFile(secretsFile, line + "\n10.0.0.1 : PSK a\n" + line);
  writeSecrets({{"peerIp", "10.0.0.1"}, {"key", "k"}});
  EXPECT_TRUE(readFile(secretsFile) == line + "\n" + line + "\n10.0.0.1 : PSK k\n");
}

TEST_F(SecretsFile, RefusesAnAddressThatIsTooLongForAnExpression) {
  for (const std::size_t length : {99993U, 99994U, 200000U}) {
    const std::string before = std::string(length, 'n') + " : PSK a\n";
    const stringmap entry = {{"peerIp", std::string(length, 'n')}, {"delete", ""}};
    writeFile(secretsFile, before);
    if (length == 99993U) {
      writeSecrets(entry);
      EXPECT_EQ(readFile(secretsFile), "");
      continue;
    }
    EXPECT_THROW(writeSecrets(entry), std::regex_error) << length;
    EXPECT_TRUE(readFile(secretsFile) == before) << length;
  }
}

TEST_F(SecretsFile, NeedsLittleStackForALongAddress) {
  writeFile(secretsFile, "10.0.0.1 : PSK a\n" + std::string(99000, 'n') + " : PSK b\n");
  onASmallStack([] { writeSecrets({{"peerIp", std::string(99000, 'n')}, {"delete", ""}}); });
  EXPECT_EQ(readFile(secretsFile), "10.0.0.1 : PSK a\n");
  const auto tooLong = [] { writeSecrets({{"peerIp", std::string(200000, 'n')}, {"delete", ""}}); };
  EXPECT_THROW(onASmallStack(tooLong), std::regex_error);
  EXPECT_EQ(readFile(secretsFile), "10.0.0.1 : PSK a\n");
}

TEST_F(SecretsFile, ReplacesOneOf100000Entries) {
  std::string before;
  std::string after;
  for (int number = 0; number < 100000; ++number) {
    const std::string line = "peer" + std::to_string(number) + " : PSK \"k\"\n";
    before += line;
    after += number == 70000 ? "" : line;
  }
  writeFile(secretsFile, before);
  writeSecrets({{"peerIp", "peer70000"}, {"key", "new"}});
  EXPECT_TRUE(readFile(secretsFile) == after + "peer70000 : PSK new\n");
}

TEST_F(SecretsFile, NoKeyIsEverTraced) {
  const TraceRecorder traces("IpsecUtils=0-31");
  const stringmap entry = {{"peerIp", "value-of-peer"}, {"key", "value-of-key"}};
  writeSecrets(entry);
  {
    const Mount readOnly = Mount::readOnly(daemonFolder);
    writeSecrets(entry);
  }
  EXPECT_THROW(writeSecrets({{"peerIp", "value-of-("}, {"key", "value-of-key"}}), std::regex_error);
  EXPECT_THROW(writeSecrets({{"key", "value-of-key"}}), std::out_of_range);
  EXPECT_EQ(traces.errors().size(), 1U);
  EXPECT_FALSE(traces.mentions("value-of-"));
}

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  return Ipsec::Testing::runInPrivateMounts(argc, argv);
}

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Each folder below golden/ is one rule: the settings of a call, the file before it (if there is one) and the file
// after it. The folder's name says which file is written, and the first line of "settings" is the rule.
#include "Ipsec.h"
#include "tests/support/HostTests.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Ipsec::Testing {
namespace {

namespace fs = std::filesystem;

// These are texts, because GoogleTest cannot print a path.
std::vector<std::string> folders() {
  std::vector<std::string> found;
  for (const fs::directory_entry& entry : fs::directory_iterator(IPSEC_TEST_GOLDEN)) {
    found.push_back(entry.path().string());
  }
  std::sort(found.begin(), found.end());
  return found;
}

// Reads "name = value" lines below a first line that begins with "# ".
stringmap settingsOf(const fs::path& folder) {
  std::istringstream text(readFile(folder / "settings"));
  stringmap settings;
  std::string line;
  if (!std::getline(text, line) || line.rfind("# ", 0) != 0) {
    throw std::runtime_error("no rule in " + folder.string());
  }
  while (std::getline(text, line)) {
    const std::size_t separator = line.find(" = ");
    if (separator == std::string::npos ||
        !settings.emplace(line.substr(0, separator), line.substr(separator + 3)).second) {
      throw std::runtime_error("malformed line in " + folder.string() + ": " + line);
    }
  }
  return settings;
}

class WriterGolden : public testing::TestWithParam<std::string> {};

TEST_P(WriterGolden, TurnsBeforeIntoAfter) {
  const fs::path folder = GetParam();
  const bool isSecret = folder.filename().string().rfind("secrets-", 0) == 0;
  ASSERT_TRUE(isSecret || folder.filename().string().rfind("connections-", 0) == 0);
  const std::string file = isSecret ? secretsFile : connectionsFile;
  resetHost();
  if (exists(folder / "before")) {
    writeFile(file, readFile(folder / "before"));
  }
  const TraceRecorder traces("IpsecUtils=0-31");
  (isSecret ? writeSecrets : writeConnections)(settingsOf(folder));
  EXPECT_EQ(readFile(file), readFile(folder / "after"));
  EXPECT_FALSE(exists(file + ".tmp"));
  EXPECT_TRUE(traces.lines().empty());
}

std::string nameOf(const testing::TestParamInfo<std::string>& folder) {
  std::string name = fs::path(folder.param).filename().string();
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(Case, WriterGolden, testing::ValuesIn(folders()), nameOf);

TEST(WriterGoldenFolders, AreThere) {
  EXPECT_GE(folders().size(), 60U);
}

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  return Ipsec::Testing::runInPrivateMounts(argc, argv);
}

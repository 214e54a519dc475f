// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Changes that are applied, and lists: what the files hold, their modes and owners, and what is refused.
#include "IpsecDaemon.h"
#include "tests/files/DaemonChanges.h"
#include "tests/support/HostTests.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace Ipsec::Testing {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using Names = std::vector<Vello::String>;

class Apply : public testing::TestWithParam<const ChangedFile*> {
 protected:
  Apply() : changed(*GetParam()) { resetHost(); }

  void startWith(int number) const { writeFile(changed.file, changed.whole(number)); }

  // Expects a call to fail with one line for its reason, to leave the file's path as it was, and nothing behind.
  void expectRefused(const std::string& reason) const {
    const TraceRecorder traces("IpsecDaemon=0-7");
    EXPECT_FALSE(changed.update(2));
    const std::string line = std::string(changed.function) + " " + reason;
    EXPECT_EQ(traces.errors(), Lines{line});
    EXPECT_EQ(traces.text(), Lines{line});
    EXPECT_FALSE(exists(changed.newFile()));
  }

  struct stat status() const {
    struct stat found = {};
    EXPECT_EQ(stat(changed.file, &found), 0);
    return found;
  }

  const ChangedFile& changed;
};

std::ptrdiff_t filesInTheFolder() {
  return std::distance(fs::directory_iterator(daemonFolder), fs::directory_iterator());
}

// --- What is done ----------------------------------------------------------------------------------------------------

TEST_P(Apply, MakesAllChangesInTheirOrder) {
  startWith(1);
  const TraceRecorder traces("IpsecDaemon=0-7");
  std::vector<stringmap> changes = {changed.change(2), changed.change(3)};
  EXPECT_TRUE(changed.apply(changes));
  EXPECT_EQ(readFile(changed.file), changed.whole(3));
  changes.front().emplace("delete", "no");
  changes.pop_back();
  EXPECT_TRUE(changed.apply(changes));
  EXPECT_EQ(readFile(changed.file), changed.other);
  EXPECT_TRUE(traces.lines().empty());
  EXPECT_FALSE(exists(changed.newFile()));
}

TEST_P(Apply, OfNoChangesTouchesNothing) {
  EXPECT_TRUE(changed.apply({}));
  EXPECT_EQ(filesInTheFolder(), 0);
}

TEST_P(Apply, MakesAMissingFileWithItsOwnMode) {
  for (const mode_t mask : {0U, 022U, 077U}) {
    resetHost();
    const mode_t before = umask(mask);
    EXPECT_TRUE(changed.update(1));
    (void)umask(before);
    EXPECT_EQ(readFile(changed.file), changed.written(1));
    EXPECT_EQ(status().st_mode & 07777, changed.newMode);
  }
}

TEST_P(Apply, KeepsOwnerAndGroup) {
  startWith(1);
  if (chown(changed.file, 1, 2) != 0) {
    GTEST_SKIP() << "SKIPPED: files cannot be given away here.";  // a user namespace has one user
  }
  EXPECT_TRUE(changed.update(2));
  EXPECT_EQ(status().st_uid, 1U);
  EXPECT_EQ(status().st_gid, 2U);
}

TEST_P(Apply, KeepsTheModeOfConnectionsOnly) {
  startWith(1);
  fs::permissions(changed.file, fs::perms(0660));
  EXPECT_TRUE(changed.update(2));
  EXPECT_EQ(status().st_mode & 07777, &changed == &changedConnections ? 0660U : 0600U);
}

TEST_P(Apply, ReplacesALinkAndLeavesItsTarget) {
  const std::string target = std::string(daemonFolder) + "/target";
  writeFile(target, changed.whole(1));
  fs::create_symlink(target, changed.file);
  EXPECT_TRUE(changed.update(2));
  EXPECT_FALSE(fs::is_symlink(changed.file));
  EXPECT_EQ(readFile(changed.file), changed.whole(2));
  EXPECT_EQ(readFile(target), changed.whole(1));
}

TEST_P(Apply, TakesALinkThatLeadsNowhereForNoFile) {
  fs::create_symlink("nowhere", changed.file);
  EXPECT_TRUE(changed.update(1));
  EXPECT_EQ(readFile(changed.file), changed.written(1));
}

// --- What is refused -------------------------------------------------------------------------------------------------

TEST_P(Apply, RefusesAllForOneProblemBeforeAnythingIsOpened) {
  const TraceRecorder traces("IpsecDaemon=0-7");
  std::vector<stringmap> changes = {changed.change(1), changed.change(2), changed.change(3)};
  changes[1].emplace("a-marker", "value-marker");
  EXPECT_FALSE(changed.apply(changes));
  ASSERT_EQ(traces.errors().size(), 1U);
  EXPECT_EQ(traces.errors().front().rfind(std::string(changed.function) + " Change 2: unknown setting: ", 0), 0U)
      << traces.errors().front();
  EXPECT_FALSE(traces.mentions("marker"));
  EXPECT_EQ(filesInTheFolder(), 0);
}

TEST_P(Apply, NamesTheSettingOfAProblem) {
  const TraceRecorder traces;
  stringmap change = changed.change(1);
  const char* const wrong = &changed == &changedConnections ? "reqid" : "key";
  change[wrong] = "1\n2";
  EXPECT_FALSE(changed.apply({change}));
  ASSERT_EQ(traces.errors().size(), 1U);
  EXPECT_EQ(traces.errors().front().rfind(std::string(changed.function) + " Change 1: " + wrong + ": ", 0), 0U)
      << traces.errors().front();
}

TEST_P(Apply, RefusesAnOldFileThatIsNotARegularFile) {
  ASSERT_EQ(mkfifo(changed.file, 0600), 0);
  expectRefused("The old file is not a regular file");
  fs::remove(changed.file);
  fs::create_directory(changed.file);
  expectRefused("The old file is not a regular file");
  fs::remove(changed.file);
  fs::create_symlink("/dev/null", changed.file);
  expectRefused("The old file is not a regular file");
  EXPECT_TRUE(fs::is_symlink(changed.file));
}

TEST_P(Apply, RefusesAnOldFileThatCannotBeOpenedOrRead) {
  fs::create_symlink(std::string(daemonFolder) + "/loop", std::string(daemonFolder) + "/loop");
  fs::create_symlink("loop", changed.file);
  expectRefused("Cannot open the old file: Too many levels of symbolic links");
  fs::remove(changed.file);
  fs::create_symlink("/proc/self/mem", changed.file);  // its first page cannot be read
  expectRefused("Cannot read the old file: Input/output error");
}

TEST_P(Apply, InAMissingFolderIsRefused) {
  const Mount empty = Mount::smallDisk("/etc", 4096);
  expectRefused("Cannot open the lock file: No such file or directory");
  EXPECT_FALSE(exists(daemonFolder));
}

TEST_P(Apply, OnAFullDiskLeavesTheOldFileAndNothingElse) {
  const Mount disk = Mount::smallDisk(daemonFolder, 20480);
  const std::string large = changed.other + "#" + std::string(10000, 'x') + "\n" + changed.written(1);
  writeFile(changed.file, large);
  expectRefused("Cannot write the new file: No space left on device");
  EXPECT_EQ(readFile(changed.file), large);
}

TEST_P(Apply, LeavesTheOldFileWhereItCannotBeReplaced) {
  startWith(1);
  const std::string other = std::string(daemonFolder) + "/other";
  writeFile(other, changed.whole(1));
  const Mount busy = Mount::bind(other, changed.file);
  expectRefused("Cannot move the new file into place: Device or resource busy");
  EXPECT_EQ(readFile(changed.file), changed.whole(1));
}

// --- What an earlier change left -------------------------------------------------------------------------------------

TEST_P(Apply, RemovesWhatAKilledProcessLeft) {
  const std::string target = std::string(daemonFolder) + "/target";
  const std::vector<void (*)(const std::string&, const std::string&)> stale = {
      [](const std::string& path, const std::string&) { writeFile(path, std::string(100000, 's')); },
      [](const std::string& path, const std::string& other) { fs::create_symlink(other, path); },
      [](const std::string& path, const std::string& other) { fs::create_hard_link(other, path); },
      [](const std::string& path, const std::string&) { (void)mkfifo(path.c_str(), 0666); }};
  for (const auto& leave : stale) {
    startWith(1);
    writeFile(target, "target");
    leave(changed.newFile(), target);
    EXPECT_TRUE(changed.update(2));
    EXPECT_EQ(readFile(changed.file), changed.whole(2));
    EXPECT_EQ(readFile(target), "target");
    EXPECT_FALSE(exists(changed.newFile()));
  }
}

TEST_P(Apply, RefusesAFolderInThePlaceOfTheNewFile) {
  startWith(1);
  fs::create_directory(changed.newFile());
  const TraceRecorder traces;
  EXPECT_FALSE(changed.update(2));
  EXPECT_EQ(traces.errors(),
            Lines{std::string(changed.function) + " Cannot remove what an earlier change left: Is a directory"});
  EXPECT_EQ(readFile(changed.file), changed.whole(1));
}

INSTANTIATE_TEST_SUITE_P(Of, Apply, testing::Values(&changedConnections, &changedSecrets),
                         [](const auto& tested) { return std::string(tested.param->name); });

// --- Lists -----------------------------------------------------------------------------------------------------------

class List : public testing::Test {
 protected:
  List() { resetHost(); }
};

TEST_F(List, HasTheConnectionsInTheOrderOfTheFile) {
  writeFile(connectionsFile,
            "config setup\n\tuniqueids=no\nconn b\n\tleft=1\n# conn c\n conn d\nconn %default\nconnection e\n"
            "include other.conf\nconn b\nconn \nconn  two words \r\nconn a");
  Names names = {"old"};
  EXPECT_TRUE(listConnections(&names));
  EXPECT_EQ(names, (Names{"b", "%default", "b", "", " two words \r", "a"}));
}

TEST_F(List, HasTheSecretsInTheOrderOfTheFile) {
  writeFile(secretsFile,
            "# 10.0.0.7 : PSK x\n\n10.0.0.2 : PSK \"a : b\"\n  \t\r\n : PSK default\ninclude other.secrets\n"
            "10.0.0.2 10.0.0.3 : RSA key.pem\n10.0.0.2 : PSK \"again\"\n: PSK nothing\nfe80::1 : PSK y");
  Names peers = {"old"};
  EXPECT_TRUE(listSecrets(&peers));
  EXPECT_EQ(peers, (Names{"10.0.0.2", "%default", "10.0.0.2 10.0.0.3", "10.0.0.2", "fe80::1"}));
}

TEST_F(List, OfAMissingFileIsEmpty) {
  for (const ChangedFile* changed : {&changedConnections, &changedSecrets}) {
    const TraceRecorder traces("IpsecDaemon=0-7");
    Names names = {"old"};
    EXPECT_TRUE(changed->list(&names));
    EXPECT_TRUE(names.empty());
    EXPECT_TRUE(traces.lines().empty());
  }
}

TEST_F(List, IsUntouchedByAFailure) {
  for (const auto& [changed, function] :
       {std::pair{&changedConnections, "listConnections"}, std::pair{&changedSecrets, "listSecrets"}}) {
    ASSERT_EQ(mkfifo(changed->file, 0600), 0);
    const TraceRecorder traces("IpsecDaemon=0-7");
    Names names = {"old"};
    EXPECT_FALSE(changed->list(&names));
    EXPECT_EQ(names, Names{"old"});
    EXPECT_EQ(traces.errors(), Lines{std::string(function) + " The old file is not a regular file"});
  }
}

TEST_F(List, HoldsWhatAChangeRemoves) {
  writeFile(connectionsFile, "conn a\n\tleft=1\nconn %default\nconn b\nconn a\n");
  writeFile(secretsFile, " : PSK x\n10.0.0.1 : PSK y\n10.0.0.1 : PSK z\n");
  for (const auto& [changed, setting, defaults] :
       {std::tuple{&changedConnections, "config", "default"}, std::tuple{&changedSecrets, "peerIp", "secret"}}) {
    Names names;
    ASSERT_TRUE(changed->list(&names));
    std::vector<stringmap> changes;
    for (const Vello::String& name : names) {
      changes.push_back({{name == "%default" ? defaults : setting, name}, {"delete", ""}});
    }
    EXPECT_TRUE(changed->apply(changes));
    EXPECT_EQ(readFile(changed->file), "");
  }
}

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  return Ipsec::Testing::runInPrivateMounts(argc, argv);
}

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Ipsec.h"
#include "tests/support/HostTests.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace Ipsec::Testing {
namespace {

using Lines = std::vector<std::string>;

class Host : public testing::Test {
 protected:
  Host() { resetHost(); }
};

// --- The replay window -----------------------------------------------------------------------------------------------

using ReplayWindow = Host;

const std::string attempt = "setMaxReplayWindow() Setting xfrm_replay_esn_max to 65536";

TEST_F(ReplayWindow, IsSetTo65536AndANewline) {
  writeFile(replayWindowSetting, "4096\nand more\n");
  const TraceRecorder traces("IpsecUtils=0-8");
  setMaxReplayWindow();
  EXPECT_EQ(readFile(replayWindowSetting), "65536\n");
  EXPECT_EQ(traces.errors(), Lines{attempt});
  EXPECT_EQ(traces.text(8), Lines{"setMaxReplayWindow: "});
  EXPECT_EQ(traces.text(1), Lines{attempt});
  EXPECT_EQ(traces.text(0), Lines{});
}

TEST_F(ReplayWindow, OfAHostWithoutTheSettingIsLeftAlone) {
  const TraceRecorder traces("IpsecUtils=0-8");
  setMaxReplayWindow();
  EXPECT_FALSE(exists(replayWindowSetting));
  EXPECT_EQ(traces.text(1), (Lines{attempt,
                                   "setMaxReplayWindow() Unable to set /proc/sys/net/core/"
                                   "xfrm_replay_esn_max due to errno 2"}));
  EXPECT_EQ(traces.errors(), traces.text(1));
}

TEST_F(ReplayWindow, ThatCannotBeOpenedIsTraced) {
  std::filesystem::create_directory(replayWindowSetting);
  const TraceRecorder traces("IpsecUtils=0-8");
  setMaxReplayWindow();
  EXPECT_EQ(traces.text(1), (Lines{attempt, "setMaxReplayWindow() Failed to set max replay window size"}));
  EXPECT_EQ(traces.errors(), traces.text(1));
}

// The file accepts no byte, and the stream reports that only when it is closed.
TEST_F(ReplayWindow, ThatTheKernelRefusesIsNotReported) {
  std::filesystem::create_symlink("/dev/full", replayWindowSetting);
  const TraceRecorder traces("IpsecUtils=0-8");
  setMaxReplayWindow();
  EXPECT_EQ(traces.text(1), Lines{attempt});
}

TEST_F(ReplayWindow, IsNotTracedWhereItsLevelIsOff) {
  const TraceRecorder traces("IpsecUtils=0");
  setMaxReplayWindow();
  EXPECT_EQ(traces.text(), Lines{});
  EXPECT_EQ(traces.errors().size(), 2U);
}

// --- The daemon's liveness -------------------------------------------------------------------------------------------

class Liveness : public Host {
 protected:
  static bool with(const std::string& contents) {
    std::filesystem::create_directories(std::filesystem::path(pidFile).parent_path());
    writeFile(pidFile, contents);
    return isSswanRunning();
  }
};

// A process that does nothing until the object is destroyed.
class Sleeper {
 public:
  Sleeper() : child(fork()) {
    if (child == 0) {
      (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (;;) {
        (void)pause();
      }
    }
  }
  ~Sleeper() { end(); }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;

  pid_t pid() const { return child; }

  void end() {
    if (!ended) {
      (void)kill(child, SIGKILL);
      (void)waitpid(child, nullptr, 0);
      ended = true;
    }
  }

 private:
  pid_t child;
  bool ended = false;
};

std::string exceptionOf(const std::string& contents, bool (*with)(const std::string&)) {
  try {
    return with(contents) ? "true" : "false";
  } catch (const std::invalid_argument& refusal) {
    return std::string("invalid_argument ") + refusal.what();
  } catch (const std::out_of_range& refusal) {
    return std::string("out_of_range ") + refusal.what();
  }
}

TEST_F(Liveness, IsFalseWithoutAPidFile) {
  EXPECT_FALSE(isSswanRunning());
}

TEST_F(Liveness, IsTrueAsLongAsTheProcessLives) {
  Sleeper daemon;
  const std::string line = std::to_string(daemon.pid()) + "\n";
  EXPECT_TRUE(with(line));
  daemon.end();
  EXPECT_FALSE(with(line));
}

TEST_F(Liveness, ReadsTheFirstLineOnly) {
  const Sleeper daemon;
  EXPECT_TRUE(with(std::to_string(daemon.pid()) + "\nnot a number\n"));
  EXPECT_TRUE(with(std::to_string(daemon.pid())));
}

TEST_F(Liveness, ReadsANumberWithWhatStandsAroundIt) {
  const Sleeper daemon;
  const std::string number = std::to_string(daemon.pid());
  EXPECT_TRUE(with(number + "letters\n"));
  EXPECT_TRUE(with(" \t\r+" + number + "\n"));
  EXPECT_TRUE(with("000" + number + " 1\n"));
  EXPECT_TRUE(with(number + std::string(1, '\0') + "9\n"));
}

TEST_F(Liveness, IsFalseForAnEmptyFileOrFirstLine) {
  EXPECT_FALSE(with(""));
  EXPECT_FALSE(with("\n"));
  EXPECT_FALSE(with("\n" + std::to_string(getpid()) + "\n"));
}

TEST_F(Liveness, ThrowsForALineThatIsNoNumber) {
  EXPECT_EQ(exceptionOf("charon\n", with), "invalid_argument stoi");
  EXPECT_EQ(exceptionOf("   \n", with), "invalid_argument stoi");
  EXPECT_EQ(exceptionOf("\r\n", with), "invalid_argument stoi");
  EXPECT_EQ(exceptionOf("-\n", with), "invalid_argument stoi");
}

TEST_F(Liveness, ThrowsForANumberBeyondAnInt) {
  EXPECT_EQ(exceptionOf("2147483648\n", with), "out_of_range stoi");
  EXPECT_EQ(exceptionOf("-2147483649\n", with), "out_of_range stoi");
  EXPECT_EQ(exceptionOf("99999999999999999999999\n", with), "out_of_range stoi");
  EXPECT_EQ(exceptionOf("2147483647\n", with), "false");  // No process has this number.
}

TEST_F(Liveness, PassesZeroAndNegativeNumbersOn) {
  EXPECT_TRUE(with("0\n"));  // The caller's own group.
  EXPECT_TRUE(with("-" + std::to_string(getpgrp()) + "\n"));
  EXPECT_FALSE(with("-2147483647\n"));
}

TEST_F(Liveness, IsFalseWhereTheFileCannotBeRead) {
  std::filesystem::create_directories(pidFile);
  EXPECT_FALSE(isSswanRunning());
}

// A process that changes its user loses the right to signal any process. In a user namespace there is no other user to
// change to, but process 1 belongs to another user.
TEST_F(Liveness, IsFalseForAProcessThatMayNotBeSignalled) {
  const Sleeper daemon;
  (void)with(std::to_string(daemon.pid()) + "\n");
  const pid_t child = fork();
  if (child == 0) {
    pid_t other = daemon.pid();
    if (setresuid(65534, 65534, 65534) != 0) {
      other = 1;
      (void)with("1\n");
    }
    const bool refused = kill(other, 0) != 0 && errno == EPERM;
    _exit(!refused ? 2 : isSswanRunning() ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(Liveness, KeepsErrno) {
  (void)with(std::to_string(getpid()) + "\n");
  errno = 4711;
  EXPECT_TRUE(isSswanRunning());
  EXPECT_EQ(errno, 4711);
  EXPECT_FALSE(with("2147483647\n"));  // The number was read, and its process does not exist.
  EXPECT_EQ(errno, ESRCH);
}

TEST_F(Liveness, IsTracedNowhere) {
  const TraceRecorder traces("IpsecUtils=0-31");
  (void)with("0\n");
  EXPECT_TRUE(traces.lines().empty());
}

// --- The tests themselves --------------------------------------------------------------------------------------------

TEST_F(Host, TheMachinesOwnFilesStayAsTheyAre) {
  const std::string before = machinesOwnFiles();
  writeFile(replayWindowSetting, "1\n");
  setMaxReplayWindow();
  std::filesystem::create_directories(std::filesystem::path(pidFile).parent_path());
  writeFile(pidFile, "1\n");
  writeConnections({{"config", "a"}, {"reqid", "1"}, {"left", "l"}, {"right", "r"}});
  writeSecrets({{"peerIp", "10.0.0.1"}, {"key", "k"}});
  enableCryptoModules();
  disableCryptoModules();
  EXPECT_TRUE(exists(connectionsFile));
  EXPECT_TRUE(exists(secretsFile));
  EXPECT_EQ(recordedCommands().size(), 6U);
  EXPECT_EQ(machinesOwnFiles(), before);
}

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  return Ipsec::Testing::runInPrivateMounts(argc, argv);
}

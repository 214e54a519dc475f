// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Ipsec.h"
#include "tests/support/HostTests.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <sys/time.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

namespace Ipsec::Testing {
namespace {

using Lines = std::vector<std::string>;

const Lines enableCommands = {"Command : /sbin/modprobe aes-x86_64 ", "Command : /sbin/modprobe aesni_intel ",
                              "Command : /sbin/modprobe crypto_null "};
const Lines disableCommands = {"Command : /sbin/rmmod aesni_intel ", "Command : /sbin/rmmod aes-x86_64 ",
                               "Command : /sbin/rmmod crypto_null "};
const std::string flowCommand = "Command : /sbin/modprobe ipsec_flow_parallelization ";

Lines joined(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// Ignores SIGCHLD as long as the object lives: the kernel then reaps children itself, and a wait for one fails.
class ChildrenReapedByTheKernel {
 public:
  ChildrenReapedByTheKernel() : before(std::signal(SIGCHLD, SIG_IGN)) {}
  ~ChildrenReapedByTheKernel() { (void)std::signal(SIGCHLD, before); }
  ChildrenReapedByTheKernel(const ChildrenReapedByTheKernel&) = delete;
  ChildrenReapedByTheKernel& operator=(const ChildrenReapedByTheKernel&) = delete;

 private:
  void (*before)(int);
};

// --- _execCommand ----------------------------------------------------------------------------------------------------

class Command : public testing::Test {
 protected:
  Command() { resetHost(); }

  static int shell(const char* script) {
    const char* argv[] = {"/bin/sh", "-c", script, nullptr};
    return _execCommand(argv);
  }
};

TEST_F(Command, ReturnsTheRawWaitStatus) {
  EXPECT_EQ(shell("exit 0"), 0);
  EXPECT_EQ(shell("exit 1"), 256);
  EXPECT_EQ(shell("exit 255"), 65280);
  EXPECT_EQ(shell("kill -9 $$"), 9);
  EXPECT_EQ(shell("kill -15 $$"), 15);
}

TEST_F(Command, HandsOverEveryArgumentAsItIs) {
  const char* argv[] = {"/sbin/modprobe", "", "two words", "$HOME", "*", nullptr};
  EXPECT_EQ(_execCommand(argv), 0);
  EXPECT_EQ(recordedCommands(), Lines{"/sbin/modprobe||two words|$HOME|*|"});
}

TEST_F(Command, ReturnsMinusOneForAProgramThatDoesNotExist) {
  const char* argv[] = {"/sbin/no-such-program", nullptr};
  errno = 0;
  EXPECT_EQ(_execCommand(argv), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(Command, ReturnsMinusOneWhenTheChildIsReapedByTheKernel) {
  const ChildrenReapedByTheKernel reaping;
  errno = 0;
  EXPECT_EQ(shell("exit 0"), -1);
  EXPECT_EQ(errno, ECHILD);
}

// Kept: the wait is not taken up again. The child is then the caller's to reap.
TEST_F(Command, ReturnsMinusOneWhenASignalHandlerInterruptsTheWait) {
  struct sigaction action = {};
  struct sigaction before = {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
  const itimerval soon = {{0, 20000}, {0, 20000}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &soon, nullptr), 0);
  const int status = shell("sleep 1");
  const int error = errno;
  const itimerval never = {};
  (void)setitimer(ITIMER_REAL, &never, nullptr);
  (void)sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(status, -1);
  EXPECT_EQ(error, EINTR);
  EXPECT_GT(waitpid(-1, nullptr, 0), 0);
}

TEST_F(Command, IsTracedNowhereByItself) {
  const TraceRecorder traces("IpsecUtils=0-31");
  (void)shell("exit 1");
  EXPECT_TRUE(traces.lines().empty());
}

// --- The modules -----------------------------------------------------------------------------------------------------

class Modules : public testing::Test {
 protected:
  Modules() { resetHost(); }

  TraceRecorder traces{"IpsecUtils=0-8"};
};

TEST_F(Modules, AreLoadedInTheirOrder) {
  enableCryptoModules();
  EXPECT_EQ(recordedCommands(),
            (Lines{"/sbin/modprobe|aes-x86_64|", "/sbin/modprobe|aesni_intel|", "/sbin/modprobe|crypto_null|"}));
  EXPECT_EQ(traces.text(8), joined({"enableCryptoModules: "}, enableCommands));
  EXPECT_EQ(traces.text().size(), 4U);
  EXPECT_EQ(traces.errors(), Lines{});
}

// Kept: not the reverse of the loading order.
TEST_F(Modules, AreUnloadedInAnOrderOfItsOwn) {
  disableCryptoModules();
  EXPECT_EQ(recordedCommands(),
            (Lines{"/sbin/rmmod|aesni_intel|", "/sbin/rmmod|aes-x86_64|", "/sbin/rmmod|crypto_null|"}));
  EXPECT_EQ(traces.text(8), joined({"disableCryptoModules: "}, disableCommands));
  EXPECT_EQ(traces.text().size(), 4U);
  EXPECT_EQ(traces.errors(), Lines{});
}

TEST_F(Modules, TheFlowModuleIsLoadedWithoutAnEntryLine) {
  enableFlowEncapModule();
  EXPECT_EQ(recordedCommands(), Lines{"/sbin/modprobe|ipsec_flow_parallelization|"});
  EXPECT_EQ(traces.text(), Lines{flowCommand});
  EXPECT_EQ(traces.errors(), Lines{});
}

// Kept: only a command that could not be run or waited for is reported.
TEST_F(Modules, ThatTheToolRefusesAreNotReported) {
  for (const char* action : {"exit 1", "kill -9 $$"}) {
    setModuleTool("modprobe", action);
    setModuleTool("rmmod", action);
    traces.clear();
    enableCryptoModules();
    disableCryptoModules();
    enableFlowEncapModule();
    EXPECT_EQ(traces.errors(), Lines{}) << action;
    EXPECT_EQ(traces.text().size(), 9U) << action;  // Two entry lines, seven commands.
    EXPECT_EQ(traces.text(8).size(), 9U) << action;
  }
  EXPECT_EQ(recordedCommands().size(), 14U);
}

void expectLoadFailures(const TraceRecorder& traces, const std::string& returned) {
  EXPECT_EQ(traces.text(), (Lines{"enableCryptoModules: ",                                     //
                                  enableCommands[0],                                           //
                                  returned,                                                    //
                                  "enableCryptoModules Failed to load aes-x86_64, rc -1",      //
                                  enableCommands[1],                                           //
                                  returned,                                                    //
                                  "enableCryptoModules Failed to load aesni_intel, rc -1",     //
                                  enableCommands[2],                                           //
                                  returned,                                                    //
                                  "enableCryptoModules Failed to load crypto_null, rc -1"}));  //
  EXPECT_EQ(traces.errors(), traces.text(1));
  EXPECT_EQ(traces.errors().size(), 3U);
}

TEST_F(Modules, WithoutTheToolAreReportedOneByOne) {
  removeModuleTool("modprobe");
  enableCryptoModules();
  expectLoadFailures(traces, "Returned : No child processes");
}

TEST_F(Modules, WhoseToolIsReapedByTheKernelAreReportedOneByOne) {
  const ChildrenReapedByTheKernel reaping;
  enableCryptoModules();
  expectLoadFailures(traces, "Returned : No child processes");
  EXPECT_EQ(recordedCommands().size(), 3U);
}

// Kept: the last message says cryptd_null, the module is crypto_null.
TEST_F(Modules, FailuresToUnloadAreReportedAtLevel1) {
  removeModuleTool("rmmod");
  disableCryptoModules();
  EXPECT_EQ(traces.text(1), (Lines{"disableCryptoModules Failed to unload aesni_intel, rc -1",
                                   "disableCryptoModules Failed to unload aes-x86_64, rc -1",
                                   "disableCryptoModules Failed to unload cryptd_null, rc -1"}));
  EXPECT_EQ(traces.text(0), Lines{});
  EXPECT_EQ(traces.errors(), traces.text(1));
}

// Kept: no ", rc " and no blank before the number.
TEST_F(Modules, TheFlowModulesFailureIsReportedAtLevel0) {
  removeModuleTool("modprobe");
  enableFlowEncapModule();
  EXPECT_EQ(traces.text(), (Lines{flowCommand, "Returned : No child processes",
                                  "enableFlowEncapModule Failed to load ipsec_flow_encap netfilter module-1"}));
  EXPECT_EQ(traces.text(0), Lines{"enableFlowEncapModule Failed to load ipsec_flow_encap netfilter module-1"});
  EXPECT_EQ(traces.errors(), traces.text(0));
}

TEST_F(Modules, FailuresReachTheRingWhateverTheLevels) {
  removeModuleTool("modprobe");
  const TraceRecorder quiet("IpsecUtils=0");
  enableCryptoModules();
  EXPECT_EQ(quiet.errors().size(), 3U);
  EXPECT_EQ(quiet.text(), Lines{});
}

TEST_F(Modules, AreLoadedAgainByASecondCall) {
  enableFlowEncapModule();
  enableFlowEncapModule();
  EXPECT_EQ(recordedCommands().size(), 2U);
}

TEST_F(Modules, TracesNameTheFunctionTheyAreAbout) {
  removeModuleTool("modprobe");
  enableCryptoModules();
  for (const Cor::TraceLine& line : traces.lines()) {
    EXPECT_EQ(line.function, "enableCryptoModules") << line.message;
    EXPECT_NE(line.file.find("IpsecUtils.cpp"), std::string::npos) << line.file;
  }
}

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  return Ipsec::Testing::runInPrivateMounts(argc, argv);
}

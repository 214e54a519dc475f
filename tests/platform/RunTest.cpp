// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The process runner.

#include "platform/Process.h"
#include "tests/platform/Roles.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace Ipsec::Testing {

int exchangeStreams(const Strings&) {
  (void)close_range(STDERR_FILENO + 1, ~0U, 0);  // whatever the test was started with
  const ArgumentVector shell({"/bin/sh", "-c", "echo out; echo err >&2; ls /proc/self/fd"});
  return waitFor(Cor::run(shell, -1, STDERR_FILENO, STDOUT_FILENO, -1));
}

int writeDescriptor(const Strings& arguments) {
  return write(std::stoi(arguments.at(0)), "inherited", 9) == 9 ? 0 : 1;
}

namespace {

TEST(Run, PassesTheArgumentsUntouched) {
  const Outcome outcome = runAndWait({"/usr/bin/printf", "[%s]", "a b", "", "$HOME", "*", "'\"\n"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "[a b][][$HOME][*]['\"\n]");
}

TEST(Run, LeavesTheRawWaitStatusToTheCaller) {
  EXPECT_EQ(runShell("exit 3").status, 3 << 8);
  EXPECT_EQ(runShell("kill -9 $$").status, SIGKILL);
}

TEST(Run, RedirectsEachStream) {
  MemoryFile input;
  input.fill("given");
  const MemoryFile output;
  const MemoryFile error;
  const ArgumentVector shell({"/bin/sh", "-c", "cat; echo to error >&2"});
  EXPECT_EQ(waitFor(Cor::run(shell, input.descriptor(), output.descriptor(), error.descriptor(), -1)), 0);
  EXPECT_EQ(output.text(), "given");
  EXPECT_EQ(error.text(), "to error\n");
}

TEST(Run, ExchangesTheCallersOwnStreams) {
  const Outcome outcome = runRole({"exchange-streams"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "err\n");
  EXPECT_EQ(outcome.error, "out\n0\n1\n2\n3\n") << "a further descriptor is one that leaked (3 is the folder's)";
}

TEST(Run, InheritsEnvironmentStreamsAndOpenDescriptors) {
  EXPECT_EQ(setenv("PLATFORM_TEST", "inherited", 1), 0);
  EXPECT_EQ(runShell("printf %s \"$PLATFORM_TEST\"").output, "inherited");
  EXPECT_EQ(unsetenv("PLATFORM_TEST"), 0);

  const MemoryFile file;
  const int open = fcntl(file.descriptor(), F_DUPFD, 50);
  ASSERT_GE(open, 50);
  EXPECT_EQ(runRole({"write-descriptor", std::to_string(open)}).status, 0);
  EXPECT_EQ(file.text(), "inherited");
  EXPECT_NE(runRole({"write-descriptor", std::to_string(file.descriptor())}).status, 0) << "is close-on-exec";
  (void)close(open);
}

TEST(Run, PutsTheChildIntoTheGroupAskedFor) {
  const ArgumentVector sleep({"/bin/sleep", "60"});
  const auto stays = Cor::run(sleep, -1, -1, -1, -1);
  const auto leads = Cor::run(sleep, -1, -1, -1, 0);
  const auto joins = Cor::run(sleep, -1, -1, -1, leads->pid());
  EXPECT_EQ(getpgid(stays->pid()), getpgrp());
  EXPECT_EQ(getpgid(leads->pid()), leads->pid());
  EXPECT_EQ(getpgid(joins->pid()), leads->pid());
  for (const auto& process : {stays, leads, joins}) {
    ASSERT_NE(process->pid(), Cor::Process::notStarted);
    (void)kill(process->pid(), SIGKILL);
    EXPECT_EQ(waitFor(process), SIGKILL);
  }
}

TEST(Run, StartsTheChildWithNoSignalBlockedOrCaught) {
  sigset_t blocked;
  sigset_t before;
  (void)sigemptyset(&blocked);
  (void)sigaddset(&blocked, SIGTERM);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, &before), 0);
  const auto handlerBefore = signal(SIGUSR1, [](int) {});
  const Outcome outcome = runAndWait({"/bin/grep", "-E", "Sig(Blk|Cgt)", "/proc/self/status"});
  (void)signal(SIGUSR1, handlerBefore);
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
  EXPECT_NE(outcome.output.find("SigBlk:\t0000000000000000\n"), std::string::npos) << outcome.output;
  const std::uint64_t caught = std::stoull(outcome.output.substr(outcome.output.find("SigCgt:") + 7), nullptr, 16);
  EXPECT_EQ(caught & (1ULL << (SIGUSR1 - 1)), 0U) << outcome.output;
}

TEST(Run, AProgramThatCannotBeStartedIsNotStarted) {
  struct Case {
    const char* program;
    int input;
    int error;
  };
  const Case cases[] = {
      {"/nonexistent/program", -1, ENOENT},
      {"/", -1, EACCES},
      {"/etc/passwd", -1, EACCES},
      {"/bin/true", 999, EBADF},
      {"/bin/true", -2, EBADF},
  };
  for (const Case& one : cases) {
    errno = 0;
    const auto process = Cor::run(ArgumentVector({one.program}), one.input, -1, -1, -1);
    EXPECT_EQ(errno, one.error) << one.program;
    ASSERT_TRUE(process);
    EXPECT_EQ(process->pid(), Cor::Process::notStarted);
    int status = -1;
    EXPECT_EQ(waitpid(process->pid(), &status, 0), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(status, -1);
  }
  const char* const empty[] = {nullptr};
  EXPECT_EQ(Cor::run(empty, -1, -1, -1, -1)->pid(), Cor::Process::notStarted);
  EXPECT_EQ(Cor::run(ArgumentVector({"/bin/true"}), -1, -1, -1, -5)->pid(), Cor::Process::notStarted);
  EXPECT_EQ(errno, EINVAL) << "a process group below -1";
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no child was left behind";
}

}  // namespace
}  // namespace Ipsec::Testing

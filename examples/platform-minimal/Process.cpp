// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The process runner, by fork and exec.
#include "platform/Process.h"

#include "base/CancellationHeld.h"
#include "base/Descriptor.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace Cor {

namespace {

// The child's part, with calls that are allowed after fork in a process with threads. No handler of the parent runs in
// the child, and the program starts with no signal blocked. A program that cannot be started is reported by its error.
[[noreturn]] void become(const char* const* argv, const int (&streams)[3], int processGroup, int report) {
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action = {};
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
      (void)std::signal(number, SIG_DFL);
    }
  }
  sigset_t none;
  (void)sigemptyset(&none);
  (void)sigprocmask(SIG_SETMASK, &none, nullptr);
  bool ready = processGroup < 0 || setpgid(0, processGroup) == 0;
  for (int target = 0; target <= STDERR_FILENO; ++target) {
    ready = ready && (streams[target] == -1 || dup2(streams[target], target) >= 0);
  }
  if (ready) {
    (void)execv(argv[0], const_cast<char* const*>(argv));  // which only reads the vector
  }
  const int error = errno;
  (void)!write(report, &error, sizeof error);
  _exit(127);
}

// Starts a child and waits until it is the program. Returns 0, or the error's number.
int start(const char* const* argv, const int (&streams)[3], int processGroup, pid_t& child) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return errno;
  }
  const Base::Descriptor reading(ends[0]);
  Base::Descriptor report(ends[1]);
  sigset_t all;
  sigset_t before;
  (void)sigfillset(&all);
  (void)pthread_sigmask(SIG_SETMASK, &all, &before);
  child = fork();
  if (child == 0) {
    become(argv, streams, processGroup, report.get());
  }
  int error = child < 0 ? errno : 0;
  (void)report.close();                                              // the child's end is closed by execv
  if (child > 0 && read(reading.get(), &error, sizeof error) > 0) {  // no signal interrupts it: all are blocked
    (void)waitpid(child, nullptr, 0);
  }
  (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return error;
}

}  // namespace

Vello::Ptr<Process> run(const char* const* argv, int input, int output, int error, int processGroup) {
  const Base::CancellationHeld held;
  auto process = std::make_shared<Process>();  // before there is a child: it may throw
  pid_t child = Process::notStarted;
  const int failure = argv == nullptr || argv[0] == nullptr || processGroup < -1
                          ? EINVAL
                          : start(argv, {input, output, error}, processGroup, child);
  if (failure == 0) {
    process->child = child;
  } else {
    errno = failure;
  }
  return process;
}

}  // namespace Cor

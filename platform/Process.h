// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The process runner: starts a program with an argument vector.
#pragma once

#include "platform/Framework.h"

#include <sys/types.h>

#pragma GCC visibility push(default)

namespace Cor {

// A child process that was started. The handle neither waits for the child nor ends it: its owner reaps the child with
// waitpid.
class Process {
 public:
  // The number of a process that can never exist, because the kernel's numbers are below 2^22. Waiting for it fails
  // with ECHILD.
  static constexpr pid_t notStarted = 0x7FFFFFFF;

  Process() = default;
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const noexcept { return child; }

 private:
  friend Vello::Ptr<Process> run(const char* const* argv, int input, int output, int error, int processGroup);

  pid_t child = notStarted;
};

// Starts the program argv[0], an absolute path, with argv (null-terminated) as its arguments and with the caller's
// environment. Any thread may call it.
//
// input, output, error: descriptors that become the child's standard input, output and error. -1 passes on the caller's
// own, unless it is close-on-exec: the child then has none. The child also inherits every other descriptor that is not
// close-on-exec.
// processGroup: -1 leaves the child in the caller's process group, 0 makes it the leader of a new group, and a number
// above 0 puts it into that group.
//
// The child starts with no signal blocked. It ignores the signals that the caller ignores, and two that the C library
// keeps for itself, but no others.
//
// If the program cannot be started, or the process group is below -1, returns a handle whose pid() is
// Process::notStarted, and errno has the reason. Throws only std::bad_alloc, and then there is no child.
// Warning: waitpid for notStarted fails with ECHILD, which looks as if somebody else had reaped the child. Look at
// pid() to tell the two apart.
Vello::Ptr<Process> run(const char* const* argv, int input, int output, int error, int processGroup);

}  // namespace Cor

#pragma GCC visibility pop

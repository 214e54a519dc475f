// Process runner: starts a program from an argument vector.
#pragma once

#include "platform/Framework.h"

#include <sys/types.h>

#pragma GCC visibility push(default)

namespace Cor {

// A child that was started. The handle does not wait for the child and does not end it; the owner of the handle reaps
// the child with waitpid.
class Process {
 public:
  // The number of a process that can never exist (the kernel's are below 2^22). Waiting for it fails with ECHILD.
  static constexpr pid_t notStarted = 0x7FFFFFFF;

  Process() = default;
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const noexcept { return child; }

 private:
  friend Vello::Ptr<Process> run(const char* const* argv, int input, int output, int error, int processGroup);

  pid_t child = notStarted;
};

// Starts argv[0], an absolute path, with argv (null-terminated) as its arguments and the caller's environment.
// input, output, error: descriptors that become the child's standard input, output and error; -1 inherits the caller's,
// which is closed in the child if it is close-on-exec. Other descriptors without close-on-exec are inherited too.
// processGroup: -1 leaves the child in the caller's process group, 0 makes it the leader of a group of its own, a
// number above 0 joins that group.
// The child starts with no signal blocked, and with none ignored but what the caller ignores itself and the C library's
// own two. A program that cannot be started, and one asked into a process group below -1, gives a handle whose pid() is
// Process::notStarted; errno tells why. Throws std::bad_alloc only, and then there is no child. Any thread may call it.
Vello::Ptr<Process> run(const char* const* argv, int input, int output, int error, int processGroup);

}  // namespace Cor

#pragma GCC visibility pop

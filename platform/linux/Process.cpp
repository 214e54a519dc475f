// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "platform/Process.h"

#include "base/CancellationHeld.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <new>

namespace Cor {

namespace {

// The functions that prepare posix_spawn fail only when memory is exhausted, or for a descriptor below -1. The second
// case has another error number and does not throw.
void checkMemory(int result) {
  if (result == ENOMEM) {
    throw std::bad_alloc();
  }
}

class FileActions {
 public:
  FileActions() { checkMemory(posix_spawn_file_actions_init(&actions)); }
  ~FileActions() { (void)posix_spawn_file_actions_destroy(&actions); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;

  // Returns 0, or the error's number.
  int duplicate(int from, int to) {
    const int result = posix_spawn_file_actions_adddup2(&actions, from, to);
    checkMemory(result);
    return result;
  }

  const posix_spawn_file_actions_t* get() const noexcept { return &actions; }

 private:
  posix_spawn_file_actions_t actions;
};

class Attributes {
 public:
  explicit Attributes(int processGroup) {
    checkMemory(posix_spawnattr_init(&attributes));
    sigset_t none;
    (void)sigemptyset(&none);
    (void)posix_spawnattr_setsigmask(&attributes, &none);
    short flags = POSIX_SPAWN_SETSIGMASK;
    if (processGroup >= 0) {
      (void)posix_spawnattr_setpgroup(&attributes, processGroup);
      flags |= POSIX_SPAWN_SETPGROUP;
    }
    (void)posix_spawnattr_setflags(&attributes, flags);  // cannot fail here: posix_spawn itself checks all three
  }
  ~Attributes() { (void)posix_spawnattr_destroy(&attributes); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;

  const posix_spawnattr_t* get() const noexcept { return &attributes; }

 private:
  posix_spawnattr_t attributes;
};

// A descriptor that is to become one of the child's standard streams. If it is one of the caller's standard streams, it
// is duplicated first: the child's streams are set up one after the other, and an earlier one could already have
// replaced it.
class Redirection {
 public:
  Redirection(int descriptor, int stream) : source(descriptor), target(stream) {
    if (source >= 0 && source <= STDERR_FILENO && source != target) {
      copy = fcntl(source, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
      source = copy;
      error = copy < 0 ? errno : 0;
    }
  }
  ~Redirection() {
    if (copy >= 0) {
      (void)close(copy);
    }
  }
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

  // Returns 0, or the error's number.
  int addTo(FileActions& actions) const {
    if (error != 0) {
      return error;
    }
    return source == -1 ? 0 : actions.duplicate(source, target);
  }

 private:
  int source;
  int target;
  int copy = -1;
  int error = 0;
};

// Returns 0, or the error's number.
int spawn(const char* const* argv, int input, int output, int error, int processGroup, pid_t& child) {
  if (argv == nullptr || argv[0] == nullptr || processGroup < -1) {
    return EINVAL;
  }
  const Redirection redirections[] = {
      {input, STDIN_FILENO},
      {output, STDOUT_FILENO},
      {error, STDERR_FILENO},
  };
  FileActions actions;
  for (const Redirection& redirection : redirections) {
    if (const int failure = redirection.addTo(actions); failure != 0) {
      return failure;
    }
  }
  const Attributes attributes(processGroup);
  // The argument vector is only read: the missing const is that of execve.
  return posix_spawn(&child, argv[0], actions.get(), attributes.get(), const_cast<char* const*>(argv), environ);
}

}  // namespace

Vello::Ptr<Process> run(const char* const* argv, int input, int output, int error, int processGroup) {
  const Base::CancellationHeld held;
  // The handle is created first, because nothing may fail any more once there is a child.
  auto process = std::make_shared<Process>();
  pid_t child = Process::notStarted;
  const int failure = spawn(argv, input, output, error, processGroup, child);
  if (failure != 0) {
    errno = failure;
    return process;
  }
  process->child = child;
  return process;
}

}  // namespace Cor

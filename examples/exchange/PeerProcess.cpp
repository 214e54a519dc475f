// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "PeerProcess.h"

#include "Failure.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace Exchange {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds lookInterval(5);

std::vector<std::string> responderArguments(const Options& options) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(options.timeout).count();
  std::vector<std::string> arguments = {"exchange-demo", "--responder", "--timeout", std::to_string(seconds)};
  if (options.fault != Fault::None) {
    arguments.insert(arguments.end(), {"--break", options.faultName});
  }
  return arguments;
}

}  // namespace

PeerProcess::PeerProcess(const Options& options, const Descriptor& listener) : timeout(options.timeout) {
  std::vector<std::string> arguments = responderArguments(options);
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  int error = posix_spawn_file_actions_init(&actions);
  if (error == 0) {
    const std::unique_ptr<posix_spawn_file_actions_t, int (*)(posix_spawn_file_actions_t*)> owner(
        &actions, posix_spawn_file_actions_destroy);
    error = posix_spawn_file_actions_adddup2(&actions, listener.number(), STDIN_FILENO);
    if (error == 0) {
      error = posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
    }
  }
  if (error != 0) {
    throw LinkFailure("cannot start the second process: " + std::system_category().message(error));
  }
}

PeerProcess::~PeerProcess() {
  const Clock::time_point deadline = Clock::now() + timeout;
  while (Clock::now() < deadline) {
    const pid_t ended = waitpid(pid, nullptr, WNOHANG);
    if (ended == pid || (ended < 0 && errno != EINTR)) {
      return;
    }
    std::this_thread::sleep_for(lookInterval);
  }
  // No process can ignore SIGKILL, so the wait below ends.
  (void)kill(pid, SIGKILL);
  (void)waitpid(pid, nullptr, 0);
}

}  // namespace Exchange

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/platform/Children.h"

#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <sstream>

namespace Ipsec::Testing {

int waitFor(const Vello::Ptr<Cor::Process>& process) {
  int status = -1;
  EXPECT_EQ(waitpid(process->pid(), &status, 0), process->pid()) << std::strerror(errno);
  return status;
}

Outcome runAndWait(const Strings& arguments) {
  const MemoryFile output;
  const MemoryFile error;
  const int status = waitFor(Cor::run(ArgumentVector(arguments), -1, output.descriptor(), error.descriptor(), -1));
  return {status, output.text(), error.text()};
}

Outcome runShell(const std::string& script) {
  return runAndWait({"/bin/sh", "-c", script});
}

std::string ownPath() {
  char path[4096] = {};
  EXPECT_GT(readlink("/proc/self/exe", path, sizeof(path) - 1), 0);
  return path;
}

Outcome runRole(const Strings& roleAndArguments) {
  Strings arguments = {ownPath()};
  arguments.insert(arguments.end(), roleAndArguments.begin(), roleAndArguments.end());
  return runAndWait(arguments);
}

Strings linesOf(const std::string& text) {
  Strings lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

}  // namespace Ipsec::Testing

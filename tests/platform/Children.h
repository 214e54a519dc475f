// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Programs that the platform's tests start: this one again in a role, and others.
#pragma once

#include "platform/Process.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace Ipsec::Testing {

using Strings = std::vector<std::string>;

// A file in memory that serves as a child's standard stream.
class MemoryFile {
 public:
  MemoryFile() : number(memfd_create("platform-test", MFD_CLOEXEC)) {}
  ~MemoryFile() { (void)close(number); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  int descriptor() const { return number; }

  void fill(const std::string& text) {
    EXPECT_EQ(pwrite(number, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  }

  std::string text() const {
    std::string all;
    char piece[4096];
    for (ssize_t count = 0; (count = pread(number, piece, sizeof(piece), static_cast<off_t>(all.size()))) > 0;) {
      all.append(piece, static_cast<std::size_t>(count));
    }
    return all;
  }

 private:
  int number;
};

// Arguments in the form that Cor::run needs.
class ArgumentVector {
 public:
  explicit ArgumentVector(Strings arguments) : texts(std::move(arguments)) {
    for (const std::string& text : texts) {
      pointers.push_back(text.c_str());
    }
    pointers.push_back(nullptr);
  }
  ArgumentVector(const ArgumentVector&) = delete;
  ArgumentVector& operator=(const ArgumentVector&) = delete;

  operator const char* const*() const { return pointers.data(); }

 private:
  Strings texts;
  std::vector<const char*> pointers;
};

// Returns the raw wait status.
int waitFor(const Vello::Ptr<Cor::Process>& process);

struct Outcome {
  int status;
  std::string output;
  std::string error;
};

Outcome runAndWait(const Strings& arguments);
Outcome runShell(const std::string& script);

// Returns the path of this program.
std::string ownPath();

// Runs this program in the role that the first argument names (Roles.h).
Outcome runRole(const Strings& roleAndArguments);

Strings linesOf(const std::string& text);

}  // namespace Ipsec::Testing

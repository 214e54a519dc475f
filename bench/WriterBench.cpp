// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Replacing one entry of a large file of the daemon. Compares the library with a copy of the same file by hand in this
// process, and with the cp command. Runs in its own mount namespace, on a tmpfs.
//
// All times are CPU times: of this thread, and of cp's process from its start to its end. The ratio to cp is therefore
// the milder one.

#include "Interleave.h"
#include "Ipsec.h"
#include "tests/support/PrivateMounts.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <string>
#include <vector>

namespace Bench {
namespace {

using Ipsec::Testing::readFile;
using Ipsec::Testing::writeFile;

struct Case {
  std::string name;
  std::string file;
  std::string text;
  std::function<void()> edit;  // replaces one entry, and leaves a file of the same length
};

std::string section(int number) {
  std::string text = "conn s" + std::to_string(10000 + number) + "\n";
  for (int line = 0; line < 18; ++line) {
    text += "\tsetting" + std::to_string(line) + "=value\n";
  }
  return text + "\n";  // with its head and this empty line: 20 lines
}

Case connections() {
  Case made = {"connections 10000 sections of 20 lines", Ipsec::Testing::connectionsFile, "", {}};
  for (int number = 0; number < 10000; ++number) {
    made.text += section(number);
  }
  made.edit = [] {
    Ipsec::writeConnections({{"config", "s15000"}, {"reqid", "1"}, {"left", "10.0.0.1"}, {"right", "10.0.0.2"}});
  };
  return made;
}

Case secrets() {
  Case made = {"secrets 100000 entries", Ipsec::Testing::secretsFile, "", {}};
  for (int number = 0; number < 100000; ++number) {
    made.text += "10." + std::to_string(number / 10000) + "." + std::to_string(number / 100 % 100) + "." +
                 std::to_string(number % 100) + " : PSK \"secret of this peer\"\n";
  }
  made.edit = [] { Ipsec::writeSecrets({{"peerIp", "10.5.0.0"}, {"key", "\"secret of this peer\""}}); };
  return made;
}

void copyByHand(const std::string& from, const std::string& to) {
  static std::vector<char> bytes(131072);  // what cp reads at a time
  const std::string temporary = to + ".tmp";
  const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  const int out = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  require(in >= 0 && out >= 0, "cannot open " + from);
  for (ssize_t count; (count = read(in, bytes.data(), bytes.size())) > 0;) {
    require(write(out, bytes.data(), static_cast<std::size_t>(count)) == count, "cannot write " + temporary);
  }
  require(close(in) == 0 && close(out) == 0 && rename(temporary.c_str(), to.c_str()) == 0, "cannot make " + to);
}

// Runs cp and returns its CPU time in nanoseconds.
double runCp(const std::string& from, const std::string& to) {
  const char* argv[] = {"cp", from.c_str(), to.c_str(), nullptr};
  pid_t child = 0;
  require(posix_spawnp(&child, "cp", nullptr, nullptr, const_cast<char**>(argv), environ) == 0, "cannot run cp");
  int status = -1;
  rusage usage = {};
  require(wait4(child, &status, 0, &usage) == child && status == 0, "cp failed");
  const auto nanoseconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_usec) * 1e3;
  };
  return nanoseconds(usage.ru_utime) + nanoseconds(usage.ru_stime);
}

void run(const Case& measured, unsigned rounds) {
  writeFile(measured.file, measured.text);
  const std::string copy = measured.file + ".copy";
  measured.edit();  // The entry is now at the end, which takes the longest search.
  const std::string edited = readFile(measured.file);
  measured.edit();
  require(readFile(measured.file) == edited && edited != measured.text, "the library does not edit as expected");
  copyByHand(measured.file, copy);
  require(readFile(copy) == edited, "the copy differs");

  std::vector<double> library;
  std::vector<double> byHand;
  std::vector<double> cp;
  const auto ours = [&] { library.push_back(timeOf(measured.edit)); };
  const auto theirs = [&] {
    byHand.push_back(timeOf([&] { copyByHand(measured.file, copy); }));
    cp.push_back(runCp(measured.file, copy));
  };
  for (unsigned round = 0; round < rounds; ++round) {
    round % 2 == 0 ? (ours(), theirs()) : (theirs(), ours());
  }
  const double libraryTime = median(library);
  const double byHandTime = median(byHand);
  const double cpTime = median(cp);
  print("writer", measured.name, "library", "us", libraryTime / 1000);
  print("writer", measured.name, "copy by hand", "us", byHandTime / 1000);
  print("writer", measured.name, "cp command", "us", cpTime / 1000);
  print("writer", measured.name, "library to copy by hand", "ratio", libraryTime / byHandTime);
  print("writer", measured.name, "library to cp command", "ratio", libraryTime / cpTime);
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  const Bench::Arguments arguments(argc, argv);
  try {
    Ipsec::Testing::enterPrivateMounts();
    for (const Bench::Case& measured : {Bench::connections(), Bench::secrets()}) {
      if (arguments.wants(measured.name)) {
        Bench::run(measured, arguments.slices);
      }
    }
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "%s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

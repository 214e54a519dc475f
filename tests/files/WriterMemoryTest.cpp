// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Memory runs out in the writers, at every allocation of a call in turn. Only std::bad_alloc leaves the call, the old
// file stays unless the call returned, and neither memory nor a descriptor is leaked.
#include "Ipsec.h"
#include "tests/support/HostTests.h"
#include "tests/support/OperatorNew.h"
#include "tests/support/PrivateMounts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <new>
#include <string>
#include <utility>

// Every library in the process uses the program's operator new instead of that of the C++ runtime.
namespace {

std::atomic<long> live = 0;
std::atomic<unsigned long> allocations = 0;  // since a failure was requested
std::atomic<unsigned long> failing = 0;      // which of them fails; 0 means none
std::atomic<bool> failingOnwards = false;    // and all later ones

bool refuses() {
  const unsigned long wanted = failing;
  if (wanted == 0) {
    return false;
  }
  const unsigned long number = ++allocations;
  return number == wanted || (failingOnwards && number > wanted);
}

}  // namespace

void* Ipsec::Testing::takeMemory(std::size_t size) noexcept {
  void* const memory = refuses() ? nullptr : std::malloc(size == 0 ? 1 : size);
  live += memory != nullptr;
  return memory;
}

void Ipsec::Testing::giveMemory(void* memory) noexcept {
  live -= memory != nullptr;
  std::free(memory);
}

namespace Ipsec::Testing {
namespace {

std::ptrdiff_t openDescriptors() {
  const std::filesystem::directory_iterator folder("/proc/self/fd");
  return std::distance(begin(folder), end(folder));
}

enum class Outcome { Returned, OutOfMemory, Other };

struct Writer {
  const char* name;
  const char* file;
  std::string before;
  std::string after;
  void (*write)(stringmap settings);
  stringmap settings;
};

// Writes with the nth allocation of the call failing. The map's copy is made by the caller and may not fail.
Outcome writeWithFailure(const Writer& writer, unsigned long number, bool onwards) {
  stringmap settings = writer.settings;
  Outcome outcome = Outcome::Returned;
  allocations = 0;
  failingOnwards = onwards;
  failing = number;
  try {
    writer.write(std::move(settings));
  } catch (const std::bad_alloc&) {
    outcome = Outcome::OutOfMemory;
  } catch (...) {
    outcome = Outcome::Other;
  }
  failing = 0;
  return outcome;
}

class WriterMemory : public testing::TestWithParam<Writer> {
 protected:
  WriterMemory() : writer(GetParam()) { resetHost(); }

  // Fails every allocation of a call in turn. Returns how many there are.
  unsigned long sweep(bool onwards) const {
    for (unsigned long number = 1;; ++number) {
      SCOPED_TRACE("allocation " + std::to_string(number) + (onwards ? " and all later" : ""));
      writeFile(writer.file, writer.before);
      const std::ptrdiff_t descriptors = openDescriptors();
      const long memory = live;
      const Outcome outcome = writeWithFailure(writer, number, onwards);
      EXPECT_EQ(live, memory);
      EXPECT_EQ(openDescriptors(), descriptors);
      EXPECT_NE(outcome, Outcome::Other);
      EXPECT_TRUE(readFile(writer.file) == (outcome == Outcome::Returned ? writer.after : writer.before));
      if (allocations < number) {
        EXPECT_EQ(outcome, Outcome::Returned);
        return number - 1;
      }
      EXPECT_EQ(outcome, Outcome::OutOfMemory);
      if (HasFailure()) {
        return number;
      }
    }
  }

  const Writer writer;
};

TEST_P(WriterMemory, ThatRunsOutLeavesTheOldFile) {
  writeFile(writer.file, writer.before);
  writer.write(writer.settings);  // What is kept permanently is created now.
  ASSERT_EQ(readFile(writer.file), writer.after);
  const unsigned long count = sweep(false);
  EXPECT_EQ(sweep(true), count);
  EXPECT_GT(count, 5U);
  std::cout << "allocations: " << count << '\n';
}

const std::string body =
    "\n\tkeyexchange=ikev2\n\tauthby=secret\n\tlifetime=3600s\n\treqid=7\n\tleft=10.0.0.1\n\tright=10.0.0.2\n"
    "\tauto=add\n\tmobike=no\n\tikedscp=110000\n\n";

stringmap section(const char* name) {
  return {{"config", name},        {"uniqueids", "add"},
          {"ikeVersion", "ikev2"}, {"authby", Ike::stringValue(Ike::IpsecAuthType::PreSharedKey)},
          {"lifetime", "3600"},    {"reqid", "7"},
          {"left", "10.0.0.1"},    {"right", "10.0.0.2"}};
}

const char* const longName = "default-10.0.0.1-10.0.0.2-local-7";
const char* const expressionName = "default-[0-9.]+-(one|two)";

INSTANTIATE_TEST_SUITE_P(
    Of, WriterMemory,
    testing::Values(
        Writer{"connections", connectionsFile, "conn " + std::string(longName) + "\n\tx=1\nconn b\n\ty=1\n",
               "config setup\n\tuniqueids=no\nconn b\n\ty=1\nconn " + std::string(longName) + body, &writeConnections,
               section(longName)},
        Writer{"connectionsByExpression", connectionsFile, "conn default-10.0.0.1-two\n\tx=1\nconn b\n\ty=1\n",
               "config setup\n\tuniqueids=no\nconn b\n\ty=1\nconn " + std::string(expressionName) + body,
               &writeConnections, section(expressionName)},
        Writer{"defaultConnection", connectionsFile, "conn %default\n\tx=1\nconn b\n\ty=1\n",
               "conn b\n\ty=1\nconn %default\n\tauthby=secret\n\tikelifetime=28800s\n\tlifetime=3600s\n"
               "\trekeymargin=3m\n\tkeyingtries=1\n\tmobike=no\n\tkeyexchange=2\n\tauto=add\n\tikedscp=110000\n\n",
               &writeConnections, stringmap{{"default", "%default"}}},
        Writer{"secrets", secretsFile, "2001:db8:0:0:1:2:3:4 : PSK \"an older secret\"\n10.0.0.2 : PSK b\n",
               "10.0.0.2 : PSK b\n2001:db8:0:0:1:2:3:4 : PSK \"a secret of some length\"\n", &writeSecrets,
               stringmap{{"peerIp", "2001:db8:0:0:1:2:3:4"}, {"key", "\"a secret of some length\""}}},
        Writer{"secretsByExpression", secretsFile, "10.0.0.1 : PSK a\n10.0.0.2 : PSK b\n",
               "10.0.0.2 : PSK b\n10[.]0[.]0[.](1|3) : PSK \"a secret of some length\"\n", &writeSecrets,
               stringmap{{"peerIp", "10[.]0[.]0[.](1|3)"}, {"key", "\"a secret of some length\""}}}),
    [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  return Ipsec::Testing::runInPrivateMounts(argc, argv);
}

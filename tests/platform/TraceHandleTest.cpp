// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Text traces and their levels.

#include "platform/Trace.h"
#include "platform/testing/TraceCapture.h"
#include "tests/platform/Roles.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace Ipsec::Testing {
namespace {

// Created before any handle, and therefore destroyed after all of them.
struct LastWords {
  bool wanted = false;
  const Cor::TraceHandle* handle = nullptr;

  ~LastWords() {
    if (wanted) {
      DualTrace::write(*handle, 0, Cor::TraceSite::here(), "last words");
    }
  }
} lastWords;

}  // namespace

int traceLevels(const Strings&) {
  const Cor::TraceHandle first("First");
  const Cor::TraceHandle second("Second");
  for (unsigned level = 0; level < 34; ++level) {
    first.write(level, Cor::TraceSite::here(), "text");
    second.write(level, Cor::TraceSite::here(), "text");
  }
  return 0;
}

int traceMessage(const Strings& arguments) {
  const Cor::TraceHandle handle("First");
  handle.write(0, {"src/File.cpp", 12, "someFunction"}, arguments.at(0));
  return 0;
}

int traceUntilTheEnd(const Strings&) {
  static const Cor::TraceHandle* const handle = new Cor::TraceHandle("First");
  lastWords.handle = handle;
  lastWords.wanted = true;
  return 0;
}

int traceFromThreads(const Strings&) {
  const Cor::TraceHandle handle("First");
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&handle, number] {
      for (int count = 0; count < 100; ++count) {
        const std::string message(static_cast<std::size_t>(40 * count % 700 + 1), static_cast<char>('a' + number));
        DualTrace::write(handle, 0, {"File.cpp", 1, "f"}, message);
        const Cor::TraceHandle another("First");
        const Cor::TraceCapture capture([](const Cor::TraceLine&) {});
        (void)Cor::setTraceLevels(count % 2 == 0 ? "First=0-4" : "First=0-5");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return 0;
}

int traceWithoutStandardError(const Strings&) {
  const Cor::TraceHandle handle("First");
  (void)close(STDERR_FILENO);
  handle.write(0, Cor::TraceSite::here(), "lost");
  return 0;
}

namespace {

Outcome runRoleWithLevels(const Strings& roleAndArguments, const char* levels) {
  EXPECT_EQ(setenv("TRACE_LEVELS", levels, 1), 0);
  Outcome outcome = runRole(roleAndArguments);
  EXPECT_EQ(unsetenv("TRACE_LEVELS"), 0);
  return outcome;
}

// "Name:level" of each text line: what TRACE_LEVELS let through.
std::string levelsIn(const std::string& error) {
  static const std::regex line(R"(^\S+ (\S+) (\d+) )");
  std::string levels;
  for (const std::string& text : linesOf(error)) {
    std::smatch found;
    if (std::regex_search(text, found, line)) {
      levels += (levels.empty() ? "" : " ") + found.str(1) + ":" + found.str(2);
    }
  }
  return levels;
}

// --- Text traces -----------------------------------------------------------------------------------------------------

TEST(TraceHandle, TextLineHoldsEverythingAndEndsWithTheMessage) {
  const Outcome outcome = runRole({"trace-message", "Foo::bar Wrong size 12"});
  EXPECT_EQ(outcome.status, 0);
  const std::regex shape(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}[+-]\d\d:\d\d )"
                         R"(First 0 src/File\.cpp:12 someFunction Foo::bar Wrong size 12\n)");
  EXPECT_TRUE(std::regex_match(outcome.error, shape)) << outcome.error;
}

TEST(TraceHandle, MessageIsNoFormatAndNoPattern) {
  const std::string message = "%s%n {} {0:d} %v %* \\n {";
  const std::string error = runRole({"trace-message", message}).error;
  EXPECT_NE(error.find(" someFunction " + message + "\n"), std::string::npos) << error;
}

TEST(TraceHandle, ControlCharactersForgeNoLine) {
  const std::string error = runRole({"trace-message", "a\nb\rc\td\x1b[2Je\x7f\xc3\xa9"}).error;
  EXPECT_NE(error.find(" someFunction a?b?c?d?[2Je?\xc3\xa9\n"), std::string::npos) << error;
  EXPECT_EQ(linesOf(error).size(), 1U);
}

TEST(TraceHandle, OnlyErrorsAreWrittenFromTheStart) {
  EXPECT_EQ(levelsIn(runRole({"trace-levels"}).error), "First:0 Second:0");
}

TEST(TraceHandle, EnvironmentNamesExactlyTheLevels) {
  const std::map<std::string, std::string> cases = {
      {"", "First:0 Second:0"},
      {"First=0-2", "First:0 Second:0 First:1 First:2"},
      {"First=3", "Second:0 First:3"},
      {"First=0-1,First=4", "First:0 Second:0 First:1 First:4"},
      {"First=31,Second=1-2", "Second:1 Second:2 First:31"},
      {"Other=0-31", "First:0 Second:0"},
      {"First=03-4", "Second:0 First:3 First:4"},
  };
  for (const auto& [levels, expected] : cases) {
    const Outcome outcome = runRoleWithLevels({"trace-levels"}, levels.c_str());
    EXPECT_EQ(levelsIn(outcome.error), expected) << levels;
    EXPECT_EQ(outcome.error.find("TRACE_LEVELS"), std::string::npos) << levels;
  }
}

struct Malformed {
  const char* levels;
  const char* piece;
};

constexpr Malformed malformedLevels[] = {
    {"First", "First"},
    {"First=", "First="},
    {"=3", "=3"},
    {"First=1-", "First=1-"},
    {"First=-3", "First=-3"},
    {"First=5-3", "First=5-3"},
    {"First=32", "First=32"},
    {"First=0-32", "First=0-32"},
    {"First=1-2-3", "First=1-2-3"},
    {"First=4,Second=x", "Second=x"},
    {"First=4,", ""},
    {",First=4", ""},
    {"First=4,,Second=4", ""},
    {"First= 4", "First= 4"},
    {"First=+4", "First=+4"},
    {"First=4\nforged", "First=4?forged"},
    {"First=99999999999999999999", "First=99999999999999999999"},
};

TEST(TraceHandle, MalformedEnvironmentIsReportedOnceAndIgnoredAsAWhole) {
  for (const Malformed& malformed : malformedLevels) {
    const Outcome outcome = runRoleWithLevels({"trace-levels"}, malformed.levels);
    EXPECT_EQ(outcome.status, 0);
    const Strings lines = linesOf(outcome.error);
    ASSERT_EQ(lines.size(), 3U) << outcome.error;
    EXPECT_EQ(lines[0], std::string("TRACE_LEVELS ignored: \"") + malformed.piece +
                            "\" is neither NAME=LEVEL nor NAME=FIRST-LAST (0 to 31)");
    EXPECT_EQ(levelsIn(outcome.error), "First:0 Second:0");
  }
}

TEST(TraceHandle, TracesUntilTheVeryEndOfTheProcess) {
  const Outcome outcome = runRole({"trace-until-the-end"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(outcome.error.find(" last words\n"), std::string::npos) << outcome.error;
}

TEST(TraceHandle, ClosedStandardErrorLosesTheLine) {
  EXPECT_EQ(runRole({"trace-without-standard-error"}).status, 0);
}

TEST(TraceHandle, LinesOfSeveralThreadsStayWhole) {
  const Outcome outcome = runRole({"trace-from-threads"});
  EXPECT_EQ(outcome.status, 0) << outcome.error;
  const std::regex shape(R"(\S+ First 0 File\.cpp:1 f (a+|b+|c+|d+))");
  const Strings lines = linesOf(outcome.error);
  EXPECT_EQ(lines.size(), 400U);
  for (const std::string& line : lines) {
    EXPECT_TRUE(std::regex_match(line, shape)) << line;
  }
}

// --- Levels at run time ----------------------------------------------------------------------------------------------

TEST(TraceLevels, AreSwitchedByNameForHandlesThereAreAndHandlesToCome) {
  const Cor::TraceHandle before("SwitchedByName");
  const Cor::TraceHandle same("SwitchedByName");
  const Cor::TraceHandle other("SwitchedOther");
  EXPECT_TRUE(Cor::setTraceLevels("SwitchedByName=2-3"));
  const Cor::TraceHandle after("SwitchedByName");
  for (const Cor::TraceHandle* handle : {&before, &same, &after}) {
    EXPECT_FALSE(handle->enabled(0));
    EXPECT_FALSE(handle->enabled(1));
    EXPECT_TRUE(handle->enabled(2));
    EXPECT_TRUE(handle->enabled(3));
    EXPECT_FALSE(handle->enabled(4));
    EXPECT_FALSE(handle->enabled(34));
  }
  EXPECT_TRUE(other.enabled(0));
  EXPECT_FALSE(other.enabled(2));
}

TEST(TraceLevels, OfOneHandleAreThoseOfItsName) {
  Cor::TraceHandle handle("SwitchedByHandle");
  const Cor::TraceHandle same("SwitchedByHandle");
  handle.setLevels(0b100);
  EXPECT_TRUE(handle.enabled(2));
  EXPECT_TRUE(same.enabled(2));
  EXPECT_FALSE(same.enabled(0));
}

TEST(TraceLevels, MalformedTextChangesNothing) {
  const Cor::TraceHandle handle("First");
  for (const Malformed& malformed : malformedLevels) {
    EXPECT_FALSE(Cor::setTraceLevels(malformed.levels)) << malformed.levels;
  }
  EXPECT_TRUE(handle.enabled(0));
  EXPECT_FALSE(handle.enabled(4));
  EXPECT_TRUE(Cor::setTraceLevels(""));
}

}  // namespace
}  // namespace Ipsec::Testing

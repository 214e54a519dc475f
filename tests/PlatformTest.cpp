// The stand-in platform's own promises: what the library and its other tests take for granted.
//
// Some of them show only in a process of its own (the environment, the end of the process, another process's memory):
// the program starts itself again, with the name of a role as its argument.

#include "platform/AgentTypes.h"
#include "platform/Framework.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "platform/Trace.h"
#include "platform/Vrf.h"
#include "platform/linux/TraceCapture.h"
#include "platform/linux/VrfSegment.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

// ThreadSanitizer brings an allocation of its own, which cannot be replaced, and cannot be single-stepped: the tests
// that need either are left out of its builds.
#ifdef __SANITIZE_THREAD__
#define WITH_THREAD_SANITIZER
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define WITH_THREAD_SANITIZER
#endif
#endif

namespace {

using namespace std::chrono_literals;
using Vrf::VrfIdMap;
using VrfId = VrfIdMap::VrfId;
using VrfEntry = VrfIdMap::VrfEntry;
using Strings = std::vector<std::string>;

thread_local bool memoryIsExhausted = false;
Strings sentToSyslog;

void keepSyslogText(int priority, const char* format, std::va_list values) {
  char text[1024];
  (void)std::vsnprintf(text, sizeof(text), format, values);
  sentToSyslog.push_back("<" + std::to_string(priority) + ">" + text);
}

}  // namespace

#ifndef WITH_THREAD_SANITIZER

// The whole program's allocation, so that it can be made to fail. Not inlined: g++ would see new paired with free.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const memory = memoryIsExhausted ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

#endif

// The platform's calls of syslog end here instead of in the C library; the second name is the one that a build with
// _FORTIFY_SOURCE calls.
extern "C" [[gnu::visibility("default")]] void syslog(int priority, const char* format, ...) {
  std::va_list values;
  va_start(values, format);
  keepSyslogText(priority, format, values);
  va_end(values);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" [[gnu::visibility("default")]] void __syslog_chk(int priority, int, const char* format, ...) {
  std::va_list values;
  va_start(values, format);
  keepSyslogText(priority, format, values);
  va_end(values);
}

namespace {

// --- Running programs ------------------------------------------------------------------------------------------------

// A file in memory, to be a child's standard stream.
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

int waitFor(const Vello::Ptr<Cor::Process>& process) {
  int status = -1;
  EXPECT_EQ(waitpid(process->pid(), &status, 0), process->pid()) << std::strerror(errno);
  return status;
}

struct Outcome {
  int status;
  std::string output;
  std::string error;
};

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

Outcome runRoleWithLevels(const Strings& roleAndArguments, const char* levels) {
  EXPECT_EQ(setenv("TRACE_LEVELS", levels, 1), 0);
  Outcome outcome = runRole(roleAndArguments);
  EXPECT_EQ(unsetenv("TRACE_LEVELS"), 0);
  return outcome;
}

Strings linesOf(const std::string& text) {
  Strings lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
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

// --- Roles of the program when it starts itself ----------------------------------------------------------------------

// Made before any handle and so destroyed after all of them.
struct LastWords {
  bool wanted = false;
  const Cor::TraceHandle* handle = nullptr;

  ~LastWords() {
    if (wanted) {
      DualTrace::write(*handle, 0, Cor::TraceSite::here(), "last words");
    }
  }
} lastWords;

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

int traceWithoutMemory(const Strings&) {
  const Cor::TraceHandle handle("First");
  const std::string big(100'000, 'x');
  handle.write(0, {"File.cpp", 1, "f"}, "first");
  memoryIsExhausted = true;
  handle.write(0, {"File.cpp", 2, "f"}, big);
  handle.write(0, {"File.cpp", 3, "f"}, "short");
  const Cor::TraceHandle late("Late");
  late.write(0, {"File.cpp", 4, "f"}, "short");
  memoryIsExhausted = false;
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

int exchangeStreams(const Strings&) {
  (void)close_range(STDERR_FILENO + 1, ~0U, 0);  // whatever the test was started with
  const ArgumentVector shell({"/bin/sh", "-c", "echo out; echo err >&2; ls /proc/self/fd"});
  return waitFor(Cor::run(shell, -1, STDERR_FILENO, STDOUT_FILENO, -1));
}

int writeDescriptor(const Strings& arguments) {
  return write(std::stoi(arguments.at(0)), "inherited", 9) == 9 ? 0 : 1;
}

int readVrf(const Strings& arguments) {
  const auto table = VrfIdMap::Status::open(arguments.at(0).c_str());
  const VrfEntry entry = table->vrfEntry(VrfId(static_cast<std::uint32_t>(std::stoul(arguments.at(1)))));
  std::printf("%u %s", entry.vrfId().value(), std::string(entry.name()).c_str());
  return 0;
}

constexpr std::uint32_t busyVrfs = 5;

// The entries that the busy writer writes: the letter tells the length, so that a mixture of two is seen.
VrfEntry busyEntry(unsigned count) {
  const unsigned kind = count % 26;
  return {VrfId(count % busyVrfs), std::string(kind * 4 + 1, static_cast<char>('a' + kind))};
}

bool isBusyEntry(const VrfEntry& entry, VrfId id) {
  const std::string_view name = entry.name();
  if (entry.vrfId() != id || name.empty() || name.find_first_not_of(name[0]) != std::string_view::npos) {
    return false;
  }
  return name.size() == static_cast<std::size_t>(name[0] - 'a') * 4 + 1;
}

// Writes until it is killed.
int writeVrfs(const Strings& arguments) {
  const auto table = VrfIdMap::Status::create(arguments.at(0).c_str());
  for (unsigned count = 0;; ++count) {
    table->set(busyEntry(count));
    if (count % 7 == 0) {
      table->erase(VrfId(count / 7 % busyVrfs));
    }
  }
}

struct Role {
  const char* name;
  int (*play)(const Strings& arguments);
};

constexpr Role roles[] = {
    {"trace-levels", traceLevels},
    {"trace-message", traceMessage},
    {"trace-until-the-end", traceUntilTheEnd},
    {"trace-without-memory", traceWithoutMemory},
    {"trace-from-threads", traceFromThreads},
    {"trace-without-standard-error", traceWithoutStandardError},
    {"exchange-streams", exchangeStreams},
    {"write-descriptor", writeDescriptor},
    {"read-vrf", readVrf},
    {"write-vrfs", writeVrfs},
};

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

// --- Captures, levels at run time ------------------------------------------------------------------------------------

// "level message" of each text line, as a capture sees it.
class TextLines {
 public:
  const Strings& seen() const { return all; }

 private:
  Strings all;
  Cor::TraceCapture capture{[this](const Cor::TraceLine& line) {
    if (line.sink == Cor::TraceSink::Text) {
      all.push_back(std::to_string(line.level) + " " + line.message);
    }
  }};
};

TEST(TraceCapture, SeesBothSinksOfADualTrace) {
  const Cor::TraceHandle handle("CaptureBoth");
  std::vector<Cor::TraceLine> lines;
  {
    const Cor::TraceCapture capture([&lines](const Cor::TraceLine& line) { lines.push_back(line); });
    DualTrace::write(handle, 0, {"File.cpp", 7, "f"}, "two\nlines");
  }
  DualTrace::write(handle, 0, {"File.cpp", 8, "f"}, "not seen");
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].sink, Cor::TraceSink::Ring);
  EXPECT_EQ(lines[0].handle, "");
  EXPECT_EQ(lines[1].sink, Cor::TraceSink::Text);
  EXPECT_EQ(lines[1].handle, "CaptureBoth");
  for (const Cor::TraceLine& line : lines) {
    EXPECT_EQ(line.level, 0U);
    EXPECT_EQ(line.file, "File.cpp");
    EXPECT_EQ(line.line, 7);
    EXPECT_EQ(line.function, "f");
    EXPECT_EQ(line.message, "two\nlines");
  }
}

TEST(TraceCapture, DoesNotSeeLevelsThatAreOff) {
  const Cor::TraceHandle handle("CaptureOff");
  const TextLines lines;
  handle.write(1, Cor::TraceSite::here(), "off");
  EXPECT_EQ(lines.seen(), Strings());
}

TEST(TraceCapture, NestsAndMayThrowOrTrace) {
  const Cor::TraceHandle handle("CaptureNested");
  const TextLines outer;
  {
    const Cor::TraceCapture throwing([](const Cor::TraceLine&) { throw 1; });
    const Cor::TraceCapture tracing([&](const Cor::TraceLine& line) { RingTrace::write({"f", 1, "f"}, line.message); });
    const TextLines inner;
    handle.write(0, Cor::TraceSite::here(), "first");
    EXPECT_EQ(inner.seen(), Strings{"0 first"});
  }
  handle.write(0, Cor::TraceSite::here(), "second");
  EXPECT_EQ(outer.seen(), (Strings{"0 first", "0 second"}));
}

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

// --- The ring --------------------------------------------------------------------------------------------------------

TEST(RingTrace, KeepsTheLastLinesInOrder) {
  for (int number = 0; number < 600; ++number) {
    RingTrace::write({"File.cpp", number, "f"}, "message " + std::to_string(number));
  }
  const Strings lines = RingTrace::lines();
  ASSERT_EQ(lines.size(), RingTrace::capacity);
  EXPECT_EQ(RingTrace::capacity, 512U);
  EXPECT_EQ(lines.front(), "File.cpp:88 f message 88");
  EXPECT_EQ(lines.back(), "File.cpp:599 f message 599");
}

TEST(RingTrace, KeepsLinesWhoseLevelIsOff) {
  const Cor::TraceHandle handle("RingOff");
  const TextLines text;
  DualTrace::write(handle, 1, {"File.cpp", 1, "f"}, "only\nhere {} %s");
  EXPECT_EQ(RingTrace::lines().back(), "File.cpp:1 f only?here {} %s");
  EXPECT_EQ(text.seen(), Strings());
}

TEST(RingTrace, HoldsNoNameOfAnUnloadedLibrary) {
  auto file = std::make_unique<std::string>("Gone.cpp");
  RingTrace::write({file->c_str(), 1, "f"}, "message");
  file.reset();
  EXPECT_EQ(RingTrace::lines().back(), "Gone.cpp:1 f message");
}

TEST(Tracing, KeepsErrno) {
  const Cor::TraceHandle handle("KeepsErrno");
  const Cor::TraceCapture capture([](const Cor::TraceLine&) { errno = EIO; });
  errno = ECHILD;
  DualTrace::write(handle, 0, Cor::TraceSite::here(), "message");
  EXPECT_EQ(errno, ECHILD);
}

// --- Log messages ----------------------------------------------------------------------------------------------------

constexpr Cor::LogMessage testMessage = {"TEST_MESSAGE", "%s has %d", "explanation", "action", 4};

std::size_t countOfKey(const std::string& key) {
  std::size_t count = 0;
  for (const Cor::LogMessage& message : Cor::LogHandle::registeredMessages()) {
    count += message.key == key ? 1 : 0;
  }
  return count;
}

int sentOf(Cor::LogHandle& handle, int attempts) {
  int sent = 0;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    sent += handle.emit("x", attempt) ? 1 : 0;
  }
  return sent;
}

TEST(LogHandle, ListsItsMessageOncePerHandleWhileItLives) {
  EXPECT_EQ(countOfKey("TEST_MESSAGE"), 0U);
  {
    const Cor::LogHandle first(testMessage, Vello::Duration(0), 1.0, 0, 0);
    const Cor::LogHandle second(testMessage, Vello::Duration(0), 1.0, 0, 0);
    const Cor::LogHandle last({"LAST", "", "", "", 3}, Vello::Duration(0), 1.0, 0, 0);
    EXPECT_EQ(countOfKey("TEST_MESSAGE"), 2U);
    const Cor::LogMessage listed = Cor::LogHandle::registeredMessages().back();
    EXPECT_STREQ(listed.key, "LAST");
    EXPECT_EQ(listed.level, 3U);
    EXPECT_STREQ(first.message().explanation, "explanation");
  }
  EXPECT_EQ(countOfKey("TEST_MESSAGE"), 0U);
}

TEST(LogHandle, SendsKeyAndTextToSyslogAtItsLevel) {
  Cor::LogHandle handle(testMessage, Vello::Duration(0), 1.0, 0, 0);
  Cor::LogHandle outOfRange({"LOW", "no values", "", "", 99}, Vello::Duration(0), 1.0, 0, 0);
  sentToSyslog.clear();
  EXPECT_TRUE(handle.emit("%s{}", 12));
  EXPECT_TRUE(outOfRange.emit());
  EXPECT_EQ(sentToSyslog, (Strings{"<" + std::to_string(LOG_USER | LOG_WARNING) + ">TEST_MESSAGE: %s{} has 12",
                                   "<" + std::to_string(LOG_USER | LOG_DEBUG) + ">LOW: no values"}));
}

TEST(LogHandle, WithoutLimitsSendsEverything) {
  Cor::LogHandle handle(testMessage, Vello::Duration(0), 1.0, 0, 0);
  sentToSyslog.clear();
  EXPECT_EQ(sentOf(handle, 100), 100);
  EXPECT_EQ(sentToSyslog.size(), 100U);
}

TEST(LogHandle, SendsAShareEvenly) {
  const std::map<double, int> cases = {{0.0, 0}, {0.1, 10}, {0.25, 25}, {0.5, 50}, {1.0, 100}, {7.0, 100}, {-1.0, 0}};
  for (const auto& [share, expected] : cases) {
    Cor::LogHandle handle(testMessage, Vello::Duration(0), share, 0, 0);
    EXPECT_EQ(sentOf(handle, 100), expected) << share;
  }
  Cor::LogHandle half(testMessage, Vello::Duration(0), 0.5, 0, 0);
  EXPECT_TRUE(half.emit("x", 1));
  EXPECT_FALSE(half.emit("x", 2));
  EXPECT_TRUE(half.emit("x", 3));
}

TEST(LogHandle, HoldsBackWithinTheIntervalAfterTheBurst) {
  Cor::LogHandle slow(testMessage, Vello::Duration(1000), 1.0, 0, 0);
  EXPECT_EQ(sentOf(slow, 10), 1);
  Cor::LogHandle burst(testMessage, Vello::Duration(1000), 1.0, 3, 0);
  EXPECT_EQ(sentOf(burst, 10), 3);
  Cor::LogHandle quick(testMessage, Vello::Duration(0.005), 1.0, 0, 0);
  EXPECT_TRUE(quick.emit("x", 1));
  std::this_thread::sleep_for(20ms);
  EXPECT_TRUE(quick.emit("x", 2));
}

TEST(LogHandle, StopsAtItsLimit) {
  Cor::LogHandle handle(testMessage, Vello::Duration(0), 1.0, 100, 7);
  EXPECT_EQ(sentOf(handle, 50), 7);
}

// --- Process runner --------------------------------------------------------------------------------------------------

TEST(Run, PassesTheArgumentsUntouched) {
  const Outcome outcome = runAndWait({"/usr/bin/printf", "[%s]", "a b", "", "$HOME", "*", "'\"\n"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "[a b][][$HOME][*]['\"\n]");
}

TEST(Run, LeavesTheRawWaitStatusToTheCaller) {
  EXPECT_EQ(runShell("exit 3").status, 3 << 8);
  EXPECT_EQ(runShell("kill -9 $$").status, SIGKILL);
}

TEST(Run, RedirectsEachStream) {
  MemoryFile input;
  input.fill("given");
  const MemoryFile output;
  const MemoryFile error;
  const ArgumentVector shell({"/bin/sh", "-c", "cat; echo to error >&2"});
  EXPECT_EQ(waitFor(Cor::run(shell, input.descriptor(), output.descriptor(), error.descriptor(), -1)), 0);
  EXPECT_EQ(output.text(), "given");
  EXPECT_EQ(error.text(), "to error\n");
}

TEST(Run, ExchangesTheCallersOwnStreams) {
  const Outcome outcome = runRole({"exchange-streams"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "err\n");
  EXPECT_EQ(outcome.error, "out\n0\n1\n2\n3\n") << "a further descriptor is one that leaked (3 is the folder's)";
}

TEST(Run, InheritsEnvironmentStreamsAndOpenDescriptors) {
  EXPECT_EQ(setenv("PLATFORM_TEST", "inherited", 1), 0);
  EXPECT_EQ(runShell("printf %s \"$PLATFORM_TEST\"").output, "inherited");
  EXPECT_EQ(unsetenv("PLATFORM_TEST"), 0);

  const MemoryFile file;
  const int open = fcntl(file.descriptor(), F_DUPFD, 50);
  ASSERT_GE(open, 50);
  EXPECT_EQ(runRole({"write-descriptor", std::to_string(open)}).status, 0);
  EXPECT_EQ(file.text(), "inherited");
  EXPECT_NE(runRole({"write-descriptor", std::to_string(file.descriptor())}).status, 0) << "is close-on-exec";
  (void)close(open);
}

TEST(Run, PutsTheChildIntoTheGroupAskedFor) {
  const ArgumentVector sleep({"/bin/sleep", "60"});
  const auto stays = Cor::run(sleep, -1, -1, -1, -1);
  const auto leads = Cor::run(sleep, -1, -1, -1, 0);
  const auto joins = Cor::run(sleep, -1, -1, -1, leads->pid());
  EXPECT_EQ(getpgid(stays->pid()), getpgrp());
  EXPECT_EQ(getpgid(leads->pid()), leads->pid());
  EXPECT_EQ(getpgid(joins->pid()), leads->pid());
  for (const auto& process : {stays, leads, joins}) {
    ASSERT_NE(process->pid(), Cor::Process::notStarted);
    (void)kill(process->pid(), SIGKILL);
    EXPECT_EQ(waitFor(process), SIGKILL);
  }
}

TEST(Run, StartsTheChildWithNoSignalBlockedOrCaught) {
  sigset_t blocked;
  sigset_t before;
  (void)sigemptyset(&blocked);
  (void)sigaddset(&blocked, SIGTERM);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, &before), 0);
  const auto handlerBefore = signal(SIGUSR1, [](int) {});
  const Outcome outcome = runAndWait({"/bin/grep", "-E", "Sig(Blk|Cgt)", "/proc/self/status"});
  (void)signal(SIGUSR1, handlerBefore);
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
  EXPECT_NE(outcome.output.find("SigBlk:\t0000000000000000\n"), std::string::npos) << outcome.output;
  const std::uint64_t caught = std::stoull(outcome.output.substr(outcome.output.find("SigCgt:") + 7), nullptr, 16);
  EXPECT_EQ(caught & (1ULL << (SIGUSR1 - 1)), 0U) << outcome.output;
}

TEST(Run, AProgramThatCannotBeStartedIsNotStarted) {
  struct Case {
    const char* program;
    int input;
    int error;
  };
  const Case cases[] = {
      {"/nonexistent/program", -1, ENOENT},
      {"/", -1, EACCES},
      {"/etc/passwd", -1, EACCES},
      {"/bin/true", 999, EBADF},
      {"/bin/true", -2, EBADF},
  };
  for (const Case& one : cases) {
    errno = 0;
    const auto process = Cor::run(ArgumentVector({one.program}), one.input, -1, -1, -1);
    EXPECT_EQ(errno, one.error) << one.program;
    ASSERT_TRUE(process);
    EXPECT_EQ(process->pid(), Cor::Process::notStarted);
    int status = -1;
    EXPECT_EQ(waitpid(process->pid(), &status, 0), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(status, -1);
  }
  const char* const empty[] = {nullptr};
  EXPECT_EQ(Cor::run(empty, -1, -1, -1, -1)->pid(), Cor::Process::notStarted);
  EXPECT_EQ(Cor::run(ArgumentVector({"/bin/true"}), -1, -1, -1, -5)->pid(), Cor::Process::notStarted);
  EXPECT_EQ(errno, EINVAL) << "a process group below -1";
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no child was left behind";
}

// --- Exhausted memory ------------------------------------------------------------------------------------------------

#ifndef WITH_THREAD_SANITIZER

TEST(ExhaustedMemory, LosesOnlyLongTextLines) {
  const Outcome outcome = runRole({"trace-without-memory"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.error.find("xxx"), std::string::npos);
  EXPECT_NE(outcome.error.find(" First 0 File.cpp:3 f short\n"), std::string::npos) << outcome.error;
  EXPECT_NE(outcome.error.find(" Late 0 File.cpp:4 f short\n"), std::string::npos) << outcome.error;
}

TEST(ExhaustedMemory, LosesOnlyLongRingLines) {
  const std::string big(100'000, 'x');
  RingTrace::write({"File.cpp", 1, "f"}, "before");
  memoryIsExhausted = true;
  RingTrace::write({"File.cpp", 2, "f"}, "short");
  RingTrace::write({"File.cpp", 3, "f"}, big);
  memoryIsExhausted = false;
  EXPECT_EQ(RingTrace::lines().back(), "File.cpp:2 f short");
}

TEST(ExhaustedMemory, SwitchesAtLeastTheHandleItself) {
  Cor::TraceHandle handle("SwitchedWithoutMemory, a name that needs memory");
  memoryIsExhausted = true;
  handle.setLevels(0b10);
  memoryIsExhausted = false;
  EXPECT_TRUE(handle.enabled(1));
  EXPECT_FALSE(handle.enabled(0));
}

TEST(ExhaustedMemory, HoldsLogMessagesBackAndThrowsNothing) {
  Cor::LogHandle handle(testMessage, Vello::Duration(0), 1.0, 0, 1);
  const std::string big(10'000, 'x');
  memoryIsExhausted = true;
  const bool sent = handle.emit(big.c_str(), 1);
  memoryIsExhausted = false;
  EXPECT_FALSE(sent);
  EXPECT_TRUE(handle.emit("x", 1)) << "what was not sent must not count";
}

TEST(ExhaustedMemory, StartsNoProgram) {
  const ArgumentVector program({"/bin/true"});
  memoryIsExhausted = true;
  EXPECT_THROW((void)Cor::run(program, -1, -1, -1, -1), std::bad_alloc);
  memoryIsExhausted = false;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

#endif

// --- VRF status table ------------------------------------------------------------------------------------------------

class VrfStatus : public testing::Test {
 protected:
  VrfStatus() { VrfIdMap::Status::remove(name.c_str()); }
  ~VrfStatus() override { VrfIdMap::Status::remove(name.c_str()); }

  Vello::Ptr<VrfIdMap::Status> create() const { return VrfIdMap::Status::create(name.c_str()); }
  Vello::Ptr<const VrfIdMap::Status> open() const { return VrfIdMap::Status::open(name.c_str()); }

  // Maps the segment as a third party that may do anything with it.
  Vrf::MappedSegment segment() const {
    const int file = shm_open(name.c_str(), O_RDWR, 0);
    EXPECT_GE(file, 0);
    void* const memory = mmap(nullptr, sizeof(Vrf::Segment), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    EXPECT_NE(memory, MAP_FAILED);
    (void)close(file);
    return Vrf::MappedSegment(static_cast<Vrf::Segment*>(memory));
  }

  void resize(off_t size) const {
    const int file = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
    EXPECT_GE(file, 0);
    EXPECT_EQ(ftruncate(file, size), 0);
    (void)close(file);
  }

  const std::string name = "/platform-test-" + std::to_string(getpid());
};

std::string messageOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::exception& exception) {
    return exception.what();
  }
  return "nothing thrown";
}

void putChecksum(Vrf::Slot& slot) {
  Vrf::SlotWords words;
  for (std::size_t index = 0; index < Vrf::SlotWordCount; ++index) {
    words[index] = slot.words[index];
  }
  slot.words[Vrf::ChecksumWord] = Vrf::checksumOf(words);
}

TEST_F(VrfStatus, AnswersWhatWasSet) {
  const auto writer = create();
  const auto reader = open();
  writer->set(VrfEntry(VrfId::defaultVrf(), "default"));
  writer->set(VrfEntry(VrfId(7), "red"));
  writer->set(VrfEntry(VrfId(8)));
  EXPECT_EQ(reader->vrfEntry(VrfId(0)).name(), "default");
  EXPECT_EQ(reader->vrfEntry(VrfId(7)), VrfEntry(VrfId(7), "red"));
  EXPECT_EQ(writer->vrfEntry(VrfId(7)), VrfEntry(VrfId(7), "red"));
  EXPECT_EQ(reader->vrfEntry(VrfId(8)).name(), "");
  writer->set(VrfEntry(VrfId(7), "a longer name"));
  EXPECT_EQ(reader->vrfEntry(VrfId(7)).name(), "a longer name");
  writer->set(VrfEntry(VrfId(7), "short"));
  EXPECT_EQ(reader->vrfEntry(VrfId(7)).name(), "short");
}

TEST_F(VrfStatus, AnswersTheDefaultEntryForWhatItDoesNotHold) {
  const auto writer = create();
  EXPECT_EQ(writer->vrfEntry(VrfId(0)), VrfEntry(VrfId::none()));
  EXPECT_EQ(writer->defaultEntry(), VrfEntry(VrfId(0xFFFFFF)));
  writer->set(VrfEntry(VrfId(7), "red"));
  writer->erase(VrfId(7));
  writer->erase(VrfId(7));
  EXPECT_EQ(writer->vrfEntry(VrfId(7)), writer->defaultEntry());
}

TEST_F(VrfStatus, KeepsNamesOfEveryLengthAndByte) {
  const auto writer = create();
  for (std::size_t length = 0; length <= VrfEntry::maxNameLength; ++length) {
    std::string vrf(length, '\0');
    for (std::size_t index = 0; index < length; ++index) {
      vrf[index] = static_cast<char>(index * 37 + length);
    }
    writer->set(VrfEntry(VrfId(1), vrf));
    EXPECT_EQ(writer->vrfEntry(VrfId(1)).name(), vrf);
  }
}

TEST_F(VrfStatus, HoldsItsCapacity) {
  const auto writer = create();
  for (std::uint32_t number = 0; number < VrfIdMap::Status::capacity; ++number) {
    writer->set(VrfEntry(VrfId(number * 3), std::to_string(number)));
  }
  EXPECT_THROW(writer->set(VrfEntry(VrfId(1))), std::length_error);
  writer->set(VrfEntry(VrfId(1023 * 3), "replaced"));
  EXPECT_EQ(writer->vrfEntry(VrfId(1023 * 3)).name(), "replaced");
  EXPECT_EQ(writer->vrfEntry(VrfId(512 * 3)).name(), "512");
  writer->erase(VrfId(0));
  writer->set(VrfEntry(VrfId(1), "fits again"));
  EXPECT_EQ(open()->vrfEntry(VrfId(1)).name(), "fits again");
}

TEST_F(VrfStatus, IsReadByAnotherProcess) {
  const auto writer = create();
  writer->set(VrfEntry(VrfId(4294967295), "far away"));
  const Outcome found = runRole({"read-vrf", name, "4294967295"});
  EXPECT_EQ(found.status, 0);
  EXPECT_EQ(found.output, "4294967295 far away");
  EXPECT_EQ(runRole({"read-vrf", name, "5"}).output, "16777215 ");
}

TEST_F(VrfStatus, OutlivesItsWriterAndIsTakenOver) {
  create()->set(VrfEntry(VrfId(7), "red"));
  const auto reader = open();
  EXPECT_EQ(reader->vrfEntry(VrfId(7)).name(), "red");
  const auto next = create();
  next->set(VrfEntry(VrfId(8), "blue"));
  EXPECT_EQ(reader->vrfEntry(VrfId(7)).name(), "red");
  EXPECT_EQ(reader->vrfEntry(VrfId(8)).name(), "blue");
  VrfIdMap::Status::remove(name.c_str());
  EXPECT_EQ(reader->vrfEntry(VrfId(8)).name(), "blue");
  EXPECT_THROW((void)open(), std::system_error);
}

TEST_F(VrfStatus, IsNotOpenedWhenItIsNotThereOrNotOne) {
  EXPECT_THROW((void)open(), std::system_error);
  resize(0);
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  resize(100);
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  EXPECT_THROW((void)create(), std::system_error);
  resize(sizeof(Vrf::Segment));
  EXPECT_EQ(messageOf([this] { (void)open(); }), "VRF status table " + name + ": no VRF status table");
  resize(sizeof(Vrf::Segment) + 1);
  EXPECT_EQ(messageOf([this] { (void)open(); }), "VRF status table " + name + ": of another size");
  EXPECT_THROW((void)VrfIdMap::Status::create("/no/such/folder"), std::system_error);
}

TEST_F(VrfStatus, IsSetUpAgainAfterAWriterThatDiedDoingSo) {
  resize(sizeof(Vrf::Segment));
  const auto writer = create();
  EXPECT_EQ(writer->vrfEntry(VrfId(7)), writer->defaultEntry());
  EXPECT_EQ(open()->vrfEntry(VrfId(7)), writer->defaultEntry());
}

TEST_F(VrfStatus, WithADamagedHeadIsRefused) {
  (void)create();
  const auto raw = segment();
  raw->magic ^= 1U;
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  try {
    (void)create();
    ADD_FAILURE() << "taken over";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::file_exists);
  }
  raw->magic ^= 1U;
  raw->version += 1;
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  raw->version -= 1;
  raw->size += 1;
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  raw->size -= 1;
  EXPECT_NO_THROW((void)open());
}

TEST_F(VrfStatus, ReportsEverySingleFlippedBitOfAnEntry) {
  const auto writer = create();
  writer->set(VrfEntry(VrfId(7), "red"));
  writer->set(VrfEntry(VrfId(8), "blue"));
  const auto reader = open();
  const auto raw = segment();
  for (std::atomic<std::uint32_t>& word : raw->slots[0].words) {
    for (unsigned bit = 0; bit < 32; ++bit) {
      word ^= 1U << bit;
      EXPECT_THROW((void)reader->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException) << bit;
      EXPECT_EQ(reader->vrfEntry(VrfId(8)).name(), "blue");
      word ^= 1U << bit;
    }
  }
  EXPECT_EQ(reader->vrfEntry(VrfId(7)).name(), "red");
  raw->slots[0].words[Vrf::NameWord] ^= 1U;
  EXPECT_EQ(messageOf([&reader] { (void)reader->vrfEntry(VrfId(7)); }),
            "VRF status table: entry 0 is damaged: its checksum is wrong");
}

TEST_F(VrfStatus, DoesNotSayThatAVrfIsMissingWhileAnyEntryIsDamaged) {
  const auto writer = create();
  writer->set(VrfEntry(VrfId(7), "red"));
  segment()->slots[500].words[Vrf::NameWord] ^= 1U;
  EXPECT_EQ(writer->vrfEntry(VrfId(7)).name(), "red");
  EXPECT_THROW((void)writer->vrfEntry(VrfId(8)), Vello::CorruptionDetectedException);
}

TEST_F(VrfStatus, RefusesAStoredNameThatIsTooLong) {
  const auto writer = create();
  const auto raw = segment();
  Vrf::Slot& slot = raw->slots[0];
  for (const std::uint32_t length : {102U, 104U, 105U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    writer->set(VrfEntry(VrfId(7), std::string(101, 'x')));
    slot.words[Vrf::LengthWord] = length;
    EXPECT_THROW((void)writer->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException);
    putChecksum(slot);
    EXPECT_THROW((void)writer->vrfEntry(VrfId(7)), Vello::RangeException);
  }
  EXPECT_EQ(messageOf([&] { (void)writer->vrfEntry(VrfId(7)); }),
            "VRF status table: stored name of 4294967295 bytes > maxNameLength not allowed");
}

TEST_F(VrfStatus, AnUnfinishedWriteStopsNoReaderAndIsWrittenOver) {
  const auto writer = create();
  writer->set(VrfEntry(VrfId(7), "red"));
  writer->set(VrfEntry(VrfId(8), "blue"));
  const auto raw = segment();
  raw->slots[0].sequence += 1;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(messageOf([&writer] { (void)writer->vrfEntry(VrfId(7)); }),
            "VRF status table: entry 0 is damaged: its writer did not finish");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  EXPECT_EQ(writer->vrfEntry(VrfId(8)).name(), "blue");

  const auto next = create();
  EXPECT_THROW((void)next->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException) << "taking over does not hide it";
  next->set(VrfEntry(VrfId(7), "green"));
  EXPECT_EQ(next->vrfEntry(VrfId(7)).name(), "green");
  EXPECT_EQ(raw->slots[0].sequence % 2, 0U);
  raw->slots[0].sequence += 1;
  next->erase(VrfId(7));
  EXPECT_EQ(next->vrfEntry(VrfId(7)), next->defaultEntry());
  raw->slots[0].sequence += 1;
  EXPECT_THROW((void)next->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException);
  next->set(VrfEntry(VrfId(9), "new"));
  EXPECT_THROW((void)next->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException) << "must not be written over";
  EXPECT_EQ(create()->vrfEntry(VrfId(7)), next->defaultEntry());
  EXPECT_EQ(next->vrfEntry(VrfId(9)).name(), "new");
}

TEST_F(VrfStatus, ReadersSeeOnlyWholeEntriesWhileAThreadWrites) {
  const auto writer = create();
  for (unsigned count = 0; count < busyVrfs; ++count) {
    writer->set(busyEntry(count));
  }
  std::atomic<bool> stop = false;
  std::atomic<int> wrong = 0;
  std::vector<std::thread> readers;
  readers.reserve(2);
  for (int number = 0; number < 2; ++number) {
    readers.emplace_back([&] {
      const auto reader = open();
      for (unsigned count = 0; !stop; ++count) {
        const VrfId id(count % busyVrfs);
        wrong += isBusyEntry(reader->vrfEntry(id), id) ? 0 : 1;
      }
    });
  }
  for (unsigned count = 0; count < 200'000; ++count) {
    writer->set(busyEntry(count));
  }
  stop = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(wrong, 0);
}

#ifndef WITH_THREAD_SANITIZER  // its runtime cannot be stepped through

// Where the process is single-stepped and killed: at the given step of those that run while the counter is odd.
const std::atomic<std::uint32_t>* steppedCounter = nullptr;
int stepsToLive = 0;

void onStep(int) {
  if (*steppedCounter % 2 != 0 && stepsToLive-- == 0) {
    (void)kill(getpid(), SIGKILL);
  }
}

// Sets the processor's trap flag: every instruction from here on ends in SIGTRAP. The stack's red zone is stepped over.
void stepFromHere() {
  asm volatile("lea -128(%%rsp), %%rsp; pushfq; orq $0x100, (%%rsp); popfq; lea 128(%%rsp), %%rsp" ::: "cc", "memory");
}

// Makes the change in a child that dies at the given step in the middle of it. Returns whether it died: false when the
// change was finished first.
bool diesInTheMiddle(const std::atomic<std::uint32_t>& counter, int step, const std::function<void()>& change) {
  const pid_t child = fork();
  if (child == 0) {
    steppedCounter = &counter;
    stepsToLive = step;
    (void)signal(SIGTRAP, onStep);
    stepFromHere();
    change();
    _exit(0);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(status == 0 || status == SIGKILL) << status;
  return status == SIGKILL;
}

TEST_F(VrfStatus, AWriterThatDiesInTheMiddleOfAnEntryLeavesItReported) {
  auto writer = create();
  const auto reader = open();
  const auto raw = segment();
  const std::map<std::string, std::function<void()>> changes = {
      {"replace", [&] { writer->set(VrfEntry(VrfId(7), std::string(101, 'g'))); }},
      {"erase", [&] { writer->erase(VrfId(7)); }},
      {"add", [&] { writer->set(VrfEntry(VrfId(9), "new")); }},
  };
  for (const auto& [kind, change] : changes) {
    const VrfId changed(kind == "add" ? 9 : 7);
    int deaths = 0;
    // Adding looks through the whole table first, step by step: it is tried less often.
    for (int step = 0;; step += 1 + (kind == "add" ? step * 2 : step / 2), ++deaths) {
      writer->erase(VrfId(9));
      writer->set(VrfEntry(VrfId(7), "red"));
      writer->set(VrfEntry(VrfId(8), "blue"));
      if (!diesInTheMiddle(raw->slots[kind == "add" ? 2 : 0].sequence, step, change)) {
        break;
      }
      EXPECT_THROW((void)reader->vrfEntry(changed), Vello::CorruptionDetectedException) << kind << " " << step;
      EXPECT_EQ(reader->vrfEntry(VrfId(8)).name(), "blue");
      writer = create();
      change();
      EXPECT_NO_THROW((void)reader->vrfEntry(VrfId(1000))) << "damage left after " << kind << " " << step;
    }
    EXPECT_GE(deaths, 4) << kind;
  }
}

#endif

// Kills a writer at any moment, time and again, while this process reads, and then takes the table over.
TEST_F(VrfStatus, AKilledWriterLeavesWholeEntriesOrReportedOnes) {
  std::mt19937 random(1);  // NOLINT(cert-msc51-cpp): which moments does not matter, but that they can be repeated
  std::uniform_int_distribution<int> micros(0, 3000);
  int whole = 0;
  int damaged = 0;
  for (int round = 0; round < 60; ++round) {
    (void)create();
    const auto reader = open();
    const auto child = Cor::run(ArgumentVector({ownPath(), "write-vrfs", name}), -1, -1, -1, -1);
    ASSERT_NE(child->pid(), Cor::Process::notStarted);
    while (segment()->slots[0].sequence < 100) {  // the writer is at work
      std::this_thread::sleep_for(100us);
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(micros(random));
    unsigned count = 0;
    bool killed = false;
    for (unsigned after = 0; after < busyVrfs; ++count) {
      if (!killed && std::chrono::steady_clock::now() >= end) {
        (void)kill(child->pid(), SIGKILL);
        ASSERT_EQ(waitFor(child), SIGKILL);
        killed = true;
      }
      after += killed ? 1 : 0;
      const VrfId id(count % busyVrfs);
      const auto start = std::chrono::steady_clock::now();
      try {
        const VrfEntry entry = reader->vrfEntry(id);
        ASSERT_TRUE(entry == reader->defaultEntry() || isBusyEntry(entry, id)) << entry.name();
        ++whole;
      } catch (const Vello::CorruptionDetectedException&) {
        ++damaged;
      }
      ASSERT_LT(std::chrono::steady_clock::now() - start, 10s);
    }
    const auto table = create();
    for (unsigned set = 0; set < 26; ++set) {
      table->set(busyEntry(set));
      ASSERT_EQ(reader->vrfEntry(busyEntry(set).vrfId()), busyEntry(set));
    }
    ASSERT_EQ(reader->vrfEntry(VrfId(1000)), reader->defaultEntry()) << "nothing damaged is left";
    VrfIdMap::Status::remove(name.c_str());
  }
  EXPECT_GT(whole, 0);
  RecordProperty("whole", whole);
  RecordProperty("damaged", damaged);
}

TEST_F(VrfStatus, HandsItsMessageToTheCorruptionHandler) {
  const auto writer = create();
  std::string seen;
  writer->setCorruptionHandler([&seen](const char* message) { seen = message; });
  const Vello::Ptr<const VrfIdMap::Status> status = writer;
  status->corruptionHandler()("damaged");
  EXPECT_EQ(seen, "damaged");
  EXPECT_TRUE(open()->corruptionHandler());
}

// --- Framework and agent types ---------------------------------------------------------------------------------------

template <class T>
std::string textOf(const T& value) {
  std::ostringstream out;
  out << std::hex << value;
  return out.str();
}

TEST(VrfName, HoldsAtMostAHundredBytes) {
  EXPECT_EQ(L3::VrfName(std::string(100, 'x')).string(), Cor::String(std::string(100, 'x')));
  EXPECT_TRUE(L3::VrfName().empty());
  EXPECT_FALSE(L3::VrfName(""));
  EXPECT_TRUE(L3::VrfName("default"));
  EXPECT_EQ(textOf(L3::VrfName("default")), "default");
  EXPECT_THROW((void)L3::VrfName(std::string(101, 'x')), Vello::RangeException);
  EXPECT_EQ(messageOf([] { (void)L3::VrfName(std::string(101, 'x')); }),
            "Cor::String::bytes > maxLength() not allowed");
}

TEST(VrfEntry, HoldsAtMostAHundredAndOneBytes) {
  EXPECT_EQ(VrfEntry(VrfId(1), std::string(101, 'x')).name(), std::string(101, 'x'));
  EXPECT_THROW((void)VrfEntry(VrfId(1), std::string(102, 'x')), Vello::RangeException);
  EXPECT_NE(VrfEntry(VrfId(1), "a"), VrfEntry(VrfId(2), "a"));
  EXPECT_NE(VrfEntry(VrfId(1), "a"), VrfEntry(VrfId(1), "b"));
}

TEST(IpGenAddr, WritesTheUsualTextForms) {
  const std::map<std::string, std::string> cases = {
      {"10.0.0.1", "10.0.0.1"},
      {"255.255.255.255", "255.255.255.255"},
      {"0.0.0.0", "0.0.0.0"},
      {"2001:DB8:0::1", "2001:db8::1"},
      {"::", "::"},
      {"::ffff:1.2.3.4", "::ffff:1.2.3.4"},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(textOf(Ipnet::IpGenAddr(text.c_str())), expected);
  }
  EXPECT_EQ(textOf(Ipnet::IpGenAddr()), "unset");
}

TEST(IpGenAddr, HoldsNetworkOrderAndFamily) {
  const Ipnet::IpGenAddr four("1.2.3.4");
  EXPECT_EQ(four.family(), Ipnet::IpGenAddr::Family::Ipv4);
  EXPECT_EQ(four.bytes(), (std::array<std::uint8_t, 16>{1, 2, 3, 4}));
  const Ipnet::IpGenAddr six("102:304::");
  EXPECT_EQ(six.family(), Ipnet::IpGenAddr::Family::Ipv6);
  EXPECT_EQ(six.bytes(), four.bytes());
  EXPECT_NE(six, four);
  EXPECT_EQ(four, Ipnet::IpGenAddr("1.2.3.4"));
}

TEST(IpGenAddr, RefusesEveryOtherText) {
  for (const char* text : {"", "10.0.0", "10.0.0.256", "10.0.0.1 ", "010.0.0.1", "fe80::1%eth0", "localhost", ":::"}) {
    EXPECT_THROW((void)Ipnet::IpGenAddr(text), std::invalid_argument) << text;
  }
  EXPECT_THROW((void)Ipnet::IpGenAddr(nullptr), std::invalid_argument);
}

TEST(ConnIdSrc, WritesItsName) {
  EXPECT_EQ(textOf(Ipsec::ConnIdSrc::Local), "local");
  EXPECT_EQ(textOf(Ipsec::ConnIdSrc::Remote), "remote");
  EXPECT_EQ(textOf(Ipsec::ConnIdSrc{200}), "unknown(200)");
}

TEST(IpsecAuthType, HasText) {
  using Ipsec::Ike::IpsecAuthType;
  EXPECT_EQ(Ipsec::Ike::stringValue(IpsecAuthType::PreSharedKey), "pre-share");
  EXPECT_EQ(Ipsec::Ike::stringValue(IpsecAuthType::RsaSignature), "rsa-sig");
  EXPECT_EQ(Ipsec::Ike::stringValue(IpsecAuthType::EcdsaSignature), "ecdsa-sig");
  EXPECT_EQ(Ipsec::Ike::stringValue(IpsecAuthType::PublicKey), "pki");
  EXPECT_EQ(Ipsec::Ike::stringValue(IpsecAuthType{77}), "unknown");
}

TEST(Format, FormatsAsPrintfDoes) {
  EXPECT_EQ(Cor::_fmt("%s-%05d%%", "a", 42), "a-00042%");
  EXPECT_EQ(Cor::_fmt("%s", std::string(100'000, 'x').c_str()).size(), 100'000U);
  EXPECT_EQ(Cor::_fmt("%s", ""), "");
  EXPECT_EQ(Cor::_fmt("a%cb", '\0'), Cor::String(std::string("a\0b", 3)));
  EXPECT_THROW((void)Cor::_fmt("%lc", wint_t{0x110000}), std::invalid_argument) << "no character, so printf refuses";
}

TEST(Regex, WrapsTheStandardLibrarys) {
  namespace Regex = Vello::Regex;
  const auto syntax = std::regex_constants::ECMAScript;
  EXPECT_TRUE(Regex::search("conn red", Regex::compile("^conn .ed$", syntax)));
  EXPECT_FALSE(Regex::search("  conn red", Regex::compile("^conn red$", syntax)));
  EXPECT_FALSE(Regex::search("conn", Regex::compile("^conn", syntax), std::regex_constants::match_not_bol));
  EXPECT_THROW((void)Regex::compile("conn (", syntax), std::regex_error);
}

TEST(Regex, OneThatWasNeverCompiledMatchesNothing) {
  EXPECT_FALSE(Vello::Regex::search("", std::regex()));
  EXPECT_FALSE(Vello::Regex::search("anything", std::regex()));
}

TEST(VelloString, HoldsAnyBytesAndHashesAsItsText) {
  const Vello::String text(std::string_view("a\0b", 3));
  EXPECT_EQ(text.size(), 3U);
  EXPECT_NE(text, Vello::String("a"));
  EXPECT_EQ(std::hash<Vello::String>()(text), std::hash<std::string_view>()(std::string_view("a\0b", 3)));
  Vello::OStringStream out;
  out << text << 7;
  EXPECT_EQ(out.str(), Vello::String(std::string_view("a\0b7", 4)));
}

}  // namespace

int main(int argc, char** argv) {
  for (const Role& role : roles) {
    if (argc > 1 && std::string_view(argv[1]) == role.name) {
      return role.play(Strings(argv + 2, argv + argc));
    }
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What a capture sees, and the ring.

#include "platform/Trace.h"
#include "platform/testing/TraceCapture.h"
#include "tests/platform/Children.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

namespace Ipsec::Testing {
namespace {

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

TEST(Tracing, KeepsErrno) {
  const Cor::TraceHandle handle("KeepsErrno");
  const Cor::TraceCapture capture([](const Cor::TraceLine&) { errno = EIO; });
  errno = ECHILD;
  DualTrace::write(handle, 0, Cor::TraceSite::here(), "message");
  EXPECT_EQ(errno, ECHILD);
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

}  // namespace
}  // namespace Ipsec::Testing

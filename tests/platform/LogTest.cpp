// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Log messages: which are sent, and which held back.

#include "platform/Log.h"
#include "tests/platform/Children.h"

#include <gtest/gtest.h>

#include <syslog.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> sentToSyslog;

void keepSyslogText(int priority, const char* format, std::va_list values) {
  char text[1024];
  (void)std::vsnprintf(text, sizeof(text), format, values);
  sentToSyslog.push_back("<" + std::to_string(priority) + ">" + text);
}

}  // namespace

// The platform's calls of syslog come here instead of to the C library. A build with _FORTIFY_SOURCE calls the second
// name.
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

namespace Ipsec::Testing {
namespace {

using namespace std::chrono_literals;

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

}  // namespace
}  // namespace Ipsec::Testing

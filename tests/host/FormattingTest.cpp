// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Ipsec.h"
#include "platform/testing/VrfTable.h"
#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <stdexcept>
#include <string>

namespace Ipsec::Testing {
namespace {

using Vrf::VrfIdMap;

// --- roundUp and fillSpace ------------------------------------------------------------------------------------------

TEST(RoundUp, GivesTheNextMultipleOf32) {
  EXPECT_EQ(roundUp(1), 32U);
  EXPECT_EQ(roundUp(31), 32U);
  EXPECT_EQ(roundUp(32), 32U);
  EXPECT_EQ(roundUp(33), 64U);
  EXPECT_EQ(roundUp(65535), 65536U);
  EXPECT_EQ(roundUp(2147483649U), 2147483680U);
}

TEST(RoundUp, WrapsAroundToZeroAtBothEnds) {
  EXPECT_EQ(roundUp(0), 0U);
  EXPECT_EQ(roundUp(4294967264U), 4294967264U);
  EXPECT_EQ(roundUp(4294967265U), 0U);
  EXPECT_EQ(roundUp(4294967295U), 0U);
}

TEST(FillSpace, GivesAsManyBlanks) {
  EXPECT_EQ(fillSpace(0), "");
  EXPECT_EQ(fillSpace(3), "   ");
  EXPECT_EQ(fillSpace(100000), std::string(100000, ' '));
}

// --- secondsToTimestamp ----------------------------------------------------------------------------------------------

// Sets the process's time zone for as long as it lives.
class TimeZone {
 public:
  explicit TimeZone(const char* name) {
    if (const char* set = std::getenv("TZ")) {
      before = set;
      wasSet = true;
    }
    use(name);
  }
  ~TimeZone() { use(wasSet ? before.c_str() : nullptr); }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;

 private:
  static void use(const char* name) {
    (void)(name != nullptr ? setenv("TZ", name, 1) : unsetenv("TZ"));
    tzset();
  }

  std::string before;
  bool wasSet = false;
};

std::string stamp(double seconds) {
  return secondsToTimestamp(Vello::Duration(seconds)).str();
}

TEST(Timestamp, ReadsAsDateAndTime) {
  const TimeZone zone("UTC0");
  EXPECT_EQ(stamp(0), "1970-01-01 00:00:00");
  EXPECT_EQ(stamp(1709298309), "2024-03-01 13:05:09");
  EXPECT_EQ(stamp(4294967296.0), "2106-02-07 06:28:16");
}

TEST(Timestamp, DropsTheFractionTowardZero) {
  const TimeZone zone("UTC0");
  EXPECT_EQ(stamp(0.9), "1970-01-01 00:00:00");
  EXPECT_EQ(stamp(-0.5), "1970-01-01 00:00:00");
  EXPECT_EQ(stamp(-1.5), "1969-12-31 23:59:59");
}

TEST(Timestamp, IsInTheHostsTimeZone) {
  const TimeZone zone("EST5");
  EXPECT_EQ(stamp(0), "1969-12-31 19:00:00");
}

TEST(Timestamp, HoldsEveryYearThatFitsAnInt) {
  const TimeZone zone("UTC0");
  EXPECT_EQ(stamp(67767976233532799.0 - 7), "2147483647-12-31 23:59:52");
  EXPECT_EQ(stamp(67767976233532799.0 + 9), "");
  EXPECT_EQ(stamp(-67768040609740800.0), "-2147481748-01-01 00:00:00");
}

TEST(Timestamp, IsEmptyForATimeWithoutAYear) {
  const double infinity = std::numeric_limits<double>::infinity();
  for (const double seconds : {1e18, -1e18, 9223372036854775808.0, -9223372036854775808.0, 1e300, -1e300, infinity,
                               -infinity, std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_EQ(stamp(seconds), "") << seconds;
  }
}

// --- vrfIdToName -----------------------------------------------------------------------------------------------------

// The test's own VRF status table.
class VrfName : public testing::Test {
 protected:
  std::string name(std::uint32_t vrf) const { return vrfIdToName(VrfIdMap::VrfId(vrf), reader).string().str(); }

  const Vrf::TestTable table{"/ipsec-formatting-test-" + std::to_string(getpid())};
  const Vello::Ptr<VrfIdMap::Status> reader = table.open();
};

using VrfNameDeathTest = VrfName;

TEST_F(VrfName, ComesFromTheTable) {
  table.set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(7), "customer-a"));
  table.set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(8), "customer-b"));
  EXPECT_EQ(name(7), "customer-a");
  EXPECT_EQ(name(8), "customer-b");
}

TEST_F(VrfName, OfTheDefaultVrfIsWhatItsEntryHolds) {
  table.set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(0), "main"));
  EXPECT_EQ(name(0), "main");
}

TEST_F(VrfName, MayHave100BytesAndNoMore) {
  table.set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(1), std::string(100, 'a')));
  table.set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(2), std::string(101, 'b')));
  EXPECT_EQ(name(1), std::string(100, 'a'));
  try {
    (void)name(2);
    ADD_FAILURE() << "A name of 101 bytes was accepted.";
  } catch (const Vello::RangeException& refusal) {
    EXPECT_STREQ(refusal.what(), "Cor::String::bytes > maxLength() not allowed");
  }
}

TEST_F(VrfName, OfALengthThatNoEntryHoldsIsRefused) {
  table.set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(7), std::string(101, 'a')));
  for (const std::uint32_t length : {102U, 105U, 0xFFFFFFFFU}) {
    table.setStoredLength(VrfIdMap::VrfId(7), length);
    try {
      (void)name(7);
      ADD_FAILURE() << "A name of " << length << " bytes was accepted.";
    } catch (const Vello::RangeException& refusal) {
      EXPECT_EQ(refusal.what(),
                "VRF status table: stored name of " + std::to_string(length) + " bytes > maxNameLength not allowed");
    }
  }
}

TEST_F(VrfName, IsTracedNowhere) {
  table.set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(7), "customer-a"));
  const TraceRecorder traces("IpsecUtils=0-31");
  (void)name(7);
  EXPECT_TRUE(traces.lines().empty());
}

TEST_F(VrfNameDeathTest, AnUnknownVrfStopsTheProcess) {
  EXPECT_DEATH((void)name(7), "IpsecUtils\\.cpp:.*vrfIdToName.*`ve'");
}

TEST_F(VrfNameDeathTest, AVrfWithoutANameStopsTheProcess) {
  table.set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(7)));
  EXPECT_DEATH((void)name(7), "IpsecUtils\\.cpp:.*vrfIdToName.*`vrfName'");
}

TEST_F(VrfNameDeathTest, ADamagedEntryGoesToTheHandlerAndThenStopsTheProcess) {
  table.set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(7), "customer-a"));
  table.damage("customer-a");
  std::string message;
  try {
    (void)reader->vrfEntry(VrfIdMap::VrfId(7));
    FAIL() << "The damage was not seen.";
  } catch (const Vello::CorruptionDetectedException& corruption) {
    message = corruption.what();
  }
  ASSERT_FALSE(message.empty());
  reader->setCorruptionHandler([&message](const char* text) {
    if (message == text) {
      (void)!write(STDERR_FILENO, "handled;", 8);
    }
  });
  EXPECT_DEATH((void)name(7), "handled;.*vrfIdToName.*`ve'");
}

TEST_F(VrfName, OfAnotherEntryIsReadBesideADamagedOne) {
  table.set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(7), "customer-a"));
  table.set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(8), "customer-b"));
  table.damage("customer-a");
  EXPECT_EQ(name(8), "customer-b");
}

}  // namespace
}  // namespace Ipsec::Testing

#include "Ipsec.h"
#include "platform/linux/VrfSegment.h"
#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
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
  VrfName() : segment("/ipsec-formatting-test-" + std::to_string(getpid())) {
    table = VrfIdMap::Status::create(segment.c_str());
  }
  ~VrfName() override { VrfIdMap::Status::remove(segment.c_str()); }

  std::string name(std::uint32_t vrf) const { return vrfIdToName(VrfIdMap::VrfId(vrf), table).string().str(); }

  // Changes a byte of a stored name without the table's knowledge.
  void damage(const std::string& stored) const {
    std::fstream memory("/dev/shm" + segment, std::ios::in | std::ios::out | std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(memory), {}};
    const std::size_t found = bytes.find(stored);
    ASSERT_NE(found, std::string::npos);
    memory.clear();
    memory.seekp(static_cast<std::streamoff>(found));
    memory.put('X');
    ASSERT_TRUE(memory.flush());
  }

  // Gives the first entry another length and a matching checksum, as a faulty writer would.
  void setStoredLength(std::uint32_t length) const {
    const int file = shm_open(segment.c_str(), O_RDWR, 0);
    ASSERT_GE(file, 0);
    void* const memory = mmap(nullptr, sizeof(Vrf::Segment), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    (void)close(file);
    ASSERT_NE(memory, MAP_FAILED);
    const Vrf::MappedSegment mapped(static_cast<Vrf::Segment*>(memory));
    Vrf::Slot& slot = mapped->slots[0];
    Vrf::SlotCopy& copy = slot.copyOf(slot.changes);
    copy[Vrf::LengthWord] = length;
    Vrf::SlotWords words;
    std::copy(copy.begin(), copy.end(), words.begin());
    copy[Vrf::ChecksumWord] = Vrf::checksumOf(words);
  }

  std::string segment;
  Vello::Ptr<VrfIdMap::Status> table;
};

using VrfNameDeathTest = VrfName;

TEST_F(VrfName, ComesFromTheTable) {
  table->set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(7), "customer-a"));
  table->set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(8), "customer-b"));
  EXPECT_EQ(name(7), "customer-a");
  EXPECT_EQ(name(8), "customer-b");
}

TEST_F(VrfName, OfTheDefaultVrfIsWhatItsEntryHolds) {
  table->set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(0), "main"));
  EXPECT_EQ(name(0), "main");
}

TEST_F(VrfName, MayHave100BytesAndNoMore) {
  table->set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(1), std::string(100, 'a')));
  table->set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(2), std::string(101, 'b')));
  EXPECT_EQ(name(1), std::string(100, 'a'));
  try {
    (void)name(2);
    ADD_FAILURE() << "A name of 101 bytes was accepted.";
  } catch (const Vello::RangeException& refusal) {
    EXPECT_STREQ(refusal.what(), "Cor::String::bytes > maxLength() not allowed");
  }
}

TEST_F(VrfName, OfALengthThatNoEntryHoldsIsRefused) {
  table->set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(7), std::string(101, 'a')));
  for (const std::uint32_t length : {102U, 105U, 0xFFFFFFFFU}) {
    setStoredLength(length);
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
  table->set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(7), "customer-a"));
  const TraceRecorder traces("IpsecUtils=0-31");
  (void)name(7);
  EXPECT_TRUE(traces.lines().empty());
}

TEST_F(VrfNameDeathTest, AnUnknownVrfStopsTheProcess) {
  EXPECT_DEATH((void)name(7), "IpsecUtils\\.cpp:.*vrfIdToName.*`ve'");
}

TEST_F(VrfNameDeathTest, AVrfWithoutANameStopsTheProcess) {
  table->set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(7)));
  EXPECT_DEATH((void)name(7), "IpsecUtils\\.cpp:.*vrfIdToName.*`vrfName'");
}

TEST_F(VrfNameDeathTest, ADamagedEntryGoesToTheHandlerAndThenStopsTheProcess) {
  table->set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(7), "customer-a"));
  damage("customer-a");
  std::string message;
  try {
    (void)table->vrfEntry(VrfIdMap::VrfId(7));
    FAIL() << "The damage was not seen.";
  } catch (const Vello::CorruptionDetectedException& corruption) {
    message = corruption.what();
  }
  ASSERT_FALSE(message.empty());
  table->setCorruptionHandler([&message](const char* text) {
    if (message == text) {
      (void)!write(STDERR_FILENO, "handled;", 8);
    }
  });
  EXPECT_DEATH((void)name(7), "handled;.*vrfIdToName.*`ve'");
}

TEST_F(VrfName, OfAnotherEntryIsReadBesideADamagedOne) {
  table->set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(7), "customer-a"));
  table->set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(8), "customer-b"));
  damage("customer-a");
  EXPECT_EQ(name(8), "customer-b");
}

}  // namespace
}  // namespace Ipsec::Testing

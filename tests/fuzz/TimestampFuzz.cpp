// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Timestamps against the calendar by counting days. An input is a time zone's offset in minutes (two bytes) and a time
// in seconds: the eight bytes of a double, or a decimal number as text.
#include "Ipsec.h"
#include "tests/fuzz/FuzzInput.h"

#include <cmath>
#include <cstring>
#include <ctime>
#include <limits>

namespace {

using namespace Ipsec::Testing;

// Sets the process's time zone. The sign of TZ is that of UTC minus local time.
void useOffset(int minutes) {
  static int current = std::numeric_limits<int>::max();
  if (minutes == current) {
    return;
  }
  current = minutes;
  char zone[32];
  (void)std::snprintf(zone, sizeof zone, "AAA%c%02d:%02d", minutes > 0 ? '-' : '+', std::abs(minutes) / 60,
                      std::abs(minutes) % 60);
  (void)setenv("TZ", zone, 1);
  tzset();
}

// Returns the date and time of a number of seconds after the epoch; empty if the year does not fit into an int.
std::string plainStamp(std::int64_t seconds) {
  const std::int64_t secondsOfDay = ((seconds % 86400) + 86400) % 86400;
  std::int64_t days = (seconds - secondsOfDay) / 86400 + 719468;  // since 1 March of the year 0
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  days -= era * 146097;
  // In years that begin in March the leap day is the last day. 365 days, and one more every 4 years but not every 100.
  const std::int64_t yearOfEra = (days - days / 1460 + days / 36524 - days / 146096) / 365;
  const auto dayOfYear = static_cast<int>(days - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100));
  const int monthFromMarch = (5 * dayOfYear + 2) / 153;
  const int day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
  const int month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
  const std::int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
  if (year - 1900 < std::numeric_limits<int>::min() || year > std::numeric_limits<int>::max()) {
    return "";  // a tm counts years from 1900, in an int; and the year itself must fit too
  }
  const auto second = static_cast<int>(secondsOfDay);
  char text[64];
  (void)std::snprintf(text, sizeof text, "%lld-%02d-%02d %02d:%02d:%02d", static_cast<long long>(year), month, day,
                      second / 3600, second / 60 % 60, second % 60);
  return text;
}

// Returns a stamp without the zeros in front of its year, which C libraries write or not.
std::string withoutLeadingZeros(std::string stamp) {
  const std::size_t sign = stamp.rfind('-', 0) == 0 ? 1 : 0;
  while (stamp.size() > sign + 1 && stamp[sign] == '0' && stamp[sign + 1] != '-') {
    stamp.erase(sign, 1);
  }
  return stamp;
}

double timeOf(FuzzInput& input) {
  const std::string text = input.restText();
  double seconds = 0;
  if (text.size() == sizeof seconds) {
    std::memcpy(&seconds, text.data(), sizeof seconds);
    return seconds;
  }
  return std::strtod(text.c_str(), nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const int offset = static_cast<int>(input.u16()) % (48 * 60) - 24 * 60;  // minutes, up to a day
  useOffset(offset);
  const double seconds = timeOf(input);
  const std::string seen = Ipsec::secondsToTimestamp(Vello::Duration(seconds)).str();
  if (!(std::abs(seconds) < 1e18)) {  // no int holds such a year
    require(seen.empty(), "a time beyond all calendars has a stamp");
    return 0;
  }
  // The C library looks at UTC's year before it adds the offset.
  const auto whole = static_cast<std::int64_t>(seconds);
  const bool utcFits = whole > 0 || !plainStamp(whole).empty();
  const std::string expected = utcFits ? plainStamp(whole + std::int64_t{60} * offset) : "";
  require(withoutLeadingZeros(seen) == expected, "the calendar gives another stamp");
  return 0;
}

// Clocks and Windows-style time records: file times, SYSTEMTIME records,
// durations, tick counts and the process's local zone.
#include <sys/time.h>

#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "ambit/portable.h"
#include "gtest/gtest.h"
#include "portable/calendar64.h"

namespace {

using ULL = unsigned long long;
using SYSTEMTIME = CPortable::SYSTEMTIME;
using FILETIME = CPortable::FILETIME;

// 1601-01-01 to 1970-01-01 in 100-ns units.
constexpr ULL kEpoch = 116444736000000000ULL;
constexpr ULL kSecond = 10000000ULL;
constexpr ULL kDay = 86400ULL * kSecond;

// ---------------------------------------------------------------------------
// Helpers

// Days since 1970-01-01 of a proleptic Gregorian date, computed without the
// C library (H. Hinnant's days_from_civil).
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

// Unix seconds of a UTC calendar time.
int64_t UnixSeconds(int y, unsigned mo, unsigned d, int h = 0, int mi = 0,
                    int s = 0) {
  return DaysFromCivil(y, mo, d) * 86400 + h * 3600 + mi * 60 + s;
}

// The file time of Unix seconds plus 100-ns units.
ULL FileTimeOf(int64_t seconds, ULL hundredNs = 0) {
  return static_cast<ULL>(seconds) * kSecond + hundredNs + kEpoch;
}

SYSTEMTIME Record(int y, int mo, int dow, int d, int h = 0, int mi = 0,
                  int s = 0, int ms = 0) {
  SYSTEMTIME st;
  st.wYear = static_cast<unsigned short>(y);
  st.wMonth = static_cast<unsigned short>(mo);
  st.wDayOfWeek = static_cast<unsigned short>(dow);
  st.wDay = static_cast<unsigned short>(d);
  st.wHour = static_cast<unsigned short>(h);
  st.wMinute = static_cast<unsigned short>(mi);
  st.wSecond = static_cast<unsigned short>(s);
  st.wMilliseconds = static_cast<unsigned short>(ms);
  return st;
}

SYSTEMTIME Filled(unsigned short value) {
  SYSTEMTIME st;
  st.wYear = st.wMonth = st.wDayOfWeek = st.wDay = value;
  st.wHour = st.wMinute = st.wSecond = st.wMilliseconds = value;
  return st;
}

SYSTEMTIME RecordOf(const tm& t, int ms) {
  return Record(t.tm_year + 1900, t.tm_mon + 1, t.tm_wday, t.tm_mday,
                t.tm_hour, t.tm_min, t.tm_sec, ms);
}

std::string Text(const SYSTEMTIME& st) {
  std::ostringstream os;
  os << std::setfill('0') << std::setw(4) << st.wYear << '-' << std::setw(2)
     << st.wMonth << '-' << std::setw(2) << st.wDay << " (dow " << st.wDayOfWeek
     << ") " << std::setw(2) << st.wHour << ':' << std::setw(2) << st.wMinute
     << ':' << std::setw(2) << st.wSecond << '.' << std::setw(3)
     << st.wMilliseconds;
  return os.str();
}

bool Same(const SYSTEMTIME& a, const SYSTEMTIME& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// Same date and time to the second (the milliseconds come from a separate
// reading).
bool SameToTheSecond(const SYSTEMTIME& a, const SYSTEMTIME& b) {
  return a.wYear == b.wYear && a.wMonth == b.wMonth &&
         a.wDayOfWeek == b.wDayOfWeek && a.wDay == b.wDay &&
         a.wHour == b.wHour && a.wMinute == b.wMinute && a.wSecond == b.wSecond;
}

::testing::AssertionResult RecordIs(const std::string& what,
                                    const SYSTEMTIME& expected,
                                    const SYSTEMTIME& actual) {
  if (Same(expected, actual)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << what << "\n  expected " << Text(expected)
                                       << "\n  actual   " << Text(actual);
}

::testing::AssertionResult FileTimeIs(const std::string& what, ULL expected,
                                      ULL actual) {
  if (expected == actual) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << what << "\n  expected " << expected << "\n  actual   " << actual
         << "\n  actual - expected = "
         << static_cast<long long>(actual - expected) << " (100 ns)";
}

FILETIME Halves(ULL value) {
  FILETIME ft;
  ft.dwLowDateTime = static_cast<unsigned long>(value & 0xFFFFFFFFULL);
  ft.dwHighDateTime = static_cast<unsigned long>(value >> 32);
  return ft;
}

ULL Count(const FILETIME& ft) {
  return (static_cast<ULL>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

// Sets TZ for the life of the object and puts back what was there.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* tz) {
    const char* old = std::getenv("TZ");
    m_hadOld = old != nullptr;
    if (m_hadOld) m_old = old;
    ::setenv("TZ", tz, 1);
    ::tzset();
  }
  ~ScopedTimeZone() {
    if (m_hadOld)
      ::setenv("TZ", m_old.c_str(), 1);
    else
      ::unsetenv("TZ");
    ::tzset();
  }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  bool m_hadOld = false;
  std::string m_old;
};

// Zones with and without daylight saving, on both hemispheres, with
// half-hour and three-quarter-hour offsets, and one given as a POSIX rule.
const char* const kZones[] = {
    "UTC",           "Europe/Berlin",   "America/New_York",
    "Australia/Sydney", "Asia/Kolkata", "Pacific/Chatham",
    "America/St_Johns", "EST5EDT,M3.2.0,M11.1.0"};

// ---------------------------------------------------------------------------
// Record layouts

TEST(TimeRecordLayoutTest, FileTimeImageIsTheLittleEndian64BitCount) {
  FILETIME ft;
  ft.dwLowDateTime = 0x89ABCDEFUL;
  ft.dwHighDateTime = 0x01234567UL;
  ULL image = 0;
  static_assert(sizeof ft == sizeof image, "");
  std::memcpy(&image, &ft, sizeof image);
  EXPECT_EQ(0x0123456789ABCDEFULL, image);
  EXPECT_EQ(0u, offsetof(FILETIME, dwLowDateTime));
  EXPECT_EQ(4u, offsetof(FILETIME, dwHighDateTime));
}

TEST(TimeRecordLayoutTest, SystemTimeIsEightSixteenBitFieldsInOrder) {
  EXPECT_EQ(16u, sizeof(SYSTEMTIME));
  EXPECT_EQ(0u, offsetof(SYSTEMTIME, wYear));
  EXPECT_EQ(2u, offsetof(SYSTEMTIME, wMonth));
  EXPECT_EQ(4u, offsetof(SYSTEMTIME, wDayOfWeek));
  EXPECT_EQ(6u, offsetof(SYSTEMTIME, wDay));
  EXPECT_EQ(8u, offsetof(SYSTEMTIME, wHour));
  EXPECT_EQ(10u, offsetof(SYSTEMTIME, wMinute));
  EXPECT_EQ(12u, offsetof(SYSTEMTIME, wSecond));
  EXPECT_EQ(14u, offsetof(SYSTEMTIME, wMilliseconds));
}

TEST(TimeRecordLayoutTest, DayOfInfamyIs2001September11At1248Utc) {
  EXPECT_EQ(1000212480, static_cast<long long>(g_timeDayOfInfamy));
  tm t;
  ASSERT_TRUE(GmTime64(g_timeDayOfInfamy, &t));
  EXPECT_TRUE(RecordIs("day of infamy", Record(2001, 9, 2, 11, 12, 48, 0, 0),
                       RecordOf(t, 0)));
}

// ---------------------------------------------------------------------------
// File time to SYSTEMTIME

TEST(FileTimeToSystemTimeTest, EpochOffsetIsThursday1970January1) {
  EXPECT_EQ(0x019DB1DED53E8000ULL, kEpoch);
  const ULL ft = 116444736000000000ULL;
  SYSTEMTIME st = Filled(0xFFFF);
  EXPECT_EQ(1, CPortable::ULLFileTimeToSystemTime(&ft, &st));
  EXPECT_TRUE(RecordIs("epoch", Record(1970, 1, 4, 1, 0, 0, 0, 0), st));
}

struct ToRecordCase {
  ULL fileTime;
  SYSTEMTIME expected;
};

std::vector<ToRecordCase> ToRecordCases() {
  return {
      {kEpoch, Record(1970, 1, 4, 1)},
      {125911584000000000ULL, Record(2000, 1, 6, 1)},
      {FileTimeOf(UnixSeconds(2024, 2, 29, 12, 34, 56), 7890000),
       Record(2024, 2, 4, 29, 12, 34, 56, 789)},
      // The last second a 32-bit time_t holds, and the first it does not.
      {137919572470000000ULL, Record(2038, 1, 2, 19, 3, 14, 7)},
      {137919572480000000ULL, Record(2038, 1, 2, 19, 3, 14, 8)},
      {157469184000000000ULL, Record(2100, 1, 5, 1)},
      {FileTimeOf(UnixSeconds(2100, 6, 15, 12), 2500000),
       Record(2100, 6, 2, 15, 12, 0, 0, 250)},
      // Milliseconds are truncated, not rounded.
      {kEpoch + 9999, Record(1970, 1, 4, 1, 0, 0, 0, 0)},
      {kEpoch + 10000, Record(1970, 1, 4, 1, 0, 0, 0, 1)},
      {kEpoch + kSecond - 1, Record(1970, 1, 4, 1, 0, 0, 0, 999)},
      {kEpoch + kDay - 1, Record(1970, 1, 4, 1, 23, 59, 59, 999)},
      {kEpoch + kDay, Record(1970, 1, 5, 2)},
      {FileTimeOf(UnixSeconds(2024, 12, 31, 23, 59, 59)),
       Record(2024, 12, 2, 31, 23, 59, 59)},
  };
}

TEST(FileTimeToSystemTimeTest, ConvertsToUtcCalendarFields) {
  for (const auto& c : ToRecordCases()) {
    ULL in = c.fileTime;
    SYSTEMTIME st = Filled(0xFFFF);
    EXPECT_EQ(1, CPortable::ULLFileTimeToSystemTime(&in, &st));
    EXPECT_TRUE(RecordIs(std::to_string(c.fileTime), c.expected, st));
    EXPECT_EQ(c.fileTime, in) << "input changed";
  }
}

TEST(FileTimeToSystemTimeTest, ResultIsUtcWhateverTheProcessZone) {
  for (const char* zone : kZones) {
    ScopedTimeZone tz(zone);
    for (const auto& c : ToRecordCases()) {
      SYSTEMTIME st = Filled(0xFFFF);
      CPortable::ULLFileTimeToSystemTime(&c.fileTime, &st);
      EXPECT_TRUE(RecordIs(std::string(zone) + " " + std::to_string(c.fileTime),
                           c.expected, st));
    }
  }
}

TEST(FileTimeToSystemTimeTest, FileTimeFormGivesTheSameRecord) {
  for (const auto& c : ToRecordCases()) {
    const FILETIME ft = Halves(c.fileTime);
    SYSTEMTIME viaUll = Filled(0xFFFF), viaFt = Filled(0);
    CPortable::ULLFileTimeToSystemTime(&c.fileTime, &viaUll);
    EXPECT_EQ(1, CPortable::FileTimeToSystemTime(&ft, &viaFt));
    EXPECT_TRUE(RecordIs("FILETIME form of " + std::to_string(c.fileTime),
                         viaUll, viaFt));
  }
}

// ---------------------------------------------------------------------------
// SYSTEMTIME to file time

struct ToFileTimeCase {
  const char* what;
  SYSTEMTIME in;
  ULL expected;
};

std::vector<ToFileTimeCase> ToFileTimeCases() {
  return {
      {"epoch", Record(1970, 1, 4, 1), kEpoch},
      {"2000", Record(2000, 1, 6, 1), 125911584000000000ULL},
      {"leap day", Record(2024, 2, 4, 29, 12, 34, 56, 789),
       FileTimeOf(UnixSeconds(2024, 2, 29, 12, 34, 56), 7890000)},
      {"2038 last 32-bit second", Record(2038, 1, 2, 19, 3, 14, 7),
       137919572470000000ULL},
      {"2038 past 32 bits", Record(2038, 1, 2, 19, 3, 14, 8),
       137919572480000000ULL},
      {"2100", Record(2100, 1, 5, 1), 157469184000000000ULL},
      {"2100 summer", Record(2100, 6, 2, 15, 12, 0, 0, 250),
       FileTimeOf(UnixSeconds(2100, 6, 15, 12), 2500000)},
      // Years before 1970 read as 1970.
      {"1969", Record(1969, 7, 0, 20, 20, 17, 40, 5),
       FileTimeOf(UnixSeconds(1970, 7, 20, 20, 17, 40), 50000)},
      {"1601", Record(1601, 1, 1, 1), kEpoch},
      {"year 0", Record(0, 3, 0, 4, 5, 6, 7), FileTimeOf(UnixSeconds(1970, 3, 4, 5, 6, 7))},
      // Out-of-range fields are normalised.
      {"month 13", Record(2023, 13, 0, 15, 8), FileTimeOf(UnixSeconds(2024, 1, 15, 8))},
      {"month 0", Record(2024, 0, 0, 15), FileTimeOf(UnixSeconds(2023, 12, 15))},
      {"February 30 of a leap year", Record(2024, 2, 0, 30),
       FileTimeOf(UnixSeconds(2024, 3, 1))},
      {"February 29 of a common year", Record(2023, 2, 0, 29),
       FileTimeOf(UnixSeconds(2023, 3, 1))},
      {"day 0", Record(2024, 3, 0, 0), FileTimeOf(UnixSeconds(2024, 2, 29))},
      {"hour 24", Record(2024, 12, 0, 31, 24), FileTimeOf(UnixSeconds(2025, 1, 1))},
      {"second 60", Record(2024, 6, 0, 30, 23, 59, 60), FileTimeOf(UnixSeconds(2024, 7, 1))},
      {"1500 ms", Record(2024, 6, 0, 1, 0, 0, 0, 1500),
       FileTimeOf(UnixSeconds(2024, 6, 1, 0, 0, 1), 5000000)},
      // The day of week is not read.
      {"wrong day of week", Record(2024, 2, 6, 29, 12), FileTimeOf(UnixSeconds(2024, 2, 29, 12))},
      {"day of week 99", Record(2024, 2, 99, 29, 12), FileTimeOf(UnixSeconds(2024, 2, 29, 12))},
  };
}

TEST(SystemTimeToFileTimeTest, UnixEpochRecordGivesTheEpochOffset) {
  const SYSTEMTIME st = Record(1970, 1, 4, 1);
  ULL ft = 0;
  EXPECT_EQ(1, CPortable::ULLSystemTimeToFileTime(&st, &ft));
  EXPECT_EQ(116444736000000000ULL, ft);
}

TEST(SystemTimeToFileTimeTest, ReadsTheRecordAsUtcInEveryZone) {
  for (const char* zone : kZones) {
    ScopedTimeZone tz(zone);
    for (const auto& c : ToFileTimeCases()) {
      ULL ft = 0;
      EXPECT_EQ(1, CPortable::ULLSystemTimeToFileTime(&c.in, &ft));
      EXPECT_TRUE(FileTimeIs(std::string(zone) + ": " + c.what, c.expected, ft));
    }
  }
}

TEST(SystemTimeToFileTimeTest, FieldsInARepeatedLocalHourStillReadAsUtc) {
  // 02:30 happens twice locally on these days; either reading cancels out.
  struct RepeatedHour {
    const char* zone;
    SYSTEMTIME in;
  };
  const RepeatedHour cases[] = {
      {"Europe/Berlin", Record(2024, 10, 0, 27, 2, 30)},
      {"America/New_York", Record(2024, 11, 0, 3, 1, 30)},
      {"Australia/Sydney", Record(2024, 4, 0, 7, 2, 30)},
  };
  for (const auto& c : cases) {
    ScopedTimeZone tz(c.zone);
    ULL ft = 0;
    CPortable::ULLSystemTimeToFileTime(&c.in, &ft);
    const ULL expected = FileTimeOf(UnixSeconds(c.in.wYear, c.in.wMonth, c.in.wDay,
                                                c.in.wHour, c.in.wMinute));
    EXPECT_TRUE(FileTimeIs(std::string(c.zone) + " " + Text(c.in), expected, ft));
  }
}

TEST(SystemTimeToFileTimeTest, FieldsInALocalGapFollowTheCalendarFunctions) {
  // The record is read as local time by mktime and the offset in force at
  // the resulting instant is added back. For fields that do not exist
  // locally (the hour skipped in spring) the two offsets differ, and the
  // result is what those two calendar calls make of it.
  struct Gap {
    const char* zone;
    SYSTEMTIME in;
  };
  const Gap cases[] = {
      {"Europe/Berlin", Record(2024, 3, 0, 31, 2, 30)},
      {"America/New_York", Record(2024, 3, 0, 10, 2, 30)},
      {"Australia/Sydney", Record(2024, 10, 0, 6, 2, 30)},
  };
  for (const auto& c : cases) {
    ScopedTimeZone tz(c.zone);
    tm fields;
    std::memset(&fields, 0, sizeof fields);
    fields.tm_year = c.in.wYear - 1900;
    fields.tm_mon = c.in.wMonth - 1;
    fields.tm_mday = c.in.wDay;
    fields.tm_hour = c.in.wHour;
    fields.tm_min = c.in.wMinute;
    fields.tm_isdst = -1;
    const int64_t t = MkTime64(&fields);
    const int64_t seconds = t + LocalOffset64(t);
    ULL ft = 0;
    CPortable::ULLSystemTimeToFileTime(&c.in, &ft);
    EXPECT_TRUE(FileTimeIs(std::string(c.zone) + " " + Text(c.in),
                           FileTimeOf(seconds), ft));
    // Within an hour of the UTC reading of the fields, either way.
    const int64_t utc = UnixSeconds(c.in.wYear, c.in.wMonth, c.in.wDay,
                                    c.in.wHour, c.in.wMinute);
    EXPECT_LE(std::llabs(seconds - utc), 3600) << c.zone;
  }
}

TEST(SystemTimeToFileTimeTest, FileTimeFormGivesTheSameImage) {
  ScopedTimeZone tz("Europe/Berlin");
  for (const auto& c : ToFileTimeCases()) {
    ULL viaUll = 0;
    FILETIME viaFt = Halves(~0ULL);
    CPortable::ULLSystemTimeToFileTime(&c.in, &viaUll);
    EXPECT_EQ(1, CPortable::SystemTimeToFileTime(&c.in, &viaFt));
    EXPECT_TRUE(FileTimeIs(std::string("FILETIME form: ") + c.what, viaUll,
                           Count(viaFt)));
  }
}

TEST(SystemTimeToFileTimeTest, RoundTripDropsOnlyWhatTheRecordCannotHold) {
  // A record holds milliseconds: the round trip keeps whole milliseconds and
  // drops the rest, so the result is always a multiple of 10.
  const ULL inputs[] = {
      kEpoch + 7,
      kEpoch + 123456789,
      FileTimeOf(UnixSeconds(2024, 2, 29, 12, 34, 56), 7891234),
      FileTimeOf(UnixSeconds(2038, 1, 19, 3, 14, 8), 9999999),
      FileTimeOf(UnixSeconds(2100, 12, 31, 23, 59, 59), 9990001),
  };
  for (const char* zone : {"UTC", "America/New_York"}) {
    ScopedTimeZone tz(zone);
    for (ULL in : inputs) {
      SYSTEMTIME st;
      ULL back = 1;
      CPortable::ULLFileTimeToSystemTime(&in, &st);
      CPortable::ULLSystemTimeToFileTime(&st, &back);
      EXPECT_TRUE(FileTimeIs(std::string(zone) + " round trip of " + std::to_string(in),
                             in - (in - kEpoch) % 10000, back));
      EXPECT_EQ(0u, back % 10);
    }
  }
}

TEST(SystemTimeToFileTimeTest, Year2100RoundTripsInEveryZone) {
  const SYSTEMTIME in = Record(2100, 7, 4, 1, 13, 14, 15, 167);  // a Thursday
  const ULL expected = FileTimeOf(UnixSeconds(2100, 7, 1, 13, 14, 15), 1670000);
  for (const char* zone : kZones) {
    ScopedTimeZone tz(zone);
    ULL ft = 0;
    CPortable::ULLSystemTimeToFileTime(&in, &ft);
    EXPECT_TRUE(FileTimeIs(zone, expected, ft));
    SYSTEMTIME out = Filled(0xFFFF);
    CPortable::ULLFileTimeToSystemTime(&ft, &out);
    EXPECT_TRUE(RecordIs(zone, in, out));
  }
}

// ---------------------------------------------------------------------------
// Local time and UTC

// UTC instants of interest: ordinary days of both seasons, both sides of
// the daylight-saving changes of the northern and southern zones, past 2038.
std::vector<ULL> UtcInstants() {
  return {
      FileTimeOf(UnixSeconds(2024, 1, 15, 12), 1234567),
      FileTimeOf(UnixSeconds(2024, 7, 1, 12), 9),
      FileTimeOf(UnixSeconds(2024, 3, 31, 0, 59, 59), 9999999),
      FileTimeOf(UnixSeconds(2024, 3, 31, 1, 0, 0)),
      FileTimeOf(UnixSeconds(2024, 10, 27, 0, 30)),
      FileTimeOf(UnixSeconds(2024, 10, 27, 1, 30), 5),
      FileTimeOf(UnixSeconds(2024, 3, 10, 6, 59, 59)),
      FileTimeOf(UnixSeconds(2024, 3, 10, 7, 0, 1)),
      FileTimeOf(UnixSeconds(2024, 4, 6, 15, 30)),
      FileTimeOf(UnixSeconds(2024, 10, 5, 16, 30)),
      FileTimeOf(UnixSeconds(2038, 1, 19, 3, 14, 8), 3),
      FileTimeOf(UnixSeconds(2100, 1, 15, 12), 11),
      FileTimeOf(UnixSeconds(2100, 7, 15, 12), 99),
  };
}

// The local value that UTC file time `utc` should convert to: the offset is
// glibc's for the instant.
ULL ExpectedLocal(ULL utc) {
  const ULL us = (utc - kEpoch) / 10;
  const int64_t seconds = static_cast<int64_t>(us / 1000000);
  return FileTimeOf(seconds + LocalOffset64(seconds), (us % 1000000) * 10);
}

// The UTC value that local file time `local` should convert to: the offset
// is glibc's for the instant numerically equal to the local value.
ULL ExpectedUtc(ULL local) {
  const ULL us = (local - kEpoch) / 10;
  const int64_t seconds = static_cast<int64_t>(us / 1000000);
  return FileTimeOf(seconds - LocalOffset64(seconds), (us % 1000000) * 10);
}

TEST(LocalTimeConversionTest, UtcZoneLeavesTheValueButDropsTheLastDigit) {
  ScopedTimeZone tz("UTC");
  for (ULL in : UtcInstants()) {
    const ULL expected = in - (in - kEpoch) % 10;
    ULL local = 1, utc = 1;
    EXPECT_EQ(1, CPortable::ULLFileTimeUTCToULLFileTimeLocal(&in, &local));
    EXPECT_EQ(1, CPortable::ULLFileTimeLocalToULLFileTimeUTC(&in, &utc));
    EXPECT_TRUE(FileTimeIs("to local " + std::to_string(in), expected, local));
    EXPECT_TRUE(FileTimeIs("to UTC " + std::to_string(in), expected, utc));
  }
}

TEST(LocalTimeConversionTest, UtcToLocalAddsTheOffsetInForceAtTheInstant) {
  for (const char* zone : kZones) {
    ScopedTimeZone tz(zone);
    for (ULL utc : UtcInstants()) {
      ULL local = 1;
      EXPECT_EQ(1, CPortable::ULLFileTimeUTCToULLFileTimeLocal(&utc, &local));
      EXPECT_TRUE(FileTimeIs(std::string(zone) + " to local " + std::to_string(utc),
                             ExpectedLocal(utc), local));
      EXPECT_EQ(0u, local % 10);
    }
  }
}

TEST(LocalTimeConversionTest, LocalToUtcSubtractsTheOffsetAtTheLocalValue) {
  for (const char* zone : kZones) {
    ScopedTimeZone tz(zone);
    for (ULL local : UtcInstants()) {  // the same numbers, read as local
      ULL utc = 1;
      EXPECT_EQ(1, CPortable::ULLFileTimeLocalToULLFileTimeUTC(&local, &utc));
      EXPECT_TRUE(FileTimeIs(std::string(zone) + " to UTC " + std::to_string(local),
                             ExpectedUtc(local), utc));
      EXPECT_EQ(0u, utc % 10);
    }
  }
}

TEST(LocalTimeConversionTest, FixedOffsetZonesShiftByTheirOffset) {
  // POSIX zones without daylight saving: the offset is known exactly.
  struct FixedZone {
    const char* tz;
    int64_t offsetSeconds;  // east of UTC
  };
  const FixedZone zones[] = {
      {"ABC-3", 3 * 3600}, {"XYZ+5", -5 * 3600}, {"HHM-5:30", 5 * 3600 + 1800}};
  for (const auto& z : zones) {
    ScopedTimeZone tz(z.tz);
    for (ULL in : UtcInstants()) {
      const ULL truncated = in - (in - kEpoch) % 10;
      const ULL shift = static_cast<ULL>(z.offsetSeconds) * kSecond;
      ULL local = 1, utc = 1;
      CPortable::ULLFileTimeUTCToULLFileTimeLocal(&in, &local);
      CPortable::ULLFileTimeLocalToULLFileTimeUTC(&in, &utc);
      EXPECT_TRUE(FileTimeIs(std::string(z.tz) + " to local", truncated + shift, local));
      EXPECT_TRUE(FileTimeIs(std::string(z.tz) + " to UTC", truncated - shift, utc));
    }
  }
}

TEST(LocalTimeConversionTest, NearADaylightSavingChangeTheOtherSidesOffsetIsUsed) {
  // Local values whose numerically equal UTC instant lies on the other side
  // of the zone's change from the instant they really name. The offset of
  // that numerically equal instant is the one used.
  struct NearChange {
    const char* zone;
    int64_t localSeconds;  // the local wall-clock value, as seconds
  };
  const NearChange cases[] = {
      // 01:30 CET is 00:30 UTC; at 01:30 UTC summer time is already on.
      {"Europe/Berlin", UnixSeconds(2024, 3, 31, 1, 30)},
      // 01:30 CEST is 23:30 UTC the day before; at 01:30 UTC winter time
      // has begun.
      {"Europe/Berlin", UnixSeconds(2024, 10, 27, 1, 30)},
      // 03:30 EDT is 07:30 UTC; at 03:30 UTC winter time still holds.
      {"America/New_York", UnixSeconds(2024, 3, 10, 3, 30)},
      // 20:00 AEDT is 09:00 UTC; summer time ends at 16:00 UTC, so at
      // 20:00 UTC standard time holds.
      {"Australia/Sydney", UnixSeconds(2024, 4, 6, 20, 0)},
  };
  for (const auto& c : cases) {
    ScopedTimeZone tz(c.zone);
    // The offset glibc gives the local value's real instant.
    tm fields;
    ASSERT_TRUE(GmTime64(c.localSeconds, &fields));
    fields.tm_isdst = -1;
    const int64_t realInstant = MkTime64(&fields);
    const long realOffset = LocalOffset64(realInstant);
    const long usedOffset = LocalOffset64(c.localSeconds);
    ASSERT_NE(realOffset, usedOffset)
        << c.zone << ": the case does not straddle a change";

    const ULL local = FileTimeOf(c.localSeconds, 4321);
    ULL utc = 0;
    CPortable::ULLFileTimeLocalToULLFileTimeUTC(&local, &utc);
    EXPECT_TRUE(FileTimeIs(std::string(c.zone) + " " + std::to_string(c.localSeconds),
                           FileTimeOf(c.localSeconds - usedOffset, 4320), utc));
    EXPECT_NE(FileTimeOf(realInstant, 4320), utc)
        << c.zone << ": the real instant's offset was used";
  }
}

TEST(LocalTimeConversionTest, AwayFromChangesLocalAndBackIsTheIdentity) {
  const ULL inputs[] = {FileTimeOf(UnixSeconds(2024, 1, 15, 12), 70),
                        FileTimeOf(UnixSeconds(2024, 7, 1, 12), 1230),
                        FileTimeOf(UnixSeconds(2100, 7, 15, 12), 4560)};
  for (const char* zone : kZones) {
    ScopedTimeZone tz(zone);
    for (ULL in : inputs) {
      ULL local = 0, back = 0;
      CPortable::ULLFileTimeUTCToULLFileTimeLocal(&in, &local);
      CPortable::ULLFileTimeLocalToULLFileTimeUTC(&local, &back);
      EXPECT_TRUE(FileTimeIs(std::string(zone) + " round trip", in, back));
    }
  }
}

TEST(LocalTimeConversionTest, Year2100SummerUsesTheZonesSummerOffset) {
  // The zone's rule continues past 2038; the conversion must not fall back
  // to a 32-bit instant (which would land in 1964 or wrap).
  ScopedTimeZone tz("Europe/Berlin");
  const int64_t noon = UnixSeconds(2100, 7, 15, 12);
  ASSERT_EQ(7200, LocalOffset64(noon)) << "the zone data has no rule for 2100";
  const ULL utc = FileTimeOf(noon);
  ULL local = 0;
  CPortable::ULLFileTimeUTCToULLFileTimeLocal(&utc, &local);
  EXPECT_TRUE(FileTimeIs("2100 to local", FileTimeOf(noon + 7200), local));
  SYSTEMTIME st;
  CPortable::ULLFileTimeToSystemTime(&local, &st);
  EXPECT_TRUE(RecordIs("2100 local record", Record(2100, 7, 4, 15, 14), st));
}

TEST(LocalTimeConversionTest, FileTimeFormsGiveTheSameImages) {
  for (const char* zone : {"Europe/Berlin", "Australia/Sydney"}) {
    ScopedTimeZone tz(zone);
    for (ULL in : UtcInstants()) {
      const FILETIME ftIn = Halves(in);
      ULL ullLocal = 0, ullUtc = 0;
      FILETIME ftLocal = Halves(~0ULL), ftUtc = Halves(~0ULL);
      CPortable::ULLFileTimeUTCToULLFileTimeLocal(&in, &ullLocal);
      CPortable::ULLFileTimeLocalToULLFileTimeUTC(&in, &ullUtc);
      EXPECT_EQ(1, CPortable::FileTimeToLocalFileTime(&ftIn, &ftLocal));
      EXPECT_EQ(1, CPortable::LocalFileTimeToFileTime(&ftIn, &ftUtc));
      EXPECT_TRUE(FileTimeIs(std::string(zone) + " FileTimeToLocalFileTime",
                             ullLocal, Count(ftLocal)));
      EXPECT_TRUE(FileTimeIs(std::string(zone) + " LocalFileTimeToFileTime",
                             ullUtc, Count(ftUtc)));
    }
  }
}

// ---------------------------------------------------------------------------
// Comparison and subtraction

struct CompareCase {
  ULL a, b;
  long expected;
};

::testing::AssertionResult ComparesAs(const CompareCase& c) {
  const FILETIME a = Halves(c.a), b = Halves(c.b);
  const long actual = CPortable::CompareFileTime(&a, &b);
  if (actual == c.expected) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "CompareFileTime(0x" << std::hex << c.a << ", 0x" << c.b
         << "): expected " << std::dec << c.expected << ", actual " << actual;
}

TEST(CompareFileTimeTest, OrderFollowsTheSignOfTheWrappedDifference) {
  const ULL k2p63 = 1ULL << 63;
  const CompareCase cases[] = {
      {0, 0, 0},
      {1, 0, 1},
      {0, 1, -1},
      {kEpoch, kEpoch, 0},
      {kEpoch + 1, kEpoch, 1},
      {kEpoch, kEpoch + 1, -1},
      // The halves are compared as one count: high half first.
      {0x100000000ULL, 0xFFFFFFFFULL, 1},
      {0xFFFFFFFFULL, 0x100000000ULL, -1},
      {0x1FFFFFFFFULL, 0x1FFFFFFFFULL, 0},
      // 2^63 and above read as negative differences from 0.
      {k2p63, 0, -1},
      {k2p63 + 1, 0, -1},
      {~0ULL, 0, -1},
      {0, k2p63, -1},
      {0, ~0ULL, 1},
      {k2p63 - 1, 0, 1},
      {0, k2p63 - 1, -1},
      {~0ULL, ~0ULL, 0},
      {k2p63, k2p63 - 1, 1},
  };
  for (const auto& c : cases) EXPECT_TRUE(ComparesAs(c));
}

TEST(CompareFileTimeTest, ResultIsASigned32BitValue) {
  static_assert(sizeof(CPortable::CompareFileTime(nullptr, nullptr)) == 4, "");
  static_assert(std::is_signed<decltype(CPortable::CompareFileTime(nullptr,
                                                                   nullptr))>::value,
                "");
  const FILETIME a = Halves(5), b = Halves(7);
  EXPECT_LT(CPortable::CompareFileTime(&a, &b), 0);
}

struct SubtractCase {
  FILETIME a, b, expected;
};

::testing::AssertionResult SubtractsTo(const SubtractCase& c) {
  const FILETIME d = CPortable::SubtractFileTimes(c.a, c.b);
  if (d.dwLowDateTime == c.expected.dwLowDateTime &&
      d.dwHighDateTime == c.expected.dwHighDateTime)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << std::hex << "{0x" << c.a.dwHighDateTime << ":0x" << c.a.dwLowDateTime
         << "} - {0x" << c.b.dwHighDateTime << ":0x" << c.b.dwLowDateTime
         << "}\n  expected {0x" << c.expected.dwHighDateTime << ":0x"
         << c.expected.dwLowDateTime << "}\n  actual   {0x" << d.dwHighDateTime
         << ":0x" << d.dwLowDateTime << "}";
}

TEST(SubtractFileTimesTest, BorrowsFromTheHighHalfAndWrapsModulo2To64) {
  const SubtractCase cases[] = {
      {{5, 3}, {2, 1}, {3, 2}},
      {{0, 0}, {0, 0}, {0, 0}},
      // A borrow from the high half.
      {{0, 1}, {1, 0}, {0xFFFFFFFFUL, 0}},
      {{0x10, 5}, {0x20, 2}, {0xFFFFFFF0UL, 2}},
      {{0x7FFFFFFFUL, 1}, {0x80000000UL, 0}, {0xFFFFFFFFUL, 0}},
      // No borrow when the low halves are equal.
      {{0xFFFFFFFFUL, 7}, {0xFFFFFFFFUL, 7}, {0, 0}},
      {{0xFFFFFFFFUL, 7}, {0xFFFFFFFEUL, 6}, {1, 1}},
      // Below zero: modulo 2^64.
      {{0, 0}, {1, 0}, {0xFFFFFFFFUL, 0xFFFFFFFFUL}},
      {{0, 0}, {0, 1}, {0, 0xFFFFFFFFUL}},
      {{3, 0}, {5, 0}, {0xFFFFFFFEUL, 0xFFFFFFFFUL}},
      {{0, 0}, {0xFFFFFFFFUL, 0xFFFFFFFFUL}, {1, 0}},
  };
  for (const auto& c : cases) EXPECT_TRUE(SubtractsTo(c));
}

TEST(SubtractFileTimesTest, AgreesWith64BitSubtraction) {
  const ULL values[] = {0,          1,          0xFFFFFFFFULL, 0x100000000ULL,
                        kEpoch,     kEpoch + 9, 1ULL << 63,    ~0ULL,
                        0x123456789ABCDEF0ULL};
  for (ULL a : values)
    for (ULL b : values) {
      const SubtractCase c = {Halves(a), Halves(b), Halves(a - b)};
      EXPECT_TRUE(SubtractsTo(c));
    }
}

// ---------------------------------------------------------------------------
// Durations

struct DurationCase {
  const char* what;
  ULL duration;  // 100-ns units
  SYSTEMTIME expected;
};

TEST(FileDurationTest, SplitsIntoThirtyDayMonthsAnd360DayYears) {
  const ULL ms = 10000, sec = kSecond, min = 60 * sec, hour = 60 * min,
            day = 24 * hour;
  const DurationCase cases[] = {
      {"zero", 0, Record(0, 0, 0, 0)},
      {"below a microsecond", 9, Record(0, 0, 0, 0)},
      {"1 ms", ms, Record(0, 0, 0, 0, 0, 0, 0, 1)},
      {"65 ms", 65 * ms, Record(0, 0, 0, 0, 0, 0, 0, 65)},
      // The microsecond remainder is cut to 16 bits before dividing.
      {"66 ms", 66 * ms, Record(0, 0, 0, 0, 0, 0, 0, 0)},
      {"1.5 s", 15000000, Record(0, 0, 0, 0, 0, 0, 1, 41)},
      {"999 ms", 999 * ms, Record(0, 0, 0, 0, 0, 0, 0, 15)},
      {"59 s", 59 * sec, Record(0, 0, 0, 0, 0, 0, 59)},
      {"1 min", min, Record(0, 0, 0, 0, 0, 1, 0)},
      {"1 h 2 min 3 s", hour + 2 * min + 3 * sec, Record(0, 0, 0, 0, 1, 2, 3)},
      {"23 h 59 min 59 s", day - sec, Record(0, 0, 0, 0, 23, 59, 59)},
      {"1 day", day, Record(0, 0, 0, 1)},
      {"29 days", 29 * day, Record(0, 0, 0, 29)},
      {"30 days", 30 * day, Record(0, 1, 0, 0)},
      {"31 days", 31 * day, Record(0, 1, 0, 1)},
      {"359 days", 359 * day, Record(0, 11, 0, 29)},
      {"360 days", 360 * day, Record(1, 0, 0, 0)},
      {"365 days", 365 * day, Record(1, 0, 0, 5)},
      {"1 y 2 m 3 d 4 h 5 min 6.007 s",
       (360 + 60 + 3) * day + 4 * hour + 5 * min + 6 * sec + 7 * ms,
       Record(1, 2, 0, 3, 4, 5, 6, 7)},
      // Seconds are kept to 32 bits.
      {"2^32 - 1 s", 4294967295ULL * sec, Record(138, 1, 0, 0, 6, 28, 15)},
      {"2^32 s", 4294967296ULL * sec, Record(0, 0, 0, 0)},
      {"2^32 s + 61.002 s", 4294967296ULL * sec + 61 * sec + 2 * ms,
       Record(0, 0, 0, 0, 0, 1, 1, 2)},
  };
  for (const auto& c : cases) {
    SYSTEMTIME st = Filled(0xFFFF);
    EXPECT_EQ(1, CPortable::ULLFileDurationToSystemDuration(&c.duration, &st));
    EXPECT_TRUE(RecordIs(c.what, c.expected, st));
  }
}

TEST(FileDurationTest, FileTimeFormGivesTheSameCounts) {
  const ULL durations[] = {0, 15000000, 31 * 864000000000ULL,
                           4294967295ULL * kSecond, ~0ULL};
  for (ULL d : durations) {
    const FILETIME ft = Halves(d);
    SYSTEMTIME viaUll = Filled(0xFFFF), viaFt = Filled(0x1234);
    CPortable::ULLFileDurationToSystemDuration(&d, &viaUll);
    EXPECT_EQ(1, CPortable::FileDurationToSystemDuration(&ft, &viaFt));
    EXPECT_TRUE(RecordIs("FILETIME form of " + std::to_string(d), viaUll, viaFt));
  }
}

// ---------------------------------------------------------------------------
// The current time

int64_t NowMicroseconds() {
  timeval tv;
  ::gettimeofday(&tv, nullptr);
  return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

TEST(CurrentFileTimeTest, LiesBetweenTwoReadingsOfTheSystemClock) {
  for (int i = 0; i < 100; ++i) {
    const int64_t before = NowMicroseconds();
    ULL now = 0;
    CPortable::GetCurrentULLFileTimeUTC(&now);
    const int64_t after = NowMicroseconds();
    ASSERT_LE(static_cast<ULL>(before) * 10 + kEpoch, now);
    ASSERT_GE(static_cast<ULL>(after) * 10 + kEpoch, now);
    ASSERT_EQ(0u, now % 10) << "microseconds times ten";
  }
}

TEST(CurrentFileTimeTest, FileTimeFormFillsBothHalves) {
  const int64_t before = NowMicroseconds();
  FILETIME ft = Halves(0);
  CPortable::GetSystemTimeAsFileTime(&ft);
  const int64_t after = NowMicroseconds();
  EXPECT_LE(static_cast<ULL>(before) * 10 + kEpoch, Count(ft));
  EXPECT_GE(static_cast<ULL>(after) * 10 + kEpoch, Count(ft));
  EXPECT_NE(0u, ft.dwHighDateTime);
}

// Reads time(), calls `read` and reads time() again; the record must match
// the conversion of one of the two readings.
template <typename Read, typename Convert>
::testing::AssertionResult MatchesCalendar(Read read, Convert convert) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    const int64_t before = static_cast<int64_t>(::time(nullptr));
    SYSTEMTIME st = Filled(0xFFFF);
    read(&st);
    const int64_t after = static_cast<int64_t>(::time(nullptr));
    tm t;
    std::memset(&t, 0, sizeof t);
    convert(before, &t);
    const SYSTEMTIME expected = RecordOf(t, st.wMilliseconds);
    if (st.wMilliseconds > 999)
      return ::testing::AssertionFailure() << "milliseconds " << st.wMilliseconds;
    if (SameToTheSecond(expected, st)) return ::testing::AssertionSuccess();
    if (after == before)
      return ::testing::AssertionFailure() << "\n  expected " << Text(expected)
                                           << "\n  actual   " << Text(st);
    // The second changed during the call: try again.
  }
  return ::testing::AssertionFailure() << "the clock kept changing second";
}

TEST(CurrentCalendarTimeTest, SystemTimeIsGmtimeOfNow) {
  for (const char* zone : {"UTC", "Asia/Kolkata", "America/New_York"}) {
    ScopedTimeZone tz(zone);
    EXPECT_TRUE(MatchesCalendar(&CPortable::GetSystemTime, &GmTime64)) << zone;
  }
}

TEST(CurrentCalendarTimeTest, LocalTimeIsLocaltimeOfNowInTheProcessZone) {
  for (const char* zone : {"UTC", "Asia/Kolkata", "America/New_York",
                           "Pacific/Chatham", "ABC-3"}) {
    ScopedTimeZone tz(zone);
    EXPECT_TRUE(MatchesCalendar(&CPortable::GetLocalTime, &LocalTime64)) << zone;
  }
}

TEST(CurrentCalendarTimeTest, LocalTimeDiffersFromSystemTimeByTheZoneOffset) {
  // A zone at UTC+5:30 shifts the minute, so a mistaken UTC reading shows.
  ScopedTimeZone tz("HHM-5:30");
  for (int attempt = 0; attempt < 5; ++attempt) {
    SYSTEMTIME utc, local;
    CPortable::GetSystemTime(&utc);
    CPortable::GetLocalTime(&local);
    const int utcMinutes = utc.wHour * 60 + utc.wMinute;
    const int localMinutes = local.wHour * 60 + local.wMinute;
    const int diff = ((localMinutes - utcMinutes) % 1440 + 1440) % 1440;
    if (diff == 330) return;
    if (diff == 331) continue;  // a minute went by between the calls
    FAIL() << "UTC " << Text(utc) << ", local " << Text(local);
  }
  FAIL() << "the minute kept changing";
}

// ---------------------------------------------------------------------------
// Tick counts

unsigned long long MonotonicMilliseconds() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<unsigned long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

TEST(TickCountTest, TickCountULLIsTheMonotonicClockInMilliseconds) {
  for (int i = 0; i < 1000; ++i) {
    const ULL before = MonotonicMilliseconds();
    const ULL ticks = CPortable::GetTickCountULL();
    const ULL after = MonotonicMilliseconds();
    ASSERT_LE(before, ticks);
    ASSERT_LE(ticks, after);
  }
}

TEST(TickCountTest, TickCountIsTheLowHalfOfTickCountULL) {
  for (int i = 0; i < 1000; ++i) {
    const ULL before = CPortable::GetTickCountULL();
    const unsigned long ticks = CPortable::GetTickCount();
    const ULL after = CPortable::GetTickCountULL();
    // ticks lies in [before, after] modulo 2^32.
    const unsigned long fromBefore = ticks - static_cast<unsigned long>(before);
    ASSERT_LE(fromBefore, static_cast<unsigned long>(after - before))
        << "ticks " << ticks << ", around " << before << " .. " << after;
  }
}

TEST(TickCountTest, TickCountsNeverGoBackwards) {
  ULL lastUll = CPortable::GetTickCountULL();
  unsigned long last = CPortable::GetTickCount();
  for (int i = 0; i < 100000; ++i) {
    const ULL nowUll = CPortable::GetTickCountULL();
    const unsigned long now = CPortable::GetTickCount();
    ASSERT_LE(lastUll, nowUll);
    // Unsigned 32-bit difference: a step back would be close to 2^32.
    ASSERT_LT(now - last, 0x80000000UL);
    lastUll = nowUll;
    last = now;
  }
}

TEST(TickCountTest, TickCountAdvancesWithElapsedTime) {
  const ULL startUll = CPortable::GetTickCountULL();
  const unsigned long start = CPortable::GetTickCount();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const unsigned long elapsed = CPortable::GetTickCount() - start;
  const ULL elapsedUll = CPortable::GetTickCountULL() - startUll;
  EXPECT_GE(elapsed, 50u);
  EXPECT_LT(elapsed, 10000u);
  EXPECT_GE(elapsedUll, 50u);
  EXPECT_LT(elapsedUll, 10000u);
}

TEST(TickCountTest, ElapsedTimeAcrossTheWrapIsTheUnsigned32BitDifference) {
  // Callers compute elapsed time in the type GetTickCount returns, which
  // must therefore be unsigned and exactly 32 bits wide.
  using Ticks = decltype(CPortable::GetTickCount());
  static_assert(std::is_unsigned<Ticks>::value, "tick counts are unsigned");
  static_assert(sizeof(Ticks) == 4, "tick counts wrap at 2^32");
  struct WrapCase {
    ULL start, end;  // 64-bit tick counts
    Ticks elapsed;
  };
  const WrapCase cases[] = {
      {4294967295ULL, 4294967296ULL, 1},  // 4294967295 -> 0
      {4294967290ULL, 4294967301ULL, 11},
      {4294967000ULL, 4294968000ULL, 1000},
      {0x1FFFFFFFFULL, 0x200000000ULL, 1},
      {100, 200, 100},
  };
  for (const auto& c : cases) {
    const Ticks start = static_cast<Ticks>(c.start & 0xFFFFFFFFULL);
    const Ticks end = static_cast<Ticks>(c.end & 0xFFFFFFFFULL);
    EXPECT_EQ(c.elapsed, static_cast<Ticks>(end - start))
        << c.start << " -> " << c.end;
  }
  // The wrap itself: the low half of 2^32 - 1 is the largest count and the
  // next one is 0.
  EXPECT_EQ(4294967295UL, static_cast<Ticks>(4294967295ULL));
  EXPECT_EQ(0UL, static_cast<Ticks>(4294967296ULL));
  EXPECT_EQ(1UL, static_cast<Ticks>(static_cast<Ticks>(0) -
                                    static_cast<Ticks>(4294967295UL)));
}

// ---------------------------------------------------------------------------
// Zone abbreviation

TEST(GetTimeZoneTest, SizeOneWritesOnlyTheTerminator) {
  ScopedTimeZone tz("Europe/Berlin");
  char buffer[8];
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(buffer, CPortable::GetTimeZone(buffer, 1));
  EXPECT_EQ('\0', buffer[0]);
  for (size_t i = 1; i < sizeof buffer; ++i)
    EXPECT_EQ('x', buffer[i]) << "byte " << i << " written";
}

struct ZoneNameCase {
  const char* tz;
  int size;
  const char* expected;
};

TEST(GetTimeZoneTest, CopiesTheAbbreviationCutToSizeMinusOne) {
  const ZoneNameCase cases[] = {
      {"UTC", 16, "UTC"},       {"UTC", 4, "UTC"},     {"UTC", 3, "UT"},
      {"UTC", 2, "U"},          {"ABC-3", 16, "ABC"},  {"LONGER+7", 16, "LONGER"},
      {"LONGER+7", 4, "LON"},   {"Asia/Kolkata", 8, "IST"},
  };
  for (const auto& c : cases) {
    ScopedTimeZone tz(c.tz);
    char buffer[32];
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(buffer, CPortable::GetTimeZone(buffer, c.size));
    EXPECT_STREQ(c.expected, buffer) << "TZ " << c.tz << ", size " << c.size;
    EXPECT_EQ('\0', buffer[c.size - 1]) << "TZ " << c.tz << ", size " << c.size;
    EXPECT_EQ('x', buffer[c.size]) << "TZ " << c.tz << ", size " << c.size;
  }
}

TEST(GetTimeZoneTest, GivesTheAbbreviationOfTheCurrentInstant) {
  for (const char* zone : {"Europe/Berlin", "America/New_York",
                           "Australia/Sydney", "EST5EDT,M3.2.0,M11.1.0"}) {
    ScopedTimeZone tz(zone);
    tm before, after;
    std::memset(&before, 0, sizeof before);
    std::memset(&after, 0, sizeof after);
    LocalTime64(::time(nullptr), &before);
    char buffer[16];
    CPortable::GetTimeZone(buffer, sizeof buffer);
    LocalTime64(::time(nullptr), &after);
    ASSERT_NE(nullptr, before.tm_zone);
    ASSERT_NE(nullptr, after.tm_zone);
    EXPECT_TRUE(std::string(buffer) == before.tm_zone ||
                std::string(buffer) == after.tm_zone)
        << zone << ": got \"" << buffer << "\", expected \"" << before.tm_zone
        << "\"";
  }
}

}  // namespace

// Conversions for the zone a Windows zone record names.
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "ambit/portable.h"
#include "ambit/timezone.h"
#include "gtest/gtest.h"
#include "support/child_process.h"
#include "timezone/zone_table.h"

namespace {

using ST = CPortable::SYSTEMTIME;
using TZI = CPortable::_TIME_ZONE_INFORMATION;

constexpr unsigned long long kEpochOffset = 116444736000000000ULL;

TZI Record(const char* standardName) {
  TZI tzi;
  std::memset(&tzi, 0x5A, sizeof tzi);  // nothing but the name may matter
  std::strncpy(tzi.StandardName, standardName, sizeof tzi.StandardName - 1);
  tzi.StandardName[sizeof tzi.StandardName - 1] = '\0';
  return tzi;
}

ST Time(int y, int mo, int d, int h, int mi, int s, int ms, int wday = 0) {
  ST st;
  st.wYear = static_cast<unsigned short>(y);
  st.wMonth = static_cast<unsigned short>(mo);
  st.wDayOfWeek = static_cast<unsigned short>(wday);
  st.wDay = static_cast<unsigned short>(d);
  st.wHour = static_cast<unsigned short>(h);
  st.wMinute = static_cast<unsigned short>(mi);
  st.wSecond = static_cast<unsigned short>(s);
  st.wMilliseconds = static_cast<unsigned short>(ms);
  return st;
}

::testing::AssertionResult SameTime(const ST& expected, const ST& actual) {
  if (std::memcmp(&expected, &actual, sizeof expected) == 0)
    return ::testing::AssertionSuccess();
  auto show = [](const ST& t) {
    char b[96];
    std::snprintf(b, sizeof b, "%04u-%02u-%02u %02u:%02u:%02u.%03u wday %u",
                  t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond,
                  t.wMilliseconds, t.wDayOfWeek);
    return std::string(b);
  };
  return ::testing::AssertionFailure()
         << "expected " << show(expected) << ", got " << show(actual);
}

ST ToLocal(const char* windowsName, const ST& utc) {
  const TZI tzi = Record(windowsName);
  ST local;
  std::memset(&local, 0xEE, sizeof local);
  EXPECT_EQ(1, CPortable::SystemTimeToTzSpecificLocalTime(&tzi, &utc, &local));
  return local;
}

TEST(TimeZoneRecordTest, StandardNameIsNarrowAtByteFour) {
  EXPECT_EQ(4u, offsetof(TZI, StandardName));
  TZI tzi;
  std::memset(&tzi, 0, sizeof tzi);
  std::memcpy(reinterpret_cast<char*>(&tzi) + 4, "Tokyo Standard Time", 20);
  char zone[32];
  EXPECT_STREQ("Asia/Tokyo", CTimeZoneMap::GetInstance()->MapTzInfo(&tzi, zone, 32));
}

TEST(MapTzInfoTest, KnownNameGivesItsOlsonName) {
  const TZI tzi = Record("W. Europe Standard Time");
  char zone[32];
  char* r = CTimeZoneMap::GetInstance()->MapTzInfo(&tzi, zone, sizeof zone);
  EXPECT_EQ(zone, r);
  EXPECT_STREQ("Europe/Berlin", zone);
}

TEST(MapTzInfoTest, UnknownOrEmptyNameGivesGmt) {
  char zone[32];
  for (const char* name : {"", "UTC", "w. europe standard time", "Nowhere"}) {
    const TZI tzi = Record(name);
    EXPECT_STREQ("GMT", CTimeZoneMap::GetInstance()->MapTzInfo(&tzi, zone, 32))
        << "\"" << name << "\"";
  }
}

TEST(MapTzInfoTest, EveryTableNameFitsABufferOf32) {
  for (const SZONENAMEPAIR& row : g_aZoneNames) {
    const TZI tzi = Record(row.pszWindows);
    char zone[32];
    std::memset(zone, 'x', sizeof zone);
    CTimeZoneMap::GetInstance()->MapTzInfo(&tzi, zone, 32);
    EXPECT_STREQ(row.pszOlson, zone);
  }
}

TEST(MapTzInfoTest, CopiesLikeStrncpyForShortBuffers) {
  const TZI tzi = Record("Tokyo Standard Time");
  char zone[16];
  std::memset(zone, 'x', sizeof zone);
  CTimeZoneMap::GetInstance()->MapTzInfo(&tzi, zone, 5);
  EXPECT_EQ(0, std::memcmp(zone, "Asia/x", 6));  // unterminated, rest untouched
  std::memset(zone, 'x', sizeof zone);
  CTimeZoneMap::GetInstance()->MapTzInfo(&tzi, zone, 14);
  EXPECT_EQ(0, std::memcmp(zone, "Asia/Tokyo\0\0\0\0x", 15));  // zero-padded
}

TEST(MapTzInfoTest, NameFillingTheWholeArrayIsReadNoFurther) {
  TZI tzi;
  std::memset(&tzi, 'A', sizeof tzi);  // no terminator anywhere
  char zone[32];
  EXPECT_STREQ("GMT", CTimeZoneMap::GetInstance()->MapTzInfo(&tzi, zone, 32));
}

TEST(ZoneSpecificLocalTimeTest, TokyoIsNineHoursAhead) {
  EXPECT_TRUE(SameTime(Time(2024, 1, 1, 9, 0, 0, 250, 1),
                       ToLocal("Tokyo Standard Time", Time(2024, 1, 1, 0, 0, 0, 250))));
}

TEST(ZoneSpecificLocalTimeTest, TokyoCrossesTheDateLine) {
  EXPECT_TRUE(SameTime(Time(2024, 3, 1, 8, 59, 59, 999, 5),
                       ToLocal("Tokyo Standard Time", Time(2024, 2, 29, 23, 59, 59, 999))));
}

TEST(ZoneSpecificLocalTimeTest, UnknownNameGivesTheUtcFieldsWithTheWeekdayRecomputed) {
  // 2024-01-01 was a Monday; the input claims Saturday.
  for (const char* name : {"", "UTC", "Atlantis Standard Time", "tokyo standard time"}) {
    EXPECT_TRUE(SameTime(Time(2024, 1, 1, 12, 34, 56, 789, 1),
                         ToLocal(name, Time(2024, 1, 1, 12, 34, 56, 789, 6))))
        << "\"" << name << "\"";
  }
}

TEST(ZoneSpecificLocalTimeTest, GreenwichNameIsUtcToo) {
  EXPECT_TRUE(SameTime(Time(2001, 9, 11, 12, 48, 0, 0, 2),
                       ToLocal("Greenwich Standard Time", Time(2001, 9, 11, 12, 48, 0, 0))));
}

TEST(ZoneSpecificLocalTimeTest, Year1900IsReadAs1970) {
  EXPECT_TRUE(SameTime(Time(1970, 1, 1, 9, 0, 0, 0, 4),
                       ToLocal("Tokyo Standard Time", Time(1900, 1, 1, 0, 0, 0, 0))));
  EXPECT_TRUE(SameTime(Time(1970, 6, 15, 10, 20, 30, 40, 1),
                       ToLocal("", Time(1969, 6, 15, 10, 20, 30, 40))));
}

TEST(ZoneSpecificLocalTimeTest, OutOfRangeFieldsAreCarriedOver) {
  // Month 13 of 2023 is January 2024; second 60 rolls into the next minute.
  EXPECT_TRUE(SameTime(Time(2024, 1, 1, 0, 1, 0, 0, 1),
                       ToLocal("", Time(2023, 13, 1, 0, 0, 60, 0))));
  // Day 0 is the last day of the previous month.
  EXPECT_TRUE(SameTime(Time(2024, 2, 29, 9, 0, 0, 0, 4),
                       ToLocal("Tokyo Standard Time", Time(2024, 3, 0, 0, 0, 0, 0))));
}

TEST(ZoneSpecificLocalTimeTest, DatesPast2038Convert) {
  EXPECT_TRUE(SameTime(Time(2040, 7, 1, 9, 0, 0, 0, 0),
                       ToLocal("Tokyo Standard Time", Time(2040, 7, 1, 0, 0, 0, 0))));
  EXPECT_TRUE(SameTime(Time(2100, 1, 1, 0, 0, 0, 0, 5),
                       ToLocal("", Time(2100, 1, 1, 0, 0, 0, 0))));
}

TEST(ZoneSpecificLocalTimeTest, OutputMayBeTheInput) {
  const TZI tzi = Record("Tokyo Standard Time");
  ST st = Time(2024, 1, 1, 0, 0, 0, 250);
  EXPECT_EQ(1, CPortable::SystemTimeToTzSpecificLocalTime(&tzi, &st, &st));
  EXPECT_TRUE(SameTime(Time(2024, 1, 1, 9, 0, 0, 250, 1), st));
}

TEST(ZoneSpecificLocalTimeTest, AgreesWithTheRuntimeForEveryTableZone) {
  // Whatever the zone, local minus UTC is a whole number of minutes within
  // a day, and the milliseconds are copied.
  const ST utc = Time(2024, 7, 15, 12, 0, 0, 123);
  for (const SZONENAMEPAIR& row : g_aZoneNames) {
    const ST local = ToLocal(row.pszWindows, utc);
    EXPECT_EQ(123, local.wMilliseconds) << row.pszWindows;
    tm t = {};
    t.tm_year = local.wYear - 1900;
    t.tm_mon = local.wMonth - 1;
    t.tm_mday = local.wDay;
    t.tm_hour = local.wHour;
    t.tm_min = local.wMinute;
    t.tm_sec = local.wSecond;
    const long long diff = static_cast<long long>(timegm(&t)) - 1721044800LL;
    EXPECT_LE(std::llabs(diff), 14 * 3600) << row.pszWindows;
    EXPECT_EQ(0, diff % 900) << row.pszWindows;
    EXPECT_EQ(t.tm_wday, local.wDayOfWeek) << row.pszWindows;
  }
}

TEST(ZoneSpecificFileTimeTest, EpochGivesTheEpochOffsetForAnyRecord) {
  const ST epoch = Time(1970, 1, 1, 0, 0, 0, 0);
  for (const SZONENAMEPAIR& row : g_aZoneNames) {
    const TZI tzi = Record(row.pszWindows);
    unsigned long long ft = 1;
    EXPECT_EQ(1, CPortable::ULLTzSpecificSystemTimeToFileTime(&tzi, &epoch, &ft));
    EXPECT_EQ(kEpochOffset, ft) << row.pszWindows;
  }
  const TZI unknown = Record("Nowhere");
  unsigned long long ft = 1;
  CPortable::ULLTzSpecificSystemTimeToFileTime(&unknown, &epoch, &ft);
  EXPECT_EQ(kEpochOffset, ft);
}

TEST(ZoneSpecificFileTimeTest, ZoneDoesNotChangeTheValue) {
  const ST st = Time(2024, 1, 1, 0, 0, 0, 250);
  // 2024-01-01 00:00:00 UTC is 1704067200 s.
  const unsigned long long expected =
      (1704067200ULL * 1000000 + 250000) * 10 + kEpochOffset;
  for (const SZONENAMEPAIR& row : g_aZoneNames) {
    const TZI tzi = Record(row.pszWindows);
    unsigned long long ft = 0;
    CPortable::ULLTzSpecificSystemTimeToFileTime(&tzi, &st, &ft);
    EXPECT_EQ(expected, ft) << row.pszWindows;
  }
}

TEST(ZoneSpecificFileTimeTest, Year1900IsReadAs1970) {
  const TZI tzi = Record("Tokyo Standard Time");
  const ST st = Time(1900, 1, 1, 0, 0, 0, 0);
  unsigned long long ft = 0;
  CPortable::ULLTzSpecificSystemTimeToFileTime(&tzi, &st, &ft);
  EXPECT_EQ(kEpochOffset, ft);
}

TEST(ZoneSpecificFileTimeTest, DatesPast2038Convert) {
  const TZI tzi = Record("AUS Eastern Standard Time");
  const ST st = Time(2100, 1, 1, 0, 0, 0, 5);
  unsigned long long ft = 0;
  CPortable::ULLTzSpecificSystemTimeToFileTime(&tzi, &st, &ft);
  EXPECT_EQ((4102444800ULL * 1000000 + 5000) * 10 + kEpochOffset, ft);
}

TEST(ZoneSpecificFileTimeTest, FileTimeFormForwardsToTheCount) {
  const TZI tzi = Record("W. Europe Standard Time");
  const ST st = Time(2031, 10, 26, 1, 30, 0, 999);
  unsigned long long ull = 0;
  CPortable::ULLTzSpecificSystemTimeToFileTime(&tzi, &st, &ull);
  CPortable::FILETIME ft = {0, 0};
  EXPECT_EQ(1, CPortable::TzSpecificSystemTimeToFileTime(&tzi, &st, &ft));
  EXPECT_EQ(static_cast<unsigned long>(ull), ft.dwLowDateTime);
  EXPECT_EQ(static_cast<unsigned long>(ull >> 32), ft.dwHighDateTime);
}

// The process's own zone neither matters nor changes: a fresh process with
// TZ set elsewhere gets the same answers and keeps its TZ.
TEST(ZoneSpecificLocalTimeTest, ProcessTimeZoneIsNeitherReadNorChanged) {
  if (!IsRerunChild()) {
    const ChildResult r = RerunThisTest({{"TZ", std::string("America/St_Johns")}});
    EXPECT_EQ(0, r.exitCode) << r.output;
    return;
  }
  EXPECT_TRUE(SameTime(Time(2024, 1, 1, 9, 0, 0, 250, 1),
                       ToLocal("Tokyo Standard Time", Time(2024, 1, 1, 0, 0, 0, 250))));
  EXPECT_TRUE(SameTime(Time(2024, 1, 1, 0, 0, 0, 250, 1),
                       ToLocal("Greenwich Standard Time", Time(2024, 1, 1, 0, 0, 0, 250))));
  const TZI tzi = Record("Tokyo Standard Time");
  const ST st = Time(1970, 1, 2, 0, 0, 0, 0);
  unsigned long long ft = 0;
  CPortable::ULLTzSpecificSystemTimeToFileTime(&tzi, &st, &ft);
  EXPECT_EQ(86400ULL * 10000000 + kEpochOffset, ft);
  ASSERT_NE(nullptr, std::getenv("TZ"));
  EXPECT_STREQ("America/St_Johns", std::getenv("TZ"));
}

}  // namespace

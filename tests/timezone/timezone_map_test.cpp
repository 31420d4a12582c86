// CTimeZoneMap: the table, exact lookups and the lock-free singleton.
#include "ambit/timezone.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ambit/portable.h"
#include "gtest/gtest.h"
#include "support/child_process.h"
#include "timezone/zone_table.h"

namespace {

// The table as it must be, row by row.
const char* const kExpected[][2] = {
    {"Dateline Standard Time", "Etc/GMT+12"},
    {"Samoa Standard Time", "Pacific/Midway"},
    {"Hawaiian Standard Time", "HST"},
    {"Alaskan Standard Time", "America/Anchorage"},
    {"Pacific Standard Time (Mexico)", "America/Tijuana"},
    {"Pacific Standard Time", "PST8PDT"},
    {"Mountain Standard Time", "MST7MDT"},
    {"Mexico Standard Time 2", "America/Chihuahua"},
    {"Mountain Standard Time (Mexico)", "America/Chihuahua"},
    {"US Mountain Standard Time", "US/Arizona"},
    {"Canada Central Standard Time", "America/Regina"},
    {"Mexico Standard Time", "America/Mexico_City"},
    {"Central Standard Time (Mexico)", "America/Mexico_City"},
    {"Central Standard Time", "CST6CDT"},
    {"Central America Standard Time", "America/Belize"},
    {"US Eastern Standard Time", "America/Indiana/Knox"},
    {"Eastern Standard Time", "EST5EDT"},
    {"SA Pacific Standard Time", "America/Bogota"},
    {"Pacific SA Standard Time", "America/Santiago"},
    {"Venezuela Standard Time", "America/Caracas"},
    {"Central Brazilian Standard Time", "America/Manaus"},
    {"SA Western Standard Time", "America/Caracas"},
    {"Atlantic Standard Time", "Canada/Atlantic"},
    {"Newfoundland Standard Time", "Canada/Newfoundland"},
    {"Montevideo Standard Time", "America/Montevideo"},
    {"Greenland Standard Time", "America/Godthab"},
    {"SA Eastern Standard Time", "America/Argentina/Buenos_Aires"},
    {"Argentina Standard Time", "America/Argentina/Buenos_Aires"},
    {"E. South America Standard Time", "America/Sao_Paulo"},
    {"Mid-Atlantic Standard Time", "Etc/GMT+2"},
    {"Cape Verde Standard Time", "Atlantic/Cape_Verde"},
    {"Azores Standard Time", "Atlantic/Azores"},
    {"Greenwich Standard Time", "GMT"},
    {"GMT Standard Time", "Europe/London"},
    {"Morocco Standard Time", "Africa/Casablanca"},
    {"W. Europe Standard Time", "Europe/Berlin"},
    {"Central Europe Standard Time", "Europe/Belgrade"},
    {"Romance Standard Time", "Europe/Brussels"},
    {"Central European Standard Time", "Europe/Sarajevo"},
    {"W. Central Africa Standard Time", "Africa/Bangui"},
    {"Jordan Standard Time", "Asia/Amman"},
    {"GTB Standard Time", "Europe/Athens"},
    {"Middle East Standard Time", "Asia/Beirut"},
    {"Egypt Standard Time", "Africa/Cairo"},
    {"South Africa Standard Time", "Africa/Harare"},
    {"FLE Standard Time", "Europe/Helsinki"},
    {"Israel Standard Time", "Asia/Jerusalem"},
    {"E. Europe Standard Time", "Europe/Minsk"},
    {"Namibia Standard Time", "Africa/Windhoek"},
    {"Arabic Standard Time", "Asia/Baghdad"},
    {"Russian Standard Time", "Europe/Moscow"},
    {"Arab Standard Time", "Asia/Baghdad"},
    {"E. Africa Standard Time", "Africa/Nairobi"},
    {"Georgian Standard Time", "Asia/Tbilisi"},
    {"Arabian Standard Time", "Asia/Muscat"},
    {"Iran Standard Time", "Iran"},
    {"Azerbaijan Standard Time", "Asia/Baku"},
    {"Caucasus Standard Time", "Asia/Baku"},
    {"Armenian Standard Time", "Asia/Yerevan"},
    {"Mauritius Standard Time", "Indian/Mauritius"},
    {"Afghanistan Standard Time", "Asia/Kabul"},
    {"Ekaterinburg Standard Time", "Asia/Yekaterinburg"},
    {"West Asia Standard Time", "Asia/Karachi"},
    {"Pakistan Standard Time", "Asia/Karachi"},
    {"India Standard Time", "Asia/Calcutta"},
    {"Sri Lanka Standard Time", "Asia/Colombo"},
    {"Nepal Standard Time", "Asia/Katmandu"},
    {"N. Central Asia Standard Time", "Asia/Almaty"},
    {"Central Asia Standard Time", "Asia/Dhaka"},
    {"Myanmar Standard Time", "Asia/Rangoon"},
    {"SE Asia Standard Time", "Asia/Bangkok"},
    {"North Asia Standard Time", "Asia/Krasnoyarsk"},
    {"China Standard Time", "Asia/Shanghai"},
    {"North Asia East Standard Time", "Asia/Irkutsk"},
    {"Singapore Standard Time", "Asia/Singapore"},
    {"Taipei Standard Time", "Asia/Taipei"},
    {"Tokyo Standard Time", "Asia/Tokyo"},
    {"Korea Standard Time", "Asia/Seoul"},
    {"Yakutsk Standard Time", "Asia/Yakutsk"},
    {"W. Australia Standard Time", "Australia/Perth"},
    {"Cen. Australia Standard Time", "Australia/Adelaide"},
    {"AUS Central Standard Time", "Australia/Darwin"},
    {"E. Australia Standard Time", "Australia/Brisbane"},
    {"AUS Eastern Standard Time", "Australia/Sydney"},
    {"West Pacific Standard Time", "Pacific/Guam"},
    {"Tasmania Standard Time", "Australia/Hobart"},
    {"Vladivostok Standard Time", "Asia/Vladivostok"},
    {"Central Pacific Standard Time", "Asia/Magadan"},
    {"New Zealand Standard Time", "Pacific/Auckland"},
    {"Fiji Standard Time", "Pacific/Fiji"},
    {"Tonga Standard Time", "Pacific/Tongatapu"},
};

const char* Lookup(const char* name) {
  return CPortable::WindowsTimeZoneStringToLinuxTimeZoneString(name);
}

TEST(TimeZoneTableTest, HoldsTheNinetyOnePairsInOrder) {
  ASSERT_EQ(91u, kZoneNameCount);
  ASSERT_EQ(91u, sizeof kExpected / sizeof kExpected[0]);
  for (size_t i = 0; i < kZoneNameCount; ++i) {
    EXPECT_STREQ(kExpected[i][0], g_aZoneNames[i].pszWindows) << "row " << i + 1;
    EXPECT_STREQ(kExpected[i][1], g_aZoneNames[i].pszOlson) << "row " << i + 1;
  }
}

TEST(TimeZoneTableTest, HasNoRepeatedKeyAndFitsTheZoneNameBuffer) {
  std::set<std::string> keys;
  for (const SZONENAMEPAIR& row : g_aZoneNames) {
    EXPECT_TRUE(keys.insert(row.pszWindows).second) << row.pszWindows;
    EXPECT_LT(std::strlen(row.pszOlson), 32u) << row.pszOlson;
  }
}

TEST(TimeZoneMapTest, EveryWindowsNameYieldsItsOlsonName) {
  for (const auto& row : kExpected) EXPECT_STREQ(row[1], Lookup(row[0])) << row[0];
}

TEST(TimeZoneMapTest, WesternEuropeIsBerlin) {
  EXPECT_STREQ("Europe/Berlin", Lookup("W. Europe Standard Time"));
}

TEST(TimeZoneMapTest, LowerCaseOrTrailingBlankIsNotFound) {
  EXPECT_STREQ("", Lookup("w. europe standard time"));
  EXPECT_STREQ("", Lookup("W. Europe Standard Time "));
  EXPECT_STREQ("", Lookup(" W. Europe Standard Time"));
  EXPECT_STREQ("", Lookup("W.  Europe Standard Time"));
}

TEST(TimeZoneMapTest, BothMexicanMountainNamesYieldChihuahua) {
  EXPECT_STREQ("America/Chihuahua", Lookup("Mexico Standard Time 2"));
  EXPECT_STREQ("America/Chihuahua", Lookup("Mountain Standard Time (Mexico)"));
}

TEST(TimeZoneMapTest, SharedOlsonNamesAreFoundUnderEachKey) {
  EXPECT_STREQ(Lookup("Mexico Standard Time"), Lookup("Central Standard Time (Mexico)"));
  EXPECT_STREQ(Lookup("Venezuela Standard Time"), Lookup("SA Western Standard Time"));
  EXPECT_STREQ(Lookup("SA Eastern Standard Time"), Lookup("Argentina Standard Time"));
  EXPECT_STREQ(Lookup("Arabic Standard Time"), Lookup("Arab Standard Time"));
  EXPECT_STREQ(Lookup("Azerbaijan Standard Time"), Lookup("Caucasus Standard Time"));
  EXPECT_STREQ(Lookup("West Asia Standard Time"), Lookup("Pakistan Standard Time"));
}

TEST(TimeZoneMapTest, LegacyAndDeliberateNamesAreKept) {
  EXPECT_STREQ("US/Arizona", Lookup("US Mountain Standard Time"));
  EXPECT_STREQ("Asia/Calcutta", Lookup("India Standard Time"));
  EXPECT_STREQ("America/Godthab", Lookup("Greenland Standard Time"));
  EXPECT_STREQ("PST8PDT", Lookup("Pacific Standard Time"));
  EXPECT_STREQ("Etc/GMT+2", Lookup("Mid-Atlantic Standard Time"));
  EXPECT_STREQ("Asia/Magadan", Lookup("Central Pacific Standard Time"));
  EXPECT_STREQ("Africa/Harare", Lookup("South Africa Standard Time"));
}

TEST(TimeZoneMapTest, UtcAndEmptyNameAreNotKeys) {
  EXPECT_STREQ("", Lookup("UTC"));
  EXPECT_STREQ("", Lookup(""));
  EXPECT_NE(nullptr, Lookup("UTC"));
}

TEST(TimeZoneMapTest, ANullNameIsAnUnknownName) {
  const char* viaMap =
      CTimeZoneMap::GetInstance()->WindowsTimeZoneStringToLinuxTimeZoneString(nullptr);
  ASSERT_NE(nullptr, viaMap);
  EXPECT_STREQ("", viaMap);
  const char* viaPortable = CPortable::WindowsTimeZoneStringToLinuxTimeZoneString(nullptr);
  ASSERT_NE(nullptr, viaPortable);
  EXPECT_STREQ("", viaPortable);
  char zone[32] = "unchanged";
  EXPECT_EQ(zone, CTimeZoneMap::GetInstance()->MapTzInfo(nullptr, zone, sizeof zone));
  EXPECT_STREQ("GMT", zone);
}

TEST(TimeZoneMapTest, ResultStaysValidAndIsTheMapsOwnText) {
  const char* first = Lookup("Tokyo Standard Time");
  const char* second = Lookup("Tokyo Standard Time");
  EXPECT_EQ(first, second);
  EXPECT_EQ(first, CTimeZoneMap::GetInstance()->WindowsTimeZoneStringToLinuxTimeZoneString(
                       "Tokyo Standard Time"));
}

TEST(TimeZoneMapTest, TwoCallsOfGetInstanceReturnTheSamePointer) {
  CTimeZoneMap* a = CTimeZoneMap::GetInstance();
  CTimeZoneMap* b = CTimeZoneMap::GetInstance();
  ASSERT_NE(nullptr, a);
  EXPECT_EQ(a, b);
}

TEST(TimeZoneMapTest, LookupsFromManyThreadsAgree) {
  // Built first: racing first calls are the next test's subject.
  ASSERT_NE(nullptr, CTimeZoneMap::GetInstance());
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&wrong] {
      for (int round = 0; round < 200; ++round)
        for (const auto& row : kExpected)
          if (std::strcmp(Lookup(row[0]), row[1]) != 0) ++wrong;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(0, wrong.load());
}

// The first calls race in a fresh process: every thread must get a filled,
// working map, whichever instance ends up stored. A losing map is left
// allocated by design, so leak checking is off in that process.
TEST(TimeZoneMapTest, RacingFirstCallsEachGetAWorkingMap) {
  if (!IsRerunChild()) {
    std::string asan = std::getenv("ASAN_OPTIONS") ? std::getenv("ASAN_OPTIONS") : "";
    if (!asan.empty()) asan += ":";
    const ChildResult r = RerunThisTest({{"ASAN_OPTIONS", asan + "detect_leaks=0"}});
    EXPECT_EQ(0, r.exitCode) << r.output;
    return;
  }
  constexpr int kThreads = 8;
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  CTimeZoneMap* seen[kThreads] = {};
  bool good[kThreads] = {};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      ++ready;
      while (!go.load()) {
      }
      seen[i] = CTimeZoneMap::GetInstance();
      good[i] = std::strcmp(seen[i]->WindowsTimeZoneStringToLinuxTimeZoneString(
                                "W. Europe Standard Time"),
                            "Europe/Berlin") == 0;
    });
  }
  while (ready.load() < kThreads) std::this_thread::yield();
  go = true;
  for (auto& t : threads) t.join();
  CTimeZoneMap* kept = CTimeZoneMap::GetInstance();
  bool keptWasSeen = false;
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_TRUE(good[i]) << "thread " << i;
    keptWasSeen = keptWasSeen || seen[i] == kept;
  }
  EXPECT_TRUE(keptWasSeen);
  EXPECT_EQ(kept, CTimeZoneMap::GetInstance());
}

}  // namespace

// The zone operations as callers reach them: through libambit.so.
#include <cstring>

#include "ambit/ambit.h"
#include "gtest/gtest.h"

namespace {

TEST(TimeZoneApiTest, ZoneOperationsAreExported) {
  EXPECT_STREQ("Europe/Berlin", CPortable::WindowsTimeZoneStringToLinuxTimeZoneString(
                                    "W. Europe Standard Time"));
  CTimeZoneMap* map = CTimeZoneMap::GetInstance();
  ASSERT_NE(nullptr, map);
  EXPECT_STREQ("Asia/Tokyo",
               map->WindowsTimeZoneStringToLinuxTimeZoneString("Tokyo Standard Time"));

  CPortable::_TIME_ZONE_INFORMATION tzi;
  std::memset(&tzi, 0, sizeof tzi);
  std::strcpy(tzi.StandardName, "Tokyo Standard Time");
  char zone[32];
  EXPECT_STREQ("Asia/Tokyo", map->MapTzInfo(&tzi, zone, sizeof zone));

  const CPortable::SYSTEMTIME utc = {2024, 1, 0, 1, 0, 0, 0, 250};
  CPortable::SYSTEMTIME local;
  EXPECT_EQ(1, CPortable::SystemTimeToTzSpecificLocalTime(&tzi, &utc, &local));
  EXPECT_EQ(9, local.wHour);
  EXPECT_EQ(1, local.wDayOfWeek);
  CPortable::FILETIME ft;
  EXPECT_EQ(1, CPortable::TzSpecificSystemTimeToFileTime(&tzi, &utc, &ft));
  unsigned long long ull = 0;
  EXPECT_EQ(1, CPortable::ULLTzSpecificSystemTimeToFileTime(&tzi, &utc, &ull));
  EXPECT_EQ(ull, (static_cast<unsigned long long>(ft.dwHighDateTime) << 32) |
                     ft.dwLowDateTime);
}

}  // namespace

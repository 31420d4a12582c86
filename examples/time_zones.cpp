// Windows time-zone names, their Olson names, and a UTC time shown as the
// wall clock of a zone. Each conversion is checked against the C library
// reading the same zone files.
//
// Build: g++ time_zones.cpp $(pkg-config --cflags --libs ambit)
// Run:   ./a.out          (exit status 0 when every answer agreed)
#include <ambit/ambit.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

// glibc's wall clock of `olson` at `utc` seconds, for comparison.
tm GlibcLocal(const char* olson, time_t utc) {
  setenv("TZ", olson, 1);
  tzset();
  tm local;
  localtime_r(&utc, &local);
  return local;
}

}  // namespace

int main() {
  const char* zones[] = {"W. Europe Standard Time", "Tokyo Standard Time",
                         "Pacific Standard Time", "AUS Eastern Standard Time"};
  // 2026-01-15 12:00:00 UTC and 2026-07-15 12:00:00 UTC: winter and summer.
  const time_t instants[] = {1768478400, 1784116800};
  int wrong = 0;
  for (const char* windowsName : zones) {
    const char* olson = CPortable::WindowsTimeZoneStringToLinuxTimeZoneString(windowsName);
    if (olson[0] == '\0') {
      std::printf("%s: not in the table\n", windowsName);
      ++wrong;
      continue;
    }
    CPortable::_TIME_ZONE_INFORMATION zone;
    std::memset(&zone, 0, sizeof zone);
    std::strncpy(zone.StandardName, windowsName, sizeof zone.StandardName - 1);
    for (time_t instant : instants) {
      tm u;
      gmtime_r(&instant, &u);
      CPortable::SYSTEMTIME utc = {};
      utc.wYear = static_cast<unsigned short>(u.tm_year + 1900);
      utc.wMonth = static_cast<unsigned short>(u.tm_mon + 1);
      utc.wDay = static_cast<unsigned short>(u.tm_mday);
      utc.wHour = static_cast<unsigned short>(u.tm_hour);
      CPortable::SYSTEMTIME local;
      CPortable::SystemTimeToTzSpecificLocalTime(&zone, &utc, &local);
      const tm expected = GlibcLocal(olson, instant);
      const bool same = local.wDay == expected.tm_mday && local.wHour == expected.tm_hour &&
                        local.wMinute == expected.tm_min;
      std::printf("%-26s %-20s %04u-%02u-%02u 12:00 UTC is %02u-%02u %02u:%02u local%s\n",
                  windowsName, olson, utc.wYear, utc.wMonth, utc.wDay, local.wMonth, local.wDay,
                  local.wHour, local.wMinute, same ? "" : "  (C library disagrees)");
      if (!same) ++wrong;
    }
  }
  return wrong == 0 ? 0 : 1;
}

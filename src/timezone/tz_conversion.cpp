// Conversions of Windows-style time records for the zone a Windows zone
// record names. The record's name goes through the zone map to an Olson
// name, and the time runtime converts for that zone without touching TZ.
#include <cstring>

#include "ambit/portable.h"
#include "ambit/timezone.h"
#include "portable/wall_clock.h"
#include "timezone/tz_runtime.h"

namespace {

// Holds every Olson name of the table (the longest has 30 characters) with
// its terminating zero.
constexpr int kZoneNameBuffer = 32;

// 1601-01-01 to 1970-01-01 in 100-ns units.
constexpr unsigned long long kEpochOffset = 116444736000000000ULL;

// The broken-down time of a record's fields; years before 1970 are read as
// 1970. Fields out of range are left for qktimegm to carry over.
tm BrokenDown(const CPortable::SYSTEMTIME& st) {
  tm t;
  std::memset(&t, 0, sizeof t);
  t.tm_year = st.wYear > 1969 ? st.wYear - 1900 : 70;
  t.tm_mon = st.wMonth - 1;
  t.tm_mday = st.wDay;
  t.tm_hour = st.wHour;
  t.tm_min = st.wMinute;
  t.tm_sec = st.wSecond;
  t.tm_wday = st.wDayOfWeek;
  return t;
}

// Maps the record's zone, reads the fields as UTC and converts that instant
// to the zone. Returns the instant; *zoneTm gets the zone's wall clock.
int64_t ToZone(const CPortable::_TIME_ZONE_INFORMATION* tzi,
               const CPortable::SYSTEMTIME* st, tm* zoneTm) {
  char zone[kZoneNameBuffer];
  CTimeZoneMap::GetInstance()->MapTzInfo(tzi, zone, kZoneNameBuffer);
  tm t = BrokenDown(*st);
  // 64-bit seconds, so that years past 2038 convert right with the
  // platform's 32-bit time_t.
  const int64_t seconds = qktimegm64(&t);
  std::memset(zoneTm, 0, sizeof *zoneTm);
  qkspecificlocaltime64_r(&seconds, zoneTm, zone);
  return seconds;
}

}  // namespace

int CPortable::SystemTimeToTzSpecificLocalTime(const _TIME_ZONE_INFORMATION* tzi,
                                               const SYSTEMTIME* utc,
                                               SYSTEMTIME* local) {
  tm zoneTm;
  ToZone(tzi, utc, &zoneTm);
  SystemTimeFromTm(zoneTm, utc->wMilliseconds, local);  // utc may be local
  return 1;
}

int CPortable::ULLTzSpecificSystemTimeToFileTime(const _TIME_ZONE_INFORMATION* tzi,
                                                 const SYSTEMTIME* st,
                                                 unsigned long long* fileTime) {
  tm zoneTm;
  const int64_t seconds = ToZone(tzi, st, &zoneTm);
  // The zone's wall clock is deliberately not used: the value is the
  // fields read as UTC, the same for every record. Callers depend on that.
  *fileTime = static_cast<unsigned long long>(
                  (seconds * 1000000 +
                   static_cast<int64_t>(st->wMilliseconds) * 1000) *
                  10) +
              kEpochOffset;
  return 1;
}

int CPortable::TzSpecificSystemTimeToFileTime(const _TIME_ZONE_INFORMATION* tzi,
                                              const SYSTEMTIME* st,
                                              FILETIME* fileTime) {
  return ULLTzSpecificSystemTimeToFileTime(
      tzi, st, reinterpret_cast<unsigned long long*>(fileTime));
}

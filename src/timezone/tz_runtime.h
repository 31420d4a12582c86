#ifndef AMBIT_TIMEZONE_TZ_RUNTIME_H_
#define AMBIT_TIMEZONE_TZ_RUNTIME_H_

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

// The time runtime that the zone-specific conversions rest on: UTC calendar
// arithmetic and local time of an explicitly named Olson zone, read from the
// system's tz database (/usr/share/zoneinfo). The process's TZ variable is
// never read or changed, so the functions give the same answer whatever zone
// the process itself is in, and any thread may call them at any time.
//
// Each zone file is read and parsed once, on first use, and kept for the
// life of the process (the parsed zones are never freed, so the tm_zone
// pointers handed out stay valid). A zone whose file is missing, unreadable
// or malformed, or whose name is not a plain relative zone name, behaves as
// UTC (offset 0, abbreviation "UTC", no daylight time), and nothing is
// reported.
//
// Results follow glibc's localtime_r for the same file: before the first
// transition the first standard-time type applies, from the last transition
// on the footer's POSIX rule (evaluated for the UTC year of the instant) when
// the file has one. Arithmetic is done in 64 bits throughout; the time_t
// forms below are the platform's (32 bits unless _TIME_BITS=64).

// The Unix seconds of the broken-down time read as UTC. Fields out of range
// are carried over as timegm does, and *t is rewritten normalised, with
// tm_wday, tm_yday, tm_isdst 0, tm_gmtoff 0 and tm_zone "GMT". When the
// result does not fit in time_t, returns (time_t)-1 with errno EOVERFLOW and
// leaves *t as it was.
time_t qktimegm(struct tm* t);

// Fills *result with the wall-clock time of instant *t in the Olson zone
// (for example "Europe/Berlin"), including tm_isdst, tm_gmtoff and tm_zone,
// and returns result.
struct tm* qkspecificlocaltime_r(const time_t* t, struct tm* result,
                                 const char* olsonZone);

// The same with 64-bit seconds, for dates past 2038 with a 32-bit time_t.
// qkspecificlocaltime64_r returns null only when the year does not fit in
// tm_year.
int64_t qktimegm64(struct tm* t);
struct tm* qkspecificlocaltime64_r(const int64_t* t, struct tm* result,
                                   const char* olsonZone);

// --- For tests only ---------------------------------------------------------

// Reads zone files below `root` from now on instead of /usr/share/zoneinfo;
// an empty root restores the default. Zones already parsed are set aside
// (not freed) so that the next use of each name reads it again. Not meant to
// race with conversions in other threads.
void SetZoneInfoRootForTesting(const std::string& root);

// The instants in [from, to] at which the zone's local time type may change:
// the file's transitions and, from the last one on, the change instants of
// the footer rule. Sorted, without duplicates.
std::vector<int64_t> ZoneChangeInstantsForTesting(const char* olsonZone,
                                                  int64_t from, int64_t to);

#endif  // AMBIT_TIMEZONE_TZ_RUNTIME_H_

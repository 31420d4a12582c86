#ifndef AMBIT_TESTS_TIMEZONE_GLIBC_REFERENCE_H_
#define AMBIT_TESTS_TIMEZONE_GLIBC_REFERENCE_H_

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

// A broken-down local time with every field spelled out in fixed widths, so
// that it can cross a pipe between processes and compare whole.
struct SLocalRecord {
  int32_t sec, min, hour, mday, mon, year, wday, yday, isdst, gmtoff;
  char zone[16];  // abbreviation, zero-padded
};

bool operator==(const SLocalRecord& a, const SLocalRecord& b);
std::string ToString(const SLocalRecord& r);
SLocalRecord ToRecord(const struct tm& t);

// One zone to check: our runtime's zone name and the TZ value that makes
// glibc read the same file, with the instants to compare at.
struct SZoneCase {
  std::string ourName;
  std::string glibcTz;
  std::vector<int64_t> instants;
};

// glibc's localtime_r of every instant of every case, with TZ set to each
// case's value in turn, computed in a forked child (this process's TZ is not
// touched) and read back over a pipe. Works with 64-bit seconds whatever the
// platform's time_t. Returns false, with *error set, when the child fails or
// runs past nTimeoutMs.
bool GlibcLocalTimes(const std::vector<SZoneCase>& cases,
                     std::vector<std::vector<SLocalRecord>>* out,
                     int nTimeoutMs, std::string* error);

#endif  // AMBIT_TESTS_TIMEZONE_GLIBC_REFERENCE_H_

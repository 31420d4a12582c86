// Calendar and clock operations. This file works with a 64-bit time_t so
// that conversions stay right past 2038; no time_t crosses its interface.
#define _FILE_OFFSET_BITS 64
#define _TIME_BITS 64

#include <sys/time.h>

#include <cstring>
#include <ctime>

#include "ambit/portable.h"
#include "portable/wall_clock.h"

namespace {

// 1601-01-01 to 1970-01-01 in 100-ns units (11644473600 s x 10^7).
constexpr unsigned long long kEpochOffset = 116444736000000000ULL;

// Unix seconds and microseconds to a file time.
unsigned long long ToFileTime(long long seconds, long long microseconds) {
  return static_cast<unsigned long long>((seconds * 1000000LL + microseconds) *
                                         10) +
         kEpochOffset;
}

// A file time to Unix seconds and a microsecond remainder. Values before
// 1970 wrap: they are not supported.
void FromFileTime(unsigned long long fileTime, time_t* seconds,
                  long long* microseconds) {
  const unsigned long long us = (fileTime - kEpochOffset) / 10;
  *seconds = static_cast<time_t>(us / 1000000);
  *microseconds = static_cast<long long>(us % 1000000);
}

}  // namespace

void SystemTimeFromTm(const tm& t, unsigned milliseconds, CPortable::SYSTEMTIME* out) {
  out->wYear = static_cast<unsigned short>(t.tm_year + 1900);
  out->wMonth = static_cast<unsigned short>(t.tm_mon + 1);
  out->wDayOfWeek = static_cast<unsigned short>(t.tm_wday);
  out->wDay = static_cast<unsigned short>(t.tm_mday);
  out->wHour = static_cast<unsigned short>(t.tm_hour);
  out->wMinute = static_cast<unsigned short>(t.tm_min);
  out->wSecond = static_cast<unsigned short>(t.tm_sec);
  out->wMilliseconds = static_cast<unsigned short>(milliseconds);
}

namespace {

// The UTC offset in force at `seconds`, read as a UTC instant.
long LocalOffsetAt(time_t seconds) {
  tm t;
  std::memset(&t, 0, sizeof t);
  localtime_r(&seconds, &t);
  return t.tm_gmtoff;
}

}  // namespace

int64_t SystemWallSeconds() { return static_cast<int64_t>(::time(nullptr)); }

int32_t SystemWallMicroseconds() {
  timeval tv;
  ::gettimeofday(&tv, nullptr);
  return static_cast<int32_t>(tv.tv_usec);
}

bool LocalBrokenDownTime(int64_t seconds, tm* out) {
  const time_t t = static_cast<time_t>(seconds);
  return localtime_r(&t, out) != nullptr;
}

bool UtcBrokenDownTime(int64_t seconds, tm* out) {
  const time_t t = static_cast<time_t>(seconds);
  return gmtime_r(&t, out) != nullptr;
}

void LocalSystemTime(const WallClock& clock, CPortable::SYSTEMTIME* out) {
  const time_t now = static_cast<time_t>(clock.pfnSeconds());
  tm t;
  std::memset(&t, 0, sizeof t);
  localtime_r(&now, &t);
  SystemTimeFromTm(t, static_cast<unsigned>(clock.pfnMicroseconds() / 1000),
                 out);
}

CPortable::FILETIME CPortable::SubtractFileTimes(FILETIME a, FILETIME b) {
  FILETIME d;
  d.dwLowDateTime = a.dwLowDateTime - b.dwLowDateTime;
  const unsigned long borrow = a.dwLowDateTime < b.dwLowDateTime ? 1 : 0;
  d.dwHighDateTime = a.dwHighDateTime - b.dwHighDateTime - borrow;
  return d;
}

long CPortable::CompareFileTime(const FILETIME* a, const FILETIME* b) {
  const long long d = static_cast<long long>(
      *reinterpret_cast<const unsigned long long*>(a) -
      *reinterpret_cast<const unsigned long long*>(b));
  if (d < 0) return -1;
  return d != 0 ? 1 : 0;
}

int CPortable::ULLFileDurationToSystemDuration(
    const unsigned long long* duration, SYSTEMTIME* out) {
  const unsigned long long us = *duration / 10;
  const unsigned long s = static_cast<unsigned long>(us / 1000000);
  const unsigned long min = s / 60;
  const unsigned long h = min / 60;
  const unsigned long days = h / 24;
  const unsigned long months = days / 30;  // a month is 30 days
  const unsigned long years = months / 12;  // a year is 360 days
  out->wYear = static_cast<unsigned short>(years);
  out->wMonth = static_cast<unsigned short>(months % 12);
  out->wDayOfWeek = 0;
  out->wDay = static_cast<unsigned short>(days % 30);
  out->wHour = static_cast<unsigned short>(h % 24);
  out->wMinute = static_cast<unsigned short>(min % 60);
  out->wSecond = static_cast<unsigned short>(s % 60);
  // The remainder is cut to 16 bits before the division: 500000 us gives
  // 41, not 500. Callers rely on exactly this value.
  out->wMilliseconds =
      static_cast<unsigned short>(static_cast<unsigned short>(us % 1000000) / 1000);
  return 1;
}

int CPortable::FileDurationToSystemDuration(const FILETIME* duration,
                                            SYSTEMTIME* out) {
  return ULLFileDurationToSystemDuration(
      reinterpret_cast<const unsigned long long*>(duration), out);
}

void CPortable::GetCurrentULLFileTimeUTC(unsigned long long* out) {
  timeval tv;
  ::gettimeofday(&tv, nullptr);
  *out = ToFileTime(static_cast<long long>(tv.tv_sec), tv.tv_usec);
}

void CPortable::GetSystemTimeAsFileTime(FILETIME* out) {
  GetCurrentULLFileTimeUTC(reinterpret_cast<unsigned long long*>(out));
}

int CPortable::ULLFileTimeLocalToULLFileTimeUTC(const unsigned long long* local,
                                                unsigned long long* utc) {
  time_t seconds;
  long long us;
  FromFileTime(*local, &seconds, &us);
  // The offset is the one in force at the instant numerically equal to the
  // local value; near a daylight-saving change that may be the other side's.
  *utc = ToFileTime(static_cast<long long>(seconds) - LocalOffsetAt(seconds),
                    us);
  return 1;
}

int CPortable::LocalFileTimeToFileTime(const FILETIME* local, FILETIME* utc) {
  return ULLFileTimeLocalToULLFileTimeUTC(
      reinterpret_cast<const unsigned long long*>(local),
      reinterpret_cast<unsigned long long*>(utc));
}

int CPortable::ULLFileTimeUTCToULLFileTimeLocal(const unsigned long long* utc,
                                                unsigned long long* local) {
  time_t seconds;
  long long us;
  FromFileTime(*utc, &seconds, &us);
  *local = ToFileTime(static_cast<long long>(seconds) + LocalOffsetAt(seconds),
                      us);
  return 1;
}

int CPortable::FileTimeToLocalFileTime(const FILETIME* utc, FILETIME* local) {
  return ULLFileTimeUTCToULLFileTimeLocal(
      reinterpret_cast<const unsigned long long*>(utc),
      reinterpret_cast<unsigned long long*>(local));
}

int CPortable::ULLSystemTimeToFileTime(const SYSTEMTIME* in,
                                       unsigned long long* out) {
  tm t;
  std::memset(&t, 0, sizeof t);
  t.tm_year = in->wYear > 1969 ? in->wYear - 1900 : 70;  // before 1970: 1970
  t.tm_mon = in->wMonth - 1;
  t.tm_mday = in->wDay;
  t.tm_hour = in->wHour;
  t.tm_min = in->wMinute;
  t.tm_sec = in->wSecond;
  t.tm_wday = in->wDayOfWeek;
  t.tm_isdst = -1;
  // mktime reads the fields as local time (normalising any out of range);
  // adding the local offset back makes them count as UTC.
  const time_t local = mktime(&t);
  const long long seconds =
      static_cast<long long>(local) + LocalOffsetAt(local);
  *out = ToFileTime(seconds, static_cast<long long>(in->wMilliseconds) * 1000);
  return 1;
}

int CPortable::SystemTimeToFileTime(const SYSTEMTIME* in, FILETIME* out) {
  return ULLSystemTimeToFileTime(in, reinterpret_cast<unsigned long long*>(out));
}

int CPortable::ULLFileTimeToSystemTime(const unsigned long long* in,
                                       SYSTEMTIME* out) {
  time_t seconds;
  long long us;
  FromFileTime(*in, &seconds, &us);
  tm t;
  std::memset(&t, 0, sizeof t);
  gmtime_r(&seconds, &t);
  SystemTimeFromTm(t, static_cast<unsigned>(us / 1000), out);
  return 1;
}

int CPortable::FileTimeToSystemTime(const FILETIME* in, SYSTEMTIME* out) {
  return ULLFileTimeToSystemTime(reinterpret_cast<const unsigned long long*>(in),
                                 out);
}

unsigned long long CPortable::GetTickCountULL() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<unsigned long long>(static_cast<long long>(ts.tv_sec) *
                                             1000 +
                                         ts.tv_nsec / 1000000);
}

unsigned long CPortable::GetTickCount() {
  return static_cast<unsigned long>(GetTickCountULL());
}

char* CPortable::GetTimeZone(char* buffer, int size) {
  const time_t now = ::time(nullptr);
  tm t;
  std::memset(&t, 0, sizeof t);
  localtime_r(&now, &t);
  std::strncpy(buffer, t.tm_zone != nullptr ? t.tm_zone : "", size - 1);
  buffer[size - 1] = '\0';
  return buffer;
}

void CPortable::GetSystemTime(SYSTEMTIME* out) {
  const time_t now = ::time(nullptr);
  tm t;
  std::memset(&t, 0, sizeof t);
  gmtime_r(&now, &t);
  SystemTimeFromTm(t, static_cast<unsigned>(SystemWallMicroseconds() / 1000),
                 out);
}

void CPortable::GetLocalTime(SYSTEMTIME* out) {
  LocalSystemTime(kSystemWallClock, out);
}

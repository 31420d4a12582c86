#ifndef AMBIT_PORTABLE_H_
#define AMBIT_PORTABLE_H_

#include <cstddef>
#include <ctime>
#include <string>

#include "ambit/export.h"

// Windows-named services on Linux, as static operations: errors, process and
// thread identifiers, clocks and Windows-style time records. Every operation
// is reentrant and may be called from any thread; none of them throws except
// throwQKException, whose job it is.
class AMBIT_API CPortable {
 public:
  // 100-ns intervals since 1601-01-01 00:00:00 UTC in two halves, low half
  // first. Its memory image is the little-endian 64-bit count, so every
  // FILETIME operation hands its pointer on as unsigned long long*.
  struct FILETIME {
    unsigned long dwLowDateTime;
    unsigned long dwHighDateTime;
  };

  // A calendar date and time, or (from the duration conversion) counts.
  struct SYSTEMTIME {
    unsigned short wYear;
    unsigned short wMonth;      // 1..12
    unsigned short wDayOfWeek;  // 0 is Sunday
    unsigned short wDay;        // 1..31
    unsigned short wHour;
    unsigned short wMinute;
    unsigned short wSecond;
    unsigned short wMilliseconds;
  };

  // --- Errors ---------------------------------------------------------------

  // Writes "(Error) Throwing exception 0x%08X at %s#%d\n" to the trace log
  // when error lines are on, then throws QKException(code, file, line).
  [[noreturn]] static void throwQKException(long code, const char* file,
                                            unsigned long line);
  // The calling thread's errno, unchanged.
  static long GetLastError();
  // Where a debugger break would sit on another platform; does nothing.
  static void CPDbgBreak();
  // The fixed build version text "19.43.1700.0".
  static std::string getBuildVersion();

  // --- Process and thread identifiers ---------------------------------------

  static unsigned long GetCurrentProcessId();
  // The kernel thread id (gettid); never 0 for a live thread. This is the
  // id of trace lines and of mutex ownership.
  static unsigned long GetCurrentThreadId();
  // pthread_self(), which is a different number from GetCurrentThreadId().
  static unsigned long GetCurrentPThreadId();
  // Exists for source compatibility only; its result means nothing.
  static unsigned long GetCurrentThreadHandle();

  // --- Clocks and time records ----------------------------------------------
  // The conversions return 1 whatever the input; no field is validated.
  // Conversions that pass through microseconds drop the last decimal digit
  // of a file time. File times before 1970 are not supported.

  // a - b modulo 2^64.
  static FILETIME SubtractFileTimes(FILETIME a, FILETIME b);
  // -1, 0 or 1 by the sign of the wrapped difference a - b read as signed.
  static long CompareFileTime(const FILETIME* a, const FILETIME* b);

  // A duration in 100-ns units as counts of years (of 360 days), months (of
  // 30 days), days, hours, minutes, seconds and milliseconds.
  static int ULLFileDurationToSystemDuration(const unsigned long long* duration,
                                             SYSTEMTIME* out);
  static int FileDurationToSystemDuration(const FILETIME* duration,
                                          SYSTEMTIME* out);

  static void GetCurrentULLFileTimeUTC(unsigned long long* out);
  static void GetSystemTimeAsFileTime(FILETIME* out);

  // Local to UTC and back, with the UTC offset in force at the instant
  // numerically equal to the input.
  static int ULLFileTimeLocalToULLFileTimeUTC(const unsigned long long* local,
                                              unsigned long long* utc);
  static int LocalFileTimeToFileTime(const FILETIME* local, FILETIME* utc);
  static int ULLFileTimeUTCToULLFileTimeLocal(const unsigned long long* utc,
                                              unsigned long long* local);
  static int FileTimeToLocalFileTime(const FILETIME* utc, FILETIME* local);

  // The record is read as UTC; years before 1970 count as 1970 and
  // out-of-range fields are normalised.
  static int ULLSystemTimeToFileTime(const SYSTEMTIME* in,
                                     unsigned long long* out);
  static int SystemTimeToFileTime(const SYSTEMTIME* in, FILETIME* out);
  // Always UTC.
  static int ULLFileTimeToSystemTime(const unsigned long long* in,
                                     SYSTEMTIME* out);
  static int FileTimeToSystemTime(const FILETIME* in, SYSTEMTIME* out);

  // Milliseconds of the monotonic clock; the 32-bit form wraps every 2^32 ms,
  // so elapsed times are unsigned 32-bit differences.
  static unsigned long long GetTickCountULL();
  static unsigned long GetTickCount();

  // The process's current zone abbreviation (for example "CET"), at most
  // size - 1 characters, always terminated at buffer[size - 1]. size must be
  // at least 1.
  static char* GetTimeZone(char* buffer, int size);
  static void GetSystemTime(SYSTEMTIME* out);  // UTC
  static void GetLocalTime(SYSTEMTIME* out);   // the process's own zone

  // --- Time zones -------------------------------------------------------------
  // Conversions for a zone named by a Windows zone key, independent of the
  // process's own zone: TZ is neither read nor changed, so any thread may
  // call them at any time. They return 1 whatever the input.

  // A Windows-style zone record. Only StandardName is read: a narrow,
  // zero-terminated Windows zone key name such as "W. Europe Standard Time",
  // at byte offset 4. The other fields keep the byte image of the Windows
  // record, each 32-character wide name taking 64 narrow characters here,
  // and are not read by any operation.
  struct _TIME_ZONE_INFORMATION {
    long Bias;
    char StandardName[64];
    SYSTEMTIME StandardDate;
    long StandardBias;
    char DaylightName[64];
    SYSTEMTIME DaylightDate;
    long DaylightBias;
  };

  // The Olson zone name of a Windows zone key name (exact, case-sensitive
  // match), or "" when the name is not in the table; never null. The text
  // belongs to the library and stays valid until the process ends.
  static const char* WindowsTimeZoneStringToLinuxTimeZoneString(
      const char* windowsName);

  // UTC calendar fields to the wall-clock fields of the record's zone, with
  // the day of the week recomputed and the milliseconds copied. A record
  // whose StandardName is not in the table means GMT, so the UTC fields come
  // back unchanged. Years before 1970 are read as 1970; other fields out of
  // range are carried over, not rejected.
  static int SystemTimeToTzSpecificLocalTime(const _TIME_ZONE_INFORMATION* tzi,
                                             const SYSTEMTIME* utc,
                                             SYSTEMTIME* local);
  // The fields of `st` read as UTC, as a file time. The record's zone is
  // looked up and converted to, but does not change the value: the same
  // fields give the same file time for every record. Callers rely on this.
  static int ULLTzSpecificSystemTimeToFileTime(
      const _TIME_ZONE_INFORMATION* tzi, const SYSTEMTIME* st,
      unsigned long long* fileTime);
  static int TzSpecificSystemTimeToFileTime(const _TIME_ZONE_INFORMATION* tzi,
                                            const SYSTEMTIME* st,
                                            FILETIME* fileTime);
};

// 2001-09-11 12:48:00 UTC: the instant the trace log's time stamp falls back
// to when the current time cannot be converted.
extern AMBIT_API const time_t g_timeDayOfInfamy;

static_assert(sizeof(CPortable::FILETIME) == 8, "FILETIME is 8 bytes");
static_assert(sizeof(CPortable::SYSTEMTIME) == 16, "SYSTEMTIME is 16 bytes");

// The zone record has the Windows record's byte layout, with the standard
// name narrow at byte 4.
static_assert(offsetof(CPortable::_TIME_ZONE_INFORMATION, Bias) == 0,
              "Bias at 0");
static_assert(offsetof(CPortable::_TIME_ZONE_INFORMATION, StandardName) == 4,
              "StandardName at 4");
static_assert(offsetof(CPortable::_TIME_ZONE_INFORMATION, StandardDate) == 68,
              "StandardDate at 68");
static_assert(offsetof(CPortable::_TIME_ZONE_INFORMATION, StandardBias) == 84,
              "StandardBias at 84");
static_assert(offsetof(CPortable::_TIME_ZONE_INFORMATION, DaylightName) == 88,
              "DaylightName at 88");
static_assert(offsetof(CPortable::_TIME_ZONE_INFORMATION, DaylightDate) == 152,
              "DaylightDate at 152");
static_assert(offsetof(CPortable::_TIME_ZONE_INFORMATION, DaylightBias) == 168,
              "DaylightBias at 168");
static_assert(sizeof(CPortable::_TIME_ZONE_INFORMATION) == 172,
              "_TIME_ZONE_INFORMATION is 172 bytes");

#endif  // AMBIT_PORTABLE_H_

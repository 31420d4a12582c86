#ifndef AMBIT_PORTABLE_H_
#define AMBIT_PORTABLE_H_

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

  // --- Process facts ---------------------------------------------------------

  // The start time of process `pid` as a file time, with a resolution of
  // one second; the same process always gives the same value. A pid with no
  // /proc entry gives the boot time itself (never 0 unless that is unknown),
  // which is how a caller recognises a dead process.
  static unsigned long long GetProcessStartTime(unsigned long pid);
  // The base name of this process's executable, or "" when it cannot be
  // read (tried again on the next call).
  static std::string getExeName();
};

// Boot time in seconds since 1970-01-01 UTC from "/proc/stat", or 0.
AMBIT_API unsigned long getBootTime();
// The command name of process `pid` as the last column of `ps` shows it
// (only the last word of a name with blanks), or "" when there is none.
AMBIT_API std::string getProgramName(unsigned long pid);
// Runs `command` through the shell and returns its whole output in a buffer
// made with new[] (free it with delete[]), or null. A buffer that fills up
// is grown by half and the command run again, at most ten times, so the
// command must be free of side effects. Blocks until the command ends.
AMBIT_API char* runSystemCommand(const std::string& command,
                                 unsigned long initialSize);

// Kernel clock ticks per second, read when the library loads (42 when the
// kernel does not say).
extern AMBIT_API unsigned long long g_ullHertz;
// Boot time in seconds since 1970-01-01 UTC, read when the library loads;
// 0 when unknown.
extern AMBIT_API unsigned long g_dwBootTime;

// 2001-09-11 12:48:00 UTC: the instant the trace log's time stamp falls back
// to when the current time cannot be converted.
extern AMBIT_API const time_t g_timeDayOfInfamy;

static_assert(sizeof(CPortable::FILETIME) == 8, "FILETIME is 8 bytes");
static_assert(sizeof(CPortable::SYSTEMTIME) == 16, "SYSTEMTIME is 16 bytes");

#endif  // AMBIT_PORTABLE_H_

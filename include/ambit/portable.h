#ifndef AMBIT_PORTABLE_H_
#define AMBIT_PORTABLE_H_

#include <cstddef>
#include <ctime>
#include <string>

#include "ambit/export.h"

// A thread priority. The library accepts any value and ignores it.
enum E_QK_THREAD_PRIORITY : int {};

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

  // A 16-byte identifier in the Windows GUID memory layout: the first three
  // groups are little-endian, so the text form shows bytes 3,2,1,0 - 5,4 -
  // 7,6 - 8,9 - 10..15.
  struct PUUID {
    unsigned long Data1;
    unsigned short Data2;
    unsigned short Data3;
    unsigned char Data4[8];
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

  // --- Threads ----------------------------------------------------------------

  // Starts function(argument) on a new detached thread named `name` and
  // returns its kernel thread id once the thread runs and has named itself,
  // or 0 on failure. *pthreadId (when not null) gets the pthread handle, 0
  // on failure. The kernel name is the first three characters of the
  // creator's name (up to its first '.'), '.', and `name`, cut to 15.
  static unsigned long CreateThread(void (*function)(void*), void* argument,
                                    unsigned long* pthreadId, std::string name);
  // The same for a joinable thread: the handle is for WaitForThreadToTerminate.
  static unsigned long CreateThreadJoinable(void (*function)(void*), void* argument,
                                            unsigned long* pthreadId, std::string name);
  // Names the calling thread as above; nothing for an empty name. Returns 0.
  static int SetCurrentThreadName(std::string name);
  // Accepts and ignores the priority; returns 0.
  static int SetCurrentThreadPriority(E_QK_THREAD_PRIORITY priority);
  // Joins a joinable thread: 0 when it ended; with timeoutMs 0, 0xE0000000
  // while it still runs; with a finite timeout, 0xD0000000 when it expires
  // (the join reports its own time-out, not "busy"); 0xD0000000 on errors.
  // 0xFFFFFFFF waits without limit.
  static unsigned long WaitForThreadToTerminate(unsigned long pthreadHandle,
                                                unsigned long timeoutMs);
  // pthread_cancel; always 1.
  static int TerminateThread(unsigned long pthreadHandle, unsigned long exitCode);
  // Ends the calling thread with exitCode as its exit value.
  [[noreturn]] static void EndThread(unsigned long exitCode);

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

  // --- Numbers ---------------------------------------------------------------

  // Digits of `value` in `radix` (2..36, otherwise 10), lower case, most
  // significant first, NUL-terminated; the buffer size is not checked. Only
  // radix 10 writes a sign: other radixes write the 32-bit pattern, so -1 in
  // radix 16 is "ffffffff".
  static char* itoa(int value, char* buffer, int radix);
  static char* ltoa(long value, char* buffer, int radix);
  // A signed pair: "%lld" both ways. Text that does not parse gives 0;
  // values of 2^63 and above print negative; a round trip is exact.
  static unsigned long long stoull(const std::string& text);
  static std::string ulltos(const unsigned long long& value);
  // Rotate a 32-bit value left by shift modulo 32.
  static unsigned _rotl(unsigned value, int shift);
  static unsigned long _lrotl(unsigned long value, int shift);

  // --- Strings ---------------------------------------------------------------

  // strncpy, then dst[length - 1] = 0: at most length - 1 characters, the
  // rest zero-filled. length must be at least 1.
  static char* lstrcpyn(char* dst, const char* src, int length);
  static int stricmp(const char* a, const char* b);
  static int strnicmp(const char* a, const char* b, size_t count);
  // In place, byte by byte (toupper/tolower); return the argument.
  static char* strupr(char* text);
  static char* strlwr(char* text);
  // In place with the wide case functions, up to the terminator.
  static wchar_t* wcsupr(wchar_t* text);
  static wchar_t* wcslwr(wchar_t* text);
  static char* strtok_r(char* text, const char* delimiters, char** state);
  // Copies src into dst[size], cut so that no multi-byte UTF-8 character of
  // well-formed text is split. size 0 leaves dst untouched.
  static void truncUTF8(const std::string& src, char* dst, unsigned size);
  // UTF-32 (32-bit wchar_t) to UTF-8, strict. With dst null: the bytes the
  // count units need. With dst: writes them (no terminator) and returns how
  // many; the caller sizes dst first (up to a million bytes past
  // dst + count + 1 are taken as writable). 0xFFFFFFFF on a conversion
  // error. Stops early at a zero unit.
  static unsigned wcstombs(char* dst, const wchar_t* src, unsigned count);
  // The same into a new[] buffer of the exact size plus a terminator
  // (free with delete[]), or null for a null src, a zero count or an error.
  static char* wcstombs(const wchar_t* src, unsigned count);
  // UTF-8 to UTF-32, strict; the two forms read count differently. With dst
  // null: count is the number of source bytes, the result the units they
  // give. With dst: count is the number of units to write, and the source
  // is read (up to a million bytes) until they are written or a zero byte
  // ends it. 0xFFFFFFFF on a conversion error.
  static unsigned mbstowcs(wchar_t* dst, const char* src, unsigned count);
  // count source bytes into a new[] buffer of the exact size plus a zero
  // (free with delete[]), or null.
  static wchar_t* mbstowcs(const char* src, unsigned count);

  // --- UUIDs -----------------------------------------------------------------

  // 16 random bytes from /dev/urandom in the dashed form (no version bits).
  static std::string newPUUID();
  // "00000000-0000-0000-0000-000000000000".
  static std::string nilPUUID();
  // 36 characters of lower-case hex with dashes.
  static std::string PUUIDToString(PUUID* uuid);
  // 32 characters, or 31 when the first byte shown (byte 3) is below 0x10.
  static std::string PUUIDToStringSansDashes(PUUID* uuid);
  // Parse the dashed form; fields that do not parse stay 0.
  static void PUUIDFromString(std::string text, PUUID* uuid);
  // The first field takes exactly one hex digit: this reads back what
  // PUUIDToStringSansDashes wrote only for a first byte below 0x10, and a
  // 32-digit text is read shifted by one digit. Stored names depend on it.
  static void PUUIDFromStringSansDashes(std::string text, PUUID* uuid);
  static void PUUIDNil(PUUID* uuid);
  // 1 for a null pointer or 16 zero bytes.
  static int PUUIDIsNil(PUUID* uuid);
  // Comparisons of the 16 bytes in memory order, byte 0 first (not the
  // order of the text form); 1 or 0.
  static int PUUIDEqual(PUUID* a, PUUID* b);
  static int PUUIDLessThan(PUUID* a, PUUID* b);
  static int PUUIDGreaterThan(PUUID* a, PUUID* b);

  // --- Addresses -------------------------------------------------------------
  // An address is 32 bits in network byte order as it lies in memory: the
  // first dotted component is the least significant byte.

  // "a.b.c.d" to a | b << 8 | c << 16 | d << 24; missing components are 0
  // and components are not masked, so one above 255 spills over.
  static unsigned long stringToIPAddress(const std::string& text);
  // snprintf(dst, size - 1, "a.b.c.d"), dst[size - 1] = 0; the snprintf count.
  static int formatIPAddress(unsigned long address, char* dst, int size);
  static std::string IPAddressToString(unsigned long address);
  // Resolves a dotted address or a host name into *address ("" first).
  // 0 on success; 0xC1210E1E for an empty name; on a failed look-up
  // 0x80100000 plus the low 16 bits of errno, or 0 when errno is 0.
  static unsigned long getHostByName(const std::string& name,
                                     std::string* address);

  // --- Atomic helpers and sleep ----------------------------------------------

  // Locked add instructions; the new value.
  static long InterlockedIncrement(long volatile* target);
  static long InterlockedDecrement(long volatile* target);
  // Under one process-wide mutex, so they exclude each other but not the
  // two above: a value must be handled by one family only. The old value.
  static long InterlockedExchange(long* target, long value);
  static long InterlockedCompareExchange(long volatile* target, long exchange,
                                         long comparand);
  // 0 yields the processor; 0xFFFFFFFF sleeps 0xFFFFFFFF microseconds (about
  // 71.6 minutes), not forever; other values sleep ms * 1000 microseconds
  // computed in 32 bits, so values above 4294967 wrap.
  static void Sleep(unsigned long ms);

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

#ifndef AMBIT_WRONG_TARGET  // export.h has already said why
static_assert(sizeof(CPortable::PUUID) == 16, "PUUID is 16 bytes");
#endif

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

#ifndef AMBIT_WRONG_TARGET  // export.h has already said why
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
#endif  // AMBIT_WRONG_TARGET

#endif  // AMBIT_PORTABLE_H_

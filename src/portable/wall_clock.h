#ifndef AMBIT_PORTABLE_WALL_CLOCK_H_
#define AMBIT_PORTABLE_WALL_CLOCK_H_

#include <cstdint>
#include <ctime>

#include "ambit/portable.h"

// A source of wall-clock readings: whole seconds since the epoch (time())
// and, read separately, the microseconds part of gettimeofday(). The trace
// log reads its time through one of these so that tests can move it;
// everything else uses kSystemWallClock. Widths are spelled out because
// clock.cpp works with a 64-bit time_t and its callers may not.
struct WallClock {
  int64_t (*pfnSeconds)();
  int32_t (*pfnMicroseconds)();
};

// The system's readings: time() and gettimeofday()'s microseconds.
int64_t SystemWallSeconds();
int32_t SystemWallMicroseconds();

// Constant-initialised, so it is usable while the library is still loading.
constexpr WallClock kSystemWallClock = {&SystemWallSeconds,
                                        &SystemWallMicroseconds};

// Local broken-down time of `seconds`; false when it cannot be converted.
bool LocalBrokenDownTime(int64_t seconds, tm* out);

// UTC broken-down time of `seconds`; false when it cannot be converted.
bool UtcBrokenDownTime(int64_t seconds, tm* out);

// The calendar fields of a broken-down time as a SYSTEMTIME record.
void SystemTimeFromTm(const tm& t, unsigned milliseconds, CPortable::SYSTEMTIME* out);

// GetLocalTime() over the given clock: date and time from its seconds,
// milliseconds from a second, separate reading.
void LocalSystemTime(const WallClock& clock, CPortable::SYSTEMTIME* out);

#endif  // AMBIT_PORTABLE_WALL_CLOCK_H_

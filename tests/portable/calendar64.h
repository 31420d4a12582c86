#ifndef AMBIT_TESTS_PORTABLE_CALENDAR64_H_
#define AMBIT_TESTS_PORTABLE_CALENDAR64_H_

#include <cstdint>
#include <ctime>

// The C library's calendar functions over 64-bit seconds, so that the clock
// tests can compute their expectations for dates past 2038. They live in a
// unit of their own built with a 64-bit time_t; the test files keep the
// platform's 32-bit time_t, as the test framework they include was built
// with it. Only fixed-width integers and struct tm (the same in both
// worlds) cross this interface.

// gmtime_r; false when the C library cannot convert the instant.
bool GmTime64(int64_t seconds, tm* out);
// localtime_r in the process's current zone (call tzset after changing TZ).
bool LocalTime64(int64_t seconds, tm* out);
// The UTC offset in seconds in force at `seconds`, read as a UTC instant.
long LocalOffset64(int64_t seconds);
// mktime: the fields read as local time (they are normalised in place).
int64_t MkTime64(tm* fields);

#endif  // AMBIT_TESTS_PORTABLE_CALENDAR64_H_

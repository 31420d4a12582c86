// Built with a 64-bit time_t; see calendar64.h.
#define _FILE_OFFSET_BITS 64
#define _TIME_BITS 64

#include "portable/calendar64.h"

#include <cstring>

static_assert(sizeof(time_t) == 8, "this unit needs a 64-bit time_t");

bool GmTime64(int64_t seconds, tm* out) {
  const time_t t = static_cast<time_t>(seconds);
  return gmtime_r(&t, out) != nullptr;
}

bool LocalTime64(int64_t seconds, tm* out) {
  const time_t t = static_cast<time_t>(seconds);
  return localtime_r(&t, out) != nullptr;
}

long LocalOffset64(int64_t seconds) {
  tm t;
  std::memset(&t, 0, sizeof t);
  LocalTime64(seconds, &t);
  return t.tm_gmtoff;
}

int64_t MkTime64(tm* fields) { return static_cast<int64_t>(mktime(fields)); }

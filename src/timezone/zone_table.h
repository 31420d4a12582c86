#ifndef AMBIT_TIMEZONE_ZONE_TABLE_H_
#define AMBIT_TIMEZONE_ZONE_TABLE_H_

#include <cstddef>

// One row of the compiled-in table: a Windows zone key name and the Olson
// zone name it stands for.
struct SZONENAMEPAIR {
  const char* pszWindows;
  const char* pszOlson;
};

// The table, in the order CTimeZoneMap::LoadTzMap enters it. Several
// Windows names share one Olson name; no Windows name occurs twice.
constexpr size_t kZoneNameCount = 91;
extern const SZONENAMEPAIR g_aZoneNames[kZoneNameCount];

#endif  // AMBIT_TIMEZONE_ZONE_TABLE_H_

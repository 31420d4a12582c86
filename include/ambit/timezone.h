#ifndef AMBIT_TIMEZONE_H_
#define AMBIT_TIMEZONE_H_

#include <atomic>
#include <functional>
#include <map>
#include <string>

#include "ambit/export.h"
#include "ambit/portable.h"

// The table from Windows time-zone key names ("W. Europe Standard Time") to
// Olson zone names ("Europe/Berlin"), compiled into the library: 91 names,
// some sharing one zone, with the zone names kept as the table has always
// had them (legacy aliases such as "US/Arizona" and "Asia/Calcutta", and
// the POSIX-style "PST8PDT" family), because callers match on them.
//
// One instance per process, built on first use and never destroyed. The
// first call takes no lock: threads that make it at the same moment may each
// build a map; every one of them is correct, the last one stored is kept and
// the others are left unused. After that the map is only read, so any number
// of threads may look names up. Lookups are exact: byte for byte,
// case-sensitive, no trimming.
class AMBIT_API CTimeZoneMap {
 public:
  // The instance, built (and filled) first when there is none yet. If
  // building throws (memory exhausted), nothing is kept, the exception
  // reaches the caller and the next call tries again.
  static CTimeZoneMap* GetInstance();

  // Fills this map with the table; GetInstance calls it once on a new map.
  void LoadTzMap();

  // The Olson name, owned by the map and valid until the process ends, or
  // "" (never null) when the name is not in the table.
  const char* WindowsTimeZoneStringToLinuxTimeZoneString(
      const char* windowsName);

  // Copies the Olson name of tzi->StandardName into zoneName with strncpy
  // for at most `size` characters, or "GMT" when the name is not in the
  // table, and returns zoneName. A buffer of 32 holds every name of the
  // table with its terminating zero; a smaller one may be left unterminated.
  char* MapTzInfo(const CPortable::_TIME_ZONE_INFORMATION* tzi,
                  char* zoneName, int size);

 private:
  CTimeZoneMap() = default;
  CTimeZoneMap(const CTimeZoneMap&) = delete;
  CTimeZoneMap& operator=(const CTimeZoneMap&) = delete;

  // The lookup behind both public ones: the stored Olson name, or null.
  const std::string* Find(const char* windowsName, size_t length) const;

  // The instance, published with release order once it is filled, so that
  // a thread that sees the pointer sees the whole map.
  static std::atomic<CTimeZoneMap*> m_Instance;

  // Windows name to Olson name, in byte-wise order of the keys.
  std::map<std::string, std::string, std::less<>> m_map;
};

#endif  // AMBIT_TIMEZONE_H_

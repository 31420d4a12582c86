// The Windows zone name table and CTimeZoneMap, the process-wide map built
// from it.
#include <cstring>
#include <string_view>

#include "ambit/portable.h"
#include "ambit/timezone.h"
#include "timezone/zone_table.h"

// The values are kept as they have always been, legacy aliases included
// ("US/Arizona", "Canada/Atlantic", "Iran", "Asia/Calcutta", ...): callers
// compare the names we hand out. "Etc/GMT+2" is two hours *behind* UTC (the
// Etc names invert the sign); "Central Pacific Standard Time" is
// Asia/Magadan and "South Africa Standard Time" Africa/Harare on purpose.
const SZONENAMEPAIR g_aZoneNames[kZoneNameCount] = {
    {"Dateline Standard Time", "Etc/GMT+12"},
    {"Samoa Standard Time", "Pacific/Midway"},
    {"Hawaiian Standard Time", "HST"},
    {"Alaskan Standard Time", "America/Anchorage"},
    {"Pacific Standard Time (Mexico)", "America/Tijuana"},
    {"Pacific Standard Time", "PST8PDT"},
    {"Mountain Standard Time", "MST7MDT"},
    {"Mexico Standard Time 2", "America/Chihuahua"},
    {"Mountain Standard Time (Mexico)", "America/Chihuahua"},
    {"US Mountain Standard Time", "US/Arizona"},
    {"Canada Central Standard Time", "America/Regina"},
    {"Mexico Standard Time", "America/Mexico_City"},
    {"Central Standard Time (Mexico)", "America/Mexico_City"},
    {"Central Standard Time", "CST6CDT"},
    {"Central America Standard Time", "America/Belize"},
    {"US Eastern Standard Time", "America/Indiana/Knox"},
    {"Eastern Standard Time", "EST5EDT"},
    {"SA Pacific Standard Time", "America/Bogota"},
    {"Pacific SA Standard Time", "America/Santiago"},
    {"Venezuela Standard Time", "America/Caracas"},
    {"Central Brazilian Standard Time", "America/Manaus"},
    {"SA Western Standard Time", "America/Caracas"},
    {"Atlantic Standard Time", "Canada/Atlantic"},
    {"Newfoundland Standard Time", "Canada/Newfoundland"},
    {"Montevideo Standard Time", "America/Montevideo"},
    {"Greenland Standard Time", "America/Godthab"},
    {"SA Eastern Standard Time", "America/Argentina/Buenos_Aires"},
    {"Argentina Standard Time", "America/Argentina/Buenos_Aires"},
    {"E. South America Standard Time", "America/Sao_Paulo"},
    {"Mid-Atlantic Standard Time", "Etc/GMT+2"},
    {"Cape Verde Standard Time", "Atlantic/Cape_Verde"},
    {"Azores Standard Time", "Atlantic/Azores"},
    {"Greenwich Standard Time", "GMT"},
    {"GMT Standard Time", "Europe/London"},
    {"Morocco Standard Time", "Africa/Casablanca"},
    {"W. Europe Standard Time", "Europe/Berlin"},
    {"Central Europe Standard Time", "Europe/Belgrade"},
    {"Romance Standard Time", "Europe/Brussels"},
    {"Central European Standard Time", "Europe/Sarajevo"},
    {"W. Central Africa Standard Time", "Africa/Bangui"},
    {"Jordan Standard Time", "Asia/Amman"},
    {"GTB Standard Time", "Europe/Athens"},
    {"Middle East Standard Time", "Asia/Beirut"},
    {"Egypt Standard Time", "Africa/Cairo"},
    {"South Africa Standard Time", "Africa/Harare"},
    {"FLE Standard Time", "Europe/Helsinki"},
    {"Israel Standard Time", "Asia/Jerusalem"},
    {"E. Europe Standard Time", "Europe/Minsk"},
    {"Namibia Standard Time", "Africa/Windhoek"},
    {"Arabic Standard Time", "Asia/Baghdad"},
    {"Russian Standard Time", "Europe/Moscow"},
    {"Arab Standard Time", "Asia/Baghdad"},
    {"E. Africa Standard Time", "Africa/Nairobi"},
    {"Georgian Standard Time", "Asia/Tbilisi"},
    {"Arabian Standard Time", "Asia/Muscat"},
    {"Iran Standard Time", "Iran"},
    {"Azerbaijan Standard Time", "Asia/Baku"},
    {"Caucasus Standard Time", "Asia/Baku"},
    {"Armenian Standard Time", "Asia/Yerevan"},
    {"Mauritius Standard Time", "Indian/Mauritius"},
    {"Afghanistan Standard Time", "Asia/Kabul"},
    {"Ekaterinburg Standard Time", "Asia/Yekaterinburg"},
    {"West Asia Standard Time", "Asia/Karachi"},
    {"Pakistan Standard Time", "Asia/Karachi"},
    {"India Standard Time", "Asia/Calcutta"},
    {"Sri Lanka Standard Time", "Asia/Colombo"},
    {"Nepal Standard Time", "Asia/Katmandu"},
    {"N. Central Asia Standard Time", "Asia/Almaty"},
    {"Central Asia Standard Time", "Asia/Dhaka"},
    {"Myanmar Standard Time", "Asia/Rangoon"},
    {"SE Asia Standard Time", "Asia/Bangkok"},
    {"North Asia Standard Time", "Asia/Krasnoyarsk"},
    {"China Standard Time", "Asia/Shanghai"},
    {"North Asia East Standard Time", "Asia/Irkutsk"},
    {"Singapore Standard Time", "Asia/Singapore"},
    {"Taipei Standard Time", "Asia/Taipei"},
    {"Tokyo Standard Time", "Asia/Tokyo"},
    {"Korea Standard Time", "Asia/Seoul"},
    {"Yakutsk Standard Time", "Asia/Yakutsk"},
    {"W. Australia Standard Time", "Australia/Perth"},
    {"Cen. Australia Standard Time", "Australia/Adelaide"},
    {"AUS Central Standard Time", "Australia/Darwin"},
    {"E. Australia Standard Time", "Australia/Brisbane"},
    {"AUS Eastern Standard Time", "Australia/Sydney"},
    {"West Pacific Standard Time", "Pacific/Guam"},
    {"Tasmania Standard Time", "Australia/Hobart"},
    {"Vladivostok Standard Time", "Asia/Vladivostok"},
    {"Central Pacific Standard Time", "Asia/Magadan"},
    {"New Zealand Standard Time", "Pacific/Auckland"},
    {"Fiji Standard Time", "Pacific/Fiji"},
    {"Tonga Standard Time", "Pacific/Tongatapu"},
};

namespace {

const char kUnknownZone[] = "";
const char kUnknownZoneMapped[] = "GMT";

// The longest key is 31 characters; reading StandardName no further than
// its array keeps a record without a terminator from reading past it, and
// such a name could match no key anyway.
constexpr size_t kStandardNameSize =
    sizeof(CPortable::_TIME_ZONE_INFORMATION::StandardName);

}  // namespace

std::atomic<CTimeZoneMap*> CTimeZoneMap::m_Instance{nullptr};

CTimeZoneMap* CTimeZoneMap::GetInstance() {
  CTimeZoneMap* instance = m_Instance.load(std::memory_order_acquire);
  if (instance != nullptr) return instance;
  // No lock, on purpose: racing first calls each build a map and the last
  // store wins; the others stay allocated and unused. The map is filled
  // before it is published, and an exception while filling frees it and
  // leaves the instance unset.
  instance = new CTimeZoneMap;
  try {
    instance->LoadTzMap();
  } catch (...) {
    delete instance;
    throw;
  }
  m_Instance.store(instance, std::memory_order_release);
  return instance;
}

void CTimeZoneMap::LoadTzMap() {
  for (const SZONENAMEPAIR& row : g_aZoneNames)
    m_map[row.pszWindows] = row.pszOlson;
}

const std::string* CTimeZoneMap::Find(const char* windowsName,
                                      size_t length) const {
  const auto it = m_map.find(std::string_view(windowsName, length));
  return it != m_map.end() ? &it->second : nullptr;
}

const char* CTimeZoneMap::WindowsTimeZoneStringToLinuxTimeZoneString(
    const char* windowsName) {
  if (windowsName == nullptr) return kUnknownZone;  // no name: unknown
  const std::string* olson = Find(windowsName, std::strlen(windowsName));
  return olson != nullptr ? olson->c_str() : kUnknownZone;
}

char* CTimeZoneMap::MapTzInfo(const CPortable::_TIME_ZONE_INFORMATION* tzi,
                              char* zoneName, int size) {
  // No record: no name, so the zone is unknown.
  const std::string* olson =
      tzi == nullptr
          ? nullptr
          : Find(tzi->StandardName, ::strnlen(tzi->StandardName, kStandardNameSize));
  std::strncpy(zoneName, olson != nullptr ? olson->c_str() : kUnknownZoneMapped,
               static_cast<size_t>(size));
  return zoneName;
}

const char* CPortable::WindowsTimeZoneStringToLinuxTimeZoneString(
    const char* windowsName) {
  return CTimeZoneMap::GetInstance()->WindowsTimeZoneStringToLinuxTimeZoneString(
      windowsName);
}

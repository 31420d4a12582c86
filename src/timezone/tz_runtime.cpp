// Local time of named zones over the system's tz database, without TZ.
//
// The cache is an open-addressing table of atomic pointers to parsed zones.
// Lookups read it without a lock; a miss takes the cache mutex, reads and
// parses the file and publishes the zone with a release store. Zones are
// never freed: the table only grows, and callers keep tm_zone pointers into
// the zones they used.
#include "timezone/tz_runtime.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <mutex>

#include "timezone/tzif_reader.h"

namespace {

const char kDefaultZoneInfoRoot[] = "/usr/share/zoneinfo";
constexpr size_t kMaxZoneFileSize = 1 << 20;  // real files are a few KB
constexpr int64_t kSecondsPerDay = 86400;

// --- Calendar arithmetic (proleptic Gregorian) ----------------------------
// Written once for any integer width: the 32-bit instances serve every date
// within a million years of 1970 and avoid the slow 64-bit division helpers
// of i386; the 64-bit ones take the rest.

template <typename T>
T FloorDiv(T a, T b) {  // b > 0
  const T q = a / b;
  return q * b > a ? q - 1 : q;
}

// Days since 1970-01-01 of the civil date (month 1..12, day 1..31).
template <typename T>
T DaysFromCivilT(T y, int m, int d) {
  y -= m <= 2;
  const T era = FloorDiv<T>(y, 400);
  const T yoe = y - era * 400;
  const T doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const T doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

template <typename T>
void CivilFromDaysT(T z, T* y, int* m, int* d) {
  z += 719468;
  const T era = FloorDiv<T>(z, 146097);
  const T doe = z - era * 146097;
  const T yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const T doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const T mp = (5 * doy + 2) / 153;
  *d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  *m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  *y = yoe + era * 400 + (*m <= 2);
}

constexpr int64_t kNarrowYears = 1000000;          // |year| for 32-bit math
constexpr int64_t kNarrowDays = 365 * kNarrowYears;  // |days| for 32-bit math

int64_t DaysFromCivil(int64_t y, int m, int d) {
  if (y > -kNarrowYears && y < kNarrowYears)
    return DaysFromCivilT<int32_t>(static_cast<int32_t>(y), m, d);
  return DaysFromCivilT<int64_t>(y, m, d);
}

void CivilFromDays(int64_t z, int64_t* y, int* m, int* d) {
  if (z > -kNarrowDays && z < kNarrowDays) {
    int32_t y32;
    CivilFromDaysT<int32_t>(static_cast<int32_t>(z), &y32, m, d);
    *y = y32;
  } else {
    CivilFromDaysT<int64_t>(z, y, m, d);
  }
}

bool IsLeap(int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

// 0 is Sunday; 1970-01-01 was a Thursday.
int WeekDay(int64_t days) {
  if (days > -kNarrowDays && days < kNarrowDays) {
    const int32_t w = static_cast<int32_t>(days) + 4;
    return w - FloorDiv<int32_t>(w, 7) * 7;
  }
  const int64_t w = days + 4;
  return static_cast<int>(w - FloorDiv<int64_t>(w, 7) * 7);
}

const int kDaysBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
const int kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

// Date fields of a day count, all in T: year, month 1..12, day 1..31, day
// of the year 0..365 and day of the week 0..6 (0 is Sunday).
template <typename T>
void DayFields(T days, T* y, int* m, int* d, int* yday, int* wday) {
  CivilFromDaysT<T>(days, y, m, d);
  const bool leap = (*y % 4 == 0 && *y % 100 != 0) || *y % 400 == 0;
  *yday = kDaysBefore[*m - 1] + *d - 1 + (leap && *m > 2 ? 1 : 0);
  *wday = WeekDay(days);
}

// Breaks `local` seconds down into the date and time fields of *out. False
// when the year does not fit in tm_year.
bool BreakDown(int64_t local, tm* out) {
  const int64_t days = FloorDiv<int64_t>(local, kSecondsPerDay);
  const int32_t secs = static_cast<int32_t>(local - days * kSecondsPerDay);
  int64_t y;
  int m, d, yday, wday;
  if (days > -kNarrowDays && days < kNarrowDays) {
    int32_t y32;
    DayFields<int32_t>(static_cast<int32_t>(days), &y32, &m, &d, &yday, &wday);
    y = y32;
  } else {
    DayFields<int64_t>(days, &y, &m, &d, &yday, &wday);
  }
  if (y - 1900 > INT_MAX || y - 1900 < INT_MIN) return false;
  out->tm_year = static_cast<int>(y - 1900);
  out->tm_mon = m - 1;
  out->tm_mday = d;
  out->tm_hour = secs / 3600;
  out->tm_min = secs / 60 % 60;
  out->tm_sec = secs % 60;
  out->tm_wday = wday;
  out->tm_yday = yday;
  return true;
}

// The UTC instant a rule date falls on in `year`, the date's time of day
// being local time at `offset` seconds east of UTC. Same computation as
// glibc's, so that results agree with localtime_r.
int64_t RuleChange(const STzRuleDate& r, int64_t year, int32_t offset) {
  int64_t day = DaysFromCivil(year, 1, 1);
  switch (r.kind) {
    case STzRuleDate::JULIAN1:  // 1..365, February 29 never counted
      day += r.day - 1;
      if (r.day >= 60 && IsLeap(year)) ++day;
      break;
    case STzRuleDate::JULIAN0:  // 0..365, February 29 counted
      day += r.day;
      break;
    case STzRuleDate::MONTH_WEEK_DAY: {
      const int64_t first = DaysFromCivil(year, r.month, 1);
      const int firstWday = WeekDay(first);
      // Zero-based; a weekday beyond 6 (only from a rule glibc parsed in
      // part) moves on by whole days as in glibc.
      int mday = r.day - firstWday;
      if (mday < 0) mday += 7;
      const int monthDays =
          kMonthDays[r.month - 1] + (r.month == 2 && IsLeap(year) ? 1 : 0);
      for (int i = 1; i < r.week && mday + 7 < monthDays; ++i) mday += 7;
      day = first + mday;
      break;
    }
  }
  return day * kSecondsPerDay + r.secs - offset;
}

// --- Parsed zones ----------------------------------------------------------

struct SZone {
  std::string name;
  SParsedZone data;
  std::vector<const char*> typeAbbr;  // abbreviation of each type
  size_t firstType = 0;  // type before the first transition
  bool failed = false;   // read as UTC
};

SZone* MakeUtcZone(const std::string& name) {
  SZone* zone = new SZone;
  zone->name = name;
  zone->failed = true;
  zone->data.types.resize(1);
  zone->data.abbreviations.assign("UTC", 4);
  zone->typeAbbr.push_back(zone->data.abbreviations.c_str());
  return zone;
}

void FinishZone(SZone* zone) {
  const SParsedZone& d = zone->data;
  for (const STzLocalType& type : d.types)
    zone->typeAbbr.push_back(d.abbreviations.c_str() + type.abbrIndex);
  // As glibc: the first standard-time type, or type 0 if all are daylight.
  zone->firstType = 0;
  for (size_t i = 0; i < d.types.size(); ++i) {
    if (!d.types[i].isDst) {
      zone->firstType = i;
      break;
    }
  }
}

// A relative name inside the zoneinfo tree: no leading '/', no ".."
// component, nothing that could make the path leave the root.
bool IsPlainZoneName(const std::string& name) {
  if (name.empty() || name.size() > 255 || name[0] == '/') return false;
  size_t start = 0;
  for (;;) {
    const size_t slash = name.find('/', start);
    const std::string part = name.substr(start, slash - start);
    if (part.empty() || part == "." || part == "..") return false;
    if (slash == std::string::npos) return true;
    start = slash + 1;
  }
}

// The whole file, or false with a reason. Regular files only.
bool ReadZoneFile(const std::string& path, std::string* content,
                  std::string* error) {
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    *error = std::strerror(errno);
    return false;
  }
  struct stat st;
  bool ok = ::fstat(fd, &st) == 0;
  if (!ok) {
    *error = std::strerror(errno);
  } else if (!S_ISREG(st.st_mode)) {
    *error = "not a regular file";
    ok = false;
  } else if (static_cast<unsigned long long>(st.st_size) > kMaxZoneFileSize) {
    *error = "file too large";
    ok = false;
  }
  if (ok) {
    content->resize(static_cast<size_t>(st.st_size));
    size_t done = 0;
    while (done < content->size()) {
      const ssize_t n = ::read(fd, &(*content)[done], content->size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    content->resize(done);  // a file that shrank is parsed as it is now
  }
  ::close(fd);
  return ok;
}

// The zone, or UTC when the name or its file cannot be used. Nothing is
// reported: a bad zone silently reads as UTC.
SZone* LoadZone(const std::string& root, const std::string& name) {
  if (IsPlainZoneName(name)) {
    std::string content, error;
    if (ReadZoneFile(root + "/" + name, &content, &error)) {
      SZone* zone = new SZone;
      zone->name = name;
      if (ParseTzif(reinterpret_cast<const unsigned char*>(content.data()),
                    content.size(), &zone->data, &error)) {
        FinishZone(zone);
        return zone;
      }
      delete zone;
    }
  }
  return MakeUtcZone(name);
}

class CZoneCache {
 public:
  CZoneCache() : m_root(kDefaultZoneInfoRoot), m_count(0) {
    for (auto& slot : m_slots) slot.store(nullptr, std::memory_order_relaxed);
  }

  const SZone* Get(const char* name) {
    const size_t hash = Hash(name);
    for (size_t i = 0; i < kSlots; ++i) {
      const SZone* zone =
          m_slots[(hash + i) & (kSlots - 1)].load(std::memory_order_acquire);
      if (zone == nullptr) break;
      if (std::strcmp(zone->name.c_str(), name) == 0) return zone;
    }
    return Insert(name, hash);
  }

  void SetRoot(const std::string& root) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& slot : m_slots) {
      const SZone* zone = slot.exchange(nullptr, std::memory_order_acq_rel);
      if (zone != nullptr) m_retired.push_back(zone);
    }
    for (auto& entry : m_overflow) m_retired.push_back(entry.second);
    m_overflow.clear();
    m_count = 0;
    m_root = root.empty() ? kDefaultZoneInfoRoot : root;
  }

 private:
  static constexpr size_t kSlots = 512;  // a power of two
  static constexpr size_t kMaxSlotted = kSlots * 3 / 4;

  static size_t Hash(const char* s) {
    uint32_t h = 2166136261u;  // FNV-1a
    for (; *s != '\0'; ++s) h = (h ^ static_cast<unsigned char>(*s)) * 16777619u;
    return h;
  }

  const SZone* Insert(const char* name, size_t hash) {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t i = 0;
    for (; i < kSlots; ++i) {
      const SZone* zone =
          m_slots[(hash + i) & (kSlots - 1)].load(std::memory_order_relaxed);
      if (zone == nullptr) break;
      if (std::strcmp(zone->name.c_str(), name) == 0) return zone;
    }
    const auto found = m_overflow.find(name);
    if (found != m_overflow.end()) return found->second;

    const SZone* zone = LoadZone(m_root, name);
    if (m_count < kMaxSlotted && i < kSlots) {
      m_slots[(hash + i) & (kSlots - 1)].store(zone, std::memory_order_release);
      ++m_count;
    } else {
      // Beyond the table's capacity further names live in a map that is only
      // read under the mutex: slower, still correct.
      m_overflow.emplace(name, zone);
    }
    return zone;
  }

  std::atomic<const SZone*> m_slots[kSlots];
  std::mutex m_mutex;  // guards everything below and serialises loading
  std::string m_root;
  size_t m_count;
  std::map<std::string, const SZone*> m_overflow;
  std::vector<const SZone*> m_retired;  // set aside by SetRoot, never freed
};

// Leaked on purpose: conversions may run during exit, after static
// destructors.
CZoneCache& Cache() {
  static CZoneCache* cache = new CZoneCache;
  return *cache;
}

void SetResult(int64_t t, int32_t offset, bool isDst, const char* abbr,
               tm* result, bool* ok) {
  *ok = BreakDown(t + offset, result);
  result->tm_isdst = isDst ? 1 : 0;
  result->tm_gmtoff = offset;
  result->tm_zone = abbr;
}

bool LocalTimeIn(const SZone& zone, int64_t t, tm* result) {
  const SParsedZone& d = zone.data;
  const std::vector<int64_t>& trans = d.transitions;
  bool ok;
  if (trans.empty() || t < trans.front()) {
    const STzLocalType& type = d.types[zone.firstType];
    SetResult(t, type.utcOffset, type.isDst, zone.typeAbbr[zone.firstType],
              result, &ok);
    return ok;
  }
  if (t >= trans.back() && d.hasRule) {
    const STzPosixRule& r = d.rule;
    bool dst = false;
    if (r.hasDst) {
      // The change instants of the instant's UTC year, as glibc does.
      int64_t year;
      int m, day;
      CivilFromDays(FloorDiv<int64_t>(t, kSecondsPerDay), &year, &m, &day);
      const int64_t start = RuleChange(r.start, year, r.stdOffset);
      const int64_t end = RuleChange(r.end, year, r.dstOffset);
      dst = start > end ? (t < end || t >= start) : (t >= start && t < end);
    }
    if (dst)
      SetResult(t, r.dstOffset, true, r.dstName.c_str(), result, &ok);
    else
      SetResult(t, r.stdOffset, false, r.stdName.c_str(), result, &ok);
    return ok;
  }
  const size_t i = static_cast<size_t>(
      std::upper_bound(trans.begin(), trans.end(), t) - trans.begin() - 1);
  const size_t typeIndex = d.transitionTypes[i];
  const STzLocalType& type = d.types[typeIndex];
  SetResult(t, type.utcOffset, type.isDst, zone.typeAbbr[typeIndex], result,
            &ok);
  return ok;
}

}  // namespace

int64_t qktimegm64(struct tm* t) {
  // Carry months into years, then count days and seconds in 64 bits.
  const int yearsCarried = FloorDiv<int>(t->tm_mon, 12);
  const int64_t year = 1900 + static_cast<int64_t>(t->tm_year) + yearsCarried;
  const int month = t->tm_mon - yearsCarried * 12;
  const int64_t days = DaysFromCivil(year, month + 1, 1) + t->tm_mday - 1;
  const int64_t seconds = days * kSecondsPerDay +
                          static_cast<int64_t>(t->tm_hour) * 3600 +
                          static_cast<int64_t>(t->tm_min) * 60 + t->tm_sec;
  const bool leap = IsLeap(year);
  if (t->tm_mday >= 1 &&
      t->tm_mday <= kMonthDays[month] + (leap && month == 1 ? 1 : 0) &&
      t->tm_hour >= 0 && t->tm_hour < 24 && t->tm_min >= 0 && t->tm_min < 60 &&
      t->tm_sec >= 0 && t->tm_sec < 60 && year - 1900 <= INT_MAX &&
      year - 1900 >= INT_MIN) {
    // Already in range, the usual case: only the derived fields are set.
    t->tm_year = static_cast<int>(year - 1900);
    t->tm_mon = month;
    t->tm_yday = kDaysBefore[month] + t->tm_mday - 1 + (leap && month > 1 ? 1 : 0);
    t->tm_wday = WeekDay(days);
    t->tm_isdst = 0;
    t->tm_gmtoff = 0;
    t->tm_zone = "GMT";
    return seconds;
  }
  tm normal = *t;
  if (BreakDown(seconds, &normal)) {
    normal.tm_isdst = 0;
    normal.tm_gmtoff = 0;
    normal.tm_zone = "GMT";
    *t = normal;
  }
  return seconds;
}

time_t qktimegm(struct tm* t) {
  tm copy = *t;
  const int64_t seconds = qktimegm64(&copy);
  const time_t narrow = static_cast<time_t>(seconds);
  if (static_cast<int64_t>(narrow) != seconds) {
    errno = EOVERFLOW;
    return static_cast<time_t>(-1);
  }
  *t = copy;
  return narrow;
}

struct tm* qkspecificlocaltime64_r(const int64_t* t, struct tm* result,
                                   const char* olsonZone) {
  // Far beyond any year tm_year can hold; keeps t + offset from overflowing.
  constexpr int64_t kLimit = int64_t{1} << 58;
  if (*t > kLimit || *t < -kLimit) return nullptr;
  const SZone* zone = Cache().Get(olsonZone != nullptr ? olsonZone : "");
  return LocalTimeIn(*zone, *t, result) ? result : nullptr;
}

struct tm* qkspecificlocaltime_r(const time_t* t, struct tm* result,
                                 const char* olsonZone) {
  const int64_t seconds = static_cast<int64_t>(*t);
  return qkspecificlocaltime64_r(&seconds, result, olsonZone);
}

void SetZoneInfoRootForTesting(const std::string& root) { Cache().SetRoot(root); }

std::vector<int64_t> ZoneChangeInstantsForTesting(const char* olsonZone,
                                                  int64_t from, int64_t to) {
  const SZone& zone = *Cache().Get(olsonZone);
  const SParsedZone& d = zone.data;
  std::vector<int64_t> out;
  for (int64_t t : d.transitions)
    if (t >= from && t <= to) out.push_back(t);
  if (d.hasRule && d.rule.hasDst) {
    const int64_t ruleFrom =
        d.transitions.empty() ? from : std::max(from, d.transitions.back());
    int64_t y0, y1;
    int m, day;
    CivilFromDays(FloorDiv<int64_t>(ruleFrom, kSecondsPerDay), &y0, &m, &day);
    CivilFromDays(FloorDiv<int64_t>(to, kSecondsPerDay), &y1, &m, &day);
    for (int64_t y = y0 - 1; y <= y1 + 1; ++y) {
      for (int64_t c : {RuleChange(d.rule.start, y, d.rule.stdOffset),
                        RuleChange(d.rule.end, y, d.rule.dstOffset)}) {
        if (c >= ruleFrom && c >= from && c <= to) out.push_back(c);
      }
    }
  }
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

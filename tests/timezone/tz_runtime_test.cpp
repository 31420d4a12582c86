// The zone runtime: glibc agreement over every table zone, UTC arithmetic,
// damaged zone files, threads and the error line.
#include "timezone/tz_runtime.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ambit/trace.h"
#include "gtest/gtest.h"
#include "support/child_process.h"
#include "support/temp_dir.h"
#include "timezone/glibc_reference.h"
#include "timezone/zone_table.h"

namespace {

const char kZoneInfo[] = "/usr/share/zoneinfo";
constexpr int64_t k2038 = 2145916800;  // 2038-01-01 00:00:00 UTC

std::vector<std::string> TableZones() {
  std::vector<std::string> zones;
  std::set<std::string> seen;
  for (const SZONENAMEPAIR& row : g_aZoneNames)
    if (seen.insert(row.pszOlson).second) zones.push_back(row.pszOlson);
  return zones;
}

SLocalRecord Ours(const char* zone, int64_t t) {
  struct tm tm;
  std::memset(&tm, 0, sizeof tm);
  EXPECT_NE(nullptr, qkspecificlocaltime64_r(&t, &tm, zone)) << zone << " " << t;
  return ToRecord(tm);
}

// Compares our runtime with glibc for every instant of every case and
// reports the first few differences of each zone. For the zones named in
// `readAsUtc`, files that both read as UTC, glibc names UTC after the TZ
// text (empty for a path) where we say "UTC"; only the name is forgiven.
void ExpectAgreement(const std::vector<SZoneCase>& cases,
                     const std::set<std::string>& readAsUtc = {}) {
  std::vector<std::vector<SLocalRecord>> glibc;
  std::string error;
  ASSERT_TRUE(GlibcLocalTimes(cases, &glibc, 60000, &error)) << error;
  size_t compared = 0;
  for (size_t c = 0; c < cases.size(); ++c) {
    int reported = 0;
    for (size_t i = 0; i < cases[c].instants.size(); ++i, ++compared) {
      SLocalRecord ours = Ours(cases[c].ourName.c_str(), cases[c].instants[i]);
      if (readAsUtc.count(cases[c].ourName) != 0 && std::strcmp(ours.zone, "UTC") == 0)
        std::memset(ours.zone, 0, sizeof ours.zone);
      if (ours == glibc[c][i]) continue;
      if (++reported <= 5) {
        ADD_FAILURE() << cases[c].ourName << " at " << cases[c].instants[i]
                      << ": glibc " << ToString(glibc[c][i]) << ", ours "
                      << ToString(ours);
      }
    }
  }
  EXPECT_GT(compared, 0u);
}

// Every change of the zone in [from, to] and one second either side, the
// turns of every year, and `random` uniformly spread instants.
std::vector<int64_t> Instants(const char* zone, int64_t from, int64_t to,
                              int random, unsigned seed) {
  std::vector<int64_t> out;
  for (int64_t t : ZoneChangeInstantsForTesting(zone, from, to))
    for (int64_t d : {-1, 0, 1})
      if (t + d >= from && t + d <= to) out.push_back(t + d);
  for (int64_t y = 0; y * 31556952 + from <= to; ++y) out.push_back(from + y * 31556952);
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int64_t> dist(from, to);
  for (int i = 0; i < random; ++i) out.push_back(dist(rng));
  out.push_back(from);
  out.push_back(to);
  return out;
}

TEST(ZoneRuntimeGlibcTest, EveryTableZoneAgreesFrom1970To2037) {
  std::vector<SZoneCase> cases;
  size_t changes = 0;
  unsigned seed = 1;
  for (const std::string& zone : TableZones()) {
    SZoneCase c{zone, zone, Instants(zone.c_str(), 0, k2038 - 1, 2000, seed++)};
    changes += ZoneChangeInstantsForTesting(zone.c_str(), 0, k2038 - 1).size();
    cases.push_back(std::move(c));
  }
  EXPECT_GT(changes, 2000u);  // the sample really contains the transitions
  ExpectAgreement(cases);
}

// Past the last transition of the files only the footer rule decides; glibc
// with a 64-bit time_t is the reference there too.
TEST(ZoneRuntimeGlibcTest, EveryTableZoneAgreesFrom2037To2100) {
  std::vector<SZoneCase> cases;
  unsigned seed = 1000;
  for (const std::string& zone : TableZones())
    cases.push_back({zone, zone, Instants(zone.c_str(), k2038 - 86400 * 365,
                                          4102444800LL, 300, seed++)});
  ExpectAgreement(cases);
}

TEST(ZoneRuntimeGlibcTest, PlatformTimeTFormAgreesWithTheWideForm) {
  for (const std::string& zone : {std::string("Europe/Berlin"), std::string("Asia/Tokyo")}) {
    for (int64_t t : {int64_t{0}, int64_t{1700000000}, int64_t{INT32_MAX}}) {
      const time_t narrow = static_cast<time_t>(t);
      struct tm a, b;
      std::memset(&a, 0, sizeof a);
      std::memset(&b, 0, sizeof b);
      ASSERT_EQ(&a, qkspecificlocaltime_r(&narrow, &a, zone.c_str()));
      ASSERT_EQ(&b, qkspecificlocaltime64_r(&t, &b, zone.c_str()));
      EXPECT_TRUE(ToRecord(a) == ToRecord(b)) << zone << " " << t;
    }
  }
}

TEST(ZoneRuntimeTest, InstantsBeyondAnyYearGiveNull) {
  struct tm tm;
  for (int64_t t : {INT64_MAX, INT64_MIN, int64_t{1} << 60}) {
    EXPECT_EQ(nullptr, qkspecificlocaltime64_r(&t, &tm, "Europe/Berlin")) << t;
  }
  // The largest year tm_year holds still converts.
  const int64_t far = 67768036160140800LL;  // 2147485547-01-01 (tm_year INT_MAX)
  ASSERT_EQ(&tm, qkspecificlocaltime64_r(&far, &tm, "Asia/Tokyo"));
  EXPECT_EQ(INT_MAX, tm.tm_year);
}

// --- UTC arithmetic ---------------------------------------------------------

TEST(QkTimeGmTest, AgreesWithTimegmIncludingOutOfRangeFields) {
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> year(-10, 150), mon(-30, 40), mday(-40, 70),
      hour(-50, 80), minute(-100, 200), sec(-100, 200);
  for (int i = 0; i < 50000; ++i) {
    struct tm in;
    std::memset(&in, 0, sizeof in);
    in.tm_year = year(rng);
    in.tm_mon = mon(rng);
    in.tm_mday = mday(rng);
    in.tm_hour = hour(rng);
    in.tm_min = minute(rng);
    in.tm_sec = sec(rng);
    struct tm theirs = in, ours = in, wide = in;
    errno = 0;
    const time_t expected = timegm(&theirs);
    const bool fits = !(expected == static_cast<time_t>(-1) && errno == EOVERFLOW);
    const int64_t seconds = qktimegm64(&wide);
    errno = 0;
    const time_t actual = qktimegm(&ours);
    if (!fits) {
      EXPECT_EQ(static_cast<time_t>(-1), actual);
      EXPECT_EQ(EOVERFLOW, errno);
      continue;
    }
    ASSERT_EQ(expected, actual) << i;
    ASSERT_EQ(static_cast<int64_t>(expected), seconds) << i;
    ASSERT_TRUE(ToRecord(theirs) == ToRecord(ours))
        << ToString(ToRecord(theirs)) << " / " << ToString(ToRecord(ours));
  }
}

TEST(QkTimeGmTest, AgreesWithTimegmForInRangeFields) {
  std::mt19937 rng(11);
  std::uniform_int_distribution<int> year(2, 137), mon(0, 11), mday(1, 31),
      hour(0, 23), minute(0, 59), sec(0, 59);
  for (int i = 0; i < 20000; ++i) {
    struct tm in;
    std::memset(&in, 0, sizeof in);
    in.tm_year = year(rng);
    in.tm_mon = mon(rng);
    in.tm_mday = mday(rng);  // 29..31 overflow short months
    in.tm_hour = hour(rng);
    in.tm_min = minute(rng);
    in.tm_sec = sec(rng);
    struct tm theirs = in, ours = in;
    ASSERT_EQ(timegm(&theirs), qktimegm(&ours)) << i;
    ASSERT_TRUE(ToRecord(theirs) == ToRecord(ours))
        << ToString(ToRecord(theirs)) << " / " << ToString(ToRecord(ours));
  }
}

TEST(QkTimeGmTest, WideFormGoesPast2038) {
  struct tm t;
  std::memset(&t, 0, sizeof t);
  t.tm_year = 200;  // 2100-01-01, a Friday
  t.tm_mday = 1;
  EXPECT_EQ(4102444800LL, qktimegm64(&t));
  EXPECT_EQ(5, t.tm_wday);
  EXPECT_EQ(0, t.tm_yday);
}

TEST(QkTimeGmTest, EpochIsZeroAndAThursday) {
  struct tm t;
  std::memset(&t, 0, sizeof t);
  t.tm_year = 70;
  t.tm_mday = 1;
  t.tm_wday = 6;  // ignored, recomputed
  EXPECT_EQ(0, qktimegm(&t));
  EXPECT_EQ(4, t.tm_wday);
}

// --- Damaged and missing zone files ----------------------------------------

std::string ReadWhole(const std::string& path) { return ReadFile(path); }

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string Be32(uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16),
          static_cast<char>(v >> 8), static_cast<char>(v)};
}

std::string Be64(int64_t v) {
  return Be32(static_cast<uint32_t>(static_cast<uint64_t>(v) >> 32)) +
         Be32(static_cast<uint32_t>(v));
}

struct SType {
  int32_t offset;
  bool dst;
  uint8_t abbr;
};

// A TZif block: header and data for `timeSize`-byte times.
std::string Block(char version, const std::vector<int64_t>& times,
                  const std::vector<uint8_t>& idx, const std::vector<SType>& types,
                  const std::string& abbrs, int timeSize) {
  std::string s = "TZif";
  s += version;
  s += std::string(15, '\0');
  s += Be32(0) + Be32(0) + Be32(0) + Be32(static_cast<uint32_t>(times.size())) +
       Be32(static_cast<uint32_t>(types.size())) +
       Be32(static_cast<uint32_t>(abbrs.size()));
  for (int64_t t : times)
    s += timeSize == 8 ? Be64(t) : Be32(static_cast<uint32_t>(t));
  for (uint8_t i : idx) s += static_cast<char>(i);
  for (const SType& t : types) {
    s += Be32(static_cast<uint32_t>(t.offset));
    s += static_cast<char>(t.dst ? 1 : 0);
    s += static_cast<char>(t.abbr);
  }
  s += abbrs;
  return s;
}

std::string TzifV2(const std::vector<int64_t>& times, const std::vector<uint8_t>& idx,
                   const std::vector<SType>& types, const std::string& abbrs,
                   const std::string& footer) {
  return Block('2', {}, {}, {{0, false, 0}}, std::string("UTC\0", 4), 4) +
         Block('2', times, idx, types, abbrs, 8) + "\n" + footer + "\n";
}

// Where the parts of a version 2+ file are: the second header, the end of
// the transition times of the 64-bit block, and the end of that block (the
// footer starts there).
struct SFileParts {
  size_t secondHeader = 0;
  size_t transitionsEnd = 0;
  size_t dataEnd = 0;
};

SFileParts PartsOf(const std::string& file) {
  auto count = [&](size_t header, int i) {
    const unsigned char* p =
        reinterpret_cast<const unsigned char*>(file.data()) + header + 20 + 4 * i;
    return (size_t{p[0]} << 24) | (size_t{p[1]} << 16) | (size_t{p[2]} << 8) | p[3];
  };
  // isutcnt, isstdcnt, leapcnt, timecnt, typecnt, charcnt
  auto block = [&](size_t header, size_t timeSize) {
    return 44 + count(header, 3) * (timeSize + 1) + count(header, 4) * 6 + count(header, 5) +
           count(header, 2) * (timeSize + 4) + count(header, 1) + count(header, 0);
  };
  const size_t second = block(0, 4);
  SFileParts parts;
  parts.secondHeader = second;
  parts.transitionsEnd = second + 44 + count(second, 3) * 8;
  parts.dataEnd = second + block(second, 8);
  return parts;
}

class DamagedZoneTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // These tests provoke many error lines; keep them out of the log.
    m_savedLevel = AmbitTrace::m_level;
    AmbitTrace::m_level &= ~2ul;
    SetZoneInfoRootForTesting(m_root.Path());
  }
  void TearDown() override {
    SetZoneInfoRootForTesting("");
    AmbitTrace::m_level = m_savedLevel;
  }

  void Put(const std::string& name, const std::string& content) {
    WriteFile(m_root.Path() + "/" + name, content);
  }

  // The zone behaves as UTC at a few instants.
  ::testing::AssertionResult IsUtc(const std::string& name) {
    for (int64_t t : {int64_t{0}, int64_t{1700000000}, int64_t{-5000000000LL}}) {
      struct tm tm, utc;
      std::memset(&tm, 0, sizeof tm);
      if (qkspecificlocaltime64_r(&t, &tm, name.c_str()) != &tm)
        return ::testing::AssertionFailure() << name << ": null at " << t;
      const time_t narrow = static_cast<time_t>(t);
      if (t >= INT32_MIN && t <= INT32_MAX) {
        gmtime_r(&narrow, &utc);
        utc.tm_zone = "UTC";
        if (!(ToRecord(tm) == ToRecord(utc)))
          return ::testing::AssertionFailure()
                 << name << " at " << t << ": " << ToString(ToRecord(tm));
      } else if (tm.tm_gmtoff != 0 || tm.tm_isdst != 0 ||
                 std::strcmp(tm.tm_zone, "UTC") != 0) {
        return ::testing::AssertionFailure() << name << ": not UTC at " << t;
      }
    }
    return ::testing::AssertionSuccess();
  }

  TempDir m_root;
  unsigned long m_savedLevel = 0;
};

TEST_F(DamagedZoneTest, MissingFileIsUtc) { EXPECT_TRUE(IsUtc("Nowhere/Zone")); }

TEST_F(DamagedZoneTest, NamesLeavingTheTreeAreUtc) {
  Put("good", ReadWhole(std::string(kZoneInfo) + "/Asia/Tokyo"));
  ::mkdir((m_root.Path() + "/dir").c_str(), 0755);
  EXPECT_TRUE(IsUtc(""));
  EXPECT_TRUE(IsUtc("dir"));                 // a directory
  EXPECT_TRUE(IsUtc("dir/../good"));         // ".." is refused
  EXPECT_TRUE(IsUtc("../" + std::string(kZoneInfo) + "/Asia/Tokyo"));
  EXPECT_TRUE(IsUtc(m_root.Path() + "/good"));  // absolute path
  EXPECT_TRUE(IsUtc("./good"));
  EXPECT_FALSE(IsUtc("good"));
}

// A file cut before its footer has begun (a newline and one more byte) is
// rejected whole, as glibc rejects it; one cut inside the footer keeps its
// transitions and reads what is left of the rule as glibc does.
TEST_F(DamagedZoneTest, EveryTruncationOfARealFileBeforeItsFooterIsUtcAndLaterOnesAgreeWithGlibc) {
  const std::string berlin = ReadWhole(std::string(kZoneInfo) + "/Europe/Berlin");
  ASSERT_GT(berlin.size(), 1000u);
  const size_t footer = PartsOf(berlin).dataEnd;
  ASSERT_EQ('\n', berlin[footer]);
  Put("whole", berlin);
  EXPECT_FALSE(IsUtc("whole"));
  for (size_t n = 0; n <= footer + 1; ++n) {
    const std::string name = "cut" + std::to_string(n);
    Put(name, berlin.substr(0, n));
    ASSERT_TRUE(IsUtc(name)) << "cut at " << n;
  }
  // The rule is "CET-1CEST,M3.5.0,M10.5.0/3"; a cut drops the file's last
  // byte from it. glibc is not the reference for two kinds of cut: a rule
  // that ends after the daylight name ("CET-1CES" to "CET-1CEST,") makes it
  // load and apply its "posixrules" file, and a month not yet read (a rule
  // ending in "M") makes it read outside its month table.
  std::vector<SZoneCase> cases;
  const std::vector<int64_t> instants = Instants("whole", 0, 4102444800LL, 200, 77);
  for (size_t n = footer + 2; n < berlin.size(); ++n) {
    const std::string name = "cut" + std::to_string(n);
    Put(name, berlin.substr(0, n));
    EXPECT_FALSE(IsUtc(name)) << "cut at " << n;
    const size_t ruleLength = n - footer - 2;
    const bool monthUnread = berlin[footer + ruleLength] == 'M';
    if ((ruleLength <= 7 || ruleLength >= 12) && !monthUnread)
      cases.push_back({name, m_root.Path() + "/" + name, instants});
  }
  ASSERT_EQ("CET-1CEST,M3.5.0,M10.5.0/3", berlin.substr(footer + 1, berlin.size() - footer - 2));
  ExpectAgreement(cases);
}

TEST_F(DamagedZoneTest, MalformedHeadersAndIndicesAreUtc) {
  const std::string abbrs("AAA\0BBB\0", 8);
  const std::vector<SType> two = {{3600, false, 0}, {7200, true, 4}};
  Put("magic", "TZjf" + TzifV2({0}, {1}, two, abbrs, "").substr(4));
  Put("notypes", TzifV2({}, {}, {}, abbrs, ""));
  Put("typeindex", TzifV2({0, 100}, {1, 2}, two, abbrs, ""));
  Put("abbrindex", TzifV2({0}, {1}, {{3600, false, 0}, {7200, true, 8}}, abbrs, ""));
  Put("abbrunterminated", TzifV2({0}, {1}, two, std::string("AAA\0BBB", 7), ""));
  Put("unordered", TzifV2({100, 0}, {1, 0}, two, abbrs, ""));
  Put("equaltimes", TzifV2({100, 100}, {1, 0}, two, abbrs, ""));
  // The daylight flag of the second type (byte 4 of its 6-byte record,
  // right before the abbreviations at the end of the 64-bit block) set to 2.
  std::string isdst2 = TzifV2({0}, {1}, two, abbrs, "");
  isdst2[isdst2.size() - 2 - abbrs.size() - 2] = 2;
  Put("isdst2", isdst2);
  // Counts far beyond the data, large enough to overflow 32-bit sums.
  std::string huge = Block('2', {}, {}, {{0, false, 0}}, std::string("UTC\0", 4), 4);
  huge.replace(32, 4, Be32(0x7FFFFFFF));
  Put("hugecount", huge);
  std::string hugeTypes = TzifV2({0}, {1}, two, abbrs, "");
  hugeTypes.replace(36, 4, Be32(0xFFFFFFFF));
  Put("hugetypes", hugeTypes);
  Put("empty", "");
  Put("text", "this is not a zone file\n");
  for (const char* name :
       {"magic", "notypes", "isdst2", "typeindex", "abbrindex", "abbrunterminated",
        "unordered", "equaltimes", "hugecount", "hugetypes", "empty", "text"})
    EXPECT_TRUE(IsUtc(name)) << name;
}

// Damage that glibc reads past: an unknown version byte, and footer rules
// that do not parse, which it uses as far as they go.
TEST_F(DamagedZoneTest, UnknownVersionsAndBadFooterRulesAreReadAsGlibcReadsThem) {
  const std::string abbrs("AAA\0BBB\0", 8);
  const std::vector<SType> two = {{3600, false, 0}, {7200, true, 4}};
  std::vector<std::pair<std::string, std::string>> files;
  for (char version : {'1', '5', 'z', '\xff'}) {
    std::string file = TzifV2({0}, {1}, two, abbrs, "AAA-1BBB,M3.5.0,M10.5.0/3");
    file[4] = version;
    files.push_back({"version" + std::to_string(static_cast<unsigned char>(version)), file});
  }
  const char* rules[] = {
      "AAA-1BBB,M12.6.0,M10.5.0",    "A-1",
      "AAA-1BBB,M3.5.0,M10.5.0/3x",  "AAA-1BBB,M3.5.0,M10.5.0/",
      "AAA-1BBB,M3.5.0",             "AAA-1BBB,M3.5.0,M10.5.7/3",
      "AAA-1BBB,J0,J365",            "AAA-1BBB,400,100",
      "AAA",                         "AAA-",
      "AAA-1BBB-x,M3.5.0,M10.5.0",   "AAA-1BBB,M3.5.0/x,M10.5.0/-",
      "AAA-1BBB,M3.5,M10.5.0",       "AAA-30BBB,M3.5.0,M10.5.0",
      "<AB>-1BBB,M3.5.0,M10.5.0",    "AAA-1:99:99BBB,M3.5.0/1:2:3,M10.5.0/ 4",
  };
  int n = 0;
  for (const char* rule : rules)
    files.push_back({"rule" + std::to_string(n++), TzifV2({0}, {1}, two, abbrs, rule)});
  std::vector<SZoneCase> cases;
  unsigned seed = 900;
  for (const auto& file : files) {
    Put(file.first, file.second);
    EXPECT_FALSE(IsUtc(file.first)) << file.first;
    cases.push_back({file.first, m_root.Path() + "/" + file.first,
                     Instants(file.first.c_str(), 0, 4102444800LL, 1500, seed++)});
  }
  ExpectAgreement(cases);
}

TEST_F(DamagedZoneTest, WellFormedHandMadeFilesAreRead) {
  const std::string abbrs("AAA\0BBB\0", 8);
  const std::vector<SType> two = {{3600, false, 0}, {7200, true, 4}};
  // Version 1: the 32-bit block only.
  Put("v1", Block('\0', {1000}, {1}, two, abbrs, 4));
  // Version 2 with an empty footer: the last type stays in force.
  Put("v2", TzifV2({1000}, {1}, two, abbrs, ""));
  for (const char* name : {"v1", "v2"}) {
    struct tm tm;
    const int64_t before = 999, after = 5000000000LL;
    ASSERT_NE(nullptr, qkspecificlocaltime64_r(&before, &tm, name));
    EXPECT_EQ(3600, tm.tm_gmtoff) << name;
    EXPECT_STREQ("AAA", tm.tm_zone) << name;
    ASSERT_NE(nullptr, qkspecificlocaltime64_r(&after, &tm, name));
    EXPECT_EQ(7200, tm.tm_gmtoff) << name;
    EXPECT_EQ(1, tm.tm_isdst) << name;
    EXPECT_STREQ("BBB", tm.tm_zone) << name;
  }
}

// Footer rules of every form, checked against glibc reading the same files
// through an absolute TZ path.
TEST_F(DamagedZoneTest, HandMadeFooterRulesAgreeWithGlibc) {
  const std::string abbrs("LMT\0", 4);
  const std::vector<SType> lmt = {{0, false, 0}};
  const char* rules[] = {
      "EST5EDT,J60/2,J300/2",          "XXX3YYY,0/0,365/25",
      "<-02>2<-01>,M3.5.0/-1,M10.5.0/0", "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0",
      "AAA-13BBB,M9.5.0/-1,M4.1.0/3",    "CCC4DDD3:30:15,M1.1.0/0,M12.5.6/167",
      "EEE-5",                          "FFF+2GGG,J1/0,J365/24",
      "HHH0III,M2.5.2,M2.5.5",          "JJJ-1KKK,59/12,60/12",
  };
  std::vector<SZoneCase> cases;
  int n = 0;
  for (const char* rule : rules) {
    const std::string name = "rule" + std::to_string(n++);
    Put(name, TzifV2({-2000000000LL}, {0}, lmt, abbrs, rule));
    cases.push_back({name, m_root.Path() + "/" + name,
                     Instants(name.c_str(), 0, 4102444800LL, 3000, static_cast<unsigned>(n))});
  }
  ExpectAgreement(cases);
}

// Copies of real zone files damaged the way a careless edit or copy might:
// glibc still reads their transitions (and, past them, what it can make of
// the footer, or else the last type), and so must we. The copies glibc
// rejects whole read as UTC with both.
TEST_F(DamagedZoneTest, DamagedCopiesOfRealFilesAgreeWithGlibc) {
  std::vector<SZoneCase> cases;
  std::set<std::string> readAsUtc;
  unsigned seed = 700;
  for (const std::string zone : {"Europe/Berlin", "America/Santiago", "Australia/Sydney",
                                 "America/New_York", "Asia/Tokyo"}) {
    const std::string file = ReadWhole(std::string(kZoneInfo) + "/" + zone);
    ASSERT_GT(file.size(), 100u) << zone;
    ASSERT_EQ('2' <= file[4] && file[4] <= '4', true) << zone;
    const SFileParts parts = PartsOf(file);
    ASSERT_LT(parts.dataEnd + 2, file.size()) << zone;
    ASSERT_EQ('\n', file[parts.dataEnd]) << zone;
    const std::string data = file.substr(0, parts.dataEnd);
    const std::string rule = file.substr(parts.dataEnd + 1, file.size() - parts.dataEnd - 2);
    ASSERT_FALSE(rule.empty()) << zone;

    std::string stem = zone;
    std::replace(stem.begin(), stem.end(), '/', '_');
    const std::string original = stem + "-original";
    Put(original, file);
    std::string version5 = file;
    version5[4] = '5';
    std::string version5Both = version5;
    version5Both[parts.secondHeader + 4] = '5';
    std::string badWeekday = rule;
    const size_t lastDot = badWeekday.rfind('.');
    if (lastDot != std::string::npos) badWeekday[lastDot + 1] = '9';
    const size_t lastComma = rule.rfind(',');
    const std::vector<std::pair<std::string, std::string>> copies = {
        {"emptyrule", data + "\n\n"},
        {"garbage", data + "\n!!garbage!!\n"},
        {"junkafterrule", data + "\n" + rule + "x\n"},
        {"noendrule", data + "\n" + rule.substr(0, lastComma) + "\n"},
        {"badweekday", data + "\n" + badWeekday + "\n"},
        {"unterminated", file.substr(0, file.size() - 1)},
        {"nonewline", data + "X" + rule + "\n"},
        {"version5", version5},
        {"version5both", version5Both},
        {"nofooter", data},
        {"newlineonly", data + "\n"},
        {"cutaftertransitions", file.substr(0, parts.transitionsEnd)},
    };
    const std::vector<int64_t> instants =
        Instants(original.c_str(), -2500000000LL, 4102444800LL, 400, seed++);
    for (const auto& copy : copies) {
      const std::string name = stem + "-" + copy.first;
      Put(name, copy.second);
      cases.push_back({name, m_root.Path() + "/" + name, instants});
      if (copy.first == "nofooter" || copy.first == "newlineonly" ||
          copy.first == "cutaftertransitions")
        readAsUtc.insert(name);
    }
    cases.push_back({original, m_root.Path() + "/" + original, instants});
  }
  ExpectAgreement(cases, readAsUtc);
}

TEST_F(DamagedZoneTest, RandomlyDamagedFilesNeverCrash) {
  const std::string base = ReadWhole(std::string(kZoneInfo) + "/America/Santiago");
  ASSERT_FALSE(base.empty());
  std::mt19937 rng(42);
  std::uniform_int_distribution<size_t> pos(0, base.size() - 1);
  std::uniform_int_distribution<int> byte(0, 255), count(1, 4);
  for (int i = 0; i < 1500; ++i) {
    std::string damaged = base;
    for (int k = count(rng); k > 0; --k) damaged[pos(rng)] = static_cast<char>(byte(rng));
    const std::string name = "rand" + std::to_string(i);
    Put(name, damaged);
    for (int64_t t : {int64_t{0}, int64_t{1700000000}, int64_t{3000000000LL}}) {
      struct tm tm;
      std::memset(&tm, 0, sizeof tm);
      ASSERT_EQ(&tm, qkspecificlocaltime64_r(&t, &tm, name.c_str()));
      // Whatever was read, the fields are the instant shifted by the offset.
      struct tm check = tm;
      ASSERT_EQ(t + tm.tm_gmtoff, qktimegm64(&check)) << name;
      ASSERT_NE(nullptr, tm.tm_zone);
    }
  }
}

TEST_F(DamagedZoneTest, AFileIsReadOnceAndKept) {
  Put("z", ReadWhole(std::string(kZoneInfo) + "/Asia/Tokyo"));
  struct tm tm;
  const int64_t t = 0;
  ASSERT_NE(nullptr, qkspecificlocaltime64_r(&t, &tm, "z"));
  const char* abbr = tm.tm_zone;
  EXPECT_EQ(9 * 3600, tm.tm_gmtoff);
  // Replacing the file does not matter any more: the zone was parsed once.
  Put("z", "garbage");
  ASSERT_NE(nullptr, qkspecificlocaltime64_r(&t, &tm, "z"));
  EXPECT_EQ(9 * 3600, tm.tm_gmtoff);
  EXPECT_EQ(abbr, tm.tm_zone);
}

// --- Threads ----------------------------------------------------------------

TEST(ZoneRuntimeThreadTest, ManyThreadsOnAColdCacheAgreeWithOneThread) {
  SetZoneInfoRootForTesting("");  // fresh cache: the threads race to load
  const std::vector<std::string> zones = TableZones();
  std::vector<int64_t> instants;
  for (int i = 0; i < 64; ++i) instants.push_back(i * 33554393LL);
  constexpr int kThreads = 8;
  std::vector<std::vector<SLocalRecord>> results(kThreads);
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int k = 0; k < kThreads; ++k) {
    threads.emplace_back([&, k] {
      ++ready;
      while (!go.load()) std::this_thread::yield();
      for (size_t z = 0; z < zones.size(); ++z) {
        // Each thread walks the zones in its own order.
        const std::string& zone = zones[(z * (k + 1) + k) % zones.size()];
        for (int64_t t : instants) {
          struct tm tm;
          std::memset(&tm, 0, sizeof tm);
          qkspecificlocaltime64_r(&t, &tm, zone.c_str());
          results[k].push_back(ToRecord(tm));
        }
      }
    });
  }
  while (ready.load() < kThreads) std::this_thread::yield();
  go = true;
  for (auto& t : threads) t.join();
  for (int k = 0; k < kThreads; ++k) {
    size_t r = 0;
    for (size_t z = 0; z < zones.size(); ++z) {
      const std::string& zone = zones[(z * (k + 1) + k) % zones.size()];
      for (int64_t t : instants)
        ASSERT_TRUE(Ours(zone.c_str(), t) == results[k][r++]) << zone << " " << t;
    }
  }
}

// --- Nothing is logged ---------------------------------------------------------

// A fresh process logging to a private directory: missing and damaged zones
// read as UTC without a word, however often they are used. The child's own
// marker line shows that the log was being written.
TEST(ZoneRuntimeTraceTest, BadZonesWriteNothingToTheLog) {
  if (!IsRerunChild()) {
    TempDir logs;
    const ChildResult r = RerunThisTest(
        {{"QKLogFilePath", logs.Path()}, {"AmbitTrace", std::string("2")}});
    ASSERT_EQ(0, r.exitCode) << r.output;
    std::string log;
    for (const std::string& f : logs.List()) log += ReadFile(logs.Path() + "/" + f);
    EXPECT_NE(std::string::npos, log.find("zone test marker")) << log;
    EXPECT_EQ(std::string::npos, log.find("(Error) ")) << log;
    EXPECT_EQ(std::string::npos, log.find("Zone")) << log;
    return;
  }
  TempDir root;
  WriteFile(root.Path() + "/broken", "TZif2 and then nothing useful");
  WriteFile(root.Path() + "/good", ReadWhole(std::string(kZoneInfo) + "/Asia/Tokyo"));
  SetZoneInfoRootForTesting(root.Path());
  for (int i = 0; i < 3; ++i) {
    for (const char* zone : {"Missing/Zone", "broken", "good", "../escape", ""}) {
      struct tm tm;
      const int64_t t = 1700000000;
      ASSERT_NE(nullptr, qkspecificlocaltime64_r(&t, &tm, zone));
    }
  }
  g_AmbitTrace.trace("zone test marker\n");
  SetZoneInfoRootForTesting("");
}

}  // namespace

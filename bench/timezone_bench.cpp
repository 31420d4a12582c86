// Zone-specific local time against the two ways callers had without it:
// switching the process's TZ around a localtime_r call, and localtime_r in
// the process's own zone (the floor: one zone, no switching).
//
// The process's own zone is set to America/New_York before the benchmarks
// run; conversions are for Europe/Berlin ("W. Europe Standard Time"). Each
// iteration takes the next of 1024 instants spread over 2000-2035 so that no
// single answer is cached.
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "ambit/ambit.h"
#include "benchmark/benchmark.h"
#include "ratio_main.h"

namespace {

constexpr size_t kInstants = 1024;
const char kOwnZone[] = "America/New_York";
const char kTargetZone[] = "Europe/Berlin";
const char kTargetWindowsName[] = "W. Europe Standard Time";

std::vector<time_t> Instants() {
  std::vector<time_t> out;
  unsigned long long x = 88172645463325252ULL;
  for (size_t i = 0; i < kInstants; ++i) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    out.push_back(static_cast<time_t>(946684800 + x % 1104537600));  // 2000-2035
  }
  return out;
}

std::vector<CPortable::SYSTEMTIME> UtcTimes() {
  std::vector<CPortable::SYSTEMTIME> out;
  for (time_t t : Instants()) {
    tm u;
    gmtime_r(&t, &u);
    CPortable::SYSTEMTIME st;
    st.wYear = static_cast<unsigned short>(u.tm_year + 1900);
    st.wMonth = static_cast<unsigned short>(u.tm_mon + 1);
    st.wDayOfWeek = static_cast<unsigned short>(u.tm_wday);
    st.wDay = static_cast<unsigned short>(u.tm_mday);
    st.wHour = static_cast<unsigned short>(u.tm_hour);
    st.wMinute = static_cast<unsigned short>(u.tm_min);
    st.wSecond = static_cast<unsigned short>(u.tm_sec);
    st.wMilliseconds = 250;
    out.push_back(st);
  }
  return out;
}

void Fill(const tm& t, unsigned short ms, CPortable::SYSTEMTIME* out) {
  out->wYear = static_cast<unsigned short>(t.tm_year + 1900);
  out->wMonth = static_cast<unsigned short>(t.tm_mon + 1);
  out->wDayOfWeek = static_cast<unsigned short>(t.tm_wday);
  out->wDay = static_cast<unsigned short>(t.tm_mday);
  out->wHour = static_cast<unsigned short>(t.tm_hour);
  out->wMinute = static_cast<unsigned short>(t.tm_min);
  out->wSecond = static_cast<unsigned short>(t.tm_sec);
  out->wMilliseconds = ms;
}

tm FromSystemTime(const CPortable::SYSTEMTIME& st) {
  tm t;
  std::memset(&t, 0, sizeof t);
  t.tm_year = st.wYear - 1900;
  t.tm_mon = st.wMonth - 1;
  t.tm_mday = st.wDay;
  t.tm_hour = st.wHour;
  t.tm_min = st.wMinute;
  t.tm_sec = st.wSecond;
  return t;
}

void BM_SystemTimeToTzSpecificLocalTime(benchmark::State& state) {
  const std::vector<CPortable::SYSTEMTIME> utc = UtcTimes();
  CPortable::_TIME_ZONE_INFORMATION tzi;
  std::memset(&tzi, 0, sizeof tzi);
  std::strcpy(tzi.StandardName, kTargetWindowsName);
  CPortable::SYSTEMTIME local;
  size_t i = 0;
  for (auto _ : state) {
    CPortable::SystemTimeToTzSpecificLocalTime(&tzi, &utc[i++ % kInstants], &local);
    benchmark::DoNotOptimize(local);
  }
}
BENCHMARK(BM_SystemTimeToTzSpecificLocalTime);

// The usual workaround: point TZ at the zone, convert, put TZ back.
void BM_SetenvTzsetLocaltimeRestore(benchmark::State& state) {
  const std::vector<CPortable::SYSTEMTIME> utc = UtcTimes();
  CPortable::SYSTEMTIME local;
  size_t i = 0;
  for (auto _ : state) {
    const CPortable::SYSTEMTIME& st = utc[i++ % kInstants];
    const char* old = std::getenv("TZ");
    const std::string saved = old != nullptr ? old : "";
    ::setenv("TZ", kTargetZone, 1);
    ::tzset();
    tm t = FromSystemTime(st);
    const time_t when = timegm(&t);
    tm out;
    localtime_r(&when, &out);
    if (old != nullptr)
      ::setenv("TZ", saved.c_str(), 1);
    else
      ::unsetenv("TZ");
    ::tzset();
    Fill(out, st.wMilliseconds, &local);
    benchmark::DoNotOptimize(local);
  }
}
BENCHMARK(BM_SetenvTzsetLocaltimeRestore);

// The floor: localtime_r in the process's own zone, on a time_t.
void BM_PlainLocaltimeR(benchmark::State& state) {
  const std::vector<time_t> instants = Instants();
  tm out;
  size_t i = 0;
  for (auto _ : state) {
    localtime_r(&instants[i++ % kInstants], &out);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_PlainLocaltimeR);

// The same floor with the record conversions around it that the zone
// operation does too (fields to seconds, seconds to fields).
void BM_PlainLocaltimeRWithRecords(benchmark::State& state) {
  const std::vector<CPortable::SYSTEMTIME> utc = UtcTimes();
  CPortable::SYSTEMTIME local;
  size_t i = 0;
  for (auto _ : state) {
    const CPortable::SYSTEMTIME& st = utc[i++ % kInstants];
    tm t = FromSystemTime(st);
    const time_t when = timegm(&t);
    tm out;
    localtime_r(&when, &out);
    Fill(out, st.wMilliseconds, &local);
    benchmark::DoNotOptimize(local);
  }
}
BENCHMARK(BM_PlainLocaltimeRWithRecords);

AMBIT_BENCH_RATIO("SystemTimeToTzSpecificLocalTime / setenv TZ+tzset+localtime_r+restore",
                  "BM_SystemTimeToTzSpecificLocalTime", "BM_SetenvTzsetLocaltimeRestore");
AMBIT_BENCH_RATIO("SystemTimeToTzSpecificLocalTime / plain localtime_r (own zone)",
                  "BM_SystemTimeToTzSpecificLocalTime", "BM_PlainLocaltimeR");

}  // namespace

int main(int argc, char** argv) {
  ::setenv("TZ", kOwnZone, 1);
  ::tzset();
  return ambit_bench::RunWithRatios(argc, argv);
}

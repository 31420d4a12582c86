// glibc's own answers, computed with a 64-bit time_t so that instants past
// 2038 can be compared too. This file is built with _TIME_BITS=64; no
// time_t crosses its interface.
#include "timezone/glibc_reference.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "support/forked_child.h"

static_assert(sizeof(time_t) == 8, "built with _TIME_BITS=64");

bool operator==(const SLocalRecord& a, const SLocalRecord& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

std::string ToString(const SLocalRecord& r) {
  std::ostringstream s;
  s << (r.year + 1900) << "-" << (r.mon + 1) << "-" << r.mday << " " << r.hour
    << ":" << r.min << ":" << r.sec << " wday " << r.wday << " yday " << r.yday
    << " isdst " << r.isdst << " gmtoff " << r.gmtoff << " \""
    << std::string(r.zone, strnlen(r.zone, sizeof r.zone)) << "\"";
  return s.str();
}

SLocalRecord ToRecord(const struct tm& t) {
  SLocalRecord r;
  std::memset(&r, 0, sizeof r);
  r.sec = t.tm_sec;
  r.min = t.tm_min;
  r.hour = t.tm_hour;
  r.mday = t.tm_mday;
  r.mon = t.tm_mon;
  r.year = t.tm_year;
  r.wday = t.tm_wday;
  r.yday = t.tm_yday;
  r.isdst = t.tm_isdst;
  r.gmtoff = static_cast<int32_t>(t.tm_gmtoff);
  if (t.tm_zone != nullptr) std::strncpy(r.zone, t.tm_zone, sizeof r.zone - 1);
  return r;
}

namespace {

bool WriteAll(int fd, const void* data, size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = ::write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// The child's work: set TZ for each case and write glibc's records.
int ComputeInChild(const std::vector<SZoneCase>& cases, int fd) {
  ::unsetenv("TZDIR");
  std::vector<SLocalRecord> records;
  for (const SZoneCase& c : cases) {
    ::setenv("TZ", c.glibcTz.c_str(), 1);
    ::tzset();
    records.clear();
    for (int64_t instant : c.instants) {
      const time_t t = static_cast<time_t>(instant);
      struct tm tm;
      std::memset(&tm, 0, sizeof tm);
      if (localtime_r(&t, &tm) == nullptr) return 3;
      records.push_back(ToRecord(tm));
    }
    if (!WriteAll(fd, records.data(), records.size() * sizeof(SLocalRecord)))
      return 4;
  }
  return 0;
}

}  // namespace

bool GlibcLocalTimes(const std::vector<SZoneCase>& cases,
                     std::vector<std::vector<SLocalRecord>>* out,
                     int nTimeoutMs, std::string* error) {
  size_t total = 0;
  for (const SZoneCase& c : cases) total += c.instants.size();
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    *error = "pipe failed";
    return false;
  }
  ForkedChild child([&] {
    ::close(fds[0]);
    return ComputeInChild(cases, fds[1]);
  });
  ::close(fds[1]);
  if (!child.Started()) {
    ::close(fds[0]);
    *error = "fork failed";
    return false;
  }

  std::vector<SLocalRecord> all(total);
  char* p = reinterpret_cast<char*>(all.data());
  size_t left = total * sizeof(SLocalRecord);
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(nTimeoutMs);
  while (left > 0) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        end - Clock::now()).count();
    if (ms <= 0) break;
    pollfd pfd = {fds[0], POLLIN, 0};
    if (::poll(&pfd, 1, static_cast<int>(ms)) <= 0) continue;
    const ssize_t n = ::read(fds[0], p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    p += n;
    left -= static_cast<size_t>(n);
  }
  ::close(fds[0]);
  const int code = child.Join(5000);
  if (left != 0 || code != 0) {
    *error = "child exit code " + std::to_string(code) + ", " +
             std::to_string(left) + " bytes missing";
    return false;
  }
  out->clear();
  size_t at = 0;
  for (const SZoneCase& c : cases) {
    out->emplace_back(all.begin() + at, all.begin() + at + c.instants.size());
    at += c.instants.size();
  }
  return true;
}

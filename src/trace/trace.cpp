// The library's own log object: a daily file, written line by line without
// locks, because tracing runs while the library holds its interprocess locks
// and must never block on them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ambit/portable.h"
#include "ambit/trace.h"
#include "portable/shared_file.h"
#include "portable/wall_clock.h"
#include "trace/trace_clock.h"
#include "trace/trace_file.h"
#include "trace/trace_impl.h"

namespace {

constexpr int kLineSize = 512;
constexpr unsigned long kEchoToConsole = 1;
constexpr mode_t kLogFileMode = 0666;  // every user's processes write the log
const char kDefaultDir[] = "/cf/quenbydata/Logs/";

}  // namespace

const time_t g_timeDayOfInfamy = 1000212480;  // 2001-09-11 12:48:00 UTC

void TraceFilePath(const char* dir, const tm& t, char (&path)[kTracePathSize]) {
  // A path longer than the buffer is cut on purpose.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
  std::snprintf(path, sizeof path, "%s/AmbitTrace-%02d%02d%02d.Log", dir,
                (t.tm_year + 1900) % 100, t.tm_mon + 1, t.tm_mday);
#pragma GCC diagnostic pop
}

AmbitTrace::AmbitTrace() : file(nullptr), day(0), minute(0) {
  const char* level = std::getenv("AmbitTrace");
  m_level = (level != nullptr && *level != '\0')
                ? static_cast<unsigned long>(std::strtol(level, nullptr, 10))
                : kTraceDefaultLevel;
  const char* logDir = std::getenv("QKLogFilePath");
  if (logDir != nullptr && *logDir != '\0') {
    std::strncpy(dir, logDir, sizeof dir - 1);
    dir[sizeof dir - 1] = '\0';
  } else {
    std::strcpy(dir, kDefaultDir);
  }
  if ((m_level & 0xFF) >= 4) g_pambittracing = this;
  g_pAmbitTrace = this;
}

AmbitTrace::~AmbitTrace() {
  if ((m_level & 0xFF) > 3) g_pambittracing = nullptr;
  g_pAmbitTrace = nullptr;
  if (file != nullptr) {
    std::fclose(file);
    file = nullptr;
  }
}

void AmbitTrace::traceConditional(unsigned long mask, unsigned long level,
                                  const char* format, va_list args) {
  if (m_level & mask) tracev(format, args);
}

void AmbitTrace::traceUnconditional(unsigned long level, const char* format,
                                    va_list args) {
  tracev(format, args);
}

void AmbitTrace::trace(const char* format, ...) {
  va_list args;
  va_start(args, format);
  tracev(format, args);
  va_end(args);
}

void AmbitTrace::GetCurTime(tm* out) {
  tm t;
  std::memset(&t, 0, sizeof t);
  if (!LocalBrokenDownTime(g_traceClock.pfnSeconds(), &t))
    LocalBrokenDownTime(g_timeDayOfInfamy, &t);
  *out = t;
}

void AmbitTrace::openTraceFile() {
  tm now;
  GetCurTime(&now);
  if (now.tm_mday == day) {
    if (file != nullptr) return;
    // An earlier open failed: try again at most once a minute.
    if (now.tm_min == minute) return;
  }
  minute = now.tm_min;
  day = now.tm_mday;
  if (file != nullptr) {
    std::fclose(file);
    file = nullptr;
  }
  char path[kTracePathSize];
  TraceFilePath(dir, now, path);
  // The log directory may be writable by others: a symlink planted under
  // the day's name must not make this process append to, or change the
  // mode of, the file it points to. The mode goes to the file opened,
  // through its descriptor, and only when the open worked.
  const int fd = OpenSharedFile(path, O_RDWR | O_APPEND | O_CREAT, kLogFileMode);
  if (fd < 0) return;
  ::fchmod(fd, kLogFileMode);
  file = ::fdopen(fd, "a+");
  if (file == nullptr) ::close(fd);
}

void AmbitTrace::tracev(const char* format, va_list args) {
  openTraceFile();
  if (file == nullptr) return;

  char line[kLineSize];
  CPortable::SYSTEMTIME st;
  LocalSystemTime(g_traceClock, &st);
  int prefix = std::snprintf(
      line, kLineSize - 1, "%02d:%02d:%02d.%03d (%5d:%5d) ", st.wHour,
      st.wMinute, st.wSecond, st.wMilliseconds,
      static_cast<int>(CPortable::GetCurrentProcessId()),
      static_cast<int>(CPortable::GetCurrentThreadId()));
  if (prefix < 0) prefix = 0;
  if (prefix > kLineSize - 1) prefix = kLineSize - 1;
  std::vsnprintf(line + prefix, kLineSize - prefix, format, args);

  std::fputs(line, file);
  std::fflush(file);
  if (m_level & kEchoToConsole) {
    // The finished line is the format of the console copy, so a '%' in the
    // traced text is read a second time there; the file copy stays exact.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::printf(line);
#pragma GCC diagnostic pop
  }
}

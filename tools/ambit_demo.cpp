// ambit-demo: shows the library's identifiers, clocks and trace log at work.
// The log directory is taken from "QKLogFilePath" when the library loads.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "ambit/ambit.h"

namespace {

void PrintSystemTime(const char* label, const CPortable::SYSTEMTIME& st) {
  std::printf("%-22s %04u-%02u-%02u %02u:%02u:%02u.%03u (day of week %u)\n",
              label, st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute,
              st.wSecond, st.wMilliseconds, st.wDayOfWeek);
}

std::string LastLineOf(const std::string& path) {
  std::ifstream in(path);
  std::string line, last;
  while (std::getline(in, line)) last = line;
  return last;
}

}  // namespace

int main() {
  std::printf("ambit %s\n", CPortable::getBuildVersion().c_str());
  std::printf("%-22s %lu\n", "process id", CPortable::GetCurrentProcessId());
  std::printf("%-22s %lu\n", "kernel thread id", CPortable::GetCurrentThreadId());
  std::printf("%-22s %lu ms\n", "tick count", CPortable::GetTickCount());

  CPortable::FILETIME ft;
  CPortable::GetSystemTimeAsFileTime(&ft);
  const unsigned long long ull =
      (static_cast<unsigned long long>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  std::printf("%-22s %llu (high 0x%08lX, low 0x%08lX)\n", "FILETIME (UTC)", ull,
              ft.dwHighDateTime, ft.dwLowDateTime);

  CPortable::SYSTEMTIME st;
  CPortable::GetSystemTime(&st);
  PrintSystemTime("SYSTEMTIME UTC", st);
  CPortable::GetLocalTime(&st);
  char zone[16];
  CPortable::GetTimeZone(zone, sizeof zone);
  PrintSystemTime((std::string("SYSTEMTIME local ") + zone).c_str(), st);

  if (g_pAmbitTrace == nullptr) {
    std::printf("trace log: not available\n");
    return 1;
  }
  std::printf("%-22s %s (level %lu)\n", "log directory", g_pAmbitTrace->dir,
              AmbitTrace::m_level);
  g_pAmbitTrace->trace("ambit-demo: hello from process %lu\n",
                       CPortable::GetCurrentProcessId());
  if (g_pAmbitTrace->file == nullptr) {
    std::printf("trace log: cannot open a file in %s (set QKLogFilePath)\n",
                g_pAmbitTrace->dir);
    return 1;
  }
  tm now;
  AmbitTrace::GetCurTime(&now);
  char path[300];
  std::snprintf(path, sizeof path, "%s/AmbitTrace-%02d%02d%02d.Log",
                g_pAmbitTrace->dir, (now.tm_year + 1900) % 100, now.tm_mon + 1,
                now.tm_mday);
  std::printf("%-22s %s\n", "trace file", path);
  std::printf("%-22s %s\n", "last line", LastLineOf(path).c_str());
  return 0;
}

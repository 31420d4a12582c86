// Facts about processes, from /proc and from ps, and the command runner
// they use.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

#include "ambit/portable.h"
#include "portable/wall_clock.h"
#include "trace/trace_impl.h"

namespace {

constexpr size_t kProcStatReadSize = 1024;
constexpr int kMaxFilledRuns = 10;
constexpr unsigned long kProgramNameFirstSize = 128;

char szExeName[255];  // filled by the first successful getExeName()

}  // namespace

unsigned long long CPortable::GetProcessStartTime(unsigned long pid) {
  char path[254];
  std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  long startTicks = 0;
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    AMBIT_TRACE_ERROR("(Error) CPortable::GetProcessStartTime, can't open %s\n",
                      path);
  } else {
    char buffer[kProcStatReadSize + 1];
    const ssize_t n = ::read(fd, buffer, kProcStatReadSize);
    ::close(fd);
    if (n > 0) {
      buffer[n] = '\0';
      // The 22nd field is the start time in ticks after boot. The command
      // name is read as one blank-free word: a blank in it shifts the
      // fields, which nothing detects.
      int i1, i4, i5, i6, i7;
      char command[kProcStatReadSize + 1];
      char state;
      unsigned long u[8];
      long l[6];
      std::sscanf(buffer,
                  "%d %s %c %d %d %d %d %lu %lu %lu %lu %lu %lu %lu %lu %ld "
                  "%ld %ld %ld %ld %ld %ld",
                  &i1, command, &state, &i4, &i5, &i6, &i7, &u[0], &u[1], &u[2],
                  &u[3], &u[4], &u[5], &u[6], &u[7], &l[0], &l[1], &l[2], &l[3],
                  &l[4], &l[5], &startTicks);
    }
  }
  const unsigned long seconds =
      static_cast<unsigned long>(static_cast<unsigned long long>(startTicks) /
                                 g_ullHertz) +
      g_dwBootTime;

  // Converted with 64-bit seconds: unsigned 32-bit seconds reach 2106, and
  // this file's time_t would wrap them after 2038.
  tm utc;
  std::memset(&utc, 0, sizeof utc);
  UtcBrokenDownTime(static_cast<int64_t>(seconds), &utc);
  SYSTEMTIME st;
  SystemTimeFromTm(utc, 0, &st);
  unsigned long long fileTime = 0;
  ULLSystemTimeToFileTime(&st, &fileTime);
  return fileTime;
}

std::string CPortable::getExeName() {
  if (szExeName[0] == '\0') {
    char link[255];
    std::memset(link, 0, sizeof link);
    const ssize_t n = ::readlink("/proc/self/exe", link, sizeof link - 1);
    if (n > 0) {
      link[n] = '\0';
      const char* slash = std::strrchr(link, '/');
      const char* base = slash != nullptr ? slash + 1 : link;
      std::strncpy(szExeName, base, sizeof szExeName - 1);
      szExeName[sizeof szExeName - 1] = '\0';
    }
  }
  return szExeName;
}

char* runSystemCommand(const std::string& command, unsigned long initialSize) {
  unsigned long size = initialSize;
  for (int filledRuns = 0;;) {
    char* buffer = new (std::nothrow) char[size];
    if (buffer == nullptr) return nullptr;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
      delete[] buffer;
      return nullptr;
    }
    std::memset(buffer, 0, size);
    const size_t n = std::fread(buffer, 1, size - 1, pipe);
    if (::pclose(pipe) < 0) {
      delete[] buffer;
      return nullptr;
    }
    if (n < size - 1) return buffer;  // the whole output fitted
    // The output may have been cut: run it again with half as much room more.
    delete[] buffer;
    if (++filledRuns == kMaxFilledRuns) return nullptr;
    size += size / 2;
  }
}

std::string getProgramName(unsigned long pid) {
  char command[64];
  std::snprintf(command, sizeof command, "ps -p%d\n", static_cast<int>(pid));
  char* output = runSystemCommand(command, kProgramNameFirstSize);
  if (output == nullptr) return "";
  std::string name;
  // Skip the header line; the process's line is the second.
  if (const char* header = std::strchr(output, '\n')) {
    const char* line = header + 1;
    if (const char* end = std::strchr(line, '\n')) {
      const char* last = line;
      for (const char* p = line; p < end; ++p)
        if (*p == ' ') last = p + 1;
      name.assign(last, end);
    }
  }
  delete[] output;
  return name;
}

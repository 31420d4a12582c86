// Facts read once when the library loads: the kernel's clock-tick rate and
// the machine's boot time.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "ambit/portable.h"
#include "portable/process_facts.h"
#include "trace/trace_impl.h"

namespace {
constexpr unsigned long kAtNull = 0;
constexpr unsigned long kAtClockTick = 17;
// Deliberately not 100: callers recognise the missing entry by it.
constexpr unsigned long long kMissingClockTick = 42;
constexpr size_t kStatReadSize = 2048;
}  // namespace

const unsigned long* AuxiliaryVectorAfter(char** env) {
  char** p = env;
  while (*p != nullptr) ++p;
  return reinterpret_cast<const unsigned long*>(p + 1);
}

unsigned long long ClockTicksPerSecond(const unsigned long* auxv) {
  for (const unsigned long* pair = auxv; pair[0] != kAtNull; pair += 2)
    if (pair[0] == kAtClockTick) return pair[1];
  return kMissingClockTick;
}

unsigned long BootTimeFromStatFile(const char* path) {
  // Read in 64 bits: a 32-bit long would stop at 2038, and the result, as
  // unsigned 32-bit seconds, holds boot times up to 2106.
  long long bootTime = 0;
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    AMBIT_TRACE_ERROR("(Error) getBootTime, can't open /proc/stat\n");
  } else {
    // Only the first read is looked at.
    char buffer[kStatReadSize + 1];
    const ssize_t n = ::read(fd, buffer, kStatReadSize);
    buffer[n > 0 ? n : 0] = '\0';
    if (const char* word = std::strstr(buffer, "btime")) {
      const char* value = word + 6;  // the word and one blank
      if (const char* end = std::strchr(value, '\n')) {
        const size_t length = static_cast<size_t>(end - value);
        if (char* text = new (std::nothrow) char[length + 1]) {
          std::memcpy(text, value, length);
          text[length] = '\0';
          std::sscanf(text, "%lld", &bootTime);
          delete[] text;
        }
      }
    }
    ::close(fd);
  }
  if (bootTime == 0) AMBIT_TRACE_ERROR("(Error) getBootTime failed\n");
  return static_cast<unsigned long>(bootTime);
}

unsigned long getBootTime() { return BootTimeFromStatFile("/proc/stat"); }

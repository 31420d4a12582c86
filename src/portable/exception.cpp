#include "ambit/exception.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ambit/portable.h"
#include "trace/trace_impl.h"

QKException::QKException(long code, char* file, long line) : code(code) {
  std::memset(where, 0, sizeof where);
  if (file != nullptr) {
    // At most 269 characters: a long file name loses the dot and the line.
    std::snprintf(where, 270, "%s.%d", file, static_cast<int>(line));
    where[270] = '\0';
  }
}

QKException::~QKException() = default;

void CPortable::throwQKException(long code, const char* file,
                                 unsigned long line) {
  // Logged before the exception exists, so an uncaught throw is still seen.
  AMBIT_TRACE_ERROR("(Error) Throwing exception 0x%08X at %s#%d\n",
                    static_cast<unsigned>(code), file, static_cast<int>(line));
  throw QKException(code, file, static_cast<long>(line));
}

long CPortable::GetLastError() { return errno; }

void CPortable::CPDbgBreak() {}

std::string CPortable::getBuildVersion() { return "19.43.1700.0"; }

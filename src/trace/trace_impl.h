#ifndef AMBIT_TRACE_TRACE_IMPL_H_
#define AMBIT_TRACE_TRACE_IMPL_H_

#include "ambit/portable.h"
#include "ambit/trace.h"

// Level bit of error and dump lines on the direct path; also the level
// used when "AmbitTrace" is unset.
constexpr unsigned long kTraceErrorLines = 2;
constexpr unsigned long kTraceDefaultLevel = 2;

// True when error and dump lines go to the log file: the log object exists
// and its level has bit 2. Direct-path callers test this before formatting.
inline bool ErrorLinesOn() {
  return g_pAmbitTrace != nullptr && (AmbitTrace::m_level & kTraceErrorLines);
}

// Writes an "(Error) ..." or dump line on the direct path when it is on.
#define AMBIT_TRACE_ERROR(...)                                  \
  do {                                                          \
    if (ErrorLinesOn()) g_pAmbitTrace->trace(__VA_ARGS__);      \
  } while (0)

// Writes any other line that goes straight to the log file (registry
// progress lines, dumps) under the same condition.
#define AMBIT_TRACE_LOG(...) AMBIT_TRACE_ERROR(__VA_ARGS__)

// Throws QKException `code` from the calling source file and line, after the
// "(Error) Throwing exception" line.
#define AMBIT_THROW(code) \
  CPortable::throwQKException((code), __FILE_NAME__, __LINE__)

#endif  // AMBIT_TRACE_TRACE_IMPL_H_

#ifndef AMBIT_TRACE_H_
#define AMBIT_TRACE_H_

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "ambit/export.h"

// Diagnostics take two paths. Error lines and dumps go straight to the
// library's daily log file through g_pAmbitTrace when bit 2 of
// AmbitTrace::m_level is set. Category lines go through traceImpl() to the
// installed tracing hook, when there is one: the library's own AmbitTrace
// (installed when the level asks for a category) or a client's AmbitTracing.
//
// Level bits, which are also the categories of traceImpl():
//   1 echo log lines to standard output      2 error and dump lines
//   4 events and QoS                         8 shared registries
//  16 object life cycle and threads         32 critical sections
// 256 multi-event waits
// The level of traceImpl() is 2 for ordinary lines and 64 for error lines.

// A tracing hook. Implementations must be callable from any thread, also
// while the library holds its interprocess locks, and must not block.
class AMBIT_API AmbitTracing {
 public:
  AmbitTracing();
  virtual ~AmbitTracing();
  virtual void traceConditional(unsigned long mask, unsigned long level,
                                const char* format, va_list args) = 0;
  virtual void traceUnconditional(unsigned long level, const char* format,
                                  va_list args) = 0;
};

// The daily log file "<dir>/AmbitTrace-YYMMDD.Log". Each line is prefixed
// with "HH:MM:SS.mmm (  pid:  tid) ", cut to 511 bytes and flushed at once.
// The level comes from the environment variable "AmbitTrace" (default 2) and
// the directory from "QKLogFilePath" (default "/cf/quenbydata/Logs/"), both
// read once when the library is loaded. No lock is taken: lines of
// different threads interleave at whole lines; an unopenable directory
// drops lines silently and is retried at most once a minute.
class AMBIT_API AmbitTrace : public AmbitTracing {
 public:
  AmbitTrace();
  ~AmbitTrace() override;
  AmbitTrace(const AmbitTrace&) = delete;
  AmbitTrace& operator=(const AmbitTrace&) = delete;

  // Writes the line when m_level & mask is non-zero.
  void traceConditional(unsigned long mask, unsigned long level,
                        const char* format, va_list args) override;
  // Writes the line without a level test.
  void traceUnconditional(unsigned long level, const char* format,
                          va_list args) override;
  // Writes the line; the caller has tested the level bit.
  void trace(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void tracev(const char* format, va_list args);
  // Opens today's file, closing the previous day's.
  void openTraceFile();
  // Local broken-down time now, or of g_timeDayOfInfamy when the current
  // time cannot be converted.
  static void GetCurTime(tm* out);

  static unsigned long m_level;  // level bits, shared by the process

  FILE* file;     // the open log file, or null
  int day;        // day of the month `file` belongs to; 0 before any open
  int minute;     // minute of the last attempt to open
  char dir[255];  // log directory, at most 254 characters
};

// Control of the tracing hook and level. No lock is taken.
class AMBIT_API AmbitDebug {
 public:
  // Installs the hook (null removes it); the old hook is not destroyed.
  static void setTracingHelper(AmbitTracing* hook);
  static AmbitTracing* getTracingHelper();
  // Sets the level, read as signed: values above 256 are ignored. Installs
  // g_pAmbitTrace as the hook when a category bit (mask 0xFC) is set and
  // removes the hook otherwise, replacing any client hook either way.
  static void setAmbitTrace(unsigned long newLevel);
  // Writes the registry of named segments and the table of named objects
  // to the log (level bit 2).
  static void dumpNamedObjectsInfo();
};

// Forwards the line to the installed hook's traceConditional(); does nothing
// without a hook. Call sites test g_pambittracing before building arguments.
AMBIT_API void traceImpl(unsigned long category, unsigned long level,
                         const char* format, ...)
    __attribute__((format(printf, 3, 4)));

extern AMBIT_API AmbitTrace g_AmbitTrace;      // the one log object
extern AMBIT_API AmbitTrace* g_pAmbitTrace;    // &g_AmbitTrace while it lives
extern AMBIT_API AmbitTracing* g_pambittracing;  // the hook, or null

#endif  // AMBIT_TRACE_H_

#ifndef AMBIT_TRACE_TRACE_FILE_H_
#define AMBIT_TRACE_TRACE_FILE_H_

#include <ctime>

// Room for a log file path: paths are cut to kTracePathSize - 1 characters.
constexpr int kTracePathSize = 254;

// Writes "<dir>/AmbitTrace-YYMMDD.Log" for the local date `t` into
// path[kTracePathSize]. A directory that ends in '/' keeps it, so the path
// then holds "//": that is the accepted form.
void TraceFilePath(const char* dir, const tm& t, char (&path)[kTracePathSize]);

#endif  // AMBIT_TRACE_TRACE_FILE_H_

#ifndef AMBIT_CRITSEC_H_
#define AMBIT_CRITSEC_H_

#include <string>

#include "ambit/export.h"

class CPCritSecImpl;

// A recursive lock private to one process. The same thread may enter any
// number of times and leaves once per enter. The line numbers that callers
// pass serve only the trace lines (category 32), which are written when the
// section allows tracing and a tracing hook is installed. Nothing throws
// except allocation in the constructor.
class AMBIT_API CPCritSec {
 public:
  CPCritSec(std::string name, int allowTrace);
  ~CPCritSec();
  CPCritSec(const CPCritSec&) = delete;
  CPCritSec& operator=(const CPCritSec&) = delete;

  // 0, or the error number of pthread_mutex_lock. Blocks.
  int enter(long lineNo);
  // 0, or the error number of pthread_mutex_unlock (EPERM when the calling
  // thread does not hold the section).
  int leave(long lineNo);
  // 1 when entered (also recursively, and on any failure other than EBUSY),
  // 0 when another thread holds the section.
  int tryEnter(long lineNo);
  // 1 when another thread holds the section; 0 when it is free or held by
  // the calling thread.
  int test();
  void setTrace(int trace);
  void setAllowTrace(int allowTrace);

 private:
  CPCritSecImpl* m_pImpl;  // owned
  int m_allowTrace;
  int m_trace;
};

#endif  // AMBIT_CRITSEC_H_

#ifndef AMBIT_SYNC_CRITSEC_IMPL_H_
#define AMBIT_SYNC_CRITSEC_IMPL_H_

#include <string>

#include "sync/recursive_lock.h"

// The work behind CPCritSec: a process-private recursive lock plus the name
// and flags its trace lines (category 32) use.
class CPCritSecImpl {
 public:
  CPCritSecImpl(std::string name, int allowTrace);
  ~CPCritSecImpl();
  CPCritSecImpl(const CPCritSecImpl&) = delete;
  CPCritSecImpl& operator=(const CPCritSecImpl&) = delete;

  int enter(long lineNo);
  int leave(long lineNo);
  int tryEnter(long lineNo);
  int test();
  void setTrace(int trace) { m_trace = trace; }
  void setAllowTrace(int allowTrace) { m_allowTrace = allowTrace; }

 private:
  RecursiveLock m_mutex;
  std::string m_name;  // for trace lines only; may be empty
  int m_allowTrace;    // gates every trace line of this class
  long m_lineNo;       // 0, and never written again: test() prints it
  int m_trace;         // kept for the facade; no operation reads it
};

#endif  // AMBIT_SYNC_CRITSEC_IMPL_H_

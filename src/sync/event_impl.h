#ifndef AMBIT_SYNC_EVENT_IMPL_H_
#define AMBIT_SYNC_EVENT_IMPL_H_

#include <pthread.h>

#include <cstdint>
#include <string>

#include "names/name_map.h"

// The work behind CPEvent and CPEventEx. An unnamed event uses the members
// below; a named one aims the same pointers at its entry in the name map.
// The value word is read and written only under the event's mutex.
class CPEventImpl {
 public:
  // Throws QKException 0xC1210E16 (create) or 0xC1210E17 (open) when the
  // named event cannot be had.
  CPEventImpl(int create, const std::string& name, int allowTrace);
  ~CPEventImpl();
  CPEventImpl(const CPEventImpl&) = delete;
  CPEventImpl& operator=(const CPEventImpl&) = delete;

  long wake(long bits);
  // One wait of at most timeoutMs (0xFFFFFFFF: none): the bits, 0xE0000000
  // on time-out or 0xD0000000 on failure; the event is reset in all cases.
  unsigned long wait(unsigned long timeoutMs);
  void setTrace(int trace) { m_trace = trace; }

 private:
  // The blocking part of a named event's wait, entered and left with the
  // event's mutex held: 0 when woken or when the value is set, ETIMEDOUT,
  // or another errno of the futex wait.
  int waitNamed(unsigned long timeoutMs);

  int m_allowTrace;
  unsigned long m_localValue;
  pthread_cond_t m_localCond;
  pthread_mutex_t m_localMutex;
  CNameMap::SNAMEINFO* m_pNameInfo;  // null for an unnamed event
  int* m_pPid;                        // the entry's holder word (named only)
  unsigned long* m_pValue;
  pthread_cond_t* m_pCond;
  pthread_mutex_t* m_pMutex;
  uint32_t* m_pSeq;  // a named event's wake sequence (futex word), then its
                     // count of sleeping waiters; null when unnamed
  int m_trace;
};

#endif  // AMBIT_SYNC_EVENT_IMPL_H_

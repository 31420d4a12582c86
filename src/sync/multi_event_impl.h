#ifndef AMBIT_SYNC_MULTI_EVENT_IMPL_H_
#define AMBIT_SYNC_MULTI_EVENT_IMPL_H_

#include <pthread.h>

#include <vector>

// The work behind CPMultiEvent. Everything is guarded by one recursive
// mutex, which the helpers take again while it is held.
class CPMultiEventImpl {
 public:
  explicit CPMultiEventImpl(int unused);
  ~CPMultiEventImpl();
  CPMultiEventImpl(const CPMultiEventImpl&) = delete;
  CPMultiEventImpl& operator=(const CPMultiEventImpl&) = delete;

  void wake(long id);
  void ResetEvent(long id);
  void pushEvent(long id);
  void pushEvents(long count, long* ids);
  long WaitForMultipleObjects(long count, long* ids, int waitAll, unsigned long timeoutMs);
  long wait(unsigned long timeoutMs);
  void setTrace(int trace) { m_trace = trace; }

  bool isValidIndex(long index);
  bool isInterestedEvent(long id);
  long getEventIndex(long id);
  void pushPreWaitEvent(long id);
  void popPreWaitEvent(long id);
  bool setPreWaitEvents();

 private:
  long m_index;  // of the signalled id in m_interested; kNoIndex = none
  pthread_cond_t m_cond;
  pthread_mutex_t m_mutex;
  long* m_pIndex;
  pthread_cond_t* m_pCond;
  pthread_mutex_t* m_pMutex;
  int m_trace;
  int m_waitStarted;
  std::vector<long> m_interested;  // of the current (or last) wait, no duplicates
  std::vector<long> m_preWait;     // kept signals, oldest first, no duplicates
};

#endif  // AMBIT_SYNC_MULTI_EVENT_IMPL_H_

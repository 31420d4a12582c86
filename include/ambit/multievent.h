#ifndef AMBIT_MULTIEVENT_H_
#define AMBIT_MULTIEVENT_H_

#include "ambit/export.h"

class CPMultiEventImpl;
class CTerminateWait;

// One waiter waits for any of several numbered events of its own process,
// in the manner of WaitForMultipleObjects. Events are caller-chosen ids;
// other threads signal them with SetEvent or wake. A wait returns the
// position of the signalled id among the ids it named (the lowest position
// when several were signalled); signals that arrive while nobody waits, or
// for ids the current wait does not name, are kept (once each) and satisfy a
// later wait that names them. Results: the index, 0xE0000000 on time-out,
// 0xC0000000 when terminate asked to stop, 0xD0000000 on failure,
// 0xA0000000 when woken without a known index. Nothing throws.
class AMBIT_API CPMultiEvent {
 public:
  explicit CPMultiEvent(int unused);
  ~CPMultiEvent();
  CPMultiEvent(const CPMultiEvent&) = delete;
  CPMultiEvent& operator=(const CPMultiEvent&) = delete;

  void SetEvent(long id);
  void wake(long id);
  // Withdraws a signal of id: from the current wait and from the kept ones.
  void ResetEvent(long id);
  // Add ids to the list the next bare wait() uses.
  void pushEvent(long id);
  void pushEvents(long count, long* ids);
  long WaitForSingleObject(long id, unsigned long timeoutMs);
  // waitAll is accepted and ignored: every wait is for any one id.
  long WaitForMultipleObjects(long count, long* ids, int waitAll, unsigned long timeoutMs);
  long wait(unsigned long timeoutMs, CTerminateWait* terminate);
  void setTrace(int trace);

 private:
  CPMultiEventImpl* m_pImpl;  // owned
  int m_trace;
};

#endif  // AMBIT_MULTIEVENT_H_

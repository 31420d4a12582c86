#ifndef AMBIT_THREAD_H_
#define AMBIT_THREAD_H_

#include <string>

#include "ambit/export.h"
#include "ambit/portable.h"

class CPEvent;
class CPThreadImpl;
class CPThreadImplEx;

// A named thread that runs function(argument) from construction on. The
// function is expected to wait on the caller's stop event and return when
// it fires: the destructor wakes the event with 0x8000000, again every 200
// ms, and blocks (without limit) until the function has returned. An
// exception escaping the function is traced and swallowed. The constructor
// throws QKException 0xC1210E15 when the thread cannot be started.
class AMBIT_API CPThread {
 public:
  CPThread(const std::string& name, void (*function)(void*), void* argument,
           CPEvent* stopEvent);
  ~CPThread();
  CPThread(const CPThread&) = delete;
  CPThread& operator=(const CPThread&) = delete;

  unsigned long getID();  // the kernel thread id

 private:
  CPThreadImpl* m_pImpl;  // owned
};

// The same with two-phase use. Finalize wakes the stop event once and does
// not wait: finalise only after IsRunning() went to 0, or the thread writes
// into freed memory.
class AMBIT_API CPThreadEx {
 public:
  CPThreadEx();
  ~CPThreadEx();
  CPThreadEx(const CPThreadEx&) = delete;
  CPThreadEx& operator=(const CPThreadEx&) = delete;

  // 0; 0xC1210E10 when it cannot allocate; 0xC1210E15 when the thread
  // cannot be started. Does nothing and returns 0 when already initialised.
  unsigned long Initialize(const std::string& name, void (*function)(void*),
                           void* argument, CPEvent* stopEvent);
  // Always 0.
  unsigned long Finalize();
  unsigned long getID();  // 0 when not initialised
  int IsRunning();        // 1 while the function runs

 private:
  CPThreadImplEx* m_pImpl;  // owned; null until Initialize succeeds
};

#endif  // AMBIT_THREAD_H_

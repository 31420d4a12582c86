#ifndef AMBIT_EVENT_H_
#define AMBIT_EVENT_H_

#include <string>

#include "ambit/export.h"

class CPEventImpl;

// Supplied by a caller to abandon a long wait: the waits of the library's
// objects ask it before every slice of at most 5000 ms, and stop with
// 0xC0000000 when it answers non-zero. The library never creates or deletes
// one. The check is the class's first virtual function, ahead of the
// destructor: callers may supply any class with that layout, so its order
// here is part of the binary interface.
class AMBIT_API CTerminateWait {
 public:
  // Non-zero: stop waiting now. Called from the waiting thread.
  virtual int shouldTerminate() = 0;
  virtual ~CTerminateWait() {}
};

// An auto-reset event that carries a word of wake bits. wake() ORs bits in
// and releases at most one waiter; a successful wait() returns the bits and
// resets the event, so two wakes before a waiter runs merge into one
// wake-up. A named event lives in the machine-wide name map and is shared
// by every process that opens the name; an empty name makes an event
// private to the process. Construction throws QKException 0xC1210E16 (create)
// or 0xC1210E17 (open only) when the named event cannot be had.
class AMBIT_API CPEvent {
 public:
  // create non-zero: create the named event or open it if it exists; zero:
  // open an existing one only.
  CPEvent(int create, const std::string& name, int allowTrace);
  ~CPEvent();
  CPEvent(const CPEvent&) = delete;
  CPEvent& operator=(const CPEvent&) = delete;

  long wake(long bits);
  // The wake bits (0 when woken without bits, also by a spurious wake-up),
  // 0xE0000000 on time-out, 0xC0000000 when terminate asked to stop,
  // 0xD0000000 on failure. 0xFFFFFFFF waits without limit; terminate may be
  // null. With terminate, the wait runs in slices of min(timeout, 5000) ms
  // and may overrun the timeout by up to one slice.
  unsigned long wait(unsigned long timeoutMs, CTerminateWait* terminate);
  void setTrace(int trace);

 private:
  CPEventImpl* m_pImpl;  // owned
  int m_allowTrace;
  int m_trace;
};

// The same event with two-phase use: Initialize() opens it, Finalize()
// closes it (repeatable), and it may be initialised again afterwards. wake
// and wait must only be called while it is initialised.
class AMBIT_API CPEventEx {
 public:
  explicit CPEventEx(int allowTrace);
  ~CPEventEx();
  CPEventEx(const CPEventEx&) = delete;
  CPEventEx& operator=(const CPEventEx&) = delete;

  // 0, or 0xC1210E10 when the implementation cannot be allocated; a named
  // event that cannot be had throws as CPEvent's constructor does. Does
  // nothing and returns 0 when already initialised.
  unsigned long Initialize(int create, const std::string& name);
  // Always 0.
  unsigned long Finalize();
  long wake(long bits);
  unsigned long wait(unsigned long timeoutMs, CTerminateWait* terminate);
  void setTrace(int trace);

 private:
  CPEventImpl* m_pImpl;  // owned; null while not initialised
  int m_allowTrace;
  int m_trace;
};

#endif  // AMBIT_EVENT_H_

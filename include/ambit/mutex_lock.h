#ifndef AMBIT_MUTEX_LOCK_H_
#define AMBIT_MUTEX_LOCK_H_

#include "ambit/exception.h"
#include "ambit/export.h"
#include "ambit/mutex.h"

class CTerminateWait;

// Holds a CPMutex for the lifetime of a scope. The constructor waits, the
// destructor releases, but only if the wait succeeded, so a block left by
// return, break or an exception never leaves the mutex held, and a wait that
// timed out never releases a lock that someone else holds.
//
//   CPMutexLock lock(mutex, 1000);
//   if (!lock.acquired()) return lock.result();  // e.g. 0xE0000000
//   ... work that may throw ...
//
// The guard belongs to the thread that built it; it is neither copied nor
// moved. The mutex must outlive it. Waiting blocks as CPMutex::wait does.
class CPMutexLock {
 public:
  // Waits for `mutex` up to `timeoutMs` (QK_INFINITE: no limit); `terminate`
  // may abandon the wait, as in CPMutex::wait.
  explicit CPMutexLock(CPMutex& mutex, unsigned long timeoutMs = QK_INFINITE,
                       CTerminateWait* terminate = nullptr)
      : m_mutex(mutex), m_result(mutex.wait(timeoutMs, terminate)), m_held(m_result == 0) {}

  ~CPMutexLock() { unlock(); }

  CPMutexLock(const CPMutexLock&) = delete;
  CPMutexLock& operator=(const CPMutexLock&) = delete;

  // True while this guard holds the mutex.
  bool acquired() const { return m_held; }
  explicit operator bool() const { return m_held; }

  // What the wait returned: 0 when acquired, QK_WAIT_TIMEOUT, QK_WAIT_ABANDONED
  // or QK_WAIT_FAILED otherwise.
  unsigned long result() const { return m_result; }

  // Releases early; the destructor then has nothing left to do. Never
  // throws: a release that fails leaves nothing to undo.
  void unlock() {
    if (!m_held) return;
    m_held = false;
    try {
      m_mutex.release();
    } catch (const QKException&) {
    }
  }

 private:
  CPMutex& m_mutex;
  unsigned long m_result;
  bool m_held;
};

#endif  // AMBIT_MUTEX_LOCK_H_

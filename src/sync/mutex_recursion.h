#ifndef AMBIT_SYNC_MUTEX_RECURSION_H_
#define AMBIT_SYNC_MUTEX_RECURSION_H_

#include <pthread.h>

#include <ctime>
#include <map>
#include <string>

#include "ambit/critsec.h"

// Recursion for a named mutex whose shared pthread mutex is of the plain,
// non-recursive kind. One record exists per mutex name and process; it is
// private to the process and never placed in shared memory. The shared
// mutex keeps processes apart; the record lets the thread of this process
// that owns it lock again, counting, and unlocks the shared mutex only when
// the count returns to 0.
//
// Every other thread of the process waits at the record's gate, a
// per-process critical section that the owning thread keeps entered once
// per successful lock, so at most one thread of a process ever waits in the
// shared mutex. A lock that fails or times out returns the pthread error
// and keeps the gate entered by the calling thread: the caller has to know
// that. The wait at the gate has no time limit, even in timedlock().
//
// The shared mutex is passed to every call; the record does not keep it.
// Trace lines (category 16, level 2) are written whenever a tracing hook is
// installed; they have no per-object flag.
class CPMutexRecursive {
 public:
  // A free record whose gate is named "CPMutexRecursive-" + name. Throws
  // QKException 0xC1210E10 when the gate cannot be allocated.
  explicit CPMutexRecursive(const std::string& name);
  // Deletes the gate. Only the table's owner destroys records.
  ~CPMutexRecursive();
  CPMutexRecursive(const CPMutexRecursive&) = delete;
  CPMutexRecursive& operator=(const CPMutexRecursive&) = delete;

  // 0 once the calling thread owns the shared mutex (again), otherwise the
  // error number of pthread_mutex_lock. Blocks at the gate while another
  // thread of this process owns it, then in the shared mutex while another
  // process owns it. EOWNERDEAD, as from pthread_mutex_lock, means that the
  // caller now owns a mutex whose previous owner died: it has been made
  // consistent and counted like any other acquisition.
  int lock(pthread_mutex_t* mutex);
  // As lock(), but the wait in the shared mutex ends at absTime (absolute,
  // CLOCK_REALTIME) with ETIMEDOUT; EOWNERDEAD likewise means acquired.
  int timedlock(pthread_mutex_t* mutex, const timespec* absTime);
  // The count left after this release; the shared mutex is unlocked when
  // it is 0. Throws QKException 0xC1210E20, count and gate untouched, when
  // the calling thread does not own the mutex or the count is 0.
  int release(pthread_mutex_t* mutex);

  // The fields are public for the white-box tests. m_useCount is guarded by
  // the helper's lock; m_count and m_ownerThread are written only by a
  // thread that has entered the gate.
  int m_useCount;       // users of this record in the process (helper adds)
  CPCritSec* m_pGate;   // owned; held by the owning thread m_count times
  int m_count;          // recursion depth; 0 when no thread here owns it
  int m_ownerThread;    // kernel thread id of the owner; 0 when not owned
};

// The process's table of recursion records by mutex name, names compared
// byte by byte. add() and del() may be called from any thread; they are
// serialised by m_pLock, which is never held while a shared mutex is
// waited for. The one instance comes from get_mutexRecursionHelper() and
// is never destroyed.
class CPMutexRecursionHelper {
 public:
  // Throws QKException 0xC1210E10 when its lock cannot be allocated.
  CPMutexRecursionHelper();
  // Forgets the table without deleting the records or the lock: the
  // instance is meant to live until the process ends.
  ~CPMutexRecursionHelper();
  CPMutexRecursionHelper(const CPMutexRecursionHelper&) = delete;
  CPMutexRecursionHelper& operator=(const CPMutexRecursionHelper&) = delete;

  // The record for name, made on first use, with one more user counted.
  // Throws QKException 0xC1210E10 when a new record's gate cannot be
  // allocated (nothing is added then).
  CPMutexRecursive* add(const std::string& name);
  // One user less; the record is destroyed when none is left. Unknown names
  // are ignored. Only for undoing an add() whose user failed to come up:
  // otherwise records stay until the process ends.
  void del(const std::string& name);

  // Public for the white-box tests; touch the table only under m_pLock.
  CPCritSec* m_pLock;  // "CPMutexRecursiveHelper"; never deleted
  std::map<std::string, CPMutexRecursive*> m_records;
};

// The process's helper, or null before the first get_mutexRecursionHelper().
extern CPMutexRecursionHelper* g_pmutexRecursionHelper;

// The process's helper, created on the first call under g_mutexGlobals.
// Throws QKException 0xC1210E10 when it cannot be allocated.
CPMutexRecursionHelper* get_mutexRecursionHelper();

#endif  // AMBIT_SYNC_MUTEX_RECURSION_H_

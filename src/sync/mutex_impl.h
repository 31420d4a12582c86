#ifndef AMBIT_SYNC_MUTEX_IMPL_H_
#define AMBIT_SYNC_MUTEX_IMPL_H_

#include <pthread.h>

#include <string>

#include "names/name_map.h"

class CPMutexRecursive;

// The work behind CPMutex: a process-private recursive mutex, or the
// process-shared robust adaptive mutex of a name map entry with the entry's
// holder word (the owning process) and this process's wait count, kept up
// to date for crash cleanup and the inspector, plus the per-process
// recursion record when recursive. The kernel hands a mutex whose owner
// died to the next waiter at once; the wait then succeeds and remembers,
// for the calling thread, that it took over an abandoned mutex.
class CPMutexImpl {
 public:
  CPMutexImpl(int create, int initialOwner, const std::string& name, int recursive,
              int allowTrace);
  ~CPMutexImpl();
  CPMutexImpl(const CPMutexImpl&) = delete;
  CPMutexImpl& operator=(const CPMutexImpl&) = delete;

  unsigned long wait(unsigned long timeoutMs);
  unsigned long release();
  int isCreator() const { return m_isCreator; }
  // 1 when the calling thread's last successful wait on this object took
  // the mutex over from an owner that died.
  int wasAbandoned() const;
  const std::string& name() const { return m_name; }

 private:
  std::string m_name;
  int m_allowTrace;
  int m_recursive;
  pthread_mutex_t m_localMutex;
  CNameMap::SNAMEINFO* m_pNameInfo;
  int* m_pPid;      // the entry's holder word (named only)
  int* m_pWaiters;  // this process's wait count in the entry (named only)
  pthread_mutex_t* m_pMutex;
  CPMutexRecursive* m_pRecursive;  // named and recursive only
  int m_isCreator;
  unsigned long long m_serial;  // tells this object apart in wasAbandoned()

  unsigned long lockFailed(int error);
  void clearHolderMark();
  void noteAcquired(bool abandoned);
  static unsigned long long NextSerial();
};

#endif  // AMBIT_SYNC_MUTEX_IMPL_H_

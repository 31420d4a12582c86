#ifndef AMBIT_SHM_INTERPROCESS_LOCK_H_
#define AMBIT_SHM_INTERPROCESS_LOCK_H_

#include <pthread.h>

#include <string>

// A lock between processes and threads: a process-local recursive mutex
// plus an exclusive flock on "/tmp/Ambit-ipclock-" + name, taken at the
// first nesting level only. Nested lock() calls of one thread only count.
// The kernel drops the flock of a process that dies holding it.
class CInterprocessLock {
 public:
  // Throws QKException with errno as its code when the lock file cannot be
  // created.
  explicit CInterprocessLock(const std::string& name);
  ~CInterprocessLock();
  CInterprocessLock(const CInterprocessLock&) = delete;
  CInterprocessLock& operator=(const CInterprocessLock&) = delete;

  void lock();
  void unlock();

  const std::string& path() const { return m_name; }

 private:
  std::string m_name;     // path of the lock file
  int m_fd;               // kept open for the object's life
  pthread_mutex_t m_mutex;
  unsigned long m_count;  // nesting depth; the flock is held while non-zero
  unsigned long m_unused;
};

#endif  // AMBIT_SHM_INTERPROCESS_LOCK_H_

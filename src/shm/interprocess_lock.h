#ifndef AMBIT_SHM_INTERPROCESS_LOCK_H_
#define AMBIT_SHM_INTERPROCESS_LOCK_H_

#include <pthread.h>

#include <string>

// A lock between processes and threads: a process-local recursive mutex
// plus an exclusive flock on "/tmp/Ambit-ipclock-" + name, taken at the
// first nesting level only. Nested lock() calls of one thread only count.
// The kernel drops the flock of a process that dies holding it. A lock
// file removed or replaced while processes use it is followed: the flock
// is always taken on the file that is at the path when it is granted.
//
// The lock file lives in a directory that every user can write, so it is
// never opened through a symlink, never truncated, and its mode (0777, so
// that other users' processes can open it too) is set on the descriptor.
//
// After fork() the child has a lock of its own: it opens the file again
// (a flock belongs to the open file description, which a child would
// otherwise share with its parent and so keep the parent's lock alive), and
// it starts with a fresh, unlocked mutex and a count of 0, whatever any
// thread of the parent held at the fork. A child never holds the parent's
// lock; an unlock() in the child without a lock() of its own does nothing.
class CInterprocessLock {
 public:
  // Throws QKException with errno as its code when the lock file cannot be
  // created or opened (ELOOP for a symlink at its path).
  explicit CInterprocessLock(const std::string& name);
  ~CInterprocessLock();
  CInterprocessLock(const CInterprocessLock&) = delete;
  CInterprocessLock& operator=(const CInterprocessLock&) = delete;

  void lock();
  void unlock();

  const std::string& path() const { return m_name; }

 private:
  friend struct CInterprocessLockForkHandlers;
  void initMutex();
  void renewAfterFork();
  void takeFlock();

  std::string m_name;     // path of the lock file
  int m_fd;               // kept open for the object's life
  pthread_mutex_t m_mutex;
  unsigned long m_count;  // nesting depth; the flock is held while non-zero
  unsigned long m_unused;
  CInterprocessLock* m_pPrev;  // the process's list of live locks, for fork
  CInterprocessLock* m_pNext;
};

#endif  // AMBIT_SHM_INTERPROCESS_LOCK_H_

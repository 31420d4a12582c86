#ifndef AMBIT_SYNC_RECURSIVE_LOCK_H_
#define AMBIT_SYNC_RECURSIVE_LOCK_H_

#include <linux/futex.h>
#include <sys/single_threaded.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "portable/self_ids.h"

// A recursive lock private to one process, with the results of a recursive
// pthread mutex: lock() 0, tryLock() 0 or EBUSY, unlock() 0 or EPERM when
// the calling thread does not hold it. It exists because the critical
// section sits on its callers' hottest paths: the owner test reads a
// thread-local address instead of asking the kernel for the thread id, and
// the uncontended lock and unlock are one atomic operation each, inline.
//
// The lock word is 0 (free), 1 (held) or 2 (held, and a thread may sleep on
// it); sleepers wait on it with a private futex. While the process has only
// one thread (the C library's __libc_single_threaded, which never turns back
// once a thread has been created) no other thread can race for the word, so
// it is read and written without atomic instructions, as the C library does
// for its own mutexes.
class RecursiveLock {
 public:
  RecursiveLock() : m_word(0), m_owner(0), m_count(0) {}
  RecursiveLock(const RecursiveLock&) = delete;
  RecursiveLock& operator=(const RecursiveLock&) = delete;

  int lock() {
    const int self = Self();
    if (m_owner.load(std::memory_order_relaxed) == self) return Reenter();
    if (!Acquire()) LockContended();
    m_owner.store(self, std::memory_order_relaxed);
    m_count = 1;
    return 0;
  }

  int tryLock() {
    const int self = Self();
    if (m_owner.load(std::memory_order_relaxed) == self) return Reenter();
    if (!Acquire()) return EBUSY;
    m_owner.store(self, std::memory_order_relaxed);
    m_count = 1;
    return 0;
  }

  int unlock() {
    if (m_owner.load(std::memory_order_relaxed) != Self()) return EPERM;
    if (--m_count != 0) return 0;
    m_owner.store(0, std::memory_order_relaxed);
    int old;
    if (__libc_single_threaded) {
      old = m_word.load(std::memory_order_relaxed);
      m_word.store(0, std::memory_order_relaxed);
    } else {
      old = m_word.exchange(0, std::memory_order_release);
    }
    if (old == 2) Wake();
    return 0;
  }

 private:
  // The calling thread's kernel id, as a pthread recursive mutex records
  // its owner: a new thread that reuses a dead thread's stack and
  // thread-local block is not taken for the dead owner.
  static int Self() { return OwnThreadId(); }

  // Takes a free lock word: 0 -> 1.
  bool Acquire() {
    if (__libc_single_threaded) {
      if (m_word.load(std::memory_order_relaxed) != 0) return false;
      m_word.store(1, std::memory_order_relaxed);
      return true;
    }
    int expected = 0;
    return m_word.compare_exchange_strong(expected, 1, std::memory_order_acquire,
                                          std::memory_order_relaxed);
  }

  int Reenter() {
    if (m_count == ~0u) return EAGAIN;  // as the pthread mutex does
    ++m_count;
    return 0;
  }

  void LockContended() {
    // Mark the lock as having sleepers, then sleep until it is handed free.
    while (m_word.exchange(2, std::memory_order_acquire) != 0)
      ::syscall(SYS_futex, &m_word, FUTEX_WAIT_PRIVATE, 2, nullptr, nullptr, 0);
  }

  void Wake() {
    ::syscall(SYS_futex, &m_word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
  }

  std::atomic<int> m_word;
  std::atomic<int> m_owner;  // kernel thread id; written only by the holder
  unsigned m_count;                  // read and written only by the holder
};

#endif  // AMBIT_SYNC_RECURSIVE_LOCK_H_

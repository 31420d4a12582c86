#ifndef AMBIT_SYNC_ROBUST_MUTEX_H_
#define AMBIT_SYNC_ROBUST_MUTEX_H_

#include <pthread.h>

#include <ctime>

// The process-shared mutexes that named objects keep in the name map are
// robust: the kernel tracks which thread owns one, and when that thread
// dies (its process killed, say) the next thread to lock it gets it at once
// with EOWNERDEAD instead of waiting for good. These helpers are the one
// way the library locks, and takes back, such a mutex.
//
// Entries made before the mutexes became robust hold the plain kind; glibc
// reads the kind from the mutex itself, so the same calls serve them.

// Initialises *mutex (zero-filled first) as a process-shared robust mutex
// of the given pthread type (PTHREAD_MUTEX_ADAPTIVE_NP for a named mutex,
// PTHREAD_MUTEX_RECURSIVE for an event's).
void InitRobustSharedMutex(pthread_mutex_t* mutex, int type);

// Locks the mutex, waiting without limit, or until absTime (absolute,
// CLOCK_REALTIME) when it is given (ETIMEDOUT then). A mutex whose owner
// died is made consistent and counts as acquired: the result is 0 and
// *abandoned is set to true (it is set to false on every other outcome).
// Other errors are returned as they are. A blocked lock wakes every 50 ms
// to look again, because the kernel's hand-over of a dead owner's mutex
// can be lost when the waiter it wakes dies too.
int LockRobustMutex(pthread_mutex_t* mutex, const timespec* absTime, bool* abandoned);

// What crash recovery may do to a named mutex whose owner or waiter died:
// let it go only when no live thread holds it. A free mutex is taken and
// let go at once; a mutex whose owner died is made consistent and let go;
// a mutex that a live thread holds is left alone. A mutex of the plain kind
// (an entry made before the mutexes were robust) cannot tell a dead owner
// from a live one, so it is unlocked as the records say.
enum class FreeResult { WasFree, FreedAbandoned, HeldByLive, UnlockedPlain, Failed };
FreeResult FreeUnlessHeldByLive(pthread_mutex_t* mutex, int* error);

// True when the mutex is of the robust kind (glibc's kind bit
// PTHREAD_MUTEX_ROBUST_NORMAL_NP, as it is stored in the mutex).
inline bool IsRobust(const pthread_mutex_t* mutex) { return (mutex->__data.__kind & 16) != 0; }

// The kernel thread id that glibc records as the mutex's owner: 0 when it
// is free, and it may still name an owner that died. A thread that holds
// the mutex always finds its own id here.
inline int MutexOwnerThread(const pthread_mutex_t* mutex) {
  return __atomic_load_n(&mutex->__data.__owner, __ATOMIC_RELAXED);
}

#endif  // AMBIT_SYNC_ROBUST_MUTEX_H_

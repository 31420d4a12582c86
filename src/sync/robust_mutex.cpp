#include "sync/robust_mutex.h"

#include <cerrno>
#include <cstring>

namespace {

// How long a blocked lock sleeps before it looks at the mutex again. When
// the owner of a robust mutex dies, the kernel marks it and wakes one
// waiter; if that waiter is itself dying (a thread of the same killed
// process, say), the wake is lost and the other waiters would sleep until
// the next unlock, which never comes. Sleeping in slices bounds that case.
constexpr long kSliceNs = 50 * 1000000L;

// Makes consistent a mutex that a lock call just returned with EOWNERDEAD;
// the caller owns it.
void TakeOverAbandoned(pthread_mutex_t* mutex) { pthread_mutex_consistent(mutex); }

bool Before(const timespec& a, const timespec& b) {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

int SlicedLock(pthread_mutex_t* mutex, const timespec* absTime) {
  int r = pthread_mutex_trylock(mutex);
  if (r != EBUSY) return r;
  for (;;) {
    timespec slice;
    clock_gettime(CLOCK_REALTIME, &slice);
    slice.tv_nsec += kSliceNs;
    if (slice.tv_nsec >= 1000000000L) {
      slice.tv_sec += 1;
      slice.tv_nsec -= 1000000000L;
    }
    const bool last = absTime != nullptr && !Before(slice, *absTime);
    r = pthread_mutex_timedlock(mutex, last ? absTime : &slice);
    if (r != ETIMEDOUT || last) return r;
  }
}

}  // namespace

void InitRobustSharedMutex(pthread_mutex_t* mutex, int type) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, type);
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  std::memset(mutex, 0, sizeof *mutex);
  pthread_mutex_init(mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

int LockRobustMutex(pthread_mutex_t* mutex, const timespec* absTime, bool* abandoned) {
  const int r = SlicedLock(mutex, absTime);
  *abandoned = r == EOWNERDEAD;
  if (r != EOWNERDEAD) return r;
  TakeOverAbandoned(mutex);
  return 0;
}

FreeResult FreeUnlessHeldByLive(pthread_mutex_t* mutex, int* error) {
  *error = 0;
  if (!IsRobust(mutex)) {
    *error = pthread_mutex_unlock(mutex);
    return *error == 0 ? FreeResult::UnlockedPlain : FreeResult::Failed;
  }
  const int r = pthread_mutex_trylock(mutex);
  // EDEADLK: the calling thread holds it itself, and it is alive.
  if (r == EBUSY || r == EDEADLK) return FreeResult::HeldByLive;
  if (r != 0 && r != EOWNERDEAD) {
    *error = r;
    return FreeResult::Failed;
  }
  if (r == EOWNERDEAD) TakeOverAbandoned(mutex);
  *error = pthread_mutex_unlock(mutex);
  if (*error != 0) return FreeResult::Failed;
  return r == EOWNERDEAD ? FreeResult::FreedAbandoned : FreeResult::WasFree;
}

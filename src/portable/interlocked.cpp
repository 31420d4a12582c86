#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include "ambit/portable.h"

namespace {
// Guards InterlockedExchange and InterlockedCompareExchange only.
pthread_mutex_t g_mutexInterlocked = PTHREAD_MUTEX_INITIALIZER;
}  // namespace

long CPortable::InterlockedIncrement(long volatile* target) {
  return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);
}

long CPortable::InterlockedDecrement(long volatile* target) {
  return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST);
}

long CPortable::InterlockedExchange(long* target, long value) {
  pthread_mutex_lock(&g_mutexInterlocked);
  const long old = *target;
  *target = value;
  pthread_mutex_unlock(&g_mutexInterlocked);
  return old;
}

long CPortable::InterlockedCompareExchange(long volatile* target, long exchange,
                                           long comparand) {
  pthread_mutex_lock(&g_mutexInterlocked);
  const long old = *target;
  if (old == comparand) *target = exchange;
  pthread_mutex_unlock(&g_mutexInterlocked);
  return old;
}

void CPortable::Sleep(unsigned long ms) {
  if (ms == 0xFFFFFFFFUL) {
    ::usleep(0xFFFFFFFFU);  // about 71.6 minutes, once
  } else if (ms == 0) {
    ::sched_yield();
  } else {
    ::usleep(static_cast<useconds_t>(static_cast<unsigned>(ms) * 1000u));
  }
}

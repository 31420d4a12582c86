// CPCritSec against the raw recursive pthread mutex it wraps, and the cost
// of trace gating when tracing is off.
#include <pthread.h>

#include "ambit/ambit.h"
#include "benchmark/benchmark.h"

namespace {

void BM_RawRecursiveMutexLockUnlock(benchmark::State& state) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, &attr);
  for (auto _ : state) {
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
  }
  pthread_mutex_destroy(&mutex);
  pthread_mutexattr_destroy(&attr);
}
BENCHMARK(BM_RawRecursiveMutexLockUnlock);

// Tracing allowed by the section, but no hook installed: the gate is one
// load of the hook pointer and one test.
void BM_CritSecEnterLeaveTracingOff(benchmark::State& state) {
  AmbitDebug::setTracingHelper(nullptr);
  CPCritSec cs("bench", 1);
  for (auto _ : state) {
    cs.enter(__LINE__);
    cs.leave(__LINE__);
  }
}
BENCHMARK(BM_CritSecEnterLeaveTracingOff);

// The same section with tracing not allowed at all: no gate is passed.
void BM_CritSecEnterLeaveNoTrace(benchmark::State& state) {
  CPCritSec cs("bench", 0);
  for (auto _ : state) {
    cs.enter(__LINE__);
    cs.leave(__LINE__);
  }
}
BENCHMARK(BM_CritSecEnterLeaveNoTrace);

}  // namespace

BENCHMARK_MAIN();

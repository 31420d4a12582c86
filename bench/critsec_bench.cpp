// CPCritSec against the raw recursive pthread mutex it wraps, and the cost
// of trace gating when tracing is off.
#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "ambit/ambit.h"
#include "benchmark/benchmark.h"
#include "ratio_main.h"

namespace {

// The C library drops the atomic instructions of its mutexes while a process
// has a single thread, as the critical section does. Real callers have many
// threads; the *_Threaded runs keep an idle second thread alive so that both
// sides pay for atomics, as they do in production.
class IdleThread {
 public:
  IdleThread() : m_thread([this] {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait(lock, [this] { return m_stop; });
  }) {}
  ~IdleThread() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stop = true;
    }
    m_cv.notify_one();
    m_thread.join();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_stop = false;
  std::thread m_thread;
};

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

void BM_RawRecursiveMutexLockUnlock_Threaded(benchmark::State& state) {
  IdleThread other;
  BM_RawRecursiveMutexLockUnlock(state);
}
BENCHMARK(BM_RawRecursiveMutexLockUnlock_Threaded);

void BM_CritSecEnterLeaveTracingOff_Threaded(benchmark::State& state) {
  IdleThread other;
  BM_CritSecEnterLeaveTracingOff(state);
}
BENCHMARK(BM_CritSecEnterLeaveTracingOff_Threaded);

AMBIT_BENCH_RATIO("CPCritSec enter+leave / raw recursive mutex (1 thread)",
                  "BM_CritSecEnterLeaveTracingOff",
                  "BM_RawRecursiveMutexLockUnlock");
AMBIT_BENCH_RATIO("CPCritSec enter+leave / raw recursive mutex (2 threads)",
                  "BM_CritSecEnterLeaveTracingOff_Threaded",
                  "BM_RawRecursiveMutexLockUnlock_Threaded");
AMBIT_BENCH_RATIO("trace gate, tracing off / no trace gate",
                  "BM_CritSecEnterLeaveTracingOff",
                  "BM_CritSecEnterLeaveNoTrace");

}  // namespace

// Named mutex costs:
//  - uncontended wait+release of a named CPMutex (plain and recursive) and
//    of an unnamed one, against lock+unlock of a raw process-shared pthread
//    mutex. Every named wait takes the name map's interprocess lock twice
//    (raise the wait count; record the holder and lower the count) and every
//    release once more, each a process-local mutex plus an flock round trip
//    to the kernel: that, not the pthread mutex, is what the named figure
//    measures;
//  - contended between two processes, both looping wait/release on the
//    same mutex, against a raw process-shared mutex contended the same way.
//    Times are wall-clock per acquisition of the measuring side.
// The named runs use the machine-wide name map, so the program first moves
// itself into a private IPC and mount namespace with fresh tmpfs on /tmp
// and /dev/shm; where it cannot, the named runs are skipped.
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ambit/ambit.h"
#include "benchmark/benchmark.h"
#include "private_namespaces.h"
#include "ratio_main.h"

namespace {

constexpr unsigned long kInfinite = 0xFFFFFFFFUL;
constexpr const char* kPeerVariable = "AMBIT_MUTEX_BENCH_PEER";

// Before main (and before any thread): the named runs get a name map of
// their own.
const bool g_isolated = ambit_bench::EnterPrivateNamespaces();

// The flags the two sides of a contended run share.
struct Flags {
  std::atomic<int> ready;
  std::atomic<int> quit;
  std::atomic<long> peerRounds;
};

// A process-shared pthread mutex of the default kind, and the flags, in a
// shared anonymous mapping.
struct RawShared {
  pthread_mutex_t mutex;
  Flags flags;
};

RawShared* MapRawShared() {
  void* mem = ::mmap(nullptr, sizeof(RawShared), PROT_READ | PROT_WRITE,
                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (mem == MAP_FAILED) return nullptr;
  RawShared* shared = static_cast<RawShared*>(mem);
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutex_init(&shared->mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  shared->flags.ready = 0;
  shared->flags.quit = 0;
  shared->flags.peerRounds = 0;
  return shared;
}

void Reap(pid_t pid) {
  for (int i = 0; i < 500; ++i) {  // 5 s
    if (::waitpid(pid, nullptr, WNOHANG) == pid) return;
    ::usleep(10000);
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

bool WaitReady(const Flags& flags) {
  for (int i = 0; i < 1000; ++i) {  // 10 s
    if (flags.ready.load() != 0) return true;
    ::usleep(10000);
  }
  return false;
}

// --- Uncontended ---------------------------------------------------------------

void BM_RawSharedMutexUncontended(benchmark::State& state) {
  RawShared* shared = MapRawShared();
  if (shared == nullptr) {
    state.SkipWithError("mmap failed");
    return;
  }
  for (auto _ : state) {
    pthread_mutex_lock(&shared->mutex);
    pthread_mutex_unlock(&shared->mutex);
  }
  pthread_mutex_destroy(&shared->mutex);
  ::munmap(shared, sizeof(RawShared));
}
BENCHMARK(BM_RawSharedMutexUncontended);

void BM_UnnamedMutexUncontended(benchmark::State& state) {
  CPMutex mutex(1, 0, "", 0, 0);
  for (auto _ : state) {
    mutex.wait(kInfinite, nullptr);
    mutex.release();
  }
}
BENCHMARK(BM_UnnamedMutexUncontended);

void NamedUncontended(benchmark::State& state, int recursive) {
  if (!g_isolated) {
    state.SkipWithError("no private namespace: not touching the real name map");
    return;
  }
  static int run = 0;
  const std::string name = "bench-" + std::to_string(::getpid()) + "-" + std::to_string(++run);
  CPMutex mutex(1, 0, name, recursive, 0);
  for (auto _ : state) {
    mutex.wait(kInfinite, nullptr);
    mutex.release();
  }
}

void BM_NamedMutexUncontended(benchmark::State& state) { NamedUncontended(state, 0); }
BENCHMARK(BM_NamedMutexUncontended);

void BM_RecursiveNamedMutexUncontended(benchmark::State& state) { NamedUncontended(state, 1); }
BENCHMARK(BM_RecursiveNamedMutexUncontended);

// --- Contended between two processes ---------------------------------------------

void BM_RawSharedMutexContendedProcesses(benchmark::State& state) {
  RawShared* shared = MapRawShared();
  if (shared == nullptr) {
    state.SkipWithError("mmap failed");
    return;
  }
  const pid_t peer = ::fork();
  if (peer == 0) {
    shared->flags.ready = 1;
    while (shared->flags.quit.load(std::memory_order_relaxed) == 0) {
      pthread_mutex_lock(&shared->mutex);
      shared->flags.peerRounds.fetch_add(1, std::memory_order_relaxed);
      pthread_mutex_unlock(&shared->mutex);
    }
    ::_exit(0);
  }
  if (peer < 0 || !WaitReady(shared->flags)) {
    if (peer > 0) Reap(peer);
    state.SkipWithError("peer did not start");
    return;
  }
  for (auto _ : state) {
    pthread_mutex_lock(&shared->mutex);
    pthread_mutex_unlock(&shared->mutex);
  }
  shared->flags.quit = 1;
  Reap(peer);
  state.counters["peer_share"] =
      static_cast<double>(shared->flags.peerRounds.load()) /
      static_cast<double>(shared->flags.peerRounds.load() + state.iterations());
  pthread_mutex_destroy(&shared->mutex);
  ::munmap(shared, sizeof(RawShared));
}
BENCHMARK(BM_RawSharedMutexContendedProcesses)->UseRealTime();

// The peer of the named run: this program re-executed, so that it is a
// fresh process with a name map of its own (a forked copy would share this
// process's lock file description, and so its lock).
int RunMutexPeer(const std::string& base) {
  CPSharedMemory memory(base + "-flags", sizeof(Flags));
  Flags* flags = static_cast<Flags*>(memory.getAddress());
  CPMutex mutex(0, 0, base, 0, 0);
  flags->ready = 1;
  for (long i = 0; flags->quit.load(std::memory_order_relaxed) == 0; ++i) {
    if (mutex.wait(30000, nullptr) != 0) break;  // a vanished parent ends it
    flags->peerRounds.fetch_add(1, std::memory_order_relaxed);
    mutex.release();
  }
  return 0;
}

struct PeerHook {
  PeerHook() {
    const char* base = std::getenv(kPeerVariable);
    if (base != nullptr) ::_exit(RunMutexPeer(base));
  }
} g_peerHook;

pid_t StartMutexPeer(const std::string& base) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setenv(kPeerVariable, base.c_str(), 1);
    ::execl("/proc/self/exe", "mutex_bench_peer", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  return pid;
}

void BM_NamedMutexContendedProcesses(benchmark::State& state) {
  if (!g_isolated) {
    state.SkipWithError("no private namespace: not touching the real name map");
    return;
  }
  static int run = 0;
  const std::string base = "bench-" + std::to_string(::getpid()) + "-c" + std::to_string(++run);
  CPSharedMemory memory(base + "-flags", sizeof(Flags));
  Flags* flags = static_cast<Flags*>(memory.getAddress());  // zero-filled when new
  CPMutex mutex(1, 0, base, 0, 0);
  const pid_t peer = StartMutexPeer(base);
  if (peer < 0 || !WaitReady(*flags)) {
    if (peer > 0) Reap(peer);
    state.SkipWithError("peer did not start");
    return;
  }
  for (auto _ : state) {
    mutex.wait(kInfinite, nullptr);
    mutex.release();
  }
  flags->quit = 1;
  Reap(peer);
  state.counters["peer_share"] =
      static_cast<double>(flags->peerRounds.load()) /
      static_cast<double>(flags->peerRounds.load() + state.iterations());
}
BENCHMARK(BM_NamedMutexContendedProcesses)->UseRealTime();

AMBIT_BENCH_RATIO("named CPMutex wait+release / raw shared mutex (uncontended)",
                  "BM_NamedMutexUncontended", "BM_RawSharedMutexUncontended");
AMBIT_BENCH_RATIO("recursive named CPMutex / raw shared mutex (uncontended)",
                  "BM_RecursiveNamedMutexUncontended", "BM_RawSharedMutexUncontended");
AMBIT_BENCH_RATIO("unnamed CPMutex / raw shared mutex (uncontended)",
                  "BM_UnnamedMutexUncontended", "BM_RawSharedMutexUncontended");
AMBIT_BENCH_RATIO_REAL("named CPMutex / raw shared mutex (two processes contending)",
                       "BM_NamedMutexContendedProcesses/real_time",
                       "BM_RawSharedMutexContendedProcesses/real_time");

}  // namespace

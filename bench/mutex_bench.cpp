// Named mutex costs:
//  - uncontended wait+release of a named CPMutex (plain and recursive) and
//    of an unnamed one, against lock+unlock of a raw process-shared pthread
//    mutex and of Boost.Interprocess's named_mutex (the peer a user would
//    pick instead). A named wait updates its records (wait count, holder)
//    with atomic operations around a robust shared mutex;
//  - contended between two processes, both looping wait/release on the
//    same mutex, against a raw process-shared mutex and against Boost's
//    named_mutex contended the same way, on two CPUs and pinned to one.
//    Times are wall-clock per acquisition of the measuring side;
//  - the hand-over of an abandoned mutex: the time from the SIGKILL of the
//    owning process to the acquisition by a waiter in another process,
//    reported as the median and the maximum over all trials.
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

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <boost/interprocess/sync/named_mutex.hpp>

#include "ambit/ambit.h"
#include "benchmark/benchmark.h"
#include "private_namespaces.h"
#include "ratio_main.h"

namespace {

constexpr unsigned long kInfinite = 0xFFFFFFFFUL;
constexpr const char* kPeerVariable = "AMBIT_MUTEX_BENCH_PEER";
constexpr const char* kOwnerVariable = "AMBIT_MUTEX_BENCH_OWNER";
namespace bip = boost::interprocess;

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

// The owner of the hand-over runs: takes the mutex, says so, and waits to
// be killed.
int RunMutexOwner(const std::string& base) {
  CPSharedMemory memory(base + "-flags", sizeof(Flags));
  Flags* flags = static_cast<Flags*>(memory.getAddress());
  CPMutex mutex(0, 0, base, 0, 0);
  if (mutex.wait(30000, nullptr) != 0) return 1;
  flags->ready = 1;
  for (int i = 0; i < 3000 && flags->quit.load() == 0; ++i) ::usleep(10000);
  return 0;
}

struct PeerHook {
  PeerHook() {
    const char* base = std::getenv(kPeerVariable);
    if (base != nullptr) ::_exit(RunMutexPeer(base));
    const char* owner = std::getenv(kOwnerVariable);
    if (owner != nullptr) ::_exit(RunMutexOwner(owner));
  }
} g_peerHook;

pid_t StartPeer(const char* variable, const std::string& base) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setenv(variable, base.c_str(), 1);
    ::execl("/proc/self/exe", "mutex_bench_peer", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  return pid;
}

pid_t StartMutexPeer(const std::string& base) { return StartPeer(kPeerVariable, base); }

// Pins the calling process (and the children it starts) to CPU 0 while it
// lives; the contended runs "on one CPU" use it.
class PinnedToOneCpu {
 public:
  PinnedToOneCpu() {
    m_saved = ::sched_getaffinity(0, sizeof m_old, &m_old) == 0;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    ::sched_setaffinity(0, sizeof one, &one);
  }
  ~PinnedToOneCpu() {
    if (m_saved) ::sched_setaffinity(0, sizeof m_old, &m_old);
  }

 private:
  cpu_set_t m_old;
  bool m_saved = false;
};

void NamedContended(benchmark::State& state) {
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

void BM_NamedMutexContendedProcesses(benchmark::State& state) { NamedContended(state); }
BENCHMARK(BM_NamedMutexContendedProcesses)->UseRealTime();

void BM_NamedMutexContendedOneCpu(benchmark::State& state) {
  PinnedToOneCpu pinned;
  NamedContended(state);
}
BENCHMARK(BM_NamedMutexContendedOneCpu)->UseRealTime();

// --- Boost.Interprocess named_mutex ------------------------------------------------

std::string BoostName(const char* what) {
  static int run = 0;
  return "ambit-bench-" + std::to_string(::getpid()) + "-" + what + std::to_string(++run);
}

void BM_BoostNamedMutexUncontended(benchmark::State& state) {
  const std::string name = BoostName("u");
  bip::named_mutex::remove(name.c_str());
  bip::named_mutex mutex(bip::create_only, name.c_str());
  for (auto _ : state) {
    mutex.lock();
    mutex.unlock();
  }
  bip::named_mutex::remove(name.c_str());
}
BENCHMARK(BM_BoostNamedMutexUncontended);

// The peer is a forked child that opens the mutex by name: Boost keeps no
// per-process state that a fork would share.
void BoostContended(benchmark::State& state) {
  const std::string name = BoostName("c");
  bip::named_mutex::remove(name.c_str());
  bip::named_mutex mutex(bip::create_only, name.c_str());
  void* mem = ::mmap(nullptr, sizeof(Flags), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                     -1, 0);
  if (mem == MAP_FAILED) {
    state.SkipWithError("mmap failed");
    return;
  }
  Flags* flags = new (mem) Flags();
  const pid_t peer = ::fork();
  if (peer == 0) {
    bip::named_mutex other(bip::open_only, name.c_str());
    flags->ready = 1;
    while (flags->quit.load(std::memory_order_relaxed) == 0) {
      other.lock();
      flags->peerRounds.fetch_add(1, std::memory_order_relaxed);
      other.unlock();
    }
    ::_exit(0);
  }
  if (peer < 0 || !WaitReady(*flags)) {
    if (peer > 0) Reap(peer);
    state.SkipWithError("peer did not start");
    return;
  }
  for (auto _ : state) {
    mutex.lock();
    mutex.unlock();
  }
  flags->quit = 1;
  Reap(peer);
  state.counters["peer_share"] =
      static_cast<double>(flags->peerRounds.load()) /
      static_cast<double>(flags->peerRounds.load() + state.iterations());
  ::munmap(mem, sizeof(Flags));
  bip::named_mutex::remove(name.c_str());
}

void BM_BoostNamedMutexContendedProcesses(benchmark::State& state) { BoostContended(state); }
BENCHMARK(BM_BoostNamedMutexContendedProcesses)->UseRealTime();

void BM_BoostNamedMutexContendedOneCpu(benchmark::State& state) {
  PinnedToOneCpu pinned;
  BoostContended(state);
}
BENCHMARK(BM_BoostNamedMutexContendedOneCpu)->UseRealTime();

// --- Hand-over of an abandoned mutex ----------------------------------------------

// Each iteration: a fresh owner process takes the mutex; this process waits
// for it; the owner is killed; the time from the kill to this wait's return
// is the iteration's time. The samples of every run make the figures.
void BM_AbandonedMutexHandOver(benchmark::State& state) {
  if (!g_isolated) {
    state.SkipWithError("no private namespace: not touching the real name map");
    return;
  }
  static std::vector<double> samplesMs;
  static int run = 0;
  const std::string base = "bench-" + std::to_string(::getpid()) + "-k" + std::to_string(++run);
  CPSharedMemory memory(base + "-flags", sizeof(Flags));
  Flags* flags = static_cast<Flags*>(memory.getAddress());
  CPMutex mutex(1, 0, base, 0, 0);
  using Clock = std::chrono::steady_clock;
  for (auto _ : state) {
    flags->ready = 0;
    flags->quit = 0;
    const pid_t owner = StartPeer(kOwnerVariable, base);
    if (owner < 0 || !WaitReady(*flags)) {
      if (owner > 0) Reap(owner);
      state.SkipWithError("owner did not start");
      return;
    }
    Clock::time_point killedAt;
    std::thread killer([&] {
      ::usleep(5000);  // the wait below is blocked by then
      killedAt = Clock::now();
      ::kill(owner, SIGKILL);
    });
    const unsigned long r = mutex.wait(30000, nullptr);
    const Clock::time_point acquired = Clock::now();
    killer.join();
    Reap(owner);
    if (r != 0 || mutex.wasAbandoned() != 1) {
      state.SkipWithError("the waiter did not take over the abandoned mutex");
      return;
    }
    mutex.release();
    const double seconds = std::chrono::duration<double>(acquired - killedAt).count();
    state.SetIterationTime(seconds);
    samplesMs.push_back(seconds * 1000.0);
  }
  std::vector<double> sorted = samplesMs;
  std::sort(sorted.begin(), sorted.end());
  const std::string unit = "ms (" + std::to_string(sorted.size()) + " trials)";
  ambit_bench::ReportFigure("owner SIGKILL to waiter acquisition, median",
                            sorted[sorted.size() / 2], unit.c_str());
  ambit_bench::ReportFigure("owner SIGKILL to waiter acquisition, maximum", sorted.back(),
                            unit.c_str());
}
BENCHMARK(BM_AbandonedMutexHandOver)->Iterations(20)->UseManualTime();

AMBIT_BENCH_RATIO("named CPMutex wait+release / Boost named_mutex (uncontended)",
                  "BM_NamedMutexUncontended", "BM_BoostNamedMutexUncontended");
AMBIT_BENCH_RATIO("recursive named CPMutex / named CPMutex (uncontended)",
                  "BM_RecursiveNamedMutexUncontended", "BM_NamedMutexUncontended");
AMBIT_BENCH_RATIO_REAL("named CPMutex / Boost named_mutex (two processes, one CPU)",
                       "BM_NamedMutexContendedOneCpu/real_time",
                       "BM_BoostNamedMutexContendedOneCpu/real_time");
AMBIT_BENCH_RATIO_REAL("named CPMutex / Boost named_mutex (two processes, two CPUs)",
                       "BM_NamedMutexContendedProcesses/real_time",
                       "BM_BoostNamedMutexContendedProcesses/real_time");
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

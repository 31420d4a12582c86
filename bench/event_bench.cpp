// Event ping-pongs: one side wakes, the other waits and wakes back.
//  - unnamed CPEvent between two threads against a raw pthread mutex and
//    condition variable pair doing the same;
//  - named CPEvent between two processes against a raw process-shared
//    mutex and condition variable in a shared mapping, and against POSIX
//    named semaphores.
// Times are wall-clock per round trip (each side sleeps while the other
// runs). The named runs use the machine-wide name map, so the program first
// moves itself into a private IPC and mount namespace with fresh tmpfs on
// /tmp and /dev/shm; where it cannot, the named runs are skipped.
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "ambit/ambit.h"
#include "benchmark/benchmark.h"
#include "private_namespaces.h"
#include "ratio_main.h"

namespace {

constexpr long kPing = 0x1;
constexpr long kReady = 0x2;
constexpr long kQuit = 0x4;
constexpr unsigned long kInfinite = 0xFFFFFFFFUL;
constexpr unsigned long kTimeout = 0xE0000000UL;
constexpr const char* kPeerVariable = "AMBIT_EVENT_BENCH_PEER";

// Before main (and before any thread): the named runs get a name map of
// their own.
const bool g_isolated = ambit_bench::EnterPrivateNamespaces();

// --- Unnamed: two threads ------------------------------------------------------

void BM_RawCondvarPingPongThreads(benchmark::State& state) {
  struct Side {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    long value = 0;
    void Wake(long bits) {
      pthread_mutex_lock(&mutex);
      value |= bits;
      pthread_cond_signal(&cond);
      pthread_mutex_unlock(&mutex);
    }
    long Wait() {
      pthread_mutex_lock(&mutex);
      while (value == 0) pthread_cond_wait(&cond, &mutex);
      const long v = value;
      value = 0;
      pthread_mutex_unlock(&mutex);
      return v;
    }
  } ping, pong;
  std::thread peer([&] {
    while ((ping.Wait() & kQuit) == 0) pong.Wake(kPing);
  });
  for (auto _ : state) {
    ping.Wake(kPing);
    pong.Wait();
  }
  ping.Wake(kQuit);
  peer.join();
}
BENCHMARK(BM_RawCondvarPingPongThreads)->UseRealTime();

void BM_EventPingPongThreads(benchmark::State& state) {
  CPEvent ping(1, "", 1);
  CPEvent pong(1, "", 1);
  std::thread peer([&] {
    while ((ping.wait(kInfinite, nullptr) & kQuit) == 0) pong.wake(kPing);
  });
  for (auto _ : state) {
    ping.wake(kPing);
    pong.wait(kInfinite, nullptr);
  }
  ping.wake(kQuit);
  peer.join();
}
BENCHMARK(BM_EventPingPongThreads)->UseRealTime();

// --- Named: two processes ------------------------------------------------------

// The peer of the named CPEvent run: this program re-executed, so that it
// is a fresh process with a name map of its own (a forked copy would share
// this process's lock file descriptor, and so its lock).
int RunEventPeer(const std::string& base) {
  CPEvent ping(1, base + "-ping", 0);
  CPEvent pong(1, base + "-pong", 0);
  pong.wake(kReady);
  for (;;) {
    const unsigned long r = ping.wait(30000, nullptr);
    if (r == kTimeout || (r & kQuit) != 0) break;  // a vanished parent ends it
    pong.wake(kPing);
  }
  return 0;
}

struct PeerHook {
  PeerHook() {
    const char* base = std::getenv(kPeerVariable);
    if (base != nullptr) ::_exit(RunEventPeer(base));
  }
} g_peerHook;

pid_t StartEventPeer(const std::string& base) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setenv(kPeerVariable, base.c_str(), 1);
    ::execl("/proc/self/exe", "event_bench_peer", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  return pid;
}

void Reap(pid_t pid) {
  for (int i = 0; i < 500; ++i) {  // 5 s
    if (::waitpid(pid, nullptr, WNOHANG) == pid) return;
    ::usleep(10000);
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

void BM_EventPingPongProcesses(benchmark::State& state) {
  if (!g_isolated) {
    state.SkipWithError("no private namespace: not touching the real name map");
    return;
  }
  static int run = 0;
  const std::string base = "bench-" + std::to_string(::getpid()) + "-" + std::to_string(++run);
  CPEvent ping(1, base + "-ping", 0);
  CPEvent pong(1, base + "-pong", 0);
  const pid_t peer = StartEventPeer(base);
  if (peer < 0 || pong.wait(10000, nullptr) != static_cast<unsigned long>(kReady)) {
    if (peer > 0) Reap(peer);
    state.SkipWithError("peer did not start");
    return;
  }
  for (auto _ : state) {
    ping.wake(kPing);
    pong.wait(kInfinite, nullptr);
  }
  ping.wake(kQuit);
  Reap(peer);
}
BENCHMARK(BM_EventPingPongProcesses)->UseRealTime();

// A process-shared mutex, condition variable and value word in a shared
// anonymous mapping; the peer is a plain fork.
struct SharedSide {
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  long value;
  void Init() {
    pthread_mutexattr_t ma;
    pthread_mutexattr_init(&ma);
    pthread_mutexattr_setpshared(&ma, PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&mutex, &ma);
    pthread_mutexattr_destroy(&ma);
    pthread_condattr_t ca;
    pthread_condattr_init(&ca);
    pthread_condattr_setpshared(&ca, PTHREAD_PROCESS_SHARED);
    pthread_cond_init(&cond, &ca);
    pthread_condattr_destroy(&ca);
    value = 0;
  }
  void Wake(long bits) {
    pthread_mutex_lock(&mutex);
    value |= bits;
    pthread_cond_signal(&cond);
    pthread_mutex_unlock(&mutex);
  }
  long Wait() {
    pthread_mutex_lock(&mutex);
    while (value == 0) pthread_cond_wait(&cond, &mutex);
    const long v = value;
    value = 0;
    pthread_mutex_unlock(&mutex);
    return v;
  }
};

void BM_RawSharedCondvarPingPongProcesses(benchmark::State& state) {
  void* mem = ::mmap(nullptr, 2 * sizeof(SharedSide), PROT_READ | PROT_WRITE,
                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (mem == MAP_FAILED) {
    state.SkipWithError("mmap failed");
    return;
  }
  SharedSide* ping = static_cast<SharedSide*>(mem);
  SharedSide* pong = ping + 1;
  ping->Init();
  pong->Init();
  const pid_t peer = ::fork();
  if (peer == 0) {
    while ((ping->Wait() & kQuit) == 0) pong->Wake(kPing);
    ::_exit(0);
  }
  for (auto _ : state) {
    ping->Wake(kPing);
    pong->Wait();
  }
  ping->Wake(kQuit);
  Reap(peer);
  ::munmap(mem, 2 * sizeof(SharedSide));
}
BENCHMARK(BM_RawSharedCondvarPingPongProcesses)->UseRealTime();

void BM_NamedSemaphorePingPongProcesses(benchmark::State& state) {
  static int run = 0;
  const std::string base = "/ambit-bench-" + std::to_string(::getpid()) + "-" +
                           std::to_string(++run);
  const std::string pingName = base + "-ping", pongName = base + "-pong";
  sem_t* ping = ::sem_open(pingName.c_str(), O_CREAT | O_EXCL, 0600, 0);
  sem_t* pong = ::sem_open(pongName.c_str(), O_CREAT | O_EXCL, 0600, 0);
  if (ping == SEM_FAILED || pong == SEM_FAILED) {
    state.SkipWithError("sem_open failed");
    return;
  }
  volatile long* quit = static_cast<volatile long*>(::mmap(
      nullptr, sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  *quit = 0;
  const pid_t peer = ::fork();
  if (peer == 0) {
    // Opens the names afresh, as an unrelated process would.
    sem_t* p = ::sem_open(pingName.c_str(), 0);
    sem_t* q = ::sem_open(pongName.c_str(), 0);
    if (p == SEM_FAILED || q == SEM_FAILED) ::_exit(1);
    for (;;) {
      while (::sem_wait(p) != 0) {
      }
      if (*quit) break;
      ::sem_post(q);
    }
    ::_exit(0);
  }
  for (auto _ : state) {
    ::sem_post(ping);
    while (::sem_wait(pong) != 0) {
    }
  }
  *quit = 1;
  ::sem_post(ping);
  Reap(peer);
  ::sem_close(ping);
  ::sem_close(pong);
  ::sem_unlink(pingName.c_str());
  ::sem_unlink(pongName.c_str());
  ::munmap(const_cast<long*>(quit), sizeof(long));
}
BENCHMARK(BM_NamedSemaphorePingPongProcesses)->UseRealTime();

AMBIT_BENCH_RATIO_REAL("unnamed CPEvent ping-pong / raw mutex+condvar (threads)",
                       "BM_EventPingPongThreads/real_time",
                       "BM_RawCondvarPingPongThreads/real_time");
AMBIT_BENCH_RATIO_REAL("named CPEvent ping-pong / raw shared mutex+condvar (processes)",
                       "BM_EventPingPongProcesses/real_time",
                       "BM_RawSharedCondvarPingPongProcesses/real_time");
AMBIT_BENCH_RATIO_REAL("named CPEvent ping-pong / named semaphores (processes)",
                       "BM_EventPingPongProcesses/real_time",
                       "BM_NamedSemaphorePingPongProcesses/real_time");

}  // namespace

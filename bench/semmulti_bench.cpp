// Named CPSemaphore ping-pong between two processes against POSIX named
// semaphores, and CPMultiEvent SetEvent -> WaitForMultipleObjects between
// two threads against an unnamed CPEvent wake -> wait.
//
// The named semaphores live in the machine-wide name map. So as not to
// touch the machine's own, the program first runs itself again through the
// isolation wrapper, in a private IPC and mount namespace with a fresh /tmp
// and /dev/shm.
#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "ambit/ambit.h"
#include "benchmark/benchmark.h"
#include "ratio_main.h"

namespace {

// Runs before main(): unless already isolated, replaces the process with
// the wrapper running this same program and arguments.
struct ReexecIsolated {
  ReexecIsolated() {
    const char* isolated = std::getenv("AMBIT_ISOLATED");
    if (isolated != nullptr && std::strcmp(isolated, "1") == 0) return;
    if (std::getenv("AMBIT_BENCH_NO_ISOLATION") != nullptr) return;
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    const std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::string> args;
    for (size_t start = 0; start < all.size();) {
      const size_t end = all.find('\0', start);
      args.push_back(all.substr(start, end - start));
      start = end == std::string::npos ? all.size() : end + 1;
    }
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0 || args.empty()) return;
    self[n] = '\0';
    args[0] = self;
    std::vector<char*> argv;
    std::string wrapper = AMBIT_ISOLATE_WRAPPER;
    argv.push_back(&wrapper[0]);
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    ::execv(wrapper.c_str(), argv.data());
    std::fprintf(stderr, "cannot run %s; set AMBIT_BENCH_NO_ISOLATION=1 to run in place\n",
                 wrapper.c_str());
    std::_Exit(1);
  }
} g_reexecIsolated;

// A stop flag both processes see.
std::atomic<int>* SharedFlag() {
  void* p = ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                   MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : new (p) std::atomic<int>(0);
}

int Reap(pid_t child) {
  int status = 0;
  for (int i = 0; i < 500; ++i) {
    const pid_t r = ::waitpid(child, &status, WNOHANG);
    if (r == child) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    ::usleep(10000);
  }
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  return -1;
}

// The child is forked before the parent touches the name map, so that it
// has a name map of its own, as another program would.
void BM_NamedCPSemaphorePingPong(benchmark::State& state) {
  std::atomic<int>* stop = SharedFlag();
  const pid_t child = ::fork();
  if (child == 0) {
    int rc = 0;
    {
      CPSemaphore ping(1, 0, 1, "bench-ping", 0);
      CPSemaphore pong(1, 0, 1, "bench-pong", 0);
      for (;;) {
        if (ping.wait(10000, nullptr) != 0) {
          rc = 1;
          break;
        }
        if (stop->load() != 0) break;
        pong.release();
      }
    }
    ::_exit(rc);
  }
  {
    CPSemaphore ping(1, 0, 1, "bench-ping", 0);
    CPSemaphore pong(1, 0, 1, "bench-pong", 0);
    for (auto _ : state) {
      ping.release();
      if (pong.wait(10000, nullptr) != 0) {
        state.SkipWithError("the other process did not answer");
        break;
      }
    }
    stop->store(1);
    ping.release();
    if (Reap(child) != 0) state.SkipWithError("the other process failed");
  }
  ::munmap(stop, sizeof *stop);
}
BENCHMARK(BM_NamedCPSemaphorePingPong)->UseRealTime();

void BM_PosixNamedSemaphorePingPong(benchmark::State& state) {
  std::atomic<int>* stop = SharedFlag();
  ::sem_unlink("/ambit-bench-ping");
  ::sem_unlink("/ambit-bench-pong");
  sem_t* ping = ::sem_open("/ambit-bench-ping", O_CREAT, 0600, 0);
  sem_t* pong = ::sem_open("/ambit-bench-pong", O_CREAT, 0600, 0);
  if (ping == SEM_FAILED || pong == SEM_FAILED) {
    state.SkipWithError("sem_open failed");
    return;
  }
  const pid_t child = ::fork();
  if (child == 0) {
    sem_t* a = ::sem_open("/ambit-bench-ping", 0);
    sem_t* b = ::sem_open("/ambit-bench-pong", 0);
    for (;;) {
      timespec deadline;
      ::clock_gettime(CLOCK_REALTIME, &deadline);
      deadline.tv_sec += 10;
      if (::sem_timedwait(a, &deadline) != 0) ::_exit(1);
      if (stop->load() != 0) ::_exit(0);
      ::sem_post(b);
    }
  }
  for (auto _ : state) {
    ::sem_post(ping);
    timespec deadline;
    ::clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 10;
    if (::sem_timedwait(pong, &deadline) != 0) {
      state.SkipWithError("the other process did not answer");
      break;
    }
  }
  stop->store(1);
  ::sem_post(ping);
  if (Reap(child) != 0) state.SkipWithError("the other process failed");
  ::sem_close(ping);
  ::sem_close(pong);
  ::sem_unlink("/ambit-bench-ping");
  ::sem_unlink("/ambit-bench-pong");
  ::munmap(stop, sizeof *stop);
}
BENCHMARK(BM_PosixNamedSemaphorePingPong)->UseRealTime();

// Ping on one multi-event, pong on another, between two threads.
void BM_MultiEventSetEventWaitPingPong(benchmark::State& state) {
  CPMultiEvent ping(0), pong(0);
  std::atomic<bool> stop{false};
  long ids[] = {1, 2};
  std::thread other([&] {
    long mine[] = {1, 2};
    for (;;) {
      if (ping.WaitForMultipleObjects(2, mine, 0, 10000) != 1) return;
      if (stop.load()) return;
      pong.SetEvent(2);
    }
  });
  for (auto _ : state) {
    ping.SetEvent(2);
    if (pong.WaitForMultipleObjects(2, ids, 0, 10000) != 1) {
      state.SkipWithError("the other thread did not answer");
      break;
    }
  }
  stop = true;
  ping.SetEvent(2);
  other.join();
}
BENCHMARK(BM_MultiEventSetEventWaitPingPong)->UseRealTime();

void BM_UnnamedEventWakeWaitPingPong(benchmark::State& state) {
  CPEvent ping(1, "", 0), pong(1, "", 0);
  std::atomic<bool> stop{false};
  std::thread other([&] {
    for (;;) {
      if (ping.wait(10000, nullptr) != 0x2) return;
      if (stop.load()) return;
      pong.wake(0x2);
    }
  });
  for (auto _ : state) {
    ping.wake(0x2);
    if (pong.wait(10000, nullptr) != 0x2) {
      state.SkipWithError("the other thread did not answer");
      break;
    }
  }
  stop = true;
  ping.wake(0x2);
  other.join();
}
BENCHMARK(BM_UnnamedEventWakeWaitPingPong)->UseRealTime();

AMBIT_BENCH_RATIO("named CPSemaphore ping-pong / POSIX named semaphores (2 processes)",
                  "BM_NamedCPSemaphorePingPong/real_time",
                  "BM_PosixNamedSemaphorePingPong/real_time");
AMBIT_BENCH_RATIO("CPMultiEvent SetEvent->WaitForMultipleObjects / unnamed CPEvent (2 threads)",
                  "BM_MultiEventSetEventWaitPingPong/real_time",
                  "BM_UnnamedEventWakeWaitPingPong/real_time");

}  // namespace

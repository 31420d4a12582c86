// The shared-memory registry: a new named segment made and let go, a name
// this process has attached already (a per-process map hit), and the
// registry's interprocess lock against the bare flock pair it is built on.
//
// The registry lives at fixed System V keys and /tmp paths, so the program
// re-runs itself in private IPC and mount namespaces with a fresh /tmp (or,
// where none can be made, serially with the keys and files cleaned before
// and after) and never meets the machine's own registry.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ambit/sharedmemory.h"
#include "benchmark/benchmark.h"
#include "ratio_main.h"
#include "shm/interprocess_lock.h"
#include "shm/share_mem_map.h"

namespace {

// Re-executes the program through the isolation wrapper before main().
struct RunIsolated {
  RunIsolated() {
    const char* inside = std::getenv("AMBIT_ISOLATED");
    if (inside != nullptr && std::strcmp(inside, "1") == 0) return;
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return;
    self[n] = '\0';
    std::vector<std::string> args = {AMBIT_ISOLATE_WRAPPER, self};
    const std::string cmdline = [] {
      std::string all;
      if (FILE* f = std::fopen("/proc/self/cmdline", "rb")) {
        char buffer[4096];
        size_t got;
        while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0) all.append(buffer, got);
        std::fclose(f);
      }
      return all;
    }();
    size_t start = cmdline.find('\0');  // skip argv[0]
    while (start != std::string::npos && start + 1 < cmdline.size()) {
      const size_t end = cmdline.find('\0', start + 1);
      args.push_back(cmdline.substr(start + 1, end - start - 1));
      start = end;
    }
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    // No wrapper: run here; the keys and files are the machine's own.
  }
} g_runIsolated;

void BM_BareFlockPair(benchmark::State& state) {
  const int fd = ::open("/tmp/ambit-bench-flock", O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) {
    state.SkipWithError("cannot make the lock file");
    return;
  }
  for (auto _ : state) {
    ::flock(fd, LOCK_EX);
    ::flock(fd, LOCK_UN);
  }
  ::close(fd);
  ::unlink("/tmp/ambit-bench-flock");
}
BENCHMARK(BM_BareFlockPair);

void BM_InterprocessLockLockUnlock(benchmark::State& state) {
  CInterprocessLock lock("bench");
  for (auto _ : state) {
    lock.lock();
    lock.unlock();
  }
}
BENCHMARK(BM_InterprocessLockLockUnlock);

// Acquire (obsolete pass, shmget, shmat) and release (obsolete pass,
// shmdt, IPC_RMID) of a name nobody else holds, through the public object.
void BM_SharedMemoryNewSegment(benchmark::State& state) {
  for (auto _ : state) {
    CPSharedMemory memory("bench-new", 4096);
    benchmark::DoNotOptimize(memory.getAddress());
  }
}
BENCHMARK(BM_SharedMemoryNewSegment);

// The same with other names in use, so that each pass walks their slots.
void BM_SharedMemoryNewSegment_64NamesInUse(benchmark::State& state) {
  std::vector<CPSharedMemory*> others;
  for (int i = 0; i < 64; ++i)
    others.push_back(new CPSharedMemory("bench-other-" + std::to_string(i), 64));
  BM_SharedMemoryNewSegment(state);
  for (CPSharedMemory* m : others) delete m;
}
BENCHMARK(BM_SharedMemoryNewSegment_64NamesInUse);

// A second acquire of a name this process holds: the per-process map only.
// The matching releases (which do take the interprocess lock) run in
// batches outside the timed region.
void BM_AcquireAttachedName(benchmark::State& state) {
  CPSharedMemory held("bench-held", 4096);
  CShareMemMap* map = get_shareMemMap();
  constexpr int kBatch = 4096;
  int pending = 0;
  for (auto _ : state) {
    int created = 0;
    benchmark::DoNotOptimize(map->acquireSharedMemory("bench-held", 4096, &created));
    if (++pending == kBatch) {
      state.PauseTiming();
      while (pending > 0) {
        map->releaseSharedMemory("bench-held");
        --pending;
      }
      state.ResumeTiming();
    }
  }
  while (pending-- > 0) map->releaseSharedMemory("bench-held");
}
BENCHMARK(BM_AcquireAttachedName);

// A second CPSharedMemory of a held name, made and destroyed: the map hit
// plus a release that is not the last (that one takes the lock).
void BM_SharedMemoryAttachedNameObject(benchmark::State& state) {
  CPSharedMemory held("bench-held", 4096);
  for (auto _ : state) {
    CPSharedMemory again("bench-held", 4096);
    benchmark::DoNotOptimize(again.getAddress());
  }
}
BENCHMARK(BM_SharedMemoryAttachedNameObject);

AMBIT_BENCH_RATIO("CInterprocessLock lock+unlock / bare flock pair",
                  "BM_InterprocessLockLockUnlock", "BM_BareFlockPair");
AMBIT_BENCH_RATIO("new segment acquire+release / bare flock pair",
                  "BM_SharedMemoryNewSegment", "BM_BareFlockPair");
AMBIT_BENCH_RATIO("attached-name acquire / bare flock pair", "BM_AcquireAttachedName",
                  "BM_BareFlockPair");
AMBIT_BENCH_RATIO("new segment acquire+release / attached-name acquire",
                  "BM_SharedMemoryNewSegment", "BM_AcquireAttachedName");
AMBIT_BENCH_RATIO("attached-name object make+destroy / bare flock pair",
                  "BM_SharedMemoryAttachedNameObject", "BM_BareFlockPair");

}  // namespace

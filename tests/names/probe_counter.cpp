// Counts the liveness probes (kill with signal 0) that the name map makes,
// so that a test can see how often each pid was probed in one pass. This
// kill() replaces the C library's for the whole test binary and the library
// objects linked into it; it forwards every call to the kernel unchanged.
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "names/names_support.h"

namespace {

constexpr int kWatched = 16;
std::atomic<int> g_watchedPids[kWatched];
std::atomic<int> g_probes[kWatched];
std::atomic<bool> g_counting(false);

}  // namespace

extern "C" int kill(pid_t pid, int sig) {
  if (sig == 0 && g_counting.load()) {
    for (int i = 0; i < kWatched; ++i)
      if (g_watchedPids[i].load() == pid) g_probes[i].fetch_add(1);
  }
  return static_cast<int>(::syscall(SYS_kill, pid, sig));
}

namespace names_test {

void CountProbesOf(const std::vector<pid_t>& pids) {
  g_counting.store(false);
  for (int i = 0; i < kWatched; ++i) {
    g_watchedPids[i].store(i < static_cast<int>(pids.size()) ? pids[i] : 0);
    g_probes[i].store(0);
  }
  g_counting.store(true);
}

int ProbesOf(pid_t pid) {
  for (int i = 0; i < kWatched; ++i)
    if (g_watchedPids[i].load() == pid) return g_probes[i].load();
  return -1;
}

void StopCountingProbes() { g_counting.store(false); }

}  // namespace names_test

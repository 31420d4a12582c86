// A process takes a named mutex and is killed while it holds it. The kernel
// tracks who owns a named mutex, so the next wait gets it at once, and
// tells its caller that the owner died holding it (wasAbandoned()), as
// WAIT_ABANDONED does on Windows: what the mutex guards may be half
// changed. The dead process's records in the name map are taken back by
// the next create or open of a named object, or within 20 s by any
// process's own check.
//
// Build: g++ crash_recovery.cpp $(pkg-config --cflags --libs ambit)
// Run:   ./a.out          (exit status 0 when the lock came back)
#include <ambit/ambit.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace {

const char kLock[] = "example-crash-lock";

}  // namespace

int main() {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return 1;
  // The victim is forked before this process touches the library.
  const pid_t victim = fork();
  if (victim < 0) return 1;
  if (victim == 0) {
    CPMutex lock(1, 0, kLock, 0, 1);
    if (lock.wait(5000, nullptr) != 0) _exit(1);
    const char held = 1;
    if (write(pipeFds[1], &held, 1) != 1) _exit(1);
    pause();  // killed here, holding the mutex
    _exit(2);
  }
  char held = 0;
  if (read(pipeFds[0], &held, 1) != 1) return 1;
  CPMutex lock(1, 0, kLock, 0, 1);  // opened while the victim still holds it
  kill(victim, SIGKILL);
  waitpid(victim, nullptr, 0);
  std::printf("victim %d killed while holding \"%s\"\n", static_cast<int>(victim), kLock);

  const auto start = std::chrono::steady_clock::now();
  CPMutexLock guard(lock, 5000);
  const long ms = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now() - start)
                                        .count());
  if (!guard.acquired()) {
    std::printf("the mutex was not given back (wait result 0x%08lX)\n", guard.result());
    return 1;
  }
  std::printf("survivor got the mutex after %ld ms; abandoned by its owner: %s\n", ms,
              lock.wasAbandoned() ? "yes" : "no");
  return lock.wasAbandoned() ? 0 : 1;
}

// A process takes a named mutex and is killed while it holds it. The next
// process that opens a named object runs the crash recovery: it finds the
// dead holder in the name map and undoes its lock, so the mutex can be had
// again. (Every process also re-checks every 20 s on its own.)
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
  kill(victim, SIGKILL);
  waitpid(victim, nullptr, 0);
  std::printf("victim %d killed while holding \"%s\"\n", static_cast<int>(victim), kLock);

  // Opening the name runs the recovery pass before this process gets it.
  const auto start = std::chrono::steady_clock::now();
  CPMutex lock(1, 0, kLock, 0, 1);
  CPMutexLock guard(lock, 5000);
  const long ms = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now() - start)
                                        .count());
  if (!guard.acquired()) {
    std::printf("the mutex was not given back (wait result 0x%08lX)\n", guard.result());
    return 1;
  }
  std::printf("survivor got the mutex %ld ms after opening it\n", ms);
  return 0;
}

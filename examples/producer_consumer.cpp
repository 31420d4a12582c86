// A producer and a consumer process share a block of memory by name. A
// named mutex guards the block and a named event tells the consumer that
// there is something to read. Both processes simply open the three objects
// by the same names: whoever comes first creates them.
//
// Build: g++ producer_consumer.cpp $(pkg-config --cflags --libs ambit)
// Run:   ./a.out          (exit status 0 when every number arrived)
#include <ambit/ambit.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace {

const char kBlock[] = "example-orders";
const char kLock[] = "example-orders-lock";
const char kReady[] = "example-orders-ready";
const int kCount = 20;

// What lives in the shared block. A new block is zero-filled.
struct Orders {
  int written;  // numbers the producer has put in
  int numbers[kCount];
};

int Producer() {
  CPSharedMemory block(kBlock, sizeof(Orders));
  CPMutex lock(1, 0, kLock, 0, 1);  // create or open; not recursive
  CPEvent ready(1, kReady, 1);
  Orders* orders = static_cast<Orders*>(block.getAddress());
  for (int i = 0; i < kCount; ++i) {
    {
      CPMutexLock guard(lock, 5000);  // released at the end of the block
      if (!guard.acquired()) return 1;
      orders->numbers[orders->written] = (i + 1) * 10;
      ++orders->written;
    }
    ready.wake(0x1);  // wakes the consumer; wakes before its wait are kept
    usleep(1000);
  }
  return 0;
}

int Consumer() {
  CPSharedMemory block(kBlock, sizeof(Orders));
  CPMutex lock(1, 0, kLock, 0, 1);
  CPEvent ready(1, kReady, 1);
  Orders* orders = static_cast<Orders*>(block.getAddress());
  int read = 0;
  long sum = 0;
  while (read < kCount) {
    const unsigned long woken = ready.wait(5000, nullptr);
    if (woken == QK_WAIT_TIMEOUT) {
      std::printf("consumer: nothing for 5 s, giving up\n");
      return 1;
    }
    CPMutexLock guard(lock, 5000);
    if (!guard.acquired()) return 1;
    for (; read < orders->written; ++read) sum += orders->numbers[read];
  }
  std::printf("consumer: read %d numbers, sum %ld\n", read, sum);
  return sum == 10L * kCount * (kCount + 1) / 2 ? 0 : 1;
}

}  // namespace

int main() {
  // Fork before either side touches the library, so that each registers as
  // a process of its own.
  const pid_t consumer = fork();
  if (consumer < 0) return 1;
  if (consumer == 0) {
    const int code = Consumer();
    std::fflush(stdout);  // _exit does not flush
    _exit(code);
  }
  const int produced = Producer();
  int status = 0;
  waitpid(consumer, &status, 0);
  const bool ok = produced == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  std::printf("producer: %s\n", ok ? "done" : "FAILED");
  return ok ? 0 : 1;
}

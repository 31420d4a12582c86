// ambit-torture: named objects under random SIGKILLs.
//
//   ambit-torture [--seconds N] [--seed S]     (default 120 s)
//
// Runs in a private IPC + mount namespace (re-executing itself through
// scripts/run-isolated.sh), so it never touches this machine's registries.
// 16 worker processes, each with two threads, loop over random operations on
// a few named mutexes, events, semaphores and shared segments: open and
// close them, wait and release with short time-outs, wake and wait, acquire
// and release segments, and increment a counter. The parent kills workers
// with SIGKILL at random moments (a third of the kills aimed at a worker
// that is inside a mutex release), reaps them and starts replacements.
// After every round it runs `ambit-ipcs --clean --check` and an audit of
// the counter.
//
// Exclusion is checked directly: every thread that acquires a named mutex
// records its process in an occupancy word for that mutex, and clears it
// before it releases. A thread that acquires while the word still names a
// live process has broken the mutex's exclusion: a violation. When the word
// names a process the parent has killed, the mutex was abandoned and handed
// on: that is counted, with the time from the kill to the acquisition.
//
// Why --clean before --check: a worker killed inside one of the library's
// critical sections leaves records behind that the library itself repairs
// only at the next operation or on its 20 s watcher (its busy pid, its pids
// in the registries, a mutex it held). Those are not inconsistencies; the
// cleanup pass takes them back, and what it cannot repair (use counts that
// disagree with their pids, entries above the highest index, segments
// without entries or entries without segments, dead pids still recorded)
// is a violation.
//
// The counter lives in a shared segment and is changed only under a named
// mutex. Each worker slot there records the increments its processes
// completed, written in the same critical section as the counter. A kill
// can land between the two writes, so an increment first writes a journal
// (the counter's and the slot's new values, then a flag), then both values,
// then clears the flag. Whoever takes the mutex next finds a set flag and
// completes the increment by assigning the journal's values (assignment,
// not addition, so it does not matter which of the two writes were done).
// Then the counter equals the sum of the slots exactly, at any moment under
// the mutex; the audit checks that after every round.
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ambit/ambit.h"
#include "common/cli.h"
#include "common/isolation.h"

namespace {

constexpr int kWorkers = 16;
constexpr int kMutexes = 3;  // mutex 0 guards the counter
constexpr int kEvents = 2;
constexpr int kSemaphores = 2;
constexpr int kSegments = 3;
constexpr int kRoundMs = 1000;
constexpr char kCounterSegment[] = "torture-counter";
constexpr char kCounterMutex[] = "torture-mutex-0";

std::string MutexName(int i) { return "torture-mutex-" + std::to_string(i); }
std::string EventName(int i) { return "torture-event-" + std::to_string(i); }
std::string SemaphoreName(int i) { return "torture-semaphore-" + std::to_string(i); }
std::string SegmentName(int i) { return "torture-segment-" + std::to_string(i); }
unsigned long SegmentSize(int i) { return 1024ul << i; }

// The counter segment.
struct CounterBlock {
  uint32_t counter;
  uint32_t rolledForward;  // increments completed by a later holder
  struct Slot {
    uint32_t done;  // increments completed by this worker slot's processes
    uint32_t journalCounter;
    uint32_t journalDone;
    uint32_t journalSet;
  } slots[kWorkers];
};

constexpr int kThreadsPerWorker = 2;
constexpr int kKillRing = 1024;

// Statistics the parent reads, in anonymous shared memory made before any
// fork (not a library object: the parent never touches the library).
struct Stats {
  volatile uint32_t stop;
  // Which process is inside each named mutex (0 = none).
  uint32_t occupant[kMutexes];
  // Workers inside CPMutex::release (a count per worker slot).
  uint32_t inRelease[kWorkers];
  // The processes the parent killed, recorded before each SIGKILL, with the
  // CLOCK_MONOTONIC time of the kill in microseconds.
  uint32_t killedPid[kKillRing];
  uint64_t killedAtUs[kKillRing];
  uint32_t killCount;
  uint32_t exclusionViolations;
  uint32_t abandonments;
  uint64_t longestAfterKillUs;
  uint32_t ops[kWorkers];
  uint32_t increments[kWorkers];
  uint32_t failures[kWorkers];
  // Written by an auditor.
  uint32_t auditDone;
  uint32_t auditCounter;
  uint32_t auditSum;
  uint32_t auditRolled;
};

Stats* g_stats = nullptr;

void Bump(uint32_t* p) { __atomic_fetch_add(p, 1, __ATOMIC_RELAXED); }

uint64_t NowUs() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

// The time the parent killed pid (microseconds), or 0 when it did not.
uint64_t KilledAt(uint32_t pid) {
  const uint32_t n = __atomic_load_n(&g_stats->killCount, __ATOMIC_ACQUIRE);
  const uint32_t first = n > kKillRing ? n - kKillRing : 0;
  for (uint32_t i = n; i > first; --i)
    if (g_stats->killedPid[(i - 1) % kKillRing] == pid) return g_stats->killedAtUs[(i - 1) % kKillRing];
  return 0;
}

// Called right after a thread acquired named mutex i.
void Enter(int i) {
  const uint32_t self = static_cast<uint32_t>(::getpid());
  const uint32_t before = __atomic_exchange_n(&g_stats->occupant[i], self, __ATOMIC_SEQ_CST);
  if (before == 0) return;
  const uint64_t killedAt = KilledAt(before);
  if (killedAt != 0) {
    Bump(&g_stats->abandonments);
    const uint64_t waited = NowUs() - killedAt;
    uint64_t longest = __atomic_load_n(&g_stats->longestAfterKillUs, __ATOMIC_RELAXED);
    while (waited > longest &&
           !__atomic_compare_exchange_n(&g_stats->longestAfterKillUs, &longest, waited, false,
                                        __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    }
    return;
  }
  Bump(&g_stats->exclusionViolations);
  std::printf("  violation: pid %u acquired %s while live pid %u was inside\n", self,
              MutexName(i).c_str(), before);
}

// Called right before a thread releases named mutex i.
void Leave(int i) {
  uint32_t self = static_cast<uint32_t>(::getpid());
  __atomic_compare_exchange_n(&g_stats->occupant[i], &self, 0, false, __ATOMIC_SEQ_CST,
                              __ATOMIC_SEQ_CST);
}

// Releases named mutex i, marked as inside a release for the parent's aim.
void Release(CPMutex* mutex, int i, int slot) {
  Leave(i);
  __atomic_fetch_add(&g_stats->inRelease[slot], 1, __ATOMIC_SEQ_CST);
  mutex->release();
  __atomic_fetch_sub(&g_stats->inRelease[slot], 1, __ATOMIC_SEQ_CST);
}

// Completes an increment whose process was killed in the middle of it. The
// caller holds the counter mutex.
void RollForward(CounterBlock* block) {
  for (CounterBlock::Slot& s : block->slots)
    if (s.journalSet != 0) {
      block->counter = s.journalCounter;
      s.done = s.journalDone;
      s.journalSet = 0;
      ++block->rolledForward;
    }
}

void Increment(CounterBlock* block, int slot) {
  RollForward(block);
  CounterBlock::Slot& s = block->slots[slot];
  s.journalCounter = block->counter + 1;
  s.journalDone = s.done + 1;
  s.journalSet = 1;
  block->counter = s.journalCounter;
  s.done = s.journalDone;
  s.journalSet = 0;
}

// One worker thread: random operations until told to stop or killed.
void WorkerThread(int slot, uint32_t seed) {
  std::mt19937 rng(seed);
  auto pick = [&rng](int n) { return static_cast<int>(rng() % static_cast<uint32_t>(n)); };
  std::unique_ptr<CPMutex> mutexes[kMutexes];
  std::unique_ptr<CPEvent> events[kEvents];
  std::unique_ptr<CPSemaphore> semaphores[kSemaphores];
  std::unique_ptr<CPSharedMemory> segments[kSegments];
  std::unique_ptr<CPSharedMemory> counterMemory;
  std::unique_ptr<CPMutex> counterMutex;

  while (g_stats->stop == 0) {
    try {
      switch (pick(10)) {
        case 0: {  // open or close a mutex
          const int i = pick(kMutexes);
          if (mutexes[i])
            mutexes[i].reset();
          else
            mutexes[i].reset(new CPMutex(1, 0, MutexName(i), 0, 0));
          break;
        }
        case 1: {  // take a mutex briefly
          const int i = pick(kMutexes);
          if (!mutexes[i]) mutexes[i].reset(new CPMutex(1, 0, MutexName(i), 0, 0));
          if (mutexes[i]->wait(static_cast<unsigned long>(pick(20)), nullptr) == 0) {
            Enter(i);
            if (pick(4) == 0) ::usleep(static_cast<useconds_t>(pick(500)));
            Release(mutexes[i].get(), i, slot);
          }
          break;
        }
        case 2: {  // open or close an event, or wake it
          const int i = pick(kEvents);
          if (!events[i])
            events[i].reset(new CPEvent(1, EventName(i), 0));
          else if (pick(3) == 0)
            events[i].reset();
          else
            events[i]->wake(1L << pick(8));
          break;
        }
        case 3: {  // wait on an event
          const int i = pick(kEvents);
          if (!events[i]) events[i].reset(new CPEvent(1, EventName(i), 0));
          events[i]->wait(static_cast<unsigned long>(pick(10)), nullptr);
          break;
        }
        case 4: {  // open or close a semaphore
          const int i = pick(kSemaphores);
          if (semaphores[i])
            semaphores[i].reset();
          else
            semaphores[i].reset(new CPSemaphore(1, 2, 100, SemaphoreName(i), 0));
          break;
        }
        case 5: {  // take a unit and give it back
          const int i = pick(kSemaphores);
          if (!semaphores[i]) semaphores[i].reset(new CPSemaphore(1, 2, 100, SemaphoreName(i), 0));
          if (semaphores[i]->wait(static_cast<unsigned long>(pick(10)), nullptr) == 0)
            semaphores[i]->release();
          break;
        }
        case 6:
        case 7: {  // acquire or release a segment, and use it
          const int i = pick(kSegments);
          if (segments[i]) {
            segments[i].reset();
          } else {
            segments[i].reset(new CPSharedMemory(SegmentName(i), SegmentSize(i)));
            static_cast<volatile uint32_t*>(segments[i]->getAddress())[slot] =
                static_cast<uint32_t>(::getpid());
          }
          break;
        }
        default: {  // the counter, under its mutex
          if (!counterMemory) counterMemory.reset(new CPSharedMemory(kCounterSegment, sizeof(CounterBlock)));
          if (!counterMutex) counterMutex.reset(new CPMutex(1, 0, kCounterMutex, 0, 0));
          if (counterMutex->wait(50, nullptr) == 0) {
            Enter(0);
            Increment(static_cast<CounterBlock*>(counterMemory->getAddress()), slot);
            Release(counterMutex.get(), 0, slot);
            Bump(&g_stats->increments[slot]);
          }
          if (pick(8) == 0) {  // let go now and then
            counterMutex.reset();
            counterMemory.reset();
          }
          break;
        }
      }
      Bump(&g_stats->ops[slot]);
    } catch (const QKException&) {
      Bump(&g_stats->failures[slot]);
    }
  }
}

// One worker process: kThreadsPerWorker threads of random operations.
int Worker(int slot, uint32_t seed) {
  std::vector<std::thread> threads;
  for (int t = 1; t < kThreadsPerWorker; ++t)
    threads.emplace_back(WorkerThread, slot, seed + 104729u * static_cast<uint32_t>(t));
  WorkerThread(slot, seed);
  for (std::thread& t : threads) t.join();
  return 0;
}

// Takes the counter mutex, completes an interrupted increment, and writes
// the counter and the sum of the slots to the statistics.
int Auditor() {
  CPSharedMemory memory(kCounterSegment, sizeof(CounterBlock));
  CPMutex mutex(1, 0, kCounterMutex, 0, 0);
  if (mutex.wait(5000, nullptr) != 0) return 3;
  Enter(0);
  CounterBlock* block = static_cast<CounterBlock*>(memory.getAddress());
  RollForward(block);
  uint32_t sum = 0;
  for (const CounterBlock::Slot& s : block->slots) sum += s.done;
  g_stats->auditCounter = block->counter;
  g_stats->auditSum = sum;
  g_stats->auditRolled = block->rolledForward;
  g_stats->auditDone = 1;
  Leave(0);
  mutex.release();
  return 0;
}

template <typename Body>
pid_t Fork(Body body) {
  std::fflush(nullptr);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(100);
    int code = 2;
    try {
      code = body();
    } catch (const QKException&) {
      code = 4;
    }
    ::_exit(code);
  }
  return pid;
}

// Waits for pid within timeoutMs, then kills it. Its exit code or -1.
int Reap(pid_t pid, int timeoutMs) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
  int status = 0;
  pid_t r;
  while ((r = ::waitpid(pid, &status, WNOHANG)) == 0 && Clock::now() < end) ::usleep(2000);
  if (r == 0) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Records pid as killed, before the SIGKILL is sent: a thread that then
// finds it in an occupancy word knows the mutex was abandoned.
void RecordKill(uint32_t pid) {
  const uint32_t n = g_stats->killCount;
  g_stats->killedPid[n % kKillRing] = pid;
  g_stats->killedAtUs[n % kKillRing] = NowUs();
  __atomic_store_n(&g_stats->killCount, n + 1, __ATOMIC_RELEASE);
}

// A worker slot that is inside a mutex release, watched for up to 20 ms;
// `fallback` when none was seen.
int WorkerInRelease(int fallback) {
  const uint64_t end = NowUs() + 20000;
  while (NowUs() < end)
    for (int slot = 0; slot < kWorkers; ++slot)
      if (__atomic_load_n(&g_stats->inRelease[slot], __ATOMIC_SEQ_CST) != 0) return slot;
  return fallback;
}

struct Totals {
  int rounds = 0;
  int kills = 0;
  int violations = 0;
  int reclaimed = 0;
  int unexpectedExits = 0;
};

// Runs the inspector; counts its violation lines (at least one when it
// fails without naming any) and what its cleanup reclaimed.
int InspectorViolations(const std::vector<std::string>& args, int* reclaimed) {
  std::vector<std::string> argv = {tools::SiblingProgram("ambit-ipcs")};
  argv.insert(argv.end(), args.begin(), args.end());
  std::string out;
  const int code = tools::RunProgram(argv, 30000, &out);
  int violations = 0;
  size_t start = 0;
  while (start < out.size()) {
    size_t end = out.find('\n', start);
    if (end == std::string::npos) end = out.size();
    const std::string line = out.substr(start, end - start);
    if (line.rfind("violation:", 0) == 0) {
      ++violations;
      std::printf("  %s\n", line.c_str());
    }
    unsigned n = 0;
    if (reclaimed != nullptr && std::sscanf(line.c_str(), "clean: %u item", &n) == 1)
      *reclaimed += static_cast<int>(n);
    start = end + 1;
  }
  if (code != 0 && violations == 0) {
    std::printf("  ambit-ipcs exited with %d:\n%s", code, out.c_str());
    violations = 1;
  }
  return violations;
}

// The counter audit; 0 or 1 violation.
int Audit(uint32_t* counter, uint32_t* sum, uint32_t* rolled) {
  g_stats->auditDone = 0;
  const int code = Reap(Fork([] { return Auditor(); }), 10000);
  if (code != 0 || g_stats->auditDone == 0) {
    std::printf("  audit failed (exit %d): the counter mutex could not be had\n", code);
    return 1;
  }
  *counter = g_stats->auditCounter;
  *sum = g_stats->auditSum;
  *rolled = g_stats->auditRolled;
  if (*counter != *sum) {
    std::printf("  violation: counter %u but completed increments %u\n", *counter, *sum);
    return 1;
  }
  return 0;
}

uint64_t Sum(const uint32_t* values) {
  uint64_t s = 0;
  for (int i = 0; i < kWorkers; ++i) s += __atomic_load_n(&values[i], __ATOMIC_RELAXED);
  return s;
}

}  // namespace

constexpr char kUsage[] =
    "usage: ambit-torture [--seconds N] [--seed S] [--help] [--version]\n"
    "\n"
    "Kills and replaces worker processes that use named mutexes, events,\n"
    "semaphores and shared memory, for N seconds (default 120), in a private IPC\n"
    "and mount namespace of its own. After every round it runs\n"
    "ambit-ipcs --clean --check and audits a shared counter. The summary ends\n"
    "with \"violations: 0\" and the exit status is 0 when nothing went wrong,\n"
    "1 otherwise, 2 on a usage error.\n"
    "\n"
    "  --seconds N  how long to run (at least 1)\n"
    "  --seed S     seed of the random kills, to repeat a run\n"
    "  --help       print this text and exit\n"
    "  --version    print the version and exit\n";

int main(int argc, char** argv) {
  const int answered = tools::AnswerHelpOrVersion(argc, argv, "ambit-torture", kUsage);
  if (answered >= 0) return answered;
  const std::string script = tools::HelperPath(AMBIT_HELPER_DIR, "run-isolated.sh");
  if (!tools::EnsureIsolated(argc, argv, script.c_str())) return 2;
  setvbuf(stdout, nullptr, _IOLBF, 0);
  int seconds = 120;
  uint32_t seed = static_cast<uint32_t>(::time(nullptr));
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc)
      seconds = std::atoi(argv[++i]);
    else if (std::strcmp(argv[i], "--seed") == 0 && i + 1 < argc)
      seed = static_cast<uint32_t>(std::strtoul(argv[++i], nullptr, 10));
    else {
      std::fprintf(stderr, "%s", kUsage);
      return 2;
    }
  }
  if (seconds < 1) seconds = 1;
  void* shared = ::mmap(nullptr, sizeof(Stats), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                        -1, 0);
  if (shared == MAP_FAILED) return 2;
  g_stats = static_cast<Stats*>(shared);
  std::memset(g_stats, 0, sizeof(Stats));

  std::printf("ambit-torture: %d workers of %d threads, %d s, seed %u, rounds of %d ms, in a "
              "private namespace\n",
              kWorkers, kThreadsPerWorker, seconds, seed, kRoundMs);
  std::mt19937 rng(seed);
  uint32_t serial = 0;
  pid_t workers[kWorkers];
  auto start = [&](int slot) {
    const uint32_t workerSeed = seed * 7919u + ++serial;
    workers[slot] = Fork([slot, workerSeed] { return Worker(slot, workerSeed); });
  };
  for (int i = 0; i < kWorkers; ++i) start(i);

  Totals t;
  uint32_t counter = 0, sum = 0, rolled = 0;
  uint32_t reportedBroken = 0;
  using Clock = std::chrono::steady_clock;
  const auto begin = Clock::now();
  const auto finish = begin + std::chrono::seconds(seconds);
  while (Clock::now() < finish) {
    ++t.rounds;
    const auto roundEnd = Clock::now() + std::chrono::milliseconds(kRoundMs);
    const int kills = 2 + static_cast<int>(rng() % 5);
    int killed = 0;
    for (int k = 0; k < kills; ++k) {
      ::usleep(static_cast<useconds_t>(1000 * (rng() % (kRoundMs / kills))));
      int slot = static_cast<int>(rng() % kWorkers);
      if (rng() % 3 == 0) slot = WorkerInRelease(slot);
      RecordKill(static_cast<uint32_t>(workers[slot]));
      ::kill(workers[slot], SIGKILL);
      const int code = Reap(workers[slot], 5000);
      if (code != 128 + SIGKILL) ++t.unexpectedExits;
      g_stats->inRelease[slot] = 0;
      ++killed;
      start(slot);
    }
    // A worker that ended by itself is a failure.
    for (int slot = 0; slot < kWorkers; ++slot) {
      int status = 0;
      if (::waitpid(workers[slot], &status, WNOHANG) == workers[slot]) {
        std::printf("  worker %d ended by itself (status 0x%x)\n", slot, status);
        ++t.unexpectedExits;
        start(slot);
      }
    }
    while (Clock::now() < roundEnd) ::usleep(10000);
    t.kills += killed;
    int v = InspectorViolations({"--clean", "--check"}, &t.reclaimed);
    v += Audit(&counter, &sum, &rolled);
    t.violations += v;
    const uint32_t broken = g_stats->exclusionViolations;
    std::printf("round %d: %d killed, %llu operations so far, counter %u = completed %u%s\n",
                t.rounds, killed, static_cast<unsigned long long>(Sum(g_stats->ops)), counter, sum,
                v == 0 && broken == reportedBroken ? "" : ", VIOLATIONS");
    reportedBroken = broken;
  }

  // Let the workers go, then everything they had must be gone or clean.
  g_stats->stop = 1;
  for (int slot = 0; slot < kWorkers; ++slot)
    if (Reap(workers[slot], 10000) != 0) ++t.unexpectedExits;
  t.violations += InspectorViolations({"--clean", "--check"}, &t.reclaimed);

  const long ms = static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count());
  std::printf("\n== Summary (%ld ms, seed %u)\n", ms, seed);
  std::printf("rounds: %d\n", t.rounds);
  std::printf("kills: %d\n", t.kills);
  std::printf("operations: %llu (counter increments %llu, failed operations %llu)\n",
              static_cast<unsigned long long>(Sum(g_stats->ops)),
              static_cast<unsigned long long>(Sum(g_stats->increments)),
              static_cast<unsigned long long>(Sum(g_stats->failures)));
  std::printf("counter at the last audit: %u, completed increments: %u (%u completed after "
              "their process was killed mid-increment)\n",
              counter, sum, rolled);
  std::printf("items reclaimed by cleanup: %d\n", t.reclaimed);
  std::printf("unexpected worker exits: %d\n", t.unexpectedExits);
  std::printf("abandoned mutexes taken over: %u (longest from the kill to the next owner: %.1f ms)\n",
              g_stats->abandonments, static_cast<double>(g_stats->longestAfterKillUs) / 1000.0);
  std::printf("exclusion violations (acquired while a live process was inside): %u\n",
              g_stats->exclusionViolations);
  t.violations += static_cast<int>(g_stats->exclusionViolations);
  std::printf("violations: %d\n", t.violations);
  const bool ok = t.violations == 0 && t.unexpectedExits == 0 && counter == sum;
  if (!ok) std::printf("torture: FAILED\n");
  return ok ? 0 : 1;
}

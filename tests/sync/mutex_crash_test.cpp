// Named mutexes and killed processes: the kernel hands a dead owner's mutex
// to a waiter at once, the waiter learns it was abandoned, crash recovery
// never takes a mutex from a live owner, and a process killed at any step
// of a wait, a release or a recovery pass leaves no two owners inside, no
// waiter stuck and records the inspector accepts.
//
// Every test runs in its own process and IPC and mount namespace. Children
// are forked before the test first touches the library, so each is a
// program of its own (its own lock file description and singletons).
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "ambit/event.h"
#include "ambit/exception.h"
#include "ambit/mutex.h"
#include "gtest/gtest.h"
#include "names/name_map.h"
#include "names/names_support.h"
#include "portable/self_ids.h"
#include "portable/test_point.h"
#include "support/child_process.h"
#include "support/handshake.h"
#include "support/log_capture.h"
#include "support/recording_hook.h"
#include "sync/robust_mutex.h"

namespace {

using names_test::Lifeline;
using names_test::Spawn;
using names_test::WaitUntil;
using Clock = std::chrono::steady_clock;

constexpr int kKilled = 128 + SIGKILL;
constexpr unsigned long kForever = 0xFFFFFFFFUL;

int Self() { return static_cast<int>(::getpid()); }

long MsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

CNameMap::SNAMEINFO* EntryOf(const std::string& name) {
  CNameMap::SNAMEMAP* table = get_nameMap()->table();
  for (uint32_t i = 0; i <= table->dwHighestEntry && i < CNameMap::kMaxEntries; ++i)
    if (table->entries[i].szName[0] != 0 && name == table->entries[i].szName)
      return &table->entries[i];
  return nullptr;
}

int32_t Holder(const CNameMap::SNAMEINFO* e) {
  return __atomic_load_n(&e->dwHolderPid, __ATOMIC_SEQ_CST);
}

long WaitCountOf(const CNameMap::SNAMEINFO* e, pid_t pid) {
  for (const CNameMap::SPIDINFO& p : e->pids)
    if (p.dwPid == static_cast<uint32_t>(pid)) return static_cast<long>(p.dwWaitCount);
  return -1;
}

// Anonymous shared memory, made before any fork, that children report in.
template <typename T>
T* SharedBlock() {
  void* p = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : new (p) T();
}

// `ambit-ipcs --check` on this namespace's registries: its exit code and
// what it printed.
ChildResult Inspect() { return RunProgram({AMBIT_IPCS_PATH, "--check"}, {}, 30000); }

// A test point that stops the process: at the `hit`-th pass through
// `point` (by any thread) it signals `reached` and sleeps until killed.
struct StopAt {
  TestPoint point;
  int hit;
  Handshake* reached;
  std::atomic<int> seen{0};
};
StopAt* g_stopAt = nullptr;

void StopHook(TestPoint point) {
  if (g_stopAt == nullptr || point != g_stopAt->point) return;
  if (++g_stopAt->seen != g_stopAt->hit) return;
  g_stopAt->reached->Signal();
  for (;;) ::pause();
}

void InstallStop(TestPoint point, int hit, Handshake* reached) {
  g_stopAt = new StopAt{point, hit, reached};
  g_testPointHook = &StopHook;
}

// A process that creates the named mutex owning it, says so on `owned`,
// and keeps it until the lifeline is let go or it is killed.
std::unique_ptr<ForkedChild> SpawnOwner(const std::string& name, Handshake* owned,
                                        Lifeline* lifeline) {
  return Spawn([name, owned, lifeline] {
    CPMutex mutex(1, 1, name, 0, 0);
    owned->Signal();
    lifeline->WaitForRelease(60000);
    return 0;
  });
}

// --- A killed owner ------------------------------------------------------------------------

struct KilledOwnerCase {
  const char* label;
  int recursive;
  unsigned long timeoutMs;
  bool terminateHook;  // wait through the facade's sliced loop
};

void PrintTo(const KilledOwnerCase& c, std::ostream* os) { *os << c.label; }

// A stop check that never asks to stop: the wait runs the sliced loop.
class NeverStop : public CTerminateWait {
 public:
  int shouldTerminate() override { return 0; }
};

class KilledOwnerTest : public ::testing::TestWithParam<KilledOwnerCase> {};

// The owner is killed while two processes wait on the mutex, and nobody
// creates or opens anything meanwhile: one waiter has it within
// milliseconds and is told it was abandoned; the other gets it after the
// first releases, and is not.
TEST_P(KilledOwnerTest, AWaiterGetsTheMutexAtOnceAndLearnsItWasAbandoned) {
  const KilledOwnerCase c = GetParam();
  const std::string name = std::string("killed-owner-") + c.label;
  struct Report {
    std::atomic<int> acquired{0};
    long long acquiredAtMs[2] = {0, 0};
    int abandoned[2] = {-1, -1};
    int holderAtAcquire[2] = {0, 0};
  };
  Report* report = SharedBlock<Report>();
  ASSERT_NE(nullptr, report);
  Handshake owned, waiting;
  Lifeline lifeline;
  auto owner = Spawn([&] {
    CPMutex mutex(1, 1, name, c.recursive, 0);
    if (mutex.isCreator() != 1 || (c.recursive && mutex.wait(0, nullptr) != 0)) return 2;
    owned.Signal();
    lifeline.WaitForRelease(60000);
    return 0;
  });
  std::vector<std::unique_ptr<ForkedChild>> waiters;
  for (int w = 0; w < 2; ++w)
    waiters.push_back(Spawn([&, w] {
      if (!owned.WaitFor(10000)) return 2;
      owned.Signal();  // pass it on to the other waiter
      CPMutex mutex(0, 0, name, c.recursive, 0);
      waiting.Signal();
      NeverStop neverStop;
      if (mutex.wait(c.timeoutMs, c.terminateHook ? &neverStop : nullptr) != 0) return 3;
      const int order = report->acquired++;
      report->acquiredAtMs[order] = std::chrono::duration_cast<std::chrono::milliseconds>(
                                        Clock::now().time_since_epoch()).count();
      report->abandoned[order] = mutex.wasAbandoned();
      report->holderAtAcquire[order] = Holder(EntryOf(mutex.getName()));
      if (report->holderAtAcquire[order] != Self()) return 4;
      ::usleep(100000);  // the other waiter stays blocked meanwhile
      mutex.release();
      return mutex.wasAbandoned() == report->abandoned[order] ? 0 : 5;
    }));
  ASSERT_TRUE(owner->Started());
  ASSERT_TRUE(waiting.WaitFor(10000));
  ASSERT_TRUE(waiting.WaitFor(10000));
  // Both waiters are inside their waits: their wait counts say so.
  CNameMap::SNAMEINFO* e = EntryOf(name);
  ASSERT_NE(nullptr, e);
  ASSERT_TRUE(WaitUntil([&] {
    return WaitCountOf(e, waiters[0]->Pid()) == 1 && WaitCountOf(e, waiters[1]->Pid()) == 1;
  }, 10000));
  ::usleep(50000);
  EXPECT_EQ(0, report->acquired.load());

  const auto killedAt = std::chrono::duration_cast<std::chrono::milliseconds>(
                            Clock::now().time_since_epoch()).count();
  owner->Kill();
  ASSERT_EQ(kKilled, owner->Join(5000));
  // The pid watchers run every 20 s: a wait that ends well before that was
  // ended by the kernel, not by recovery.
  ASSERT_TRUE(WaitUntil([&] { return report->acquired.load() >= 1; }, 5000))
      << "no waiter got the abandoned mutex";
  EXPECT_EQ(0, waiters[0]->Join(10000));
  EXPECT_EQ(0, waiters[1]->Join(10000));
  ASSERT_EQ(2, report->acquired.load());
  EXPECT_LT(report->acquiredAtMs[0] - killedAt, 5000);
  EXPECT_EQ(1, report->abandoned[0]) << "the first waiter was not told of the abandonment";
  EXPECT_EQ(0, report->abandoned[1]) << "the second waiter got a released mutex";
  EXPECT_GE(report->acquiredAtMs[1] - report->acquiredAtMs[0], 90)
      << "the second waiter got in while the first was inside";
  EXPECT_EQ(0, Holder(e));
}

INSTANTIATE_TEST_SUITE_P(
    Modes, KilledOwnerTest,
    ::testing::Values(KilledOwnerCase{"plain", 0, kForever, false},
                      KilledOwnerCase{"recursive", 1, kForever, false},
                      KilledOwnerCase{"plain-timed", 0, 30000, false},
                      KilledOwnerCase{"recursive-timed", 1, 30000, false},
                      KilledOwnerCase{"plain-terminate-hook", 0, kForever, true},
                      KilledOwnerCase{"recursive-terminate-hook", 1, 30000, true}),
    [](const ::testing::TestParamInfo<KilledOwnerCase>& info) {
      std::string s = info.param.label;
      for (char& ch : s)
        if (ch == '-') ch = '_';
      return s;
    });

// The abandonment writes its error line, naming the dead owner's pid.
TEST(MutexAbandonTest, TheTakeOverWritesTheErrorLineWithThePreviousOwner) {
  Handshake owned;
  Lifeline lifeline;
  const std::string name = "abandon-line";
  auto owner = SpawnOwner(name, &owned, &lifeline);
  ASSERT_TRUE(owned.WaitFor(10000));
  // Opened while the owner lives: with it gone, the open's recovery pass
  // would free the entry of its last user.
  CPMutex mutex(0, 0, name, 0, 1);
  const pid_t dead = owner->Pid();
  owner->Kill();
  ASSERT_EQ(kKilled, owner->Join(5000));
  RecordingHook hook;
  hook.Install();
  ASSERT_EQ(0UL, mutex.wait(5000, nullptr));
  EXPECT_EQ(1, mutex.wasAbandoned());
  int found = 0;
  for (const RecordingHook::Line& l : hook.Lines())
    if (l.text.find("(Error) CPMutexImpl::wait (") == 0 &&
        l.text.find("), previous owner " + std::to_string(dead) + " died\n") != std::string::npos) {
      EXPECT_EQ(16UL, l.category);
      EXPECT_EQ(64UL, l.level);
      ++found;
    }
  EXPECT_EQ(1, found);
  mutex.release();
  // The next wait takes a released mutex.
  ASSERT_EQ(0UL, mutex.wait(0, nullptr));
  EXPECT_EQ(0, mutex.wasAbandoned());
  mutex.release();
}

// The query is per thread: another thread's ordinary wait does not change
// what this thread was told.
TEST(MutexAbandonTest, TheQueryAnswersForTheCallingThreadOnly) {
  Handshake owned;
  Lifeline lifeline;
  auto owner = SpawnOwner("abandon-thread", &owned, &lifeline);
  ASSERT_TRUE(owned.WaitFor(10000));
  CPMutex mutex(0, 0, "abandon-thread", 0, 0);
  owner->Kill();
  ASSERT_EQ(kKilled, owner->Join(5000));
  ASSERT_EQ(0UL, mutex.wait(5000, nullptr));
  mutex.release();
  int other = -1;
  std::thread([&] {
    if (mutex.wait(5000, nullptr) == 0) {
      other = mutex.wasAbandoned();
      mutex.release();
    }
  }).join();
  EXPECT_EQ(0, other);
  EXPECT_EQ(1, mutex.wasAbandoned());
}

// --- The three windows of the old rules ----------------------------------------------------

// a. A release clears the holder mark while it still holds the mutex, so it
// can never erase the mark of the next owner, even one in its own process.
// That owner, killed afterwards, leaves a mutex the next waiter gets.
TEST(MutexWindowTest, AReleaseNeverErasesTheNextOwnersMark) {
  const std::string name = "window-a";
  struct Report {
    int stillHeldAtClear = -1;
    int holderAtClear = -1;
    int holderAfterRelease = -1;
  };
  Report* report = SharedBlock<Report>();
  Handshake marked, otherWaits;
  Lifeline lifeline;
  auto process = Spawn([&] {
    CPMutex mutex(1, 0, name, 0, 0);
    if (mutex.wait(1000, nullptr) != 0) return 2;
    std::atomic<bool> secondHasIt{false};
    std::thread second([&] {
      otherWaits.Signal();
      if (mutex.wait(kForever, nullptr) != 0) return;
      secondHasIt = true;
      marked.Signal();
      lifeline.WaitForRelease(60000);  // keeps the mutex until killed
    });
    if (!otherWaits.WaitFor(10000)) return 3;
    ::usleep(50000);  // the second thread is blocked in its wait
    static Report* r = report;
    static pthread_mutex_t* m = &EntryOf(name)->object.mutex;
    static CNameMap::SNAMEINFO* entry = EntryOf(name);
    static const int tid = OwnThreadId();
    g_testPointHook = [](TestPoint point) {
      if (point != TestPoint::ReleaseAfterClear || OwnThreadId() != tid) return;
      r->stillHeldAtClear = MutexOwnerThread(m) == tid ? 1 : 0;
      r->holderAtClear = Holder(entry);
    };
    mutex.release();
    g_testPointHook = nullptr;
    if (!WaitUntil([&] { return secondHasIt.load(); }, 10000)) return 4;
    ::usleep(20000);
    report->holderAfterRelease = Holder(entry);
    second.join();
    return 0;
  });
  ASSERT_TRUE(marked.WaitFor(10000)) << process->Join(1000);
  ASSERT_TRUE(WaitUntil([&] { return report->holderAfterRelease != -1; }, 10000));
  EXPECT_EQ(1, report->stillHeldAtClear) << "the mark was cleared after the unlock";
  EXPECT_EQ(0, report->holderAtClear);
  EXPECT_EQ(static_cast<int>(process->Pid()), report->holderAfterRelease)
      << "the second thread's mark was erased";

  CPMutex mutex(0, 0, name, 0, 0);
  process->Kill();
  EXPECT_EQ(kKilled, process->Join(5000));
  EXPECT_EQ(0UL, mutex.wait(5000, nullptr)) << "the killed owner left the mutex locked";
  EXPECT_EQ(1, mutex.wasAbandoned());
  mutex.release();
}

// b. The holder mark says nobody holds the mutex while a live process does,
// and a process that was waiting for it dies: recovery leaves the live
// owner's lock alone, and a third process's wait still times out.
TEST(MutexWindowTest, RecoveryNeverUnlocksALiveOwnersMutexForADeadWaiter) {
  const std::string name = "window-b";
  Handshake owned, waiting;
  Lifeline lifeline;
  auto owner = SpawnOwner(name, &owned, &lifeline);
  auto dyingWaiter = Spawn([&] {
    if (!owned.WaitFor(10000)) return 2;
    CPMutex mutex(0, 0, name, 0, 0);
    waiting.Signal();
    mutex.wait(kForever, nullptr);
    return 3;
  });
  ASSERT_TRUE(waiting.WaitFor(20000)) << owner->Join(1000);
  CNameMap::SNAMEINFO* e = EntryOf(name);
  ASSERT_NE(nullptr, e);
  ASSERT_TRUE(WaitUntil([&] { return WaitCountOf(e, dyingWaiter->Pid()) == 1; }, 10000));
  __atomic_store_n(&e->dwHolderPid, 0, __ATOMIC_SEQ_CST);  // the mark, erased
  const pid_t dead = dyingWaiter->Pid();
  dyingWaiter->Kill();
  ASSERT_EQ(kKilled, dyingWaiter->Join(5000));

  LogCapture log(2);
  names_test::RunRecoveryPass();
  EXPECT_EQ(-1, WaitCountOf(e, dead)) << "the dead waiter's slot is still there";
  int rule3 = 0;
  for (const std::string& l : log.Lines())
    if (l.find("CNameMap::checkForObsoleteEntries.3, obsolete pid " + std::to_string(dead)) !=
        std::string::npos)
      ++rule3;
  EXPECT_EQ(1, rule3) << "the rule's line is kept";
  CPMutex third(0, 0, name, 0, 0);
  EXPECT_EQ(0xE0000000UL, third.wait(200, nullptr)) << "two processes inside at once";
  EXPECT_EQ(static_cast<int>(owner->Pid()), MutexOwnerThread(&e->object.mutex));
  lifeline.Release();
  EXPECT_EQ(0, owner->Join(10000));
}

// c. One pass meets a dead holder and a dead waiter of the same mutex, and a
// live waiter has already been handed the mutex but not yet marked itself:
// neither rule takes it from that waiter.
TEST(MutexWindowTest, OnePassWithADeadHolderAndADeadWaiterLeavesTheNewOwnerInside) {
  const std::string name = "window-c";
  Handshake owned, deadWaits, liveLocked, liveGo, liveDone;
  Lifeline lifeline;
  auto owner = SpawnOwner(name, &owned, &lifeline);
  auto deadWaiter = Spawn([&] {
    if (!owned.WaitFor(10000)) return 2;
    owned.Signal();
    CPMutex mutex(0, 0, name, 0, 0);
    deadWaits.Signal();
    mutex.wait(kForever, nullptr);
    return 3;
  });
  auto liveWaiter = Spawn([&] {
    if (!owned.WaitFor(10000)) return 2;
    owned.Signal();
    CPMutex mutex(0, 0, name, 0, 0);
    static Handshake* locked = &liveLocked;
    static Handshake* go = &liveGo;
    g_testPointHook = [](TestPoint point) {
      if (point != TestPoint::MutexLocked) return;
      locked->Signal();
      go->WaitFor(30000);
    };
    if (mutex.wait(kForever, nullptr) != 0) return 3;
    g_testPointHook = nullptr;
    const bool mine = Holder(EntryOf(name)) == Self();
    liveDone.Signal();
    if (!lifeline.WaitForRelease(60000)) return 4;
    mutex.release();
    return mine ? 0 : 5;
  });
  ASSERT_TRUE(deadWaits.WaitFor(20000));
  CNameMap::SNAMEINFO* e = EntryOf(name);
  ASSERT_NE(nullptr, e);
  ASSERT_TRUE(WaitUntil([&] {
    return WaitCountOf(e, deadWaiter->Pid()) == 1 && WaitCountOf(e, liveWaiter->Pid()) == 1;
  }, 10000));
  const pid_t deadOwner = owner->Pid();
  const pid_t deadWaiterPid = deadWaiter->Pid();
  deadWaiter->Kill();
  ASSERT_EQ(kKilled, deadWaiter->Join(5000));
  owner->Kill();
  ASSERT_EQ(kKilled, owner->Join(5000));
  ASSERT_TRUE(liveLocked.WaitFor(5000)) << "the live waiter was not handed the mutex";
  // It holds the mutex and has not marked itself: the holder word still
  // names the dead owner, as when a pass runs in that moment.
  EXPECT_EQ(static_cast<int>(deadOwner), Holder(e));

  LogCapture log(2);
  names_test::RunRecoveryPass();
  int rule2 = 0, rule3 = 0;
  for (const std::string& l : log.Lines()) {
    if (l.find("checkForObsoleteEntries.2, obsolete pid " + std::to_string(deadOwner)) !=
        std::string::npos)
      ++rule2;
    if (l.find("checkForObsoleteEntries.3, obsolete pid " + std::to_string(deadWaiterPid)) !=
        std::string::npos)
      ++rule3;
  }
  EXPECT_EQ(1, rule2);
  EXPECT_EQ(1, rule3);
  EXPECT_EQ(0, Holder(e));
  {
    CPMutex third(0, 0, name, 0, 0);
    EXPECT_EQ(0xE0000000UL, third.wait(200, nullptr)) << "the new owner lost the mutex";
  }
  liveGo.Signal();
  ASSERT_TRUE(liveDone.WaitFor(10000));
  EXPECT_EQ(static_cast<int>(liveWaiter->Pid()), Holder(e));
  lifeline.Release();
  EXPECT_EQ(0, liveWaiter->Join(10000));
}

// A mutex whose owner died with nobody waiting is freed by the next pass,
// and the next wait then takes a released mutex.
TEST(MutexRecoveryTest, AnOwnerThatDiedWithNobodyWaitingIsFreedByTheNextPass) {
  const std::string name = "nobody-waits";
  Handshake owned;
  Lifeline lifeline;
  auto owner = SpawnOwner(name, &owned, &lifeline);
  ASSERT_TRUE(owned.WaitFor(10000));
  CPMutex mutex(0, 0, name, 0, 0);
  const pid_t dead = owner->Pid();
  owner->Kill();
  ASSERT_EQ(kKilled, owner->Join(5000));
  names_test::RunRecoveryPass();
  CNameMap::SNAMEINFO* e = EntryOf(name);
  ASSERT_NE(nullptr, e);
  EXPECT_EQ(-1, WaitCountOf(e, dead));
  EXPECT_EQ(0, Holder(e));
  ASSERT_EQ(0UL, mutex.wait(0, nullptr)) << "the pass left the mutex locked";
  EXPECT_EQ(0, mutex.wasAbandoned()) << "the pass did not free it";
  mutex.release();
}

// An entry made before the mutexes were robust (the plain adaptive kind)
// keeps working: waits and releases as before, and recovery unlocks it for
// a dead holder as the records say.
TEST(MutexRecoveryTest, AnEntryOfThePlainKindKeepsWorking) {
  const std::string name = "plain-kind";
  Handshake made, owned;
  Lifeline lifeline;
  auto owner = Spawn([&] {
    if (!made.WaitFor(10000)) return 2;
    CPMutex mutex(0, 0, name, 0, 0);
    if (mutex.wait(1000, nullptr) != 0) return 3;
    owned.Signal();
    lifeline.WaitForRelease(60000);
    return 0;
  });
  CPMutex mutex(1, 0, name, 0, 0);
  CNameMap::SNAMEINFO* e = EntryOf(name);
  ASSERT_NE(nullptr, e);
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutex_destroy(&e->object.mutex);
  std::memset(&e->object.mutex, 0, sizeof e->object.mutex);
  pthread_mutex_init(&e->object.mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  ASSERT_FALSE(IsRobust(&e->object.mutex));
  ASSERT_EQ(0UL, mutex.wait(0, nullptr));
  EXPECT_EQ(Self(), Holder(e));
  mutex.release();
  EXPECT_EQ(0, Holder(e));

  made.Signal();
  ASSERT_TRUE(owned.WaitFor(10000));
  owner->Kill();
  ASSERT_EQ(kKilled, owner->Join(5000));
  EXPECT_EQ(0xE0000000UL, mutex.wait(100, nullptr)) << "a plain mutex has no owner-died state";
  names_test::RunRecoveryPass();
  EXPECT_EQ(0UL, mutex.wait(1000, nullptr)) << "recovery did not unlock the dead holder's mutex";
  mutex.release();
}

// --- Kill at every step --------------------------------------------------------------------

struct StepCase {
  const char* label;
  TestPoint point;
  int recursive;
};

void PrintTo(const StepCase& c, std::ostream* os) { *os << c.label; }

class KillAtEveryStepTest : public ::testing::TestWithParam<StepCase> {};

constexpr int kProcesses = 3;
constexpr int kThreads = 2;
constexpr int kRoundsAfterKill = 300;

struct Board {
  std::atomic<uint32_t> occupant{0};   // pid inside the mutex, 0 = none
  std::atomic<uint32_t> victim{0};     // the pid the test kills
  std::atomic<int> violations{0};
  std::atomic<int> abandonments{0};
  std::atomic<int> killing{0};         // set just before the victim is killed
  std::atomic<int> killed{0};          // set once the victim is gone
  std::atomic<int> opened{0};          // processes that have the mutex open
  std::atomic<int> roundsAfterKill[kProcesses * kThreads];
};

// One thread's loop: wait, check and mark the occupancy, work, clear, release.
// Waits are bounded so that a stuck mutex fails the thread, not the suite.
int WorkerLoop(Board* board, CPMutex* mutex, int index) {
  const uint32_t self = static_cast<uint32_t>(::getpid());
  for (int round = 0;; ++round) {
    if (board->killed.load() && board->roundsAfterKill[index].load() >= kRoundsAfterKill) return 0;
    if (mutex->wait(10000, nullptr) != 0) return 10;  // stuck
    const uint32_t before = board->occupant.exchange(self);
    if (before != 0) {
      if (before == board->victim.load() && board->killing.load())
        ++board->abandonments;
      else
        ++board->violations;
    }
    if (round % 7 == 0) ::usleep(50);
    uint32_t expected = self;
    board->occupant.compare_exchange_strong(expected, 0);
    mutex->release();
    if (board->killed.load()) ++board->roundsAfterKill[index];
  }
}

int Worker(Board* board, const std::string& name, int recursive, int process) {
  CPMutex mutex(1, 0, name, recursive, 0);
  ++board->opened;
  std::vector<std::thread> threads;
  std::atomic<int> result{0};
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      const int r = WorkerLoop(board, &mutex, process * kThreads + t);
      if (r != 0) result = r;
    });
  for (std::thread& t : threads) t.join();
  return result.load();
}

TEST_P(KillAtEveryStepTest, NoTwoOwnersNoStuckWaiterAndCleanRecords) {
  const StepCase c = GetParam();
  const std::string name = std::string("every-step-") + c.label;
  Board* board = SharedBlock<Board>();
  ASSERT_NE(nullptr, board);
  Handshake reached, deadGo, deadOpened, passGo;
  const bool pass = c.point == TestPoint::RecoveryPass;
  // For the recovery pass: a process that opens the mutex once the workers
  // run, and is killed; the victim's next open finds its records.
  auto dead = Spawn([&] {
    if (!deadGo.WaitFor(20000)) return 2;
    CPMutex mutex(1, 0, name, c.recursive, 0);
    deadOpened.Signal();
    for (;;) ::pause();
    return 0;
  });
  std::vector<std::unique_ptr<ForkedChild>> workers;
  for (int p = 0; p < kProcesses; ++p)
    workers.push_back(Spawn([&, p] {
      if (p == 0) {
        // The victim: it stops at the step (for the mutex steps, at the
        // 40th time one of its threads gets there) and is killed there.
        InstallStop(c.point, pass ? 1 : 40, &reached);
        if (pass)
          std::thread([&] {
            if (passGo.WaitFor(20000)) CPEvent unrelated(1, "every-step-other", 0);
          }).detach();
      }
      return Worker(board, name, c.recursive, p);
    }));
  if (pass) {
    ASSERT_TRUE(WaitUntil([&] { return board->opened.load() == kProcesses; }, 10000));
    deadGo.Signal();
    ASSERT_TRUE(deadOpened.WaitFor(10000));
    dead->Kill();
    ASSERT_EQ(kKilled, dead->Join(5000));
    passGo.Signal();
  }
  ASSERT_TRUE(reached.WaitFor(20000)) << "the victim never reached the step";
  board->victim = static_cast<uint32_t>(workers[0]->Pid());
  board->killing = 1;
  workers[0]->Kill();
  EXPECT_EQ(kKilled, workers[0]->Join(5000));
  board->killed = 1;
  for (int p = 1; p < kProcesses; ++p)
    EXPECT_EQ(0, workers[p]->Join(60000)) << "worker " << p << " (10: a wait was stuck)";
  EXPECT_EQ(0, board->violations.load()) << "two owners inside at once";

  // What the dead left behind is taken back by a pass (as the next open or
  // a watcher does); then the inspector finds the records consistent.
  names_test::RunRecoveryPass();
  CNameMap::SNAMEINFO* e = EntryOf(name);
  if (e != nullptr) {
    EXPECT_EQ(0, Holder(e));
    for (const CNameMap::SPIDINFO& p : e->pids) EXPECT_EQ(0u, p.dwWaitCount) << p.dwPid;
  }
  const ChildResult inspected = Inspect();
  EXPECT_EQ(0, inspected.exitCode) << inspected.output;
}

INSTANTIATE_TEST_SUITE_P(
    Steps, KillAtEveryStepTest,
    ::testing::Values(StepCase{"locked", TestPoint::MutexLocked, 0},
                      StepCase{"marked", TestPoint::MutexMarked, 0},
                      StepCase{"release-before-clear", TestPoint::ReleaseBeforeClear, 0},
                      StepCase{"release-after-clear", TestPoint::ReleaseAfterClear, 0},
                      StepCase{"recovery-pass", TestPoint::RecoveryPass, 0},
                      StepCase{"recursive-locked", TestPoint::MutexLocked, 1},
                      StepCase{"recursive-marked", TestPoint::MutexMarked, 1},
                      StepCase{"recursive-release-before-clear", TestPoint::ReleaseBeforeClear, 1},
                      StepCase{"recursive-release-after-clear", TestPoint::ReleaseAfterClear, 1},
                      StepCase{"recursive-recovery-pass", TestPoint::RecoveryPass, 1}),
    [](const ::testing::TestParamInfo<StepCase>& info) {
      std::string s = info.param.label;
      for (char& ch : s)
        if (ch == '-') ch = '_';
      return s;
    });

}  // namespace

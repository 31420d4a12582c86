// Counting semaphores: private ones, named ones shared between processes,
// the holder word of the name map entry, trace lines and the sliced wait.
// Every test runs in its own IPC and mount namespace, so the name map it
// sees starts empty.
#include "ambit/semaphore.h"

#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "ambit/event.h"
#include "ambit/exception.h"
#include "gtest/gtest.h"
#include "names/name_map.h"
#include "support/forked_child.h"
#include "support/handshake.h"
#include "support/recording_hook.h"
#include "support/unique_name.h"

namespace {

using Clock = std::chrono::steady_clock;

long MsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// The name map entry of a named object, or null.
CNameMap::SNAMEINFO* EntryOf(const std::string& name) {
  CNameMap::SNAMEMAP* table = get_nameMap()->table();
  for (uint32_t i = 0; i <= table->dwHighestEntry && i < CNameMap::kMaxEntries; ++i)
    if (name == table->entries[i].szName) return &table->entries[i];
  return nullptr;
}

// Takes units with wait(0) until none is left (at most `limit`); the count.
int Drain(CPSemaphore* sem, int limit = 1000) {
  int n = 0;
  while (n < limit && sem->wait(0, nullptr) == 0) ++n;
  return n;
}

// A terminate hook that answers `answer` and counts the questions.
class Terminate : public CTerminateWait {
 public:
  explicit Terminate(int answer) : m_answer(answer) {}
  int shouldTerminate() override {
    ++m_asked;
    return m_answer;
  }
  int asked() const { return m_asked; }

 private:
  int m_answer;
  std::atomic<int> m_asked{0};
};

std::string Pointer(const void* p) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%p", p);
  return buffer;
}

// The hook's lines that begin with `prefix`.
std::vector<RecordingHook::Line> LinesStartingWith(const RecordingHook& hook,
                                                   const std::string& prefix) {
  std::vector<RecordingHook::Line> found;
  for (const RecordingHook::Line& l : hook.Lines())
    if (l.text.compare(0, prefix.size(), prefix) == 0) found.push_back(l);
  return found;
}

// --- Counting in one process ---------------------------------------------------

TEST(SemaphoreTest, InitialCountTwoGivesTwoUnitsThenTimesOut) {
  CPSemaphore sem(1, 2, 2, UniqueName("sem"), 0);
  EXPECT_EQ(0UL, sem.wait(0, nullptr));
  EXPECT_EQ(0UL, sem.wait(0, nullptr));
  EXPECT_EQ(0xE0000000UL, sem.wait(0, nullptr));
}

TEST(SemaphoreTest, UnnamedSemaphoreWithInitialCountTwoGivesTwoUnitsThenTimesOut) {
  CPSemaphore sem(1, 2, 2, "", 0);
  EXPECT_EQ(0UL, sem.wait(0, nullptr));
  EXPECT_EQ(0UL, sem.wait(0, nullptr));
  EXPECT_EQ(0xE0000000UL, sem.wait(0, nullptr));
  EXPECT_EQ(0, sem.isCreator());
}

TEST(SemaphoreTest, ReleasesAboveTheMaximumAreAllKept) {
  CPSemaphore sem(1, 1, 1, UniqueName("sem"), 0);
  sem.release();
  sem.release();
  sem.release();
  for (int i = 0; i < 4; ++i) EXPECT_EQ(0UL, sem.wait(0, nullptr)) << "wait " << i;
  EXPECT_EQ(0xE0000000UL, sem.wait(0, nullptr));
}

TEST(SemaphoreTest, UnnamedReleasesAboveTheMaximumAreAllKept) {
  CPSemaphore sem(0, 1, 1, "", 0);
  for (int i = 0; i < 3; ++i) sem.release();
  EXPECT_EQ(4, Drain(&sem));
}

TEST(SemaphoreTest, TimedWaitOnAnEmptySemaphoreTimesOutAfterItsTime) {
  CPSemaphore sem(1, 0, 1, UniqueName("sem"), 0);
  const auto start = Clock::now();
  EXPECT_EQ(0xE0000000UL, sem.wait(200, nullptr));
  const long took = MsSince(start);
  EXPECT_GE(took, 180);
  EXPECT_LT(took, 3000);
}

TEST(SemaphoreTest, ReleaseFromAnotherThreadWakesAnUntimedWaiter) {
  CPSemaphore sem(1, 0, 1, "", 0);
  auto waiter = std::async(std::launch::async, [&] { return sem.wait(0xFFFFFFFF, nullptr); });
  EXPECT_EQ(std::future_status::timeout, waiter.wait_for(std::chrono::milliseconds(50)));
  sem.release();
  ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(5)));
  EXPECT_EQ(0UL, waiter.get());
}

TEST(SemaphoreTest, TheCreatorIsTheOnlyObjectThatReportsCreating) {
  const std::string name = UniqueName("sem");
  CPSemaphore first(1, 1, 1, name, 0);
  CPSemaphore second(1, 9, 9, name, 0);
  CPSemaphore third(0, 9, 9, name, 0);
  EXPECT_EQ(1, first.isCreator());
  EXPECT_EQ(0, second.isCreator());
  EXPECT_EQ(0, third.isCreator());
  // All three are one semaphore with the creator's single unit.
  EXPECT_EQ(0UL, third.wait(0, nullptr));
  EXPECT_EQ(0xE0000000UL, first.wait(0, nullptr));
  second.release();
  EXPECT_EQ(0UL, first.wait(0, nullptr));
}

TEST(SemaphoreTest, NamesThatDifferOnlyInPunctuationAreOneSemaphore) {
  CPSemaphore slash(1, 0, 1, "units/a.b", 0);
  CPSemaphore dash(0, 0, 1, "units-a-b", 0);
  slash.release();
  EXPECT_EQ(0UL, dash.wait(0, nullptr));
  EXPECT_NE(nullptr, EntryOf("units-a-b"));
}

TEST(SemaphoreTest, TheLastCloseFreesTheNameSoOpeningItFails) {
  const std::string name = UniqueName("sem");
  {
    CPSemaphore sem(1, 3, 3, name, 0);
    CPSemaphore again(0, 0, 0, name, 0);
    ASSERT_NE(nullptr, EntryOf(name));
    EXPECT_EQ(2u, EntryOf(name)->dwUseCount);
  }
  EXPECT_EQ(nullptr, EntryOf(name));
  try {
    CPSemaphore reopened(0, 0, 0, name, 0);
    ADD_FAILURE() << "opened a semaphore that no longer exists";
  } catch (const QKException& e) {
    EXPECT_EQ(QK_E_OPEN_NAMED_OBJECT, e.code);
  }
}

TEST(SemaphoreTest, ANewSemaphoreAfterTheLastCloseStartsFromItsOwnCount) {
  const std::string name = UniqueName("sem");
  {
    CPSemaphore sem(1, 1, 1, name, 0);
    sem.release();
    sem.release();
  }
  CPSemaphore sem(1, 1, 1, name, 0);
  EXPECT_EQ(1, sem.isCreator());
  EXPECT_EQ(1, Drain(&sem));
}

// --- Failures ------------------------------------------------------------------

TEST(SemaphoreTest, OpeningAMissingNameThrowsAndWritesTheOpenErrorLine) {
  RecordingHook hook;
  hook.Install();
  try {
    CPSemaphore sem(0, 1, 1, UniqueName("missing"), 1);
    ADD_FAILURE() << "opened a semaphore that does not exist";
  } catch (const QKException& e) {
    EXPECT_EQ(QK_E_OPEN_NAMED_OBJECT, e.code);
    EXPECT_EQ(0xC1210E14UL, static_cast<unsigned long>(e.code));
  }
  const auto errors = LinesStartingWith(hook, "(Error)");
  ASSERT_EQ(1u, errors.size());
  EXPECT_EQ("(Error) CPEventImpl::CPEventImpl, can't open mutex", errors[0].text);
  EXPECT_EQ(16UL, errors[0].category);
  EXPECT_EQ(64UL, errors[0].level);
}

TEST(SemaphoreTest, CreatingANameHeldByAnEventThrowsAndWritesTheCreateErrorLine) {
  const std::string name = UniqueName("taken");
  CPEvent event(1, name, 0);
  RecordingHook hook;
  hook.Install();
  try {
    CPSemaphore sem(1, 1, 1, name, 1);
    ADD_FAILURE() << "a semaphore took over an event's name";
  } catch (const QKException& e) {
    EXPECT_EQ(QK_E_CREATE_NAMED_OBJECT, e.code);
    EXPECT_EQ(0xC1210E13UL, static_cast<unsigned long>(e.code));
  }
  const auto errors = LinesStartingWith(hook, "(Error)");
  ASSERT_EQ(1u, errors.size());
  EXPECT_EQ("(Error) CPEventImpl::CPEventImpl, can't create mutex", errors[0].text);
  EXPECT_EQ(16UL, errors[0].category);
  EXPECT_EQ(64UL, errors[0].level);
  // The event's entry is left as it was.
  ASSERT_NE(nullptr, EntryOf(name));
  EXPECT_EQ(CNameMap::Condvar, EntryOf(name)->nameType);
  EXPECT_EQ(1u, EntryOf(name)->dwUseCount);
}

TEST(SemaphoreTest, OpeningANameHeldByAnEventThrowsTheOpenError) {
  const std::string name = UniqueName("taken");
  CPEvent event(1, name, 0);
  try {
    CPSemaphore sem(0, 1, 1, name, 0);
    ADD_FAILURE() << "opened an event as a semaphore";
  } catch (const QKException& e) {
    EXPECT_EQ(QK_E_OPEN_NAMED_OBJECT, e.code);
  }
}

TEST(SemaphoreTest, ErrorLinesNeedTracingAllowed) {
  RecordingHook hook;
  hook.Install();
  EXPECT_THROW(CPSemaphore(0, 1, 1, UniqueName("missing"), 0), QKException);
  EXPECT_THROW(CPSemaphore(1, 1, 1, std::string(300, 'x'), 0), QKException);
  // (The name map, made on first use, writes lines of its own.)
  EXPECT_TRUE(LinesStartingWith(hook, "(Error)").empty());
  EXPECT_TRUE(LinesStartingWith(hook, "CPSemaphore").empty());
}

TEST(SemaphoreTest, ANameTooLongForTheMapCannotBeCreated) {
  try {
    CPSemaphore sem(1, 1, 1, std::string(256, 'n'), 0);
    ADD_FAILURE() << "a 256-character name was accepted";
  } catch (const QKException& e) {
    EXPECT_EQ(QK_E_CREATE_NAMED_OBJECT, e.code);
  }
  CPSemaphore longest(1, 1, 1, std::string(255, 'n'), 0);
  EXPECT_EQ(1, longest.isCreator());
}

TEST(SemaphoreTest, AWaitInterruptedByASignalFailsWithTheErrorLine) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no restart, though semaphore waits never restart
  struct sigaction previous;
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, &previous));

  CPSemaphore sem(1, 0, 1, UniqueName("sem"), 1);
  RecordingHook hook;
  hook.Install();
  std::promise<pthread_t> id;
  auto waiter = std::async(std::launch::async, [&] {
    id.set_value(pthread_self());
    return sem.wait(10000, nullptr);
  });
  const pthread_t thread = id.get_future().get();
  // A signal that lands before the wait starts is simply lost; keep
  // sending until the wait gives up.
  std::future_status status = std::future_status::timeout;
  for (int i = 0; i < 500 && status != std::future_status::ready; ++i) {
    pthread_kill(thread, SIGUSR1);
    status = waiter.wait_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(std::future_status::ready, status) << "the waiter ignored the signal";
  EXPECT_EQ(0xD0000000UL, waiter.get());
  sigaction(SIGUSR1, &previous, nullptr);

  const auto errors = LinesStartingWith(hook, "(Error)");
  ASSERT_EQ(1u, errors.size());
  EXPECT_EQ(0u, errors[0].text.find("(Error) CPSemaphoreImpl::wait (0x")) << errors[0].text;
  EXPECT_EQ("), 4\n", errors[0].text.substr(errors[0].text.size() - 5));
  EXPECT_EQ(16UL, errors[0].category);
  EXPECT_EQ(64UL, errors[0].level);
  // No unit was taken, and the holder word was not touched.
  EXPECT_EQ(0, EntryOf(UniqueName("sem"))->dwHolderPid);
}

// --- Trace lines of the facade -----------------------------------------------------

TEST(SemaphoreTest, FacadeWritesItsLinesWhenTracingIsAllowedAndAHookIsInstalled) {
  RecordingHook hook;
  hook.Install();
  const std::string name = UniqueName("traced");
  std::string self;
  {
    CPSemaphore sem(1, 1, 1, name, 1);
    self = Pointer(&sem);
    EXPECT_EQ(0UL, sem.wait(0, nullptr));
    sem.release();
  }
  std::vector<std::string> facade;
  for (const RecordingHook::Line& l : hook.Lines()) {
    if (l.text.compare(0, 13, "CPSemaphore::") != 0) continue;
    EXPECT_EQ(16UL, l.category) << l.text;
    EXPECT_EQ(2UL, l.level) << l.text;
    facade.push_back(l.text);
  }
  const std::vector<std::string> expected = {
      "CPSemaphore::CPSemaphore (" + self + "), name \"" + name + "\"\n",
      "CPSemaphore::wait (" + self + "), name \"" + name + "\"\n",
      "CPSemaphore::release (" + self + "), name \"" + name + "\"\n",
      "CPSemaphore::~CPSemaphore (" + self + "), name \"" + name + "\"\n",
  };
  EXPECT_EQ(expected, facade);
}

TEST(SemaphoreTest, FacadeLinesOfAnUnnamedSemaphoreShowAnEmptyName) {
  RecordingHook hook;
  hook.Install();
  std::string self;
  {
    CPSemaphore sem(0, 0, 1, "", 1);
    self = Pointer(&sem);
    sem.release();
  }
  const std::vector<std::string> expected = {
      "CPSemaphore::CPSemaphore (" + self + "), name \"\"\n",
      "CPSemaphore::release (" + self + "), name \"\"\n",
      "CPSemaphore::~CPSemaphore (" + self + "), name \"\"\n",
  };
  EXPECT_EQ(expected, hook.Texts());
}

TEST(SemaphoreTest, FacadeWritesNothingWhenTracingIsNotAllowed) {
  RecordingHook hook;
  hook.Install();
  {
    CPSemaphore sem(1, 1, 1, UniqueName("quiet"), 0);
    sem.wait(0, nullptr);
    sem.release();
    sem.wait(0, nullptr);
    sem.wait(0, nullptr);  // times out
  }
  EXPECT_TRUE(LinesStartingWith(hook, "CPSemaphore").empty());
  EXPECT_TRUE(LinesStartingWith(hook, "(Error)").empty());
}

TEST(SemaphoreTest, FacadeWritesNothingWithoutAHook) {
  // A hook installed after the object is made sees only what follows it;
  // with the hook taken away again nothing more arrives.
  CPSemaphore sem(1, 1, 1, UniqueName("nohook"), 1);
  RecordingHook hook;
  hook.Install();
  AmbitDebug::setTracingHelper(nullptr);
  sem.wait(0, nullptr);
  sem.release();
  AmbitDebug::setTracingHelper(&hook);
  sem.release();
  ASSERT_EQ(1u, hook.Lines().size());
  EXPECT_EQ(0u, hook.Lines()[0].text.find("CPSemaphore::release ("));
}

// --- The sliced wait with a terminate hook -------------------------------------------

TEST(SemaphoreTest, ATerminateHookThatFiresAtOnceAbandonsTheWaitWithoutTakingAUnit) {
  CPSemaphore sem(1, 1, 1, UniqueName("sem"), 0);
  Terminate stop(1);
  EXPECT_EQ(0xC0000000UL, sem.wait(0xFFFFFFFF, &stop));
  EXPECT_EQ(1, stop.asked());
  EXPECT_EQ(1, Drain(&sem));
}

TEST(SemaphoreTest, ATerminateHookThatNeverFiresStillTakesAnAvailableUnit) {
  CPSemaphore sem(1, 1, 1, UniqueName("sem"), 0);
  Terminate never(0);
  EXPECT_EQ(0UL, sem.wait(1000, &never));
  EXPECT_EQ(1, never.asked());
  EXPECT_EQ(0, Drain(&sem));
}

TEST(SemaphoreTest, ATerminateHookThatNeverFiresTimesOutAfterTheTimeout) {
  CPSemaphore sem(1, 0, 1, UniqueName("sem"), 0);
  Terminate never(0);
  const auto start = Clock::now();
  EXPECT_EQ(0xE0000000UL, sem.wait(150, &never));
  const long took = MsSince(start);
  EXPECT_GE(took, 140);
  EXPECT_LT(took, 3000);
  EXPECT_GE(never.asked(), 1);
}

TEST(SemaphoreTest, AReleaseDuringASlicedWaitEndsItWithAUnit) {
  CPSemaphore sem(1, 0, 1, UniqueName("sem"), 0);
  Terminate never(0);
  auto waiter = std::async(std::launch::async, [&] { return sem.wait(0xFFFFFFFF, &never); });
  EXPECT_EQ(std::future_status::timeout, waiter.wait_for(std::chrono::milliseconds(50)));
  sem.release();
  ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(5)));
  EXPECT_EQ(0UL, waiter.get());
}

TEST(SemaphoreTest, AbandonedWaitWritesTheEntryLineAndNoExitLine) {
  CPSemaphore sem(1, 0, 1, UniqueName("sem"), 1);
  RecordingHook hook;
  hook.Install();
  Terminate stop(1);
  EXPECT_EQ(0xC0000000UL, sem.wait(100, &stop));
  ASSERT_EQ(1u, hook.Lines().size());
  EXPECT_EQ(0u, hook.Texts()[0].find("CPSemaphore::wait ("));
}

// --- Between processes ----------------------------------------------------------------
//
// Children are forked before the parent first touches the library, so that
// each process has a name map of its own, as separate programs would.

TEST(SemaphoreTest, ASecondProcessOpeningWithAnotherInitialCountSeesTheExistingCount) {
  const std::string name = UniqueName("shared");
  Handshake created;
  ForkedChild child([&] {
    if (!created.WaitFor(5000)) return 2;
    CPSemaphore peer(1, 5, 5, name, 0);
    if (peer.isCreator() != 0) return 3;
    if (peer.wait(0, nullptr) != 0) return 4;
    if (peer.wait(0, nullptr) != 0) return 5;
    return peer.wait(0, nullptr) == 0xE0000000UL ? 0 : 6;
  });
  ASSERT_TRUE(child.Started());
  CPSemaphore sem(1, 2, 2, name, 0);
  ASSERT_EQ(1, sem.isCreator());
  created.Signal();
  EXPECT_EQ(0, child.Join(10000));
  EXPECT_EQ(0xE0000000UL, sem.wait(0, nullptr)) << "the child took no unit from here";
}

TEST(SemaphoreTest, UnitsReleasedInOneProcessAreTakenInAnother) {
  const std::string name = UniqueName("shared");
  Handshake created, opened;
  ForkedChild child([&] {
    if (!created.WaitFor(5000)) return 2;
    CPSemaphore peer(0, 0, 0, name, 0);
    opened.Signal();
    for (int i = 0; i < 3; ++i)
      if (peer.wait(5000, nullptr) != 0) return 10 + i;
    return peer.wait(0, nullptr) == 0xE0000000UL ? 0 : 4;
  });
  ASSERT_TRUE(child.Started());
  CPSemaphore sem(1, 0, 1, name, 0);
  created.Signal();
  ASSERT_TRUE(opened.WaitFor(5000)) << "the child never opened the semaphore";
  sem.release();
  sem.release();
  sem.release();
  EXPECT_EQ(0, child.Join(10000));
}

TEST(SemaphoreTest, TheHolderWordNamesTheLastTakerUntilThatProcessReleases) {
  const std::string name = UniqueName("holder");
  Handshake created, childTook, parentReleased, childReleaseNow, childReleased;
  ForkedChild child([&] {
    if (!created.WaitFor(5000)) return 2;
    CPSemaphore peer(0, 0, 0, name, 0);
    if (peer.wait(5000, nullptr) != 0) return 3;
    childTook.Signal();
    if (!childReleaseNow.WaitFor(5000)) return 4;
    peer.release();
    childReleased.Signal();
    // Stay open until the parent has looked.
    return parentReleased.WaitFor(5000) ? 0 : 5;
  });
  ASSERT_TRUE(child.Started());
  const int self = static_cast<int>(getpid());
  CPSemaphore sem(1, 2, 2, name, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  EXPECT_EQ(0, entry->dwHolderPid);

  ASSERT_EQ(0UL, sem.wait(0, nullptr));
  EXPECT_EQ(self, entry->dwHolderPid);

  created.Signal();
  ASSERT_TRUE(childTook.WaitFor(5000));
  EXPECT_EQ(static_cast<int>(child.Pid()), entry->dwHolderPid);

  // A release by a process that is not the last taker leaves the word.
  sem.release();
  EXPECT_EQ(static_cast<int>(child.Pid()), entry->dwHolderPid);

  childReleaseNow.Signal();
  ASSERT_TRUE(childReleased.WaitFor(5000));
  EXPECT_EQ(0, entry->dwHolderPid);
  parentReleased.Signal();
  EXPECT_EQ(0, child.Join(5000));

  // And the taker's own release clears it.
  ASSERT_EQ(0UL, sem.wait(0, nullptr));
  EXPECT_EQ(self, entry->dwHolderPid);
  sem.release();
  EXPECT_EQ(0, entry->dwHolderPid);
}

TEST(SemaphoreTest, AFailedWaitDoesNotTouchTheHolderWord) {
  CPSemaphore sem(1, 0, 1, UniqueName("holder"), 0);
  CNameMap::SNAMEINFO* entry = EntryOf(UniqueName("holder"));
  ASSERT_NE(nullptr, entry);
  entry->dwHolderPid = 12345;  // as if another process held a unit
  EXPECT_EQ(0xE0000000UL, sem.wait(0, nullptr));
  EXPECT_EQ(12345, entry->dwHolderPid);
  sem.release();
  EXPECT_EQ(12345, entry->dwHolderPid);
  entry->dwHolderPid = 0;
}

// Threads of two processes take units and give them back; no unit is
// created or lost, and never more units are out than exist.
TEST(SemaphoreTest, UnitsAreConservedUnderTwoProcessesOfContendingThreads) {
  constexpr int kUnits = 3;
  constexpr int kThreads = 4;
  constexpr auto kRun = std::chrono::milliseconds(1500);
  const std::string name = UniqueName("stress");

  struct Shared {
    std::atomic<int> out;     // units taken and not yet given back
    std::atomic<int> maxOut;  // the most ever out at once
    std::atomic<int> takes;
  };
  void* mem = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                   -1, 0);
  ASSERT_NE(MAP_FAILED, mem);
  Shared* shared = new (mem) Shared{{0}, {0}, {0}};

  // Returns the number of failed waits.
  auto hammer = [&](CPSemaphore* sem) {
    std::atomic<int> failures{0};
    const auto end = Clock::now() + kRun;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([&] {
        while (Clock::now() < end) {
          if (sem->wait(5000, nullptr) != 0) {
            ++failures;
            continue;
          }
          const int now = ++shared->out;
          int seen = shared->maxOut.load();
          while (now > seen && !shared->maxOut.compare_exchange_weak(seen, now)) {
          }
          ++shared->takes;
          --shared->out;
          sem->release();
        }
      });
    for (std::thread& t : threads) t.join();
    return failures.load();
  };

  Handshake created, opened, go;
  ForkedChild child([&] {
    if (!created.WaitFor(5000)) return 2;
    CPSemaphore peer(0, 0, 0, name, 0);
    opened.Signal();
    if (!go.WaitFor(5000)) return 3;
    return hammer(&peer) == 0 ? 0 : 4;
  });
  ASSERT_TRUE(child.Started());
  CPSemaphore sem(1, kUnits, kUnits, name, 0);
  created.Signal();
  ASSERT_TRUE(opened.WaitFor(5000));
  go.Signal();
  EXPECT_EQ(0, hammer(&sem));
  EXPECT_EQ(0, child.Join(15000));

  EXPECT_EQ(kUnits, Drain(&sem));
  EXPECT_LE(shared->maxOut.load(), kUnits);
  EXPECT_GT(shared->takes.load(), 100) << "the threads hardly ran";
  // The drain above took the last units here.
  EXPECT_EQ(static_cast<int>(getpid()), EntryOf(name)->dwHolderPid);
  munmap(mem, sizeof(Shared));
}

}  // namespace

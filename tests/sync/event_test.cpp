// Events: wake bits, auto-reset, time-outs, the terminate hook, the trace
// lines of the facades, and named events shared between processes through
// the name map. Every test runs in its own IPC and mount namespace, so the
// name map each one sees is fresh.
#include "ambit/event.h"

#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdint>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ambit/exception.h"
#include "ambit/portable.h"
#include "gtest/gtest.h"
#include "names/name_map.h"
#include "support/forked_child.h"
#include "support/handshake.h"
#include "support/recording_hook.h"
#include "support/unique_name.h"

namespace {

constexpr unsigned long kTimeout = 0xE0000000UL;
constexpr unsigned long kAbandoned = 0xC0000000UL;
constexpr unsigned long kInfinite = 0xFFFFFFFFUL;

using Clock = std::chrono::steady_clock;

long MsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// A terminate hook that answers `answer` and counts how often it was asked.
class CountingHook : public CTerminateWait {
 public:
  explicit CountingHook(int answer) : m_answer(answer) {}
  int shouldTerminate() override {
    ++m_calls;
    return m_answer;
  }
  int Calls() const { return m_calls.load(); }

 private:
  int m_answer;
  std::atomic<int> m_calls{0};
};

// The text "%p" gives for an object, as the trace lines print it.
std::string Pointer(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

// The kernel thread id of the calling thread.
unsigned long Tid() { return CPortable::GetCurrentThreadId(); }

// The futex word thread `tid` of this process sleeps on, or "" when it is
// not in a futex system call (futex is 240 on i386, futex_time64 422).
std::string FutexOf(unsigned long tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/syscall");
  std::string number, address;
  if (in >> number >> address && (number == "240" || number == "422")) return address;
  return "";
}

// True once thread `tid` sleeps in a futex wait. Nobody else holds the
// event's mutex in the tests that use it, so that is the condition wait.
bool WaitUntilBlockedInFutex(unsigned long tid, int nTimeoutMs) {
  const auto end = Clock::now() + std::chrono::milliseconds(nTimeoutMs);
  while (Clock::now() < end) {
    if (!FutexOf(tid).empty()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

// True once the main thread of process `pid` sleeps in a futex wait.
bool WaitUntilProcessInFutex(pid_t pid, int nTimeoutMs) {
  const std::string path = "/proc/" + std::to_string(pid) + "/syscall";
  const auto end = Clock::now() + std::chrono::milliseconds(nTimeoutMs);
  while (Clock::now() < end) {
    std::ifstream in(path);
    std::string number;
    if (in >> number && (number == "240" || number == "422")) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

// Checks that `lines` holds exactly one line with this text, category and
// level.
::testing::AssertionResult HasLine(const std::vector<RecordingHook::Line>& lines,
                                   const std::string& text, unsigned long category,
                                   unsigned long level) {
  int found = 0;
  for (const RecordingHook::Line& l : lines)
    if (l.text == text) {
      if (l.category != category || l.level != level)
        return ::testing::AssertionFailure()
               << "\"" << text << "\" has category " << l.category << " and level " << l.level
               << ", expected " << category << " and " << level;
      ++found;
    }
  if (found == 1) return ::testing::AssertionSuccess();
  ::testing::AssertionResult failure = ::testing::AssertionFailure();
  failure << "expected one line \"" << text << "\", found " << found << "; lines were:";
  for (const RecordingHook::Line& l : lines) failure << "\n  [" << l.category << "] " << l.text;
  return failure;
}

// The entry of a named event in this process's view of the name map, found
// by its stored (normalised) name; null when there is none.
CNameMap::SNAMEINFO* EntryOf(const std::string& name) {
  std::string stored = name;
  for (char& c : stored)
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '-';
  CNameMap::SNAMEMAP* table = get_nameMap()->table();
  for (uint32_t i = 0; i <= table->dwHighestEntry && i < CNameMap::kMaxEntries; ++i)
    if (table->entries[i].szName[0] != 0 && stored == table->entries[i].szName)
      return &table->entries[i];
  return nullptr;
}

// Polls a word in shared memory until it has `value`, within nTimeoutMs.
bool WaitForWord(const volatile int32_t* word, int32_t value, int nTimeoutMs) {
  const auto end = Clock::now() + std::chrono::milliseconds(nTimeoutMs);
  while (*word != value) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// --- Unnamed events ----------------------------------------------------------

TEST(EventTest, TwoWakesMergeIntoOneWaitAndTheNextWaitTimesOut) {
  CPEvent event(1, "", 0);
  EXPECT_EQ(0, event.wake(0x1));
  EXPECT_EQ(0, event.wake(0x4));
  const auto start = Clock::now();
  EXPECT_EQ(0x5UL, event.wait(5000, nullptr));
  EXPECT_LT(MsSince(start), 1000);
  EXPECT_EQ(kTimeout, event.wait(50, nullptr));
}

TEST(EventTest, WakeWithNoBitsMakesTheNextWaitReturnZeroAtOnce) {
  CPEvent event(1, "", 0);
  event.wake(0);
  const auto start = Clock::now();
  EXPECT_EQ(0UL, event.wait(5000, nullptr));
  EXPECT_LT(MsSince(start), 1000);
  EXPECT_EQ(kTimeout, event.wait(0, nullptr));
}

TEST(EventTest, ZeroTimeoutOnAResetEventTimesOutWithoutBlocking) {
  CPEvent event(1, "", 0);
  const auto start = Clock::now();
  EXPECT_EQ(kTimeout, event.wait(0, nullptr));
  EXPECT_LT(MsSince(start), 50);
}

TEST(EventTest, ZeroTimeoutOnASignalledEventReturnsTheBitsAndResetsIt) {
  CPEvent event(1, "", 0);
  event.wake(0x30);
  EXPECT_EQ(0x30UL, event.wait(0, nullptr));
  EXPECT_EQ(kTimeout, event.wait(0, nullptr));
}

TEST(EventTest, CreateFlagIsIgnoredForAnUnnamedEvent) {
  CPEvent event(0, "", 0);  // open-only, but no name: still a private event
  event.wake(0x2);
  EXPECT_EQ(0x2UL, event.wait(0, nullptr));
}

TEST(EventTest, BitsKeepTheirHighValues) {
  CPEvent event(1, "", 0);
  event.wake(static_cast<long>(0x80000001UL));
  event.wake(0x10);
  EXPECT_EQ(0x80000011UL, event.wait(0, nullptr));
}

TEST(EventTest, TimedWaitTimesOutAfterItsTimeout) {
  CPEvent event(1, "", 0);
  const auto start = Clock::now();
  EXPECT_EQ(kTimeout, event.wait(300, nullptr));
  const long elapsed = MsSince(start);
  EXPECT_GE(elapsed, 280);
  EXPECT_LT(elapsed, 2000);
}

TEST(EventTest, BlockedWaiterReturnsTheBitsOfAWakeFromAnotherThread) {
  CPEvent event(1, "", 0);
  std::atomic<unsigned long> tid{0};
  unsigned long result = 0;
  std::thread waiter([&] {
    tid = Tid();
    result = event.wait(kInfinite, nullptr);
  });
  while (tid == 0) std::this_thread::yield();
  ASSERT_TRUE(WaitUntilBlockedInFutex(tid, 5000));
  event.wake(0x40);
  waiter.join();  // bounded: the waiter was blocked and is now woken
  EXPECT_EQ(0x40UL, result);
}

TEST(EventTest, OneWakeReleasesOnlyOneOfTwoWaiters) {
  CPEvent event(1, "", 0);
  std::atomic<unsigned long> tids[2] = {{0}, {0}};
  unsigned long results[2] = {0, 0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 2; ++i)
    waiters.emplace_back([&, i] {
      tids[i] = Tid();
      results[i] = event.wait(1500, nullptr);
    });
  for (int i = 0; i < 2; ++i) {
    while (tids[i] == 0) std::this_thread::yield();
    ASSERT_TRUE(WaitUntilBlockedInFutex(tids[i], 5000));
  }
  // Both sleep on the same futex word: the condition's, since one of them
  // alone could be blocked on the mutex.
  const auto end = Clock::now() + std::chrono::seconds(5);
  while (FutexOf(tids[0]) != FutexOf(tids[1]) && Clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_EQ(FutexOf(tids[0]), FutexOf(tids[1]));
  event.wake(0x8);
  for (std::thread& t : waiters) t.join();
  // A broadcast would give the second waiter 0 (woken, nothing left).
  EXPECT_TRUE((results[0] == 0x8 && results[1] == kTimeout) ||
              (results[1] == 0x8 && results[0] == kTimeout))
      << std::hex << results[0] << " " << results[1];
}

// --- The terminate hook ------------------------------------------------------

TEST(EventTest, HookThatFiresAtOnceAbandonsWithoutTouchingTheEvent) {
  CPEvent event(1, "", 0);
  event.wake(0x3);
  CountingHook stop(1);
  EXPECT_EQ(kAbandoned, event.wait(5000, &stop));
  EXPECT_EQ(1, stop.Calls());
  EXPECT_EQ(0x3UL, event.wait(0, nullptr));  // the bits are still there
}

TEST(EventTest, HookThatNeverFiresLetsTheBitsThrough) {
  CPEvent event(1, "", 0);
  event.wake(0x9);
  CountingHook never(0);
  EXPECT_EQ(0x9UL, event.wait(5000, &never));
  EXPECT_EQ(1, never.Calls());
}

TEST(EventTest, UnlimitedWaitWithAHookEndsWhenWoken) {
  CPEvent event(1, "", 0);
  CountingHook never(0);
  std::atomic<unsigned long> tid{0};
  unsigned long result = 0;
  std::thread waiter([&] {
    tid = Tid();
    result = event.wait(kInfinite, &never);
  });
  while (tid == 0) std::this_thread::yield();
  ASSERT_TRUE(WaitUntilBlockedInFutex(tid, 5000));
  event.wake(0x11);
  waiter.join();
  EXPECT_EQ(0x11UL, result);
  EXPECT_EQ(1, never.Calls());
}

TEST(EventTest, ShortWaitWithAHookTimesOut) {
  CPEvent event(1, "", 0);
  CountingHook never(0);
  const auto start = Clock::now();
  EXPECT_EQ(kTimeout, event.wait(200, &never));
  const long elapsed = MsSince(start);
  EXPECT_GE(elapsed, 190);
  EXPECT_LT(elapsed, 2000);  // at most one extra slice of 200 ms
  EXPECT_GE(never.Calls(), 1);
  EXPECT_LE(never.Calls(), 3);
}

TEST(EventTest, ZeroTimeoutWithAHookIsOneTryAfterAskingTheHook) {
  CPEvent event(1, "", 0);
  CountingHook never(0);
  // Elapsed time 0 is not more than 0: the loop may try again, so only
  // bound the time.
  const auto start = Clock::now();
  EXPECT_EQ(kTimeout, event.wait(0, &never));
  EXPECT_LT(MsSince(start), 1000);
  EXPECT_GE(never.Calls(), 1);
}

// The one slow test: with a hook, slices are min(timeout, 5000) ms, never
// what remains, so 7000 ms end after the second slice, at about 10 s.
TEST(EventTest, HookWaitOfSevenSecondsEndsAfterTwoSlicesOfFive) {
  CPEvent event(1, "", 0);
  CountingHook never(0);
  const auto start = Clock::now();
  EXPECT_EQ(kTimeout, event.wait(7000, &never));
  const long elapsed = MsSince(start);
  EXPECT_GE(elapsed, 9900);
  EXPECT_LT(elapsed, 11500);
  EXPECT_EQ(2, never.Calls());
}

// --- Facade trace lines --------------------------------------------------------

TEST(EventTraceTest, LifeCycleLinesNeedOnlyAllowTraceAndTheHook) {
  RecordingHook hook;
  hook.Install();
  std::string p;
  {
    CPEvent event(1, "", 1);
    p = Pointer(&event);
    event.wake(0x1);  // m_trace is 0: no operation lines
    event.wait(0, nullptr);
  }
  const auto lines = hook.Lines();
  ASSERT_EQ(2u, lines.size()) << "only the life-cycle lines expected";
  EXPECT_TRUE(HasLine(lines, "CPEvent::CPEvent (" + p + "), name \"\"\n", 16, 2));
  EXPECT_TRUE(HasLine(lines, "CPEvent::~CPEvent (" + p + ")\n", 16, 2));
  EXPECT_EQ("CPEvent::CPEvent (" + p + "), name \"\"\n", lines[0].text);
}

TEST(EventTraceTest, OperationLinesNeedSetTraceToo) {
  RecordingHook hook;
  hook.Install();
  CPEvent event(1, "", 1);
  const std::string p = Pointer(&event);
  event.setTrace(1);
  hook.Clear();
  event.wake(0x5);
  EXPECT_EQ(0x5UL, event.wait(0, nullptr));
  EXPECT_EQ(kTimeout, event.wait(0, nullptr));
  CountingHook stop(1);
  EXPECT_EQ(kAbandoned, event.wait(100, &stop));
  const auto lines = hook.Lines();
  const std::vector<std::string> expected = {
      "CPEvent::wake (" + p + ") 0x00000005\n",
      "CPEvent::wait (" + p + ")\n",
      "<<<CPEvent::wait (" + p + ") 0x00000005\n",
      "CPEvent::wait (" + p + ")\n",
      "<<<CPEvent::wait (" + p + ") 0xE0000000\n",
      "CPEvent::wait (" + p + ")\n",
      "<<<CPEvent::wait (" + p + ") 0xC0000000\n",
  };
  ASSERT_EQ(expected.size(), lines.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(expected[i], lines[i].text);
    EXPECT_EQ(4u, lines[i].category) << lines[i].text;
    EXPECT_EQ(2u, lines[i].level) << lines[i].text;
  }
  event.setTrace(0);
  hook.Clear();
  event.wake(0x1);
  event.wait(0, nullptr);
  EXPECT_TRUE(hook.Lines().empty());
}

TEST(EventTraceTest, NoLineAtAllWithoutAllowTrace) {
  RecordingHook hook;
  hook.Install();
  {
    CPEvent event(1, "", 0);
    event.setTrace(1);
    event.wake(0x1);
    event.wait(0, nullptr);
    event.wait(0, nullptr);
  }
  {
    CPEventEx ex(0);
    ex.Initialize(1, "");
    ex.setTrace(1);
    ex.wake(0x1);
    ex.wait(0, nullptr);
    ex.Finalize();
  }
  EXPECT_TRUE(hook.Texts().empty());
}

TEST(EventTraceTest, NoLineWithoutAHook) {
  RecordingHook hook;
  hook.Install();
  CPEvent event(1, "", 1);
  event.setTrace(1);
  AmbitDebug::setTracingHelper(nullptr);
  hook.Clear();
  event.wake(0x1);
  event.wait(0, nullptr);
  hook.Install();  // the destructor's line reaches the hook again
  EXPECT_TRUE(hook.Texts().empty());
}

TEST(EventTraceTest, EventExWritesItsOwnLines) {
  RecordingHook hook;
  hook.Install();
  std::string p;
  {
    CPEventEx ex(1);
    p = Pointer(&ex);
    ASSERT_EQ(0UL, ex.Initialize(1, ""));
    ex.wake(0x1);  // not traced yet
    ex.setTrace(1);
    ex.wake(0x2);
    EXPECT_EQ(0x3UL, ex.wait(0, nullptr));
    EXPECT_EQ(0UL, ex.Finalize());
  }
  const std::vector<std::pair<std::string, unsigned long>> expected = {
      {"CPEventEx::CPEventEx (" + p + ")\n", 16},
      {"CPEventEx::Initialize (" + p + "), name \"\"\n", 16},
      {"CPEventEx::wake (" + p + ") 0x00000002\n", 4},
      {"CPEventEx::wait (" + p + ")\n", 4},
      {"<<<CPEventEx::wait (" + p + ") 0x00000003\n", 4},
      {"CPEventEx::Finalize (" + p + ")\n", 16},
      {"CPEventEx::~CPEventEx (" + p + ")\n", 16},
      {"CPEventEx::Finalize (" + p + ")\n", 16},  // the destructor finalises
  };
  const auto lines = hook.Lines();
  ASSERT_EQ(expected.size(), lines.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(expected[i].first, lines[i].text);
    EXPECT_EQ(expected[i].second, lines[i].category) << lines[i].text;
    EXPECT_EQ(2u, lines[i].level) << lines[i].text;
  }
}

TEST(EventTraceTest, SetTraceBeforeInitializeStillGatesTheOperations) {
  RecordingHook hook;
  hook.Install();
  CPEventEx ex(1);
  ex.setTrace(1);  // no implementation yet: only the facade's flag
  ASSERT_EQ(0UL, ex.Initialize(1, ""));
  hook.Clear();
  ex.wake(0x1);
  EXPECT_EQ(1u, hook.Lines().size());
}

// --- CPEventEx life cycle ----------------------------------------------------

TEST(EventExTest, InitializeTwiceReturnsZeroAndKeepsTheEvent) {
  CPEventEx ex(0);
  ASSERT_EQ(0UL, ex.Initialize(1, ""));
  ex.wake(0x2);
  EXPECT_EQ(0UL, ex.Initialize(1, ""));
  EXPECT_EQ(0x2UL, ex.wait(0, nullptr));  // the same implementation
}

TEST(EventExTest, FinalizeIsRepeatableAndTheEventCanBeInitializedAgain) {
  CPEventEx ex(0);
  EXPECT_EQ(0UL, ex.Finalize());  // never initialised
  ASSERT_EQ(0UL, ex.Initialize(1, ""));
  ex.wake(0x4);
  EXPECT_EQ(0UL, ex.Finalize());
  EXPECT_EQ(0UL, ex.Finalize());
  ASSERT_EQ(0UL, ex.Initialize(1, ""));
  EXPECT_EQ(kTimeout, ex.wait(0, nullptr));  // a fresh, reset event
  ex.wake(0x1);
  EXPECT_EQ(0x1UL, ex.wait(0, nullptr));
}

TEST(EventExTest, HookAndSlicesWorkAsForCPEvent) {
  CPEventEx ex(0);
  ASSERT_EQ(0UL, ex.Initialize(1, ""));
  ex.wake(0x6);
  CountingHook stop(1);
  EXPECT_EQ(kAbandoned, ex.wait(1000, &stop));
  CountingHook never(0);
  EXPECT_EQ(0x6UL, ex.wait(1000, &never));
}

// --- Named events --------------------------------------------------------------

TEST(NamedEventTest, OpeningAMissingNameThrowsAndTracesTheError) {
  RecordingHook hook;
  hook.Install();
  const std::string name = UniqueName("event");
  long code = 0;
  try {
    CPEvent event(0, name, 1);
  } catch (const QKException& e) {
    code = e.code;
  }
  EXPECT_EQ(static_cast<long>(0xC1210E17UL), code);
  const auto lines = hook.Lines();
  EXPECT_TRUE(HasLine(lines, "(Error) CPEventImpl::CPEventImpl, can't open event", 16, 64));
  EXPECT_EQ(nullptr, EntryOf(name));
  // The constructor's own line comes first, with the name.
  ASSERT_FALSE(lines.empty());
  const std::string suffix = "), name \"" + name + "\"\n";
  EXPECT_EQ(0u, lines[0].text.find("CPEvent::CPEvent (")) << lines[0].text;
  ASSERT_GE(lines[0].text.size(), suffix.size());
  EXPECT_EQ(suffix, lines[0].text.substr(lines[0].text.size() - suffix.size()));
  EXPECT_EQ(16u, lines[0].category);
}

TEST(NamedEventTest, ErrorLineNeedsAllowTrace) {
  RecordingHook hook;
  hook.Install();
  long code = 0;
  try {
    CPEvent event(0, UniqueName("event"), 0);
  } catch (const QKException& e) {
    code = e.code;
  }
  EXPECT_EQ(static_cast<long>(0xC1210E17UL), code);
  for (const std::string& text : hook.Texts())
    EXPECT_EQ(std::string::npos, text.find("CPEventImpl")) << text;
}

TEST(NamedEventTest, NameThatCannotBeCreatedThrowsCreateError) {
  RecordingHook hook;
  hook.Install();
  long code = 0;
  try {
    CPEvent event(1, std::string(300, 'x'), 1);  // longer than 255 characters
  } catch (const QKException& e) {
    code = e.code;
  }
  EXPECT_EQ(static_cast<long>(0xC1210E16UL), code);
  EXPECT_TRUE(
      HasLine(hook.Lines(), "(Error) CPEventImpl::CPEventImpl, can't create event", 16, 64));
}

TEST(NamedEventTest, NameOfAnotherTypeCannotBeOpenedAsAnEvent) {
  const std::string name = UniqueName("taken");
  int created = 0;
  CNameMap::SNAMEINFO* mutex = get_nameMap()->createNamedObject(
      name, CNameMap::CreateOrOpen, CNameMap::Mutex, &created, 0);
  ASSERT_NE(nullptr, mutex);
  long code = 0;
  try {
    CPEvent event(1, name, 0);
  } catch (const QKException& e) {
    code = e.code;
  }
  EXPECT_EQ(static_cast<long>(0xC1210E16UL), code);
  EXPECT_EQ(CNameMap::Mutex, mutex->nameType);
  EXPECT_EQ(1u, mutex->dwUseCount);
  get_nameMap()->destroyNamedObject(mutex);
}

TEST(NamedEventTest, EventExInitializeOfAMissingNameThrowsAndStaysUninitialized) {
  const std::string name = UniqueName("event");
  CPEventEx ex(0);
  long code = 0;
  try {
    ex.Initialize(0, name);
  } catch (const QKException& e) {
    code = e.code;
  }
  EXPECT_EQ(static_cast<long>(0xC1210E17UL), code);
  ASSERT_EQ(0UL, ex.Initialize(1, name));  // a later Initialize still works
  ex.wake(0x1);
  EXPECT_EQ(0x1UL, ex.wait(0, nullptr));
}

TEST(NamedEventTest, TwoOpensInOneProcessShareTheBits) {
  const std::string name = UniqueName("event");
  CPEvent first(1, name, 0);
  CPEvent second(0, name, 0);
  first.wake(0x1);
  second.wake(0x2);
  EXPECT_EQ(0x3UL, second.wait(0, nullptr));
  EXPECT_EQ(kTimeout, first.wait(0, nullptr));
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  EXPECT_EQ(2u, entry->dwUseCount);
}

TEST(NamedEventTest, NamesDifferingOnlyInPunctuationAreTheSameEvent) {
  const std::string name = UniqueName("ev");
  CPEvent slash(1, name + "/a", 0);
  CPEvent dash(0, name + "-a", 0);  // opens, does not throw
  slash.wake(0x10);
  EXPECT_EQ(0x10UL, dash.wait(0, nullptr));
}

TEST(NamedEventTest, LastCloseFreesTheEntry) {
  const std::string name = UniqueName("event");
  {
    CPEventEx ex(0);
    ASSERT_EQ(0UL, ex.Initialize(1, name));
    CNameMap::SNAMEINFO* entry = EntryOf(name);
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(CNameMap::Condvar, entry->nameType);
    EXPECT_EQ(0xF0000000u, entry->object.condvar.s_lVal);
    ex.wake(0x7);
    EXPECT_EQ(0x7u, entry->object.condvar.s_lVal);  // the value word is the entry's
    EXPECT_EQ(0UL, ex.Finalize());
  }
  EXPECT_EQ(nullptr, EntryOf(name));
  long code = 0;
  try {
    CPEvent event(0, name, 0);
  } catch (const QKException& e) {
    code = e.code;
  }
  EXPECT_EQ(static_cast<long>(0xC1210E17UL), code);
}

// Starts a thread of this process in event.wait(timeoutMs); once it sleeps
// on the event's wake sequence, runs poke(sequence) with the event's mutex
// held (so the sleeper cannot move meanwhile), and returns what the wait
// returned, or 1 when the waiter never went to sleep.
unsigned long WaitAndPoke(CPEvent& event, CNameMap::SNAMEINFO* entry, unsigned long timeoutMs,
                          const std::function<void(uint32_t* sequence)>& poke) {
  std::atomic<unsigned long> tid{0};
  unsigned long result = 1;
  std::thread waiter([&] {
    tid = Tid();
    result = event.wait(timeoutMs, nullptr);
  });
  while (tid == 0) std::this_thread::yield();
  if (!WaitUntilBlockedInFutex(tid, 5000)) {
    event.wake(0);  // let the thread go
    waiter.join();
    return 1;
  }
  pthread_mutex_lock(&entry->object.condvar.mutex);
  poke(reinterpret_cast<uint32_t*>(&entry->object.condvar.cond));
  pthread_mutex_unlock(&entry->object.condvar.mutex);
  waiter.join();
  return result;
}

TEST(NamedEventTest, SpuriousWakeUpReturnsZeroNotTimeOut) {
  const std::string name = UniqueName("event");
  CPEvent event(1, name, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  const auto start = Clock::now();
  // The futex is woken without any wake().
  const unsigned long result = WaitAndPoke(event, entry, 5000, [](uint32_t* sequence) {
    ::syscall(SYS_futex, sequence, FUTEX_WAKE, 1, nullptr, nullptr, 0);
  });
  EXPECT_EQ(0UL, result);
  EXPECT_LT(MsSince(start), 4000);  // not the time-out
  EXPECT_EQ(0xF0000000u, entry->object.condvar.s_lVal);
}

// A sleeper woken by a wake whose bits another waiter has already taken
// sleeps again: one wake releases one waiter. (A wake-up with no wake at
// all still returns 0, above.)
TEST(NamedEventTest, ASleeperWhoseWakeWasTakenByAnotherWaiterSleepsAgain) {
  const std::string name = UniqueName("event");
  CPEvent event(1, name, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  // What a wake does, and then what a second waiter that takes the bits
  // does, all before the sleeper gets the mutex back.
  const unsigned long result = WaitAndPoke(event, entry, 1500, [entry](uint32_t* sequence) {
    entry->object.condvar.s_lVal = 0x4;
    __atomic_add_fetch(sequence, 1, __ATOMIC_SEQ_CST);
    ::syscall(SYS_futex, sequence, FUTEX_WAKE, 1, nullptr, nullptr, 0);
    entry->object.condvar.s_lVal = 0xF0000000u;
  });
  EXPECT_EQ(0xE0000000UL, result) << "the sleeper was released by a wake another waiter took";
}

TEST(NamedEventTest, WakeInOneProcessReturnsBitsToAWaiterInAnother) {
  const std::string name = UniqueName("event");
  Handshake created, opened, woken;
  // Forked before this process touches the library: the child has its own
  // name map.
  ForkedChild child([&] {
    if (!created.WaitFor(5000)) return 2;
    try {
      CPEvent peer(0, name, 0);  // open only
      opened.Signal();
      if (!woken.WaitFor(5000)) return 3;
      if (peer.wait(5000, nullptr) != 0x5) return 4;  // both wakes merged
      return peer.wait(0, nullptr) == kTimeout ? 0 : 5;  // and reset
    } catch (...) {
      return 6;
    }
  });
  ASSERT_TRUE(child.Started());
  CPEvent event(1, name, 0);
  created.Signal();
  ASSERT_TRUE(opened.WaitFor(5000)) << "child never opened the event";
  event.wake(0x1);
  event.wake(0x4);
  woken.Signal();
  EXPECT_EQ(0, child.Join(10000));
}

TEST(NamedEventTest, BlockedWaiterInAnotherProcessIsReleasedAndHoldsTheEntry) {
  const std::string name = UniqueName("event");
  Handshake created;
  ForkedChild child([&] {
    if (!created.WaitFor(5000)) return 2;
    try {
      CPEvent peer(0, name, 0);
      const unsigned long r = peer.wait(5000, nullptr);
      if (r == kTimeout) return 3;  // the wake never crossed
      return r == 0x40 ? 0 : 4;
    } catch (...) {
      return 5;
    }
  });
  ASSERT_TRUE(child.Started());
  CPEvent event(1, name, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  EXPECT_EQ(0, entry->dwHolderPid);
  created.Signal();
  // During the wait the entry names the waiting process.
  ASSERT_TRUE(WaitForWord(&entry->dwHolderPid, child.Pid(), 5000))
      << "holder is " << entry->dwHolderPid;
  // The waiter set the holder under the event's mutex, which it keeps until
  // it sleeps in the condition wait: once we get the mutex it sleeps.
  pthread_mutex_lock(&entry->object.condvar.mutex);
  pthread_mutex_unlock(&entry->object.condvar.mutex);
  event.wake(0x40);
  EXPECT_EQ(0, child.Join(10000));
  EXPECT_EQ(0, entry->dwHolderPid);
}

// Exit codes of a waiter child in the test below.
constexpr int kWaiterWoken = 0;     // got the wake's bits
constexpr int kWaiterTimedOut = 1;  // the wait ran out

TEST(NamedEventTest, OneWakeReleasesExactlyOneOfTwoWaitersInOtherProcesses) {
  const std::string name = UniqueName("event");
  Handshake go[2];
  std::vector<std::unique_ptr<ForkedChild>> waiters;
  for (int i = 0; i < 2; ++i) {
    // Forked before this process touches the library: fresh processes.
    waiters.emplace_back(new ForkedChild([&, i] {
      if (!go[i].WaitFor(5000)) return 10;
      try {
        CPEvent peer(0, name, 0);
        const unsigned long r = peer.wait(3000, nullptr);
        if (r == 0x8) return kWaiterWoken;
        if (r == kTimeout) return kWaiterTimedOut;
        return 11;  // woken without the bits: the wake reached both
      } catch (...) {
        return 12;
      }
    }));
    ASSERT_TRUE(waiters.back()->Started());
  }
  CPEvent event(1, name, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  // One waiter at a time: it names itself the holder as its wait begins,
  // then sleeps in a futex wait. Both must be asleep before the wake, or a
  // wake of every sleeper could pass for a wake of one.
  for (int i = 0; i < 2; ++i) {
    go[i].Signal();
    ASSERT_TRUE(WaitForWord(&entry->dwHolderPid, waiters[i]->Pid(), 5000))
        << "waiter " << i << " never waited; holder is " << entry->dwHolderPid;
    ASSERT_TRUE(WaitUntilProcessInFutex(waiters[i]->Pid(), 5000))
        << "waiter " << i << " never slept";
  }
  event.wake(0x8);
  const int first = waiters[0]->Join(10000);
  const int second = waiters[1]->Join(10000);
  EXPECT_TRUE((first == kWaiterWoken && second == kWaiterTimedOut) ||
              (first == kWaiterTimedOut && second == kWaiterWoken))
      << "exit codes " << first << " and " << second;
}

TEST(NamedEventTest, WaitInThisProcessMarksItAsTheHolderThenClearsIt) {
  const std::string name = UniqueName("event");
  CPEvent event(1, name, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  std::atomic<unsigned long> tid{0};
  unsigned long result = 0;
  std::thread waiter([&] {
    tid = Tid();
    result = event.wait(5000, nullptr);
  });
  ASSERT_TRUE(WaitForWord(&entry->dwHolderPid, static_cast<int32_t>(::getpid()), 5000));
  event.wake(0x2);
  waiter.join();
  EXPECT_EQ(0x2UL, result);
  EXPECT_EQ(0, entry->dwHolderPid);
  EXPECT_EQ(kTimeout, event.wait(0, nullptr));  // a time-out clears it too
  EXPECT_EQ(0, entry->dwHolderPid);
}

TEST(NamedEventTest, WaiterInAnotherProcessSeesTheTimeOut) {
  const std::string name = UniqueName("event");
  Handshake created;
  ForkedChild child([&] {
    if (!created.WaitFor(5000)) return 2;
    try {
      CPEvent peer(0, name, 0);
      const auto start = Clock::now();
      if (peer.wait(200, nullptr) != kTimeout) return 3;
      return MsSince(start) >= 190 ? 0 : 4;
    } catch (...) {
      return 5;
    }
  });
  ASSERT_TRUE(child.Started());
  CPEvent event(1, name, 0);
  created.Signal();
  EXPECT_EQ(0, child.Join(10000));
}

// A waiter killed inside its wait never leaves the condition variable.
// Freeing the entry must not wait for it, and the entry must work again
// when the next event is made in it.
TEST(NamedEventTest, EntryOfAWaiterKilledInItsWaitIsFreedAndWorksAgain) {
  const std::string name = UniqueName("victim");
  Handshake created;
  ForkedChild victim([&] {
    if (!created.WaitFor(5000)) return 2;
    try {
      CPEvent peer(0, name, 0);
      peer.wait(kInfinite, nullptr);
    } catch (...) {
      return 3;
    }
    return 4;  // never woken: killed
  });
  ASSERT_TRUE(victim.Started());
  CNameMap::SNAMEINFO* entry = nullptr;
  {
    CPEvent event(1, name, 0);
    entry = EntryOf(name);
    ASSERT_NE(nullptr, entry);
    created.Signal();
    ASSERT_TRUE(WaitForWord(&entry->dwHolderPid, victim.Pid(), 5000));
    pthread_mutex_lock(&entry->object.condvar.mutex);  // it sleeps in the wait
    pthread_mutex_unlock(&entry->object.condvar.mutex);
    victim.Kill();
    EXPECT_EQ(128 + SIGKILL, victim.Join(5000));
  }  // this process's close; the dead one's open remains
  const std::string next = UniqueName("next");
  // Forked: should freeing or reusing the entry block, the child is killed.
  ForkedChild reuse([&] {
    try {
      CPEvent again(1, next, 0);  // cleans up the dead pid, frees the entry
      if (EntryOf(name) != nullptr) return 2;
      if (EntryOf(next) != entry) return 3;  // the lowest free entry again
      std::atomic<unsigned long> tid{0};
      unsigned long result = 0;
      std::thread waiter([&] {
        tid = Tid();
        result = again.wait(5000, nullptr);
      });
      while (tid == 0) std::this_thread::yield();
      if (!WaitUntilBlockedInFutex(tid, 5000)) return 4;
      again.wake(0x21);
      waiter.join();
      return result == 0x21 ? 0 : 5;
    } catch (...) {
      return 6;
    }
  });
  ASSERT_TRUE(reuse.Started());
  EXPECT_EQ(0, reuse.Join(15000));
}

TEST(NamedEventTest, CPEventExSharesANamedEventWithAnotherProcess) {
  const std::string name = UniqueName("event");
  Handshake created;
  ForkedChild child([&] {
    if (!created.WaitFor(5000)) return 2;
    CPEventEx peer(0);
    try {
      if (peer.Initialize(0, name) != 0) return 3;
    } catch (...) {
      return 4;
    }
    peer.wake(0x100);
    return peer.Finalize() == 0 ? 0 : 5;
  });
  ASSERT_TRUE(child.Started());
  CPEventEx ex(0);
  ASSERT_EQ(0UL, ex.Initialize(1, name));
  created.Signal();
  EXPECT_EQ(0, child.Join(5000));
  EXPECT_EQ(0x100UL, ex.wait(0, nullptr));
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  EXPECT_EQ(1u, entry->dwUseCount);  // the child's close dropped its open
}

}  // namespace

// Processes killed in the middle of a named event's wait or wake: the
// survivors keep using the event.
TEST(NamedEventTest, WaitersKilledWhileBlockedDoNotStopLaterWakes) {
  const std::string name = UniqueName("event");
  Handshake blocked;
  std::vector<std::unique_ptr<ForkedChild>> victims;
  for (int i = 0; i < 3; ++i) {
    victims.emplace_back(new ForkedChild([&] {
      try {
        CPEvent peer(1, name, 0);
        blocked.Signal();
        peer.wait(20000, nullptr);
      } catch (...) {
      }
      return 0;
    }));
    ASSERT_TRUE(blocked.WaitFor(5000));
  }
  ::usleep(100000);  // all three asleep in the wait
  for (auto& v : victims) EXPECT_EQ(-1, v->Join(0));  // SIGKILL

  // Many wake and wait rounds between two live processes, each bounded.
  ForkedChild rounds([&] {
    try {
      CPEvent event(1, name, 0);
      CPEvent reply(1, name + "-reply", 0);
      for (int i = 0; i < 50; ++i) {
        if (event.wait(2000, nullptr) != 0x1) return 2;
        reply.wake(0x2);
      }
      return 0;
    } catch (...) {
      return 3;
    }
  });
  ForkedChild driver([&] {
    try {
      CPEvent event(1, name, 0);
      CPEvent reply(1, name + "-reply", 0);
      for (int i = 0; i < 50; ++i) {
        event.wake(0x1);
        if (reply.wait(2000, nullptr) != 0x2) return 2;
      }
      return 0;
    } catch (...) {
      return 3;
    }
  });
  EXPECT_EQ(0, driver.Join(20000));
  EXPECT_EQ(0, rounds.Join(20000));
}

TEST(NamedEventTest, AProcessKilledHoldingTheEventsMutexDoesNotBlockTheOthers) {
  const std::string name = UniqueName("event");
  CPEvent event(1, name, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  Handshake holding;
  ForkedChild holder([&] {
    // As a wake or a wait does, between taking the mutex and letting go.
    pthread_mutex_lock(&entry->object.condvar.mutex);
    holding.Signal();
    ::sleep(20);
    return 0;
  });
  ASSERT_TRUE(holding.WaitFor(5000));
  EXPECT_EQ(-1, holder.Join(0));  // killed holding it

  ForkedChild user([&] {
    event.wake(0x4);
    return event.wait(1000, nullptr) == 0x4 ? 0 : 2;
  });
  EXPECT_EQ(0, user.Join(5000)) << "-1: blocked on the dead process's lock";
}

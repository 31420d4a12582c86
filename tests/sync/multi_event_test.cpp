// The multi-event wait: the interested list, signals kept for later waits,
// the lowest index winning, ResetEvent, the trace lines and the sliced wait.
//
// Several tests need a signal to arrive "while the waiter is blocked and
// before it runs again". They get there without sleeps: the hook below sees
// the implementation's own lines, which it writes while holding its mutex.
// The waiter writes a known line in wait() just before it blocks on the
// condition, so once the main thread has seen that line, its next lock of
// the mutex succeeds only when the waiter is inside the condition wait. The
// main thread then makes its signals from inside the hook, while it holds
// the (recursive) mutex, so the waiter cannot run between them.
#include "ambit/multievent.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ambit/event.h"
#include "ambit/trace.h"
#include "gtest/gtest.h"
#include "support/recording_hook.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr long kTimeout = static_cast<long>(0xE0000000UL);
constexpr long kAbandoned = static_cast<long>(0xC0000000UL);
constexpr long kUnknown = static_cast<long>(0xA0000000UL);

long MsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

std::string Pointer(const void* p) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%p", p);
  return buffer;
}

// A hook that records lines (with the writing thread), lets a test wait
// for a line, and runs an action once, on the thread that writes a chosen
// line, while that thread is inside the library.
class ScriptedHook : public AmbitTracing {
 public:
  struct Line {
    unsigned long category;
    unsigned long level;
    std::string text;
    std::thread::id thread;
  };

  ScriptedHook() : m_previous(AmbitDebug::getTracingHelper()) {
    AmbitDebug::setTracingHelper(this);
  }
  ~ScriptedHook() override { AmbitDebug::setTracingHelper(m_previous); }

  void traceConditional(unsigned long mask, unsigned long level, const char* format,
                        va_list args) override {
    char buffer[1024];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    std::function<void()> action;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_lines.push_back({mask, level, buffer, std::this_thread::get_id()});
      if (m_action && std::string(buffer).find(m_trigger) != std::string::npos) {
        action.swap(m_action);
      }
    }
    m_changed.notify_all();
    if (action) action();  // our own lock is not held: the action traces too
  }
  void traceUnconditional(unsigned long level, const char* format, va_list args) override {
    traceConditional(0, level, format, args);
  }

  // Runs `action` once, when a line containing `trigger` is written.
  void OnLine(const std::string& trigger, std::function<void()> action) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_trigger = trigger;
    m_action = std::move(action);
  }

  // True when `count` lines containing `text` have been written by `thread`
  // (any thread when default) within nTimeoutMs.
  bool WaitForLine(const std::string& text, int count, int nTimeoutMs,
                   std::thread::id thread = std::thread::id()) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(nTimeoutMs), [&] {
      int n = 0;
      for (const Line& l : m_lines)
        if (l.text.find(text) != std::string::npos &&
            (thread == std::thread::id() || l.thread == thread))
          ++n;
      return n >= count;
    });
  }

  std::vector<Line> Lines() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
  }
  std::vector<std::string> Texts() {
    std::vector<std::string> texts;
    for (const Line& l : Lines()) texts.push_back(l.text);
    return texts;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
  }

 private:
  AmbitTracing* m_previous;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Line> m_lines;
  std::string m_trigger;
  std::function<void()> m_action;
};

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

// A waiter thread: WaitForMultipleObjects on `ids`, bounded.
class Waiter {
 public:
  Waiter(CPMultiEvent* me, std::vector<long> ids, unsigned long timeoutMs = 5000)
      : m_ids(std::move(ids)) {
    std::promise<std::thread::id> started;
    auto id = started.get_future();
    m_result = std::async(std::launch::async, [=, &started] {
      started.set_value(std::this_thread::get_id());
      return me->WaitForMultipleObjects(static_cast<long>(m_ids.size()),
                                        const_cast<long*>(m_ids.data()), 0, timeoutMs);
    });
    m_thread = id.get();
  }
  std::thread::id Thread() const { return m_thread; }
  // The result, or 0x7FFFFFFF when the waiter did not return within 10 s.
  long Result() {
    if (m_result.wait_for(std::chrono::seconds(10)) != std::future_status::ready)
      return 0x7FFFFFFF;
    return m_result.get();
  }

 private:
  std::vector<long> m_ids;
  std::thread::id m_thread;
  std::future<long> m_result;
};

// Starts a waiter on `ids` and returns once it is blocked on the condition.
// `marker` must be pending and not among `ids`: the waiter's wait() then
// writes a line about it just before it blocks.
::testing::AssertionResult WaitUntilBlocked(ScriptedHook* hook, Waiter* waiter, long marker) {
  const std::string line = "isInterestedEvent - lEvent=" + std::to_string(marker) + ", Found=0";
  // Once in WaitForMultipleObjects, once in wait().
  if (!hook->WaitForLine(line, 2, 5000, waiter->Thread()))
    return ::testing::AssertionFailure() << "the waiter never reached its wait";
  return ::testing::AssertionSuccess();
}

// --- Signals kept while nobody waits --------------------------------------------------

TEST(MultiEventTest, ASignalWhileIdleSatisfiesALaterWaitAtOnceAndIsUsedUp) {
  CPMultiEvent me(0);
  me.SetEvent(7);
  long ids[] = {5, 7};
  const auto start = Clock::now();
  EXPECT_EQ(1, me.WaitForMultipleObjects(2, ids, 0, 1000));
  EXPECT_LT(MsSince(start), 500);
  EXPECT_EQ(kTimeout, me.WaitForSingleObject(7, 0)) << "7 is still pending";
}

TEST(MultiEventTest, ASignalTwiceWhileIdleIsKeptOnce) {
  ScriptedHook hook;
  CPMultiEvent me(0);
  me.SetEvent(3);
  me.SetEvent(3);
  int pushed = 0;
  for (const std::string& t : hook.Texts())
    if (t.find("pushPreWaitEvent: Event=3,") != std::string::npos) ++pushed;
  EXPECT_EQ(1, pushed);
  EXPECT_EQ(0, me.WaitForSingleObject(3, 0));
  EXPECT_EQ(kTimeout, me.WaitForSingleObject(3, 0));
}

TEST(MultiEventTest, ResetOfAPendingSignalRemovesIt) {
  CPMultiEvent me(0);
  me.SetEvent(7);
  me.ResetEvent(7);
  long ids[] = {7};
  EXPECT_EQ(kTimeout, me.WaitForMultipleObjects(1, ids, 0, 100));
}

TEST(MultiEventTest, ResetOfOneSignalKeepsTheOthers) {
  CPMultiEvent me(0);
  me.SetEvent(1);
  me.SetEvent(2);
  me.SetEvent(3);
  me.ResetEvent(2);
  long ids[] = {1, 2, 3};
  std::set<long> got;
  for (int i = 0; i < 2; ++i) got.insert(me.WaitForMultipleObjects(3, ids, 0, 0));
  EXPECT_EQ((std::set<long>{0, 2}), got);
  EXPECT_EQ(kTimeout, me.WaitForMultipleObjects(3, ids, 0, 0));
}

TEST(MultiEventTest, WaitForSingleObjectWithNothingPendingTimesOut) {
  CPMultiEvent me(0);
  const auto start = Clock::now();
  EXPECT_EQ(kTimeout, me.WaitForSingleObject(4, 0));
  EXPECT_LT(MsSince(start), 500);
  const auto timed = Clock::now();
  EXPECT_EQ(kTimeout, me.WaitForSingleObject(4, 200));
  const long took = MsSince(timed);
  EXPECT_GE(took, 180);
  EXPECT_LT(took, 3000);
}

TEST(MultiEventTest, WaitAllOneBehavesExactlyLikeWaitAllZero) {
  for (int waitAll = 0; waitAll <= 1; ++waitAll) {
    CPMultiEvent me(0);
    me.SetEvent(9);
    me.SetEvent(7);
    long ids[] = {5, 7, 9};
    // Only one of the three is needed, and the oldest kept signal that
    // interests the wait comes first.
    EXPECT_EQ(2, me.WaitForMultipleObjects(3, ids, waitAll, 1000)) << "waitAll " << waitAll;
    EXPECT_EQ(1, me.WaitForMultipleObjects(3, ids, waitAll, 1000)) << "waitAll " << waitAll;
    EXPECT_EQ(kTimeout, me.WaitForMultipleObjects(3, ids, waitAll, 0)) << "waitAll " << waitAll;
  }
}

TEST(MultiEventTest, DuplicateIdsCountOnceInTheIndex) {
  CPMultiEvent me(0);
  me.SetEvent(7);
  long ids[] = {5, 5, 7, 5};
  EXPECT_EQ(1, me.WaitForMultipleObjects(4, ids, 0, 1000));
}

TEST(MultiEventTest, AKeptSignalOfAnotherIdDoesNotSatisfyAWait) {
  CPMultiEvent me(0);
  me.SetEvent(8);
  EXPECT_EQ(kTimeout, me.WaitForSingleObject(4, 0));
  EXPECT_EQ(0, me.WaitForSingleObject(8, 0)) << "8 was lost by a wait that did not want it";
}

TEST(MultiEventTest, WakeKeepsSignalsLikeSetEvent) {
  CPMultiEvent me(0);
  me.wake(11);
  me.wake(11);
  EXPECT_EQ(0, me.WaitForSingleObject(11, 0));
  EXPECT_EQ(kTimeout, me.WaitForSingleObject(11, 0));
}

TEST(MultiEventTest, AnEmptyWaitTimesOut) {
  CPMultiEvent me(0);
  me.SetEvent(1);
  EXPECT_EQ(kTimeout, me.WaitForMultipleObjects(0, nullptr, 0, 0));
  EXPECT_EQ(0, me.WaitForSingleObject(1, 0));
}

// --- Signals during a wait ------------------------------------------------------------

TEST(MultiEventTest, ASignalDuringAWaitWakesTheWaiterWithItsIndex) {
  ScriptedHook hook;
  CPMultiEvent me(0);
  me.SetEvent(50);  // the marker
  Waiter waiter(&me, {1, 2, 3});
  ASSERT_TRUE(WaitUntilBlocked(&hook, &waiter, 50));
  me.SetEvent(3);
  EXPECT_EQ(2, waiter.Result());
  EXPECT_TRUE(hook.WaitForLine("wait - signalled with EventIndex=2,", 1, 0));
}

TEST(MultiEventTest, LowerIndexWinsWhenTheHigherArrivesFirstAndTheHigherStaysKept) {
  ScriptedHook hook;
  CPMultiEvent me(0);
  me.SetEvent(50);
  Waiter waiter(&me, {5, 7, 9});
  ASSERT_TRUE(WaitUntilBlocked(&hook, &waiter, 50));
  // Both signals are made under the implementation's mutex, held by the
  // SetEvent(999) that carries them.
  hook.OnLine("lEvent=999", [&] {
    me.SetEvent(9);
    me.SetEvent(5);
  });
  me.SetEvent(999);
  EXPECT_EQ(0, waiter.Result());
  EXPECT_TRUE(hook.WaitForLine("wake - Event=5, Index=0, PreviousIndex=2,", 1, 0));
  EXPECT_TRUE(hook.WaitForLine("wait - signalled with EventIndex=0,", 1, 0))
      << "the waiter was not blocked when the signals came";

  long later[] = {1, 9};
  EXPECT_EQ(1, me.WaitForMultipleObjects(2, later, 0, 0)) << "9 was not kept";
  EXPECT_EQ(kTimeout, me.WaitForSingleObject(5, 0)) << "5 was kept as well";
  EXPECT_EQ(0, me.WaitForSingleObject(999, 0));
}

TEST(MultiEventTest, LowerIndexWinsWhenItArrivesFirstAndTheHigherStaysKept) {
  ScriptedHook hook;
  CPMultiEvent me(0);
  me.SetEvent(50);
  Waiter waiter(&me, {5, 7, 9});
  ASSERT_TRUE(WaitUntilBlocked(&hook, &waiter, 50));
  hook.OnLine("lEvent=999", [&] {
    me.SetEvent(5);
    me.SetEvent(9);
  });
  me.SetEvent(999);
  EXPECT_EQ(0, waiter.Result());
  EXPECT_TRUE(hook.WaitForLine("wake - Event=9, Index=2, PreviousIndex=0,", 1, 0));
  EXPECT_EQ(0, me.WaitForSingleObject(9, 0)) << "9 was not kept";
  EXPECT_EQ(kTimeout, me.WaitForSingleObject(5, 0));
}

// The second signal finds its own index already set; an equal index counts
// as the winner, so the first signal's id is kept as well.
TEST(MultiEventTest, TheSameIdTwiceDuringAWaitIsDeliveredAndAlsoKept) {
  ScriptedHook hook;
  CPMultiEvent me(0);
  me.SetEvent(50);
  Waiter waiter(&me, {5, 7});
  ASSERT_TRUE(WaitUntilBlocked(&hook, &waiter, 50));
  hook.OnLine("lEvent=999", [&] {
    me.SetEvent(7);
    me.SetEvent(7);
  });
  me.SetEvent(999);
  EXPECT_EQ(1, waiter.Result());
  EXPECT_TRUE(hook.WaitForLine("wake - Event=7, Index=1, PreviousIndex=1,", 1, 0));
  EXPECT_EQ(0, me.WaitForSingleObject(7, 0));
  EXPECT_EQ(kTimeout, me.WaitForSingleObject(7, 0));
}

TEST(MultiEventTest, ASignalNotOfInterestDuringAWaitIsKeptForLater) {
  ScriptedHook hook;
  CPMultiEvent me(0);
  me.SetEvent(50);
  Waiter waiter(&me, {1});
  ASSERT_TRUE(WaitUntilBlocked(&hook, &waiter, 50));
  me.SetEvent(2);
  EXPECT_TRUE(hook.WaitForLine("wake - Not an interested Event=2 and WaitStarted,", 1, 0));
  me.SetEvent(1);
  EXPECT_EQ(0, waiter.Result());
  EXPECT_EQ(0, me.WaitForSingleObject(2, 0));
  EXPECT_EQ(0, me.WaitForSingleObject(50, 0));
}

TEST(MultiEventTest, AWaiterWokenWhoseSignalWasResetReturnsTheUnknownIndexResult) {
  ScriptedHook hook;
  CPMultiEvent me(0);
  me.SetEvent(50);
  Waiter waiter(&me, {7});
  ASSERT_TRUE(WaitUntilBlocked(&hook, &waiter, 50));
  // The condition is signalled, but its index is withdrawn before the
  // waiter gets the mutex back.
  hook.OnLine("lEvent=999", [&] {
    me.SetEvent(7);
    me.ResetEvent(7);
  });
  me.SetEvent(999);
  EXPECT_EQ(kUnknown, waiter.Result());
  EXPECT_TRUE(hook.WaitForLine("CPMultiEventImpl::wait - signalled with Unknown Event Index. this=0x",
                               1, 0));
  EXPECT_TRUE(hook.WaitForLine("CPMultiEventImpl::wait - signalled with EventIndex=-1610612736,",
                               1, 0));
  EXPECT_EQ(kTimeout, me.WaitForSingleObject(7, 0));
}

TEST(MultiEventTest, ResetOfTheSignalledIdLetsAKeptSignalTakeItsPlace) {
  ScriptedHook hook;
  CPMultiEvent me(0);
  me.SetEvent(50);
  Waiter waiter(&me, {5, 7, 9});
  ASSERT_TRUE(WaitUntilBlocked(&hook, &waiter, 50));
  hook.OnLine("lEvent=999", [&] {
    me.SetEvent(9);
    me.SetEvent(5);    // wins; 9 is kept
    me.ResetEvent(5);  // withdraws 5; kept 9 becomes the signal
  });
  me.SetEvent(999);
  EXPECT_EQ(2, waiter.Result());
  EXPECT_EQ(kTimeout, me.WaitForSingleObject(9, 0));
  EXPECT_EQ(kTimeout, me.WaitForSingleObject(5, 0));
}

// Several threads signal, each its own id once, while one thread waits
// again and again: every signal is delivered exactly once.
TEST(MultiEventTest, EverySignalOfSeveralThreadsIsDeliveredExactlyOnce) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 200;
  CPMultiEvent me(0);
  std::vector<long> ids;
  for (int t = 0; t < kThreads; ++t) ids.push_back(100 + t);
  for (int round = 0; round < kRounds; ++round) {
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> signallers;
    for (int t = 0; t < kThreads; ++t)
      signallers.emplace_back([&, t] {
        ++ready;
        while (!go.load()) std::this_thread::yield();
        me.SetEvent(ids[t]);
      });
    while (ready.load() < kThreads) std::this_thread::yield();
    go = true;
    std::vector<int> seen(kThreads, 0);
    for (int i = 0; i < kThreads; ++i) {
      const long r = me.WaitForMultipleObjects(kThreads, ids.data(), 0, 5000);
      if (r < 0 || r >= kThreads) {
        ADD_FAILURE() << "round " << round << ", wait " << i << ": result " << std::hex << r;
        break;
      }
      ++seen[r];
    }
    for (std::thread& t : signallers) t.join();
    for (int t = 0; t < kThreads; ++t)
      ASSERT_EQ(1, seen[t]) << "round " << round << ", id " << ids[t];
    ASSERT_EQ(kTimeout, me.WaitForMultipleObjects(kThreads, ids.data(), 0, 0))
        << "round " << round;
  }
}

TEST(MultiEventTest, SignalsOfSeveralThreadsWhileIdleAreKeptOldestFirst) {
  CPMultiEvent me(0);
  // One after the other, handed on from thread to thread.
  std::vector<long> order = {4, 2, 3, 1};
  for (long id : order) std::thread([&, id] { me.SetEvent(id); }).join();
  long ids[] = {1, 2, 3, 4};
  for (long id : order) EXPECT_EQ(id - 1, me.WaitForMultipleObjects(4, ids, 0, 0));
  EXPECT_EQ(kTimeout, me.WaitForMultipleObjects(4, ids, 0, 0));
}

// --- The bare wait and the sliced wait ------------------------------------------------

TEST(MultiEventTest, ABareWaitDoesNotTakeKeptSignalsBecauseNoWaitIsStarted) {
  CPMultiEvent me(0);
  me.pushEvent(5);
  me.SetEvent(5);
  EXPECT_EQ(kTimeout, me.wait(0, nullptr));
  EXPECT_EQ(0, me.WaitForSingleObject(5, 0)) << "the kept signal was lost";
}

TEST(MultiEventTest, ATerminateHookThatFiresAtOnceAbandonsTheWait) {
  CPMultiEvent me(0);
  Terminate stop(1);
  const auto start = Clock::now();
  EXPECT_EQ(kAbandoned, me.wait(0xFFFFFFFF, &stop));
  EXPECT_LT(MsSince(start), 1000);
  EXPECT_EQ(1, stop.asked());
}

TEST(MultiEventTest, ATerminateHookThatNeverFiresTimesOutAfterTheTimeout) {
  CPMultiEvent me(0);
  Terminate never(0);
  const auto start = Clock::now();
  EXPECT_EQ(kTimeout, me.wait(150, &never));
  EXPECT_GE(MsSince(start), 140);
  EXPECT_GE(never.asked(), 1);
}

TEST(MultiEventTest, ASignalDuringABareWaitIsKeptBecauseNoWaitIsStarted) {
  ScriptedHook hook;
  CPMultiEvent me(0);
  long ids[] = {3, 4};
  EXPECT_EQ(kTimeout, me.WaitForMultipleObjects(2, ids, 0, 0));
  me.SetEvent(50);  // the marker: the bare wait looks at it before blocking
  std::promise<std::thread::id> started;
  auto bare = std::async(std::launch::async, [&] {
    started.set_value(std::this_thread::get_id());
    return me.wait(300, nullptr);
  });
  const std::thread::id waiter = started.get_future().get();
  ASSERT_TRUE(hook.WaitForLine("lEvent=50, Wait Not Started yet.", 1, 5000, waiter));
  me.SetEvent(4);  // one of the last wait's ids, yet not delivered
  EXPECT_EQ(kTimeout, bare.get());
  EXPECT_EQ(1, me.WaitForMultipleObjects(2, ids, 0, 0));
}

// --- Trace lines ----------------------------------------------------------------------

TEST(MultiEventTest, ConstructionAndDestructionLinesNeedOnlyTheHook) {
  ScriptedHook hook;
  std::string self;
  {
    CPMultiEvent me(1);
    self = Pointer(&me);
  }
  const std::vector<std::string> expected = {
      "CPMultiEvent::CPMultiEvent (" + self + ")\n",
      "CPMultiEvent::~CPMultiEvent (" + self + ")\n",
  };
  EXPECT_EQ(expected, hook.Texts());
  for (const ScriptedHook::Line& l : hook.Lines()) {
    EXPECT_EQ(256UL, l.category);
    EXPECT_EQ(2UL, l.level);
  }
}

TEST(MultiEventTest, FacadeLinesNeedTheTraceFlag) {
  CPMultiEvent me(1);
  ScriptedHook hook;
  long ids[] = {1, 2};
  me.SetEvent(1);
  me.wake(2);
  me.ResetEvent(2);
  me.pushEvent(3);
  me.pushEvents(2, ids);
  me.WaitForSingleObject(1, 0);
  me.WaitForMultipleObjects(2, ids, 0, 0);
  me.wait(0, nullptr);
  for (const std::string& t : hook.Texts())
    EXPECT_EQ(std::string::npos, t.find("CPMultiEvent::")) << t;
  EXPECT_FALSE(hook.Texts().empty()) << "the implementation's lines are missing";
}

TEST(MultiEventTest, FacadeLinesWithTheTraceFlag) {
  CPMultiEvent me(0);
  me.setTrace(1);
  ScriptedHook hook;
  const std::string p = Pointer(&me);
  long two[] = {4, 6};
  me.SetEvent(1);
  me.wake(2);
  me.ResetEvent(2);
  me.pushEvent(3);
  me.pushEvents(2, two);
  me.WaitForSingleObject(1, 0);
  me.WaitForMultipleObjects(2, two, 1, 0);
  me.wait(0, nullptr);
  std::vector<std::string> facade;
  for (const ScriptedHook::Line& l : hook.Lines()) {
    if (l.text.compare(0, 14, "CPMultiEvent::") != 0 &&
        l.text.compare(0, 17, "<<<CPMultiEvent::") != 0)
      continue;
    EXPECT_EQ(256UL, l.category) << l.text;
    EXPECT_EQ(2UL, l.level) << l.text;
    facade.push_back(l.text);
  }
  const std::vector<std::string> expected = {
      "CPMultiEvent::SetEvent (" + p + ") 1\n",
      "CPMultiEvent::wake (" + p + ") 2\n",
      "CPMultiEvent::ResetEvent (" + p + ") 2\n",
      "CPMultiEvent::pushEvent (" + p + ") 3\n",
      "CPMultiEvent::pushEvents (" + p + ") 2\n",
      "CPMultiEvent::WaitForSingleObject (" + p + ") 1\n",
      "CPMultiEvent::WaitForMultipleObjects (" + p + ") 2\n",
      "CPMultiEvent::wait (" + p + ")\n",
      "<<<CPMultiEvent::wait (" + p + ") -536870912\n",
  };
  EXPECT_EQ(expected, facade);

  hook.Clear();
  me.setTrace(0);
  me.SetEvent(1);
  me.wait(0, nullptr);
  for (const std::string& t : hook.Texts())
    EXPECT_EQ(std::string::npos, t.find("CPMultiEvent::")) << t;
}

TEST(MultiEventTest, TheAbandonedWaitWritesItsResultInTheExitLine) {
  CPMultiEvent me(0);
  me.setTrace(1);
  ScriptedHook hook;
  Terminate stop(1);
  EXPECT_EQ(kAbandoned, me.wait(1000, &stop));
  const std::string p = Pointer(&me);
  const std::vector<std::string> expected = {
      "CPMultiEvent::wait (" + p + ")\n",
      "<<<CPMultiEvent::wait (" + p + ") -1073741824\n",
  };
  EXPECT_EQ(expected, hook.Texts());
}

// Every line of the implementation strips to "<text>, this=<pointer>\n" or
// "<text>. this=<pointer>\n"; this gives "<text>" and checks the pointer is
// the same in all of them.
std::vector<std::string> ImplTexts(ScriptedHook* hook) {
  std::vector<std::string> texts;
  std::string pointer;
  for (const ScriptedHook::Line& l : hook->Lines()) {
    EXPECT_EQ(256UL, l.category) << l.text;
    EXPECT_EQ(2UL, l.level) << l.text;
    const size_t at = l.text.rfind("this=");
    if (at == std::string::npos || l.text.back() != '\n') {
      ADD_FAILURE() << "unexpected line " << l.text;
      continue;
    }
    const std::string p = l.text.substr(at + 5, l.text.size() - at - 6);
    if (pointer.empty()) pointer = p;
    EXPECT_EQ(pointer, p) << l.text;
    texts.push_back(l.text.substr(0, at));
  }
  return texts;
}

TEST(MultiEventTest, ImplementationLinesOfAKeptSignalAndTheWaitThatTakesIt) {
  CPMultiEvent me(0);
  ScriptedHook hook;
  me.SetEvent(7);
  long ids[] = {5, 7};
  EXPECT_EQ(1, me.WaitForMultipleObjects(2, ids, 0, 1000));
  const std::vector<std::string> expected = {
      "CPMultiEventImpl::wake - Event=7, ",
      "CPMultiEventImpl::isInterestedEvent - lEvent=7, Wait Not Started yet. ",
      "CPMultiEventImpl::wake - Not an interested Event=7 and WaitNotStarted, ",
      "CPMultiEventImpl::pushPreWaitEvent: Event=7, ",
      "CPMultiEventImpl::pushEvents: Event=5, ",
      "CPMultiEventImpl::pushEvents: Event=7, ",
      "CPMultiEventImpl::isInterestedEvent - lEvent=7, Found=1. ",
      // The index, not the id.
      "CPMultiEventImpl::setPreWaitEvents: Event=1, ",
      "CPMultiEventImpl::wait - return without wait with EventIndex=1, ",
  };
  EXPECT_EQ(expected, ImplTexts(&hook));
}

TEST(MultiEventTest, ImplementationLinesOfAResetAndOfASecondSignal) {
  CPMultiEvent me(0);
  me.SetEvent(7);
  ScriptedHook hook;
  me.SetEvent(7);
  me.ResetEvent(7);
  const std::vector<std::string> expected = {
      "CPMultiEventImpl::wake - Event=7, ",
      "CPMultiEventImpl::isInterestedEvent - lEvent=7, Wait Not Started yet. ",
      "CPMultiEventImpl::wake - Not an interested Event=7 and WaitNotStarted, ",
      // Already kept: no line.
      "CPMultiEventImpl::ResetEvent: Event=7, ",
      "CPMultiEventImpl::isInterestedEvent - lEvent=7, Wait Not Started yet. ",
      "CPMultiEventImpl::popPreWaitEvent: Event=7, ",
  };
  EXPECT_EQ(expected, ImplTexts(&hook));
}

TEST(MultiEventTest, ImplementationLinesOfTwoSignalsDuringAWait) {
  ScriptedHook hook;
  CPMultiEvent me(0);
  me.SetEvent(50);
  Waiter waiter(&me, {5, 7, 9});
  ASSERT_TRUE(WaitUntilBlocked(&hook, &waiter, 50));
  hook.OnLine("lEvent=999", [&] {
    me.SetEvent(9);
    me.SetEvent(5);
  });
  hook.Clear();
  me.SetEvent(999);
  ASSERT_EQ(0, waiter.Result());
  const std::vector<std::string> expected = {
      "CPMultiEventImpl::wake - Event=999, ",
      "CPMultiEventImpl::isInterestedEvent - lEvent=999, Found=0. ",
      "CPMultiEventImpl::wake - Event=9, ",
      "CPMultiEventImpl::isInterestedEvent - lEvent=9, Found=1. ",
      "CPMultiEventImpl::wake - Event=5, ",
      "CPMultiEventImpl::isInterestedEvent - lEvent=5, Found=1. ",
      "CPMultiEventImpl::wake - Event=5, Index=0, PreviousIndex=2, ",
      "CPMultiEventImpl::pushPreWaitEvent: Event=9, ",
      "CPMultiEventImpl::wake - Not an interested Event=999 and WaitStarted, ",
      "CPMultiEventImpl::pushPreWaitEvent: Event=999, ",
      "CPMultiEventImpl::wait - signalled with EventIndex=0, ",
  };
  EXPECT_EQ(expected, ImplTexts(&hook));
}

}  // namespace

#include "ambit/critsec.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "net/qos_impl.h"
#include "support/recording_hook.h"
#include "sync/weak_ref_lock.h"

namespace {

// Runs fn on another thread and returns its result (bounded by the test
// timeout: the critical section's try operations never block).
template <typename Fn>
auto OnOtherThread(Fn fn) -> decltype(fn()) {
  auto result = std::async(std::launch::async, fn);
  return result.get();
}

// "<prefix> (0x...) <rest>" with any pointer text between the parentheses.
::testing::AssertionResult LineIs(const std::string& line,
                                  const std::string& prefix,
                                  const std::string& rest) {
  const std::string head = prefix + " (";
  const size_t close = line.find(") ");
  if (line.compare(0, head.size(), head) != 0 || close == std::string::npos ||
      close <= head.size() || line.substr(close + 2) != rest)
    return ::testing::AssertionFailure()
           << "expected \"" << prefix << " (<pointer>) " << rest
           << "\", got \"" << line << "\"";
  return ::testing::AssertionSuccess();
}

TEST(CritSecTest, EnterTwiceNeedsTwoLeavesBeforeAnotherThreadGetsIn) {
  CPCritSec cs("twice", 0);
  ASSERT_EQ(0, cs.enter(__LINE__));
  ASSERT_EQ(0, cs.enter(__LINE__));
  EXPECT_EQ(0, cs.leave(__LINE__));
  EXPECT_EQ(0, OnOtherThread([&] { return cs.tryEnter(__LINE__); }));
  EXPECT_EQ(0, cs.leave(__LINE__));
  EXPECT_EQ(1, OnOtherThread([&] {
              const int r = cs.tryEnter(__LINE__);
              if (r == 1) cs.leave(__LINE__);
              return r;
            }));
}

TEST(CritSecTest, TestByTheOwnerReportsFreeAndKeepsTheDepth) {
  CPCritSec cs("owner", 0);
  ASSERT_EQ(0, cs.enter(__LINE__));
  EXPECT_EQ(0, cs.test());
  EXPECT_EQ(0, cs.test());
  // Still held exactly once: one leave frees it for another thread.
  EXPECT_EQ(1, OnOtherThread([&] { return cs.test(); }));
  EXPECT_EQ(0, cs.leave(__LINE__));
  EXPECT_EQ(0, OnOtherThread([&] { return cs.test(); }));
  EXPECT_EQ(EPERM, cs.leave(__LINE__));
}

TEST(CritSecTest, TestByAnotherThreadReportsHeld) {
  CPCritSec cs("held", 0);
  EXPECT_EQ(0, OnOtherThread([&] { return cs.test(); }));
  ASSERT_EQ(0, cs.enter(__LINE__));
  EXPECT_EQ(1, OnOtherThread([&] { return cs.test(); }));
  cs.leave(__LINE__);
}

TEST(CritSecTest, TryEnterByTheOwnerEntersAgainAndNeedsItsOwnLeave) {
  CPCritSec cs("try", 0);
  ASSERT_EQ(1, cs.tryEnter(__LINE__));
  ASSERT_EQ(1, cs.tryEnter(__LINE__));
  EXPECT_EQ(0, cs.leave(__LINE__));
  EXPECT_EQ(1, OnOtherThread([&] { return cs.test(); }));
  EXPECT_EQ(0, cs.leave(__LINE__));
  EXPECT_EQ(0, OnOtherThread([&] { return cs.test(); }));
}

TEST(CritSecTest, LeaveByAThreadThatDoesNotHoldItReturnsEperm) {
  CPCritSec cs("eperm", 0);
  EXPECT_EQ(EPERM, cs.leave(__LINE__));
  ASSERT_EQ(0, cs.enter(__LINE__));
  EXPECT_EQ(EPERM, OnOtherThread([&] { return cs.leave(__LINE__); }));
  EXPECT_EQ(0, cs.leave(__LINE__));
}

TEST(CritSecTest, BlockedEnterProceedsWhenTheOwnerLeaves) {
  CPCritSec cs("block", 0);
  ASSERT_EQ(0, cs.enter(__LINE__));
  std::promise<void> started;
  auto waiter = std::async(std::launch::async, [&] {
    started.set_value();
    const int r = cs.enter(__LINE__);  // sleeps until the owner leaves
    cs.leave(__LINE__);
    return r;
  });
  started.get_future().wait();
  EXPECT_EQ(std::future_status::timeout,
            waiter.wait_for(std::chrono::milliseconds(50)));
  cs.leave(__LINE__);
  ASSERT_EQ(std::future_status::ready,
            waiter.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ(0, waiter.get());
}

TEST(CritSecTest, ThreadsThatIncrementUnderTheSectionLoseNoIncrement) {
  CPCritSec cs("count", 0);
  constexpr int kThreads = 4;
  constexpr int kRounds = 50000;
  long counter = 0;  // deliberately not atomic
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        cs.enter(__LINE__);
        cs.enter(__LINE__);  // recursion under contention
        counter = counter + 1;
        cs.leave(__LINE__);
        cs.leave(__LINE__);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(kThreads * kRounds, counter);
}

TEST(CritSecTest, LibrarySectionsExistFromLoadTime) {
  EXPECT_EQ(0, CWeakRefLock::ms_csWeakRefs.enter(__LINE__));
  EXPECT_EQ(0, CWeakRefLock::ms_csWeakRefs.leave(__LINE__));
  EXPECT_EQ(1, CPQoSImpl::m_critsecCPQoSImpl.tryEnter(__LINE__));
  EXPECT_EQ(0, CPQoSImpl::m_critsecCPQoSImpl.leave(__LINE__));
}

// Trace gating.

TEST(CritSecTraceTest, EnterWritesALineWhenAllowedAndHookedEvenWithoutSetTrace) {
  RecordingHook hook;
  hook.Install();
  CPCritSec cs("alpha", 1);
  cs.enter(42);
  cs.leave(43);  // leave never traces
  const auto lines = hook.Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(32u, lines[0].category);
  EXPECT_EQ(2u, lines[0].level);
  EXPECT_TRUE(LineIs(lines[0].text, "CPCritSecImpl::enter", "alpha, lineno 42\n"));
}

TEST(CritSecTraceTest, NothingIsWrittenWhenTracingIsNotAllowed) {
  RecordingHook hook;
  hook.Install();
  CPCritSec cs("quiet", 0);
  cs.setTrace(1);
  cs.enter(1);
  EXPECT_EQ(1, OnOtherThread([&] { return cs.test(); }));
  EXPECT_EQ(0, OnOtherThread([&] { return cs.tryEnter(2); }));
  cs.leave(3);
  EXPECT_TRUE(hook.Lines().empty());
}

TEST(CritSecTraceTest, NothingIsWrittenWithoutAHook) {
  RecordingHook hook;
  hook.Install();
  AmbitDebug::setTracingHelper(nullptr);
  CPCritSec cs("nohook", 1);
  cs.setTrace(1);
  cs.enter(1);
  EXPECT_EQ(0, OnOtherThread([&] { return cs.tryEnter(2); }));
  cs.leave(3);
  AmbitDebug::setTracingHelper(&hook);
  EXPECT_TRUE(hook.Lines().empty());
}

TEST(CritSecTraceTest, SetAllowTraceSwitchesTheLinesOnAndOff) {
  RecordingHook hook;
  hook.Install();
  CPCritSec cs("switch", 0);
  cs.enter(1);
  cs.leave(1);
  cs.setAllowTrace(1);
  cs.enter(2);
  cs.leave(2);
  cs.setAllowTrace(0);
  cs.enter(3);
  cs.leave(3);
  const auto texts = hook.Texts();
  ASSERT_EQ(1u, texts.size());
  EXPECT_TRUE(LineIs(texts[0], "CPCritSecImpl::enter", "switch, lineno 2\n"));
}

TEST(CritSecTraceTest, FailedTryEnterWritesALineAndSuccessfulOneDoesNot) {
  RecordingHook hook;
  hook.Install();
  CPCritSec cs("try", 1);
  EXPECT_EQ(1, cs.tryEnter(7));
  EXPECT_TRUE(hook.Lines().empty());
  EXPECT_EQ(0, OnOtherThread([&] { return cs.tryEnter(8); }));
  cs.leave(9);
  const auto lines = hook.Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(32u, lines[0].category);
  EXPECT_TRUE(LineIs(lines[0].text, "CPCritSecImpl::tryEnter", "try, lineno 8\n"));
}

TEST(CritSecTraceTest, TestLineAlwaysShowsLineNumberZero) {
  RecordingHook hook;
  hook.Install();
  CPCritSec cs("tested", 1);
  hook.Clear();
  EXPECT_EQ(0, cs.test());  // free: no line
  EXPECT_TRUE(hook.Lines().empty());
  cs.enter(1234);
  hook.Clear();
  EXPECT_EQ(1, OnOtherThread([&] { return cs.test(); }));
  cs.leave(1235);
  const auto lines = hook.Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(32u, lines[0].category);
  EXPECT_EQ(2u, lines[0].level);
  EXPECT_TRUE(LineIs(lines[0].text, "TryEnterCritSec", "tested, lineno 0\n"));
}

TEST(CritSecTraceTest, AnEmptyNamePrintsAsAnEmptyString) {
  RecordingHook hook;
  hook.Install();
  CPCritSec cs("", 1);
  cs.enter(5);
  cs.leave(5);
  const auto texts = hook.Texts();
  ASSERT_EQ(1u, texts.size());
  EXPECT_TRUE(LineIs(texts[0], "CPCritSecImpl::enter", ", lineno 5\n"));
}

TEST(CritSecTraceTest, EveryLineOfOneSectionNamesTheSameObject) {
  RecordingHook hook;
  hook.Install();
  CPCritSec a("a", 1), b("b", 1);
  a.enter(1);
  a.leave(1);
  a.enter(2);
  a.leave(2);
  b.enter(3);
  b.leave(3);
  const auto texts = hook.Texts();
  ASSERT_EQ(3u, texts.size());
  auto pointerOf = [](const std::string& s) {
    return s.substr(s.find('('), s.find(')') - s.find('('));
  };
  EXPECT_EQ(pointerOf(texts[0]), pointerOf(texts[1]));
  EXPECT_NE(pointerOf(texts[0]), pointerOf(texts[2]));
}

}  // namespace

namespace {

// A section left entered by a thread that ended stays entered, as a
// pthread recursive mutex does: a new thread (which may reuse the dead
// thread's stack) is not its owner.
TEST(CritSecTest, ASectionLeftEnteredByAnEndedThreadIsNotEnteredByANewOne) {
  CPCritSec cs("orphan", 0);
  std::thread([&] { cs.enter(__LINE__); }).join();
  for (int i = 0; i < 20; ++i) {
    int entered = -1;
    std::thread([&] { entered = cs.tryEnter(__LINE__); }).join();
    ASSERT_EQ(0, entered) << "round " << i;
  }
}

// The child of fork() has a new thread id: a section the parent's thread
// held is not the child's.
TEST(CritSecTest, TheChildOfForkDoesNotOwnTheParentsSection) {
  CPCritSec cs("forked", 0);
  ASSERT_EQ(0, cs.enter(__LINE__));
  const pid_t child = fork();
  if (child == 0) _exit(cs.tryEnter(__LINE__) == 0 && cs.test() == 1 ? 0 : 1);
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  cs.leave(__LINE__);
}

}  // namespace

// Threads: the start handshake, kernel names, joins with their results,
// cancel and end, and the thread objects with their stop-event protocol.
#include "ambit/thread.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ambit/event.h"
#include "ambit/exception.h"
#include "ambit/portable.h"
#include "gtest/gtest.h"
#include "support/handshake.h"
#include "support/log_capture.h"
#include "support/recording_hook.h"

namespace {

constexpr unsigned long kTimeout = 0xE0000000UL;
constexpr unsigned long kFailed = 0xD0000000UL;
constexpr unsigned long kInfinite = 0xFFFFFFFFUL;
constexpr unsigned long kStopBits = 0x8000000UL;

using Clock = std::chrono::steady_clock;

long MsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

std::string KernelName() {
  char name[17] = {};
  ::prctl(PR_GET_NAME, name, 0, 0, 0);
  return name;
}

void SetKernelName(const std::string& name) { ::prctl(PR_SET_NAME, name.c_str(), 0, 0, 0); }

// Runs fn on a fresh std::thread whose kernel name is first set to
// `startName`, so that the test thread's own name is never changed.
template <typename Fn>
void OnThreadNamed(const std::string& startName, Fn fn) {
  std::thread t([&] {
    SetKernelName(startName);
    fn();
  });
  t.join();
}

// What a started thread saw, and a gate that keeps it alive.
struct Probe {
  std::atomic<unsigned long> tid{0};
  std::string name;
  Handshake entered;  // the thread signals once it runs the function
  Handshake release;  // the thread waits (bounded) on this before it returns
  Handshake done;     // its last touch of the probe: then the probe may go
  int holdMs = 5000;
};

void ProbeFunction(void* raw) {
  Probe* probe = static_cast<Probe*>(raw);
  probe->name = KernelName();
  probe->tid = CPortable::GetCurrentThreadId();
  probe->entered.Signal();
  probe->release.WaitFor(probe->holdMs);
  probe->done.Signal();
}

// Lets a detached probe thread end and waits until it no longer uses the
// probe.
void Finish(Probe& probe) {
  probe.release.Signal();
  EXPECT_TRUE(probe.done.WaitFor(5000));
}

// Joins a thread handle with a bound and gives its exit value.
bool JoinWithin(unsigned long handle, int nTimeoutMs, void** exitValue) {
  timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += nTimeoutMs / 1000;
  deadline.tv_nsec += (nTimeoutMs % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_nsec -= 1000000000L;
    deadline.tv_sec += 1;
  }
  return pthread_timedjoin_np(static_cast<pthread_t>(handle), exitValue, &deadline) == 0;
}

// Lines of the hook with this exact text.
int Count(const std::vector<RecordingHook::Line>& lines, const std::string& text) {
  int n = 0;
  for (const RecordingHook::Line& l : lines) n += l.text == text;
  return n;
}

// The line with this text has the category (and exists).
::testing::AssertionResult LineHasCategory(const std::vector<RecordingHook::Line>& lines,
                                           const std::string& text, unsigned long category) {
  for (const RecordingHook::Line& l : lines)
    if (l.text == text) {
      if (l.category == category) return ::testing::AssertionSuccess();
      return ::testing::AssertionFailure()
             << "\"" << text << "\" has category " << l.category << ", expected " << category;
    }
  ::testing::AssertionResult failure = ::testing::AssertionFailure();
  failure << "no line \"" << text << "\"; lines were:";
  for (const RecordingHook::Line& l : lines) failure << "\n  [" << l.category << "] " << l.text;
  return failure;
}

// Index of the first line with this text, or -1.
int IndexOf(const std::vector<RecordingHook::Line>& lines, const std::string& text) {
  for (size_t i = 0; i < lines.size(); ++i)
    if (lines[i].text == text) return static_cast<int>(i);
  return -1;
}

// --- CreateThread ----------------------------------------------------------------

TEST(CreateThreadTest, ReturnsTheNewThreadsKernelIdOnceItRuns) {
  Probe probe;
  unsigned long handle = 12345;
  const unsigned long id = CPortable::CreateThread(&ProbeFunction, &probe, &handle, "probe");
  ASSERT_TRUE(probe.entered.WaitFor(5000));
  EXPECT_NE(0UL, id);
  EXPECT_EQ(probe.tid.load(), id);
  EXPECT_NE(CPortable::GetCurrentThreadId(), id);
  EXPECT_NE(0UL, handle);
  EXPECT_NE(12345UL, handle);
  Finish(probe);
}

TEST(CreateThreadTest, ThreadIsNamedBeforeTheCreatorGetsItsId) {
  Probe probe;
  std::string comm;
  OnThreadNamed("server", [&] {
    const unsigned long id = CPortable::CreateThread(&ProbeFunction, &probe, nullptr, "worker");
    // Read at once, without waiting for the thread: it already has its name.
    comm = ReadFile("/proc/self/task/" + std::to_string(id) + "/comm");
  });
  EXPECT_EQ("ser.worker\n", comm);
  ASSERT_TRUE(probe.entered.WaitFor(5000));
  EXPECT_EQ("ser.worker", probe.name);
  Finish(probe);
}

TEST(CreateThreadTest, EmptyNameKeepsTheInheritedKernelName) {
  Probe probe;
  OnThreadNamed("server", [&] {
    CPortable::CreateThread(&ProbeFunction, &probe, nullptr, "");
  });
  ASSERT_TRUE(probe.entered.WaitFor(5000));
  EXPECT_EQ("server", probe.name);
  Finish(probe);
}

TEST(CreateThreadTest, NullHandlePointerIsAllowed) {
  Probe probe;
  EXPECT_NE(0UL, CPortable::CreateThread(&ProbeFunction, &probe, nullptr, ""));
  ASSERT_TRUE(probe.entered.WaitFor(5000));
  Finish(probe);
}

// When pthread_create fails: 0, a zero handle, one line on the log, and
// the thread objects report the start failure.
class CreateFailureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, pthread_getattr_default_np(&m_saved));
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    // More stack than a 32-bit process can map: every create fails.
    pthread_attr_setstacksize(&huge, 0xC0000000UL);
    ASSERT_EQ(0, pthread_setattr_default_np(&huge));
    pthread_attr_destroy(&huge);
  }
  void TearDown() override {
    pthread_setattr_default_np(&m_saved);
    pthread_attr_destroy(&m_saved);
  }
  pthread_attr_t m_saved;
};

TEST_F(CreateFailureTest, CreateThreadReturnsZeroAndLogsTheError) {
  LogCapture log;
  Probe probe;
  unsigned long handle = 77;
  EXPECT_EQ(0UL, CPortable::CreateThread(&ProbeFunction, &probe, &handle, "never"));
  EXPECT_EQ(0UL, handle);
  EXPECT_EQ(0UL, CPortable::CreateThreadJoinable(&ProbeFunction, &probe, &handle, "never"));
  EXPECT_EQ(0UL, handle);
  int found = 0;
  for (const std::string& line : log.Lines())
    found += line == "(Error) CPortable::CreateThread, pthread_create failed - 0x8010000B";
  EXPECT_EQ(2, found);  // EAGAIN (11) in the low bits
}

TEST_F(CreateFailureTest, CPThreadThrowsTheStartError) {
  Probe probe;
  long code = 0;
  try {
    CPThread thread("never", &ProbeFunction, &probe, nullptr);
  } catch (const QKException& e) {
    code = e.code;
  }
  EXPECT_EQ(static_cast<long>(0xC1210E15UL), code);
}

TEST_F(CreateFailureTest, CPThreadExInitializeReturnsTheStartErrorAndStaysEmpty) {
  Probe probe;
  CPThreadEx thread;
  EXPECT_EQ(0xC1210E15UL, thread.Initialize("never", &ProbeFunction, &probe, nullptr));
  EXPECT_EQ(0UL, thread.getID());
  EXPECT_EQ(0, thread.IsRunning());
  EXPECT_EQ(0UL, thread.Finalize());
}

// --- Naming --------------------------------------------------------------------

TEST(ThreadNameTest, PrefixIsTheOldNameUpToItsDotCutToThreeCharacters) {
  std::string name;
  OnThreadNamed("abcdef.old", [&] {
    EXPECT_EQ(0, CPortable::SetCurrentThreadName("x"));
    name = KernelName();
  });
  EXPECT_EQ("abc.x", name);
}

TEST(ThreadNameTest, ShortOldNameIsKeptWhole) {
  std::string name;
  OnThreadNamed("ab", [&] {
    CPortable::SetCurrentThreadName("x");
    name = KernelName();
  });
  EXPECT_EQ("ab.x", name);
}

TEST(ThreadNameTest, OldNameStartingWithADotGivesAnEmptyPrefix) {
  std::string name;
  OnThreadNamed(".hidden", [&] {
    CPortable::SetCurrentThreadName("x");
    name = KernelName();
  });
  EXPECT_EQ(".x", name);
}

TEST(ThreadNameTest, KernelKeepsFifteenCharacters) {
  std::string name;
  OnThreadNamed("server", [&] {
    CPortable::SetCurrentThreadName("averyveryverylongname");
    name = KernelName();
  });
  EXPECT_EQ("ser.averyveryve", name);
  EXPECT_EQ(15u, name.size());
}

TEST(ThreadNameTest, NamingTwiceDoesNotStackPrefixes) {
  std::string name;
  OnThreadNamed("server", [&] {
    CPortable::SetCurrentThreadName("one");
    CPortable::SetCurrentThreadName("two");
    name = KernelName();
  });
  EXPECT_EQ("ser.two", name);
}

TEST(ThreadNameTest, EmptyNameChangesNothingAndReturnsZero) {
  std::string name;
  OnThreadNamed("server", [&] {
    EXPECT_EQ(0, CPortable::SetCurrentThreadName(""));
    name = KernelName();
  });
  EXPECT_EQ("server", name);
}

TEST(ThreadNameTest, PriorityIsAcceptedAndIgnored) {
  for (int p : {-15, -1, 0, 1, 2, 15, 1000})
    EXPECT_EQ(0, CPortable::SetCurrentThreadPriority(static_cast<E_QK_THREAD_PRIORITY>(p)));
}

// --- Joining, cancelling, ending ------------------------------------------------

TEST(WaitForThreadTest, ZeroTimeoutOnARunningThreadTimesOut) {
  Probe probe;
  unsigned long handle = 0;
  ASSERT_NE(0UL, CPortable::CreateThreadJoinable(&ProbeFunction, &probe, &handle, "join"));
  ASSERT_TRUE(probe.entered.WaitFor(5000));
  EXPECT_EQ(kTimeout, CPortable::WaitForThreadToTerminate(handle, 0));
  probe.release.Signal();
  EXPECT_EQ(0UL, CPortable::WaitForThreadToTerminate(handle, kInfinite));
}

TEST(WaitForThreadTest, ExpiredTimedJoinReportsFailureNotTimeOut) {
  Probe probe;
  probe.holdMs = 1000;  // runs for a second unless released
  unsigned long handle = 0;
  ASSERT_NE(0UL, CPortable::CreateThreadJoinable(&ProbeFunction, &probe, &handle, "join"));
  ASSERT_TRUE(probe.entered.WaitFor(5000));
  const auto start = Clock::now();
  EXPECT_EQ(kFailed, CPortable::WaitForThreadToTerminate(handle, 100));
  const long elapsed = MsSince(start);
  EXPECT_GE(elapsed, 90);
  EXPECT_LT(elapsed, 900);
  EXPECT_EQ(0UL, CPortable::WaitForThreadToTerminate(handle, kInfinite));
  EXPECT_GE(MsSince(start), 900);  // it really ran its second
}

TEST(WaitForThreadTest, TimedJoinOfAThreadThatEndsInTimeReturnsZero) {
  Probe probe;
  unsigned long handle = 0;
  ASSERT_NE(0UL, CPortable::CreateThreadJoinable(&ProbeFunction, &probe, &handle, "join"));
  ASSERT_TRUE(probe.entered.WaitFor(5000));
  probe.release.Signal();
  EXPECT_EQ(0UL, CPortable::WaitForThreadToTerminate(handle, 5000));
}

TEST(WaitForThreadTest, TimedJoinWithAFractionOfASecondReturnsZero) {
  Probe probe;
  unsigned long handle = 0;
  ASSERT_NE(0UL, CPortable::CreateThreadJoinable(&ProbeFunction, &probe, &handle, "join"));
  ASSERT_TRUE(probe.entered.WaitFor(5000));
  probe.release.Signal();
  EXPECT_EQ(0UL, CPortable::WaitForThreadToTerminate(handle, 1999));
}

TEST(WaitForThreadTest, ZeroTimeoutOnAnEndedThreadReturnsZero) {
  Probe probe;
  unsigned long handle = 0;
  ASSERT_NE(0UL, CPortable::CreateThreadJoinable(&ProbeFunction, &probe, &handle, "join"));
  ASSERT_TRUE(probe.entered.WaitFor(5000));
  probe.release.Signal();
  const auto end = Clock::now() + std::chrono::seconds(5);
  unsigned long r = kTimeout;
  while ((r = CPortable::WaitForThreadToTerminate(handle, 0)) == kTimeout && Clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(0UL, r);
}

void BlockForever(void*) {
  for (;;) ::pause();  // a cancellation point
}

TEST(TerminateThreadTest, ReturnsOneAndCancelsTheThread) {
  unsigned long handle = 0;
  ASSERT_NE(0UL, CPortable::CreateThreadJoinable(&BlockForever, nullptr, &handle, "victim"));
  EXPECT_EQ(1, CPortable::TerminateThread(handle, 42));
  void* exitValue = nullptr;
  ASSERT_TRUE(JoinWithin(handle, 5000, &exitValue));
  EXPECT_EQ(PTHREAD_CANCELED, exitValue);  // the exit code is ignored
}

void EndWith1234(void* reached) {
  CPortable::EndThread(0x1234);
  *static_cast<bool*>(reached) = true;  // never runs
}

TEST(EndThreadTest, ExitValueIsTheExitCode) {
  bool reached = false;
  unsigned long handle = 0;
  ASSERT_NE(0UL, CPortable::CreateThreadJoinable(&EndWith1234, &reached, &handle, "ender"));
  void* exitValue = nullptr;
  ASSERT_TRUE(JoinWithin(handle, 5000, &exitValue));
  EXPECT_EQ(reinterpret_cast<void*>(0x1234), exitValue);
  EXPECT_FALSE(reached);
}

void ReturnAtOnce(void*) {}

TEST(EndThreadTest, ThreadThatReturnsEndsWithNull) {
  unsigned long handle = 0;
  ASSERT_NE(0UL, CPortable::CreateThreadJoinable(&ReturnAtOnce, nullptr, &handle, "plain"));
  void* exitValue = reinterpret_cast<void*>(1);
  ASSERT_TRUE(JoinWithin(handle, 5000, &exitValue));
  EXPECT_EQ(nullptr, exitValue);
}

// --- CPThread ------------------------------------------------------------------

// A start function that waits on the stop event until it has seen
// `stopsWanted` stop wakes (bounded), as real start functions do.
struct Worker {
  CPEvent* stop = nullptr;
  int stopsWanted = 1;
  std::atomic<unsigned long> tid{0};
  std::string name;
  std::vector<unsigned long> results;
  Handshake entered;
};

void WorkerFunction(void* raw) {
  Worker* w = static_cast<Worker*>(raw);
  w->tid = CPortable::GetCurrentThreadId();
  w->name = KernelName();
  w->entered.Signal();
  int stops = 0;
  while (stops < w->stopsWanted) {
    const unsigned long r = w->stop->wait(5000, nullptr);
    w->results.push_back(r);
    if (r == kStopBits) ++stops;
    if (r == kTimeout) break;  // never told: give up rather than hang
  }
}

TEST(CPThreadTest, StopEventStopsTheFunctionAndTheLinesTellTheStory) {
  RecordingHook hook;
  hook.Install();
  CPEvent stop(1, "", 0);
  Worker worker;
  worker.stop = &stop;
  std::string name;
  {
    std::unique_ptr<CPThread> thread;
    OnThreadNamed("server", [&] {
      thread.reset(new CPThread("obj", &WorkerFunction, &worker, &stop));
    });
    ASSERT_TRUE(worker.entered.WaitFor(5000));
    EXPECT_EQ(worker.tid.load(), thread->getID());
    const auto start = Clock::now();
    thread.reset();  // wakes the stop event and waits for the function
    EXPECT_LT(MsSince(start), 1000);
  }
  EXPECT_EQ("ser.obj", worker.name);
  ASSERT_EQ(1u, worker.results.size());
  EXPECT_EQ(kStopBits, worker.results[0]);
  const auto lines = hook.Lines();
  EXPECT_EQ(2, Count(lines, "CPThread::CPThread obj\n"));  // the destructor repeats it
  EXPECT_TRUE(LineHasCategory(lines, "CPThread::CPThread obj\n", 16));
  EXPECT_TRUE(LineHasCategory(lines, "obj - starting\n", 16));
  EXPECT_TRUE(LineHasCategory(lines, "obj - stopping\n", 16));
  EXPECT_EQ(0, Count(lines, "obj NULL Pointer Can't send Signal\n"));
  EXPECT_LT(IndexOf(lines, "obj - starting\n"), IndexOf(lines, "obj - stopping\n"));
}

TEST(CPThreadTest, StopIsRepeatedEveryPollUntilTheFunctionListens) {
  RecordingHook hook;
  hook.Install();
  CPEvent stop(1, "", 0);
  Worker worker;
  worker.stop = &stop;
  worker.stopsWanted = 3;  // ignores the first two stop wakes
  {
    CPThread thread("deaf", &WorkerFunction, &worker, &stop);
    ASSERT_TRUE(worker.entered.WaitFor(5000));
  }
  ASSERT_EQ(3u, worker.results.size());
  for (unsigned long r : worker.results) EXPECT_EQ(kStopBits, r);
  const auto lines = hook.Lines();
  EXPECT_GE(Count(lines, "deaf Sending Signal\n"), 2);
  EXPECT_TRUE(LineHasCategory(lines, "deaf Sending Signal\n", 16));
}

void ReturnWhenReleased(void* raw) { static_cast<Handshake*>(raw)->WaitFor(5000); }

TEST(CPThreadTest, NullStopEventIsTracedAndTheDestructorPollsUntilTheFunctionReturns) {
  RecordingHook hook;
  hook.Install();
  Handshake release;
  auto thread = std::make_unique<CPThread>("nostop", &ReturnWhenReleased, &release, nullptr);
  // Let the function go 300 ms after the destructor started waiting.
  std::thread releaser([&] {
    const auto end = Clock::now() + std::chrono::seconds(5);
    while (Count(hook.Lines(), "nostop NULL Pointer Can't send Signal\n") == 0 &&
           Clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    release.Signal();
  });
  const auto start = Clock::now();
  thread.reset();
  const long elapsed = MsSince(start);
  releaser.join();
  // Polled at 200 ms steps: still running at 200, gone by 400 (or so).
  EXPECT_GE(elapsed, 390);
  EXPECT_LT(elapsed, 1500);
  const auto lines = hook.Lines();
  EXPECT_TRUE(LineHasCategory(lines, "nostop NULL Pointer Can't send Signal\n", 16));
  EXPECT_EQ(0, Count(lines, "nostop Sending Signal\n"));
  EXPECT_EQ(1, Count(lines, "nostop - stopping\n"));
}

void Throw(void*) { throw std::runtime_error("boom"); }

TEST(CPThreadTest, FunctionThatThrowsIsTracedAndStillStops) {
  RecordingHook hook;
  hook.Install();
  {
    CPThread thread("thrower", &Throw, nullptr, nullptr);
  }  // returns: the function has ended, by its exception
  const auto lines = hook.Lines();
  EXPECT_TRUE(LineHasCategory(lines, "(Error) thrower - had an exception\n", 4));
  EXPECT_TRUE(LineHasCategory(lines, "thrower - stopping\n", 16));
  EXPECT_LT(IndexOf(lines, "(Error) thrower - had an exception\n"),
            IndexOf(lines, "thrower - stopping\n"));
}

TEST(CPThreadTest, AFunctionsExceptionIsTracedAsAnErrorLine) {
  RecordingHook hook;
  hook.Install();
  {
    CPThread thread("leveled", &Throw, nullptr, nullptr);
  }
  int found = 0;
  for (const RecordingHook::Line& l : hook.Lines())
    if (l.text == "(Error) leveled - had an exception\n") {
      ++found;
      EXPECT_EQ(4u, l.category);
      EXPECT_EQ(64u, l.level);
    }
  EXPECT_EQ(1, found);
}

TEST(CPThreadTest, NoLinesWithoutAHook) {
  RecordingHook hook;
  hook.Install();
  AmbitDebug::setTracingHelper(nullptr);
  {
    CPThread thread("quiet", &Throw, nullptr, nullptr);
  }
  hook.Install();
  EXPECT_TRUE(hook.Texts().empty());
}

// --- CPThreadEx ----------------------------------------------------------------

bool WaitUntilStopped(CPThreadEx& thread, int nTimeoutMs) {
  const auto end = Clock::now() + std::chrono::milliseconds(nTimeoutMs);
  while (thread.IsRunning() != 0) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

TEST(CPThreadExTest, UninitializedObjectReportsZero) {
  CPThreadEx thread;
  EXPECT_EQ(0UL, thread.getID());
  EXPECT_EQ(0, thread.IsRunning());
  EXPECT_EQ(0UL, thread.Finalize());
  EXPECT_EQ(0UL, thread.Finalize());
}

TEST(CPThreadExTest, InitializeRunsTheFunctionAndFinalizeWakesTheStopEvent) {
  CPEvent stop(1, "", 0);
  Worker worker;
  worker.stop = &stop;
  CPThreadEx thread;
  ASSERT_EQ(0UL, thread.Initialize("ex", &WorkerFunction, &worker, &stop));
  ASSERT_TRUE(worker.entered.WaitFor(5000));
  EXPECT_EQ(worker.tid.load(), thread.getID());
  EXPECT_EQ(1, thread.IsRunning());
  // A second Initialize changes nothing and starts no thread.
  Worker other;
  EXPECT_EQ(0UL, thread.Initialize("ex2", &WorkerFunction, &other, &stop));
  EXPECT_EQ(worker.tid.load(), thread.getID());
  EXPECT_FALSE(other.entered.WaitFor(100));
  // The caller stops the function and waits for it before finalising.
  stop.wake(kStopBits);
  ASSERT_TRUE(WaitUntilStopped(thread, 5000));
  EXPECT_EQ(0UL, thread.Finalize());
  EXPECT_EQ(kStopBits, stop.wait(0, nullptr));  // Finalize's own wake
  EXPECT_EQ(0UL, thread.getID());
  EXPECT_EQ(0, thread.IsRunning());
}

TEST(CPThreadExTest, CanBeInitializedAgainAfterFinalize) {
  CPEvent stop(1, "", 0);
  CPThreadEx thread;
  for (int round = 0; round < 2; ++round) {
    Worker worker;
    worker.stop = &stop;
    ASSERT_EQ(0UL, thread.Initialize("again", &WorkerFunction, &worker, &stop));
    ASSERT_TRUE(worker.entered.WaitFor(5000));
    EXPECT_EQ(worker.tid.load(), thread.getID());
    stop.wake(kStopBits);
    ASSERT_TRUE(WaitUntilStopped(thread, 5000));
    EXPECT_EQ(0UL, thread.Finalize());
    stop.wait(0, nullptr);  // drop Finalize's wake
  }
}

TEST(CPThreadExTest, FunctionThatThrowsEndsRunning) {
  RecordingHook hook;
  hook.Install();
  CPThreadEx thread;
  ASSERT_EQ(0UL, thread.Initialize("exthrow", &Throw, nullptr, nullptr));
  // running is 0 until the new thread sets it, so IsRunning() alone cannot
  // tell "not started yet" from "ended": wait for the stopping line first.
  const auto end = Clock::now() + std::chrono::seconds(5);
  while (Count(hook.Lines(), "exthrow - stopping\n") == 0 && Clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_TRUE(WaitUntilStopped(thread, 5000));
  EXPECT_EQ(0UL, thread.Finalize());  // null stop event: nothing to wake
  const auto lines = hook.Lines();
  EXPECT_TRUE(LineHasCategory(lines, "exthrow - starting\n", 16));
  EXPECT_TRUE(LineHasCategory(lines, "(Error) exthrow - had an exception\n", 4));
  EXPECT_TRUE(LineHasCategory(lines, "exthrow - stopping\n", 16));
  EXPECT_EQ(0, Count(lines, "CPThread::CPThread exthrow\n"));
}

}  // namespace

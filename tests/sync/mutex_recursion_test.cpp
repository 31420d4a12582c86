#include "sync/mutex_recursion.h"

#include <pthread.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <future>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "ambit/exception.h"
#include "ambit/portable.h"
#include "gtest/gtest.h"
#include "support/forked_child.h"
#include "support/handshake.h"
#include "support/log_capture.h"
#include "support/recording_hook.h"
#include "support/unique_name.h"
#include "sync/mutex_globals.h"

// The nothrow allocation of this program, with a switch to make the n-th
// call of the current thread fail. The library allocates its locks with it,
// so the allocation failure paths can be reached.
namespace {
thread_local int t_failNthNothrowNew = 0;  // 0: never fail
}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (t_failNthNothrowNew > 0 && --t_failNthNothrowNew == 0) return nullptr;
  try {
    return ::operator new(size);  // so that plain delete matches
  } catch (...) {
    return nullptr;
  }
}

// Outside the address sanitizer, whose leak check covers the same ground,
// the deallocation of this program notes what the current thread gives back
// while asked to, so that a test can see an object destroyed.
namespace {
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kNotesFrees = false;
#else
constexpr bool kNotesFrees = true;
#endif
thread_local bool t_noteFrees = false;
thread_local void* t_freed[32];
thread_local int t_nFreed = 0;

// Notes the current thread's deallocations for its lifetime.
class FreeNotes {
 public:
  FreeNotes() {
    t_nFreed = 0;
    t_noteFrees = true;
  }
  ~FreeNotes() { t_noteFrees = false; }
  bool Freed(const void* p) const {
    for (int i = 0; i < t_nFreed; ++i)
      if (t_freed[i] == p) return true;
    return false;
  }
};
}  // namespace

#if !defined(__SANITIZE_ADDRESS__)
void operator delete(void* p) noexcept {
  if (t_noteFrees && p != nullptr && t_nFreed < 32) t_freed[t_nFreed++] = p;
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept { ::operator delete(p); }
#endif

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kWaitMs = 5000;  // bound of every wait that should succeed
constexpr int kQuietMs = 250;  // how long "still blocked" is watched

// A process-shared pthread mutex, of the default (non-recursive) type unless
// asked otherwise, and a counter beside it, in an anonymous shared mapping:
// a child forked after construction works on the same ones.
class SharedMutex {
 public:
  explicit SharedMutex(int type = PTHREAD_MUTEX_DEFAULT) {
    void* p = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return;
    m_pShared = static_cast<Shared*>(p);
    pthread_mutexattr_t attr;
    ::pthread_mutexattr_init(&attr);
    ::pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    ::pthread_mutexattr_settype(&attr, type);
    m_ok = ::pthread_mutex_init(&m_pShared->mutex, &attr) == 0;
    ::pthread_mutexattr_destroy(&attr);
    m_pShared->counter = 0;
  }
  ~SharedMutex() {
    if (m_pShared == nullptr) return;
    if (m_ok) ::pthread_mutex_destroy(&m_pShared->mutex);
    ::munmap(m_pShared, sizeof(Shared));
  }
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  bool Ok() const { return m_ok; }
  pthread_mutex_t* Get() { return &m_pShared->mutex; }
  volatile int& Counter() { return m_pShared->counter; }

  // The mutex's futex word as glibc keeps it: 0 free, 1 locked, 2 locked
  // with a thread asleep in it.
  int LockWord() const {
    return __atomic_load_n(&m_pShared->mutex.__data.__lock, __ATOMIC_SEQ_CST);
  }

  // pthread_mutex_trylock in a child process (unlocked there at once when
  // it succeeds): 0, EBUSY, or -1 when the child did not report.
  int TryLockFromAnotherProcess() {
    pthread_mutex_t* mutex = Get();
    ForkedChild child([mutex] {
      const int r = ::pthread_mutex_trylock(mutex);
      if (r == 0) ::pthread_mutex_unlock(mutex);
      return r;
    });
    return child.Started() ? child.Join(kWaitMs) : -1;
  }

 private:
  struct Shared {
    pthread_mutex_t mutex;
    volatile int counter;
  };
  Shared* m_pShared = nullptr;
  bool m_ok = false;
};

// One use of the process's record for name, given back at the end.
class RecordUse {
 public:
  explicit RecordUse(const std::string& name)
      : m_name(name), m_pRecord(get_mutexRecursionHelper()->add(name)) {}
  ~RecordUse() { get_mutexRecursionHelper()->del(m_name); }
  RecordUse(const RecordUse&) = delete;
  RecordUse& operator=(const RecordUse&) = delete;

  CPMutexRecursive* operator->() const { return m_pRecord; }
  CPMutexRecursive* Get() const { return m_pRecord; }

 private:
  std::string m_name;
  CPMutexRecursive* m_pRecord;
};

int Tid() { return static_cast<int>(CPortable::GetCurrentThreadId()); }

timespec RealtimeAfter(int ms) {
  timespec t;
  ::clock_gettime(CLOCK_REALTIME, &t);
  long long ns = t.tv_nsec + static_cast<long long>(ms) * 1000000LL;
  long long sec = ns / 1000000000LL;
  ns %= 1000000000LL;
  if (ns < 0) {  // a time in the past
    ns += 1000000000LL;
    --sec;
  }
  t.tv_sec += static_cast<time_t>(sec);
  t.tv_nsec = static_cast<long>(ns);
  return t;
}

// Runs fn on another thread and returns its result; for calls that do not
// block.
template <typename Fn>
auto OnOtherThread(Fn fn) -> decltype(fn()) {
  return std::async(std::launch::async, fn).get();
}

std::string Format(const char* format, const void* p, int n = 0) {
  char buffer[256];
  std::snprintf(buffer, sizeof buffer, format, p, n);
  return buffer;
}

// The gate's (or the helper lock's) entry line, whatever the address of
// the critical section's implementation.
::testing::AssertionResult IsEnterLine(const RecordingHook::Line& line,
                                       const std::string& section,
                                       long lineNo) {
  const std::string head = "CPCritSecImpl::enter (";
  const std::string tail =
      ") " + section + ", lineno " + std::to_string(lineNo) + "\n";
  const std::string& t = line.text;
  if (line.category == 32 && line.level == 2 && t.size() > head.size() + tail.size() &&
      t.compare(0, head.size(), head) == 0 &&
      t.compare(t.size() - tail.size(), tail.size(), tail) == 0)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "expected (32, 2) \"" << head << "<pointer>" << tail
         << "\", got (" << line.category << ", " << line.level << ") \"" << t
         << "\"";
}

::testing::AssertionResult IsLine(const RecordingHook::Line& line,
                                  unsigned long category,
                                  const std::string& text) {
  if (line.category == category && line.level == 2 && line.text == text)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "expected (" << category << ", 2) \"" << text << "\", got ("
         << line.category << ", " << line.level << ") \"" << line.text << "\"";
}

// Waits until pred holds, at most ms.
bool Eventually(const std::function<bool()>& pred, int ms = kWaitMs) {
  const auto end = Clock::now() + std::chrono::milliseconds(ms);
  while (!pred()) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Holds for the whole of ms.
bool Throughout(const std::function<bool()>& pred, int ms = kQuietMs) {
  const auto end = Clock::now() + std::chrono::milliseconds(ms);
  while (Clock::now() < end) {
    if (!pred()) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return pred();
}

size_t CountEnterLines(const RecordingHook& hook, const std::string& section,
                       long lineNo) {
  size_t n = 0;
  for (const RecordingHook::Line& l : hook.Lines())
    if (IsEnterLine(l, section, lineNo)) ++n;
  return n;
}

size_t CountText(const RecordingHook& hook, const std::string& text) {
  size_t n = 0;
  for (const std::string& t : hook.Texts())
    if (t == text) ++n;
  return n;
}

// --- The table of records ---------------------------------------------------

TEST(MutexRecursionHelperTest, GetReturnsOneHelperForTheWholeProcess) {
  CPMutexRecursionHelper* helper = get_mutexRecursionHelper();
  ASSERT_NE(nullptr, helper);
  EXPECT_EQ(helper, g_pmutexRecursionHelper);
  EXPECT_EQ(helper, get_mutexRecursionHelper());
  EXPECT_EQ(helper, OnOtherThread([] { return get_mutexRecursionHelper(); }));
  EXPECT_NE(nullptr, helper->m_pLock);
}

TEST(MutexRecursionHelperTest, AddMakesAFreeRecordWithOneUser) {
  const std::string name = UniqueName("recmutex");
  RecordUse record(name);
  ASSERT_NE(nullptr, record.Get());
  EXPECT_EQ(1, record->m_useCount);
  EXPECT_NE(nullptr, record->m_pGate);
  EXPECT_EQ(0, record->m_count);
  EXPECT_EQ(0, record->m_ownerThread);
  EXPECT_EQ(1u, get_mutexRecursionHelper()->m_records.count(name));
}

TEST(MutexRecursionHelperTest, TwoUsersOfOneNameShareOneRecord) {
  const std::string name = UniqueName("recmutex");
  RecordUse first(name);
  RecordUse second(name);
  EXPECT_EQ(first.Get(), second.Get());
  EXPECT_EQ(2, first->m_useCount);
  RecordUse other(name + "-other");
  EXPECT_NE(first.Get(), other.Get());
  EXPECT_EQ(1, other->m_useCount);
}

TEST(MutexRecursionHelperTest, NamesAreComparedByteByByte) {
  const std::string name = UniqueName("recmutex");
  RecordUse lower(name + "-abc");
  RecordUse upper(name + "-ABC");
  RecordUse blank(name + "-abc ");
  RecordUse high(name + "-abc\xC3\xA9");
  EXPECT_NE(lower.Get(), upper.Get());
  EXPECT_NE(lower.Get(), blank.Get());
  EXPECT_NE(lower.Get(), high.Get());
  EXPECT_EQ(1, lower->m_useCount);
  EXPECT_EQ(1, upper->m_useCount);
}

TEST(MutexRecursionHelperTest, DelDestroysTheRecordWhenItsLastUserGoes) {
  const std::string name = UniqueName("recmutex");
  CPMutexRecursionHelper* helper = get_mutexRecursionHelper();
  CPMutexRecursive* record = helper->add(name);
  ASSERT_EQ(record, helper->add(name));
  helper->del(name);
  ASSERT_EQ(1u, helper->m_records.count(name));
  EXPECT_EQ(1, record->m_useCount);
  EXPECT_EQ(record, helper->m_records[name]);
  const CPCritSec* gate = record->m_pGate;
  {
    FreeNotes notes;
    helper->del(name);
    if (kNotesFrees) {
      EXPECT_TRUE(notes.Freed(record)) << "record not deleted";
      EXPECT_TRUE(notes.Freed(gate)) << "gate not deleted";
    }
  }
  EXPECT_EQ(0u, helper->m_records.count(name));
  // A later add starts afresh.
  CPMutexRecursive* again = helper->add(name);
  EXPECT_EQ(1, again->m_useCount);
  EXPECT_EQ(0, again->m_count);
  helper->del(name);
  EXPECT_EQ(0u, helper->m_records.count(name));
}

TEST(MutexRecursionHelperTest, DelOfAnUnknownNameIsIgnored) {
  const std::string name = UniqueName("recmutex");
  CPMutexRecursionHelper* helper = get_mutexRecursionHelper();
  RecordUse record(name);
  const size_t before = helper->m_records.size();
  helper->del(name + "-unknown");
  helper->del("");
  EXPECT_EQ(before, helper->m_records.size());
  EXPECT_EQ(0u, helper->m_records.count(name + "-unknown"));
  EXPECT_EQ(1, record->m_useCount);
}

TEST(MutexRecursionHelperTest, AddAndDelEnterTheHelperLockWithTheirLineNumbers) {
  const std::string name = UniqueName("recmutex");
  RecordingHook hook;
  hook.Install();
  CPMutexRecursionHelper* helper = get_mutexRecursionHelper();
  helper->add(name);
  helper->del(name);
  const std::vector<RecordingHook::Line> lines = hook.Lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_TRUE(IsEnterLine(lines[0], "CPMutexRecursiveHelper", 4588));
  EXPECT_TRUE(IsEnterLine(lines[1], "CPMutexRecursiveHelper", 4616));
}

TEST(MutexRecursionHelperTest, DestructorForgetsTheTableButKeepsRecordsAndLock) {
  const std::string name = UniqueName("recmutex");
  auto* helper = new CPMutexRecursionHelper();
  CPMutexRecursive* record = helper->add(name);
  CPCritSec* lock = helper->m_pLock;
  delete helper;
  // Both still work (a freed one would trip the address sanitizer, or fail).
  EXPECT_EQ(0, lock->enter(__LINE__));
  EXPECT_EQ(0, lock->leave(__LINE__));
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  EXPECT_EQ(1, record->m_useCount);
  EXPECT_EQ(0, record->lock(shared.Get()));
  EXPECT_EQ(0, record->release(shared.Get()));
  delete record;
  delete lock;
}

TEST(MutexRecursionHelperTest, GateAllocationFailureThrowsOutOfMemoryAndAddsNothing) {
  const std::string name = UniqueName("recmutex");
  CPMutexRecursionHelper* helper = get_mutexRecursionHelper();
  LogCapture log;
  RecordingHook hook;
  hook.Install();
  t_failNthNothrowNew = 1;
  long code = 0;
  try {
    helper->add(name);
  } catch (const QKException& e) {
    code = e.code;
  }
  t_failNthNothrowNew = 0;
  EXPECT_EQ(QK_E_OUT_OF_MEMORY, code);
  EXPECT_EQ(0u, helper->m_records.count(name));
  // The helper's lock line, then the error line.
  const std::vector<RecordingHook::Line> traced = hook.Lines();
  ASSERT_EQ(2u, traced.size());
  EXPECT_TRUE(IsEnterLine(traced[0], "CPMutexRecursiveHelper", 4588));
  EXPECT_TRUE(IsLine(traced[1], 4,
                     "(Error) CPMutexRecursive::CPMutexRecursive, memory "
                     "allocation failure\n"));
  const std::vector<std::string> lines = log.Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(0u, lines[0].find("(Error) Throwing exception 0xC1210E10 at "
                              "mutex_recursion.cpp#"))
      << lines[0];
  // The table's lock was left: another thread gets in.
  EXPECT_EQ(1, OnOtherThread([&] {
              const int r = helper->m_pLock->tryEnter(__LINE__);
              if (r == 1) helper->m_pLock->leave(__LINE__);
              return r;
            }));
  EXPECT_EQ(EPERM, helper->m_pLock->leave(__LINE__));
  CPMutexRecursive* record =
      OnOtherThread([&] { return helper->add(name); });
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(1, record->m_useCount);
  helper->del(name);
}

TEST(MutexRecursionHelperTest, HelperLockAllocationFailureThrowsOutOfMemory) {
  LogCapture log;
  RecordingHook hook;
  hook.Install();
  t_failNthNothrowNew = 1;
  long code = 0;
  try {
    CPMutexRecursionHelper helper;
  } catch (const QKException& e) {
    code = e.code;
  }
  t_failNthNothrowNew = 0;
  EXPECT_EQ(QK_E_OUT_OF_MEMORY, code);
  const std::vector<RecordingHook::Line> lines = hook.Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(IsLine(lines[0], 4,
                     "(Error) CPMutexRecursionHelper::CPMutexRecursionHelper, "
                     "memory allocation failure\n"));
  ASSERT_EQ(1u, log.Lines().size());
  EXPECT_EQ(0u, log.Lines()[0].find("(Error) Throwing exception 0xC1210E10"));
}

TEST(MutexRecursionHelperTest, FailedCreationLeavesNoHelperAndTheGlobalsLockFree) {
  CPMutexRecursionHelper* saved = get_mutexRecursionHelper();
  LogCapture log;
  g_pmutexRecursionHelper = nullptr;
  // First the helper itself, then its lock cannot be allocated.
  for (int nth : {1, 2}) {
    long code = 0;
    t_failNthNothrowNew = nth;
    try {
      get_mutexRecursionHelper();
    } catch (const QKException& e) {
      code = e.code;
    }
    t_failNthNothrowNew = 0;
    EXPECT_EQ(QK_E_OUT_OF_MEMORY, code) << "allocation " << nth;
    EXPECT_EQ(nullptr, g_pmutexRecursionHelper) << "allocation " << nth;
    EXPECT_EQ(0, OnOtherThread([] {
                const int r = ::pthread_mutex_trylock(&g_mutexGlobals);
                if (r == 0) ::pthread_mutex_unlock(&g_mutexGlobals);
                return r;
              }))
        << "allocation " << nth;
  }
  g_pmutexRecursionHelper = saved;
}

// --- Locking and releasing in one process ------------------------------------

TEST(MutexRecursiveTest, OwnerKeepsTheGateEnteredOncePerLock) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  RecordUse record(UniqueName("recmutex"));
  CPCritSec* gate = record->m_pGate;
  auto otherTryEnter = [gate] {
    return OnOtherThread([gate] {
      const int r = gate->tryEnter(__LINE__);
      if (r == 1) gate->leave(__LINE__);
      return r;
    });
  };
  EXPECT_EQ(1, otherTryEnter());
  ASSERT_EQ(0, record->lock(shared.Get()));
  ASSERT_EQ(0, record->lock(shared.Get()));
  EXPECT_EQ(2, record->m_count);
  EXPECT_EQ(Tid(), record->m_ownerThread);
  EXPECT_EQ(0, otherTryEnter());
  EXPECT_EQ(1, record->release(shared.Get()));
  EXPECT_EQ(0, otherTryEnter());
  EXPECT_EQ(0, record->release(shared.Get()));
  EXPECT_EQ(0, record->m_ownerThread);
  EXPECT_EQ(1, otherTryEnter());
  // Every enter was matched by a leave: the owner holds the gate no more.
  EXPECT_EQ(EPERM, gate->leave(__LINE__));
  EXPECT_EQ(0, shared.LockWord());
}

TEST(MutexRecursiveTest, SecondThreadWaitsAtTheGateNotInTheSharedMutex) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  const std::string name = UniqueName("recmutex");
  RecordUse record(name);
  RecordingHook hook;
  hook.Install();
  ASSERT_EQ(0, record->lock(shared.Get()));
  ASSERT_EQ(0, record->lock(shared.Get()));
  ASSERT_EQ(2u, CountEnterLines(hook, "CPMutexRecursive-" + name, 4641));

  Handshake started, mayRelease;
  std::atomic<int> secondTid{0};
  auto second = std::async(std::launch::async, [&] {
    secondTid = Tid();
    started.Signal();
    const int r = record->lock(shared.Get());
    const int count = record->m_count;
    const int owner = record->m_ownerThread;
    if (!mayRelease.WaitFor(kWaitMs)) return -1;
    if (r != 0 || count != 1 || owner != Tid()) return -2;
    return record->release(shared.Get());
  });
  // From here on the test must get to the releases, or the thread waits for
  // ever: no ASSERT.
  EXPECT_TRUE(started.WaitFor(kWaitMs));
  // The second thread has reached the gate ...
  EXPECT_TRUE(Eventually([&] {
    return CountEnterLines(hook, "CPMutexRecursive-" + name, 4641) == 3;
  }));
  // ... and stays there: nobody sleeps in the shared mutex, which this
  // thread holds once, and the second never tries to acquire it.
  const std::string acquiring =
      Format("CPMutexRecursive::lock %p - acquiring mutex\n", shared.Get());
  EXPECT_TRUE(Throughout([&] {
    return shared.LockWord() == 1 && CountText(hook, acquiring) == 1;
  }));
  EXPECT_EQ(std::future_status::timeout,
            second.wait_for(std::chrono::milliseconds(0)));

  EXPECT_EQ(1, record->release(shared.Get()));
  EXPECT_TRUE(Throughout([&] { return CountText(hook, acquiring) == 1; }));
  EXPECT_EQ(0, record->release(shared.Get()));
  // Only the last release lets it through.
  EXPECT_TRUE(Eventually([&] {
    return record->m_ownerThread == secondTid.load() && secondTid.load() != 0;
  }));
  EXPECT_EQ(2u, CountText(hook, acquiring));
  mayRelease.Signal();
  ASSERT_EQ(std::future_status::ready,
            second.wait_for(std::chrono::milliseconds(kWaitMs)));
  EXPECT_EQ(0, second.get());
  EXPECT_EQ(0, shared.LockWord());
}

TEST(MutexRecursiveTest, ReleaseByAnotherThreadThrowsAndLeavesTheCountAlone) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  RecordUse record(UniqueName("recmutex"));
  ASSERT_EQ(0, record->lock(shared.Get()));
  ASSERT_EQ(0, record->lock(shared.Get()));
  LogCapture log;
  struct Outcome {
    long code = 0;
    std::string where;
    int gateTest = -1;
  };
  const Outcome outcome = OnOtherThread([&] {
    Outcome o;
    try {
      record->release(shared.Get());
    } catch (const QKException& e) {
      o.code = e.code;
      o.where = e.where;
    }
    o.gateTest = record->m_pGate->test();
    return o;
  });
  EXPECT_EQ(QK_E_MUTEX_NOT_OWNER, outcome.code);
  EXPECT_EQ(0u, outcome.where.find("mutex_recursion.cpp.")) << outcome.where;
  EXPECT_EQ(1, outcome.gateTest);  // still held by this thread
  EXPECT_EQ(2, record->m_count);
  EXPECT_EQ(Tid(), record->m_ownerThread);
  EXPECT_EQ(1, shared.LockWord());

  const std::vector<std::string> lines = log.Lines();
  ASSERT_EQ(2u, lines.size());
  char expected[256];
  std::snprintf(expected, sizeof expected,
                "(Error) CPMutexRecursive::release %p: not locked (count=2) or "
                "wrong thread owner (thread=%d)",
                static_cast<void*>(shared.Get()), Tid());
  EXPECT_EQ(expected, lines[0]);
  EXPECT_EQ(0u, lines[1].find("(Error) Throwing exception 0xC1210E20 at "
                              "mutex_recursion.cpp#"))
      << lines[1];

  EXPECT_EQ(1, record->release(shared.Get()));
  EXPECT_EQ(0, record->release(shared.Get()));
  EXPECT_EQ(0, shared.LockWord());
}

TEST(MutexRecursiveTest, ReleaseWithCountZeroThrowsAndChangesNothing) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  RecordUse record(UniqueName("recmutex"));
  LogCapture log;
  for (int round = 0; round < 2; ++round) {
    long code = 0;
    std::string where;
    try {
      record->release(shared.Get());
    } catch (const QKException& e) {
      code = e.code;
      where = e.where;
    }
    EXPECT_EQ(QK_E_MUTEX_NOT_OWNER, code) << "round " << round;
    EXPECT_FALSE(where.empty());
    EXPECT_EQ(0, record->m_count);
    EXPECT_EQ(0, record->m_ownerThread);
    EXPECT_EQ(EPERM, record->m_pGate->leave(__LINE__));  // never entered
    // Then a full cycle, after which the count is 0 again.
    ASSERT_EQ(0, record->lock(shared.Get()));
    ASSERT_EQ(0, record->release(shared.Get()));
  }
  const std::vector<std::string> lines = log.Lines();
  ASSERT_EQ(4u, lines.size());
  const std::string expected = Format(
      "(Error) CPMutexRecursive::release %p: not locked (count=0) or wrong "
      "thread owner (thread=0)",
      shared.Get());
  EXPECT_EQ(expected, lines[0]);
  EXPECT_EQ(expected, lines[2]);
  EXPECT_EQ(0, shared.LockWord());
}

TEST(MutexRecursiveTest, ReleaseErrorLineNeedsLevelBitTwo) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  RecordUse record(UniqueName("recmutex"));
  LogCapture log(16);
  long code = 0;
  try {
    record->release(shared.Get());
  } catch (const QKException& e) {
    code = e.code;
  }
  EXPECT_EQ(QK_E_MUTEX_NOT_OWNER, code);
  EXPECT_TRUE(log.Lines().empty());
}

TEST(MutexRecursiveTest, TwoUsersOfOneNameLockAndReleaseTogether) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  const std::string name = UniqueName("recmutex");
  RecordUse first(name);
  RecordUse second(name);
  ASSERT_EQ(first.Get(), second.Get());
  ASSERT_EQ(0, first->lock(shared.Get()));
  ASSERT_EQ(0, second->lock(shared.Get()));
  EXPECT_EQ(2, first->m_count);
  EXPECT_EQ(0, OnOtherThread([&] { return first->m_pGate->tryEnter(__LINE__); }));
  EXPECT_EQ(1, second->release(shared.Get()));
  EXPECT_EQ(1, shared.LockWord());
  EXPECT_EQ(0, first->release(shared.Get()));
  EXPECT_EQ(0, shared.LockWord());
  // Released through either user, the count is gone for both.
  long code = 0;
  try {
    second->release(shared.Get());
  } catch (const QKException& e) {
    code = e.code;
  }
  EXPECT_EQ(QK_E_MUTEX_NOT_OWNER, code);
}

TEST(MutexRecursiveTest, FailedLockReturnsTheErrorAndKeepsTheGateEntered) {
  SharedMutex shared(PTHREAD_MUTEX_ERRORCHECK);
  ASSERT_TRUE(shared.Ok());
  RecordUse record(UniqueName("recmutex"));
  // Held by this thread behind the record's back: locking it again fails.
  ASSERT_EQ(0, ::pthread_mutex_lock(shared.Get()));
  EXPECT_EQ(EDEADLK, record->lock(shared.Get()));
  EXPECT_EQ(0, record->m_count);
  EXPECT_EQ(0, record->m_ownerThread);
  EXPECT_EQ(1, OnOtherThread([&] { return record->m_pGate->test(); }));
  EXPECT_EQ(0, record->m_pGate->leave(__LINE__));
  EXPECT_EQ(EPERM, record->m_pGate->leave(__LINE__));
  EXPECT_EQ(0, OnOtherThread([&] { return record->m_pGate->test(); }));
  EXPECT_EQ(0, ::pthread_mutex_unlock(shared.Get()));
}

TEST(MutexRecursiveTest, TimedLockThatTimesOutKeepsTheGateEnteredByItsThread) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  RecordUse record(UniqueName("recmutex"));
  CPCritSec* gate = record->m_pGate;

  // Another process holds the shared mutex.
  Handshake holding, mayUnlock;
  pthread_mutex_t* mutex = shared.Get();
  ForkedChild holder([&] {
    if (::pthread_mutex_lock(mutex) != 0) return 2;
    holding.Signal();
    if (!mayUnlock.WaitFor(kWaitMs)) return 3;
    return ::pthread_mutex_unlock(mutex) == 0 ? 0 : 4;
  });
  ASSERT_TRUE(holder.Started());
  ASSERT_TRUE(holding.WaitFor(kWaitMs));

  struct Outcome {
    int result = -1, count = -1, owner = -1, ownGateTest = -1;
    int firstLeave = -1, secondLeave = -1;
  };
  Handshake timedOut, mayLeave;
  auto waiter = std::async(std::launch::async, [&] {
    Outcome o;
    const timespec deadline = RealtimeAfter(100);
    o.result = record->timedlock(mutex, &deadline);
    o.count = record->m_count;
    o.owner = record->m_ownerThread;
    o.ownGateTest = gate->test();
    timedOut.Signal();
    // Alive until the gate has been looked at from the other side.
    if (mayLeave.WaitFor(kWaitMs)) {
      o.firstLeave = gate->leave(__LINE__);
      o.secondLeave = gate->leave(__LINE__);
    }
    return o;
  });
  ASSERT_TRUE(timedOut.WaitFor(kWaitMs));
  // The waiter still holds the gate: no other thread of this process gets
  // past it.
  EXPECT_EQ(1, gate->test());
  EXPECT_EQ(0, gate->tryEnter(__LINE__));
  mayLeave.Signal();
  ASSERT_EQ(std::future_status::ready,
            waiter.wait_for(std::chrono::milliseconds(kWaitMs)));
  const Outcome o = waiter.get();
  EXPECT_EQ(ETIMEDOUT, o.result);
  EXPECT_EQ(0, o.count);
  EXPECT_EQ(0, o.owner);
  EXPECT_EQ(0, o.ownGateTest);  // its own gate tests as free to it
  EXPECT_EQ(0, o.firstLeave);   // entered exactly once
  EXPECT_EQ(EPERM, o.secondLeave);
  EXPECT_EQ(0, gate->test());

  mayUnlock.Signal();
  EXPECT_EQ(0, holder.Join(kWaitMs));
}

TEST(MutexRecursiveTest, TimedLockHasNoTimeLimitAtTheGate) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  RecordUse record(UniqueName("recmutex"));
  ASSERT_EQ(0, record->lock(shared.Get()));
  Handshake started;
  auto second = std::async(std::launch::async, [&] {
    started.Signal();
    const timespec deadline = RealtimeAfter(20);
    const int r = record->timedlock(shared.Get(), &deadline);
    if (r != 0) return r;
    return record->release(shared.Get()) == 0 ? 0 : -1;
  });
  EXPECT_TRUE(started.WaitFor(kWaitMs));  // no ASSERT: release below
  // Long past its deadline, still waiting for this thread at the gate.
  EXPECT_EQ(std::future_status::timeout,
            second.wait_for(std::chrono::milliseconds(kQuietMs)));
  EXPECT_EQ(0, record->release(shared.Get()));
  ASSERT_EQ(std::future_status::ready,
            second.wait_for(std::chrono::milliseconds(kWaitMs)));
  EXPECT_EQ(0, second.get());  // then the free shared mutex is taken
  EXPECT_EQ(0, shared.LockWord());
}

TEST(MutexRecursiveTest, TimedLockCountsUpLikeLock) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  RecordUse record(UniqueName("recmutex"));
  const timespec deadline = RealtimeAfter(kWaitMs);
  ASSERT_EQ(0, record->timedlock(shared.Get(), &deadline));
  ASSERT_EQ(0, record->lock(shared.Get()));
  // Already owned: no wait in the shared mutex, whatever the deadline.
  const timespec past = RealtimeAfter(-1000);
  ASSERT_EQ(0, record->timedlock(shared.Get(), &past));
  EXPECT_EQ(3, record->m_count);
  EXPECT_EQ(Tid(), record->m_ownerThread);
  EXPECT_EQ(1, shared.LockWord());
  EXPECT_EQ(2, record->release(shared.Get()));
  EXPECT_EQ(1, record->release(shared.Get()));
  EXPECT_EQ(0, record->release(shared.Get()));
  EXPECT_EQ(0, shared.LockWord());
}

// --- Trace lines --------------------------------------------------------------

TEST(MutexRecursiveTest, LockRelockAndReleaseTraceTheseLinesInOrder) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  const std::string name = UniqueName("recmutex");
  RecordUse record(name);
  const void* m = shared.Get();
  RecordingHook hook;
  hook.Install();
  ASSERT_EQ(0, record->lock(shared.Get()));
  ASSERT_EQ(0, record->lock(shared.Get()));
  ASSERT_EQ(0, record->lock(shared.Get()));
  ASSERT_EQ(2, record->release(shared.Get()));
  ASSERT_EQ(1, record->release(shared.Get()));
  ASSERT_EQ(0, record->release(shared.Get()));
  const std::vector<RecordingHook::Line> l = hook.Lines();
  const std::string gate = "CPMutexRecursive-" + name;
  const char* kAlready = "CPMutexRecursive::lock %p - thread already has mutex, count %d\n";
  const char* kReleaseAlready =
      "CPMutexRecursive::release %p - thread already has mutex, count %d\n";
  ASSERT_EQ(15u, l.size());
  EXPECT_TRUE(IsLine(l[0], 16, Format("CPMutexRecursive::lock %p\n", m)));
  EXPECT_TRUE(IsEnterLine(l[1], gate, 4641));
  EXPECT_TRUE(IsLine(l[2], 16, Format("CPMutexRecursive::lock %p - acquiring mutex\n", m)));
  EXPECT_TRUE(IsLine(l[3], 16, Format("CPMutexRecursive::lock %p\n", m)));
  EXPECT_TRUE(IsEnterLine(l[4], gate, 4641));
  EXPECT_TRUE(IsLine(l[5], 16, Format(kAlready, m, 1)));
  EXPECT_TRUE(IsLine(l[6], 16, Format("CPMutexRecursive::lock %p\n", m)));
  EXPECT_TRUE(IsEnterLine(l[7], gate, 4641));
  EXPECT_TRUE(IsLine(l[8], 16, Format(kAlready, m, 2)));
  EXPECT_TRUE(IsLine(l[9], 16, Format("CPMutexRecursive::release %p, cnt %d\n", m, 3)));
  EXPECT_TRUE(IsLine(l[10], 16, Format(kReleaseAlready, m, 2)));
  EXPECT_TRUE(IsLine(l[11], 16, Format("CPMutexRecursive::release %p, cnt %d\n", m, 2)));
  EXPECT_TRUE(IsLine(l[12], 16, Format(kReleaseAlready, m, 1)));
  EXPECT_TRUE(IsLine(l[13], 16, Format("CPMutexRecursive::release %p, cnt %d\n", m, 1)));
  EXPECT_TRUE(IsLine(l[14], 16, Format("CPMutexRecursive::release %p - releasing mutex\n", m)));
}

TEST(MutexRecursiveTest, TimedLockTracesItsOwnLinesAndStopsAtATimeOut) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  const std::string name = UniqueName("recmutex");
  RecordUse record(name);
  const void* m = shared.Get();
  const std::string gate = "CPMutexRecursive-" + name;
  RecordingHook hook;
  hook.Install();
  const timespec deadline = RealtimeAfter(kWaitMs);
  ASSERT_EQ(0, record->timedlock(shared.Get(), &deadline));
  ASSERT_EQ(0, record->timedlock(shared.Get(), &deadline));
  ASSERT_EQ(1, record->release(shared.Get()));
  ASSERT_EQ(0, record->release(shared.Get()));
  std::vector<RecordingHook::Line> l = hook.Lines();
  ASSERT_EQ(10u, l.size());
  EXPECT_TRUE(IsLine(l[0], 16, Format("CPMutexRecursive::timedlock %p\n", m)));
  EXPECT_TRUE(IsEnterLine(l[1], gate, 4670));
  EXPECT_TRUE(IsLine(l[2], 16, Format("CPMutexRecursive::timedlock %p - acquiring mutex\n", m)));
  EXPECT_TRUE(IsLine(l[3], 16, Format("CPMutexRecursive::timedlock %p\n", m)));
  EXPECT_TRUE(IsEnterLine(l[4], gate, 4670));
  EXPECT_TRUE(IsLine(l[5], 16, Format("CPMutexRecursive::timedlock %p - thread already has mutex, count %d\n", m, 1)));
  EXPECT_TRUE(IsLine(l[6], 16, Format("CPMutexRecursive::release %p, cnt %d\n", m, 2)));
  EXPECT_TRUE(IsLine(l[7], 16, Format("CPMutexRecursive::release %p - thread already has mutex, count %d\n", m, 1)));
  EXPECT_TRUE(IsLine(l[8], 16, Format("CPMutexRecursive::release %p, cnt %d\n", m, 1)));
  EXPECT_TRUE(IsLine(l[9], 16, Format("CPMutexRecursive::release %p - releasing mutex\n", m)));

  // Timed out on a mutex held elsewhere: nothing after the attempt.
  ASSERT_EQ(0, ::pthread_mutex_lock(shared.Get()));
  hook.Clear();
  const int r = OnOtherThread([&] {
    const timespec soon = RealtimeAfter(20);
    const int result = record->timedlock(shared.Get(), &soon);
    record->m_pGate->leave(__LINE__);  // what the caller has to do
    return result;
  });
  EXPECT_EQ(ETIMEDOUT, r);
  l = hook.Lines();
  ASSERT_EQ(3u, l.size());
  EXPECT_TRUE(IsLine(l[0], 16, Format("CPMutexRecursive::timedlock %p\n", m)));
  EXPECT_TRUE(IsEnterLine(l[1], gate, 4670));
  EXPECT_TRUE(IsLine(l[2], 16, Format("CPMutexRecursive::timedlock %p - acquiring mutex\n", m)));
  EXPECT_EQ(0, ::pthread_mutex_unlock(shared.Get()));
}

TEST(MutexRecursiveTest, MisusedReleaseTracesOnlyItsFirstLine) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  RecordUse record(UniqueName("recmutex"));
  LogCapture log;
  RecordingHook hook;
  hook.Install();
  EXPECT_THROW(record->release(shared.Get()), QKException);
  const std::vector<RecordingHook::Line> l = hook.Lines();
  ASSERT_EQ(1u, l.size());
  EXPECT_TRUE(IsLine(l[0], 16, Format("CPMutexRecursive::release %p, cnt %d\n", shared.Get(), 0)));
}

// --- Two processes --------------------------------------------------------------

// The locking side is the child, so that a lock that never returns ends in
// a killed child instead of a hung test.
TEST(MutexRecursiveProcessTest, SameThreadLocksThreeTimesButTheSharedMutexOnce) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  const std::string name = UniqueName("recmutex");
  pthread_mutex_t* mutex = shared.Get();
  Handshake toParent, toChild;
  ForkedChild child([&] {
    CPMutexRecursive* record = get_mutexRecursionHelper()->add(name);
    for (int i = 0; i < 3; ++i)
      if (record->lock(mutex) != 0) return 10 + i;
    if (record->m_count != 3 || record->m_ownerThread != Tid()) return 13;
    for (int expected = 2; expected >= 0; --expected) {
      toParent.Signal();
      if (!toChild.WaitFor(kWaitMs)) return 20 + expected;
      if (record->release(mutex) != expected) return 30 + expected;
    }
    toParent.Signal();
    return record->m_count == 0 && record->m_ownerThread == 0 ? 0 : 40;
  });
  ASSERT_TRUE(child.Started());
  for (int release = 0; release < 3; ++release) {
    ASSERT_TRUE(toParent.WaitFor(kWaitMs)) << "before release " << release;
    EXPECT_EQ(EBUSY, ::pthread_mutex_trylock(mutex)) << "before release " << release;
    EXPECT_EQ(1, shared.LockWord());  // locked, nobody waiting
    toChild.Signal();
  }
  ASSERT_TRUE(toParent.WaitFor(kWaitMs));
  EXPECT_EQ(0, ::pthread_mutex_trylock(mutex));
  ::pthread_mutex_unlock(mutex);
  EXPECT_EQ(0, child.Join(kWaitMs));
}

TEST(MutexRecursiveProcessTest, ChildWaitsInTheSharedMutexUntilTheParentsLastRelease) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  const std::string name = UniqueName("recmutex");
  pthread_mutex_t* mutex = shared.Get();
  RecordUse record(name);
  Handshake parentLocked, started, acquired, mayRelease;
  ForkedChild child([&] {
    CPMutexRecursive* mine = get_mutexRecursionHelper()->add(name);
    if (!parentLocked.WaitFor(kWaitMs)) return 9;
    started.Signal();
    if (mine->lock(mutex) != 0) return 10;
    if (mine->lock(mutex) != 0) return 11;  // recursion in this process too
    acquired.Signal();
    if (!mayRelease.WaitFor(kWaitMs)) return 12;
    if (mine->release(mutex) != 1) return 13;
    return mine->release(mutex) == 0 ? 0 : 14;
  });
  ASSERT_TRUE(child.Started());
  // Locked here first, by the parent's own record (after the fork: a child
  // must not inherit a record in use).
  const timespec bound = RealtimeAfter(kWaitMs);
  ASSERT_EQ(0, record->timedlock(mutex, &bound));
  ASSERT_EQ(0, record->lock(mutex));
  parentLocked.Signal();
  EXPECT_TRUE(started.WaitFor(kWaitMs));
  // The child sleeps in the shared mutex.
  EXPECT_TRUE(Eventually([&] { return shared.LockWord() == 2; }));
  EXPECT_EQ(1, record->release(mutex));
  EXPECT_FALSE(acquired.WaitFor(kQuietMs));
  EXPECT_EQ(0, record->release(mutex));
  ASSERT_TRUE(acquired.WaitFor(kWaitMs));
  // Now the parent cannot have it: a timed lock runs out, keeping the gate.
  const timespec soon = RealtimeAfter(50);
  EXPECT_EQ(ETIMEDOUT, record->timedlock(mutex, &soon));
  EXPECT_EQ(0, record->m_count);
  EXPECT_EQ(0, record->m_pGate->leave(__LINE__));
  mayRelease.Signal();
  EXPECT_EQ(0, child.Join(kWaitMs));
  // And afterwards it can.
  const timespec later = RealtimeAfter(kWaitMs);
  ASSERT_EQ(0, record->timedlock(mutex, &later));
  EXPECT_EQ(0, record->release(mutex));
}

// Two threads in each of two processes, nesting two locks around an
// unprotected read-modify-write of a shared counter. Both processes are
// children, so that a lock that never returns ends in a killed child.
TEST(MutexRecursiveProcessTest, ThreadsOfTwoProcessesLoseNoIncrements) {
  SharedMutex shared;
  ASSERT_TRUE(shared.Ok());
  const std::string name = UniqueName("recmutex");
  pthread_mutex_t* mutex = shared.Get();
  volatile int* counter = &shared.Counter();
  constexpr int kRounds = 2000;
  Handshake go1, go2;
  auto work = [mutex, counter, name] {
    CPMutexRecursive* record = get_mutexRecursionHelper()->add(name);
    int failures = 0;
    for (int i = 0; i < kRounds; ++i) {
      if (record->lock(mutex) != 0 || record->lock(mutex) != 0) ++failures;
      const int value = *counter;
      if (i % 64 == 0) std::this_thread::yield();
      *counter = value + 1;
      if (record->release(mutex) != 1 || record->release(mutex) != 0) ++failures;
    }
    get_mutexRecursionHelper()->del(name);
    return failures;
  };
  auto twoThreads = [&work] {
    auto a = std::async(std::launch::async, work);
    auto b = std::async(std::launch::async, work);
    return a.get() + b.get();
  };
  ForkedChild first([&] {
    if (!go1.WaitFor(kWaitMs)) return 2;
    return twoThreads() == 0 ? 0 : 3;
  });
  ForkedChild second([&] {
    if (!go2.WaitFor(kWaitMs)) return 2;
    return twoThreads() == 0 ? 0 : 3;
  });
  ASSERT_TRUE(first.Started());
  ASSERT_TRUE(second.Started());
  go1.Signal();
  go2.Signal();
  EXPECT_EQ(0, first.Join(30000));
  EXPECT_EQ(0, second.Join(30000));
  EXPECT_EQ(4 * kRounds, *counter);
}

}  // namespace

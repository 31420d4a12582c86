// Mutexes: the private recursive kind, named ones shared between processes
// through the name map (the holder word and the per-process wait counts
// that crash cleanup relies on), recursion, failures, trace lines, the
// sliced wait, recovery from a killed owner, and a stress run of threads
// of two processes counting under one named mutex.
//
// Every test runs in its own process and IPC and mount namespace, so the
// name map it sees starts empty. Children that must behave as separate
// programs are forked before the test first touches the library: a child
// forked later would share the parent's lock file description (and so its
// lock) and its singletons.
#include "ambit/mutex.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <future>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ambit/event.h"
#include "ambit/exception.h"
#include "ambit/sharedmemory.h"
#include "gtest/gtest.h"
#include "names/name_map.h"
#include "names/names_support.h"
#include "names/table_reader.h"
#include "support/forked_child.h"
#include "support/handshake.h"
#include "support/log_capture.h"
#include "support/recording_hook.h"
#include "support/unique_name.h"
#include "sync/mutex_recursion.h"

namespace {

using names_test::Lifeline;
using names_test::Spawn;
using names_test::WaitUntil;

constexpr unsigned long kTimeout = 0xE0000000UL;
constexpr unsigned long kAbandoned = 0xC0000000UL;
constexpr unsigned long kFailed = 0xD0000000UL;
constexpr unsigned long kInfinite = 0xFFFFFFFFUL;
constexpr int kKilled = 128 + SIGKILL;

using Clock = std::chrono::steady_clock;

long MsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

int Self() { return static_cast<int>(::getpid()); }

std::string Pointer(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

// The name map entry of a named object in this process's view of the
// table, found by its stored (normalised) name; null when there is none.
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

// The holder word read from the raw bytes of the entry (offset 268), as a
// program that only knows the table's layout reads it.
int32_t RawHolder(const CNameMap::SNAMEINFO* entry) {
  int32_t word = 0;
  std::memcpy(&word, reinterpret_cast<const unsigned char*>(entry) + 268, sizeof word);
  return word;
}

// The wait count of pid's slot in the entry; -1 when pid has no slot.
long WaitCountOf(const CNameMap::SNAMEINFO* entry, pid_t pid) {
  for (const CNameMap::SPIDINFO& p : entry->pids)
    if (p.dwPid == static_cast<uint32_t>(pid)) return static_cast<long>(p.dwWaitCount);
  return -1;
}

// True when a thread other than the caller finds the mutex locked.
bool LockedForOthers(pthread_mutex_t* mutex) {
  return std::async(std::launch::async, [mutex] {
           if (pthread_mutex_trylock(mutex) != 0) return true;
           pthread_mutex_unlock(mutex);
           return false;
         }).get();
}

// A terminate hook that answers 0 until it has been asked `fireAt` times
// (0: never fires), then 1.
class Terminate : public CTerminateWait {
 public:
  explicit Terminate(int fireAt) : m_fireAt(fireAt) {}
  int shouldTerminate() override {
    const int n = ++m_asked;
    return m_fireAt != 0 && n >= m_fireAt ? 1 : 0;
  }
  int Asked() const { return m_asked.load(); }

 private:
  int m_fireAt;
  std::atomic<int> m_asked{0};
};

// The hook's lines that begin with `prefix`.
std::vector<RecordingHook::Line> LinesStartingWith(const RecordingHook& hook,
                                                   const std::string& prefix) {
  std::vector<RecordingHook::Line> found;
  for (const RecordingHook::Line& l : hook.Lines())
    if (l.text.compare(0, prefix.size(), prefix) == 0) found.push_back(l);
  return found;
}

std::string AllTexts(const RecordingHook& hook) {
  std::string all;
  for (const std::string& t : hook.Texts()) all += "  " + t + (t.empty() || t.back() != '\n' ? "\n" : "");
  return all;
}

// Runs `fn` and checks that it throws QKException with `code`.
template <typename Fn>
::testing::AssertionResult ThrowsCode(long code, Fn fn) {
  try {
    fn();
  } catch (const QKException& e) {
    if (e.code == code) return ::testing::AssertionSuccess();
    char text[64];
    std::snprintf(text, sizeof text, "threw 0x%08lX, expected 0x%08lX",
                  static_cast<unsigned long>(e.code), static_cast<unsigned long>(code));
    return ::testing::AssertionFailure() << text;
  }
  return ::testing::AssertionFailure() << "nothing was thrown";
}

// --- Unnamed mutexes -------------------------------------------------------------

TEST(MutexTest, UnnamedMutexIsRecursiveForItsOwningThread) {
  CPMutex mutex(1, 0, "", 0, 0);
  EXPECT_EQ(0UL, mutex.wait(0, nullptr));
  EXPECT_EQ(0UL, mutex.wait(100, nullptr));
  EXPECT_EQ(0UL, mutex.wait(kInfinite, nullptr));
  mutex.release();
  mutex.release();
  auto other = std::async(std::launch::async, [&] { return mutex.wait(50, nullptr); });
  EXPECT_EQ(kTimeout, other.get()) << "still held once";
  mutex.release();
  other = std::async(std::launch::async, [&] {
    const unsigned long r = mutex.wait(0, nullptr);
    if (r == 0) mutex.release();
    return r;
  });
  EXPECT_EQ(0UL, other.get());
}

TEST(MutexTest, UnnamedMutexIgnoresCreateInitialOwnerAndRecursiveAndIsNoCreator) {
  CPMutex mutex(0, 1, "", 0, 0);  // open only, initial owner: neither applies
  EXPECT_EQ(0, mutex.isCreator());
  EXPECT_EQ("", mutex.getName());
  auto other = std::async(std::launch::async, [&] {
    const unsigned long r = mutex.wait(0, nullptr);
    if (r == 0) mutex.release();
    return r;
  });
  EXPECT_EQ(0UL, other.get()) << "the constructor acquired the unnamed mutex";
  EXPECT_EQ(nullptr, g_pnameMap) << "an unnamed mutex went to the name map";
}

TEST(MutexTest, UnnamedMutexTimesOutForAnotherThreadAfterItsTimeout) {
  CPMutex mutex(1, 0, "", 1, 0);
  ASSERT_EQ(0UL, mutex.wait(kInfinite, nullptr));
  auto other = std::async(std::launch::async, [&] {
    const auto start = Clock::now();
    const unsigned long r = mutex.wait(150, nullptr);
    return std::make_pair(r, MsSince(start));
  });
  const auto result = other.get();
  EXPECT_EQ(kTimeout, result.first);
  EXPECT_GE(result.second, 140);
  EXPECT_LT(result.second, 3000);
  mutex.release();
}

TEST(MutexTest, ReleaseOfAnUnnamedMutexWakesABlockedThread) {
  CPMutex mutex(1, 0, "", 0, 0);
  ASSERT_EQ(0UL, mutex.wait(kInfinite, nullptr));
  auto waiter = std::async(std::launch::async, [&] {
    const unsigned long r = mutex.wait(10000, nullptr);
    if (r == 0) mutex.release();
    return r;
  });
  EXPECT_EQ(std::future_status::timeout, waiter.wait_for(std::chrono::milliseconds(50)));
  mutex.release();
  ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ(0UL, waiter.get());
}

// --- Named mutexes in one process --------------------------------------------------

TEST(MutexTest, GetNameReturnsTheNameAsGiven) {
  const std::string name = UniqueName("a/b c");
  CPMutex mutex(1, 0, name, 0, 0);
  EXPECT_EQ(name, mutex.getName());
  EXPECT_EQ(1, mutex.isCreator());
  // The map stores it normalised, and both spellings open one entry.
  CPMutex other(0, 0, UniqueName("a-b-c"), 0, 0);
  EXPECT_EQ(0, other.isCreator());
  EXPECT_EQ(2u, EntryOf(name)->dwUseCount);
}

TEST(MutexTest, NewNamedMutexIsAFreeMutexEntryWithNoHolder) {
  const std::string name = UniqueName("fresh");
  CPMutex mutex(1, 0, name, 0, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  EXPECT_EQ(CNameMap::Mutex, entry->nameType);
  EXPECT_EQ(0, RawHolder(entry));
  EXPECT_EQ(0, WaitCountOf(entry, ::getpid()));
  EXPECT_FALSE(LockedForOthers(&entry->object.mutex));
}

TEST(MutexTest, InitialOwnerMakesTheCreatorTheHolderAtReturn) {
  const std::string name = UniqueName("owned");
  CPMutex mutex(1, 1, name, 0, 0);
  EXPECT_EQ(1, mutex.isCreator());
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  EXPECT_EQ(Self(), RawHolder(entry));
  EXPECT_EQ(0, WaitCountOf(entry, ::getpid()));
  EXPECT_TRUE(LockedForOthers(&entry->object.mutex));
  mutex.release();
  EXPECT_EQ(0, RawHolder(entry));
  EXPECT_FALSE(LockedForOthers(&entry->object.mutex));
}

TEST(MutexTest, InitialOwnerOfAnOpenerThatDidNotCreateIsIgnored) {
  const std::string name = UniqueName("opened");
  CPMutex creator(1, 0, name, 0, 0);
  CPMutex opener(1, 1, name, 0, 0);
  EXPECT_EQ(0, opener.isCreator());
  EXPECT_EQ(0, RawHolder(EntryOf(name)));
  EXPECT_FALSE(LockedForOthers(&EntryOf(name)->object.mutex));
}

TEST(MutexTest, SecondWaitByTheOwningThreadOfANonRecursiveMutexTimesOut) {
  const std::string name = UniqueName("plain");
  CPMutex mutex(1, 0, name, 0, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_EQ(0UL, mutex.wait(kInfinite, nullptr));
  const auto start = Clock::now();
  EXPECT_EQ(kTimeout, mutex.wait(100, nullptr));
  const long took = MsSince(start);
  EXPECT_GE(took, 90);
  EXPECT_LT(took, 3000);
  EXPECT_EQ(Self(), RawHolder(entry)) << "the failed wait changed the holder";
  EXPECT_EQ(0, WaitCountOf(entry, ::getpid())) << "the timed-out wait is still counted";
  mutex.release();
  EXPECT_EQ(0, RawHolder(entry));
  EXPECT_FALSE(LockedForOthers(&entry->object.mutex));
}

TEST(MutexTest, RecursiveWaitThreeTimesIsReleasedOnlyAtTheThirdRelease) {
  const std::string name = UniqueName("recursive");
  CPMutex mutex(1, 0, name, 1, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(0UL, mutex.wait(i == 1 ? 100 : kInfinite, nullptr)) << "wait " << i + 1;
    EXPECT_EQ(Self(), RawHolder(entry));
  }
  EXPECT_TRUE(LockedForOthers(&entry->object.mutex));
  mutex.release();
  EXPECT_EQ(Self(), RawHolder(entry)) << "cleared at the first release";
  EXPECT_TRUE(LockedForOthers(&entry->object.mutex));
  mutex.release();
  EXPECT_EQ(Self(), RawHolder(entry)) << "cleared at the second release";
  EXPECT_TRUE(LockedForOthers(&entry->object.mutex));
  mutex.release();
  EXPECT_EQ(0, RawHolder(entry));
  EXPECT_FALSE(LockedForOthers(&entry->object.mutex));
  EXPECT_EQ(0, WaitCountOf(entry, ::getpid()));
  EXPECT_TRUE(ThrowsCode(QK_E_MUTEX_NOT_OWNER, [&] { mutex.release(); }))
      << "a fourth release";
  EXPECT_EQ(0, RawHolder(entry));
}

TEST(MutexTest, ReleaseOfARecursiveMutexByAThreadThatDoesNotOwnItThrows) {
  const std::string name = UniqueName("recursive");
  CPMutex mutex(1, 1, name, 1, 0);
  EXPECT_EQ(Self(), RawHolder(EntryOf(name)));
  auto other = std::async(std::launch::async, [&] {
    return ThrowsCode(static_cast<long>(0xC1210E20UL), [&] { mutex.release(); });
  });
  EXPECT_TRUE(other.get());
  EXPECT_EQ(Self(), RawHolder(EntryOf(name)));
  EXPECT_TRUE(LockedForOthers(&EntryOf(name)->object.mutex));
  mutex.release();
  EXPECT_EQ(0, RawHolder(EntryOf(name)));
}

TEST(MutexTest, TwoRecursiveObjectsOfOneNameInAProcessCountTogether) {
  const std::string name = UniqueName("shared-record");
  CPMutex first(1, 0, name, 1, 0);
  CPMutex second(0, 0, name, 1, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_EQ(0UL, first.wait(kInfinite, nullptr));
  ASSERT_EQ(0UL, second.wait(0, nullptr));
  first.release();
  EXPECT_EQ(Self(), RawHolder(entry));
  EXPECT_TRUE(LockedForOthers(&entry->object.mutex));
  second.release();
  EXPECT_EQ(0, RawHolder(entry));
  EXPECT_FALSE(LockedForOthers(&entry->object.mutex));
}

TEST(MutexTest, AnotherThreadOfTheProcessWaitsForTheLastRecursiveRelease) {
  const std::string name = UniqueName("gate");
  CPMutex mutex(1, 0, name, 1, 0);
  ASSERT_EQ(0UL, mutex.wait(kInfinite, nullptr));
  ASSERT_EQ(0UL, mutex.wait(kInfinite, nullptr));
  auto waiter = std::async(std::launch::async, [&] {
    const unsigned long r = mutex.wait(10000, nullptr);
    const int holder = RawHolder(EntryOf(name));
    if (r == 0) mutex.release();
    return std::make_pair(r, holder);
  });
  EXPECT_EQ(std::future_status::timeout, waiter.wait_for(std::chrono::milliseconds(100)));
  mutex.release();
  EXPECT_EQ(std::future_status::timeout, waiter.wait_for(std::chrono::milliseconds(100)));
  mutex.release();
  ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(10)));
  const auto result = waiter.get();
  EXPECT_EQ(0UL, result.first);
  EXPECT_EQ(Self(), result.second);
  EXPECT_EQ(0, RawHolder(EntryOf(name)));
}

TEST(MutexTest, WaitCountIsRaisedForTheWholeWaitAndLoweredWhenItEnds) {
  const std::string name = UniqueName("counted");
  CPMutex mutex(1, 1, name, 0, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  EXPECT_EQ(0, WaitCountOf(entry, ::getpid()));
  // Two threads wait: one times out, one gets the mutex at the release.
  auto timing = std::async(std::launch::async, [&] { return mutex.wait(400, nullptr); });
  auto getting = std::async(std::launch::async, [&] {
    const unsigned long r = mutex.wait(10000, nullptr);
    const int holder = RawHolder(entry);
    if (r == 0) mutex.release();
    return std::make_pair(r, holder);
  });
  EXPECT_TRUE(WaitUntil([&] { return WaitCountOf(entry, ::getpid()) == 2; }, 5000))
      << "count " << WaitCountOf(entry, ::getpid());
  EXPECT_EQ(kTimeout, timing.get());
  EXPECT_EQ(1, WaitCountOf(entry, ::getpid())) << "the timed-out wait is still counted";
  mutex.release();
  ASSERT_EQ(std::future_status::ready, getting.wait_for(std::chrono::seconds(10)));
  const auto got = getting.get();
  EXPECT_EQ(0UL, got.first);
  EXPECT_EQ(Self(), got.second);
  EXPECT_EQ(0, WaitCountOf(entry, ::getpid()));
  EXPECT_EQ(0, RawHolder(entry));
}

// --- Failures ------------------------------------------------------------------------

TEST(MutexTest, OpeningAMissingNameThrowsAndWritesTheOpenErrorLine) {
  RecordingHook hook;
  hook.Install();
  EXPECT_TRUE(ThrowsCode(static_cast<long>(0xC1210E14UL),
                         [] { CPMutex mutex(0, 0, UniqueName("missing"), 0, 1); }));
  const auto errors = LinesStartingWith(hook, "(Error)");
  ASSERT_EQ(1u, errors.size()) << AllTexts(hook);
  EXPECT_EQ("(Error) CPEventImpl::CPEventImpl, can't open mutex", errors[0].text);
  EXPECT_EQ(16UL, errors[0].category);
  EXPECT_EQ(64UL, errors[0].level);
  // The facade's line came first; no implementation line, no destructor.
  EXPECT_EQ(1u, LinesStartingWith(hook, "CPMutex::CPMutex (").size());
  EXPECT_TRUE(LinesStartingWith(hook, "CPMutexImpl::").empty());
  EXPECT_TRUE(LinesStartingWith(hook, "CPMutex::~CPMutex").empty());
}

TEST(MutexTest, CreatingANameHeldByAnEventThrowsAndWritesTheCreateErrorLine) {
  const std::string name = UniqueName("taken");
  CPEvent event(1, name, 0);
  RecordingHook hook;
  hook.Install();
  EXPECT_TRUE(ThrowsCode(QK_E_CREATE_NAMED_OBJECT, [&] { CPMutex mutex(1, 1, name, 0, 1); }));
  const auto errors = LinesStartingWith(hook, "(Error)");
  ASSERT_EQ(1u, errors.size()) << AllTexts(hook);
  EXPECT_EQ("(Error) CPEventImpl::CPEventImpl, can't create mutex", errors[0].text);
  EXPECT_EQ(16UL, errors[0].category);
  EXPECT_EQ(64UL, errors[0].level);
  ASSERT_NE(nullptr, EntryOf(name));
  EXPECT_EQ(CNameMap::Condvar, EntryOf(name)->nameType);
  EXPECT_EQ(1u, EntryOf(name)->dwUseCount);
}

TEST(MutexTest, OpeningANameHeldByAnEventThrowsTheOpenError) {
  const std::string name = UniqueName("taken");
  CPEvent event(1, name, 0);
  EXPECT_TRUE(ThrowsCode(QK_E_OPEN_NAMED_OBJECT, [&] { CPMutex mutex(0, 0, name, 1, 0); }));
}

TEST(MutexTest, ANameTooLongForTheMapCannotBeCreated) {
  EXPECT_TRUE(ThrowsCode(QK_E_CREATE_NAMED_OBJECT,
                         [] { CPMutex mutex(1, 0, std::string(256, 'm'), 0, 0); }));
  CPMutex longest(1, 0, std::string(255, 'm'), 0, 0);
  EXPECT_EQ(1, longest.isCreator());
}

TEST(MutexTest, AFailedRecursiveOpenGivesItsRecursionRecordBack) {
  const std::string missing = UniqueName("missing");
  EXPECT_TRUE(ThrowsCode(QK_E_OPEN_NAMED_OBJECT, [&] { CPMutex mutex(0, 0, missing, 1, 0); }));
  const std::string taken = UniqueName("taken");
  CPEvent event(1, taken, 0);
  EXPECT_TRUE(ThrowsCode(QK_E_CREATE_NAMED_OBJECT, [&] { CPMutex mutex(1, 0, taken, 1, 0); }));
  ASSERT_NE(nullptr, g_pmutexRecursionHelper);
  EXPECT_EQ(0u, g_pmutexRecursionHelper->m_records.count(missing));
  EXPECT_EQ(0u, g_pmutexRecursionHelper->m_records.count(taken));
}

TEST(MutexTest, ARecursiveRecordOutlivesItsMutexObject) {
  const std::string name = UniqueName("kept");
  { CPMutex mutex(1, 0, name, 1, 0); }
  ASSERT_NE(nullptr, g_pmutexRecursionHelper);
  ASSERT_EQ(1u, g_pmutexRecursionHelper->m_records.count(name));
  EXPECT_EQ(1, g_pmutexRecursionHelper->m_records[name]->m_useCount);
}

TEST(MutexTest, ErrorLinesNeedTracingAllowed) {
  const std::string taken = UniqueName("taken");
  CPEvent event(1, taken, 0);
  RecordingHook hook;
  hook.Install();
  EXPECT_THROW(CPMutex(0, 0, UniqueName("missing"), 0, 0), QKException);
  EXPECT_THROW(CPMutex(1, 0, taken, 1, 0), QKException);
  EXPECT_TRUE(LinesStartingWith(hook, "(Error)").empty()) << AllTexts(hook);
  EXPECT_TRUE(LinesStartingWith(hook, "CPMutex::").empty()) << AllTexts(hook);
}

// A lock error other than a time-out: the entry's mutex is made an
// error-checking one, so that the owner's second wait fails with EDEADLK.
TEST(MutexTest, ALockErrorFailsTheWaitWithTheErrorLineAndUncountsIt) {
  const std::string name = UniqueName("failing");
  CPMutex mutex(1, 0, name, 0, 1);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutex_destroy(&entry->object.mutex);
  pthread_mutex_init(&entry->object.mutex, &attr);
  pthread_mutexattr_destroy(&attr);

  ASSERT_EQ(0UL, mutex.wait(kInfinite, nullptr));
  RecordingHook hook;
  hook.Install();
  EXPECT_EQ(kFailed, mutex.wait(1000, nullptr));
  EXPECT_EQ(kFailed, mutex.wait(kInfinite, nullptr));
  const auto errors = LinesStartingWith(hook, "(Error) CPMutexImpl::wait (");
  ASSERT_EQ(2u, errors.size()) << AllTexts(hook);
  const std::regex line("\\(Error\\) CPMutexImpl::wait \\(0x[0-9a-f]+\\), " +
                        std::to_string(EDEADLK) + "\n");
  EXPECT_TRUE(std::regex_match(errors[0].text, line)) << errors[0].text;
  EXPECT_EQ(errors[0].text, errors[1].text);
  EXPECT_EQ(16UL, errors[0].category);
  EXPECT_EQ(64UL, errors[0].level);
  EXPECT_EQ(0, WaitCountOf(entry, ::getpid()));
  EXPECT_EQ(Self(), RawHolder(entry));
  EXPECT_TRUE(LinesStartingWith(hook, "<<<CPMutexImpl::wait.2").empty());
  mutex.release();
  EXPECT_EQ(0, RawHolder(entry));
}

TEST(MutexTest, ALockErrorWritesNoErrorLineWhenTracingIsNotAllowed) {
  const std::string name = UniqueName("failing");
  CPMutex mutex(1, 0, name, 0, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutex_destroy(&entry->object.mutex);
  pthread_mutex_init(&entry->object.mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  ASSERT_EQ(0UL, mutex.wait(kInfinite, nullptr));
  RecordingHook hook;
  hook.Install();
  EXPECT_EQ(kFailed, mutex.wait(100, nullptr));
  EXPECT_TRUE(LinesStartingWith(hook, "(Error)").empty()) << AllTexts(hook);
  mutex.release();
}

// --- Trace lines -----------------------------------------------------------------------

TEST(MutexTest, FacadeAndImplementationWriteTheirLinesWhenTracingIsAllowed) {
  RecordingHook hook;
  hook.Install();
  const std::string name = UniqueName("traced");
  std::string self, mutexAt;
  {
    CPMutex mutex(1, 0, name, 0, 1);
    self = Pointer(&mutex);
    mutexAt = Pointer(&EntryOf(name)->object.mutex);
    EXPECT_EQ(0UL, mutex.wait(0, nullptr));
    mutex.release();
  }
  std::vector<std::string> mine;
  for (const RecordingHook::Line& l : hook.Lines()) {
    if (l.text.find("CPMutex") == std::string::npos) continue;
    EXPECT_EQ(16UL, l.category) << l.text;
    EXPECT_EQ(2UL, l.level) << l.text;
    mine.push_back(l.text);
  }
  ASSERT_EQ(9u, mine.size()) << AllTexts(hook);
  EXPECT_EQ("CPMutex::CPMutex (" + self + "), name \"" + name + "\"\n", mine[0]);
  std::smatch impl;
  ASSERT_TRUE(std::regex_match(mine[1], impl,
                               std::regex("CPMutexImpl::CPMutexImpl \\((0x[0-9a-f]+)\\) (.*) "
                                          "(0x[0-9a-f]+)\n")))
      << mine[1];
  EXPECT_EQ(name, impl[2].str());
  EXPECT_EQ(mutexAt, impl[3].str());
  EXPECT_EQ("CPMutex::wait (" + self + "), name \"" + name + "\"\n", mine[2]);
  EXPECT_EQ(">>>CPMutexImpl::wait.1 " + mutexAt + ", pid 0\n", mine[3]);
  EXPECT_EQ("<<<CPMutexImpl::wait.2 " + mutexAt + ", pid " + std::to_string(Self()) + "\n",
            mine[4]);
  EXPECT_EQ("CPMutex::release (" + self + "), name \"" + name + "\"\n", mine[5]);
  EXPECT_EQ("<<<CPMutexImpl::release " + mutexAt + ", new pid 0\n", mine[6]);
  EXPECT_EQ("CPMutex::~CPMutex (" + self + "), name \"" + name + "\"\n", mine[7]);
  // The destructor's implementation line names the same object.
  EXPECT_EQ("CPMutexImpl::~CPMutexImpl (" + impl[1].str() + ")\n", mine[8]);
}

TEST(MutexTest, ImplementationLinesNeedOnlyTheHook) {
  RecordingHook hook;
  hook.Install();
  const std::string name = UniqueName("quiet");
  {
    CPMutex mutex(1, 1, name, 0, 0);  // initial owner: one wait in the constructor
    EXPECT_EQ(kTimeout, mutex.wait(10, nullptr));
    mutex.release();
  }
  EXPECT_TRUE(LinesStartingWith(hook, "CPMutex::").empty()) << AllTexts(hook);
  EXPECT_EQ(2u, LinesStartingWith(hook, ">>>CPMutexImpl::wait.1 ").size()) << AllTexts(hook);
  EXPECT_EQ(1u, LinesStartingWith(hook, "<<<CPMutexImpl::wait.2 ").size()) << AllTexts(hook);
  EXPECT_EQ(1u, LinesStartingWith(hook, "<<<CPMutexImpl::release ").size());
  EXPECT_EQ(1u, LinesStartingWith(hook, "CPMutexImpl::CPMutexImpl (").size());
  EXPECT_EQ(1u, LinesStartingWith(hook, "CPMutexImpl::~CPMutexImpl (").size());
  // The time-out writes no error line and no exit line.
  EXPECT_TRUE(LinesStartingWith(hook, "(Error)").empty());
  // The constructor's wait comes before the constructor's own line.
  const std::vector<std::string> texts = hook.Texts();
  size_t wait2 = texts.size(), ctor = texts.size();
  for (size_t i = 0; i < texts.size(); ++i) {
    if (texts[i].compare(0, 22, "<<<CPMutexImpl::wait.2") == 0 && wait2 == texts.size()) wait2 = i;
    if (texts[i].compare(0, 25, "CPMutexImpl::CPMutexImpl ") == 0) ctor = i;
  }
  EXPECT_LT(wait2, ctor) << AllTexts(hook);
  // The second wait.1 line shows the owner, this process.
  EXPECT_EQ(", pid " + std::to_string(Self()) + "\n",
            LinesStartingWith(hook, ">>>CPMutexImpl::wait.1 ")[1].text.substr(
                LinesStartingWith(hook, ">>>CPMutexImpl::wait.1 ")[1].text.rfind(',')));
}

TEST(MutexTest, NothingIsWrittenWithoutAHook) {
  CPMutex mutex(1, 0, UniqueName("nohook"), 1, 1);
  RecordingHook hook;
  hook.Install();
  AmbitDebug::setTracingHelper(nullptr);
  mutex.wait(0, nullptr);
  mutex.release();
  AmbitDebug::setTracingHelper(&hook);
  mutex.wait(0, nullptr);
  std::vector<std::string> texts;
  for (const std::string& t : hook.Texts())
    if (t.find("CPMutex") != std::string::npos) texts.push_back(t);
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ(0u, texts[0].find("CPMutex::wait (")) << AllTexts(hook);
  mutex.release();
}

TEST(MutexTest, UnnamedMutexLinesShowAnEmptyNameAndPidZero) {
  RecordingHook hook;
  hook.Install();
  std::string self;
  {
    CPMutex mutex(1, 0, "", 0, 1);
    self = Pointer(&mutex);
    mutex.wait(0, nullptr);
    mutex.release();
  }
  const std::vector<std::string> texts = hook.Texts();
  ASSERT_EQ(8u, texts.size()) << AllTexts(hook);
  EXPECT_EQ("CPMutex::CPMutex (" + self + "), name \"\"\n", texts[0]);
  EXPECT_EQ("CPMutex::wait (" + self + "), name \"\"\n", texts[1]);
  EXPECT_EQ(0u, texts[2].find(">>>CPMutexImpl::wait.1 "));
  EXPECT_EQ(", pid 0\n", texts[2].substr(texts[2].rfind(',')));
  EXPECT_EQ(", pid 0\n", texts[3].substr(texts[3].rfind(',')));
  EXPECT_EQ("CPMutex::release (" + self + "), name \"\"\n", texts[4]);
  EXPECT_EQ(0u, texts[5].find("<<<CPMutexImpl::release "));
  EXPECT_EQ("CPMutex::~CPMutex (" + self + "), name \"\"\n", texts[6]);
  EXPECT_EQ(0u, texts[7].find("CPMutexImpl::~CPMutexImpl ("));
  // No construction line for the private kind: only a named one writes it.
}

// --- The sliced wait with a terminate hook ----------------------------------------------

TEST(MutexTest, ATerminateHookThatFiresAtOnceAbandonsTheWaitWithoutAcquiring) {
  const std::string name = UniqueName("sliced");
  CPMutex mutex(1, 0, name, 0, 1);
  RecordingHook hook;
  hook.Install();
  Terminate stop(1);
  EXPECT_EQ(kAbandoned, mutex.wait(kInfinite, &stop));
  EXPECT_EQ(1, stop.Asked());
  EXPECT_EQ(0, RawHolder(EntryOf(name)));
  EXPECT_FALSE(LockedForOthers(&EntryOf(name)->object.mutex));
  // Only the facade's entry line: the implementation was never asked.
  EXPECT_EQ(1u, LinesStartingWith(hook, "CPMutex::wait (").size()) << AllTexts(hook);
  EXPECT_TRUE(LinesStartingWith(hook, ">>>CPMutexImpl").empty()) << AllTexts(hook);
}

TEST(MutexTest, ATerminateHookThatNeverFiresStillAcquiresAFreeMutex) {
  const std::string name = UniqueName("sliced");
  CPMutex mutex(1, 0, name, 0, 0);
  Terminate never(0);
  EXPECT_EQ(0UL, mutex.wait(1000, &never));
  EXPECT_EQ(1, never.Asked());
  EXPECT_EQ(Self(), RawHolder(EntryOf(name)));
  mutex.release();
}

TEST(MutexTest, ATerminateHookThatNeverFiresTimesOutAfterTheTimeout) {
  const std::string name = UniqueName("sliced");
  CPMutex mutex(1, 1, name, 0, 0);
  Terminate never(0);
  auto other = std::async(std::launch::async, [&] {
    const auto start = Clock::now();
    const unsigned long r = mutex.wait(200, &never);
    return std::make_pair(r, MsSince(start));
  });
  const auto result = other.get();
  EXPECT_EQ(kTimeout, result.first);
  EXPECT_GE(result.second, 190);
  EXPECT_LT(result.second, 3000);
  EXPECT_GE(never.Asked(), 1);
  mutex.release();
}

TEST(MutexTest, AReleaseDuringASlicedWaitEndsItWithTheMutex) {
  const std::string name = UniqueName("sliced");
  CPMutex mutex(1, 1, name, 0, 0);
  Terminate never(0);
  auto waiter = std::async(std::launch::async, [&] {
    const unsigned long r = mutex.wait(kInfinite, &never);
    const int holder = RawHolder(EntryOf(name));
    if (r == 0) mutex.release();
    return std::make_pair(r, holder);
  });
  EXPECT_EQ(std::future_status::timeout, waiter.wait_for(std::chrono::milliseconds(100)));
  mutex.release();
  ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(10)));
  const auto got = waiter.get();
  EXPECT_EQ(0UL, got.first);
  EXPECT_EQ(Self(), got.second);
}

// The hook is asked again only after a whole slice of 5 s.
TEST(MutexTest, ATerminateHookIsAskedAgainAfterEachFiveSecondSlice) {
  const std::string name = UniqueName("sliced");
  CPMutex mutex(1, 1, name, 0, 0);
  Terminate secondTime(2);
  auto other = std::async(std::launch::async, [&] {
    const auto start = Clock::now();
    const unsigned long r = mutex.wait(60000, &secondTime);
    return std::make_pair(r, MsSince(start));
  });
  ASSERT_EQ(std::future_status::ready, other.wait_for(std::chrono::seconds(20)));
  const auto result = other.get();
  EXPECT_EQ(kAbandoned, result.first);
  EXPECT_EQ(2, secondTime.Asked());
  EXPECT_GE(result.second, 4900);
  EXPECT_LT(result.second, 9000);
  mutex.release();
}

// --- Between processes ------------------------------------------------------------------

TEST(MutexTest, InitialOwnerAcrossTwoProcessesOnlyTheCreatorAcquires) {
  const std::string name = UniqueName("initial");
  Handshake created, opened, released;
  auto child = Spawn([&] {
    if (!created.WaitFor(10000)) return 2;
    const auto start = Clock::now();
    CPMutex peer(1, 1, name, 0, 0);
    if (MsSince(start) > 2000) return 3;  // it must not have waited
    if (peer.isCreator() != 0) return 4;
    if (EntryOf(name)->dwHolderPid == Self()) return 5;
    if (peer.wait(0, nullptr) != kTimeout) return 6;
    opened.Signal();
    if (!released.WaitFor(10000)) return 7;
    if (peer.wait(5000, nullptr) != 0) return 8;
    if (EntryOf(name)->dwHolderPid != Self()) return 9;
    peer.release();
    return EntryOf(name)->dwHolderPid == 0 ? 0 : 10;
  });
  ASSERT_TRUE(child->Started());
  CPMutex mutex(1, 1, name, 0, 0);
  EXPECT_EQ(1, mutex.isCreator());
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  EXPECT_EQ(Self(), RawHolder(entry));
  created.Signal();
  ASSERT_TRUE(opened.WaitFor(10000)) << "the child's open failed: " << child->Join(5000);
  EXPECT_EQ(Self(), RawHolder(entry));
  EXPECT_EQ(2u, entry->dwUseCount);
  mutex.release();
  released.Signal();
  EXPECT_EQ(0, child->Join(10000));
}

TEST(MutexTest, WaitInASecondProcessTimesOutThenGetsTheMutexAfterTheRelease) {
  names_test::TableReader reader;  // a third process that only reads the table
  const std::string name = UniqueName("contended");
  Handshake created, timedOut, release, acquired, done;
  auto child = Spawn([&] {
    if (!created.WaitFor(10000)) return 2;
    CPMutex peer(0, 0, name, 0, 0);
    const auto start = Clock::now();
    if (peer.wait(100, nullptr) != kTimeout) return 3;
    const long took = MsSince(start);
    if (took < 90 || took > 2000) return 4;
    timedOut.Signal();
    if (!release.WaitFor(10000)) return 5;
    if (peer.wait(10000, nullptr) != 0) return 6;
    acquired.Signal();
    if (!done.WaitFor(10000)) return 7;
    peer.release();
    return 0;
  });
  ASSERT_TRUE(child->Started());
  CPMutex mutex(1, 1, name, 0, 0);
  ASSERT_EQ(1, mutex.isCreator());
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  const size_t at = names_test::EntryAt(static_cast<int>(entry - get_nameMap()->table()->entries));
  created.Signal();
  ASSERT_TRUE(timedOut.WaitFor(10000)) << "child: " << child->Join(5000);
  EXPECT_EQ(static_cast<uint32_t>(Self()), names_test::U32(reader.Snapshot(), at + 268));
  mutex.release();
  EXPECT_EQ(0u, names_test::U32(reader.Snapshot(), at + 268));
  release.Signal();
  ASSERT_TRUE(acquired.WaitFor(10000)) << "child: " << child->Join(5000);
  EXPECT_EQ(static_cast<int>(child->Pid()), RawHolder(entry));
  EXPECT_EQ(static_cast<uint32_t>(child->Pid()), names_test::U32(reader.Snapshot(), at + 268));
  EXPECT_EQ(kTimeout, mutex.wait(50, nullptr)) << "both processes hold the mutex";
  EXPECT_EQ(static_cast<int>(child->Pid()), RawHolder(entry))
      << "a failed wait changed the holder";
  done.Signal();
  EXPECT_EQ(0, child->Join(10000));
  EXPECT_EQ(0, RawHolder(entry));
  EXPECT_EQ(0UL, mutex.wait(0, nullptr));
  mutex.release();
}

TEST(MutexTest, WaitCountOfEachProcessIsRaisedDuringItsWaitsAndLoweredAfter) {
  const std::string name = UniqueName("counted");
  Handshake created, firstWait, secondWait, got, done;
  auto child = Spawn([&] {
    if (!created.WaitFor(10000)) return 2;
    CPMutex peer(0, 0, name, 0, 0);
    firstWait.Signal();
    if (peer.wait(600, nullptr) != kTimeout) return 3;
    if (!secondWait.WaitFor(10000)) return 4;
    if (peer.wait(10000, nullptr) != 0) return 5;
    got.Signal();
    if (!done.WaitFor(10000)) return 6;
    peer.release();
    return 0;
  });
  ASSERT_TRUE(child->Started());
  CPMutex mutex(1, 1, name, 0, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  const pid_t peer = child->Pid();
  created.Signal();
  ASSERT_TRUE(firstWait.WaitFor(10000));
  // A wait that times out: counted while it lasts, uncounted after.
  EXPECT_TRUE(WaitUntil([&] { return WaitCountOf(entry, peer) == 1; }, 5000))
      << "count " << WaitCountOf(entry, peer);
  EXPECT_EQ(0, WaitCountOf(entry, ::getpid()));
  EXPECT_TRUE(WaitUntil([&] { return WaitCountOf(entry, peer) == 0; }, 5000));
  // A wait that succeeds; meanwhile a thread of this process waits too.
  secondWait.Signal();
  EXPECT_TRUE(WaitUntil([&] { return WaitCountOf(entry, peer) == 1; }, 5000));
  EXPECT_EQ(Self(), RawHolder(entry));
  mutex.release();
  ASSERT_TRUE(got.WaitFor(10000));
  EXPECT_EQ(0, WaitCountOf(entry, peer));
  EXPECT_EQ(static_cast<int>(peer), RawHolder(entry));
  auto mine = std::async(std::launch::async, [&] {
    const unsigned long r = mutex.wait(10000, nullptr);
    const int holder = RawHolder(entry);
    if (r == 0) mutex.release();
    return std::make_pair(r, holder);
  });
  EXPECT_TRUE(WaitUntil([&] { return WaitCountOf(entry, ::getpid()) == 1; }, 5000));
  EXPECT_EQ(0, WaitCountOf(entry, peer));
  done.Signal();
  ASSERT_EQ(std::future_status::ready, mine.wait_for(std::chrono::seconds(10)));
  const auto result = mine.get();
  EXPECT_EQ(0UL, result.first);
  EXPECT_EQ(Self(), result.second);
  EXPECT_EQ(0, WaitCountOf(entry, ::getpid()));
  EXPECT_EQ(0, child->Join(10000));
}

TEST(MutexTest, RecursiveMutexesOfTwoProcessesExcludeEachOther) {
  const std::string name = UniqueName("recursive");
  Handshake created, tried, release;
  auto child = Spawn([&] {
    if (!created.WaitFor(10000)) return 2;
    CPMutex peer(1, 1, name, 1, 0);
    if (peer.isCreator() != 0) return 3;
    if (peer.wait(100, nullptr) != kTimeout) return 4;
    tried.Signal();
    if (!release.WaitFor(10000)) return 5;
    // The time-out above left this thread at the gate; it passes it again.
    if (peer.wait(10000, nullptr) != 0) return 6;
    if (peer.wait(0, nullptr) != 0) return 7;
    if (EntryOf(name)->dwHolderPid != Self()) return 8;
    peer.release();
    if (EntryOf(name)->dwHolderPid != Self()) return 9;
    peer.release();
    return EntryOf(name)->dwHolderPid == 0 ? 0 : 10;
  });
  ASSERT_TRUE(child->Started());
  CPMutex mutex(1, 1, name, 1, 0);
  ASSERT_EQ(0UL, mutex.wait(0, nullptr));
  created.Signal();
  ASSERT_TRUE(tried.WaitFor(10000)) << "child: " << child->Join(5000);
  mutex.release();
  EXPECT_EQ(Self(), RawHolder(EntryOf(name)));
  mutex.release();
  EXPECT_EQ(0, RawHolder(EntryOf(name)));
  release.Signal();
  EXPECT_EQ(0, child->Join(10000));
}

// --- A killed owner ------------------------------------------------------------------------

// A owns the mutex and is killed; W, in another process, is blocked in its
// wait. The kernel hands W the mutex at once, without any recovery pass;
// the next open in a third process then only takes back the dead owner's
// slot: the mutex belongs to a live process, so no unlocking line.
TEST(MutexTest, KilledOwnersWaiterGetsTheMutexAtOnceAndTheNextOpenOnlyClearsTheDeadSlot) {
  const std::string name = UniqueName("abandoned");
  Handshake owned, waiterGo, waiterGot, openerGo, waiterDone;
  Lifeline lifeline;
  auto owner = Spawn([&] {
    CPMutex mutex(1, 1, name, 0, 0);
    if (mutex.isCreator() != 1) return 2;
    owned.Signal();
    lifeline.WaitForRelease(60000);
    return 0;
  });
  auto waiter = Spawn([&] {
    if (!waiterGo.WaitFor(10000)) return 2;
    CPMutex mutex(0, 0, name, 0, 0);
    if (mutex.wait(30000, nullptr) != 0) return 3;
    const bool holder = EntryOf(name)->dwHolderPid == Self();
    waiterGot.Signal();
    if (!waiterDone.WaitFor(10000)) return 4;
    mutex.release();
    return holder ? 0 : 5;
  });
  auto opener = Spawn([&] {
    if (!openerGo.WaitFor(10000)) return 2;
    LogCapture log(2);
    CPMutex mutex(0, 0, name, 0, 0);
    const std::string unlocking = "CNameMap::checkForObsoleteEntries.2, obsolete pid ";
    int found = 0;
    for (const std::string& l : log.Lines())
      if (l.find(unlocking) != std::string::npos) ++found;
    return found == 0 ? 0 : 3;
  });
  ASSERT_TRUE(owner->Started());
  ASSERT_TRUE(waiter->Started());
  ASSERT_TRUE(opener->Started());
  ASSERT_TRUE(owned.WaitFor(10000)) << "owner: " << owner->Join(5000);
  waiterGo.Signal();

  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  const pid_t dead = owner->Pid();
  EXPECT_EQ(static_cast<int>(dead), RawHolder(entry));
  ASSERT_TRUE(WaitUntil([&] { return WaitCountOf(entry, waiter->Pid()) == 1; }, 10000))
      << "the waiter never waited";
  owner->Kill();
  ASSERT_EQ(kKilled, owner->Join(5000));
  // Well before any pid watcher's pass (every 20 s).
  ASSERT_TRUE(waiterGot.WaitFor(5000)) << "the waiter never got the abandoned mutex";
  EXPECT_EQ(static_cast<int>(waiter->Pid()), RawHolder(entry));
  EXPECT_EQ(0, WaitCountOf(entry, waiter->Pid()));
  EXPECT_EQ(0, WaitCountOf(entry, dead)) << "the dead owner's slot is left for recovery";

  openerGo.Signal();
  EXPECT_EQ(0, opener->Join(10000)) << "3: the open unlocked a live process's mutex";
  EXPECT_EQ(static_cast<int>(waiter->Pid()), RawHolder(entry));
  EXPECT_EQ(-1, WaitCountOf(entry, dead)) << "the dead owner's slot is still there";
  waiterDone.Signal();
  EXPECT_EQ(0, waiter->Join(10000));
}

// A waiter that is killed in its wait leaves its wait counted in its slot.
// Its death does not undo the lock of a live owner; once the owner dies
// too, the surviving waiter gets the mutex.
TEST(MutexTest, KilledWaiterAndKilledOwnerLeaveTheMutexToTheSurvivingWaiter) {
  const std::string name = UniqueName("abandoned");
  Handshake owned, go1, go2, got, done;
  Lifeline lifeline;
  auto owner = Spawn([&] {
    CPMutex mutex(1, 1, name, 0, 0);
    owned.Signal();
    lifeline.WaitForRelease(60000);
    return 0;
  });
  auto doomed = Spawn([&] {
    if (!go1.WaitFor(10000)) return 2;
    CPMutex mutex(0, 0, name, 0, 0);
    mutex.wait(60000, nullptr);
    return 3;
  });
  auto survivor = Spawn([&] {
    if (!go2.WaitFor(10000)) return 2;
    CPMutex mutex(0, 0, name, 0, 0);
    if (mutex.wait(30000, nullptr) != 0) return 3;
    got.Signal();
    if (!done.WaitFor(10000)) return 4;
    mutex.release();
    return 0;
  });
  ASSERT_TRUE(owner->Started());
  ASSERT_TRUE(doomed->Started());
  ASSERT_TRUE(survivor->Started());
  ASSERT_TRUE(owned.WaitFor(10000));
  go1.Signal();
  go2.Signal();
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  ASSERT_NE(nullptr, entry);
  ASSERT_TRUE(WaitUntil([&] {
    return WaitCountOf(entry, doomed->Pid()) == 1 && WaitCountOf(entry, survivor->Pid()) == 1;
  }, 10000));

  // The waiter dies; this process's next open runs the cleanup.
  const pid_t doomedPid = doomed->Pid();
  doomed->Kill();
  ASSERT_EQ(kKilled, doomed->Join(5000));
  { CPMutex probe(0, 0, name, 0, 0); }
  EXPECT_EQ(-1, WaitCountOf(entry, doomedPid)) << "the dead waiter's slot is still there";
  EXPECT_EQ(static_cast<int>(owner->Pid()), RawHolder(entry)) << "a dead waiter undid the lock";
  EXPECT_FALSE(got.WaitFor(300)) << "the survivor got a mutex that is still owned";

  const pid_t ownerPid = owner->Pid();
  owner->Kill();
  ASSERT_EQ(kKilled, owner->Join(5000));
  { CPMutex probe(0, 0, name, 0, 0); }
  ASSERT_TRUE(got.WaitFor(10000)) << "the survivor never got the mutex";
  EXPECT_EQ(static_cast<int>(survivor->Pid()), RawHolder(entry));
  EXPECT_EQ(-1, WaitCountOf(entry, ownerPid));
  EXPECT_EQ(0, WaitCountOf(entry, survivor->Pid()));
  EXPECT_EQ(kTimeout, [&] {
    CPMutex mine(0, 0, name, 0, 0);
    return mine.wait(50, nullptr);
  }()) << "the mutex is free while the survivor holds it";
  done.Signal();
  EXPECT_EQ(0, survivor->Join(10000));
}

// The slot of a process killed in its wait is given to the next process
// that opens the object; that process starts with no wait counted.
TEST(MutexTest, AProcessTakingOverTheSlotOfAKilledWaiterStartsWithNoWaitCounted) {
  const std::string name = UniqueName("reused");
  Handshake go, goOn, opened, quit;
  auto doomed = Spawn([&] {
    if (!go.WaitFor(10000)) return 2;
    CPMutex mutex(0, 0, name, 0, 0);
    mutex.wait(60000, nullptr);
    return 3;
  });
  auto successor = Spawn([&] {
    if (!goOn.WaitFor(20000)) return 2;
    CPMutex mutex(0, 0, name, 0, 0);
    opened.Signal();
    return quit.WaitFor(10000) ? 0 : 3;
  });
  ASSERT_TRUE(doomed->Started());
  ASSERT_TRUE(successor->Started());
  CPMutex mutex(1, 1, name, 0, 0);
  CNameMap::SNAMEINFO* entry = EntryOf(name);
  go.Signal();
  ASSERT_TRUE(WaitUntil([&] { return WaitCountOf(entry, doomed->Pid()) == 1; }, 10000));
  int doomedSlot = -1;
  for (int s = 0; s < CNameMap::kPidSlots; ++s)
    if (entry->pids[s].dwPid == static_cast<uint32_t>(doomed->Pid())) doomedSlot = s;
  ASSERT_EQ(1, doomedSlot);
  doomed->Kill();
  ASSERT_EQ(kKilled, doomed->Join(5000));

  goOn.Signal();  // the successor's open cleans the slot up and takes it
  ASSERT_TRUE(opened.WaitFor(10000));
  EXPECT_EQ(static_cast<uint32_t>(successor->Pid()), entry->pids[doomedSlot].dwPid);
  EXPECT_EQ(0, WaitCountOf(entry, successor->Pid())) << "the dead waiter's count was inherited";
  EXPECT_EQ(Self(), RawHolder(entry));
  quit.Signal();
  EXPECT_EQ(0, successor->Join(10000));
  mutex.release();
}

// --- Stress ----------------------------------------------------------------------------

// Threads of two processes increment a plain counter in a shared memory
// block under one named mutex, with a yield between reading and writing it
// to widen the window; no increment may be lost.
void CountUnderTheMutex(bool recursive) {
  constexpr int kThreads = 8;
  constexpr int kIncrements = 10000;
  const std::string name = UniqueName("stress");
  const std::string block = UniqueName("counter");
  struct Counter {
    volatile long value;
    volatile long inside;   // threads between wait and release
    volatile long overlap;  // times a thread found another inside
  };

  // The number of failed waits and releases of this process's threads.
  auto hammer = [&](CPMutex* mutex, Counter* counter) {
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([&] {
        for (int i = 0; i < kIncrements; ++i) {
          if (mutex->wait(20000, nullptr) != 0) {
            ++failures;
            continue;
          }
          if (recursive && mutex->wait(0, nullptr) != 0) ++failures;
          if (counter->inside++ != 0) counter->overlap = counter->overlap + 1;
          const long v = counter->value;
          if (i % 8 == 0) std::this_thread::yield();
          counter->value = v + 1;
          --counter->inside;
          try {
            if (recursive) mutex->release();
            mutex->release();
          } catch (const QKException&) {
            ++failures;
          }
        }
      });
    for (std::thread& t : threads) t.join();
    return failures.load();
  };

  Handshake opened, go;
  auto child = Spawn([&] {
    if (!opened.WaitFor(10000)) return 2;
    CPSharedMemory memory(block, sizeof(Counter));
    CPMutex mutex(0, 0, name, recursive ? 1 : 0, 0);
    go.Signal();
    return hammer(&mutex, static_cast<Counter*>(memory.getAddress())) == 0 ? 0 : 3;
  });
  ASSERT_TRUE(child->Started());
  CPSharedMemory memory(block, sizeof(Counter));
  ASSERT_EQ(1, memory.isCreator());
  Counter* counter = static_cast<Counter*>(memory.getAddress());
  CPMutex mutex(1, 0, name, recursive ? 1 : 0, 0);
  opened.Signal();
  ASSERT_TRUE(go.WaitFor(10000)) << "child: " << child->Join(5000);
  EXPECT_EQ(0, hammer(&mutex, counter));
  EXPECT_EQ(0, child->Join(60000));
  EXPECT_EQ(2L * kThreads * kIncrements, counter->value);
  EXPECT_EQ(0L, counter->overlap);
  EXPECT_EQ(0, RawHolder(EntryOf(name)));
  EXPECT_EQ(0, WaitCountOf(EntryOf(name), ::getpid()));
}

TEST(MutexStressTest, ThreadsOfTwoProcessesLoseNoIncrementUnderANamedMutex) {
  CountUnderTheMutex(false);
}

TEST(MutexStressTest, ThreadsOfTwoProcessesLoseNoIncrementUnderARecursiveNamedMutex) {
  CountUnderTheMutex(true);
}

}  // namespace

// CPMutexLock, the scoped guard of a CPMutex: it holds the mutex for its
// scope, gives it back when an exception leaves the scope, and never
// releases a lock that its own wait did not get.
//
// Each test runs in its own process and IPC and mount namespace. The other
// process of a test is forked before the test first touches the library,
// so that it registers as a process of its own.
#include "ambit/mutex_lock.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "ambit/event.h"
#include "ambit/exception.h"
#include "ambit/mutex.h"
#include "ambit/portable.h"
#include "gtest/gtest.h"
#include "support/forked_child.h"
#include "support/handshake.h"
#include "support/unique_name.h"

namespace {

constexpr unsigned long kTimeout = 0xE0000000UL;
constexpr unsigned long kAbandoned = 0xC0000000UL;

// Runs fn in a child that dies with the test process.
std::unique_ptr<ForkedChild> Spawn(const std::function<int()>& fn) {
  const pid_t parent = ::getpid();
  return std::unique_ptr<ForkedChild>(new ForkedChild([fn, parent] {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) return 100;
    return fn();
  }));
}

// A second process that, each time it is asked, tries the named mutex for
// `timeoutMs` and answers 1 when it got it (and gave it back), 0 otherwise.
class Prober {
 public:
  explicit Prober(const std::string& name) {
    m_child = Spawn([this, name] {
      unsigned char timeoutTenths = 0;
      std::unique_ptr<CPMutex> mutex;
      while (m_ask.WaitFor(20000, &timeoutTenths) && timeoutTenths != 0) {
        if (!mutex) mutex.reset(new CPMutex(1, 0, name, 0, 1));
        const bool got = mutex->wait(100UL * timeoutTenths, nullptr) == 0;
        if (got) mutex->release();
        m_answer.Signal(got ? 1 : 0);
      }
      return 0;
    });
  }
  ~Prober() {
    m_ask.Signal(0);
    m_child->Join(10000);
  }
  bool Started() const { return m_child->Started(); }

  // Whether the other process can take the mutex within timeoutMs (a
  // multiple of 100, at most 25500); false also when it does not answer.
  bool CanTake(int timeoutMs) {
    m_ask.Signal(static_cast<unsigned char>(timeoutMs / 100));
    unsigned char answer = 0;
    return m_answer.WaitFor(timeoutMs + 10000, &answer) && answer == 1;
  }

 private:
  std::unique_ptr<ForkedChild> m_child;
  Handshake m_ask, m_answer;
};

TEST(MutexLockTest, HoldsANamedMutexForItsScopeOnly) {
  const std::string name = UniqueName("guard");
  Prober other(name);
  ASSERT_TRUE(other.Started());
  CPMutex mutex(1, 0, name, 0, 1);
  {
    CPMutexLock lock(mutex);
    ASSERT_TRUE(lock.acquired());
    EXPECT_TRUE(static_cast<bool>(lock));
    EXPECT_EQ(0UL, lock.result());
    EXPECT_FALSE(other.CanTake(100)) << "the guard holds the mutex";
  }
  EXPECT_TRUE(other.CanTake(2000)) << "the guard's scope has ended";
}

TEST(MutexLockTest, AnExceptionLeavingTheBlockReleasesTheMutex) {
  const std::string name = UniqueName("guard-throw");
  Prober other(name);
  ASSERT_TRUE(other.Started());
  CPMutex mutex(1, 0, name, 0, 1);
  bool caught = false;
  try {
    CPMutexLock lock(mutex, 5000);
    ASSERT_TRUE(lock.acquired());
    EXPECT_FALSE(other.CanTake(100));
    throw std::runtime_error("inside the guarded block");
  } catch (const std::runtime_error&) {
    caught = true;
  }
  EXPECT_TRUE(caught);
  EXPECT_TRUE(other.CanTake(2000)) << "the exception left the mutex held";
}

TEST(MutexLockTest, TheLibrarysOwnExceptionFromNestedGuardsReleasesEveryLevel) {
  const std::string name = UniqueName("guard-nested");
  Prober other(name);
  ASSERT_TRUE(other.Started());
  CPMutex mutex(1, 0, name, 1, 1);  // recursive
  long code = 0;
  try {
    CPMutexLock outer(mutex, 5000);
    ASSERT_TRUE(outer.acquired());
    CPMutexLock inner(mutex, 5000);
    ASSERT_TRUE(inner.acquired());
    CPortable::throwQKException(QK_E_OUT_OF_MEMORY, __FILE__, __LINE__);
  } catch (const QKException& e) {
    code = e.code;
  }
  EXPECT_EQ(QK_E_OUT_OF_MEMORY, code);
  EXPECT_TRUE(other.CanTake(2000)) << "a level of the recursive mutex was left held";
}

TEST(MutexLockTest, AThrowingThreadLeavesAPrivateMutexFree) {
  CPMutex mutex(1, 0, "", 0, 1);  // unnamed: private to the process
  std::thread worker([&mutex] {
    try {
      CPMutexLock lock(mutex);
      throw 42;
    } catch (int) {
    }
  });
  worker.join();
  std::atomic<unsigned long> result{1};
  std::thread other([&] { result = mutex.wait(2000, nullptr); });
  other.join();
  EXPECT_EQ(0UL, result.load());
  if (result.load() == 0) mutex.release();
}

TEST(MutexLockTest, AGuardWhoseWaitTimedOutDoesNotReleaseTheHoldersLock) {
  const std::string name = UniqueName("guard-timeout");
  Handshake held, done;
  std::unique_ptr<ForkedChild> holder = Spawn([&] {
    CPMutex mutex(1, 0, name, 0, 1);
    if (mutex.wait(5000, nullptr) != 0) return 3;
    held.Signal();
    if (!done.WaitFor(20000)) return 4;
    mutex.release();
    return 0;
  });
  ASSERT_TRUE(holder->Started());
  ASSERT_TRUE(held.WaitFor(10000)) << "the holder never took the mutex";

  CPMutex mutex(1, 0, name, 0, 1);
  {
    CPMutexLock lock(mutex, 100);
    EXPECT_FALSE(lock.acquired());
    EXPECT_FALSE(static_cast<bool>(lock));
    EXPECT_EQ(kTimeout, lock.result());
  }
  // Had the guard released anyway, the holder's lock would be gone.
  EXPECT_EQ(kTimeout, mutex.wait(100, nullptr));
  done.Signal();
  EXPECT_EQ(0, holder->Join(10000));
  EXPECT_EQ(0UL, mutex.wait(2000, nullptr)) << "the holder's release";
  mutex.release();
}

class StopAtOnce : public CTerminateWait {
 public:
  int shouldTerminate() override { return 1; }
};

TEST(MutexLockTest, AnAbandonedWaitIsReportedAndNothingIsReleased) {
  CPMutex mutex(1, 0, UniqueName("guard-abandon"), 1, 1);  // recursive
  ASSERT_EQ(0UL, mutex.wait(1000, nullptr));
  StopAtOnce stop;
  {
    CPMutexLock lock(mutex, 5000, &stop);
    EXPECT_FALSE(lock.acquired());
    EXPECT_EQ(kAbandoned, lock.result());
  }
  // One level is still held: giving it back succeeds, a second would throw.
  EXPECT_NO_THROW(mutex.release());
  EXPECT_THROW(mutex.release(), QKException);
}

TEST(MutexLockTest, UnlockReleasesEarlyAndOnlyOnce) {
  CPMutex mutex(1, 0, UniqueName("guard-unlock"), 1, 1);  // recursive
  ASSERT_EQ(0UL, mutex.wait(1000, nullptr));             // level 1, by hand
  {
    CPMutexLock lock(mutex);  // level 2
    ASSERT_TRUE(lock.acquired());
    lock.unlock();  // back to level 1
    EXPECT_FALSE(lock.acquired());
    lock.unlock();  // nothing left to do
  }
  EXPECT_NO_THROW(mutex.release()) << "the guard released more than its own level";
  EXPECT_THROW(mutex.release(), QKException);
}

}  // namespace

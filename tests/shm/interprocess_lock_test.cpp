// The lock between processes: a recursive mutex plus an flock on a file
// under /tmp, taken at the first nesting level only. Seen from other
// processes, which probe the file with their own descriptors.
#include "shm/interprocess_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "ambit/exception.h"
#include "ambit/sharedmemory.h"
#include "gtest/gtest.h"
#include "shm/registry_view.h"
#include "support/forked_child.h"
#include "support/handshake.h"
#include "support/log_capture.h"

namespace {

using shm_test::HasLineStartingWith;
using shm_test::kLockFile;

enum ProbeAnswer : unsigned char { kBusy = 1, kFree = 2, kProbeError = 3 };

// Tries an exclusive non-blocking flock on the file through a descriptor of
// its own (a separate open file description): EWOULDBLOCK means someone
// holds the lock.
unsigned char ProbeFlock(const char* path) {
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return kProbeError;
  unsigned char answer = kProbeError;
  if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
    answer = kFree;
    ::flock(fd, LOCK_UN);
  } else if (errno == EWOULDBLOCK) {
    answer = kBusy;
  }
  ::close(fd);
  return answer;
}

// Another process that probes the lock file on request, so that the test
// sees the flock as other processes do.
class FlockProber {
 public:
  explicit FlockProber(const char* path)
      : m_child([this, path] {
          for (;;) {
            unsigned char request = 0;
            if (!m_ask.WaitFor(10000, &request)) return 2;
            if (request == 0) return 0;
            m_answer.Signal(ProbeFlock(path));
          }
        }) {}

  // kBusy, kFree, kProbeError, or 0 when the prober did not answer.
  unsigned char Probe() {
    unsigned char v = 0;
    if (!m_ask.Signal(1) || !m_answer.WaitFor(5000, &v)) return 0;
    return v;
  }
  int Finish() {
    m_ask.Signal(0);
    return m_child.Join(5000);
  }

 private:
  Handshake m_ask, m_answer;  // made before the child is forked
  ForkedChild m_child;
};

TEST(InterprocessLockTest, NestedLocksTakeTheFlockOnceAndDropItAfterTheLastUnlock) {
  FlockProber prober(kLockFile);
  CInterprocessLock lock("CShareMemMap");
  EXPECT_EQ(kFree, prober.Probe()) << "nobody holds it yet";

  lock.lock();
  EXPECT_EQ(kBusy, prober.Probe()) << "first level";
  lock.lock();
  lock.lock();
  EXPECT_EQ(kBusy, prober.Probe()) << "third level";
  lock.unlock();
  EXPECT_EQ(kBusy, prober.Probe()) << "back at the second level";
  lock.unlock();
  EXPECT_EQ(kBusy, prober.Probe()) << "back at the first level";
  lock.unlock();
  EXPECT_EQ(kFree, prober.Probe()) << "after the last unlock";

  // And again: the count went back to 0, so the next lock takes it anew.
  lock.lock();
  EXPECT_EQ(kBusy, prober.Probe());
  lock.unlock();
  EXPECT_EQ(kFree, prober.Probe());
  EXPECT_EQ(0, prober.Finish());
}

TEST(InterprocessLockTest, LockFileIsMadeUnderTmpWithMode0777WhateverTheUmask) {
  const mode_t saved = ::umask(022);
  {
    CInterprocessLock lock("CShareMemMap");
    EXPECT_EQ(kLockFile, lock.path());
  }
  ::umask(saved);
  struct stat st;
  ASSERT_EQ(0, ::stat(kLockFile, &st)) << "the lock file stays after the lock goes";
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(0777u, st.st_mode & 07777u);
}

TEST(InterprocessLockTest, LockFileThatCannotBeCreatedThrowsItsErrno) {
  ASSERT_EQ(0, ::mkdir(kLockFile, 0755)) << "a directory in the file's place";
  LogCapture log;
  long code = 0;
  try {
    CInterprocessLock lock("CShareMemMap");
    ADD_FAILURE() << "no exception";
  } catch (const QKException& e) {
    code = e.code;
  }
  EXPECT_EQ(EISDIR, code);
  char expected[64];
  std::snprintf(expected, sizeof expected, "(Error) Throwing exception 0x%08X at ", EISDIR);
  EXPECT_TRUE(HasLineStartingWith(log.Lines(), expected));
}

TEST(InterprocessLockTest, RegistryWithoutItsLockFileGivesTheErrnoToTheCaller) {
  ASSERT_EQ(0, ::mkdir(kLockFile, 0755));
  // The failed registry keeps the singletons' mutex locked, so the attempt
  // is made in a child of its own.
  ForkedChild child([] {
    try {
      CPSharedMemory memory("no-lock-file", 64);
      return 2;
    } catch (const QKException& e) {
      return e.code == EISDIR ? 0 : 3;
    }
  });
  ASSERT_TRUE(child.Started());
  EXPECT_EQ(0, child.Join(10000));
  EXPECT_EQ(-1, shm_test::SegmentId(shm_test::kRegistryKey)) << "no registry was made";
}

TEST(InterprocessLockTest, AnotherProcessWaitsUntilTheHolderUnlocks) {
  Handshake held, release;
  ForkedChild holder([&] {
    CInterprocessLock lock("CShareMemMap");
    lock.lock();
    lock.lock();
    held.Signal();
    if (!release.WaitFor(10000)) return 2;
    lock.unlock();
    lock.unlock();
    return 0;
  });
  ASSERT_TRUE(holder.Started());
  ASSERT_TRUE(held.WaitFor(5000));

  CInterprocessLock lock("CShareMemMap");
  std::atomic<bool> got(false);
  std::thread waiter([&] {
    lock.lock();
    got = true;
    lock.unlock();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const bool gotEarly = got;
  release.Signal();
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!got && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  const bool gotLate = got;
  if (!gotLate) holder.Kill();  // frees the waiter so that join returns
  waiter.join();
  EXPECT_FALSE(gotEarly) << "took the lock while another process held it";
  EXPECT_TRUE(gotLate) << "never took the lock after it was released";
  EXPECT_EQ(0, holder.Join(5000));
}

TEST(InterprocessLockTest, HolderKilledWhileLockedLeavesTheLockFree) {
  Handshake held;
  ForkedChild holder([&] {
    CInterprocessLock lock("CShareMemMap");
    lock.lock();
    held.Signal();
    for (;;) ::pause();
    return 0;
  });
  ASSERT_TRUE(holder.Started());
  ASSERT_TRUE(held.WaitFor(5000));
  EXPECT_EQ(kBusy, ProbeFlock(kLockFile));
  holder.Kill();
  EXPECT_EQ(128 + SIGKILL, holder.Join(5000));
  EXPECT_EQ(kFree, ProbeFlock(kLockFile));
}

TEST(InterprocessLockTest, OtherThreadsOfTheProcessWaitForTheHoldingThread) {
  CInterprocessLock lock("CShareMemMap");
  lock.lock();
  std::atomic<bool> got(false);
  std::thread other([&] {
    lock.lock();
    got = true;
    lock.unlock();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(got);
  lock.unlock();
  other.join();
  EXPECT_TRUE(got);
  EXPECT_EQ(kFree, ProbeFlock(kLockFile));
}

}  // namespace

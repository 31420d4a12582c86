// The lock between processes: a recursive mutex plus an flock on a file
// under /tmp, taken at the first nesting level only. Seen from other
// processes, which probe the file with their own descriptors.
#include "shm/interprocess_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "ambit/event.h"
#include "ambit/exception.h"
#include "ambit/trace.h"
#include "ambit/sharedmemory.h"
#include "gtest/gtest.h"
#include "names/name_map.h"
#include "shm/share_mem_map.h"
#include "shm/planted_file.h"
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

TEST(InterprocessLockTest, SymlinkAtALockFilesPathThrowsEloopAndLeavesItsTargetAlone) {
  for (const char* name : {"CShareMemMap", "CNameMap"}) {
    SCOPED_TRACE(name);
    const std::string path = std::string("/tmp/Ambit-ipclock-") + name;
    PlantedTarget target("not a lock file\n", 0640);
    ASSERT_TRUE(target.LinkFrom(path.c_str()));
    long code = 0;
    try {
      CInterprocessLock lock(name);
      ADD_FAILURE() << "no exception";
    } catch (const QKException& e) {
      code = e.code;
    }
    EXPECT_EQ(ELOOP, code);
    EXPECT_EQ("", target.Damage());
    ::unlink(path.c_str());
  }
}

TEST(InterprocessLockTest, ExistingLockFileIsNeitherTruncatedNorReplaced) {
  {
    const int fd = ::open(kLockFile, O_WRONLY | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(5, ::write(fd, "bytes", 5));
    ::close(fd);
  }
  struct stat before;
  ASSERT_EQ(0, ::stat(kLockFile, &before));
  {
    CInterprocessLock lock("CShareMemMap");
    lock.lock();
    lock.unlock();
  }
  struct stat after;
  ASSERT_EQ(0, ::stat(kLockFile, &after));
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(5, after.st_size) << "the lock file was truncated";
  EXPECT_EQ(0777u, after.st_mode & 07777u) << "its mode is given through the descriptor";
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

TEST(InterprocessLockTest, LockFileRemovedWhileInUseIsFollowedToTheFileNowAtThePath) {
  // The crash cleanup removes "/tmp/Ambit-ipclock-" + the name of a freed
  // object, and an object may be named "CShareMemMap". A process that
  // opened the lock file before must not then lock the removed file while
  // newer processes lock the new one.
  CInterprocessLock lock("CShareMemMap");
  ASSERT_EQ(0, ::unlink(kLockFile));
  Handshake held, release;
  ForkedChild newer([&] {
    CInterprocessLock mine("CShareMemMap");  // makes the file anew
    mine.lock();
    held.Signal();
    if (!release.WaitFor(10000)) return 2;
    mine.unlock();
    return 0;
  });
  ASSERT_TRUE(newer.Started());
  ASSERT_TRUE(held.WaitFor(5000));

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
  if (!gotLate) newer.Kill();
  waiter.join();
  EXPECT_FALSE(gotEarly) << "two processes held the lock at once, each on its own file";
  EXPECT_TRUE(gotLate);
  EXPECT_EQ(0, newer.Join(5000));
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

// --- fork() without exec -------------------------------------------------------

constexpr char kNameMapLockFile[] = "/tmp/Ambit-ipclock-CNameMap";

// Polls until the lock file is free, for at most nTimeoutMs.
unsigned char ProbeUntilFree(const char* path, int nTimeoutMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(nTimeoutMs);
  unsigned char answer = ProbeFlock(path);
  while (answer != kFree && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    answer = ProbeFlock(path);
  }
  return answer;
}

TEST(InterprocessLockForkTest, ParentKilledHoldingBothRegistryLocksFreesThemWhileItsChildLives) {
  Handshake held, childStarted, childDone;
  ForkedChild parent([&] {
    CNameMap* names = get_nameMap();
    CShareMemMap* registry = get_shareMemMap();
    // A child forked without exec, alive for the rest of the test.
    ForkedChild child([&] {
      childStarted.Signal();
      return childDone.WaitFor(20000) ? 0 : 2;
    });
    if (!childStarted.WaitFor(5000)) return 2;
    names->lock();
    registry->interprocessLock()->lock();
    held.Signal();
    for (;;) ::pause();
    return 0;
  });
  ASSERT_TRUE(parent.Started());
  ASSERT_TRUE(held.WaitFor(10000));
  EXPECT_EQ(kBusy, ProbeFlock(kLockFile));
  EXPECT_EQ(kBusy, ProbeFlock(kNameMapLockFile));

  parent.Kill();
  EXPECT_EQ(128 + SIGKILL, parent.Join(5000));
  EXPECT_EQ(kFree, ProbeUntilFree(kLockFile, 2000)) << "the forked child keeps the registry lock";
  EXPECT_EQ(kFree, ProbeUntilFree(kNameMapLockFile, 2000))
      << "the forked child keeps the name map's lock";
  childDone.Signal();
}

// A tracing hook that stops the first thread that reaches a given line
// until it is released: that thread then holds every lock the library
// holds at that line.
class StoppingHook : public AmbitTracing {
 public:
  explicit StoppingHook(const char* prefix) : m_prefix(prefix) {}
  void traceConditional(unsigned long, unsigned long, const char* format, va_list) override {
    if (std::strncmp(format, m_prefix, std::strlen(m_prefix)) != 0 || m_stopped.exchange(true))
      return;
    m_reached.Signal();
    m_release.WaitFor(15000);
  }
  void traceUnconditional(unsigned long, const char*, va_list) override {}

  Handshake m_reached, m_release;

 private:
  const char* m_prefix;
  std::atomic<bool> m_stopped{false};
};

TEST(InterprocessLockForkTest, ChildForkedWhileOtherThreadsHeldTheLocksUsesTheLibrary) {
  ForkedChild parent([] {
    get_shareMemMap();
    get_nameMap();
    // One thread stops inside an acquire (holding the registry's mutex and
    // its interprocess lock), another holds the name map's lock.
    StoppingHook hook("CShareMemMap::acquireSharedMemory - free entry");
    AmbitDebug::setTracingHelper(&hook);
    std::thread acquirer([] {
      int created = 0;
      get_shareMemMap()->acquireSharedMemory("parent-segment", 64, &created);
    });
    Handshake namesHeld, namesRelease;
    std::thread namesHolder([&] {
      get_nameMap()->lock();
      namesHeld.Signal();
      namesRelease.WaitFor(15000);
      get_nameMap()->unlock();
    });
    const bool ready = hook.m_reached.WaitFor(5000) && namesHeld.WaitFor(5000);

    Handshake forked;
    ForkedChild child([&] {
      AmbitDebug::setTracingHelper(nullptr);
      forked.Signal();
      int created = 0;
      if (get_shareMemMap()->acquireSharedMemory("child-segment", 64, &created) == nullptr)
        return 2;
      try {
        CPEvent event(1, "child-event", 1);
      } catch (...) {
        return 3;
      }
      get_shareMemMap()->releaseSharedMemory("child-segment");
      return 0;
    });
    forked.WaitFor(5000);
    // The parent's threads go on and let go; the child then gets its turn.
    hook.m_release.Signal();
    namesRelease.Signal();
    acquirer.join();
    namesHolder.join();
    AmbitDebug::setTracingHelper(nullptr);
    const int verdict = child.Join(10000);
    if (!ready) return 4;
    return verdict == 0 ? 0 : (verdict == -1 ? 5 : 10 + verdict);
  });
  ASSERT_TRUE(parent.Started());
  EXPECT_EQ(0, parent.Join(30000)) << "5: the child hung on a lock held at the fork";
}

}  // namespace

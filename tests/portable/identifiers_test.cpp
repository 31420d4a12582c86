// Process and thread identifiers: the kernel thread id, the process id and
// the pthread id, which is a different number.
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <type_traits>

#include "ambit/portable.h"
#include "gtest/gtest.h"
#include "support/forked_child.h"
#include "support/handshake.h"

namespace {

// The kernel thread id as the kernel reports it: system call 224 on i386.
unsigned long KernelThreadId() {
  return static_cast<unsigned long>(::syscall(224));
}

// A thread whose identifiers are read while it is alive; it stays alive
// until Release() (or at most 5 s) so that two of them coexist.
class IdThread {
 public:
  IdThread()
      : m_thread([this] {
          m_tid = CPortable::GetCurrentThreadId();
          m_kernelTid = KernelThreadId();
          m_pid = CPortable::GetCurrentProcessId();
          m_pthreadId = CPortable::GetCurrentPThreadId();
          m_pthreadSelf = static_cast<unsigned long>(::pthread_self());
          m_ready.Signal();
          m_release.WaitFor(5000);
        }) {}
  ~IdThread() {
    Release();
    m_thread.join();  // bounded: the thread waits at most 5 s
  }
  bool WaitReady() { return m_ready.WaitFor(5000); }
  void Release() {
    if (!m_released) m_release.Signal();
    m_released = true;
  }

  unsigned long m_tid = 0, m_kernelTid = 0, m_pid = 0, m_pthreadId = 0,
                m_pthreadSelf = 0;

 private:
  Handshake m_ready, m_release;
  bool m_released = false;
  std::thread m_thread;
};

TEST(IdentifiersTest, IdentifiersAre32BitUnsigned) {
  static_assert(sizeof(CPortable::GetCurrentProcessId()) == 4, "");
  static_assert(sizeof(CPortable::GetCurrentThreadId()) == 4, "");
  static_assert(sizeof(CPortable::GetCurrentPThreadId()) == 4, "");
  static_assert(std::is_unsigned<decltype(CPortable::GetCurrentThreadId())>::value, "");
  // The pthread id keeps every bit of pthread_self().
  EXPECT_EQ(static_cast<unsigned long>(::pthread_self()),
            CPortable::GetCurrentPThreadId());
}

TEST(IdentifiersTest, ProcessIdIsGetpid) {
  EXPECT_EQ(static_cast<unsigned long>(::getpid()),
            CPortable::GetCurrentProcessId());
}

TEST(IdentifiersTest, ForkedChildReportsItsOwnProcessId) {
  const unsigned long parent = CPortable::GetCurrentProcessId();
  ForkedChild child([&] {
    const unsigned long mine = CPortable::GetCurrentProcessId();
    if (mine == parent) return 1;
    if (mine != static_cast<unsigned long>(::getpid())) return 2;
    return 0;
  });
  ASSERT_TRUE(child.Started());
  EXPECT_EQ(0, child.Join(5000));
}

TEST(IdentifiersTest, SingleThreadedProcessHasThreadIdEqualToProcessId) {
  // A forked child has exactly one thread, whatever the test program has
  // started, and that thread is the child's main thread.
  ForkedChild child([] {
    const unsigned long tid = CPortable::GetCurrentThreadId();
    const unsigned long pid = CPortable::GetCurrentProcessId();
    if (tid == 0) return 1;
    if (tid != pid) return 2;
    if (tid != KernelThreadId()) return 3;
    return 0;
  });
  ASSERT_TRUE(child.Started());
  EXPECT_EQ(0, child.Join(5000));
}

TEST(IdentifiersTest, MainThreadIdIsTheProcessId) {
  // Tests run on the program's main thread, whose kernel id is the pid.
  EXPECT_EQ(CPortable::GetCurrentProcessId(), CPortable::GetCurrentThreadId());
}

TEST(IdentifiersTest, ThreadIdIsTheKernelThreadId) {
  EXPECT_EQ(KernelThreadId(), CPortable::GetCurrentThreadId());
  IdThread worker;
  ASSERT_TRUE(worker.WaitReady());
  EXPECT_EQ(worker.m_kernelTid, worker.m_tid);
  EXPECT_NE(0u, worker.m_tid);
  // The kernel lists the thread under the process's tasks.
  struct stat st;
  const std::string task = "/proc/self/task/" + std::to_string(worker.m_tid);
  EXPECT_EQ(0, ::stat(task.c_str(), &st)) << task;
}

TEST(IdentifiersTest, TwoThreadsHaveDifferentThreadIdsAndTheSameProcessId) {
  IdThread first, second;
  ASSERT_TRUE(first.WaitReady());
  ASSERT_TRUE(second.WaitReady());  // both alive now: ids cannot be reused
  EXPECT_NE(first.m_tid, second.m_tid);
  EXPECT_NE(CPortable::GetCurrentThreadId(), first.m_tid);
  EXPECT_NE(CPortable::GetCurrentThreadId(), second.m_tid);
  EXPECT_EQ(CPortable::GetCurrentProcessId(), first.m_pid);
  EXPECT_EQ(CPortable::GetCurrentProcessId(), second.m_pid);
  EXPECT_NE(first.m_pthreadId, second.m_pthreadId);
}

TEST(IdentifiersTest, PThreadIdIsPthreadSelfAndNotTheKernelId) {
  EXPECT_NE(CPortable::GetCurrentThreadId(), CPortable::GetCurrentPThreadId());
  IdThread worker;
  ASSERT_TRUE(worker.WaitReady());
  EXPECT_EQ(worker.m_pthreadSelf, worker.m_pthreadId);
  EXPECT_NE(worker.m_tid, worker.m_pthreadId);
}

TEST(IdentifiersTest, PThreadIdInASingleThreadedChildIsNotItsKernelId) {
  ForkedChild child([] {
    if (CPortable::GetCurrentPThreadId() !=
        static_cast<unsigned long>(::pthread_self()))
      return 1;
    return CPortable::GetCurrentPThreadId() != CPortable::GetCurrentThreadId()
               ? 0
               : 2;
  });
  ASSERT_TRUE(child.Started());
  EXPECT_EQ(0, child.Join(5000));
}

}  // namespace

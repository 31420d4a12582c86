#ifndef AMBIT_TESTS_NAMES_NAMES_SUPPORT_H_
#define AMBIT_TESTS_NAMES_NAMES_SUPPORT_H_

// Helpers shared by the name-map tests. Every test of names_test runs in a
// process of its own (and in its own IPC and mount namespace), so a test
// starts with no name map. Children that must behave like separate programs
// are forked before the test process first touches the library: a child
// forked later would share the parent's singletons, its lock file
// description (so no mutual exclusion with the parent) and would have no
// pid watcher.

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "names/name_map.h"
#include "support/forked_child.h"
#include "support/handshake.h"

namespace names_test {

// A forked child that is killed with its parent (so that a test process
// that dies never leaves children behind in the namespace).
inline std::unique_ptr<ForkedChild> Spawn(const std::function<int()>& fn) {
  const pid_t parent = ::getpid();
  return std::unique_ptr<ForkedChild>(new ForkedChild([fn, parent] {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) return 100;
    return fn();
  }));
}

// Polls pred every 2 ms until it holds or nTimeoutMs pass.
inline bool WaitUntil(const std::function<bool()>& pred, int nTimeoutMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(nTimeoutMs);
  for (;;) {
    if (pred()) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

// A pipe whose write end only the parent keeps: children wait on it, and
// when the parent lets go (or dies) every child sees the end at once.
class Lifeline {
 public:
  Lifeline() {
    if (::pipe2(m_fds, O_CLOEXEC) != 0) m_fds[0] = m_fds[1] = -1;
  }
  ~Lifeline() {
    Release();
    if (m_fds[0] >= 0) ::close(m_fds[0]);
  }
  Lifeline(const Lifeline&) = delete;
  Lifeline& operator=(const Lifeline&) = delete;

  // Parent: tells every child to finish.
  void Release() {
    if (m_fds[1] >= 0) ::close(m_fds[1]);
    m_fds[1] = -1;
  }
  // Child: true when the parent let go within nTimeoutMs.
  bool WaitForRelease(int nTimeoutMs) {
    Release();  // the child's copy of the write end
    pollfd p = {m_fds[0], POLLIN, 0};
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(nTimeoutMs);
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                            end - std::chrono::steady_clock::now()).count();
      const int r = ::poll(&p, 1, left > 0 ? static_cast<int>(left) : 0);
      if (r > 0) return true;
      if (r == 0) return false;
      if (errno != EINTR) return false;
    }
  }

 private:
  int m_fds[2];
};

inline CNameMap* Map() { return get_nameMap(); }

// createNamedObject with the created flag thrown away when not wanted.
inline CNameMap::SNAMEINFO* Named(const std::string& name, CNameMap::NAMETYPE type,
                                  CNameMap::CREATETYPE mode = CNameMap::CreateOrOpen,
                                  int* created = nullptr, unsigned long value = 0) {
  int ignored = 0;
  return Map()->createNamedObject(name, mode, type, created != nullptr ? created : &ignored,
                                  value);
}

inline long IndexOf(const CNameMap::SNAMEINFO* e) {
  return e == nullptr ? -1 : static_cast<long>(e - Map()->table()->entries);
}

// The slot of pid in the entry, or null.
inline CNameMap::SPIDINFO* SlotOf(CNameMap::SNAMEINFO* e, pid_t pid) {
  for (CNameMap::SPIDINFO& p : e->pids)
    if (p.dwPid == static_cast<uint32_t>(pid)) return &p;
  return nullptr;
}

inline int UsedSlots(const CNameMap::SNAMEINFO* e) {
  int n = 0;
  for (const CNameMap::SPIDINFO& p : e->pids)
    if (p.dwPid != 0) ++n;
  return n;
}

// Runs fn under the name map's interprocess lock, as the object classes do
// when they write dwHolderPid and dwWaitCount.
inline void UnderMapLock(const std::function<void()>& fn) {
  Map()->lock();
  fn();
  Map()->unlock();
}

// A crash-recovery pass as the watcher runs it.
inline void RunRecoveryPass() {
  UnderMapLock([] {
    Map()->checkForObsoleteEntries();
    Map()->table()->dwBusyPid = 0;
  });
}

// Makes the entry look as a named mutex's owner leaves it: the entry's
// mutex locked and dwHolderPid set to this process.
inline void HoldMutexEntry(CNameMap::SNAMEINFO* e) {
  pthread_mutex_lock(&e->object.mutex);
  UnderMapLock([e] { e->dwHolderPid = static_cast<int32_t>(::getpid()); });
}

// True when nobody holds the entry's mutex (it is taken and given back). A
// mutex whose owner died and that nobody has taken over yet is not free;
// it is looked at without being taken (a trylock would take it over).
inline bool MutexIsFree(CNameMap::SNAMEINFO* e) {
  constexpr unsigned kOwnerDied = 0x40000000u;  // the kernel's mark on a robust mutex
  if ((__atomic_load_n(&e->object.mutex.__data.__lock, __ATOMIC_SEQ_CST) & kOwnerDied) != 0)
    return false;
  if (pthread_mutex_trylock(&e->object.mutex) != 0) return false;
  pthread_mutex_unlock(&e->object.mutex);
  return true;
}

// True when pid is blocked inside the wait of the event in entry e: it has
// recorded itself as the waiter (done with the event's mutex held) and the
// mutex is free again, which happens only inside the condition wait.
inline bool IsWaitingOnEvent(CNameMap::SNAMEINFO* e, pid_t pid) {
  if (e->dwHolderPid != static_cast<int32_t>(pid)) return false;
  pthread_mutex_t* m = &e->object.condvar.mutex;
  if (pthread_mutex_trylock(m) != 0) return false;
  const bool waiting = e->dwHolderPid == static_cast<int32_t>(pid);
  pthread_mutex_unlock(m);
  return waiting;
}

inline int CountContaining(const std::vector<std::string>& lines, const std::string& text) {
  int n = 0;
  for (const std::string& l : lines)
    if (l.find(text) != std::string::npos) ++n;
  return n;
}

inline std::string Joined(const std::vector<std::string>& lines) {
  std::string all;
  for (const std::string& l : lines) all += l + (l.empty() || l.back() != '\n' ? "\n" : "");
  return all;
}

// The kernel names of this process's threads.
inline std::vector<std::string> ThreadNames() {
  std::vector<std::string> names;
  if (DIR* d = ::opendir("/proc/self/task")) {
    while (dirent* t = ::readdir(d)) {
      if (t->d_name[0] == '.') continue;
      const std::string path = std::string("/proc/self/task/") + t->d_name + "/comm";
      if (FILE* f = std::fopen(path.c_str(), "r")) {
        char buf[32] = {0};
        if (std::fgets(buf, sizeof buf, f) != nullptr) {
          std::string n(buf);
          if (!n.empty() && n.back() == '\n') n.pop_back();
          names.push_back(n);
        }
        std::fclose(f);
      }
    }
    ::closedir(d);
  }
  return names;
}

// Counts kill(pid, 0) probes of chosen pids by any code of this process
// (the test binary supplies kill(), which counts and forwards to the kernel).
void CountProbesOf(const std::vector<pid_t>& pids);
int ProbesOf(pid_t pid);
void StopCountingProbes();

// Tests that build the name map need a process of their own.
class NameMapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (g_pnameMap != nullptr) GTEST_SKIP() << "needs a fresh process: run it through ctest";
  }
};

}  // namespace names_test

#endif  // AMBIT_TESTS_NAMES_NAMES_SUPPORT_H_

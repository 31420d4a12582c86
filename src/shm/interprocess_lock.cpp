#include "shm/interprocess_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "ambit/portable.h"
#include "portable/shared_file.h"
#include "trace/trace_impl.h"

namespace {

const char kLockFilePrefix[] = "/tmp/Ambit-ipclock-";
constexpr mode_t kLockFileMode = 0777;  // other users' processes open it too
constexpr int kMaxReopens = 16;  // a file replaced again and again: give up

// Opens the lock file (created when missing, never truncated) and gives it
// its mode through the descriptor. A file of another user keeps its mode.
int OpenLockFile(const std::string& path) {
  const int fd = OpenSharedFile(path.c_str(), O_WRONLY | O_CREAT, kLockFileMode);
  if (fd >= 0) ::fchmod(fd, kLockFileMode);
  return fd;
}

// The process's live locks, so that a forked child can renew each one.
pthread_mutex_t g_locksMutex = PTHREAD_MUTEX_INITIALIZER;
CInterprocessLock* g_pFirstLock = nullptr;
pthread_once_t g_forkHandlersOnce = PTHREAD_ONCE_INIT;

}  // namespace

// Runs in the child of fork(), on the only thread there is. Any other thread
// of the parent may have held the list's mutex or a lock's at the fork, so
// they are made anew rather than taken.
struct CInterprocessLockForkHandlers {
  static void InChild() {
    pthread_mutex_init(&g_locksMutex, nullptr);
    for (CInterprocessLock* p = g_pFirstLock; p != nullptr; p = p->m_pNext)
      p->renewAfterFork();
  }
  static void Register() { pthread_atfork(nullptr, nullptr, &InChild); }
};

CInterprocessLock::CInterprocessLock(const std::string& name)
    : m_name(kLockFilePrefix + name),
      m_fd(-1),
      m_count(0),
      m_unused(0),
      m_pPrev(nullptr),
      m_pNext(nullptr) {
  m_fd = OpenLockFile(m_name);
  if (m_fd < 0) AMBIT_THROW(errno);
  initMutex();
  pthread_once(&g_forkHandlersOnce, &CInterprocessLockForkHandlers::Register);
  pthread_mutex_lock(&g_locksMutex);
  m_pNext = g_pFirstLock;
  if (g_pFirstLock != nullptr) g_pFirstLock->m_pPrev = this;
  g_pFirstLock = this;
  pthread_mutex_unlock(&g_locksMutex);
}

CInterprocessLock::~CInterprocessLock() {
  pthread_mutex_lock(&g_locksMutex);
  if (m_pPrev != nullptr) m_pPrev->m_pNext = m_pNext;
  else g_pFirstLock = m_pNext;
  if (m_pNext != nullptr) m_pNext->m_pPrev = m_pPrev;
  pthread_mutex_unlock(&g_locksMutex);
  if (m_fd >= 0) ::close(m_fd);
  pthread_mutex_destroy(&m_mutex);
}

void CInterprocessLock::initMutex() {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&m_mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

void CInterprocessLock::renewAfterFork() {
  // Closing the inherited descriptor leaves the parent's flock alone (the
  // parent still refers to that open file description); the new descriptor
  // is this process's own, so the parent's lock dies with the parent.
  if (m_fd >= 0) ::close(m_fd);
  m_fd = OpenLockFile(m_name);
  initMutex();
  m_count = 0;
}

void CInterprocessLock::lock() {
  pthread_mutex_lock(&m_mutex);
  if (m_count == 0) {
    // A child whose reopen after fork() failed tries again here, so that
    // it never goes on without the flock while the file can be had.
    if (m_fd < 0) m_fd = OpenLockFile(m_name);
    if (m_fd < 0)
      AMBIT_TRACE_ERROR("(Error) CInterprocessLock::lock - open \"%s\" failed %d\n",
                        m_name.c_str(), errno);
    takeFlock();
  }
  ++m_count;
}

void CInterprocessLock::takeFlock() {
  // The lock file can be removed or replaced while this process waits (the
  // crash cleanup removes "/tmp/Ambit-ipclock-" + an object's name, and an
  // object may be named like a registry). A flock on a file that is no
  // longer at the path excludes nobody who opens the path afterwards, so
  // after each flock the file held must still be the one at the path;
  // otherwise the new file is opened and locked instead.
  for (int attempt = 0; attempt < kMaxReopens; ++attempt) {
    while (::flock(m_fd, LOCK_EX) != 0 && errno == EINTR) {
    }
    struct stat held, atPath;
    if (::fstat(m_fd, &held) != 0 || ::lstat(m_name.c_str(), &atPath) != 0) {
      if (errno != ENOENT) return;  // nothing better to be had
    } else if (held.st_dev == atPath.st_dev && held.st_ino == atPath.st_ino) {
      return;
    }
    const int fd = OpenLockFile(m_name);
    if (fd < 0) {
      AMBIT_TRACE_ERROR("(Error) CInterprocessLock::lock - open \"%s\" failed %d\n",
                        m_name.c_str(), errno);
      return;  // keep the flock on the old file: better than none
    }
    ::close(m_fd);  // drops the flock on the file that went away
    m_fd = fd;
  }
  while (::flock(m_fd, LOCK_EX) != 0 && errno == EINTR) {
  }
}

void CInterprocessLock::unlock() {
  // A child whose forking thread held the lock never held it itself.
  if (m_count == 0) return;
  if (--m_count == 0) ::flock(m_fd, LOCK_UN);
  pthread_mutex_unlock(&m_mutex);
}

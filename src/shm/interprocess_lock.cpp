#include "shm/interprocess_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "ambit/portable.h"
#include "trace/trace_impl.h"

namespace {
const char kLockFilePrefix[] = "/tmp/Ambit-ipclock-";
}  // namespace

CInterprocessLock::CInterprocessLock(const std::string& name)
    : m_name(kLockFilePrefix + name), m_fd(-1), m_count(0), m_unused(0) {
  // As creat(), but not inherited by programs this process starts: a child
  // that outlived us must not keep our lock alive.
  m_fd = ::open(m_name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0777);
  if (m_fd < 0) AMBIT_THROW(errno);
  // Processes of other users must be able to open it later.
  ::chmod(m_name.c_str(), 0777);
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&m_mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

CInterprocessLock::~CInterprocessLock() {
  ::close(m_fd);
  pthread_mutex_destroy(&m_mutex);
}

void CInterprocessLock::lock() {
  pthread_mutex_lock(&m_mutex);
  if (m_count == 0) {
    while (::flock(m_fd, LOCK_EX) != 0 && errno == EINTR) {
    }
  }
  ++m_count;
}

void CInterprocessLock::unlock() {
  if (--m_count == 0) ::flock(m_fd, LOCK_UN);
  pthread_mutex_unlock(&m_mutex);
}

// Windows-style mutexes, private or named, optionally recursive.
#include "ambit/mutex.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "ambit/exception.h"
#include "sync/mutex_impl.h"
#include "portable/self_ids.h"
#include "portable/test_point.h"
#include "sync/mutex_recursion.h"
#include "sync/robust_mutex.h"
#include "sync/terminate_wait.h"
#include "sync/wall_deadline.h"
#include "trace/trace_impl.h"

namespace {

constexpr unsigned long kCategoryLifeCycle = 16;
constexpr unsigned long kLevelOrdinary = 2;
constexpr unsigned long kLevelError = 64;

#define MUTEX_TRACE(...)                                                      \
  do {                                                                        \
    if (g_pambittracing) traceImpl(kCategoryLifeCycle, kLevelOrdinary, __VA_ARGS__); \
  } while (0)

}  // namespace

CPMutexImpl::CPMutexImpl(int create, int initialOwner, const std::string& name, int recursive,
                         int allowTrace)
    : m_name(name), m_allowTrace(allowTrace), m_recursive(recursive), m_pNameInfo(nullptr),
      m_pPid(nullptr), m_pWaiters(nullptr), m_pMutex(nullptr), m_pRecursive(nullptr),
      m_isCreator(0), m_serial(NextSerial()) {
  if (name.empty()) {
    std::memset(&m_localMutex, 0, sizeof m_localMutex);
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_localMutex, &attr);
    pthread_mutexattr_destroy(&attr);
    m_pMutex = &m_localMutex;
    return;
  }
  // The error texts of this class name CPEventImpl; callers match them.
  if (recursive) {
    m_pRecursive = get_mutexRecursionHelper()->add(name);
    if (m_pRecursive == nullptr) {
      if (m_allowTrace && g_pambittracing)
        traceImpl(kCategoryLifeCycle, kLevelError,
                  "(Error) CPEventImpl::CPEventImpl, can't create CPMutexRecursiveHelper");
      AMBIT_THROW(QK_E_CREATE_NAMED_OBJECT);
    }
  }
  m_pNameInfo = get_nameMap()->createNamedObject(
      name, create ? CNameMap::CreateOrOpen : CNameMap::OpenOnly, CNameMap::Mutex, &m_isCreator,
      0);
  if (m_pNameInfo != nullptr) {
    m_pPid = reinterpret_cast<int*>(&m_pNameInfo->dwHolderPid);
    m_pMutex = &m_pNameInfo->object.mutex;
    const uint32_t self = static_cast<uint32_t>(OwnProcessId());
    for (CNameMap::SPIDINFO& slot : m_pNameInfo->pids)
      if (slot.dwPid == self) {
        m_pWaiters = reinterpret_cast<int*>(&slot.dwWaitCount);
        break;
      }
    if (initialOwner && m_isCreator) wait(QK_INFINITE);
    MUTEX_TRACE("CPMutexImpl::CPMutexImpl (%p) %s %p\n", static_cast<void*>(this), name.c_str(),
                static_cast<void*>(m_pMutex));
    return;
  }
  if (m_pRecursive != nullptr) get_mutexRecursionHelper()->del(name);
  if (create) {
    if (m_allowTrace && g_pambittracing)
      traceImpl(kCategoryLifeCycle, kLevelError, "(Error) CPEventImpl::CPEventImpl, can't create mutex");
    AMBIT_THROW(QK_E_CREATE_NAMED_OBJECT);
  }
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelError, "(Error) CPEventImpl::CPEventImpl, can't open mutex");
  AMBIT_THROW(QK_E_OPEN_NAMED_OBJECT);
}

CPMutexImpl::~CPMutexImpl() {
  MUTEX_TRACE("CPMutexImpl::~CPMutexImpl (%p)\n", static_cast<void*>(this));
  // A held mutex is not released, and the recursion record stays.
  if (m_pNameInfo != nullptr)
    get_nameMap()->destroyNamedObject(m_pNameInfo);
  else
    pthread_mutex_destroy(&m_localMutex);
}

unsigned long CPMutexImpl::wait(unsigned long timeoutMs) {
  MUTEX_TRACE(">>>CPMutexImpl::wait.1 %p, pid %d\n", static_cast<void*>(m_pMutex),
              m_pPid != nullptr ? *m_pPid : 0);
  if (m_pNameInfo == nullptr) {
    int r;
    if (timeoutMs == QK_INFINITE) {
      r = pthread_mutex_lock(m_pMutex);
    } else {
      const timespec deadline = WallDeadline(timeoutMs);
      r = pthread_mutex_timedlock(m_pMutex, &deadline);
    }
    if (r != 0) return lockFailed(r);
    MUTEX_TRACE("<<<CPMutexImpl::wait.2 %p, pid %d\n", static_cast<void*>(m_pMutex), 0);
    return 0;
  }

  // The records are single words, updated atomically and without the name
  // map's lock: they are bookkeeping for crash recovery and the inspector,
  // while the kernel decides who owns the mutex. The wait count is raised
  // for the whole wait, so that crash recovery can tell a process that died
  // waiting.
  __atomic_add_fetch(m_pWaiters, 1, __ATOMIC_SEQ_CST);
  int r;
  bool abandoned = false;
  timespec deadline;
  const timespec* until = nullptr;
  if (timeoutMs != QK_INFINITE) {
    deadline = WallDeadline(timeoutMs);
    until = &deadline;
  }
  if (m_pRecursive != nullptr) {
    r = until == nullptr ? m_pRecursive->lock(m_pMutex) : m_pRecursive->timedlock(m_pMutex, until);
    // EOWNERDEAD: acquired from an owner that died, already made consistent.
    abandoned = r == EOWNERDEAD;
    if (abandoned) r = 0;
  } else {
    r = LockRobustMutex(m_pMutex, until, &abandoned);
  }
  if (r != 0) {
    __atomic_sub_fetch(m_pWaiters, 1, __ATOMIC_SEQ_CST);
    return lockFailed(r);
  }

  AtTestPoint(TestPoint::MutexLocked);
  // From here until the release clears it, only this owner writes the
  // holder word (recovery changes it only from a dead pid), so plain
  // stores that other processes see in order are enough.
  const int self = OwnProcessId();
  const int previous = abandoned ? __atomic_load_n(m_pPid, __ATOMIC_ACQUIRE) : 0;
  __atomic_store_n(m_pPid, self, __ATOMIC_RELEASE);
  __atomic_sub_fetch(m_pWaiters, 1, __ATOMIC_SEQ_CST);
  AtTestPoint(TestPoint::MutexMarked);
  if (abandoned && m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelError,
              "(Error) CPMutexImpl::wait (%p), previous owner %d died\n", static_cast<void*>(this),
              previous);
  noteAcquired(abandoned);
  MUTEX_TRACE("<<<CPMutexImpl::wait.2 %p, pid %d\n", static_cast<void*>(m_pMutex), *m_pPid);
  return 0;
}

unsigned long CPMutexImpl::lockFailed(int error) {
  if (error == ETIME || error == ETIMEDOUT) return QK_WAIT_TIMEOUT;
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelError, "(Error) CPMutexImpl::wait (%p), %d\n",
              static_cast<void*>(this), error);
  return QK_WAIT_FAILED;
}

unsigned long CPMutexImpl::release() {
  if (m_pNameInfo == nullptr) {
    pthread_mutex_unlock(m_pMutex);
    MUTEX_TRACE("<<<CPMutexImpl::release %p, new pid %d\n", static_cast<void*>(m_pMutex), 0);
    return 0;
  }
  // The holder mark is cleared while the mutex is still held, so that it
  // can never erase the mark of the next owner. Only the owning thread
  // clears it, and only when this release lets the mutex go.
  const int thread = OwnThreadId();
  if (m_pRecursive != nullptr) {
    if (m_pRecursive->m_count == 1 && m_pRecursive->m_ownerThread == thread) clearHolderMark();
    m_pRecursive->release(m_pMutex);  // throws when the caller does not own it
  } else {
    if (MutexOwnerThread(m_pMutex) == thread) clearHolderMark();
    pthread_mutex_unlock(m_pMutex);
  }
  MUTEX_TRACE("<<<CPMutexImpl::release %p, new pid %d\n", static_cast<void*>(m_pMutex),
              *m_pPid);
  return 0;
}

void CPMutexImpl::clearHolderMark() {
  AtTestPoint(TestPoint::ReleaseBeforeClear);
  // The owner is the only writer of the word while it holds the mutex.
  if (__atomic_load_n(m_pPid, __ATOMIC_RELAXED) == OwnProcessId())
    __atomic_store_n(m_pPid, 0, __ATOMIC_RELEASE);
  AtTestPoint(TestPoint::ReleaseAfterClear);
}

// Which mutex objects the calling thread last acquired from an owner that
// died, by serial number (never reused, so a destroyed object's number can
// never match a new one). Nearly always empty; the count tells without
// touching the list.
namespace {
thread_local int t_abandonedCount __attribute__((tls_model("initial-exec"))) = 0;
thread_local std::vector<unsigned long long> t_abandonedSerials;
unsigned long long g_nextSerial = 0;
}  // namespace

unsigned long long CPMutexImpl::NextSerial() {
  return __atomic_add_fetch(&g_nextSerial, 1, __ATOMIC_RELAXED);
}

void CPMutexImpl::noteAcquired(bool abandoned) {
  if (!abandoned && t_abandonedCount == 0) return;
  std::vector<unsigned long long>& serials = t_abandonedSerials;
  auto found = std::find(serials.begin(), serials.end(), m_serial);
  if (abandoned && found == serials.end()) serials.push_back(m_serial);
  if (!abandoned && found != serials.end()) serials.erase(found);
  t_abandonedCount = static_cast<int>(serials.size());
}

int CPMutexImpl::wasAbandoned() const {
  if (t_abandonedCount == 0) return 0;
  const std::vector<unsigned long long>& serials = t_abandonedSerials;
  return std::find(serials.begin(), serials.end(), m_serial) != serials.end() ? 1 : 0;
}

CPMutex::CPMutex(int create, int initialOwner, const std::string& name, int recursive,
                 int allowTrace)
    : m_pImpl(nullptr), m_allowTrace(allowTrace) {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPMutex::CPMutex (%p), name \"%s\"\n",
              static_cast<void*>(this), name.c_str());
  m_pImpl = new CPMutexImpl(create, initialOwner, name, recursive, allowTrace);
}

CPMutex::~CPMutex() {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPMutex::~CPMutex (%p), name \"%s\"\n",
              static_cast<void*>(this), m_pImpl != nullptr ? m_pImpl->name().c_str() : "");
  delete m_pImpl;
}

unsigned long CPMutex::wait(unsigned long timeoutMs, CTerminateWait* terminate) {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPMutex::wait (%p), name \"%s\"\n",
              static_cast<void*>(this), m_pImpl->name().c_str());
  return WaitWithTerminate(timeoutMs, terminate,
                           [this](unsigned long ms) { return m_pImpl->wait(ms); });
}

unsigned long CPMutex::release() {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPMutex::release (%p), name \"%s\"\n",
              static_cast<void*>(this), m_pImpl->name().c_str());
  return m_pImpl->release();
}

int CPMutex::isCreator() { return m_pImpl->isCreator(); }

int CPMutex::wasAbandoned() { return m_pImpl->wasAbandoned(); }

std::string CPMutex::getName() { return m_pImpl->name(); }

// Windows-style mutexes, private or named, optionally recursive.
#include "ambit/mutex.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ambit/exception.h"
#include "sync/mutex_impl.h"
#include "sync/mutex_recursion.h"
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

int OwnPid() { return static_cast<int>(::getpid()); }

}  // namespace

CPMutexImpl::CPMutexImpl(int create, int initialOwner, const std::string& name, int recursive,
                         int allowTrace)
    : m_name(name), m_allowTrace(allowTrace), m_recursive(recursive), m_pNameInfo(nullptr),
      m_pPid(nullptr), m_pWaiters(nullptr), m_pMutex(nullptr), m_pRecursive(nullptr),
      m_isCreator(0) {
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
    const uint32_t self = static_cast<uint32_t>(OwnPid());
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
  const bool named = m_pNameInfo != nullptr;
  // The wait count is raised for the whole wait, so that crash cleanup can
  // tell a process that died waiting.
  if (named) UnderNameMapLock([this] { ++*m_pWaiters; });

  int r;
  if (timeoutMs == QK_INFINITE) {
    r = m_pRecursive != nullptr ? m_pRecursive->lock(m_pMutex) : pthread_mutex_lock(m_pMutex);
  } else {
    const timespec deadline = WallDeadline(timeoutMs);
    r = m_pRecursive != nullptr ? m_pRecursive->timedlock(m_pMutex, &deadline)
                                : pthread_mutex_timedlock(m_pMutex, &deadline);
  }

  if (r != 0) {
    if (named) UnderNameMapLock([this] { --*m_pWaiters; });
    if (r == ETIME || r == ETIMEDOUT) return QK_WAIT_TIMEOUT;
    if (m_allowTrace && g_pambittracing)
      traceImpl(kCategoryLifeCycle, kLevelError, "(Error) CPMutexImpl::wait (%p), %d\n",
                static_cast<void*>(this), r);
    return QK_WAIT_FAILED;
  }
  if (named)
    UnderNameMapLock([this] {
      *m_pPid = OwnPid();
      --*m_pWaiters;
    });
  MUTEX_TRACE("<<<CPMutexImpl::wait.2 %p, pid %d\n", static_cast<void*>(m_pMutex),
              m_pPid != nullptr ? *m_pPid : 0);
  return 0;
}

unsigned long CPMutexImpl::release() {
  bool fullyReleased = true;
  if (m_pRecursive != nullptr) {
    fullyReleased = m_pRecursive->release(m_pMutex) == 0;  // may throw
  } else {
    pthread_mutex_unlock(m_pMutex);
  }
  if (m_pNameInfo != nullptr && fullyReleased)
    UnderNameMapLock([this] {
      if (*m_pPid == OwnPid()) *m_pPid = 0;
    });
  MUTEX_TRACE("<<<CPMutexImpl::release %p, new pid %d\n", static_cast<void*>(m_pMutex),
              m_pPid != nullptr ? *m_pPid : 0);
  return 0;
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

std::string CPMutex::getName() { return m_pImpl->name(); }

#include "sync/event_impl.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ambit/exception.h"
#include "sync/wall_deadline.h"
#include "trace/trace_impl.h"

namespace {
constexpr unsigned long kCategoryLifeCycle = 16;
constexpr unsigned long kLevelError = 64;
constexpr unsigned long kReset = 0xF0000000UL;
}  // namespace

CPEventImpl::CPEventImpl(int create, const std::string& name, int allowTrace)
    : m_allowTrace(allowTrace), m_localValue(kReset), m_pNameInfo(nullptr), m_pPid(nullptr),
      m_pValue(nullptr), m_pCond(nullptr), m_pMutex(nullptr), m_trace(0) {
  if (name.empty()) {
    std::memset(&m_localMutex, 0, sizeof m_localMutex);
    std::memset(&m_localCond, 0, sizeof m_localCond);
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_localMutex, &attr);
    pthread_mutexattr_destroy(&attr);
    pthread_cond_init(&m_localCond, nullptr);
    m_pValue = &m_localValue;
    m_pCond = &m_localCond;
    m_pMutex = &m_localMutex;
    return;
  }
  int created = 0;
  m_pNameInfo = get_nameMap()->createNamedObject(
      name, create ? CNameMap::CreateOrOpen : CNameMap::OpenOnly, CNameMap::Condvar, &created, 0);
  if (m_pNameInfo != nullptr) {
    m_pPid = reinterpret_cast<int*>(&m_pNameInfo->dwHolderPid);
    m_pCond = &m_pNameInfo->object.condvar.cond;
    m_pMutex = &m_pNameInfo->object.condvar.mutex;
    m_pValue = reinterpret_cast<unsigned long*>(&m_pNameInfo->object.condvar.s_lVal);
    return;
  }
  if (create) {
    if (m_allowTrace && g_pambittracing)
      traceImpl(kCategoryLifeCycle, kLevelError, "(Error) CPEventImpl::CPEventImpl, can't create event");
    AMBIT_THROW(QK_E_CREATE_EVENT);
  }
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelError, "(Error) CPEventImpl::CPEventImpl, can't open event");
  AMBIT_THROW(QK_E_OPEN_EVENT);
}

CPEventImpl::~CPEventImpl() {
  if (m_pNameInfo == nullptr) {
    pthread_mutex_destroy(&m_localMutex);
    pthread_cond_destroy(&m_localCond);
  } else {
    get_nameMap()->destroyNamedObject(m_pNameInfo);
  }
}

long CPEventImpl::wake(long bits) {
  pthread_mutex_lock(m_pMutex);
  if (*m_pValue == kReset)
    *m_pValue = static_cast<unsigned long>(bits);
  else
    *m_pValue |= static_cast<unsigned long>(bits);
  pthread_cond_signal(m_pCond);  // one waiter per wake
  return pthread_mutex_unlock(m_pMutex);
}

unsigned long CPEventImpl::wait(unsigned long timeoutMs) {
  pthread_mutex_lock(m_pMutex);
  const int self = static_cast<int>(::getpid());
  if (m_pNameInfo != nullptr) {
    CNameMap* names = get_nameMap();
    names->lock();
    *m_pPid = self;
    names->unlock();
  }

  unsigned long result;
  if (*m_pValue != kReset) {
    result = *m_pValue;
  } else {
    int r;
    if (timeoutMs == 0xFFFFFFFFUL) {
      r = pthread_cond_wait(m_pCond, m_pMutex);
    } else {
      const timespec deadline = WallDeadline(timeoutMs);
      r = pthread_cond_timedwait(m_pCond, m_pMutex, &deadline);
    }
    if (r == 0) {
      // Woken: the bits, or 0 when nothing was signalled.
      result = *m_pValue == kReset ? 0 : *m_pValue;
    } else if (r == ETIME || r == ETIMEDOUT) {
      result = QK_WAIT_TIMEOUT;
    } else {
      if (m_allowTrace && g_pambittracing)
        traceImpl(kCategoryLifeCycle, kLevelError, "(Error) CPEventImpl::wait (%p), %d\n",
                  static_cast<void*>(this), r);
      result = QK_WAIT_FAILED;
    }
  }
  // Bits that arrived too late for a timed-out wait are dropped too.
  *m_pValue = kReset;

  if (m_pNameInfo != nullptr) {
    CNameMap* names = get_nameMap();
    names->lock();
    if (*m_pPid == self) *m_pPid = 0;
    names->unlock();
  }
  pthread_mutex_unlock(m_pMutex);
  return result;
}

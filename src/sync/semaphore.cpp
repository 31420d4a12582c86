// Counting semaphores, private or named.
#include "ambit/semaphore.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ambit/exception.h"
#include "portable/self_ids.h"
#include "sync/semaphore_impl.h"
#include "sync/spin_wait.h"
#include "sync/terminate_wait.h"
#include "sync/wall_deadline.h"
#include "trace/trace_impl.h"

namespace {
constexpr unsigned long kCategoryLifeCycle = 16;
constexpr unsigned long kLevelOrdinary = 2;
constexpr unsigned long kLevelError = 64;
}  // namespace

CPSemaphoreImpl::CPSemaphoreImpl(int create, unsigned long initialCount,
                                 unsigned long maximumCount, const std::string& name,
                                 int allowTrace)
    : m_name(name), m_allowTrace(allowTrace), m_pNameInfo(nullptr), m_pPid(nullptr),
      m_pSem(nullptr), m_isCreator(0) {
  if (name.empty()) {
    std::memset(&m_localSem, 0, sizeof m_localSem);
    sem_init(&m_localSem, 0, static_cast<unsigned>(initialCount));
    m_pSem = &m_localSem;
    return;
  }
  // An existing named semaphore keeps its count: initialCount only seeds a
  // new one.
  m_pNameInfo = get_nameMap()->createNamedObject(
      name, create ? CNameMap::CreateOrOpen : CNameMap::OpenOnly, CNameMap::Semaphore,
      &m_isCreator, initialCount);
  if (m_pNameInfo != nullptr) {
    m_pPid = reinterpret_cast<int*>(&m_pNameInfo->dwHolderPid);
    m_pSem = &m_pNameInfo->object.semaphore;
    return;
  }
  // These texts and codes are the named mutex's, on purpose.
  if (create) {
    if (m_allowTrace && g_pambittracing)
      traceImpl(kCategoryLifeCycle, kLevelError, "(Error) CPEventImpl::CPEventImpl, can't create mutex");
    AMBIT_THROW(QK_E_CREATE_NAMED_OBJECT);
  }
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelError, "(Error) CPEventImpl::CPEventImpl, can't open mutex");
  AMBIT_THROW(QK_E_OPEN_NAMED_OBJECT);
}

CPSemaphoreImpl::~CPSemaphoreImpl() {
  if (m_pNameInfo != nullptr)
    get_nameMap()->destroyNamedObject(m_pNameInfo);
  else
    sem_destroy(&m_localSem);
}

unsigned long CPSemaphoreImpl::wait(unsigned long timeoutMs) {
  int r;
  // A unit that comes within a few microseconds is taken without sleeping
  // (not for a wait that only looks).
  if (timeoutMs != 0 && SpinningHelps() && SpinUntil([this] { return sem_trywait(m_pSem) == 0; })) {
    r = 0;
  } else if (timeoutMs == QK_INFINITE) {
    r = sem_wait(m_pSem);
  } else {
    const timespec deadline = WallDeadline(timeoutMs);
    r = sem_timedwait(m_pSem, &deadline);
  }
  if (r == -1) r = errno;  // an interrupted wait is not retried
  if (r != 0) {
    if (r == ETIME || r == ETIMEDOUT) return QK_WAIT_TIMEOUT;
    if (m_allowTrace && g_pambittracing)
      traceImpl(kCategoryLifeCycle, kLevelError, "(Error) CPSemaphoreImpl::wait (%p), %d\n",
                static_cast<void*>(this), r);
    return QK_WAIT_FAILED;
  }
  // The taker mark is a single word of bookkeeping for crash recovery and
  // the inspector: written atomically, without the name map's lock.
  // Written only when it changes: two processes that pass units back and
  // forth then only read the word, and its cache line is not moved between
  // them on every wait.
  if (m_pNameInfo != nullptr) {
    const int self = OwnProcessId();
    if (__atomic_load_n(m_pPid, __ATOMIC_RELAXED) != self)
      __atomic_store_n(m_pPid, self, __ATOMIC_RELEASE);
  }
  return 0;
}

void CPSemaphoreImpl::release() {
  sem_post(m_pSem);
  if (m_pNameInfo != nullptr) {
    // Looked at first: when another process took the last unit (the usual
    // case between two processes), the word is only read, not claimed.
    int self = OwnProcessId();
    if (__atomic_load_n(m_pPid, __ATOMIC_RELAXED) == self)
      __atomic_compare_exchange_n(m_pPid, &self, 0, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  }
}

CPSemaphore::CPSemaphore(int create, unsigned long initialCount, unsigned long maximumCount,
                         const std::string& name, int allowTrace)
    : m_pImpl(nullptr), m_allowTrace(allowTrace) {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPSemaphore::CPSemaphore (%p), name \"%s\"\n",
              static_cast<void*>(this), name.c_str());
  m_pImpl = new CPSemaphoreImpl(create, initialCount, maximumCount, name, allowTrace);
}

CPSemaphore::~CPSemaphore() {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPSemaphore::~CPSemaphore (%p), name \"%s\"\n",
              static_cast<void*>(this), m_pImpl != nullptr ? m_pImpl->name().c_str() : "");
  delete m_pImpl;
}

unsigned long CPSemaphore::wait(unsigned long timeoutMs, CTerminateWait* terminate) {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPSemaphore::wait (%p), name \"%s\"\n",
              static_cast<void*>(this), m_pImpl->name().c_str());
  return WaitWithTerminate(timeoutMs, terminate,
                           [this](unsigned long ms) { return m_pImpl->wait(ms); });
}

void CPSemaphore::release() {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPSemaphore::release (%p), name \"%s\"\n",
              static_cast<void*>(this), m_pImpl->name().c_str());
  m_pImpl->release();
}

int CPSemaphore::isCreator() { return m_pImpl->isCreator(); }

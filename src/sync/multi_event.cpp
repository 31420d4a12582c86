// Waiting for any of several numbered events of one process.
#include "ambit/multievent.h"

#include <algorithm>
#include <cerrno>

#include "ambit/exception.h"
#include "sync/multi_event_impl.h"
#include "sync/terminate_wait.h"
#include "sync/wall_deadline.h"
#include "trace/trace_impl.h"

namespace {

constexpr unsigned long kCategoryMultiEvent = 256;
constexpr unsigned long kLevelOrdinary = 2;
constexpr unsigned long kLevelError = 64;
constexpr long kNoIndex = static_cast<long>(0xF0000000UL);

#define MULTI_TRACE(...)                                                      \
  do {                                                                        \
    if (g_pambittracing) traceImpl(kCategoryMultiEvent, kLevelOrdinary, __VA_ARGS__); \
  } while (0)

// Locks the implementation's mutex for a scope.
class Locked {
 public:
  explicit Locked(pthread_mutex_t* m) : m_mutex(m) { pthread_mutex_lock(m_mutex); }
  ~Locked() { pthread_mutex_unlock(m_mutex); }

 private:
  pthread_mutex_t* m_mutex;
};

bool Contains(const std::vector<long>& ids, long id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

int Int(long v) { return static_cast<int>(v); }

}  // namespace

CPMultiEventImpl::CPMultiEventImpl(int unused)
    : m_index(kNoIndex), m_pIndex(&m_index), m_pCond(&m_cond), m_pMutex(&m_mutex),
      m_trace(0), m_waitStarted(0) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&m_mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  pthread_cond_init(&m_cond, nullptr);
}

CPMultiEventImpl::~CPMultiEventImpl() {
  pthread_mutex_destroy(&m_mutex);
  pthread_cond_destroy(&m_cond);
}

bool CPMultiEventImpl::isValidIndex(long index) {
  Locked lock(m_pMutex);
  return index < static_cast<long>(m_interested.size());
}

bool CPMultiEventImpl::isInterestedEvent(long id) {
  Locked lock(m_pMutex);
  if (m_waitStarted == 0) {
    MULTI_TRACE("CPMultiEventImpl::isInterestedEvent - lEvent=%d, Wait Not Started yet. this=%p\n",
                Int(id), static_cast<void*>(this));
    return false;
  }
  const bool found = Contains(m_interested, id);
  MULTI_TRACE("CPMultiEventImpl::isInterestedEvent - lEvent=%d, Found=%d. this=%p\n", Int(id),
              found ? 1 : 0, static_cast<void*>(this));
  return found;
}

long CPMultiEventImpl::getEventIndex(long id) {
  Locked lock(m_pMutex);
  const auto it = std::find(m_interested.begin(), m_interested.end(), id);
  return it == m_interested.end() ? 0 : static_cast<long>(it - m_interested.begin());
}

void CPMultiEventImpl::pushPreWaitEvent(long id) {
  Locked lock(m_pMutex);
  if (Contains(m_preWait, id)) return;
  m_preWait.push_back(id);
  MULTI_TRACE("CPMultiEventImpl::pushPreWaitEvent: Event=%d, this=%p\n", Int(id),
              static_cast<void*>(this));
}

void CPMultiEventImpl::popPreWaitEvent(long id) {
  Locked lock(m_pMutex);
  const auto it = std::find(m_preWait.begin(), m_preWait.end(), id);
  if (it == m_preWait.end()) return;
  m_preWait.erase(it);
  MULTI_TRACE("CPMultiEventImpl::popPreWaitEvent: Event=%d, this=%p\n", Int(id),
              static_cast<void*>(this));
}

bool CPMultiEventImpl::setPreWaitEvents() {
  Locked lock(m_pMutex);
  for (auto it = m_preWait.begin(); it != m_preWait.end(); ++it) {
    if (!isInterestedEvent(*it)) continue;
    m_index = getEventIndex(*it);
    m_preWait.erase(it);
    MULTI_TRACE("CPMultiEventImpl::setPreWaitEvents: Event=%d, this=%p\n", Int(m_index),
                static_cast<void*>(this));
    return true;
  }
  return false;
}

void CPMultiEventImpl::pushEvent(long id) {
  Locked lock(m_pMutex);
  if (!Contains(m_interested, id)) m_interested.push_back(id);
}

void CPMultiEventImpl::pushEvents(long count, long* ids) {
  Locked lock(m_pMutex);
  for (long i = 0; i < count; ++i) {
    if (Contains(m_interested, ids[i])) continue;
    m_interested.push_back(ids[i]);
    MULTI_TRACE("CPMultiEventImpl::pushEvents: Event=%d, this=%p\n", Int(ids[i]),
                static_cast<void*>(this));
  }
}

long CPMultiEventImpl::WaitForMultipleObjects(long count, long* ids, int waitAll,
                                              unsigned long timeoutMs) {
  {
    Locked lock(m_pMutex);
    m_interested.clear();
    pushEvents(count, ids);
    m_waitStarted = 1;
    if (m_index == kNoIndex) {
      setPreWaitEvents();
    } else if (!isValidIndex(m_index)) {
      m_index = kNoIndex;
      setPreWaitEvents();
    }
    // A valid index left over from a wake satisfies this wait.
  }
  return wait(timeoutMs);
}

long CPMultiEventImpl::wait(unsigned long timeoutMs) {
  Locked lock(m_pMutex);
  if (m_index == kNoIndex) setPreWaitEvents();
  long result;
  if (m_index != kNoIndex) {
    result = m_index;
    m_index = kNoIndex;
    MULTI_TRACE("CPMultiEventImpl::wait - return without wait with EventIndex=%d, this=%p\n",
                Int(result), static_cast<void*>(this));
  } else {
    int r;
    if (timeoutMs == QK_INFINITE) {
      r = pthread_cond_wait(m_pCond, m_pMutex);
    } else {
      const timespec deadline = WallDeadline(timeoutMs);
      r = pthread_cond_timedwait(m_pCond, m_pMutex, &deadline);
    }
    if (r == 0) {
      result = m_index;
      if (result == kNoIndex) {
        result = static_cast<long>(QK_WAIT_MULTI_UNKNOWN);
        MULTI_TRACE("CPMultiEventImpl::wait - signalled with Unknown Event Index. this=%p\n",
                    static_cast<void*>(this));
      }
      MULTI_TRACE("CPMultiEventImpl::wait - signalled with EventIndex=%d, this=%p\n",
                  Int(result), static_cast<void*>(this));
    } else if (r == ETIME || r == ETIMEDOUT) {
      result = static_cast<long>(QK_WAIT_TIMEOUT);
    } else {
      if (g_pambittracing)
        traceImpl(kCategoryMultiEvent, kLevelError, "(Error) CPMultiEventImpl::wait (%p), %d\n",
                  static_cast<void*>(this), r);
      result = static_cast<long>(QK_WAIT_FAILED);
    }
    m_index = kNoIndex;
  }
  m_waitStarted = 0;
  return result;
}

void CPMultiEventImpl::wake(long id) {
  MULTI_TRACE("CPMultiEventImpl::wake - Event=%d, this=%p\n", Int(id), static_cast<void*>(this));
  Locked lock(m_pMutex);
  if (isInterestedEvent(id)) {
    const long idx = getEventIndex(id);
    if (m_index == kNoIndex) {
      m_index = idx;
    } else {
      // Another id signalled this wait already: the lower index wins and
      // the other stays kept for a later wait.
      const long prev = m_index;
      MULTI_TRACE("CPMultiEventImpl::wake - Event=%d, Index=%d, PreviousIndex=%d, this=%p\n",
                  Int(id), Int(idx), Int(prev), static_cast<void*>(this));
      if (idx <= prev) {
        if (isValidIndex(prev)) pushPreWaitEvent(m_interested[static_cast<size_t>(prev)]);
        m_index = idx;
      } else if (isValidIndex(prev)) {
        pushPreWaitEvent(id);
      } else {
        m_index = idx;
      }
    }
    pthread_cond_signal(m_pCond);
  } else {
    if (m_waitStarted == 0)
      MULTI_TRACE("CPMultiEventImpl::wake - Not an interested Event=%d and WaitNotStarted, this=%p\n",
                  Int(id), static_cast<void*>(this));
    else
      MULTI_TRACE("CPMultiEventImpl::wake - Not an interested Event=%d and WaitStarted, this=%p\n",
                  Int(id), static_cast<void*>(this));
    pushPreWaitEvent(id);
  }
}

void CPMultiEventImpl::ResetEvent(long id) {
  MULTI_TRACE("CPMultiEventImpl::ResetEvent: Event=%d, this=%p\n", Int(id),
              static_cast<void*>(this));
  Locked lock(m_pMutex);
  if (isInterestedEvent(id) && m_index == getEventIndex(id)) m_index = kNoIndex;
  popPreWaitEvent(id);
  setPreWaitEvents();  // another kept id may take its place
}

// --- The facade -----------------------------------------------------------------

#define FACADE_TRACE(...)                                                        \
  do {                                                                           \
    if (m_trace && g_pambittracing)                                              \
      traceImpl(kCategoryMultiEvent, kLevelOrdinary, __VA_ARGS__);               \
  } while (0)

CPMultiEvent::CPMultiEvent(int unused) : m_pImpl(nullptr), m_trace(0) {
  MULTI_TRACE("CPMultiEvent::CPMultiEvent (%p)\n", static_cast<void*>(this));
  m_pImpl = new CPMultiEventImpl(unused);
}

CPMultiEvent::~CPMultiEvent() {
  MULTI_TRACE("CPMultiEvent::~CPMultiEvent (%p)\n", static_cast<void*>(this));
  delete m_pImpl;
}

void CPMultiEvent::SetEvent(long id) {
  FACADE_TRACE("CPMultiEvent::SetEvent (%p) %d\n", static_cast<void*>(this), Int(id));
  m_pImpl->wake(id);
}

void CPMultiEvent::wake(long id) {
  FACADE_TRACE("CPMultiEvent::wake (%p) %d\n", static_cast<void*>(this), Int(id));
  m_pImpl->wake(id);
}

void CPMultiEvent::ResetEvent(long id) {
  FACADE_TRACE("CPMultiEvent::ResetEvent (%p) %d\n", static_cast<void*>(this), Int(id));
  m_pImpl->ResetEvent(id);
}

void CPMultiEvent::pushEvent(long id) {
  FACADE_TRACE("CPMultiEvent::pushEvent (%p) %d\n", static_cast<void*>(this), Int(id));
  m_pImpl->pushEvent(id);
}

void CPMultiEvent::pushEvents(long count, long* ids) {
  FACADE_TRACE("CPMultiEvent::pushEvents (%p) %d\n", static_cast<void*>(this), Int(count));
  m_pImpl->pushEvents(count, ids);
}

long CPMultiEvent::WaitForSingleObject(long id, unsigned long timeoutMs) {
  FACADE_TRACE("CPMultiEvent::WaitForSingleObject (%p) %d\n", static_cast<void*>(this), Int(id));
  return m_pImpl->WaitForMultipleObjects(1, &id, 0, timeoutMs);
}

long CPMultiEvent::WaitForMultipleObjects(long count, long* ids, int waitAll,
                                          unsigned long timeoutMs) {
  FACADE_TRACE("CPMultiEvent::WaitForMultipleObjects (%p) %d\n", static_cast<void*>(this),
               Int(count));
  return m_pImpl->WaitForMultipleObjects(count, ids, waitAll, timeoutMs);
}

long CPMultiEvent::wait(unsigned long timeoutMs, CTerminateWait* terminate) {
  FACADE_TRACE("CPMultiEvent::wait (%p)\n", static_cast<void*>(this));
  const long r = static_cast<long>(WaitWithTerminate(timeoutMs, terminate, [this](unsigned long ms) {
    return static_cast<unsigned long>(m_pImpl->wait(ms));
  }));
  FACADE_TRACE("<<<CPMultiEvent::wait (%p) %d\n", static_cast<void*>(this), Int(r));
  return r;
}

void CPMultiEvent::setTrace(int trace) {
  m_trace = trace;
  m_pImpl->setTrace(trace);
}

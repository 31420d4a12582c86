#include "sync/event_impl.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ambit/exception.h"
#include "portable/self_ids.h"
#include "sync/robust_mutex.h"
#include "sync/spin_wait.h"
#include "sync/wall_deadline.h"
#include "trace/trace_impl.h"

namespace {
constexpr unsigned long kCategoryLifeCycle = 16;
constexpr unsigned long kLevelError = 64;
constexpr unsigned long kReset = 0xF0000000UL;

// The mutex of a named event is robust: when a process dies holding it (in
// the middle of a wake or a wait), the next locker gets it with EOWNERDEAD
// and makes it consistent again. The value word it guards is a single word
// and is never seen half written. An unnamed event's mutex is private to
// the process and locked plainly.
int LockEventMutex(pthread_mutex_t* m, bool named) {
  if (!named) return pthread_mutex_lock(m);
  bool abandoned;
  return LockRobustMutex(m, nullptr, &abandoned);
}

// Named events block on a futex word (the first word of the entry's
// condition area; the second counts the waiters asleep on it) that every
// wake advances, not on the process-shared
// condition variable: a waiter killed inside pthread_cond_wait keeps a
// reference to its group of the condition, and the next signal that has to
// switch groups then waits for that reference forever, holding the event's
// mutex. A process that dies blocked on a futex leaves nothing behind.
long Futex(uint32_t* word, int op, uint32_t value, const timespec* timeout) {
  return ::syscall(SYS_futex, word, op, value, timeout, nullptr, 0);
}

// What is left until the CLOCK_MONOTONIC deadline; false when nothing.
bool TimeLeft(const timespec& deadline, timespec* left) {
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  long long ns = (static_cast<long long>(deadline.tv_sec) - now.tv_sec) * 1000000000LL +
                 (deadline.tv_nsec - now.tv_nsec);
  if (ns <= 0) return false;
  left->tv_sec = static_cast<time_t>(ns / 1000000000LL);
  left->tv_nsec = static_cast<long>(ns % 1000000000LL);
  return true;
}
}  // namespace

CPEventImpl::CPEventImpl(int create, const std::string& name, int allowTrace)
    : m_allowTrace(allowTrace), m_localValue(kReset), m_pNameInfo(nullptr), m_pPid(nullptr),
      m_pValue(nullptr), m_pCond(nullptr), m_pMutex(nullptr), m_pSeq(nullptr), m_trace(0) {
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
    m_pSeq = reinterpret_cast<uint32_t*>(&m_pNameInfo->object.condvar.cond);
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
  LockEventMutex(m_pMutex, m_pNameInfo != nullptr);
  if (*m_pValue == kReset)
    *m_pValue = static_cast<unsigned long>(bits);
  else
    *m_pValue |= static_cast<unsigned long>(bits);
  if (m_pSeq == nullptr) {
    pthread_cond_signal(m_pCond);
    return pthread_mutex_unlock(m_pMutex);
  }
  // The sequence moves under the mutex, so a waiter that read it before
  // this wake either sleeps on the old value (and is woken below) or sees
  // the new one and does not sleep. The waiter is woken after the mutex is
  // let go: woken while it is held, it would only block again on it.
  __atomic_add_fetch(m_pSeq, 1, __ATOMIC_SEQ_CST);
  const bool sleeping = __atomic_load_n(m_pSeq + 1, __ATOMIC_SEQ_CST) != 0;
  const int r = pthread_mutex_unlock(m_pMutex);
  if (sleeping) Futex(m_pSeq, FUTEX_WAKE, 1, nullptr);  // one waiter per wake
  return r;
}

int CPEventImpl::waitNamed(unsigned long timeoutMs) {
  const bool forever = timeoutMs == 0xFFFFFFFFUL;
  timespec deadline = {0, 0};
  if (!forever) {
    ::clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000);
    deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
      deadline.tv_sec += 1;
      deadline.tv_nsec -= 1000000000L;
    }
  }
  for (;;) {
    timespec left;
    if (!forever && !TimeLeft(deadline, &left)) return ETIMEDOUT;
    const uint32_t seen = __atomic_load_n(m_pSeq, __ATOMIC_SEQ_CST);
    // Counted as sleeping under the mutex, so that a wake (which reads the
    // count under the mutex) makes its system call only when someone may
    // be asleep. A waiter killed while counted leaves the count raised:
    // wakes then always call, as if it still slept.
    __atomic_add_fetch(m_pSeq + 1, 1, __ATOMIC_SEQ_CST);
    pthread_mutex_unlock(m_pMutex);
    const long r = Futex(m_pSeq, FUTEX_WAIT, seen, forever ? nullptr : &left);
    const int err = r == 0 ? 0 : errno;
    LockEventMutex(m_pMutex, m_pNameInfo != nullptr);
    __atomic_sub_fetch(m_pSeq + 1, 1, __ATOMIC_SEQ_CST);
    if (err == 0) {
      // Woken. When a wake moved the sequence but its bits are gone, another
      // waiter (one that came later, or was spinning) took that wake: this
      // one sleeps again, so that a wake releases one waiter only. Woken
      // without any wake, the caller sees 0.
      if (*m_pValue == kReset && __atomic_load_n(m_pSeq, __ATOMIC_SEQ_CST) != seen) continue;
      return 0;
    }
    if (err == ETIMEDOUT) return ETIMEDOUT;
    if (err != EAGAIN && err != EINTR) return err;
    // The word moved before we slept, or a signal: look at the value again.
    if (*m_pValue != kReset) return 0;
  }
}

unsigned long CPEventImpl::wait(unsigned long timeoutMs) {
  LockEventMutex(m_pMutex, m_pNameInfo != nullptr);
  // The waiter mark is a single word of bookkeeping for crash recovery and
  // the inspector: written atomically, without the name map's lock.
  const int self = OwnProcessId();
  if (m_pNameInfo != nullptr) __atomic_store_n(m_pPid, self, __ATOMIC_RELEASE);

  // Not signalled: watch the value for a moment without the mutex before
  // sleeping (not for a wait that only looks). Bits that came meanwhile are
  // taken only if they are still there once the mutex is held again.
  if (*m_pValue == kReset && timeoutMs != 0 && SpinningHelps()) {
    pthread_mutex_unlock(m_pMutex);
    SpinUntil([this] { return __atomic_load_n(m_pValue, __ATOMIC_RELAXED) != kReset; });
    LockEventMutex(m_pMutex, m_pNameInfo != nullptr);
  }

  unsigned long result;
  if (*m_pValue != kReset) {
    result = *m_pValue;
  } else {
    int r;
    if (m_pSeq != nullptr) {
      r = waitNamed(timeoutMs);
    } else if (timeoutMs == 0xFFFFFFFFUL) {
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
    int expected = self;
    __atomic_compare_exchange_n(m_pPid, &expected, 0, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  }
  pthread_mutex_unlock(m_pMutex);
  return result;
}

// Per-process recursion over a shared, non-recursive pthread mutex, and the
// process's table of those records.
#include "sync/mutex_recursion.h"

#include <cerrno>
#include <new>

#include "ambit/exception.h"
#include "ambit/portable.h"
#include "portable/self_ids.h"
#include "sync/mutex_globals.h"
#include "sync/robust_mutex.h"
#include "trace/trace_impl.h"

namespace {
constexpr unsigned long kCategoryEventsAndQoS = 4;  // where allocation failures are written
constexpr unsigned long kCategoryLifeCycle = 16;
constexpr unsigned long kLevelOrdinary = 2;

// The source lines passed to the critical sections; they only show up in
// the sections' own trace lines, where they tell the call sites apart.
constexpr long kLineAddEnter = 4588;
constexpr long kLineAddLeave = 4607;
constexpr long kLineDelEnter = 4616;
constexpr long kLineDelLeave = 4630;
constexpr long kLineLockGate = 4641;
constexpr long kLineTimedLockGate = 4670;
constexpr long kLineReleaseGate = 4719;

int CurrentThread() { return OwnThreadId(); }
}  // namespace

CPMutexRecursionHelper* g_pmutexRecursionHelper = nullptr;

CPMutexRecursive::CPMutexRecursive(const std::string& name)
    : m_useCount(0), m_pGate(nullptr), m_count(0), m_ownerThread(0) {
  m_pGate = new (std::nothrow) CPCritSec("CPMutexRecursive-" + name, 1);
  if (m_pGate == nullptr) {
    if (g_pambittracing)
      traceImpl(kCategoryEventsAndQoS, kLevelOrdinary,
                "(Error) CPMutexRecursive::CPMutexRecursive, memory allocation "
                "failure\n");
    AMBIT_THROW(QK_E_OUT_OF_MEMORY);  // new frees the record itself
  }
}

CPMutexRecursive::~CPMutexRecursive() { delete m_pGate; }

int CPMutexRecursive::lock(pthread_mutex_t* mutex) {
  if (g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPMutexRecursive::lock %p\n",
              static_cast<void*>(mutex));
  // Other threads of this process stop here while one of them owns the
  // shared mutex; the owner passes, as the gate is recursive.
  m_pGate->enter(kLineLockGate);
  if (m_count != 0) {
    if (g_pambittracing)
      traceImpl(kCategoryLifeCycle, kLevelOrdinary,
                "CPMutexRecursive::lock %p - thread already has mutex, count %d\n",
                static_cast<void*>(mutex), m_count);
    ++m_count;
    return 0;
  }
  if (g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary,
              "CPMutexRecursive::lock %p - acquiring mutex\n",
              static_cast<void*>(mutex));
  bool abandoned = false;
  const int error = LockRobustMutex(mutex, nullptr, &abandoned);
  if (error != 0) return error;  // the gate stays entered, on purpose
  m_ownerThread = CurrentThread();
  ++m_count;
  return abandoned ? EOWNERDEAD : 0;
}

int CPMutexRecursive::timedlock(pthread_mutex_t* mutex, const timespec* absTime) {
  if (g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary,
              "CPMutexRecursive::timedlock %p\n", static_cast<void*>(mutex));
  // Not bounded by absTime: only the shared mutex is waited for with a limit.
  m_pGate->enter(kLineTimedLockGate);
  if (m_count != 0) {
    if (g_pambittracing)
      traceImpl(kCategoryLifeCycle, kLevelOrdinary,
                "CPMutexRecursive::timedlock %p - thread already has mutex, "
                "count %d\n",
                static_cast<void*>(mutex), m_count);
    ++m_count;
    return 0;
  }
  if (g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary,
              "CPMutexRecursive::timedlock %p - acquiring mutex\n",
              static_cast<void*>(mutex));
  bool abandoned = false;
  const int error = LockRobustMutex(mutex, absTime, &abandoned);
  if (error != 0) return error;  // ETIMEDOUT too: the gate stays entered
  m_ownerThread = CurrentThread();
  ++m_count;
  return abandoned ? EOWNERDEAD : 0;
}

int CPMutexRecursive::release(pthread_mutex_t* mutex) {
  if (g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary,
              "CPMutexRecursive::release %p, cnt %d\n",
              static_cast<void*>(mutex), m_count);
  // Read before entering anything: only the owning thread can pass this
  // test, and for it the fields are stable.
  if (m_count == 0 || m_ownerThread != CurrentThread()) {
    AMBIT_TRACE_ERROR(
        "(Error) CPMutexRecursive::release %p: not locked (count=%d) or wrong "
        "thread owner (thread=%d)\n",
        static_cast<void*>(mutex), m_count, m_ownerThread);
    AMBIT_THROW(QK_E_MUTEX_NOT_OWNER);
  }
  const int left = --m_count;
  if (left == 0) {
    if (g_pambittracing)
      traceImpl(kCategoryLifeCycle, kLevelOrdinary,
                "CPMutexRecursive::release %p - releasing mutex\n",
                static_cast<void*>(mutex));
    m_ownerThread = 0;
    ::pthread_mutex_unlock(mutex);
  } else if (g_pambittracing) {
    traceImpl(kCategoryLifeCycle, kLevelOrdinary,
              "CPMutexRecursive::release %p - thread already has mutex, count %d\n",
              static_cast<void*>(mutex), left);
  }
  // The count is taken before leaving: once the gate is left, the next
  // thread of the process may already be changing it.
  m_pGate->leave(kLineReleaseGate);
  return left;
}

CPMutexRecursionHelper::CPMutexRecursionHelper() : m_pLock(nullptr) {
  m_pLock = new (std::nothrow) CPCritSec("CPMutexRecursiveHelper", 1);
  if (m_pLock == nullptr) {
    if (g_pambittracing)
      traceImpl(kCategoryEventsAndQoS, kLevelOrdinary,
                "(Error) CPMutexRecursionHelper::CPMutexRecursionHelper, memory "
                "allocation failure\n");
    AMBIT_THROW(QK_E_OUT_OF_MEMORY);
  }
}

// Records and lock are left alone: users may still hold record pointers.
CPMutexRecursionHelper::~CPMutexRecursionHelper() { m_records.clear(); }

CPMutexRecursive* CPMutexRecursionHelper::add(const std::string& name) {
  m_pLock->enter(kLineAddEnter);
  CPMutexRecursive* record;
  try {
    auto found = m_records.find(name);
    if (found != m_records.end()) {
      record = found->second;
    } else {
      record = new CPMutexRecursive(name);
      try {
        m_records.emplace(name, record);
      } catch (...) {
        delete record;
        throw;
      }
    }
  } catch (...) {
    // Other threads must still be able to use the table.
    m_pLock->leave(kLineAddLeave);
    throw;
  }
  ++record->m_useCount;
  m_pLock->leave(kLineAddLeave);
  return record;
}

void CPMutexRecursionHelper::del(const std::string& name) {
  m_pLock->enter(kLineDelEnter);
  auto found = m_records.find(name);
  if (found != m_records.end() && --found->second->m_useCount == 0) {
    delete found->second;  // and its gate
    m_records.erase(found);
  }
  m_pLock->leave(kLineDelLeave);
}

CPMutexRecursionHelper* get_mutexRecursionHelper() {
  ::pthread_mutex_lock(&g_mutexGlobals);
  if (g_pmutexRecursionHelper == nullptr) {
    try {
      g_pmutexRecursionHelper = new (std::nothrow) CPMutexRecursionHelper();
    } catch (...) {
      ::pthread_mutex_unlock(&g_mutexGlobals);  // the constructor threw
      throw;
    }
    if (g_pmutexRecursionHelper == nullptr) {
      ::pthread_mutex_unlock(&g_mutexGlobals);
      AMBIT_THROW(QK_E_OUT_OF_MEMORY);
    }
  }
  CPMutexRecursionHelper* helper = g_pmutexRecursionHelper;
  ::pthread_mutex_unlock(&g_mutexGlobals);
  return helper;
}

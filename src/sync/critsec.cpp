// CPCritSec and its implementation, in one unit so that the facade's calls
// compile down to the mutex calls.
#include "ambit/critsec.h"

#include <pthread.h>

#include <cerrno>

#include "sync/critsec_impl.h"
#include "trace/trace_impl.h"

namespace {
constexpr unsigned long kCategoryCritSec = 32;
constexpr unsigned long kLevelOrdinary = 2;
}  // namespace

CPCritSecImpl::CPCritSecImpl(std::string name, int allowTrace)
    : m_name(std::move(name)), m_allowTrace(allowTrace), m_lineNo(0), m_trace(0) {}

// Destroying a held section is not detected.
CPCritSecImpl::~CPCritSecImpl() = default;

int CPCritSecImpl::enter(long lineNo) {
  // Written before blocking: the line records attempts, not acquisitions.
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryCritSec, kLevelOrdinary,
              "CPCritSecImpl::enter (%p) %s, lineno %d\n",
              static_cast<void*>(this), m_name.c_str(),
              static_cast<int>(lineNo));
  return m_mutex.lock();
}

int CPCritSecImpl::leave(long lineNo) { return m_mutex.unlock(); }

int CPCritSecImpl::tryEnter(long lineNo) {
  // Any failure other than "held by another thread" counts as entered.
  if (m_mutex.tryLock() != EBUSY) return 1;
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryCritSec, kLevelOrdinary,
              "CPCritSecImpl::tryEnter (%p) %s, lineno %d\n",
              static_cast<void*>(this), m_name.c_str(),
              static_cast<int>(lineNo));
  return 0;
}

int CPCritSecImpl::test() {
  // The mutex is recursive, so a section held by the caller tests as free.
  if (m_mutex.tryLock() != EBUSY) {
    m_mutex.unlock();
    return 0;
  }
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryCritSec, kLevelOrdinary,
              "TryEnterCritSec (%p) %s, lineno %d\n", static_cast<void*>(this),
              m_name.c_str(), static_cast<int>(m_lineNo));
  return 1;
}

CPCritSec::CPCritSec(std::string name, int allowTrace)
    : m_pImpl(nullptr), m_allowTrace(allowTrace), m_trace(0) {
  m_pImpl = new CPCritSecImpl(std::move(name), allowTrace);
}

CPCritSec::~CPCritSec() { delete m_pImpl; }

int CPCritSec::enter(long lineNo) { return m_pImpl->enter(lineNo); }

int CPCritSec::leave(long lineNo) { return m_pImpl->leave(lineNo); }

int CPCritSec::tryEnter(long lineNo) { return m_pImpl->tryEnter(lineNo); }

int CPCritSec::test() { return m_pImpl->test(); }

void CPCritSec::setTrace(int trace) {
  m_trace = trace;
  m_pImpl->setTrace(trace);
}

void CPCritSec::setAllowTrace(int allowTrace) {
  m_allowTrace = allowTrace;
  m_pImpl->setAllowTrace(allowTrace);
}

// The event facades: trace if allowed, then forward.
#include "ambit/event.h"

#include <new>

#include "ambit/exception.h"
#include "sync/event_impl.h"
#include "sync/terminate_wait.h"
#include "trace/trace_impl.h"

namespace {
constexpr unsigned long kCategoryEvents = 4;
constexpr unsigned long kCategoryLifeCycle = 16;
constexpr unsigned long kLevelOrdinary = 2;
}  // namespace

CPEvent::CPEvent(int create, const std::string& name, int allowTrace)
    : m_pImpl(nullptr), m_allowTrace(allowTrace), m_trace(0) {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPEvent::CPEvent (%p), name \"%s\"\n",
              static_cast<void*>(this), name.c_str());
  m_pImpl = new CPEventImpl(create, name, allowTrace);
}

CPEvent::~CPEvent() {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPEvent::~CPEvent (%p)\n",
              static_cast<void*>(this));
  delete m_pImpl;
}

long CPEvent::wake(long bits) {
  if (m_allowTrace && m_trace && g_pambittracing)
    traceImpl(kCategoryEvents, kLevelOrdinary, "CPEvent::wake (%p) 0x%08X\n",
              static_cast<void*>(this), static_cast<unsigned>(bits));
  return m_pImpl->wake(bits);
}

unsigned long CPEvent::wait(unsigned long timeoutMs, CTerminateWait* terminate) {
  if (m_allowTrace && m_trace && g_pambittracing)
    traceImpl(kCategoryEvents, kLevelOrdinary, "CPEvent::wait (%p)\n", static_cast<void*>(this));
  const unsigned long r = WaitWithTerminate(
      timeoutMs, terminate, [this](unsigned long ms) { return m_pImpl->wait(ms); });
  if (m_allowTrace && m_trace && g_pambittracing)
    traceImpl(kCategoryEvents, kLevelOrdinary, "<<<CPEvent::wait (%p) 0x%08X\n",
              static_cast<void*>(this), static_cast<unsigned>(r));
  return r;
}

void CPEvent::setTrace(int trace) {
  m_trace = trace;
  m_pImpl->setTrace(trace);
}

CPEventEx::CPEventEx(int allowTrace) : m_pImpl(nullptr), m_allowTrace(allowTrace), m_trace(0) {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPEventEx::CPEventEx (%p)\n",
              static_cast<void*>(this));
}

CPEventEx::~CPEventEx() {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPEventEx::~CPEventEx (%p)\n",
              static_cast<void*>(this));
  Finalize();
}

unsigned long CPEventEx::Initialize(int create, const std::string& name) {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPEventEx::Initialize (%p), name \"%s\"\n",
              static_cast<void*>(this), name.c_str());
  if (m_pImpl != nullptr) return 0;
  m_pImpl = new (std::nothrow) CPEventImpl(create, name, m_allowTrace);  // may throw
  if (m_pImpl == nullptr) return static_cast<unsigned long>(QK_E_OUT_OF_MEMORY);
  return 0;
}

unsigned long CPEventEx::Finalize() {
  if (m_allowTrace && g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary, "CPEventEx::Finalize (%p)\n",
              static_cast<void*>(this));
  delete m_pImpl;
  m_pImpl = nullptr;
  return 0;
}

long CPEventEx::wake(long bits) {
  if (m_allowTrace && m_trace && g_pambittracing)
    traceImpl(kCategoryEvents, kLevelOrdinary, "CPEventEx::wake (%p) 0x%08X\n",
              static_cast<void*>(this), static_cast<unsigned>(bits));
  return m_pImpl->wake(bits);
}

unsigned long CPEventEx::wait(unsigned long timeoutMs, CTerminateWait* terminate) {
  if (m_allowTrace && m_trace && g_pambittracing)
    traceImpl(kCategoryEvents, kLevelOrdinary, "CPEventEx::wait (%p)\n",
              static_cast<void*>(this));
  const unsigned long r = WaitWithTerminate(
      timeoutMs, terminate, [this](unsigned long ms) { return m_pImpl->wait(ms); });
  if (m_allowTrace && m_trace && g_pambittracing)
    traceImpl(kCategoryEvents, kLevelOrdinary, "<<<CPEventEx::wait (%p) 0x%08X\n",
              static_cast<void*>(this), static_cast<unsigned>(r));
  return r;
}

void CPEventEx::setTrace(int trace) {
  m_trace = trace;
  if (m_pImpl != nullptr) m_pImpl->setTrace(trace);
}

// Thread objects: a start function run on a named thread and stopped
// through the caller's stop event.
#include <cxxabi.h>

#include <new>

#include "ambit/event.h"
#include "ambit/exception.h"
#include "ambit/portable.h"
#include "ambit/thread.h"
#include "portable/thread_object_impl.h"
#include "trace/trace_impl.h"

namespace {

constexpr unsigned long kCategoryEvents = 4;
constexpr unsigned long kCategoryLifeCycle = 16;
constexpr unsigned long kLevelOrdinary = 2;
constexpr unsigned long kLevelError = 64;
constexpr long kStopBits = 0x8000000;
constexpr unsigned long kStopPollMs = 200;

#define THREAD_TRACE_AT(category, level, ...)                \
  do {                                                       \
    if (g_pambittracing) traceImpl(category, level, __VA_ARGS__); \
  } while (0)
#define THREAD_TRACE(category, ...) THREAD_TRACE_AT(category, kLevelOrdinary, __VA_ARGS__)

// Marks the object stopped however the function is left, cancellation and
// EndThread included, so that a destructor never waits for ever.
struct StoppedOnExit {
  explicit StoppedOnExit(ThreadObjectState* s) : state(s) {}
  ~StoppedOnExit() {
    THREAD_TRACE(kCategoryLifeCycle, "%s - stopping\n", state->name.c_str());
    state->running = 0;
  }
  ThreadObjectState* state;
};

}  // namespace

void RunThreadObject(void* raw) {
  ThreadObjectState* state = static_cast<ThreadObjectState*>(raw);
  state->running = 1;
  THREAD_TRACE(kCategoryLifeCycle, "%s - starting\n", state->name.c_str());
  StoppedOnExit stopped(state);
  try {
    state->function(state->argument);
  } catch (abi::__forced_unwind&) {
    throw;  // thread cancellation must unwind on
  } catch (...) {
    THREAD_TRACE_AT(kCategoryEvents, kLevelError, "(Error) %s - had an exception\n",
                    state->name.c_str());
  }
}

CPThreadImpl::CPThreadImpl(const std::string& threadName, void (*fn)(void*), void* arg,
                           CPEvent* stop) {
  name = threadName;
  function = fn;
  argument = arg;
  stopEvent = stop;
  running = 1;
  id = CPortable::CreateThread(&RunThreadObject, static_cast<ThreadObjectState*>(this),
                               nullptr, name);
  if (id == 0) {
    running = 0;
    AMBIT_THROW(QK_E_THREAD_START);
  }
}

CPThreadImpl::~CPThreadImpl() {
  if (stopEvent != nullptr)
    stopEvent->wake(kStopBits);
  else
    THREAD_TRACE(kCategoryLifeCycle, "%s NULL Pointer Can't send Signal\n", name.c_str());
  while (running == 1) {
    CPortable::Sleep(kStopPollMs);
    if (stopEvent != nullptr) {
      stopEvent->wake(kStopBits);
      THREAD_TRACE(kCategoryLifeCycle, "%s Sending Signal\n", name.c_str());
    }
  }
}

unsigned long CPThreadImplEx::Initialize(const std::string& threadName, void (*fn)(void*),
                                         void* arg, CPEvent* stop) {
  name = threadName;
  function = fn;
  argument = arg;
  stopEvent = stop;
  id = CPortable::CreateThread(&RunThreadObject, static_cast<ThreadObjectState*>(this),
                               nullptr, name);
  if (id != 0) return 0;
  name.clear();
  function = nullptr;
  argument = nullptr;
  stopEvent = nullptr;
  return static_cast<unsigned long>(QK_E_THREAD_START);
}

unsigned long CPThreadImplEx::Finalize() {
  if (stopEvent != nullptr) stopEvent->wake(kStopBits);
  return 0;
}

CPThread::CPThread(const std::string& name, void (*function)(void*), void* argument,
                   CPEvent* stopEvent)
    : m_pImpl(nullptr) {
  THREAD_TRACE(kCategoryLifeCycle, "CPThread::CPThread %s\n", name.c_str());
  m_pImpl = new CPThreadImpl(name, function, argument, stopEvent);
}

CPThread::~CPThread() {
  // The destructor repeats the constructor's text on purpose.
  if (m_pImpl != nullptr)
    THREAD_TRACE(kCategoryLifeCycle, "CPThread::CPThread %s\n", m_pImpl->name.c_str());
  delete m_pImpl;
}

unsigned long CPThread::getID() { return m_pImpl->id; }

CPThreadEx::CPThreadEx() : m_pImpl(nullptr) {}

CPThreadEx::~CPThreadEx() { Finalize(); }

unsigned long CPThreadEx::Initialize(const std::string& name, void (*function)(void*),
                                     void* argument, CPEvent* stopEvent) {
  if (m_pImpl != nullptr) return 0;
  m_pImpl = new (std::nothrow) CPThreadImplEx;
  if (m_pImpl == nullptr) return static_cast<unsigned long>(QK_E_OUT_OF_MEMORY);
  const unsigned long r = m_pImpl->Initialize(name, function, argument, stopEvent);
  if (r != 0) {
    m_pImpl->Finalize();
    delete m_pImpl;
    m_pImpl = nullptr;
  }
  return r;
}

unsigned long CPThreadEx::Finalize() {
  if (m_pImpl != nullptr) {
    m_pImpl->Finalize();
    delete m_pImpl;
    m_pImpl = nullptr;
  }
  return 0;
}

unsigned long CPThreadEx::getID() { return m_pImpl != nullptr ? m_pImpl->id : 0; }

int CPThreadEx::IsRunning() { return m_pImpl != nullptr ? m_pImpl->running.load() : 0; }

// Starting, naming, joining and ending threads.
#include <pthread.h>
#include <sys/prctl.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "ambit/event.h"
#include "ambit/exception.h"
#include "ambit/portable.h"
#include "sync/wall_deadline.h"
#include "trace/trace_impl.h"

namespace {

// Built by the creator, which owns it and waits on `started` until the new
// thread has published its id; the thread must not touch it afterwards.
struct StartRecord {
  StartRecord(void (*f)(void*), void* a, const std::string& n)
      : function(f), argument(a), name(n), started(1, "", 1), threadId(0) {}
  void (*function)(void*);
  void* argument;
  std::string name;
  CPEvent started;
  unsigned long threadId;
};

void NameCurrentThread(const std::string& name) {
  char current[17];
  std::memset(current, 0, sizeof current);
  ::prctl(PR_GET_NAME, current, 0, 0, 0);
  // The prefix is the old name up to its first '.', at most 3 characters,
  // so naming twice does not stack prefixes.
  std::string prefix(current);
  prefix = prefix.substr(0, prefix.find('.')).substr(0, 3);
  const std::string full = prefix + "." + name;  // the kernel keeps 15
  ::prctl(PR_SET_NAME, full.c_str(), 0, 0, 0);
}

void* ThreadWrapper(void* raw) {
  StartRecord* record = static_cast<StartRecord*>(raw);
  void (*function)(void*) = record->function;
  void* argument = record->argument;
  if (!record->name.empty()) NameCurrentThread(record->name);
  record->threadId = CPortable::GetCurrentThreadId();
  record->started.wake(0);  // the record is the creator's again from here
  function(argument);
  return nullptr;
}

unsigned long StartThread(void (*function)(void*), void* argument, unsigned long* pthreadId,
                          const std::string& name, bool detached) {
  if (pthreadId != nullptr) *pthreadId = 0;
  StartRecord* record = new StartRecord(function, argument, name);
  pthread_attr_t attr;
  int r = 0;
  if (detached) {
    r = pthread_attr_init(&attr);
    if (r == 0) r = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  }
  pthread_t thread = 0;
  if (r == 0) r = pthread_create(&thread, detached ? &attr : nullptr, &ThreadWrapper, record);
  if (detached) pthread_attr_destroy(&attr);

  unsigned long result = 0;
  if (r != 0) {
    AMBIT_TRACE_ERROR("(Error) CPortable::CreateThread, pthread_create failed - 0x%08X\n",
                      static_cast<unsigned>((r & 0xFFFF) + 0x80100000));
  } else {
    if (pthreadId != nullptr) *pthreadId = static_cast<unsigned long>(thread);
    record->started.wait(QK_INFINITE, nullptr);
    result = record->threadId;
  }
  delete record;
  return result;
}

}  // namespace

unsigned long CPortable::CreateThread(void (*function)(void*), void* argument,
                                      unsigned long* pthreadId, std::string name) {
  return StartThread(function, argument, pthreadId, name, true);
}

unsigned long CPortable::CreateThreadJoinable(void (*function)(void*), void* argument,
                                              unsigned long* pthreadId, std::string name) {
  return StartThread(function, argument, pthreadId, name, false);
}

int CPortable::SetCurrentThreadName(std::string name) {
  if (!name.empty()) NameCurrentThread(name);
  return 0;
}

int CPortable::SetCurrentThreadPriority(E_QK_THREAD_PRIORITY priority) { return 0; }

unsigned long CPortable::WaitForThreadToTerminate(unsigned long pthreadHandle,
                                                  unsigned long timeoutMs) {
  const pthread_t thread = static_cast<pthread_t>(pthreadHandle);
  if (timeoutMs == 0) {
    const int r = pthread_tryjoin_np(thread, nullptr);
    if (r == 0) return 0;
    return r == EBUSY ? QK_WAIT_TIMEOUT : QK_WAIT_FAILED;
  }
  if (timeoutMs == QK_INFINITE) return pthread_join(thread, nullptr) == 0 ? 0 : QK_WAIT_FAILED;

  const timespec deadline = WallDeadline(timeoutMs);
  // An expired join reports ETIMEDOUT, not EBUSY, and so gives 0xD0000000:
  // callers rely on the difference from the zero-timeout case.
  const int r = pthread_timedjoin_np(thread, nullptr, &deadline);
  if (r == 0) return 0;
  return r == EBUSY ? QK_WAIT_TIMEOUT : QK_WAIT_FAILED;
}

int CPortable::TerminateThread(unsigned long pthreadHandle, unsigned long exitCode) {
  pthread_cancel(static_cast<pthread_t>(pthreadHandle));
  return 1;
}

void CPortable::EndThread(unsigned long exitCode) {
  pthread_exit(reinterpret_cast<void*>(exitCode));
}

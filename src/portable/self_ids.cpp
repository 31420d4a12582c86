#include "portable/self_ids.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Runs in the child of fork(), on its only thread: both ids are new there.
void RenewInChild() {
  self_ids::g_processId = static_cast<int>(::getpid());
  self_ids::t_threadId = static_cast<int>(::syscall(SYS_gettid));
}

void RegisterForkHandler() {
  static const int registered = pthread_atfork(nullptr, nullptr, &RenewInChild);
  (void)registered;
}

}  // namespace

namespace self_ids {

int CacheProcessId() {
  RegisterForkHandler();
  const int pid = static_cast<int>(::getpid());
  __atomic_store_n(&g_processId, pid, __ATOMIC_RELAXED);
  return pid;
}

int CacheThreadId() {
  RegisterForkHandler();
  t_threadId = static_cast<int>(::syscall(SYS_gettid));
  return t_threadId;
}

}  // namespace self_ids

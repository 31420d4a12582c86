#ifndef AMBIT_PORTABLE_SELF_IDS_H_
#define AMBIT_PORTABLE_SELF_IDS_H_

// The calling process's id and the calling thread's kernel id, asked of the
// kernel once and then read from a cache: both sit on the lock and wait
// paths of the named objects, where a system call per operation would be
// most of the cost. The child of fork() renews both caches (a handler
// registered on first use), since it runs with a new process id and a new
// kernel thread id.

namespace self_ids {

// Kept here with constant initial values, so that reading them is a plain
// load with no initialisation call.
inline int g_processId = 0;
inline thread_local int t_threadId __attribute__((tls_model("initial-exec"))) = 0;

// Asks the kernel and fills the caches.
int CacheProcessId();
int CacheThreadId();

}  // namespace self_ids

// getpid(), cached.
inline int OwnProcessId() {
  const int cached = self_ids::g_processId;
  return cached != 0 ? cached : self_ids::CacheProcessId();
}

// The kernel thread id (gettid), cached per thread. A pthread mutex records
// this id as its owner, and a new thread that reuses a dead thread's
// thread-local block gets a fresh one.
inline int OwnThreadId() {
  const int cached = self_ids::t_threadId;
  return cached != 0 ? cached : self_ids::CacheThreadId();
}

#endif  // AMBIT_PORTABLE_SELF_IDS_H_

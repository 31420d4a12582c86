#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "ambit/portable.h"
#include "portable/self_ids.h"

unsigned long CPortable::GetCurrentProcessId() {
  return static_cast<unsigned long>(OwnProcessId());
}

unsigned long CPortable::GetCurrentThreadId() {
  return static_cast<unsigned long>(OwnThreadId());
}

unsigned long CPortable::GetCurrentPThreadId() {
  return static_cast<unsigned long>(::pthread_self());
}

unsigned long CPortable::GetCurrentThreadHandle() { return 0; }

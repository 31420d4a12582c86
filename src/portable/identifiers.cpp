#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "ambit/portable.h"

unsigned long CPortable::GetCurrentProcessId() {
  return static_cast<unsigned long>(::getpid());
}

unsigned long CPortable::GetCurrentThreadId() {
  return static_cast<unsigned long>(::syscall(SYS_gettid));
}

unsigned long CPortable::GetCurrentPThreadId() {
  return static_cast<unsigned long>(::pthread_self());
}

unsigned long CPortable::GetCurrentThreadHandle() { return 0; }

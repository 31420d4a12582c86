#ifndef AMBIT_SYNC_SPIN_WAIT_H_
#define AMBIT_SYNC_SPIN_WAIT_H_

#include <time.h>

// A short spin before a waiter goes to sleep in the kernel. When the other
// side answers within microseconds (two processes handing work back and
// forth through events or semaphores), the waiter sees the answer without
// the system calls of a sleep and a wake-up, and without the wake-up
// latency of an idle CPU, which on a virtual machine is tens of
// microseconds. The spin is bounded by time, a few microseconds. On a
// machine with one CPU the other side cannot run while we spin, so there
// is none.

// True when more than one CPU is online (asked once).
bool SpinningHelps();

// Polls ready() until it is true or the spin's time is up; its last answer.
template <typename Ready>
bool SpinUntil(Ready ready) {
  constexpr long kSpinNs = 8000;
  timespec start;
  ::clock_gettime(CLOCK_MONOTONIC, &start);
  for (unsigned round = 1;; ++round) {
    if (ready()) return true;
    __asm__ __volatile__("rep; nop" ::: "memory");  // pause
    if ((round & 31) == 0) {
      timespec now;
      ::clock_gettime(CLOCK_MONOTONIC, &now);
      const long long ns = (static_cast<long long>(now.tv_sec) - start.tv_sec) * 1000000000LL +
                           (now.tv_nsec - start.tv_nsec);
      if (ns >= kSpinNs) return false;
    }
  }
}

#endif  // AMBIT_SYNC_SPIN_WAIT_H_

#ifndef AMBIT_SYNC_TERMINATE_WAIT_H_
#define AMBIT_SYNC_TERMINATE_WAIT_H_

#include "ambit/event.h"
#include "ambit/exception.h"
#include "ambit/portable.h"

// Asks the caller's hook whether to stop. A caller may pass any object whose
// first virtual function is the check, derived from CTerminateWait or not,
// so the call goes through that slot without a check of the object's
// dynamic type (which the undefined-behaviour sanitizer would otherwise add).
__attribute__((no_sanitize("vptr"))) inline int TerminateRequested(CTerminateWait* terminate) {
  return terminate->shouldTerminate();
}

// The waits of the facades: without a terminate hook one wait of the whole
// time-out; with one, slices of min(timeout, 5000) ms (never what remains,
// so the wait may overrun by up to one slice) with the hook asked before
// each. `waitOnce(ms)` is the implementation's single wait.
template <typename WaitOnce>
unsigned long WaitWithTerminate(unsigned long timeoutMs, CTerminateWait* terminate,
                                WaitOnce waitOnce) {
  if (terminate == nullptr) return waitOnce(timeoutMs);
  constexpr unsigned long kSliceMs = 5000;
  const unsigned long start = CPortable::GetTickCount();
  for (;;) {
    if (TerminateRequested(terminate) != 0) return QK_WAIT_ABANDONED;
    const unsigned long r = waitOnce(timeoutMs < kSliceMs ? timeoutMs : kSliceMs);
    if (r != QK_WAIT_TIMEOUT) return r;
    const unsigned long now = CPortable::GetTickCount();
    const unsigned long elapsed = now >= start ? now - start : now + (0xFFFFFFFFUL - start);
    if (elapsed > timeoutMs) return QK_WAIT_TIMEOUT;
  }
}

#endif  // AMBIT_SYNC_TERMINATE_WAIT_H_

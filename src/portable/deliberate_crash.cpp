#include "portable/deliberate_crash.h"

namespace {
// Read at run time, so the compiler cannot see that the address is null and
// must emit a real store (which faults) instead of a trap instruction.
char* volatile g_nullAddress = nullptr;
}  // namespace

// The sanitizers must not turn the fault into a report of their own: the
// process is meant to die of SIGSEGV.
__attribute__((no_sanitize("undefined"))) void ZeroAtNullAddress(size_t size) {
  volatile char* p = g_nullAddress;
  for (size_t i = 0; i < size; ++i) p[i] = 0;
}

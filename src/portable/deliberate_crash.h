#ifndef AMBIT_PORTABLE_DELIBERATE_CRASH_H_
#define AMBIT_PORTABLE_DELIBERATE_CRASH_H_

#include <cstddef>

// Ends the process with an invalid memory access: `size` bytes are zeroed
// at address 0, which faults (SIGSEGV) on the first byte. Used where the
// library must not let a process go on with shared state it cannot trust.
// A size of 0 writes nothing and returns.
void ZeroAtNullAddress(size_t size);

#endif  // AMBIT_PORTABLE_DELIBERATE_CRASH_H_

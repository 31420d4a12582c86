#ifndef AMBIT_TRACE_TRACE_CLOCK_H_
#define AMBIT_TRACE_TRACE_CLOCK_H_

#include "portable/wall_clock.h"

// The clock the trace log reads for its file names, roll-over and line
// prefixes. It is the system clock; tests replace it to cross midnight.
extern WallClock g_traceClock;

#endif  // AMBIT_TRACE_TRACE_CLOCK_H_

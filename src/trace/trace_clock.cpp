#include "trace/trace_clock.h"

// Constant-initialised: lines traced while the library loads read it too.
WallClock g_traceClock = kSystemWallClock;

// The library's globals that need a constructor, all in this one unit so
// that they are built at load time in this order (and destroyed in reverse
// at unload): the trace log first, because everything after it may trace;
// then the process facts; then the two static critical sections.
#include <unistd.h>

#include "ambit/critsec.h"
#include "ambit/portable.h"
#include "ambit/trace.h"
#include "net/qos_impl.h"
#include "portable/process_facts.h"
#include "sync/weak_ref_lock.h"

// Constant-initialised: valid before any constructor runs.
unsigned long AmbitTrace::m_level = 0;
AmbitTrace* g_pAmbitTrace = nullptr;
AmbitTracing* g_pambittracing = nullptr;

// 1. The trace log: reads "AmbitTrace" and "QKLogFilePath".
AmbitTrace g_AmbitTrace;

// 2. The process facts: the clock-tick rate from the auxiliary vector that
//    follows the environment block, then the boot time.
unsigned long long g_ullHertz = ClockTicksPerSecond(AuxiliaryVectorAfter(environ));
unsigned long g_dwBootTime = getBootTime();

// 3. The static critical sections.
CPCritSec CWeakRefLock::ms_csWeakRefs("", 1);
CPCritSec CPQoSImpl::m_critsecCPQoSImpl("", 1);

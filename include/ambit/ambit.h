#ifndef AMBIT_AMBIT_H_
#define AMBIT_AMBIT_H_

// The whole public interface of libambit.

#include "ambit/convertutf.h"
#include "ambit/critsec.h"
#include "ambit/enumnamedobjects.h"
#include "ambit/event.h"
#include "ambit/exception.h"
#include "ambit/export.h"
#include "ambit/multievent.h"
#include "ambit/mutex.h"
#include "ambit/mutex_lock.h"
#include "ambit/portable.h"
#include "ambit/qos.h"
#include "ambit/semaphore.h"
#include "ambit/sharedmemory.h"
#include "ambit/thread.h"
#include "ambit/timezone.h"
#include "ambit/trace.h"
#include "ambit/version.h"

#endif  // AMBIT_AMBIT_H_

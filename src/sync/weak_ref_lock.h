#ifndef AMBIT_SYNC_WEAK_REF_LOCK_H_
#define AMBIT_SYNC_WEAK_REF_LOCK_H_

#include "ambit/critsec.h"

// Holder of the process-wide critical section that guards weak references.
class CWeakRefLock {
 public:
  static CPCritSec ms_csWeakRefs;
};

#endif  // AMBIT_SYNC_WEAK_REF_LOCK_H_

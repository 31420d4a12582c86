#ifndef AMBIT_NET_QOS_IMPL_H_
#define AMBIT_NET_QOS_IMPL_H_

#include "ambit/critsec.h"

// The process-wide socket QoS implementation. Its critical section guards
// the use count of the one shared instance.
class CPQoSImpl {
 public:
  static CPCritSec m_critsecCPQoSImpl;
};

#endif  // AMBIT_NET_QOS_IMPL_H_

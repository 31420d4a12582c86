#ifndef AMBIT_NET_QOS_IMPL_H_
#define AMBIT_NET_QOS_IMPL_H_

#include <set>
#include <utility>

#include "ambit/critsec.h"

// The one socket set of the process behind every CPQoS. Its own lock guards
// the set, the value and the last-error fields; the static section guards
// the use count and g_pCPQoSImpl.
class CPQoSImpl {
 public:
  CPQoSImpl();
  ~CPQoSImpl();
  CPQoSImpl(const CPQoSImpl&) = delete;
  CPQoSImpl& operator=(const CPQoSImpl&) = delete;

  unsigned long addSocket(int fd, bool udp);
  unsigned long remSocket(int fd);
  unsigned long setQoS(unsigned long dwQoS);
  unsigned long getLastError(int* lastErrno) const;

  static CPCritSec m_critsecCPQoSImpl;
  static unsigned long m_dwCPQoSImplUseCount;

 private:
  // setsockopt(IP_TOS) with the whole 32-bit value; errno on failure.
  int apply(int fd) const;

  unsigned long m_lastError;  // 0 or 0xC1210E29; cleared by every operation
  int m_lastErrno;            // errno of the last failed setsockopt, else 0
  unsigned long m_qos;        // 0 until setQoS
  std::set<std::pair<int, bool>> m_sockets;  // (descriptor, udp)
  CPCritSec m_lock;
};

// The shared implementation, or null.
extern CPQoSImpl* g_pCPQoSImpl;

#endif  // AMBIT_NET_QOS_IMPL_H_

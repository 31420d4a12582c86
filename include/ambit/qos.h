#ifndef AMBIT_QOS_H_
#define AMBIT_QOS_H_

#include "ambit/export.h"

struct sockaddr;
class CPQoSImpl;

// Marks registered sockets with an IP type-of-service value. Every CPQoS of
// a process shares one set of sockets and one current value; the set lives
// from the first CPQoS to the destruction of the last. Results are 0 or
// 0xC1210E29 when setsockopt failed (see getLastError); 0xC1210E21 from an
// object without its implementation. Nothing throws; any thread may call.
class AMBIT_API CPQoS {
 public:
  CPQoS();
  ~CPQoS();
  CPQoS(const CPQoS&) = delete;
  CPQoS& operator=(const CPQoS&) = delete;

  // Registers (fd, udp) and applies the current value to it, unless no
  // value has been set yet. `address` is ignored. A socket that cannot be
  // marked stays registered.
  unsigned long addSocket(int fd, bool udp, sockaddr* address);
  // Unregisters (fd, false), or else (fd, true): one entry per call. The
  // socket keeps its type-of-service.
  unsigned long remSocket(int fd);
  // Stores the value (0 included) and applies it to every registered
  // socket; a failure does not stop the others.
  unsigned long setQoS(unsigned long dwQoS);
  // The result of the last operation of any CPQoS in the process; the errno
  // of its last failed setsockopt (else 0) goes to *lastErrno.
  unsigned long getLastError(int* lastErrno);

 private:
  CPQoSImpl* m_pImpl;  // shared, use-counted; null after destruction
};

#endif  // AMBIT_QOS_H_

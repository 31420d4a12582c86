#include "ambit/qos.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "ambit/exception.h"
#include "net/qos_impl.h"
#include "trace/trace_impl.h"

namespace {
constexpr unsigned long kCategoryQoS = 4;
constexpr unsigned long kLevelOrdinary = 2;
constexpr unsigned long kSetSockOptFailed = static_cast<unsigned long>(QK_E_QOS_SETSOCKOPT);
constexpr unsigned long kNoImplementation = static_cast<unsigned long>(QK_E_QOS_NO_IMPL);
}  // namespace

CPQoSImpl* g_pCPQoSImpl = nullptr;
unsigned long CPQoSImpl::m_dwCPQoSImplUseCount = 0;

CPQoSImpl::CPQoSImpl() : m_lock("", 1) {
  if (g_pambittracing) traceImpl(kCategoryQoS, kLevelOrdinary, "CPQoSImpl::CPQoSImpl\n");
  m_lastError = 0;
  m_lastErrno = 0;
  m_qos = 0;
}

CPQoSImpl::~CPQoSImpl() {
  if (g_pambittracing) traceImpl(kCategoryQoS, kLevelOrdinary, "CPQoSImpl::~CPQoSImpl\n");
  m_sockets.clear();  // the sockets keep their type-of-service
}

int CPQoSImpl::apply(int fd) const {
  // The caller's value goes to the kernel unmapped, for TCP and UDP alike.
  const unsigned long qos = m_qos;
  return ::setsockopt(fd, IPPROTO_IP, IP_TOS, &qos, 4) == 0 ? 0 : errno;
}

unsigned long CPQoSImpl::addSocket(int fd, bool udp) {
  if (g_pambittracing)
    traceImpl(kCategoryQoS, kLevelOrdinary, "CPQoSImpl::addSocket %d (UDP %s)\n", fd,
              udp ? "true" : "false");
  m_lastError = 0;
  m_lastErrno = 0;
  m_lock.enter(__LINE__);
  m_sockets.insert({fd, udp});
  unsigned long result = 0;
  if (m_qos != 0) {
    // Applied even when the pair was registered already.
    if (const int error = apply(fd)) {
      m_lastError = kSetSockOptFailed;
      m_lastErrno = error;
      AMBIT_TRACE_ERROR("(Error) CPQoSImpl::addSocket, setsockopt failed %d\n", error);
      result = kSetSockOptFailed;
    }
  }
  m_lock.leave(__LINE__);
  return result;
}

unsigned long CPQoSImpl::remSocket(int fd) {
  if (g_pambittracing) traceImpl(kCategoryQoS, kLevelOrdinary, "CPQoSImpl::remSocket %d\n", fd);
  m_lastError = 0;
  m_lastErrno = 0;
  m_lock.enter(__LINE__);
  if (m_sockets.erase({fd, false}) == 0) m_sockets.erase({fd, true});
  m_lock.leave(__LINE__);
  return 0;
}

unsigned long CPQoSImpl::setQoS(unsigned long dwQoS) {
  if (g_pambittracing)
    traceImpl(kCategoryQoS, kLevelOrdinary, "CPQoSImpl::setQoS, dwQoS 0x%08X\n",
              static_cast<unsigned>(dwQoS));
  m_lastError = 0;
  m_lastErrno = 0;
  m_lock.enter(__LINE__);
  m_qos = dwQoS;
  unsigned long result = 0;
  // Every socket gets the value, 0 included; the last failure is the one
  // getLastError reports.
  for (const auto& socket : m_sockets) {
    if (const int error = apply(socket.first)) {
      m_lastError = kSetSockOptFailed;
      m_lastErrno = error;
      AMBIT_TRACE_ERROR("(Error) CPQoSImpl::setQoS, setsockopt failed %d\n", error);
      result = kSetSockOptFailed;
    }
  }
  m_lock.leave(__LINE__);
  return result;
}

unsigned long CPQoSImpl::getLastError(int* lastErrno) const {
  // Read without the lock: the last error is advisory.
  *lastErrno = m_lastErrno;
  return m_lastError;
}

CPQoS::CPQoS() : m_pImpl(nullptr) {
  CPQoSImpl::m_critsecCPQoSImpl.enter(__LINE__);
  if (CPQoSImpl::m_dwCPQoSImplUseCount == 0) g_pCPQoSImpl = new CPQoSImpl;
  ++CPQoSImpl::m_dwCPQoSImplUseCount;
  m_pImpl = g_pCPQoSImpl;
  CPQoSImpl::m_critsecCPQoSImpl.leave(__LINE__);
}

CPQoS::~CPQoS() {
  CPQoSImpl::m_critsecCPQoSImpl.enter(__LINE__);
  if (m_pImpl != nullptr && --CPQoSImpl::m_dwCPQoSImplUseCount == 0) {
    delete g_pCPQoSImpl;
    g_pCPQoSImpl = nullptr;
  }
  CPQoSImpl::m_critsecCPQoSImpl.leave(__LINE__);
  // A call on this object after its destruction must find no implementation.
  // The compiler treats a plain store into an object whose lifetime is ending
  // as dead and drops it; a volatile store is always kept.
  *static_cast<CPQoSImpl* volatile*>(&m_pImpl) = nullptr;
}

unsigned long CPQoS::addSocket(int fd, bool udp, sockaddr* address) {
  return m_pImpl != nullptr ? m_pImpl->addSocket(fd, udp) : kNoImplementation;
}

unsigned long CPQoS::remSocket(int fd) {
  return m_pImpl != nullptr ? m_pImpl->remSocket(fd) : kNoImplementation;
}

unsigned long CPQoS::setQoS(unsigned long dwQoS) {
  return m_pImpl != nullptr ? m_pImpl->setQoS(dwQoS) : kNoImplementation;
}

unsigned long CPQoS::getLastError(int* lastErrno) {
  return m_pImpl != nullptr ? m_pImpl->getLastError(lastErrno) : kNoImplementation;
}

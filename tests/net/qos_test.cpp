#include "ambit/qos.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "ambit/exception.h"
#include "gtest/gtest.h"
#include "net/qos_impl.h"
#include "support/log_capture.h"
#include "support/recording_hook.h"

namespace {

constexpr unsigned long kFailed = 0xC1210E29UL;

// The type-of-service byte the kernel keeps for fd, or -1.
int TosOf(int fd) {
  int tos = -1;
  socklen_t length = sizeof tos;
  if (getsockopt(fd, IPPROTO_IP, IP_TOS, &tos, &length) != 0) return -1;
  return tos;
}

// A socket bound (and for TCP connected) on loopback, closed at the end.
class Socket {
 public:
  explicit Socket(int type) : m_fd(socket(AF_INET, type, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (type == SOCK_STREAM) {
      m_listener = socket(AF_INET, SOCK_STREAM, 0);
      socklen_t length = sizeof address;
      bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
      listen(m_listener, 1);
      getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length);
      connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    } else {
      bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
  }
  ~Socket() {
    Close();
    if (m_listener >= 0) close(m_listener);
  }
  void Close() {
    if (m_fd >= 0) close(m_fd);
  }
  int Fd() const { return m_fd; }

 private:
  int m_fd;
  int m_listener = -1;
};

class QoSTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(nullptr, g_pCPQoSImpl) << "a CPQoS leaked"; }
};

TEST_F(QoSTest, AddSocketBeforeAnyValueOnlyRegistersIt) {
  Socket udp(SOCK_DGRAM);
  ASSERT_EQ(0, TosOf(udp.Fd()));
  CPQoS qos;
  EXPECT_EQ(0u, qos.addSocket(udp.Fd(), true, nullptr));
  EXPECT_EQ(0, TosOf(udp.Fd()));
  EXPECT_EQ(0u, qos.setQoS(0x10));
  EXPECT_EQ(0x10, TosOf(udp.Fd()));
}

TEST_F(QoSTest, SetQoSMarksEveryRegisteredSocketAndLaterOnesAtOnce) {
  Socket tcp(SOCK_STREAM), udp(SOCK_DGRAM), third(SOCK_DGRAM);
  CPQoS qos;
  qos.addSocket(tcp.Fd(), false, nullptr);
  qos.addSocket(udp.Fd(), true, nullptr);
  EXPECT_EQ(0u, qos.setQoS(0x10));
  EXPECT_EQ(0x10, TosOf(tcp.Fd()));
  EXPECT_EQ(0x10, TosOf(udp.Fd()));
  EXPECT_EQ(0, TosOf(third.Fd()));
  EXPECT_EQ(0u, qos.addSocket(third.Fd(), true, nullptr));
  EXPECT_EQ(0x10, TosOf(third.Fd()));
}

TEST_F(QoSTest, ZeroIsAppliedBySetQoS) {
  Socket udp(SOCK_DGRAM);
  CPQoS qos;
  qos.setQoS(0x28);
  qos.addSocket(udp.Fd(), true, nullptr);
  EXPECT_EQ(0x28, TosOf(udp.Fd()));
  EXPECT_EQ(0u, qos.setQoS(0));
  EXPECT_EQ(0, TosOf(udp.Fd()));
}

TEST_F(QoSTest, ClosedDescriptorAmongThreeFailsButTheOthersAreMarked) {
  Socket a(SOCK_DGRAM), b(SOCK_STREAM), c(SOCK_DGRAM);
  CPQoS qos;
  qos.addSocket(a.Fd(), true, nullptr);
  qos.addSocket(b.Fd(), false, nullptr);
  qos.addSocket(c.Fd(), true, nullptr);
  b.Close();
  EXPECT_EQ(kFailed, qos.setQoS(0x20));
  EXPECT_EQ(0x20, TosOf(a.Fd()));
  EXPECT_EQ(0x20, TosOf(c.Fd()));
  int lastErrno = 0;
  EXPECT_EQ(kFailed, qos.getLastError(&lastErrno));
  EXPECT_EQ(EBADF, lastErrno);
  // Until it is removed, every later setQoS reports the failure.
  EXPECT_EQ(kFailed, qos.setQoS(0x30));
  EXPECT_EQ(0u, qos.remSocket(b.Fd()));
  EXPECT_EQ(0u, qos.setQoS(0x40));
  EXPECT_EQ(0u, qos.getLastError(&lastErrno));
  EXPECT_EQ(0, lastErrno);
}

TEST_F(QoSTest, FailedAddSocketKeepsTheSocketRegisteredAndReportsErrno) {
  Socket udp(SOCK_DGRAM);
  CPQoS qos;
  qos.setQoS(0x10);
  const int fd = udp.Fd();
  udp.Close();
  EXPECT_EQ(kFailed, qos.addSocket(fd, true, nullptr));
  int lastErrno = 0;
  EXPECT_EQ(kFailed, qos.getLastError(&lastErrno));
  EXPECT_EQ(EBADF, lastErrno);
  EXPECT_EQ(kFailed, qos.setQoS(0x10));  // still registered
}

TEST_F(QoSTest, FailuresWriteErrorLinesWithTheErrno) {
  CPQoS qos;
  LogCapture log;  // opens its file lazily: keep a closed descriptor out of it
  qos.setQoS(0x10);
  const int fd = 4000;  // never open in this process
  qos.addSocket(fd, true, nullptr);
  qos.setQoS(0x20);
  EXPECT_EQ((std::vector<std::string>{
                "(Error) CPQoSImpl::addSocket, setsockopt failed " + std::to_string(EBADF),
                "(Error) CPQoSImpl::setQoS, setsockopt failed " + std::to_string(EBADF)}),
            log.Lines());
}

TEST_F(QoSTest, EveryOperationClearsTheLastError) {
  Socket udp(SOCK_DGRAM);
  CPQoS qos;
  qos.setQoS(0x10);
  const int fd = udp.Fd();
  udp.Close();
  qos.addSocket(fd, true, nullptr);
  int lastErrno = 0;
  EXPECT_EQ(0u, qos.remSocket(12345));
  EXPECT_EQ(0u, qos.getLastError(&lastErrno));
  EXPECT_EQ(0, lastErrno);
}

TEST_F(QoSTest, RemSocketOfAnUnregisteredDescriptorReturnsZero) {
  CPQoS qos;
  EXPECT_EQ(0u, qos.remSocket(9999));
}

TEST_F(QoSTest, RemSocketRemovesTheTcpEntryFirstAndOneEntryPerCall) {
  Socket udp(SOCK_DGRAM);
  const int fd = udp.Fd();
  CPQoS qos;
  qos.addSocket(fd, true, nullptr);
  qos.addSocket(fd, false, nullptr);  // the same descriptor, a second entry
  qos.setQoS(0x10);
  EXPECT_EQ(0x10, TosOf(fd));
  EXPECT_EQ(0u, qos.remSocket(fd));  // removes (fd, false)
  qos.setQoS(0x20);
  EXPECT_EQ(0x20, TosOf(fd));  // (fd, true) is still there
  EXPECT_EQ(0u, qos.remSocket(fd));
  qos.setQoS(0x30);
  EXPECT_EQ(0x20, TosOf(fd));  // gone, and its value was not reset
}

TEST_F(QoSTest, TwoObjectsShareOneSet) {
  Socket udp(SOCK_DGRAM);
  CPQoS first;
  {
    CPQoS second;
    second.addSocket(udp.Fd(), true, nullptr);
    first.setQoS(0x18);
    EXPECT_EQ(0x18, TosOf(udp.Fd()));
    EXPECT_EQ(2u, CPQoSImpl::m_dwCPQoSImplUseCount);
  }
  EXPECT_EQ(1u, CPQoSImpl::m_dwCPQoSImplUseCount);
  first.setQoS(0x08);
  EXPECT_EQ(0x08, TosOf(udp.Fd()));
}

TEST_F(QoSTest, LastObjectDestroysTheSetAndANewOneStartsEmpty) {
  Socket udp(SOCK_DGRAM);
  {
    CPQoS qos;
    qos.addSocket(udp.Fd(), true, nullptr);
    qos.setQoS(0x10);
  }
  EXPECT_EQ(nullptr, g_pCPQoSImpl);
  EXPECT_EQ(0u, CPQoSImpl::m_dwCPQoSImplUseCount);
  EXPECT_EQ(0x10, TosOf(udp.Fd()));  // untouched by the destruction
  CPQoS fresh;
  EXPECT_EQ(0u, fresh.setQoS(0x20));
  EXPECT_EQ(0x10, TosOf(udp.Fd()));  // the new set is empty
}

// Calls reach a destroyed object's storage when a caller keeps using it
// after destruction; the cleared pointer turns them into 0xC1210E21 instead
// of work on the shared set, or on freed memory once the set is gone.
TEST_F(QoSTest, ADestroyedObjectAnswersEveryOperationWithoutItsImplementation) {
  const unsigned long kNoImplementation = 0xC1210E21UL;
  Socket udp(SOCK_DGRAM);
  CPQoS keeper;  // keeps the shared set alive, so no call below touches freed memory
  alignas(CPQoS) unsigned char storage[sizeof(CPQoS)];
  CPQoS* destroyed = new (storage) CPQoS;
  destroyed->~CPQoS();
  void* pointer = &storage;  // the object's only member
  std::memcpy(&pointer, storage, sizeof pointer);
  EXPECT_EQ(nullptr, pointer);
  int lastErrno = -1;
  EXPECT_EQ(kNoImplementation, destroyed->addSocket(udp.Fd(), true, nullptr));
  EXPECT_EQ(kNoImplementation, destroyed->setQoS(0x10));
  EXPECT_EQ(kNoImplementation, destroyed->remSocket(udp.Fd()));
  EXPECT_EQ(kNoImplementation, destroyed->getLastError(&lastErrno));
  EXPECT_EQ(0, TosOf(udp.Fd()));  // never marked
  EXPECT_EQ(1u, CPQoSImpl::m_dwCPQoSImplUseCount);
}

TEST_F(QoSTest, OperationsWriteTheirEventCategoryLines) {
  RecordingHook hook;
  hook.Install();
  Socket udp(SOCK_DGRAM);
  {
    CPQoS qos;
    qos.addSocket(udp.Fd(), true, nullptr);
    qos.addSocket(7, false, nullptr);
    qos.setQoS(0x10);
    qos.remSocket(7);
  }
  std::vector<std::string> expected = {
      "CPQoSImpl::CPQoSImpl\n",
      "CPQoSImpl::addSocket " + std::to_string(udp.Fd()) + " (UDP true)\n",
      "CPQoSImpl::addSocket 7 (UDP false)\n",
      "CPQoSImpl::setQoS, dwQoS 0x00000010\n",
      "CPQoSImpl::remSocket 7\n",
      "CPQoSImpl::~CPQoSImpl\n"};
  std::vector<std::string> texts;
  for (const auto& line : hook.Lines()) {
    if (line.category == 32) continue;  // the implementation's own lock
    EXPECT_EQ(4u, line.category) << line.text;
    EXPECT_EQ(2u, line.level) << line.text;
    texts.push_back(line.text);
  }
  EXPECT_EQ(expected, texts);
}

}  // namespace

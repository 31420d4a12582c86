#ifndef AMBIT_TESTS_SUPPORT_HANDSHAKE_H_
#define AMBIT_TESTS_SUPPORT_HANDSHAKE_H_

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

// A one-way signal between processes (or threads) over a pipe. Make it
// before fork(); then one side calls Signal() and the other WaitFor(). Each
// Signal() satisfies exactly one WaitFor(). WaitFor is bounded.
class Handshake {
 public:
  Handshake() {
    if (::pipe2(m_fds, O_CLOEXEC) != 0) m_fds[0] = m_fds[1] = -1;
  }
  ~Handshake() {
    if (m_fds[0] >= 0) ::close(m_fds[0]);
    if (m_fds[1] >= 0) ::close(m_fds[1]);
  }
  Handshake(const Handshake&) = delete;
  Handshake& operator=(const Handshake&) = delete;

  // Sends one byte (a small value travels with it).
  bool Signal(unsigned char value = 1) {
    ssize_t n;
    do n = ::write(m_fds[1], &value, 1);
    while (n < 0 && errno == EINTR);
    return n == 1;
  }

  // True when a signal arrived within nTimeoutMs; its value goes to *value.
  bool WaitFor(int nTimeoutMs, unsigned char* value = nullptr) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::milliseconds(nTimeoutMs);
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                            end - Clock::now()).count();
      pollfd p = {m_fds[0], POLLIN, 0};
      const int r = ::poll(&p, 1, left > 0 ? static_cast<int>(left) : 0);
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) return false;
      unsigned char byte = 0;
      ssize_t n;
      do n = ::read(m_fds[0], &byte, 1);
      while (n < 0 && errno == EINTR);
      if (n != 1) return false;  // the writer closed without signalling
      if (value != nullptr) *value = byte;
      return true;
    }
  }

 private:
  int m_fds[2];
};

#endif  // AMBIT_TESTS_SUPPORT_HANDSHAKE_H_

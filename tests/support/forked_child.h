#ifndef AMBIT_TESTS_SUPPORT_FORKED_CHILD_H_
#define AMBIT_TESTS_SUPPORT_FORKED_CHILD_H_

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

// A forked child process that runs `fn` and exits with its result. The
// child must not use gtest macros: its exit code is its verdict. A child
// still running when Join's time runs out, or when the object is destroyed
// (an ASSERT returned early), is killed and reaped, so a hung child fails a
// test instead of hanging the suite.
class ForkedChild {
 public:
  explicit ForkedChild(const std::function<int()>& fn) : m_pid(::fork()) {
    if (m_pid == 0) ::_exit(fn());  // skip atexit handlers and gtest teardown
  }
  ~ForkedChild() { Join(0); }
  ForkedChild(const ForkedChild&) = delete;
  ForkedChild& operator=(const ForkedChild&) = delete;

  bool Started() const { return m_pid > 0; }
  pid_t Pid() const { return m_pid; }

  // The exit code, 128 + the signal number, or -1 when the child was still
  // running after nTimeoutMs (it is then killed).
  int Join(int nTimeoutMs) {
    if (m_pid <= 0) return -1;
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::milliseconds(nTimeoutMs);
    int status = 0;
    pid_t r;
    while ((r = ::waitpid(m_pid, &status, WNOHANG)) == 0 && Clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    if (r == 0) {
      ::kill(m_pid, SIGKILL);
      ::waitpid(m_pid, nullptr, 0);
    }
    m_pid = -1;
    if (r <= 0) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  // Sends SIGKILL now; Join then reports 128 + 9.
  void Kill() {
    if (m_pid > 0) ::kill(m_pid, SIGKILL);
  }

 private:
  pid_t m_pid;
};

#endif  // AMBIT_TESTS_SUPPORT_FORKED_CHILD_H_

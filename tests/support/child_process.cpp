#include "support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "gtest/gtest.h"

extern char** environ;

namespace {

const char kRerunVariable[] = "AMBIT_TEST_RERUN";

std::vector<std::string> MergedEnvironment(const EnvChanges& changes) {
  std::map<std::string, std::string> vars;
  for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
    const char* eq = std::strchr(*e, '=');
    if (eq == nullptr) continue;
    vars[std::string(*e, static_cast<size_t>(eq - *e))] = eq + 1;
  }
  for (const auto& change : changes) {
    if (change.second)
      vars[change.first] = *change.second;
    else
      vars.erase(change.first);
  }
  std::vector<std::string> out;
  for (const auto& v : vars) out.push_back(v.first + "=" + v.second);
  return out;
}

}  // namespace

ChildResult RunProgram(const std::vector<std::string>& argv,
                       const EnvChanges& env, int nTimeoutMs) {
  ChildResult result;
  int fds[2];
  if (argv.empty() || ::pipe2(fds, O_CLOEXEC) != 0) return result;

  const std::vector<std::string> envStrings = MergedEnvironment(env);
  std::vector<char*> args, envp;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  for (const auto& e : envStrings) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);

  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(fds[1], 1);
    ::dup2(fds[1], 2);
    ::execve(args[0], args.data(), envp.data());
    ::_exit(127);
  }
  ::close(fds[1]);
  if (pid < 0) {
    ::close(fds[0]);
    return result;
  }

  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(nTimeoutMs);
  char buffer[4096];
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          end - Clock::now()).count();
    if (left <= 0) {
      result.timedOut = true;
      break;
    }
    pollfd p = {fds[0], POLLIN, 0};
    const int r = ::poll(&p, 1, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) continue;  // the deadline is checked above
    const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // end of output
    result.output.append(buffer, static_cast<size_t>(n));
  }
  ::close(fds[0]);

  int status = 0;
  if (result.timedOut) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
    result.exitCode = -1;
    return result;
  }
  // Output ended; the child exits about now. Bound that wait too.
  pid_t r;
  while ((r = ::waitpid(pid, &status, WNOHANG)) == 0 && Clock::now() < end)
    ::usleep(1000);
  if (r == 0) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
    result.timedOut = true;
    result.exitCode = -1;
    return result;
  }
  result.exitCode =
      WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

ChildResult RerunThisTest(const EnvChanges& env, int nTimeoutMs) {
  const ::testing::TestInfo* info =
      ::testing::UnitTest::GetInstance()->current_test_info();
  std::string filter = "--gtest_filter=";
  filter += info->test_suite_name();
  filter += ".";
  filter += info->name();
  EnvChanges all = env;
  all[kRerunVariable] = std::string("1");
  return RunProgram({"/proc/self/exe", filter, "--gtest_brief=1"}, all,
                    nTimeoutMs);
}

bool IsRerunChild() {
  const char* v = std::getenv(kRerunVariable);
  return v != nullptr && std::strcmp(v, "1") == 0;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

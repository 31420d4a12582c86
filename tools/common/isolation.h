#ifndef AMBIT_TOOLS_COMMON_ISOLATION_H_
#define AMBIT_TOOLS_COMMON_ISOLATION_H_

// Helpers shared by the demo and the torture program: running in a private
// IPC + mount namespace (so that they never touch this machine's own
// registries), finding the inspector next to the running program, and
// running a program with a time limit.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace tools {

// The running program's own path.
inline std::string SelfPath() {
  char buf[4096];
  const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return "";
  buf[n] = '\0';
  return buf;
}

// The directory of the running program.
inline std::string SelfDirectory() {
  const std::string self = SelfPath();
  const size_t slash = self.rfind('/');
  return slash == std::string::npos ? std::string(".") : self.substr(0, slash);
}

// A program built or installed next to this one (the inspector sits beside
// the demo).
inline std::string SiblingProgram(const char* name) { return SelfDirectory() + "/" + name; }

// A helper file of the installed programs: `relativeDir` is where helpers
// lie as seen from the programs' own directory (the same in the build tree
// and in every installed or moved tree).
inline std::string HelperPath(const char* relativeDir, const char* name) {
  return SelfDirectory() + "/" + relativeDir + "/" + name;
}

// Returns when the process runs in the private namespaces that
// run-isolated.sh makes (it sets AMBIT_ISOLATED=1 there). Otherwise
// re-executes this program through the script and does not return; on
// failure prints why and returns false. The script is told not to fall back
// to the machine's own keys when no namespace can be made.
inline bool EnsureIsolated(int argc, char** argv, const char* script) {
  const char* isolated = std::getenv("AMBIT_ISOLATED");
  if (isolated != nullptr && std::strcmp(isolated, "1") == 0) return true;
  if (std::getenv("AMBIT_TOOLS_REEXECUTED") != nullptr) {
    std::fprintf(stderr, "%s: not isolated after re-executing through %s\n", argv[0], script);
    return false;
  }
  ::setenv("AMBIT_TOOLS_REEXECUTED", "1", 1);
  ::setenv("AMBIT_ISOLATE_STRICT", "1", 1);
  const std::string self = SelfPath();
  std::vector<char*> args;
  args.push_back(const_cast<char*>(script));
  args.push_back(const_cast<char*>(self.c_str()));
  for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
  args.push_back(nullptr);
  std::fflush(nullptr);
  ::execv(script, args.data());
  std::fprintf(stderr, "%s: cannot run %s: %s\n", argv[0], script, std::strerror(errno));
  return false;
}

// Runs argv (argv[0] a path) with its output collected into *output (when
// not null; else it goes to this program's standard output). The exit code,
// 128 + signal, or -1 when it ran longer than timeoutMs and was killed.
inline int RunProgram(const std::vector<std::string>& argv, int timeoutMs, std::string* output) {
  int fds[2] = {-1, -1};
  if (output != nullptr && ::pipe2(fds, O_CLOEXEC) != 0) return -1;
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (output != nullptr) {
      ::dup2(fds[1], 1);
      ::dup2(fds[1], 2);
    }
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  if (output != nullptr) ::close(fds[1]);
  if (pid < 0) {
    if (output != nullptr) ::close(fds[0]);
    return -1;
  }
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
  bool open = output != nullptr;
  int status = 0;
  for (;;) {
    const long left = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count());
    if (left <= 0) break;
    if (open) {
      pollfd p = {fds[0], POLLIN, 0};
      const int r = ::poll(&p, 1, static_cast<int>(left < 100 ? left : 100));
      if (r > 0) {
        char buf[4096];
        const ssize_t n = ::read(fds[0], buf, sizeof buf);
        if (n > 0)
          output->append(buf, static_cast<size_t>(n));
        else if (n == 0)
          open = false;
      }
    } else {
      ::usleep(2000);
    }
    const pid_t r = ::waitpid(pid, &status, WNOHANG);
    if (r == pid) {
      if (open) {  // what is still in the pipe
        char buf[4096];
        ssize_t n;
        while ((n = ::read(fds[0], buf, sizeof buf)) > 0) output->append(buf, static_cast<size_t>(n));
      }
      if (output != nullptr) ::close(fds[0]);
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  if (output != nullptr) ::close(fds[0]);
  return -1;
}

}  // namespace tools

#endif  // AMBIT_TOOLS_COMMON_ISOLATION_H_

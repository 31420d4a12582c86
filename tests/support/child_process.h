#ifndef AMBIT_TESTS_SUPPORT_CHILD_PROCESS_H_
#define AMBIT_TESTS_SUPPORT_CHILD_PROCESS_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

// What a child program did: its exit code (128 + signal when killed by one,
// -1 when it had to be killed for running too long) and everything it wrote
// to standard output and standard error.
struct ChildResult {
  int exitCode = -1;
  bool timedOut = false;
  std::string output;
};

// Environment changes for a child: a value sets the variable, nullopt
// removes it. Everything else is inherited.
using EnvChanges = std::map<std::string, std::optional<std::string>>;

// Runs `argv` (argv[0] is the program path) with the environment changes,
// collecting its output; kills it after nTimeoutMs.
ChildResult RunProgram(const std::vector<std::string>& argv,
                       const EnvChanges& env, int nTimeoutMs);

// Re-runs the calling test, alone, in a fresh process of this test binary,
// with the environment changes. This is how a test sees what the library
// does at load time (for example with the trace variables set). Inside the
// re-run IsRerunChild() is true; the test's gtest verdict becomes the exit
// code (0 passed).
ChildResult RerunThisTest(const EnvChanges& env, int nTimeoutMs = 30000);
bool IsRerunChild();

// The whole content of a file, or "" when it cannot be read.
std::string ReadFile(const std::string& path);

#endif  // AMBIT_TESTS_SUPPORT_CHILD_PROCESS_H_

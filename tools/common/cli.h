#ifndef AMBIT_TOOLS_COMMON_CLI_H_
#define AMBIT_TOOLS_COMMON_CLI_H_

// The two options every installed program answers the same way: --help
// prints the usage on standard output and --version the package version;
// both exit 0 at once, before the program does anything else.

#include <cstdio>
#include <cstring>

#include "ambit/version.h"

namespace tools {

// -1 when neither option is among the arguments; otherwise the exit code,
// after printing the answer. `usage` is the whole help text.
inline int AnswerHelpOrVersion(int argc, char** argv, const char* program, const char* usage) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::fputs(usage, stdout);
      return 0;
    }
    if (std::strcmp(argv[i], "--version") == 0) {
      std::printf("%s (ambit) %s\n", program, AMBIT_VERSION_STRING);
      return 0;
    }
  }
  return -1;
}

}  // namespace tools

#endif  // AMBIT_TOOLS_COMMON_CLI_H_

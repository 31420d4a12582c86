#ifndef AMBIT_VERSION_H_
#define AMBIT_VERSION_H_

// The version of the ambit package these headers belong to. The build reads
// it from here, so the shared library's file name, ambit.pc and the CMake
// package (find_package(Ambit 1.0)) all carry the same numbers.
// CPortable::getBuildVersion() is a different thing: the fixed product build
// text that callers compare against, unchanged by package releases.
#define AMBIT_VERSION_MAJOR 1
#define AMBIT_VERSION_MINOR 0
#define AMBIT_VERSION_PATCH 0
#define AMBIT_VERSION_STRING "1.0.0"

// One number for comparisons in #if: major * 10000 + minor * 100 + patch.
#define AMBIT_VERSION \
  (AMBIT_VERSION_MAJOR * 10000 + AMBIT_VERSION_MINOR * 100 + AMBIT_VERSION_PATCH)

#endif  // AMBIT_VERSION_H_

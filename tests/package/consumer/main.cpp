// Prints the versions and checks a few calls through the installed library;
// exits 0 when all went as expected. Built once through find_package(Ambit),
// which passes the version the package reported as AMBIT_PACKAGE_VERSION,
// and once with nothing but pkg-config's flags.
#include <ambit/ambit.h>

#include <cstdio>
#include <cstring>

#ifndef AMBIT_PACKAGE_VERSION
#define AMBIT_PACKAGE_VERSION AMBIT_VERSION_STRING
#endif

static_assert(sizeof(void*) == 4, "the package makes consumers i386");
static_assert(AMBIT_VERSION == AMBIT_VERSION_MAJOR * 10000 + AMBIT_VERSION_MINOR * 100 +
                                   AMBIT_VERSION_PATCH,
              "one version number");

int main() {
  CPCritSec lock("consumer", 0);
  if (lock.enter(__LINE__) != 0 || lock.leave(__LINE__) != 0) return 1;
  CPortable::FILETIME now;
  CPortable::GetSystemTimeAsFileTime(&now);
  if (now.dwHighDateTime == 0) return 2;
  const char* zone = CPortable::WindowsTimeZoneStringToLinuxTimeZoneString("Tokyo Standard Time");
  std::printf("ambit %s (package %s, build %s), Tokyo is %s\n", AMBIT_VERSION_STRING,
              AMBIT_PACKAGE_VERSION, CPortable::getBuildVersion().c_str(), zone);
  if (std::strcmp(AMBIT_VERSION_STRING, AMBIT_PACKAGE_VERSION) != 0) return 4;
  return CPortable::getBuildVersion() == "19.43.1700.0" ? 0 : 3;
}

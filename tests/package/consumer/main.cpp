// Prints the build version and checks a few calls through the installed
// library; exits 0 when all went as expected.
#include <ambit/ambit.h>

#include <cstdio>

int main() {
  CPCritSec lock("consumer", 0);
  if (lock.enter(__LINE__) != 0 || lock.leave(__LINE__) != 0) return 1;
  CPortable::FILETIME now;
  CPortable::GetSystemTimeAsFileTime(&now);
  if (now.dwHighDateTime == 0) return 2;
  const char* zone = CPortable::WindowsTimeZoneStringToLinuxTimeZoneString("Tokyo Standard Time");
  std::printf("ambit %s, Tokyo is %s\n", CPortable::getBuildVersion().c_str(), zone);
  return CPortable::getBuildVersion() == "19.43.1700.0" ? 0 : 3;
}

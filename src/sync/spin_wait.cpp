#include "sync/spin_wait.h"

#include <unistd.h>

bool SpinningHelps() {
  static const bool helps = ::sysconf(_SC_NPROCESSORS_ONLN) > 1;
  return helps;
}

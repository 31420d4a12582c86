#ifndef AMBIT_SYNC_WALL_DEADLINE_H_
#define AMBIT_SYNC_WALL_DEADLINE_H_

#include <sys/time.h>

#include <ctime>

// The absolute wall-clock deadline timeoutMs from now, as the timed waits
// of the library compute it: gettimeofday plus the time-out, with the
// nanoseconds carried into the seconds once.
inline timespec WallDeadline(unsigned long timeoutMs) {
  timeval now;
  ::gettimeofday(&now, nullptr);
  timespec deadline;
  deadline.tv_sec = now.tv_sec + static_cast<time_t>(timeoutMs / 1000);
  long ns = (static_cast<long>(timeoutMs % 1000) * 1000 + now.tv_usec) * 1000;
  if (ns > 999999999) {
    ns -= 1000000000;
    deadline.tv_sec += 1;
  }
  deadline.tv_nsec = ns;
  return deadline;
}

#endif  // AMBIT_SYNC_WALL_DEADLINE_H_

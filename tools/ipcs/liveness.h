#ifndef AMBIT_TOOLS_IPCS_LIVENESS_H_
#define AMBIT_TOOLS_IPCS_LIVENESS_H_

#include <cstdint>
#include <vector>

#include "ipcs/snapshot.h"

// What the records mean once the recorded processes are probed: kill(pid, 0)
// against every pid the registries name.

// The live processes that are waiting on the entry now (dwWaitCount > 0).
std::vector<uint32_t> LiveWaiters(const CNameMap::SNAMEINFO& entry);

// Problems that only the liveness of the recorded processes shows, with or
// without a cleanup pass:
//   dead-holder        a mutex whose recorded holder is dead while live
//                      processes wait for it
//   abandoned-segment  a registry entry (and its segment) whose recorded
//                      processes have all exited
std::vector<Violation> CheckLiveness(const Snapshot& s);

#endif  // AMBIT_TOOLS_IPCS_LIVENESS_H_

#ifndef AMBIT_TOOLS_IPCS_SNAPSHOT_H_
#define AMBIT_TOOLS_IPCS_SNAPSHOT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "names/name_map.h"
#include "shm/share_mem_layout.h"

// A copy of this machine's two registries, read through System V by key
// without changing them, as the library lays them out.
struct Snapshot {
  bool registryFound = false;
  SMEMMAPINFO registry;  // copied header and entries
  bool nameMapFound = false;
  int nameMapEntry = -1;  // index of the table's segment in the registry
  CNameMap::SNAMEMAP nameMap;
};

// Reads both registries. With `locked`, holds both interprocess locks (name
// map first, then registry, the library's order) while copying, so that no
// change is seen half made.
bool TakeSnapshot(Snapshot* out, bool locked);

// kill(pid, 0) tells the process does not exist.
bool IsDeadPid(uint32_t pid);

// One broken rule, in words.
struct Violation {
  std::string rule;
  std::string detail;
};

// The rules that hold for consistent registries: use counts equal the sum of
// the per-pid counts, no busy pid left, no used entry above the highest
// index, every used registry entry has a live segment of its size, no
// segment in the registry's key range without an entry, and (when
// `afterCleanup`) no dead pid still recorded.
std::vector<Violation> CheckInvariants(const Snapshot& s, bool afterCleanup);

#endif  // AMBIT_TOOLS_IPCS_SNAPSHOT_H_

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

// What the checks ask the system: the size of the segment at a key (false
// when there is none) and whether a pid is known dead. The inspector asks
// the real system; the fuzz target answers from its input.
struct SystemView {
  bool (*segmentSize)(int32_t key, uint64_t* size);
  bool (*isDeadPid)(uint32_t pid);
};
const SystemView& RealSystem();

// The rules that hold for consistent registries: the tables' own bytes are
// sound (see table_check.h: terminated names, indexes and counts in range,
// plausible pids), use counts equal the sum of the per-pid counts, no busy
// pid left, no used entry above the highest index, every used registry
// entry has a live segment of its size, no segment in the registry's key
// range without an entry, and (when `afterCleanup`) no dead pid still
// recorded. Any bytes may be in the snapshot: nothing is read outside it.
std::vector<Violation> CheckInvariants(const Snapshot& s, bool afterCleanup);
std::vector<Violation> CheckInvariants(const Snapshot& s, bool afterCleanup,
                                       const SystemView& system);

// True when the tables' own bytes are damaged (texts, indexes, pids), so
// that no code that trusts them, like the library's cleanup passes, may
// run over them.
bool TablesDamaged(const Snapshot& s);

#endif  // AMBIT_TOOLS_IPCS_SNAPSHOT_H_

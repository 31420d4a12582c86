#ifndef AMBIT_TOOLS_IPCS_TABLE_CHECK_H_
#define AMBIT_TOOLS_IPCS_TABLE_CHECK_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "names/name_map.h"
#include "shm/share_mem_layout.h"

struct Violation;

// Checks of the two tables' bytes as copied from shared memory, where any
// process (or a stray write) may have left anything: texts without their
// terminating 0, counts and indexes beyond the tables, pids that no process
// can have. Nothing here reads outside the copies or asks the system
// anything; each damaged field becomes a violation.
std::vector<Violation> CheckRegistryTable(const SMEMMAPINFO& registry);
std::vector<Violation> CheckNameMapTable(const CNameMap::SNAMEMAP& nameMap);

// The highest pid the kernel can hand out (PID_MAX_LIMIT on 32-bit
// systems is 32768, on 64-bit ones 4194304): a larger value is not a pid.
constexpr uint32_t kHighestPid = 4194304;

// A value that a process id can have (1 to kHighestPid).
bool IsPlausiblePid(uint32_t pid);

// The text of a fixed-size field: up to its first 0, at most `size` bytes,
// with bytes outside printable ASCII shown as \xHH, so that a damaged
// field can neither overrun nor garble what is printed.
std::string FieldText(const char* field, size_t size);

// True when the field holds a 0 within its `size` bytes.
bool IsTerminated(const char* field, size_t size);

#endif  // AMBIT_TOOLS_IPCS_TABLE_CHECK_H_

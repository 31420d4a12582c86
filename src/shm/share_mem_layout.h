#ifndef AMBIT_SHM_SHARE_MEM_LAYOUT_H_
#define AMBIT_SHM_SHARE_MEM_LAYOUT_H_

#include <cstddef>
#include <cstdint>

// The machine-wide registry of named System V segments, as every process
// that loads the library sees it. This is a cross-process format: offsets,
// sizes and widths are fixed (those of a 32-bit process) and checked below.

constexpr int32_t kRegistryKey = 46065;        // 0xB3F1
constexpr uint32_t kRegistrySize = 536632;     // 0x83038
constexpr int kRegistryEntries = 1024;
constexpr int kPidSlots = 64;
constexpr int32_t kFirstSegmentKey = 46066;    // entry i uses key 46066 + i
constexpr int kNameSize = 255;                 // at most 254 characters
constexpr char kParkedName[] = "$$$NOT-USED-BUT-NOT-RELEASED$$$";
constexpr char kRegistryName[] = "CShareMemMap";
constexpr char kCreateTimeFile[] =
    "/tmp/ShareMemCreateTime-16AC6AB6-4CA6-4813-A086-53E43B469FF8";

struct SMEMMAPENTRY {
  char szName[kNameSize];      // "" when free; kParkedName when parked
  char padding;
  uint32_t dwSize;             // bytes of the segment
  int32_t nshmid;              // System V id; 0 once released
  uint32_t dwCreatorPid;       // pid that claimed the entry
  uint32_t adwPids[kPidSlots];  // one slot per attaching process, 0 = unused
};

struct SMEMMAPINFO {
  uint32_t bInitialized;       // 1 once initialisation has completed
  uint32_t dwBusyPid;          // pid changing the registry, else 0
  char szCreatorProgram[16];   // at most 15 characters
  char szCreateTimeUtc[24];    // "YYYY/MM/DD hh:mm:ss.mmm"
  uint64_t ullLatestAccessTick;  // GetTickCountULL of the latest change
  SMEMMAPENTRY entries[kRegistryEntries];
};

static_assert(sizeof(SMEMMAPENTRY) == 524, "registry entry is 524 bytes");
static_assert(offsetof(SMEMMAPENTRY, szName) == 0, "szName at 0");
static_assert(offsetof(SMEMMAPENTRY, dwSize) == 256, "dwSize at 256");
static_assert(offsetof(SMEMMAPENTRY, nshmid) == 260, "nshmid at 260");
static_assert(offsetof(SMEMMAPENTRY, dwCreatorPid) == 264, "dwCreatorPid at 264");
static_assert(offsetof(SMEMMAPENTRY, adwPids) == 268, "adwPids at 268");
static_assert(sizeof(SMEMMAPINFO) == kRegistrySize, "registry is 536632 bytes");
static_assert(offsetof(SMEMMAPINFO, bInitialized) == 0, "bInitialized at 0");
static_assert(offsetof(SMEMMAPINFO, dwBusyPid) == 4, "dwBusyPid at 4");
static_assert(offsetof(SMEMMAPINFO, szCreatorProgram) == 8, "szCreatorProgram at 8");
static_assert(offsetof(SMEMMAPINFO, szCreateTimeUtc) == 24, "szCreateTimeUtc at 24");
static_assert(offsetof(SMEMMAPINFO, ullLatestAccessTick) == 48,
              "ullLatestAccessTick at 48");
static_assert(offsetof(SMEMMAPINFO, entries) == 56, "entries at 56");

#endif  // AMBIT_SHM_SHARE_MEM_LAYOUT_H_

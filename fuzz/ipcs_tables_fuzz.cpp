// Fuzz target for the inspector's reading of the two shared tables (the
// registry of named segments and the table of named objects). Any process
// can write anything into them, so every byte is the fuzzer's: the input
// patches a copy of each table, and the checks must then run to the end
// without reading outside the copies, whatever they hold.
//
// Input: a flags byte (bit 0: a registry was found, bit 1: a name map was
// found, bit 2: check as after a cleanup), then patches, each a table byte
// (even: registry, odd: name map), a 4-byte offset (taken modulo the
// table's size), a length byte and that many bytes to write there. The
// system is answered from the input too: a segment exists at a key when
// the registry entry's first pid slot is odd, and a pid is dead when it is.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "ipcs/snapshot.h"
#include "ipcs/table_check.h"

namespace {

Snapshot* g_pSnapshot = nullptr;

bool FakeSegmentSize(int32_t key, uint64_t* size) {
  const int i = key - kFirstSegmentKey;
  if (i < 0 || i >= kRegistryEntries) std::abort();  // keys stay in the registry's range
  const SMEMMAPENTRY& e = g_pSnapshot->registry.entries[i];
  if ((e.adwPids[0] & 1u) == 0) return false;
  *size = e.dwSize ^ (e.adwPids[1] & 0xFFu);
  return true;
}

bool FakeIsDeadPid(uint32_t pid) {
  if (!IsPlausiblePid(pid)) std::abort();  // never a probe of a non-pid
  return (pid & 1u) != 0;
}

// A sound starting point: two segments, one of them the name map, and a
// few named objects.
void Reset(Snapshot* s) {
  std::memset(&s->registry, 0, sizeof s->registry);
  std::memset(&s->nameMap, 0, sizeof s->nameMap);
  s->registry.bInitialized = 1;
  std::strcpy(s->registry.szCreatorProgram, "fuzz");
  std::strcpy(s->registry.szCreateTimeUtc, "2026/11/24 02:30:00.000");
  std::strcpy(s->registry.entries[0].szName, CNameMap::kSegmentName);
  s->registry.entries[0].dwSize = CNameMap::kSegmentSize;
  s->registry.entries[0].adwPids[0] = 101;
  std::strcpy(s->registry.entries[5].szName, "segment");
  s->registry.entries[5].dwSize = 4096;
  s->registry.entries[5].adwPids[0] = 102;
  s->nameMapEntry = 0;
  s->nameMap.dwMaxEntries = CNameMap::kMaxEntries;
  s->nameMap.dwHighestEntry = 2;
  const char* names[] = {"event", "mutex", "semaphore"};
  for (int i = 0; i < 3; ++i) {
    CNameMap::SNAMEINFO& e = s->nameMap.entries[i];
    std::strcpy(e.szName, names[i]);
    e.nameType = static_cast<CNameMap::NAMETYPE>(i + 1);
    e.dwUseCount = 1;
    e.dwCreatorPid = 101;
    e.pids[0].dwPid = 101;
    e.pids[0].dwCount = 1;
  }
}

uint32_t U32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (g_pSnapshot == nullptr) g_pSnapshot = new Snapshot;
  Snapshot* s = g_pSnapshot;
  Reset(s);
  if (size < 1) return 0;
  s->registryFound = (data[0] & 1u) != 0;
  s->nameMapFound = (data[0] & 2u) != 0;
  const bool afterCleanup = (data[0] & 4u) != 0;
  size_t at = 1;
  while (at + 6 <= size) {
    const bool nameMap = (data[at] & 1u) != 0;
    unsigned char* table = nameMap ? reinterpret_cast<unsigned char*>(&s->nameMap)
                                   : reinterpret_cast<unsigned char*>(&s->registry);
    const size_t tableSize = nameMap ? sizeof s->nameMap : sizeof s->registry;
    const size_t offset = U32(data + at + 1) % tableSize;
    size_t length = data[at + 5];
    at += 6;
    if (length > size - at) length = size - at;
    if (length > tableSize - offset) length = tableSize - offset;
    std::memcpy(table + offset, data + at, length);
    at += length;
  }

  const SystemView fake = {&FakeSegmentSize, &FakeIsDeadPid};
  const std::vector<Violation> violations = CheckInvariants(*s, afterCleanup, fake);
  size_t total = 0;
  for (const Violation& v : violations) total += v.rule.size() + v.detail.size();
  // Damage that the library's cleanup would trip over is always reported.
  if (s->nameMapFound && s->nameMap.dwHighestEntry >= CNameMap::kMaxEntries &&
      !TablesDamaged(*s))
    std::abort();
  if (s->registryFound) {
    for (const SMEMMAPENTRY& e : s->registry.entries)
      total += FieldText(e.szName, sizeof e.szName).size();
  }
  return total == static_cast<size_t>(-1) ? 1 : 0;
}

#include "ipcs/table_check.h"

#include <cstdio>
#include <cstring>

#include "ipcs/snapshot.h"

namespace {

std::string Str(long long v) { return std::to_string(v); }

std::string Hex(uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08X", v);
  return buf;
}

void CheckPid(std::vector<Violation>* v, const std::string& where, uint32_t pid) {
  if (pid != 0 && !IsPlausiblePid(pid))
    v->push_back({"bad-pid", where + " holds " + Hex(pid) + ", which is no pid"});
}

}  // namespace

bool IsPlausiblePid(uint32_t pid) { return pid >= 1 && pid <= kHighestPid; }

bool IsTerminated(const char* field, size_t size) {
  return std::memchr(field, '\0', size) != nullptr;
}

std::string FieldText(const char* field, size_t size) {
  std::string out;
  for (size_t i = 0; i < size && field[i] != '\0'; ++i) {
    const unsigned char c = static_cast<unsigned char>(field[i]);
    if (c >= 0x20 && c < 0x7F && c != '\\') {
      out += static_cast<char>(c);
    } else {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02X", c);
      out += buf;
    }
  }
  return out;
}

std::vector<Violation> CheckRegistryTable(const SMEMMAPINFO& reg) {
  std::vector<Violation> v;
  if (reg.bInitialized > 1)
    v.push_back({"bad-header", "registry bInitialized is " + Hex(reg.bInitialized)});
  CheckPid(&v, "registry dwBusyPid", reg.dwBusyPid);
  if (!IsTerminated(reg.szCreatorProgram, sizeof reg.szCreatorProgram))
    v.push_back({"unterminated-text", "registry creator program has no terminating 0"});
  if (!IsTerminated(reg.szCreateTimeUtc, sizeof reg.szCreateTimeUtc))
    v.push_back({"unterminated-text", "registry creation time has no terminating 0"});
  for (int i = 0; i < kRegistryEntries; ++i) {
    const SMEMMAPENTRY& e = reg.entries[i];
    if (e.szName[0] == '\0') continue;
    const std::string where = "registry entry " + Str(i);
    // The library keeps byte 254 at 0, so a name fills at most 254 bytes.
    if (!IsTerminated(e.szName, kNameSize))
      v.push_back({"unterminated-name", where + " has a name without a terminating 0: \"" +
                                            FieldText(e.szName, kNameSize) + "\""});
    for (int s = 0; s < kPidSlots; ++s)
      CheckPid(&v, where + " pid slot " + Str(s), e.adwPids[s]);
    CheckPid(&v, where + " dwCreatorPid", e.dwCreatorPid);
  }
  return v;
}

std::vector<Violation> CheckNameMapTable(const CNameMap::SNAMEMAP& map) {
  std::vector<Violation> v;
  if (map.dwMaxEntries != CNameMap::kMaxEntries)
    v.push_back({"bad-header", "name map dwMaxEntries is " + Str(map.dwMaxEntries) +
                                   ", not " + Str(CNameMap::kMaxEntries)});
  if (map.dwHighestEntry >= CNameMap::kMaxEntries)
    v.push_back({"index-out-of-range", "name map dwHighestEntry " + Str(map.dwHighestEntry) +
                                           " lies beyond its " + Str(CNameMap::kMaxEntries) +
                                           " entries"});
  CheckPid(&v, "name map dwBusyPid", map.dwBusyPid);
  for (uint32_t i = 0; i < CNameMap::kMaxEntries; ++i) {
    const CNameMap::SNAMEINFO& e = map.entries[i];
    if (e.szName[0] == '\0') continue;
    const std::string where = "name map entry " + Str(i);
    if (!IsTerminated(e.szName, sizeof e.szName))
      v.push_back({"unterminated-name", where + " has a name without a terminating 0: \"" +
                                            FieldText(e.szName, sizeof e.szName) + "\""});
    if (e.nameType < CNameMap::Condvar || e.nameType > CNameMap::Semaphore)
      v.push_back({"bad-type", where + " has type " + Str(e.nameType)});
    CheckPid(&v, where + " dwCreatorPid", e.dwCreatorPid);
    CheckPid(&v, where + " dwHolderPid", static_cast<uint32_t>(e.dwHolderPid));
    for (int s = 0; s < CNameMap::kPidSlots; ++s)
      CheckPid(&v, where + " pid slot " + Str(s), e.pids[s].dwPid);
  }
  return v;
}

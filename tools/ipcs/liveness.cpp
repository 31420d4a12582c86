#include "ipcs/liveness.h"

#include <cstring>
#include <string>

std::vector<uint32_t> LiveWaiters(const CNameMap::SNAMEINFO& entry) {
  std::vector<uint32_t> pids;
  for (const CNameMap::SPIDINFO& p : entry.pids)
    if (p.dwPid != 0 && p.dwWaitCount > 0 && !IsDeadPid(p.dwPid)) pids.push_back(p.dwPid);
  return pids;
}

namespace {

std::string Name(const char* field, size_t size) { return std::string(field, strnlen(field, size)); }

std::string PidList(const std::vector<uint32_t>& pids) {
  std::string out;
  for (uint32_t pid : pids) out += (out.empty() ? "" : " ") + std::to_string(pid);
  return out;
}

}  // namespace

std::vector<Violation> CheckLiveness(const Snapshot& s) {
  std::vector<Violation> v;
  if (!s.registryFound) return v;

  for (int i = 0; i < kRegistryEntries; ++i) {
    const SMEMMAPENTRY& e = s.registry.entries[i];
    // Free entries have no segment; a parked one is known to be unused.
    if (e.szName[0] == '\0' || std::strncmp(e.szName, kParkedName, sizeof e.szName) == 0)
      continue;
    std::vector<uint32_t> dead;
    bool live = false;
    for (uint32_t pid : e.adwPids) {
      if (pid == 0) continue;
      if (IsDeadPid(pid))
        dead.push_back(pid);
      else
        live = true;
    }
    if (live) continue;
    v.push_back({"abandoned-segment",
                 "registry entry " + std::to_string(i) + " \"" + Name(e.szName, sizeof e.szName) +
                     "\" (key " + std::to_string(kFirstSegmentKey + i) +
                     ") is left behind: " +
                     (dead.empty() ? std::string("no process is recorded")
                                   : "every process that used it has exited (pids " +
                                         PidList(dead) + ")") +
                     "; ambit-ipcs --clean removes it"});
  }

  if (!s.nameMapFound) return v;
  for (uint32_t i = 0; i < CNameMap::kMaxEntries; ++i) {
    const CNameMap::SNAMEINFO& e = s.nameMap.entries[i];
    if (e.szName[0] == '\0' || e.nameType != CNameMap::Mutex || e.dwHolderPid == 0) continue;
    const uint32_t holder = static_cast<uint32_t>(e.dwHolderPid);
    if (!IsDeadPid(holder)) continue;
    const std::vector<uint32_t> waiters = LiveWaiters(e);
    if (waiters.empty()) continue;
    v.push_back({"dead-holder", "named mutex \"" + Name(e.szName, sizeof e.szName) +
                                    "\" (entry " + std::to_string(i) + ") is held by dead pid " +
                                    std::to_string(holder) + " while live pids wait for it: " +
                                    PidList(waiters)});
  }
  return v;
}

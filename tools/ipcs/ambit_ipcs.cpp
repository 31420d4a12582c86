// ambit-ipcs: a read-only inspector of this machine's shared registries.
//
//   ambit-ipcs            the registry of named segments and the table of
//                         named objects, as a table for people
//   ambit-ipcs --json     the same for machines
//   ambit-ipcs --check    verify the registries' invariants; exit 1 naming
//                         each violation
//   ambit-ipcs --clean    run the library's own crash-cleanup passes on both
//                         registries, under their locks, and report what
//                         they reclaimed (with --check: check afterwards,
//                         including that no dead pid is left)
//   ambit-ipcs --help     the options, and how to remove a registry safely
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ambit/portable.h"
#include "ipcs/snapshot.h"
#include "names/name_map.h"
#include "shm/interprocess_lock.h"
#include "shm/share_mem_map.h"

namespace {

const char* TypeName(int32_t type) {
  switch (type) {
    case CNameMap::Condvar: return "event";
    case CNameMap::Mutex: return "mutex";
    case CNameMap::Semaphore: return "semaphore";
    default: return "invalid";
  }
}

std::string Json(const char* text) {
  std::string out = "\"";
  for (const char* p = text; *p != '\0'; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::string Bounded(const char* field, size_t size) { return std::string(field, strnlen(field, size)); }

const char* Liveness(uint32_t pid) { return IsDeadPid(pid) ? "dead" : "alive"; }

void PrintTable(const Snapshot& s) {
  const SMEMMAPINFO& r = s.registry;
  std::printf("Registry of named segments (key %d)\n", kRegistryKey);
  std::printf("  creator program   %s\n", Bounded(r.szCreatorProgram, sizeof r.szCreatorProgram).c_str());
  std::printf("  created (UTC)     %s\n", Bounded(r.szCreateTimeUtc, sizeof r.szCreateTimeUtc).c_str());
  std::printf("  last access tick  %llu (now %llu)\n", static_cast<unsigned long long>(r.ullLatestAccessTick),
              CPortable::GetTickCountULL());
  std::printf("  busy pid          %u\n", r.dwBusyPid);
  std::printf("  initialised       %u\n", r.bInitialized);
  std::printf("  %-5s %-40s %6s %9s %7s %8s  %s\n", "entry", "name", "key", "size", "shmid",
              "creator", "pids");
  for (int i = 0; i < kRegistryEntries; ++i) {
    const SMEMMAPENTRY& e = r.entries[i];
    if (e.szName[0] == '\0') continue;
    std::string pids;
    for (uint32_t pid : e.adwPids)
      if (pid != 0) pids += std::to_string(pid) + "(" + Liveness(pid) + ") ";
    std::printf("  %-5d %-40s %6d %9u %7d %8u  %s\n", i, Bounded(e.szName, sizeof e.szName).c_str(),
                kFirstSegmentKey + i, e.dwSize, e.nshmid, e.dwCreatorPid, pids.c_str());
  }
  if (!s.nameMapFound) {
    std::printf("\nNo table of named objects.\n");
    return;
  }
  const CNameMap::SNAMEMAP& m = s.nameMap;
  std::printf("\nNamed objects (segment entry %d; max %u, highest entry %u, busy pid %u)\n",
              s.nameMapEntry, m.dwMaxEntries, m.dwHighestEntry, m.dwBusyPid);
  std::printf("  %-5s %-32s %-9s %5s %8s %8s %10s  %s\n", "entry", "name", "type", "uses", "creator",
              "holder", "value", "pid:uses/waits");
  for (uint32_t i = 0; i < CNameMap::kMaxEntries; ++i) {
    const CNameMap::SNAMEINFO& e = m.entries[i];
    if (e.szName[0] == '\0') continue;
    std::string value = "-";
    if (e.nameType == CNameMap::Condvar) {
      char buf[16];
      std::snprintf(buf, sizeof buf, "0x%08X", e.object.condvar.s_lVal);
      value = buf;
    }
    std::string pids;
    for (const CNameMap::SPIDINFO& p : e.pids)
      if (p.dwPid != 0)
        pids += std::to_string(p.dwPid) + ":" + std::to_string(p.dwCount) + "/" +
                std::to_string(p.dwWaitCount) + "(" + Liveness(p.dwPid) + ") ";
    std::printf("  %-5u %-32s %-9s %5u %8u %8d %10s  %s\n", i,
                Bounded(e.szName, sizeof e.szName).c_str(), TypeName(e.nameType), e.dwUseCount,
                e.dwCreatorPid, e.dwHolderPid, value.c_str(), pids.c_str());
  }
}

void PrintJson(const Snapshot& s) {
  const SMEMMAPINFO& r = s.registry;
  std::printf("{\n  \"registry\": {\n");
  std::printf("    \"key\": %d,\n", kRegistryKey);
  std::printf("    \"creatorProgram\": %s,\n", Json(Bounded(r.szCreatorProgram, sizeof r.szCreatorProgram).c_str()).c_str());
  std::printf("    \"createTimeUtc\": %s,\n", Json(Bounded(r.szCreateTimeUtc, sizeof r.szCreateTimeUtc).c_str()).c_str());
  std::printf("    \"latestAccessTick\": %llu,\n", static_cast<unsigned long long>(r.ullLatestAccessTick));
  std::printf("    \"currentTick\": %llu,\n", CPortable::GetTickCountULL());
  std::printf("    \"busyPid\": %u,\n    \"initialized\": %u,\n    \"segments\": [", r.dwBusyPid,
              r.bInitialized);
  bool first = true;
  for (int i = 0; i < kRegistryEntries; ++i) {
    const SMEMMAPENTRY& e = r.entries[i];
    if (e.szName[0] == '\0') continue;
    std::printf("%s\n      {\"entry\": %d, \"name\": %s, \"key\": %d, \"size\": %u, \"shmid\": %d, "
                "\"creatorPid\": %u, \"pids\": [",
                first ? "" : ",", i, Json(Bounded(e.szName, sizeof e.szName).c_str()).c_str(),
                kFirstSegmentKey + i, e.dwSize, e.nshmid, e.dwCreatorPid);
    first = false;
    bool firstPid = true;
    for (uint32_t pid : e.adwPids) {
      if (pid == 0) continue;
      std::printf("%s{\"pid\": %u, \"alive\": %s}", firstPid ? "" : ", ", pid,
                  IsDeadPid(pid) ? "false" : "true");
      firstPid = false;
    }
    std::printf("]}");
  }
  std::printf("%s]\n  },\n  \"nameMap\": ", first ? "" : "\n    ");
  if (!s.nameMapFound) {
    std::printf("null\n}\n");
    return;
  }
  const CNameMap::SNAMEMAP& m = s.nameMap;
  std::printf("{\n    \"segmentEntry\": %d,\n    \"maxEntries\": %u,\n    \"highestEntry\": %u,\n"
              "    \"busyPid\": %u,\n    \"objects\": [",
              s.nameMapEntry, m.dwMaxEntries, m.dwHighestEntry, m.dwBusyPid);
  first = true;
  for (uint32_t i = 0; i < CNameMap::kMaxEntries; ++i) {
    const CNameMap::SNAMEINFO& e = m.entries[i];
    if (e.szName[0] == '\0') continue;
    std::printf("%s\n      {\"entry\": %u, \"name\": %s, \"type\": \"%s\", \"useCount\": %u, "
                "\"creatorPid\": %u, \"holderPid\": %d, ",
                first ? "" : ",", i, Json(Bounded(e.szName, sizeof e.szName).c_str()).c_str(),
                TypeName(e.nameType), e.dwUseCount, e.dwCreatorPid, e.dwHolderPid);
    first = false;
    if (e.nameType == CNameMap::Condvar)
      std::printf("\"eventValue\": %u, ", e.object.condvar.s_lVal);
    std::printf("\"pids\": [");
    bool firstPid = true;
    for (const CNameMap::SPIDINFO& p : e.pids) {
      if (p.dwPid == 0) continue;
      std::printf("%s{\"pid\": %u, \"useCount\": %u, \"waitCount\": %u, \"alive\": %s}",
                  firstPid ? "" : ", ", p.dwPid, p.dwCount, p.dwWaitCount,
                  IsDeadPid(p.dwPid) ? "false" : "true");
      firstPid = false;
    }
    std::printf("]}");
  }
  std::printf("%s]\n  }\n}\n", first ? "" : "\n    ");
}

// Runs both cleanup passes through the library, then lets go of what this
// process attached for them, and reports the difference.
void Clean(const Snapshot& before) {
  const uint32_t self = static_cast<uint32_t>(::getpid());
  CShareMemMap* registry = get_shareMemMap();
  registry->interprocessLock()->lock();
  registry->info()->dwBusyPid = self;
  registry->releaseObsoleteEntries();
  registry->info()->ullLatestAccessTick = CPortable::GetTickCountULL();
  registry->info()->dwBusyPid = 0;
  registry->interprocessLock()->unlock();
  if (before.nameMapFound) {
    CNameMap* names = get_nameMap();
    names->lock();
    names->checkForObsoleteEntries();
    names->table()->dwBusyPid = 0;
    names->unlock();
    delete names;  // releases the table and stops its watcher
    g_pnameMap = nullptr;
  }
  delete registry;  // releases what this process attached
  g_pshareMemMap = nullptr;

  Snapshot after;
  TakeSnapshot(&after, true);
  int reclaimed = 0;
  for (int i = 0; i < kRegistryEntries; ++i) {
    const SMEMMAPENTRY& b = before.registry.entries[i];
    const SMEMMAPENTRY& a = after.registry.entries[i];
    if (b.szName[0] == '\0') continue;
    if (a.szName[0] == '\0') {
      std::printf("clean: freed segment entry %d \"%s\"\n", i, Bounded(b.szName, sizeof b.szName).c_str());
      ++reclaimed;
    } else if (std::strcmp(a.szName, kParkedName) == 0 && std::strcmp(b.szName, kParkedName) != 0) {
      std::printf("clean: parked segment entry %d \"%s\" (its segment could not be removed)\n", i,
                  Bounded(b.szName, sizeof b.szName).c_str());
      ++reclaimed;
    } else {
      for (int slot = 0; slot < kPidSlots; ++slot)
        if (b.adwPids[slot] != 0 && a.adwPids[slot] == 0 && b.adwPids[slot] != self) {
          std::printf("clean: segment entry %d \"%s\": removed dead pid %u\n", i,
                      Bounded(b.szName, sizeof b.szName).c_str(), b.adwPids[slot]);
          ++reclaimed;
        }
    }
  }
  if (before.nameMapFound && after.nameMapFound) {
    for (uint32_t i = 0; i < CNameMap::kMaxEntries; ++i) {
      const CNameMap::SNAMEINFO& b = before.nameMap.entries[i];
      const CNameMap::SNAMEINFO& a = after.nameMap.entries[i];
      if (b.szName[0] == '\0') continue;
      const std::string name = Bounded(b.szName, sizeof b.szName);
      if (a.szName[0] == '\0') {
        std::printf("clean: freed named %s \"%s\"\n", TypeName(b.nameType), name.c_str());
        ++reclaimed;
        continue;
      }
      for (int slot = 0; slot < CNameMap::kPidSlots; ++slot)
        if (b.pids[slot].dwPid != 0 && a.pids[slot].dwPid == 0) {
          std::printf("clean: named %s \"%s\": removed dead pid %u (%u uses)\n", TypeName(b.nameType),
                      name.c_str(), b.pids[slot].dwPid, b.pids[slot].dwCount);
          ++reclaimed;
        }
      if (b.dwHolderPid != 0 && a.dwHolderPid == 0 && b.nameType == CNameMap::Mutex) {
        std::printf("clean: named mutex \"%s\": released for dead holder %d\n", name.c_str(),
                    b.dwHolderPid);
        ++reclaimed;
      }
    }
  } else if (before.nameMapFound && !after.nameMapFound) {
    std::printf("clean: the table of named objects had no users left and was removed\n");
    ++reclaimed;
  }
  std::printf("clean: %d item%s reclaimed\n", reclaimed, reclaimed == 1 ? "" : "s");
}

const char kHelp[] =
    "usage: ambit-ipcs [--json] [--check] [--clean] [--help]\n"
    "\n"
    "Shows this machine's two registries of libambit (named segments, System V\n"
    "key 46065; named objects, in one of those segments), read-only.\n"
    "  --json    the same for machines\n"
    "  --check   verify the invariants, damaged table bytes included; exit 1\n"
    "            naming each violation\n"
    "  --clean   run the library's crash-cleanup passes (refused when the tables\n"
    "            are damaged); with --check, check afterwards\n"
    "\n"
    "Removing a registry safely (when --check cannot be made to pass, or to\n"
    "start afresh), as root or as the user who created the segments:\n"
    "  1. Stop every program that uses libambit: every pid this listing shows\n"
    "     must be dead. A process still attached keeps using the old segments\n"
    "     while new processes make new ones, and the two never meet again.\n"
    "  2. Remove the named segments first, keys 46066 to 47089 (ipcrm -M KEY for\n"
    "     each key that `ipcs -m` lists in that range), then the registry,\n"
    "     ipcrm -M 46065. A registry removed alone would hand the keys of the\n"
    "     segments left behind to new names.\n"
    "  3. Remove /tmp/ShareMemCreateTime-16AC6AB6-4CA6-4813-A086-53E43B469FF8.\n"
    "     The lock files /tmp/Ambit-ipclock-* may stay (they hold no data).\n"
    "The next process that uses the library makes a new, empty registry.\n";

int Usage() {
  std::fputs(kHelp, stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  bool json = false, check = false, clean = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--json") == 0)
      json = true;
    else if (std::strcmp(argv[i], "--check") == 0)
      check = true;
    else if (std::strcmp(argv[i], "--clean") == 0)
      clean = true;
    else if (std::strcmp(argv[i], "--help") == 0)
      return std::fputs(kHelp, stdout) < 0 ? 1 : 0;
    else
      return Usage();
  }

  std::unique_ptr<Snapshot> snapshot(new Snapshot);
  if (!TakeSnapshot(snapshot.get(), true)) {
    std::printf(json ? "{\"registry\": null, \"nameMap\": null}\n" : "no registry on this machine\n");
    return 0;
  }
  bool refused = false;
  if (clean) {
    // The library's cleanup passes trust the tables' indexes and names:
    // never run them over damaged bytes.
    refused = TablesDamaged(*snapshot);
    if (refused) {
      std::printf("clean: refused: the tables are damaged (see --check)\n");
    } else {
      Clean(*snapshot);
      TakeSnapshot(snapshot.get(), true);
    }
  }
  if (check) {
    const std::vector<Violation> violations = CheckInvariants(*snapshot, clean);
    for (const Violation& v : violations)
      std::printf("violation: %s: %s\n", v.rule.c_str(), v.detail.c_str());
    std::printf("check: %zu violation%s\n", violations.size(), violations.size() == 1 ? "" : "s");
    return violations.empty() ? 0 : 1;
  }
  if (refused) return 1;
  if (!clean) {
    if (json)
      PrintJson(*snapshot);
    else
      PrintTable(*snapshot);
  }
  return 0;
}

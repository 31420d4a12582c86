// ambit-ipcs: an inspector of this machine's shared registries, to be read
// next to `ipcs -m`. See kUsage below for what it does.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ambit/portable.h"
#include "common/cli.h"
#include "ipcs/explain.h"
#include "ipcs/liveness.h"
#include "ipcs/snapshot.h"
#include "ipcs/system_view.h"
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

// Every segment in the library's key range, as `ipcs -m` would show it,
// then what the registry records for it.
void PrintSegments(const Snapshot& s, const std::vector<SystemSegment>& system) {
  std::printf("\nSegments (keys %d to %d): the system's view, then the registry's\n", kRegistryKey,
              kFirstSegmentKey + kRegistryEntries - 1);
  std::printf("  %-10s %6s %8s %-10s %5s %6s %9s %-19s  %-5s %-36s %s\n", "key", "key", "shmid",
              "owner", "perms", "nattch", "bytes", "created (UTC)", "entry", "name", "pids");
  const auto row = [](const SystemSegment* seg, int32_t key, const std::string& entry,
                      const std::string& name, const std::string& pids) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08x", static_cast<uint32_t>(key));
    if (seg != nullptr)
      std::printf("  %-10s %6d %8d %-10s %5o %6u %9u %-19s  %-5s %-36s %s\n", hex, key, seg->shmid,
                  seg->owner.c_str(), seg->mode, seg->nattch, seg->size,
                  UtcText(seg->ctime).c_str(), entry.c_str(), name.c_str(), pids.c_str());
    else
      std::printf("  %-10s %6d %8s %-10s %5s %6s %9s %-19s  %-5s %-36s %s\n", hex, key, "-", "-",
                  "-", "-", "-", "(no segment)", entry.c_str(), name.c_str(), pids.c_str());
  };
  row(FindSegment(system, kRegistryKey), kRegistryKey, "-", "(the registry itself)", "");
  for (int i = 0; i < kRegistryEntries; ++i) {
    const int32_t key = kFirstSegmentKey + i;
    const SMEMMAPENTRY& e = s.registry.entries[i];
    const SystemSegment* seg = FindSegment(system, key);
    if (e.szName[0] == '\0') {
      if (seg != nullptr) row(seg, key, "-", "(no registry entry)", "");
      continue;
    }
    std::string pids;
    for (uint32_t pid : e.adwPids)
      if (pid != 0) pids += std::to_string(pid) + "(" + Liveness(pid) + ") ";
    std::string name = Bounded(e.szName, sizeof e.szName);
    if (seg != nullptr && seg->size != e.dwSize)
      name += " [registry says " + std::to_string(e.dwSize) + " bytes]";
    row(seg, key, std::to_string(i), name, pids);
  }
}

void PrintTable(const Snapshot& s, const std::vector<SystemSegment>& system) {
  const SMEMMAPINFO& r = s.registry;
  std::printf("Registry of named segments (key %d)\n", kRegistryKey);
  std::printf("  creator program   %s\n", Bounded(r.szCreatorProgram, sizeof r.szCreatorProgram).c_str());
  std::printf("  created (UTC)     %s\n", Bounded(r.szCreateTimeUtc, sizeof r.szCreateTimeUtc).c_str());
  std::printf("  last access tick  %llu (now %llu)\n", static_cast<unsigned long long>(r.ullLatestAccessTick),
              CPortable::GetTickCountULL());
  std::printf("  busy pid          %u\n", r.dwBusyPid);
  std::printf("  initialised       %u\n", r.bInitialized);
  PrintSegments(s, system);
  if (!s.nameMapFound) {
    std::printf("\nNo table of named objects.\n");
    return;
  }
  const CNameMap::SNAMEMAP& m = s.nameMap;
  std::printf("\nNamed objects (segment entry %d; max %u, highest entry %u, busy pid %u)\n",
              s.nameMapEntry, m.dwMaxEntries, m.dwHighestEntry, m.dwBusyPid);
  std::printf("  %-5s %-32s %-9s %5s %8s %-14s %-14s %10s  %s\n", "entry", "name", "type", "uses",
              "creator", "holder", "live waiters", "value", "pid:uses/waits");
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
    std::string holder = std::to_string(e.dwHolderPid);
    if (e.dwHolderPid != 0) holder += std::string("(") + Liveness(static_cast<uint32_t>(e.dwHolderPid)) + ")";
    std::string waiters;
    for (uint32_t pid : LiveWaiters(e)) waiters += (waiters.empty() ? "" : ",") + std::to_string(pid);
    if (waiters.empty()) waiters = "none";
    std::printf("  %-5u %-32s %-9s %5u %8u %-14s %-14s %10s  %s\n", i,
                Bounded(e.szName, sizeof e.szName).c_str(), TypeName(e.nameType), e.dwUseCount,
                e.dwCreatorPid, holder.c_str(), waiters.c_str(), value.c_str(), pids.c_str());
  }
}

std::string JsonSystem(const SystemSegment* seg) {
  if (seg == nullptr) return "null";
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%08x", static_cast<uint32_t>(seg->key));
  return std::string("{\"key\": ") + std::to_string(seg->key) + ", \"keyHex\": \"" + hex +
         "\", \"shmid\": " + std::to_string(seg->shmid) + ", \"owner\": " +
         Json(seg->owner.c_str()) + ", \"uid\": " + std::to_string(seg->uid) +
         ", \"perms\": " + std::to_string(seg->mode) + ", \"nattch\": " +
         std::to_string(seg->nattch) + ", \"size\": " + std::to_string(seg->size) +
         ", \"created\": " + std::to_string(seg->ctime) + ", \"createdUtc\": " +
         Json(UtcText(seg->ctime).c_str()) + ", \"creatorPid\": " +
         std::to_string(seg->creatorPid) + "}";
}

void PrintJson(const Snapshot& s, const std::vector<SystemSegment>& system) {
  const SMEMMAPINFO& r = s.registry;
  std::printf("{\n  \"registry\": {\n");
  std::printf("    \"key\": %d,\n", kRegistryKey);
  std::printf("    \"creatorProgram\": %s,\n", Json(Bounded(r.szCreatorProgram, sizeof r.szCreatorProgram).c_str()).c_str());
  std::printf("    \"createTimeUtc\": %s,\n", Json(Bounded(r.szCreateTimeUtc, sizeof r.szCreateTimeUtc).c_str()).c_str());
  std::printf("    \"latestAccessTick\": %llu,\n", static_cast<unsigned long long>(r.ullLatestAccessTick));
  std::printf("    \"currentTick\": %llu,\n", CPortable::GetTickCountULL());
  std::printf("    \"system\": %s,\n", JsonSystem(FindSegment(system, kRegistryKey)).c_str());
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
    std::printf("], \"system\": %s}", JsonSystem(FindSegment(system, kFirstSegmentKey + i)).c_str());
  }
  std::printf("%s],\n    \"unregisteredSegments\": [", first ? "" : "\n    ");
  first = true;
  for (const SystemSegment& seg : system) {
    const int i = seg.key - kFirstSegmentKey;
    if (i < 0 || r.entries[i].szName[0] != '\0') continue;
    std::printf("%s%s", first ? "" : ", ", JsonSystem(&seg).c_str());
    first = false;
  }
  std::printf("]\n  },\n  \"nameMap\": ");
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
    if (e.dwHolderPid != 0)
      std::printf("\"holderAlive\": %s, ",
                  IsDeadPid(static_cast<uint32_t>(e.dwHolderPid)) ? "false" : "true");
    std::printf("\"liveWaiters\": [");
    bool firstWaiter = true;
    for (uint32_t pid : LiveWaiters(e)) {
      std::printf("%s%u", firstWaiter ? "" : ", ", pid);
      firstWaiter = false;
    }
    std::printf("], ");
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

constexpr char kUsage[] =
    "usage: ambit-ipcs [--json] [--check] [--clean]\n"
    "       ambit-ipcs --explain CODE\n"
    "       ambit-ipcs --help | --version\n"
    "\n"
    "Shows this machine's ambit registries, to be read next to `ipcs -m`: every\n"
    "System V segment in the library's key range (46065 to 47089) with its key in\n"
    "hex and decimal, shmid, owner, permissions, attach count, size and creation\n"
    "time as the system reports them, then the registry's own record of it (name,\n"
    "pids and whether each is alive); then the table of named events, mutexes and\n"
    "semaphores with, for a mutex, its holder and the live processes waiting.\n"
    "\n"
    "  --json         the same for programs, as one JSON object\n"
    "  --check        report problems and exit 1 if there are any: broken\n"
    "                 invariants of the tables, a mutex whose holder is dead\n"
    "                 while live processes wait for it, segments left behind by\n"
    "                 processes that all exited\n"
    "  --clean        run the library's crash-cleanup passes on both registries\n"
    "                 and report what they reclaimed (with --check, check after);\n"
    "                 refused when the tables are damaged\n"
    "  --explain CODE print what a QKException code, wait result or event value\n"
    "                 means, e.g. 0xC1210E14 or 0xE0000000\n"
    "  --help         print this text and exit\n"
    "  --version      print the version and exit\n"
    "\n"
    "Exit status: 0 when all is well, 1 when problems were found (or CODE means\n"
    "nothing to ambit), 2 on a usage error.\n"
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

int Usage(const char* problem) {
  std::fprintf(stderr, "ambit-ipcs: %s\n%s", problem, kUsage);
  return 2;
}

int Explain(const std::string& code) {
  std::string meaning;
  bool known = false;
  if (!ExplainCode(code, &meaning, &known)) return Usage(meaning.c_str());
  std::printf("%s\n", meaning.c_str());
  return known ? 0 : 1;
}

// Without a registry, segments in its key range are left over from an
// earlier one (or belong to something else): shown, and problems for --check.
int NoRegistry(bool json, bool check) {
  const std::vector<SystemSegment> system =
      ListSystemSegments(kRegistryKey, kFirstSegmentKey + kRegistryEntries - 1);
  if (check) {
    for (const SystemSegment& seg : system)
      std::printf("violation: orphan-segment: key %d has a segment (shmid %d, %u bytes) but there "
                  "is no registry\n",
                  seg.key, seg.shmid, seg.size);
    std::printf("check: %zu violation%s\n", system.size(), system.size() == 1 ? "" : "s");
    return system.empty() ? 0 : 1;
  }
  if (json) {
    std::printf("{\"registry\": null, \"nameMap\": null}\n");
    return 0;
  }
  std::printf("no registry on this machine\n");
  for (const SystemSegment& seg : system)
    std::printf("  segment with key 0x%08x (%d): shmid %d, owner %s, perms %o, nattch %u, %u bytes, "
                "created %s UTC\n",
                static_cast<uint32_t>(seg.key), seg.key, seg.shmid, seg.owner.c_str(), seg.mode,
                seg.nattch, seg.size, UtcText(seg.ctime).c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const int answered = tools::AnswerHelpOrVersion(argc, argv, "ambit-ipcs", kUsage);
  if (answered >= 0) return answered;
  bool json = false, check = false, clean = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--json") == 0) {
      json = true;
    } else if (std::strcmp(argv[i], "--check") == 0) {
      check = true;
    } else if (std::strcmp(argv[i], "--clean") == 0) {
      clean = true;
    } else if (std::strcmp(argv[i], "--explain") == 0) {
      if (i + 1 >= argc) return Usage("--explain needs a code");
      if (argc != 3) return Usage("--explain goes alone");
      return Explain(argv[i + 1]);
    } else {
      return Usage((std::string("unknown argument ") + argv[i]).c_str());
    }
  }

  std::unique_ptr<Snapshot> snapshot(new Snapshot);
  if (!TakeSnapshot(snapshot.get(), true)) return NoRegistry(json, check);
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
    std::vector<Violation> violations = CheckInvariants(*snapshot, clean);
    for (const Violation& v : CheckLiveness(*snapshot)) violations.push_back(v);
    for (const Violation& v : violations)
      std::printf("violation: %s: %s\n", v.rule.c_str(), v.detail.c_str());
    std::printf("check: %zu violation%s\n", violations.size(), violations.size() == 1 ? "" : "s");
    return violations.empty() ? 0 : 1;
  }
  if (refused) return 1;
  if (!clean) {
    const std::vector<SystemSegment> system =
        ListSystemSegments(kRegistryKey, kFirstSegmentKey + kRegistryEntries - 1);
    if (json)
      PrintJson(*snapshot, system);
    else
      PrintTable(*snapshot, system);
  }
  return 0;
}

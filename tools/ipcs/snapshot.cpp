#include "ipcs/snapshot.h"

#include <fcntl.h>
#include <signal.h>
#include <strings.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ipcs/table_check.h"

namespace {

constexpr char kRegistryLockFile[] = "/tmp/Ambit-ipclock-CShareMemMap";
constexpr char kNameMapLockFile[] = "/tmp/Ambit-ipclock-CNameMap";

// An exclusive flock on a library lock file, when the file exists.
class FileLock {
 public:
  // Never through a symlink, never blocking on a FIFO planted at the path.
  explicit FileLock(const char* path)
      : m_fd(::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)) {
    if (m_fd >= 0)
      while (::flock(m_fd, LOCK_EX) != 0 && errno == EINTR) {
      }
  }
  ~FileLock() {
    if (m_fd >= 0) ::close(m_fd);  // closing drops the lock
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int m_fd;
};

// Copies `size` bytes of the segment with `key`, attached read-only.
bool CopySegment(key_t key, void* out, size_t size) {
  const int id = ::shmget(key, 0, 0);
  if (id < 0) return false;
  shmid_ds ds;
  if (::shmctl(id, IPC_STAT, &ds) != 0 || ds.shm_segsz < size) return false;
  void* p = ::shmat(id, nullptr, SHM_RDONLY);
  if (p == reinterpret_cast<void*>(-1)) return false;
  std::memcpy(out, p, size);
  ::shmdt(p);
  return true;
}

bool CopyAll(Snapshot* out) {
  out->registryFound = CopySegment(kRegistryKey, &out->registry, sizeof out->registry);
  out->nameMapFound = false;
  out->nameMapEntry = -1;
  if (!out->registryFound) return false;
  for (int i = 0; i < kRegistryEntries; ++i) {
    // Bounded: a damaged name may lack its terminating 0.
    if (::strncasecmp(out->registry.entries[i].szName, CNameMap::kSegmentName, kNameSize) == 0) {
      out->nameMapEntry = i;
      out->nameMapFound = CopySegment(kFirstSegmentKey + i, &out->nameMap, sizeof out->nameMap);
      break;
    }
  }
  return true;
}

std::string Str(long long v) { return std::to_string(v); }

}  // namespace

bool TakeSnapshot(Snapshot* out, bool locked) {
  if (!locked) return CopyAll(out);
  FileLock names(kNameMapLockFile);
  FileLock registry(kRegistryLockFile);
  return CopyAll(out);
}

bool IsDeadPid(uint32_t pid) {
  // A value that is no pid is never probed: kill() would read it as a
  // process group, or as every process (-1).
  if (!IsPlausiblePid(pid)) return false;
  return ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

namespace {

bool RealSegmentSize(int32_t key, uint64_t* size) {
  const int id = ::shmget(key, 0, 0);
  shmid_ds ds;
  if (id < 0 || ::shmctl(id, IPC_STAT, &ds) != 0) return false;
  *size = ds.shm_segsz;
  return true;
}

}  // namespace

const SystemView& RealSystem() {
  static const SystemView system = {&RealSegmentSize, &IsDeadPid};
  return system;
}

bool TablesDamaged(const Snapshot& s) {
  if (s.registryFound && !CheckRegistryTable(s.registry).empty()) return true;
  return s.nameMapFound && !CheckNameMapTable(s.nameMap).empty();
}

std::vector<Violation> CheckInvariants(const Snapshot& s, bool afterCleanup) {
  return CheckInvariants(s, afterCleanup, RealSystem());
}

std::vector<Violation> CheckInvariants(const Snapshot& s, bool afterCleanup,
                                       const SystemView& system) {
  std::vector<Violation> v;
  if (!s.registryFound) return v;
  const SMEMMAPINFO& reg = s.registry;
  v = CheckRegistryTable(reg);
  if (reg.dwBusyPid != 0) v.push_back({"busy-pid", "registry dwBusyPid is " + Str(reg.dwBusyPid)});

  for (int i = 0; i < kRegistryEntries; ++i) {
    const SMEMMAPENTRY& e = reg.entries[i];
    const int32_t key = kFirstSegmentKey + i;
    uint64_t size = 0;
    const bool exists = system.segmentSize(key, &size);
    if (e.szName[0] == '\0') {
      if (exists)
        v.push_back({"orphan-segment", "key " + Str(key) + " has a segment but registry entry " +
                                           Str(i) + " is free"});
      continue;
    }
    const std::string name = FieldText(e.szName, sizeof e.szName);
    if (!exists) {
      v.push_back({"missing-segment", "registry entry " + Str(i) + " \"" + name +
                                          "\" has no segment at key " + Str(key)});
    } else if (size != e.dwSize) {
      v.push_back({"segment-size", "registry entry " + Str(i) + " \"" + name + "\" records " +
                                       Str(e.dwSize) + " bytes, its segment has " +
                                       Str(static_cast<long long>(size))});
    }
    if (afterCleanup)
      for (uint32_t pid : e.adwPids)
        if (pid != 0 && IsPlausiblePid(pid) && system.isDeadPid(pid))
          v.push_back({"dead-pid", "registry entry " + Str(i) + " \"" + name +
                                       "\" still records dead pid " + Str(pid)});
  }

  if (!s.nameMapFound) return v;
  const CNameMap::SNAMEMAP& map = s.nameMap;
  const std::vector<Violation> table = CheckNameMapTable(map);
  v.insert(v.end(), table.begin(), table.end());
  if (map.dwBusyPid != 0) v.push_back({"busy-pid", "name map dwBusyPid is " + Str(map.dwBusyPid)});
  for (uint32_t i = 0; i < CNameMap::kMaxEntries; ++i) {
    const CNameMap::SNAMEINFO& e = map.entries[i];
    if (e.szName[0] == '\0') continue;
    const std::string name = FieldText(e.szName, sizeof e.szName);
    if (i > map.dwHighestEntry)
      v.push_back({"above-highest", "name map entry " + Str(i) + " \"" + name +
                                        "\" is used above dwHighestEntry " +
                                        Str(map.dwHighestEntry)});
    long long sum = 0;
    for (const CNameMap::SPIDINFO& p : e.pids) {
      if (p.dwPid == 0) continue;
      sum += p.dwCount;
      if (afterCleanup && IsPlausiblePid(p.dwPid) && system.isDeadPid(p.dwPid))
        v.push_back({"dead-pid", "name map entry " + Str(i) + " \"" + name +
                                     "\" still records dead pid " + Str(p.dwPid)});
    }
    if (sum != static_cast<long long>(e.dwUseCount))
      v.push_back({"use-count", "name map entry " + Str(i) + " \"" + name + "\" dwUseCount " +
                                    Str(e.dwUseCount) + " but its pids count " + Str(sum)});
  }
  return v;
}

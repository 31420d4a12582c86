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

namespace {

constexpr char kRegistryLockFile[] = "/tmp/Ambit-ipclock-CShareMemMap";
constexpr char kNameMapLockFile[] = "/tmp/Ambit-ipclock-CNameMap";

// An exclusive flock on a library lock file, when the file exists.
class FileLock {
 public:
  explicit FileLock(const char* path) : m_fd(::open(path, O_RDONLY | O_CLOEXEC)) {
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
    if (::strcasecmp(out->registry.entries[i].szName, CNameMap::kSegmentName) == 0) {
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
  return ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

std::vector<Violation> CheckInvariants(const Snapshot& s, bool afterCleanup) {
  std::vector<Violation> v;
  if (!s.registryFound) return v;
  const SMEMMAPINFO& reg = s.registry;
  if (reg.dwBusyPid != 0) v.push_back({"busy-pid", "registry dwBusyPid is " + Str(reg.dwBusyPid)});

  for (int i = 0; i < kRegistryEntries; ++i) {
    const SMEMMAPENTRY& e = reg.entries[i];
    const key_t key = kFirstSegmentKey + i;
    const int id = ::shmget(key, 0, 0);
    if (e.szName[0] == '\0') {
      if (id >= 0)
        v.push_back({"orphan-segment", "key " + Str(key) + " has a segment but registry entry " +
                                           Str(i) + " is free"});
      continue;
    }
    shmid_ds ds;
    if (id < 0 || ::shmctl(id, IPC_STAT, &ds) != 0) {
      v.push_back({"missing-segment", "registry entry " + Str(i) + " \"" + e.szName +
                                          "\" has no segment at key " + Str(key)});
    } else if (ds.shm_segsz != e.dwSize) {
      v.push_back({"segment-size", "registry entry " + Str(i) + " \"" + e.szName + "\" records " +
                                       Str(e.dwSize) + " bytes, its segment has " +
                                       Str(static_cast<long long>(ds.shm_segsz))});
    }
    if (afterCleanup)
      for (uint32_t pid : e.adwPids)
        if (pid != 0 && IsDeadPid(pid))
          v.push_back({"dead-pid", "registry entry " + Str(i) + " \"" + e.szName +
                                       "\" still records dead pid " + Str(pid)});
  }

  if (!s.nameMapFound) return v;
  const CNameMap::SNAMEMAP& map = s.nameMap;
  if (map.dwBusyPid != 0) v.push_back({"busy-pid", "name map dwBusyPid is " + Str(map.dwBusyPid)});
  for (uint32_t i = 0; i < CNameMap::kMaxEntries; ++i) {
    const CNameMap::SNAMEINFO& e = map.entries[i];
    if (e.szName[0] == '\0') continue;
    if (i > map.dwHighestEntry)
      v.push_back({"above-highest", "name map entry " + Str(i) + " \"" + e.szName +
                                        "\" is used above dwHighestEntry " +
                                        Str(map.dwHighestEntry)});
    long long sum = 0;
    for (const CNameMap::SPIDINFO& p : e.pids) {
      if (p.dwPid == 0) continue;
      sum += p.dwCount;
      if (afterCleanup && IsDeadPid(p.dwPid))
        v.push_back({"dead-pid", "name map entry " + Str(i) + " \"" + e.szName +
                                     "\" still records dead pid " + Str(p.dwPid)});
    }
    if (sum != static_cast<long long>(e.dwUseCount))
      v.push_back({"use-count", "name map entry " + Str(i) + " \"" + e.szName + "\" dwUseCount " +
                                    Str(e.dwUseCount) + " but its pids count " + Str(sum)});
  }
  return v;
}

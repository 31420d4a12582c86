// The registry of named System V segments: attaching and initialising it,
// acquiring and releasing named segments, and reclaiming what dead
// processes left behind.
#include "shm/share_mem_map.h"

#include <fcntl.h>
#include <signal.h>
#include <strings.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>
#include <new>
#include <string>

#include "ambit/exception.h"
#include "ambit/portable.h"
#include "portable/deliberate_crash.h"
#include "portable/shared_file.h"
#include "shm/interprocess_lock.h"
#include "sync/mutex_globals.h"
#include "trace/trace_impl.h"

namespace {

constexpr unsigned long kCategoryErrors = 4;
constexpr unsigned long kCategoryRegistry = 8;
constexpr unsigned long kLevelOrdinary = 2;
constexpr unsigned long kLevelError = 64;
constexpr unsigned long kMismatchSleepMs = 5000;

// Registry progress lines go to the hook (category 8).
#define REGISTRY_TRACE(...)                                                 \
  do {                                                                      \
    if (g_pambittracing)                                                    \
      traceImpl(kCategoryRegistry, kLevelOrdinary, __VA_ARGS__);            \
  } while (0)

// Registry error lines that go to the hook (category 4).
#define REGISTRY_HOOK_ERROR(...)                                            \
  do {                                                                      \
    if (g_pambittracing) traceImpl(kCategoryErrors, kLevelError, __VA_ARGS__); \
  } while (0)

bool IsFree(const SMEMMAPENTRY& e) { return e.szName[0] == '\0'; }

void SetName(SMEMMAPENTRY* e, const char* name) {
  std::strncpy(e->szName, name, kNameSize - 1);
  e->szName[kNameSize - 1] = '\0';
}

uint32_t OwnPid() { return static_cast<uint32_t>(::getpid()); }

int Int(unsigned long v) { return static_cast<int>(v); }

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Reads up to `size` bytes; fewer only at the end of the file. -1 on error.
ssize_t ReadAll(int fd, char* data, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = ::read(fd, data + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

CShareMemMap* g_pshareMemMap = nullptr;

CShareMemMap* get_shareMemMap() {
  pthread_mutex_lock(&g_mutexGlobals);
  if (g_pshareMemMap == nullptr) {
    // A constructor exception passes out with g_mutexGlobals still locked,
    // so that no other thread goes on with a half-made registry.
    g_pshareMemMap = new (std::nothrow) CShareMemMap;
    if (g_pshareMemMap == nullptr) {
      pthread_mutex_unlock(&g_mutexGlobals);
      AMBIT_THROW(QK_E_OUT_OF_MEMORY);
    }
  }
  pthread_mutex_unlock(&g_mutexGlobals);
  return g_pshareMemMap;
}

// --- Construction and destruction --------------------------------------------

void CShareMemMap::initMutex() {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&m_mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

void CShareMemMap::renewMutexInChild() {
  if (g_pshareMemMap != nullptr) g_pshareMemMap->initMutex();
}

namespace {
pthread_once_t g_forkHandlerOnce = PTHREAD_ONCE_INIT;
void RegisterForkHandler() { pthread_atfork(nullptr, nullptr, &CShareMemMap::renewMutexInChild); }
}  // namespace

CShareMemMap::CShareMemMap() : m_nshmid(0), m_pmemMapInfo(nullptr), m_pLock(nullptr) {
  initMutex();
  pthread_once(&g_forkHandlerOnce, &RegisterForkHandler);

  try {
    m_pLock = new CInterprocessLock(kRegistryName);
  } catch (...) {
    pthread_mutex_destroy(&m_mutex);
    throw;
  }

  m_pLock->lock();
  int created = 0;
  m_pmemMapInfo = static_cast<SMEMMAPINFO*>(acquireSharedMemoryHelper(
      kRegistryName, kRegistryKey, kRegistrySize, &m_nshmid, &created, nullptr, nullptr));
  if (m_pmemMapInfo == nullptr) {
    // The interprocess lock stays taken on this path.
    AMBIT_THROW(QK_E_OUT_OF_MEMORY);
  }
  if (created) {
    initialize();
  } else if (m_pmemMapInfo->bInitialized == 0) {
    AMBIT_TRACE_LOG(
        "CShareMemMap::CShareMemMap - process pid %d crashed during initialization\n",
        static_cast<int>(m_pmemMapInfo->dwBusyPid));
    initialize();
  } else {
    checkCreateTime();
  }
  m_pLock->unlock();
}

void CShareMemMap::initialize() {
  SMEMMAPINFO* info = m_pmemMapInfo;
  const std::string program = getProgramName(CPortable::GetCurrentProcessId());
  std::strncpy(info->szCreatorProgram, program.c_str(), 15);
  info->szCreatorProgram[15] = '\0';
  info->dwBusyPid = OwnPid();
  AMBIT_TRACE_LOG(
      "CShareMemMap::CShareMemMap - initializing m_pmemMapInfo, created by program %s\n",
      info->szCreatorProgram);
  std::memset(info->entries, 0, sizeof info->entries);
  info->ullLatestAccessTick = CPortable::GetTickCountULL();
  info->dwBusyPid = 0;

  CPortable::SYSTEMTIME st;
  CPortable::GetSystemTime(&st);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"  // the fields fit: 23 characters
  std::snprintf(info->szCreateTimeUtc, sizeof info->szCreateTimeUtc,
                "%04d/%02d/%02d %02d:%02d:%02d.%03d", st.wYear, st.wMonth, st.wDay,
                st.wHour, st.wMinute, st.wSecond, st.wMilliseconds);
#pragma GCC diagnostic pop
  AMBIT_TRACE_LOG(
      "CShareMemMap::CShareMemMap - initializing m_pmemMapInfo, create time utc \"%s\"\n",
      info->szCreateTimeUtc);

  // The file ties the registry to this boot: /tmp is emptied at boot, the
  // segment with its fixed key may not be.
  // Through a descriptor that follows no symlink: a link planted at the
  // path must not make this process truncate and write another file.
  const int fd = OpenSharedFile(kCreateTimeFile, O_WRONLY | O_CREAT, 0666);
  if (fd >= 0) {
    const size_t room = sizeof info->szCreateTimeUtc;
    if (::ftruncate(fd, 0) != 0 || !WriteAll(fd, info->szCreateTimeUtc, room))
      AMBIT_TRACE_ERROR(
          "(Error) CShareMemMap::CShareMemMap - write to create time file failed %d\n",
          errno);
    ::close(fd);
  } else {
    AMBIT_TRACE_ERROR(
        "(Error) CShareMemMap::CShareMemMap - open create time file for writing failed %d\n",
        errno);
  }
  info->bInitialized = 1;
}

void CShareMemMap::checkCreateTime() {
  REGISTRY_TRACE("CShareMemMap::CShareMemMap - check guid file\n");
  // A file that cannot be read whole (a symlink or a directory at the path,
  // fewer than 24 bytes) says nothing about the registry: it is reported
  // and the registry accepted, as when the file is missing. Only a stamp
  // that was read and differs counts as a mismatch.
  char stamp[25];
  std::memset(stamp, 0, sizeof stamp);
  int error = 0;
  const int fd = OpenSharedFile(kCreateTimeFile, O_RDONLY, 0);
  if (fd < 0) {
    error = errno;
  } else {
    const ssize_t n = ReadAll(fd, stamp, 24);
    if (n < 0) error = errno;
    ::close(fd);
    if (n >= 0 && n < 24) {
      AMBIT_TRACE_ERROR(
          "(Error) CShareMemMap::CShareMemMap - create time file \"%s\" is short, %d bytes\n",
          kCreateTimeFile, static_cast<int>(n));
      return;
    }
  }
  if (error != 0) {
    AMBIT_TRACE_ERROR(
        "(Error) CShareMemMap::CShareMemMap - open create time file \"%s\" for reading "
        "failed %d\n",
        kCreateTimeFile, error);
    return;  // a registry without a readable file is accepted as it stands
  }
  REGISTRY_TRACE("CShareMemMap::CShareMemMap - create time check, file \"%s\", mem \"%s\" \n",
                 stamp, m_pmemMapInfo->szCreateTimeUtc);
  if (CPortable::strnicmp(stamp, m_pmemMapInfo->szCreateTimeUtc, 23) != 0) {
    AMBIT_TRACE_LOG(
        "CShareMemMap::CShareMemMap - create time mismatch, file \"%s\", mem \"%s\" \n",
        stamp, m_pmemMapInfo->szCreateTimeUtc);
    AMBIT_TRACE_LOG("CShareMemMap::CShareMemMap - throwing exception\n");
    // No process may go on with a registry whose time stamp disagrees with
    // the file: this one ends here, by design, after giving the log time.
    CPortable::Sleep(kMismatchSleepMs);
    ZeroAtNullAddress(1);
  }
}

CShareMemMap::~CShareMemMap() {
  pthread_mutex_lock(&m_mutex);
  if (m_pmemMapInfo != nullptr) {
    // Release every segment of this process once, whatever its count.
    std::list<std::string> names;
    for (auto& item : m_mapAllocInfo) {
      item.second->dwUseCount = 1;
      names.push_back(item.first);
    }
    for (const std::string& name : names) releaseSharedMemory(name);
    releaseSharedMemoryHelper(m_pmemMapInfo);  // the registry stays
    m_pmemMapInfo = nullptr;
  }
  pthread_mutex_unlock(&m_mutex);
  pthread_mutex_destroy(&m_mutex);
  delete m_pLock;
  m_pLock = nullptr;
  for (auto& item : m_mapAllocInfo) delete item.second;
  m_mapAllocInfo.clear();
}

// --- Attaching segments -------------------------------------------------------

void* CShareMemMap::acquireSharedMemoryHelper(const std::string& name, unsigned long dwKey,
                                              unsigned long dwSize, int* nshmid,
                                              int* bCreated, int* tooSmall,
                                              unsigned long* actualSize) {
  REGISTRY_TRACE("CShareMemMap::acquireSharedMemoryHelper, name %s, dwKey %d, dwSize %d\n",
                 name.c_str(), Int(dwKey), Int(dwSize));
  *bCreated = 0;
  int small = 0;
  unsigned long actual = 0;
  void* pvmem = nullptr;
  shmid_ds ds;

  int id = ::shmget(static_cast<key_t>(dwKey), dwSize, IPC_CREAT | IPC_EXCL | 0666);
  if (id >= 0) {
    *bCreated = 1;
    std::memset(&ds, 0, sizeof ds);
    if (::shmctl(id, IPC_STAT, &ds) != 0) {
      AMBIT_TRACE_ERROR("(Error) CShareMemMap::acquireSharedMemoryHelper, shmctl.1 failed %d\n",
                        errno);
    } else {
      actual = ds.shm_segsz;
      REGISTRY_TRACE(
          "CShareMemMap::acquireSharedMemoryHelper - new, name %s, wanted %d, actual %d\n",
          name.c_str(), Int(dwSize), Int(actual));
    }
  } else if (errno == EEXIST) {
    id = ::shmget(static_cast<key_t>(dwKey), 0, IPC_CREAT | 0666);
    if (id < 0) {
      AMBIT_TRACE_ERROR("(Error) CShareMemMap::acquireSharedMemoryHelper, shmget.1 failed %d\n",
                        errno);
    } else {
      std::memset(&ds, 0, sizeof ds);
      if (::shmctl(id, IPC_STAT, &ds) != 0) {
        AMBIT_TRACE_ERROR(
            "(Error) CShareMemMap::acquireSharedMemoryHelper, shmctl.2 failed %d\n", errno);
      } else {
        actual = ds.shm_segsz;
      }
      if (dwSize > actual) {
        small = 1;
        AMBIT_TRACE_ERROR(
            "(Error) CShareMemMap::acquireSharedMemoryHelper, name %s, size too small: wanted "
            "%d, actual %d\n",
            name.c_str(), Int(dwSize), Int(actual));
      }
    }
  } else {
    AMBIT_TRACE_ERROR("(Error) CShareMemMap::acquireSharedMemoryHelper, shmget.2 failed %d\n",
                      errno);
  }

  if (id >= 0) {
    *nshmid = id;
    void* p = ::shmat(id, nullptr, 0);
    if (p == reinterpret_cast<void*>(-1)) {
      AMBIT_TRACE_ERROR("(Error) CShareMemMap::acquireSharedMemoryHelper, shmmat failed %d\n",
                        errno);
    } else {
      pvmem = p;
    }
  }
  if (tooSmall != nullptr) *tooSmall = small;
  if (actualSize != nullptr) *actualSize = actual;
  REGISTRY_TRACE("<<<CShareMemMap::acquireSharedMemoryHelper, nshmid %d, bCreated %d, pvmem %p\n",
                 id, *bCreated, pvmem);
  return pvmem;
}

int CShareMemMap::releaseSharedMemoryHelper(void* pvmem) {
  REGISTRY_TRACE("CShareMemMap::releaseSharedMemoryHelper, pvmem %p\n", pvmem);
  return ::shmdt(pvmem);
}

void* CShareMemMap::acquireSharedMemory(std::string name, unsigned long dwSize,
                                        int* bCreated) {
  REGISTRY_TRACE("CShareMemMap::acquireSharedMemory \"%s\"\n", name.c_str());
  pthread_mutex_lock(&m_mutex);
  *bCreated = 0;

  // An empty name would claim an entry that still reads as free, and the
  // parked marker would claim a parked entry: another name could then be
  // given the same segment. Neither is a name.
  if (name.empty() || ::strcasecmp(name.c_str(), kParkedName) == 0) {
    AMBIT_TRACE_ERROR("(Error) CShareMemMap::acquireSharedMemory - invalid name \"%s\"\n",
                      name.c_str());
    pthread_mutex_unlock(&m_mutex);
    return nullptr;
  }

  // A name this process holds already: no shared memory is touched.
  const auto known = m_mapAllocInfo.find(name);
  if (known != m_mapAllocInfo.end()) {
    CMemMapAllocInfo* info = known->second;
    void* result = nullptr;
    if (dwSize != 0 && dwSize != info->pEntry->dwSize) {
      AMBIT_TRACE_ERROR("(Error) CShareMemMap::acquireSharedMemory - size mismatch: cur %d, req %d\n",
                        Int(info->pEntry->dwSize), Int(dwSize));
    } else {
      ++info->dwUseCount;
      result = info->pvmem;
    }
    pthread_mutex_unlock(&m_mutex);
    return result;
  }

  CMemMapAllocInfo* info = new (std::nothrow) CMemMapAllocInfo{nullptr, nullptr, 0};
  if (info == nullptr) {
    pthread_mutex_unlock(&m_mutex);
    return nullptr;
  }
  void* result = nullptr;
  SMEMMAPINFO* reg = m_pmemMapInfo;
  m_pLock->lock();
  try {
    reg->dwBusyPid = OwnPid();
    releaseObsoleteEntries();

    for (int start = 0;;) {
      int found = -1, candidate = -1;
      for (int i = start; i < kRegistryEntries; ++i) {
        const SMEMMAPENTRY& e = reg->entries[i];
        // An entry keeps the first kNameSize - 1 characters of its name, so
        // a longer request matches on those.
        if (!IsFree(e) && ::strncasecmp(e.szName, name.c_str(), kNameSize - 1) == 0) {
          found = i;
          break;
        }
        // A parked entry of exactly this size wins over a free one.
        if (std::strcmp(e.szName, kParkedName) == 0 && e.dwSize == dwSize)
          candidate = i;
        else if (IsFree(e) && candidate < 0)
          candidate = i;
      }

      int slot = -1;
      int entryIndex;
      const bool claimed = found < 0;
      if (found >= 0) {
        REGISTRY_TRACE("CShareMemMap::acquireSharedMemory - found entry %d\n", found);
        SMEMMAPENTRY& e = reg->entries[found];
        for (int s = 0; s < kPidSlots; ++s)
          if (e.adwPids[s] == 0) {
            slot = s;
            break;
          }
        if (dwSize != 0 && dwSize != e.dwSize) {
          REGISTRY_HOOK_ERROR(
              "(Error) CShareMemMap::acquireSharedMemory - size mismatch: cur %d, req %d\n",
              Int(e.dwSize), Int(dwSize));
          break;
        }
        if (slot < 0) {
          AMBIT_TRACE_ERROR("(Error) CShareMemMap::acquireSharedMemory - out of pid slots\n");
          REGISTRY_HOOK_ERROR("(Error) CShareMemMap::acquireSharedMemory - out of pid slots\n");
          break;
        }
        entryIndex = found;
      } else if (candidate < 0) {
        AMBIT_TRACE_ERROR("(Error) CShareMemMap::acquireSharedMemory - out of pid entries\n");
        REGISTRY_HOOK_ERROR("(Error) CShareMemMap::acquireSharedMemory - out of entries\n");
        break;
      } else {
        REGISTRY_TRACE("CShareMemMap::acquireSharedMemory - free entry %d\n", candidate);
        SetName(&reg->entries[candidate], name.c_str());
        slot = 0;
        entryIndex = candidate;
      }

      SMEMMAPENTRY& e = reg->entries[entryIndex];
      int tooSmall = 0;
      unsigned long actualSize = 0;
      void* pvmem = acquireSharedMemoryHelper(
          name, static_cast<unsigned long>(kFirstSegmentKey + entryIndex), dwSize, &e.nshmid,
          bCreated, &tooSmall, &actualSize);
      if (claimed && tooSmall) {
        // The key's segment is smaller than asked and cannot be ours: park
        // the entry with the segment's real size and look further on.
        if (pvmem != nullptr) releaseSharedMemoryHelper(pvmem);
        AMBIT_TRACE_LOG("CShareMemMap::acquireSharedMemory, setting entry %d, %s, creator pid %d, to %s\n",
                        entryIndex, e.szName, static_cast<int>(e.dwCreatorPid), kParkedName);
        SetName(&e, kParkedName);
        e.dwSize = static_cast<uint32_t>(actualSize);
        start = entryIndex + 1;
        continue;
      }
      if (tooSmall && pvmem != nullptr) {
        // A found entry whose segment is smaller than its record: never
        // hand out memory the caller would overrun.
        releaseSharedMemoryHelper(pvmem);
        pvmem = nullptr;
      }
      if (pvmem == nullptr) {
        if (claimed) {
          // A half-claimed entry must not survive: with a non-zero size
          // this ends the process (deliberately), as it always has. A
          // segment this call made (it could be created but not attached,
          // e.g. too large for the address space) goes first: left at the
          // entry's key, it would end every later process that claims the
          // entry, whatever name it asks for.
          if (*bCreated) {
            ::shmctl(e.nshmid, IPC_RMID, nullptr);
            *bCreated = 0;
          }
          e.nshmid = 0;
          e.szName[0] = '\0';
          ZeroAtNullAddress(dwSize);
        }
        break;
      }

      info->pEntry = &e;
      info->pvmem = pvmem;
      info->dwUseCount = 1;
      m_mapAllocInfo[name] = info;
      info = nullptr;  // owned by the map now
      if (dwSize != 0) e.dwSize = static_cast<uint32_t>(dwSize);
      e.adwPids[slot] = OwnPid();
      if (claimed) {
        *bCreated = 1;
        e.dwCreatorPid = OwnPid();
      }
      REGISTRY_TRACE("CShareMemMap::acquireSharedMemory, adding pid %d at slot %d\n",
                     static_cast<int>(OwnPid()), slot);
      result = pvmem;
      break;
    }
  } catch (...) {
    AMBIT_TRACE_ERROR("(Error) CShareMemMap::acquireSharedMemory - had an exception\n");
    REGISTRY_HOOK_ERROR("(Error) CShareMemMap::acquireSharedMemory - had an exception\n");
    result = nullptr;
  }
  reg->ullLatestAccessTick = CPortable::GetTickCountULL();
  reg->dwBusyPid = 0;
  m_pLock->unlock();
  delete info;
  pthread_mutex_unlock(&m_mutex);
  return result;
}

void CShareMemMap::releaseSharedMemory(std::string name) {
  REGISTRY_TRACE("CShareMemMap::releaseSharedMemory \"%s\"\n", name.c_str());
  pthread_mutex_lock(&m_mutex);
  const auto known = m_mapAllocInfo.find(name);
  if (known == m_mapAllocInfo.end()) {
    pthread_mutex_unlock(&m_mutex);
    return;
  }
  CMemMapAllocInfo* info = known->second;
  SMEMMAPINFO* reg = m_pmemMapInfo;
  m_pLock->lock();
  if (info->dwUseCount-- <= 1) {
    try {
      reg->dwBusyPid = OwnPid();
      releaseObsoleteEntries();
      releaseSharedMemoryHelper(info->pvmem);

      SMEMMAPENTRY& e = *info->pEntry;
      const int index = static_cast<int>(&e - reg->entries);
      // Names that differ only in case are two attachments of one entry,
      // and the first of them to go clears every slot of this process and
      // frees the entry, which another name may have claimed since. Only
      // an entry that still carries this name (as stored: cut to 254
      // characters) is this attachment's to update.
      const bool stillOurs =
          !IsFree(e) && ::strncasecmp(e.szName, name.c_str(), kNameSize - 1) == 0;
      int others = 0;
      for (int s = 0; stillOurs && s < kPidSlots; ++s) {
        if (e.adwPids[s] == OwnPid()) {
          REGISTRY_TRACE("CShareMemMap::removeSharedMemory, removing pid %d at slot %d\n",
                         static_cast<int>(OwnPid()), s);
          e.adwPids[s] = 0;
        } else if (e.adwPids[s] != 0) {
          ++others;
        }
      }
      // A freed entry records id 0, often the registry itself: never
      // remove that by mistake.
      if (stillOurs && others == 0 && e.nshmid != 0) {
        e.szName[0] = '\0';
        if (::shmctl(e.nshmid, IPC_RMID, nullptr) == 0)
          REGISTRY_TRACE("CShareMemMap::releaseSharedMemory, released segment for entry %d\n",
                         index);
        else
          AMBIT_TRACE_ERROR(
              "(Error) CShareMemMap::releaseSharedMemory, release segment for entry %d, "
              "shmctl.IPC_RMID failed\n",
              index);
        e.nshmid = 0;
      }
      m_mapAllocInfo.erase(known);
      delete info;
    } catch (...) {
      AMBIT_TRACE_ERROR("(Error) CShareMemMap::releaseSharedMemory - had an exception\n");
      REGISTRY_HOOK_ERROR("(Error) CShareMemMap::releaseSharedMemory - had an exception\n");
    }
  }
  reg->ullLatestAccessTick = CPortable::GetTickCountULL();
  reg->dwBusyPid = 0;
  m_pLock->unlock();
  pthread_mutex_unlock(&m_mutex);
}

// --- Reclaiming what dead processes left ---------------------------------------

bool CShareMemMap::isPidObsolete(unsigned long pid) {
  if (pid == OwnPid()) return false;
  if (::kill(static_cast<pid_t>(pid), 0) == 0) return false;
  return errno == ESRCH;  // EPERM: alive, another user's
}

void CShareMemMap::releaseObsoleteEntries() {
  SMEMMAPINFO* reg = m_pmemMapInfo;
  for (int i = 0; i < kRegistryEntries; ++i) {
    SMEMMAPENTRY& e = reg->entries[i];
    if (IsFree(e)) continue;
    int live = 0;
    for (int s = 0; s < kPidSlots; ++s) {
      const uint32_t pid = e.adwPids[s];
      if (pid == 0) continue;
      REGISTRY_TRACE("CShareMemMap::releaseObsoleteEntries, entry %d for pid %d\n", i,
                     static_cast<int>(pid));
      if (isPidObsolete(pid)) {
        REGISTRY_TRACE("CShareMemMap::releaseObsoleteEntries, removing obsolete entry %d for pid %d\n",
                       i, static_cast<int>(pid));
        e.adwPids[s] = 0;
      } else {
        ++live;
      }
    }
    if (live != 0) continue;
    if (releaseObsoleteSegment(static_cast<unsigned long>(kFirstSegmentKey + i)) == 0) {
      e.szName[0] = '\0';
    } else {
      AMBIT_TRACE_LOG("CShareMemMap::releaseObsoleteEntries, setting entry %d, %s, creator pid %d, to %s\n",
                      i, e.szName, static_cast<int>(e.dwCreatorPid), kParkedName);
      SetName(&e, kParkedName);
    }
  }
}

int CShareMemMap::releaseObsoleteSegment(unsigned long key) {
  REGISTRY_TRACE("CShareMemMap::releaseObsoleteSegment, key %d\n", Int(key));
  const int id = ::shmget(static_cast<key_t>(key), 0, IPC_CREAT | 0666);
  if (id < 0) {
    if (g_pambittracing)
      traceImpl(kCategoryRegistry, kLevelError,
                "(Error) CShareMemMap::releaseObsoleteSegment, shmget.IPC_CREAT failed %d\n",
                errno);
    return 0;  // nothing to remove
  }
  shmid_ds ds;
  std::memset(&ds, 0, sizeof ds);  // IPC_RMID does not fill it in
  if (::shmctl(id, IPC_RMID, &ds) != 0) {
    AMBIT_TRACE_ERROR("(Error) CShareMemMap::releaseObsoleteSegment, shmctl.IPC_RMID failed %d\n",
                      errno);
    return -1;
  }
  const int attached = static_cast<int>(ds.shm_nattch);
  if (attached != 0)
    REGISTRY_HOOK_ERROR("(Error) CShareMemMap::releaseObsoleteSegment, attach count %d\n",
                        attached);
  return attached;
}

// --- Dump ---------------------------------------------------------------------

void CShareMemMap::dump() {
  if (!ErrorLinesOn()) return;
  pthread_mutex_lock(&m_mutex);
  const SMEMMAPINFO* reg = m_pmemMapInfo;
  if (reg != nullptr) {
    const unsigned long long latest = reg->ullLatestAccessTick;
    const unsigned long long now = CPortable::GetTickCountULL();
    AMBIT_TRACE_LOG(
        "CShareMemMap::dump - created by program %s, time utc \"%s\", latestaccesstick %s, "
        "curtick %s\n",
        reg->szCreatorProgram, reg->szCreateTimeUtc, CPortable::ulltos(latest).c_str(),
        CPortable::ulltos(now).c_str());
    for (int i = 0; i < kRegistryEntries; ++i) {
      const SMEMMAPENTRY& e = reg->entries[i];
      if (IsFree(e)) continue;
      AMBIT_TRACE_LOG("- Entry %d, name \"%s\"\n", i, e.szName);
      AMBIT_TRACE_LOG("    pid creator %d, size %d, shmid %d\n",
                      static_cast<int>(e.dwCreatorPid), static_cast<int>(e.dwSize), e.nshmid);
      for (int s = 0; s < kPidSlots; ++s)
        if (e.adwPids[s] != 0) AMBIT_TRACE_LOG("      pid %d\n", static_cast<int>(e.adwPids[s]));
    }
  }
  pthread_mutex_unlock(&m_mutex);
}

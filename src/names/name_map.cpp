// The name map: the shared table of named synchronisation objects.
#include "names/name_map.h"

#include <signal.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <new>

#include "ambit/exception.h"
#include "ambit/portable.h"
#include "portable/self_ids.h"
#include "shm/interprocess_lock.h"
#include "shm/share_mem_map.h"
#include "sync/mutex_globals.h"
#include "sync/robust_mutex.h"
#include "trace/trace_impl.h"

namespace {

constexpr unsigned long kCategoryRegistry = 8;
constexpr unsigned long kLevelOrdinary = 2;
constexpr char kLockName[] = "CNameMap";
constexpr size_t kMaxNameLength = 255;

#define NAMEMAP_TRACE(...)                                                  \
  do {                                                                      \
    if (g_pambittracing) traceImpl(kCategoryRegistry, kLevelOrdinary, __VA_ARGS__); \
  } while (0)

uint32_t OwnPid() { return static_cast<uint32_t>(OwnProcessId()); }

bool IsFree(const CNameMap::SNAMEINFO& e) { return e.szName[0] == '\0'; }

// kill(pid, 0) fails with ESRCH only for a pid no process has.
bool IsDead(uint32_t pid) {
  return ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

void InitObject(CNameMap::SNAMEINFO* e, unsigned long value) {
  switch (e->nameType) {
    case CNameMap::Mutex:
      // Robust: the kernel hands the mutex of a dead owner to the next
      // waiter at once, and crash recovery can tell a dead owner from a
      // live one.
      InitRobustSharedMutex(&e->object.mutex, PTHREAD_MUTEX_ADAPTIVE_NP);
      break;
    case CNameMap::Semaphore:
      std::memset(&e->object.semaphore, 0, sizeof e->object.semaphore);
      sem_init(&e->object.semaphore, 1, static_cast<unsigned>(value));
      break;
    default: {  // an event
      CNameMap::SCONDVAR& cv = e->object.condvar;
      // Robust: a process killed while holding it does not block the others.
      InitRobustSharedMutex(&cv.mutex, PTHREAD_MUTEX_RECURSIVE);
      // Initialised as a process-shared condition for the layout's sake;
      // the event's waits and wakes use its first word as a futex (see
      // sync/event_impl.cpp), and the zeroed condition starts it at 0.
      pthread_condattr_t cattr;
      pthread_condattr_init(&cattr);
      pthread_condattr_setpshared(&cattr, PTHREAD_PROCESS_SHARED);
      std::memset(&cv.cond, 0, sizeof cv.cond);
      pthread_cond_init(&cv.cond, &cattr);
      pthread_condattr_destroy(&cattr);
      cv.s_lVal = CNameMap::kEventReset;
      break;
    }
  }
}

// Ends an object whose last user has gone. A condition variable in shared
// memory is left as it is: destroying one waits for every waiter to leave,
// and a waiter that was killed never leaves. The entry is zeroed and made
// anew when it is next used.
void DestroyObject(CNameMap::SNAMEINFO* e) {
  switch (e->nameType) {
    case CNameMap::Mutex:
      pthread_mutex_destroy(&e->object.mutex);
      break;
    case CNameMap::Semaphore:
      sem_destroy(&e->object.semaphore);
      break;
    default:
      pthread_mutex_destroy(&e->object.condvar.mutex);
      break;
  }
}

}  // namespace

constexpr char CNameMap::kSegmentName[];
CNameMap* g_pnameMap = nullptr;

CNameMap* get_nameMap() {
  pthread_mutex_lock(&g_mutexGlobals);
  if (g_pnameMap == nullptr) {
    // A constructor exception passes out with g_mutexGlobals still locked.
    g_pnameMap = new (std::nothrow) CNameMap;
    if (g_pnameMap == nullptr) {
      pthread_mutex_unlock(&g_mutexGlobals);
      AMBIT_THROW(QK_E_OUT_OF_MEMORY);
    }
  }
  pthread_mutex_unlock(&g_mutexGlobals);
  return g_pnameMap;
}

CNameMap::CNameMap()
    : m_pLock(nullptr), m_pNameMap(nullptr), m_stop(0), m_stopEvent(1, "", 1),
      m_watcherRunning(0) {
  m_pLock = new CInterprocessLock(kLockName);
  m_pLock->lock();
  int created = 0;
  m_pNameMap = static_cast<SNAMEMAP*>(
      get_shareMemMap()->acquireSharedMemory(kSegmentName, kSegmentSize, &created));
  if (m_pNameMap == nullptr) {
    m_pLock->unlock();
    delete m_pLock;
    AMBIT_THROW(QK_E_NAME_MAP);
  }
  if (created) {
    NAMEMAP_TRACE("CNameMap::CNameMap() - created\n");
    m_pNameMap->dwMaxEntries = kMaxEntries;
  } else {
    NAMEMAP_TRACE("CNameMap::CNameMap() - existing\n");
    if (m_pNameMap->dwBusyPid != 0) {
      // Reported only: no repair is attempted.
      AMBIT_TRACE_ERROR("(Error) CNameMap::CNameMap() - process %d crashed while modifying\n",
                        static_cast<int>(m_pNameMap->dwBusyPid));
      m_pNameMap->dwBusyPid = 0;
    }
  }
  // Marked running before the thread starts, so that a destructor that
  // follows at once still waits for the watcher to let go of this object.
  m_watcherRunning = 1;
  if (CPortable::CreateThread(&CNameMap::pidWatcherThread, this, nullptr, "pid-watcher") == 0)
    m_watcherRunning = 0;
  m_pLock->unlock();
}

CNameMap::~CNameMap() {
  m_stop = 1;
  // The table goes first, then the watcher: this order is kept on purpose.
  get_shareMemMap()->releaseSharedMemory(kSegmentName);
  m_stopEvent.wake(0);
  while (m_watcherRunning) CPortable::Sleep(200);
  delete m_pLock;
}

void CNameMap::lock() { m_pLock->lock(); }

void CNameMap::unlock() { m_pLock->unlock(); }

CNameMap::SNAMEINFO* CNameMap::createNamedObject(std::string name, CREATETYPE createType,
                                                 NAMETYPE nameType, int* pbCreated,
                                                 unsigned long value) {
  NAMEMAP_TRACE("CNameMap::createNamedObject: \"%s\", nameType %d\n", name.c_str(),
                static_cast<int>(nameType));
  *pbCreated = 0;
  // An empty name would make an entry that looks free to everyone else.
  if (name.empty() || name.size() > kMaxNameLength || nameType == NameTypeInvalid)
    return nullptr;
  for (char& c : name)
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '-';

  const uint32_t own = OwnPid();
  SNAMEMAP* map = m_pNameMap;
  m_pLock->lock();
  checkForObsoleteEntries();

  // A new entry goes to the lowest free index, else just above the highest.
  long candidate = map->dwHighestEntry < map->dwMaxEntries - 1
                       ? static_cast<long>(map->dwHighestEntry) + 1
                       : -1;
  bool found = false;
  SNAMEINFO* result = nullptr;
  for (uint32_t i = 0; i <= map->dwHighestEntry && i < kMaxEntries; ++i) {
    SNAMEINFO& e = map->entries[i];
    NAMEMAP_TRACE("CNameMap::createNamedObject: map name (%d) \"%s\"\n", static_cast<int>(i),
                  e.szName);
    if (!IsFree(e)) {
      if (!found && std::strcmp(e.szName, name.c_str()) == 0) {
        NAMEMAP_TRACE("CNameMap::createNamedObject: found at %d\n", static_cast<int>(i));
        found = true;
        result = e.nameType == nameType ? &e : nullptr;
      }
    } else {
      NAMEMAP_TRACE("CNameMap::createNamedObject: free at %d\n", static_cast<int>(i));
      if (candidate < 0 || static_cast<long>(i) < candidate) candidate = static_cast<long>(i);
    }
  }

  if ((createType == CreateOnly && found) || (createType == OpenOnly && !found)) {
    result = nullptr;
  } else if (found && result != nullptr) {
    SNAMEINFO& e = *result;
    int chosen = -1, freeSlot = -1;
    for (int s = 0; s < kPidSlots; ++s) {
      SPIDINFO& p = e.pids[s];
      if (p.dwPid == own) {
        chosen = s;
        break;
      }
      if (p.dwPid != 0 && IsDead(p.dwPid)) {
        map->dwBusyPid = own;
        NAMEMAP_TRACE("CNameMap::createNamedObject, pid %d does not exist\n",
                      static_cast<int>(p.dwPid));
        e.dwUseCount -= p.dwCount;
        p.dwPid = 0;
        p.dwCount = 0;
        // Compared with the slot's pid after it was cleared, so this only
        // matches an entry that has no holder at all. The mutex is let go
        // only if no live thread holds it.
        if (__atomic_load_n(&e.dwHolderPid, __ATOMIC_SEQ_CST) == static_cast<int32_t>(p.dwPid) &&
            e.nameType == Mutex) {
          NAMEMAP_TRACE("CNameMap::createNamedObject, unlocking mutex for %s\n", e.szName);
          FreeMutexOfTheDead(&e);
        }
      }
      if (p.dwPid == 0 && freeSlot < 0) freeSlot = s;
    }
    if (chosen < 0) chosen = freeSlot;
    if (chosen < 0) {
      AMBIT_TRACE_ERROR("(Error) CNameMap::createNamedObject - too many pids\n");
      result = nullptr;
    } else {
      map->dwBusyPid = own;
      // A free slot may still carry the wait count of a process that died
      // waiting (cleanup frees the slot but leaves the count). The new user
      // starts with no wait in progress, or its own death would later be
      // taken for a death in a wait.
      if (e.pids[chosen].dwPid != own) e.pids[chosen].dwWaitCount = 0;
      e.pids[chosen].dwCount += 1;
      e.pids[chosen].dwPid = own;
      e.dwUseCount += 1;
    }
  } else if (!found && candidate >= 0) {
    SNAMEINFO& e = map->entries[candidate];
    map->dwBusyPid = own;
    NAMEMAP_TRACE("CNameMap::createNamedObject: initialize %d\n", static_cast<int>(candidate));
    if (map->dwHighestEntry < static_cast<uint32_t>(candidate))
      map->dwHighestEntry = static_cast<uint32_t>(candidate);
    std::memset(&e, 0, sizeof e);
    std::strncpy(e.szName, name.c_str(), sizeof e.szName - 1);
    e.pids[0].dwPid = own;
    e.pids[0].dwCount = 1;
    e.nameType = nameType;
    e.dwUseCount = 1;
    e.dwHolderPid = 0;
    InitObject(&e, value);
    e.dwCreatorPid = own;
    *pbCreated = 1;
    result = &e;
  }

  map->dwBusyPid = 0;
  m_pLock->unlock();
  return result;
}

void CNameMap::destroyNamedObject(SNAMEINFO* entry) {
  const uint32_t own = OwnPid();
  m_pLock->lock();
  m_pNameMap->dwBusyPid = own;
  for (SPIDINFO& p : entry->pids) {
    if (p.dwPid != own) continue;
    if (--p.dwCount == 0) p.dwPid = 0;
    break;
  }
  if (--entry->dwUseCount == 0) {
    DestroyObject(entry);
    entry->szName[0] = '\0';
  }
  m_pNameMap->dwBusyPid = 0;
  m_pLock->unlock();
}

// --- Enumeration and dump -------------------------------------------------------

void CNameMap::enumEntriesBegin() { m_pLock->lock(); }

bool CNameMap::enumEntry(unsigned long* index, std::string* name, NAMETYPE* type) {
  for (unsigned long i = *index; i <= m_pNameMap->dwHighestEntry && i < kMaxEntries; ++i) {
    const SNAMEINFO& e = m_pNameMap->entries[i];
    if (IsFree(e)) continue;
    *name = e.szName;
    *type = e.nameType;
    *index = i + 1;
    return true;
  }
  return false;
}

void CNameMap::enumEntriesEnd() {
  m_pNameMap->dwBusyPid = 0;
  m_pLock->unlock();
}

void CNameMap::dump() {
  if (!ErrorLinesOn()) return;
  const SNAMEMAP* map = m_pNameMap;
  AMBIT_TRACE_LOG("CNameMap::dump %s\n", kSegmentName);
  for (uint32_t i = 0; i <= map->dwHighestEntry && i < kMaxEntries; ++i) {
    const SNAMEINFO& e = map->entries[i];
    if (IsFree(e)) continue;
    AMBIT_TRACE_LOG("- Entry %d, name \"%s\"\n", static_cast<int>(i), e.szName);
    AMBIT_TRACE_LOG("    use count %d, pid creator %d, pid holder %d\n",
                    static_cast<int>(e.dwUseCount), static_cast<int>(e.dwCreatorPid),
                    static_cast<int>(e.dwHolderPid));
    if (e.nameType == Mutex)
      AMBIT_TRACE_LOG("    type: Mutex\n");
    else if (e.nameType == Semaphore)
      AMBIT_TRACE_LOG("    type: Semaphore\n");
    else
      AMBIT_TRACE_LOG("    type: Condvar, s_lVal %d\n",
                      static_cast<int>(e.object.condvar.s_lVal));
    for (const SPIDINFO& p : e.pids)
      if (p.dwPid != 0)
        AMBIT_TRACE_LOG("      pid % 5d, use count %d, wait count %d\n",
                        static_cast<int>(p.dwPid), static_cast<int>(p.dwCount),
                        static_cast<int>(p.dwWaitCount));
  }
}

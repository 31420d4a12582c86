// Taking back what dead processes held in the name map: their records,
// their share of the use counts and the mutexes they left locked. Runs at
// every create or open and every 20 s on each process's pid watcher.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>

#include "ambit/exception.h"
#include "ambit/portable.h"
#include "names/name_map.h"
#include "trace/trace_impl.h"

namespace {

constexpr unsigned long kCategoryErrors = 4;
constexpr unsigned long kCategoryRegistry = 8;
constexpr unsigned long kLevelOrdinary = 2;
constexpr unsigned long kLevelError = 64;
constexpr unsigned long kWatchPeriodMs = 20000;
constexpr char kLockFilePrefix[] = "/tmp/Ambit-ipclock-";

void UnlockMutex(CNameMap::SNAMEINFO& e) {
  const int r = pthread_mutex_unlock(&e.object.mutex);
  if (r != 0 && g_pambittracing)
    traceImpl(kCategoryErrors, kLevelError,
              "(Error) CNameMap::checkForObsoleteEntries, pthread_mutex_unlock (%d)\n", r);
}

}  // namespace

void CNameMap::checkForObsoleteEntries() {
  const uint32_t own = static_cast<uint32_t>(CPortable::GetCurrentProcessId());
  SNAMEMAP* map = m_pNameMap;
  std::map<unsigned long, int> alive;  // each pid is probed once per pass
  uint32_t lastUsed = 0;

  for (uint32_t i = 0; i <= map->dwHighestEntry && i < kMaxEntries; ++i) {
    SNAMEINFO& e = map->entries[i];
    if (e.szName[0] == '\0') continue;

    SPIDINFO* ender = nullptr;  // the slot whose death left no users
    for (SPIDINFO& p : e.pids) {
      if (p.dwPid == 0 || p.dwPid == own) continue;
      auto known = alive.find(p.dwPid);
      if (known == alive.end()) {
        const bool dead = ::kill(static_cast<pid_t>(p.dwPid), 0) != 0 && errno == ESRCH;
        known = alive.emplace(p.dwPid, dead ? 0 : 1).first;
      }
      if (known->second) continue;

      map->dwBusyPid = own;
      if (g_pambittracing)
        traceImpl(kCategoryRegistry, kLevelOrdinary,
                  "CNameMap::checkForObsoleteEntries, pid %d does not exist\n",
                  static_cast<int>(p.dwPid));
      e.dwUseCount -= p.dwCount;
      p.dwCount = 0;
      if (e.dwUseCount == 0) {
        ender = &p;  // keeps its dead pid for the holder test below
        break;
      }
      if (e.dwHolderPid == static_cast<int32_t>(p.dwPid)) {
        e.dwHolderPid = 0;
        if (e.nameType == Mutex) {
          AMBIT_TRACE_LOG(
              "CNameMap::checkForObsoleteEntries.2, obsolete pid %d, unlocking mutex for \"%s\"\n",
              static_cast<int>(p.dwPid), e.szName);
          UnlockMutex(e);
        }
      } else if (e.dwHolderPid == 0 && e.nameType == Mutex && p.dwWaitCount != 0) {
        // It died waiting for the mutex.
        AMBIT_TRACE_LOG(
            "CNameMap::checkForObsoleteEntries.3, obsolete pid %d, unlocking mutex for \"%s\"\n",
            static_cast<int>(p.dwPid), e.szName);
        UnlockMutex(e);
      }
      p.dwPid = 0;
    }

    if (ender == nullptr) {
      lastUsed = i;
      continue;
    }

    if (g_pambittracing)
      traceImpl(kCategoryErrors, kLevelOrdinary,
                "CNameMap::checkForObsoleteEntries, no more users of object \"%s\"\n", e.szName);
    const bool heldOrAwaited =
        e.dwHolderPid == static_cast<int32_t>(ender->dwPid) ||
        (e.dwHolderPid == 0 && ender->dwWaitCount != 0);
    switch (e.nameType) {
      case Mutex:
        if (heldOrAwaited) {
          e.dwHolderPid = 0;
          AMBIT_TRACE_LOG(
              "CNameMap::checkForObsoleteEntries.1, obsolete pid %d, unlocking mutex for \"%s\"\n",
              static_cast<int>(ender->dwPid), e.szName);
          UnlockMutex(e);
        }
        pthread_mutex_destroy(&e.object.mutex);
        break;
      case Semaphore:
        if (e.dwHolderPid == static_cast<int32_t>(ender->dwPid)) e.dwHolderPid = 0;
        break;
      default:
        if (e.dwHolderPid == static_cast<int32_t>(ender->dwPid)) e.dwHolderPid = 0;
        // The condition variable is left alone: see DestroyObject.
        pthread_mutex_destroy(&e.object.condvar.mutex);
        break;
    }
    ::unlink((std::string(kLockFilePrefix) + e.szName).c_str());
    e.szName[0] = '\0';
  }

  if (lastUsed != map->dwHighestEntry) {
    map->dwHighestEntry = lastUsed;
    map->dwBusyPid = own;
  }
}

void CNameMap::pidWatcherThread(void* nameMap) {
  static_cast<CNameMap*>(nameMap)->pidWatcherThreadFunc();
}

void CNameMap::pidWatcherThreadFunc() {
  CPortable::SetCurrentThreadName("NameMapPidW");
  m_watcherRunning = 1;
  if (g_pambittracing)
    traceImpl(kCategoryRegistry, kLevelOrdinary, "CNameMap::pidWatcherThread - starting\n");
  while (m_stopEvent.wait(kWatchPeriodMs, nullptr) == QK_WAIT_TIMEOUT) {
    // The destructor lets go of the table before it stops the watcher: a
    // pass must not start on a table that is gone.
    if (m_stop) break;
    lock();
    checkForObsoleteEntries();
    m_pNameMap->dwBusyPid = 0;
    unlock();
  }
  if (g_pambittracing)
    traceImpl(kCategoryRegistry, kLevelOrdinary, "CNameMap::pidWatcherThread - stopping\n");
  m_watcherRunning = 0;
}

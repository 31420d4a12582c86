// Taking back what dead processes held in the name map: their records,
// their share of the use counts and the mutexes they left locked. Runs at
// every create or open and every 20 s on each process's pid watcher.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>

#include "ambit/exception.h"
#include "ambit/portable.h"
#include "names/name_map.h"
#include "portable/self_ids.h"
#include "portable/test_point.h"
#include "sync/robust_mutex.h"
#include "trace/trace_impl.h"

namespace {

constexpr unsigned long kCategoryErrors = 4;
constexpr unsigned long kCategoryRegistry = 8;
constexpr unsigned long kLevelOrdinary = 2;
constexpr unsigned long kLevelError = 64;
constexpr unsigned long kWatchPeriodMs = 20000;
constexpr char kLockFilePrefix[] = "/tmp/Ambit-ipclock-";

// The holder word goes from the dead pid to 0 only if it still names the
// dead pid: a live process may have just written its own.
bool ClearHolderIf(CNameMap::SNAMEINFO& e, uint32_t deadPid) {
  int32_t expected = static_cast<int32_t>(deadPid);
  return __atomic_compare_exchange_n(&e.dwHolderPid, &expected, 0, false, __ATOMIC_SEQ_CST,
                                     __ATOMIC_SEQ_CST);
}

int32_t Holder(const CNameMap::SNAMEINFO& e) {
  return __atomic_load_n(&e.dwHolderPid, __ATOMIC_SEQ_CST);
}

uint32_t WaitCount(const CNameMap::SPIDINFO& p) {
  return __atomic_load_n(&p.dwWaitCount, __ATOMIC_SEQ_CST);
}

}  // namespace

void CNameMap::FreeMutexOfTheDead(SNAMEINFO* entry) {
  int error = 0;
  if (FreeUnlessHeldByLive(&entry->object.mutex, &error) == FreeResult::Failed && g_pambittracing)
    traceImpl(kCategoryErrors, kLevelError,
              "(Error) CNameMap::checkForObsoleteEntries, pthread_mutex_unlock (%d)\n", error);
}

void CNameMap::checkForObsoleteEntries() {
  const uint32_t own = static_cast<uint32_t>(OwnProcessId());
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
      AtTestPoint(TestPoint::RecoveryPass);
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
      // The mutex is let go only if no live thread holds it: a waiter may
      // already have been handed it by the kernel.
      if (ClearHolderIf(e, p.dwPid)) {
        if (e.nameType == Mutex) {
          AMBIT_TRACE_LOG(
              "CNameMap::checkForObsoleteEntries.2, obsolete pid %d, unlocking mutex for \"%s\"\n",
              static_cast<int>(p.dwPid), e.szName);
          FreeMutexOfTheDead(&e);
        }
      } else if (Holder(e) == 0 && e.nameType == Mutex && WaitCount(p) != 0) {
        // It died waiting for the mutex.
        AMBIT_TRACE_LOG(
            "CNameMap::checkForObsoleteEntries.3, obsolete pid %d, unlocking mutex for \"%s\"\n",
            static_cast<int>(p.dwPid), e.szName);
        FreeMutexOfTheDead(&e);
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
    // Nobody uses the object any more, so nothing can race with these
    // updates; the same compare-and-swap serves anyway.
    const bool held = ClearHolderIf(e, ender->dwPid);
    switch (e.nameType) {
      case Mutex:
        if (held || (Holder(e) == 0 && WaitCount(*ender) != 0)) {
          AMBIT_TRACE_LOG(
              "CNameMap::checkForObsoleteEntries.1, obsolete pid %d, unlocking mutex for \"%s\"\n",
              static_cast<int>(ender->dwPid), e.szName);
          FreeMutexOfTheDead(&e);
        }
        pthread_mutex_destroy(&e.object.mutex);
        break;
      case Semaphore:
        break;
      default:
        // The condition variable is left alone: see DestroyObject.
        pthread_mutex_destroy(&e.object.condvar.mutex);
        break;
    }
    // An object may carry the name of one of the registries' own lock
    // files; that file is not the object's and stays.
    if (std::strcmp(e.szName, "CShareMemMap") != 0 && std::strcmp(e.szName, "CNameMap") != 0)
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

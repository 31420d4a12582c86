#ifndef AMBIT_NAMES_NAME_MAP_H_
#define AMBIT_NAMES_NAME_MAP_H_

#include <pthread.h>
#include <semaphore.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "ambit/event.h"

class CInterprocessLock;

// The machine-wide table of named events, mutexes and semaphores. It lives
// in one named segment of the shared-memory registry; each entry holds the
// name, the type, the process-shared pthread objects themselves and which
// processes use them, so that processes open one another's objects by name
// and the survivors take back what a dead process held. One CNameMap per
// process (get_nameMap()), never destroyed by the library; it runs a pid
// watcher thread that cleans up every 20 s.
//
// Every change to the table's structure (entries, names, pid slots, use
// counts) is made under the map's interprocess lock with dwBusyPid set to
// the changing process. The two words the objects update on every wait and
// release, an entry's dwHolderPid and a slot's dwWaitCount, are changed with
// atomic operations instead: they only keep books for crash recovery and
// the inspector, while the kernel decides who owns a mutex. Recovery
// changes them only by compare-and-swap, so it never overwrites a live
// process's update.
class CNameMap {
 public:
  enum NAMETYPE : int32_t { NameTypeInvalid = 0, Condvar = 1, Mutex = 2, Semaphore = 3 };
  // Any value other than CreateOnly and OpenOnly acts as CreateOrOpen.
  enum CREATETYPE : int32_t { CreateOnly = 1, OpenOnly = 2, CreateOrOpen = 3 };

  // One using process of an entry.
  struct SPIDINFO {
    uint32_t dwPid;        // 0 = free slot
    uint32_t dwCount;      // opens by this process
    uint32_t dwWaitCount;  // waits of this process in progress on the object
  };

  // The object area of an event.
  struct SCONDVAR {
    pthread_cond_t cond;    // word 0: the wake sequence (a futex); word 1: sleepers
    pthread_mutex_t mutex;  // recursive, robust, process-shared
    uint32_t s_lVal;        // 0xF0000000 = not signalled
  };

  // One named object (a cross-process format: see the asserts below).
  struct SNAMEINFO {
    char szName[256];       // at most 255 characters; "" = free entry
    NAMETYPE nameType;
    uint32_t dwUseCount;    // opens by all processes
    uint32_t dwCreatorPid;
    int32_t dwHolderPid;    // mutex owner, event waiter, semaphore taker; 0 = none
    SPIDINFO pids[64];
    union {
      SCONDVAR condvar;
      pthread_mutex_t mutex;  // adaptive, robust, process-shared
      sem_t semaphore;        // process-shared
    } object;
  };

  // The table segment.
  struct SNAMEMAP {
    uint32_t reserved;
    uint32_t dwBusyPid;       // pid changing the table, else 0
    uint32_t dwMaxEntries;    // 512
    uint32_t dwHighestEntry;  // searches run from 0 to this index inclusive
    SNAMEINFO entries[512];
  };

  static constexpr char kSegmentName[] = "B1A1F31A-F8EB-4cbb-94F5-9328E259A28D";
  static constexpr unsigned long kSegmentSize = 574572;
  static constexpr uint32_t kMaxEntries = 512;
  static constexpr int kPidSlots = 64;
  static constexpr uint32_t kEventReset = 0xF0000000u;

  // Attaches (and when new, initialises) the table and starts the pid
  // watcher. Throws QKException 0xC1210E19 when the table cannot be had, or
  // errno when its lock file cannot be made.
  CNameMap();
  // Releases the table, then stops the watcher (in that order).
  ~CNameMap();
  CNameMap(const CNameMap&) = delete;
  CNameMap& operator=(const CNameMap&) = delete;

  // The entry of `name` (non-alphanumeric characters count as '-'), made
  // or opened by createType; null when it cannot be had. *pbCreated is 1
  // when a new entry was made; value is a semaphore's initial count.
  SNAMEINFO* createNamedObject(std::string name, CREATETYPE createType, NAMETYPE nameType,
                               int* pbCreated, unsigned long value);
  // Drops one open by the calling process; the last close frees the entry.
  void destroyNamedObject(SNAMEINFO* entry);

  // Takes back what dead processes held. The caller holds the lock.
  void checkForObsoleteEntries();
  // Lets go of the mutex of a Mutex entry that a dead process held or
  // waited for, unless a live thread holds it now (see FreeUnlessHeldByLive
  // in sync/robust_mutex.h). A failure is traced as an error line.
  static void FreeMutexOfTheDead(SNAMEINFO* entry);

  // Snapshot enumeration: begin takes the lock, end releases it.
  void enumEntriesBegin();
  bool enumEntry(unsigned long* index, std::string* name, NAMETYPE* type);
  void enumEntriesEnd();

  // The table, to the trace log (level bit 2). Takes no lock.
  void dump();

  // The map's interprocess lock, for the objects that keep their records in
  // the table.
  void lock();
  void unlock();

  SNAMEMAP* table() const { return m_pNameMap; }
  bool watcherRunning() const { return m_watcherRunning != 0; }

  static void pidWatcherThread(void* nameMap);
  void pidWatcherThreadFunc();

 private:
  CInterprocessLock* m_pLock;
  SNAMEMAP* m_pNameMap;
  volatile int m_stop;
  CPEvent m_stopEvent;
  volatile int m_watcherRunning;
};

static_assert(sizeof(CNameMap::SPIDINFO) == 12, "SPIDINFO is 12 bytes");
static_assert(sizeof(pthread_cond_t) == 48, "i386 pthread_cond_t");
static_assert(sizeof(pthread_mutex_t) == 24, "i386 pthread_mutex_t");
static_assert(sizeof(sem_t) == 16, "i386 sem_t");
static_assert(offsetof(CNameMap::SNAMEINFO, szName) == 0, "szName at 0");
static_assert(offsetof(CNameMap::SNAMEINFO, nameType) == 256, "nameType at 256");
static_assert(offsetof(CNameMap::SNAMEINFO, dwUseCount) == 260, "dwUseCount at 260");
static_assert(offsetof(CNameMap::SNAMEINFO, dwCreatorPid) == 264, "dwCreatorPid at 264");
static_assert(offsetof(CNameMap::SNAMEINFO, dwHolderPid) == 268, "dwHolderPid at 268");
static_assert(offsetof(CNameMap::SNAMEINFO, pids) == 272, "pids at 272");
static_assert(offsetof(CNameMap::SNAMEINFO, object) == 1040, "object at 1040");
static_assert(offsetof(CNameMap::SNAMEINFO, object.condvar.cond) == 1040, "cond at 1040");
static_assert(offsetof(CNameMap::SNAMEINFO, object.condvar.mutex) == 1088, "mutex at 1088");
static_assert(offsetof(CNameMap::SNAMEINFO, object.condvar.s_lVal) == 1112, "s_lVal at 1112");
static_assert(offsetof(CNameMap::SNAMEINFO, object.mutex) == 1040, "mutex at 1040");
static_assert(offsetof(CNameMap::SNAMEINFO, object.semaphore) == 1040, "sem at 1040");
static_assert(sizeof(CNameMap::SNAMEINFO) == 1116, "SNAMEINFO is 1116 bytes");
static_assert(offsetof(CNameMap::SNAMEMAP, dwBusyPid) == 4, "dwBusyPid at 4");
static_assert(offsetof(CNameMap::SNAMEMAP, dwMaxEntries) == 8, "dwMaxEntries at 8");
static_assert(offsetof(CNameMap::SNAMEMAP, dwHighestEntry) == 12, "dwHighestEntry at 12");
static_assert(offsetof(CNameMap::SNAMEMAP, entries) == 16, "entries at 16");
static_assert(sizeof(CNameMap::SNAMEMAP) + 3164 == CNameMap::kSegmentSize,
              "the table leaves 3164 bytes of its segment unused");

// The process's name map, created on first use under g_mutexGlobals. A
// constructor exception passes out and leaves g_mutexGlobals locked.
CNameMap* get_nameMap();

extern CNameMap* g_pnameMap;

#endif  // AMBIT_NAMES_NAME_MAP_H_

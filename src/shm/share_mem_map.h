#ifndef AMBIT_SHM_SHARE_MEM_MAP_H_
#define AMBIT_SHM_SHARE_MEM_MAP_H_

#include <pthread.h>

#include <map>
#include <string>

#include "shm/share_mem_layout.h"

class CInterprocessLock;

// What this process has attached of one named segment.
struct CMemMapAllocInfo {
  SMEMMAPENTRY* pEntry;       // the segment's registry entry
  void* pvmem;                // where this process attached it
  unsigned long dwUseCount;   // acquires not yet released in this process
};

// This process's handle on the machine-wide registry of named segments
// (one per process, from get_shareMemMap(), never destroyed by the
// library). A name is bound to one registry entry and so to one fixed key;
// processes attaching the same name share one segment; each process counts
// its own uses and the segment is removed when the last process lets go.
// Entries of dead processes are reclaimed lazily, whenever a process
// acquires a new segment or releases its last use of one.
//
// Every operation takes this object's mutex, then the interprocess lock;
// the registry is written only under both. Failures give null and trace
// lines; nothing is thrown out of acquire or release.
class CShareMemMap {
 public:
  // Attaches (creating and initialising when needed) the registry. Throws
  // QKException 0xC1210E10 when it cannot, or errno when the lock file
  // cannot be made. A registry whose creation time disagrees with the
  // creation-time file ends the process after 5 s (deliberately).
  CShareMemMap();
  ~CShareMemMap();
  CShareMemMap(const CShareMemMap&) = delete;
  CShareMemMap& operator=(const CShareMemMap&) = delete;

  // The address of the named segment, or null. dwSize 0 accepts any size.
  // *bCreated is 1 when the segment or its registry entry is new.
  void* acquireSharedMemory(std::string name, unsigned long dwSize, int* bCreated);
  void releaseSharedMemory(std::string name);

  // Low-level attach of key dwKey (callers hold the interprocess lock).
  void* acquireSharedMemoryHelper(const std::string& name, unsigned long dwKey,
                                  unsigned long dwSize, int* nshmid, int* bCreated,
                                  int* tooSmall, unsigned long* actualSize);
  int releaseSharedMemoryHelper(void* pvmem);

  // The crash-cleanup pass over the registry (caller holds the lock).
  void releaseObsoleteEntries();
  int releaseObsoleteSegment(unsigned long key);
  bool isPidObsolete(unsigned long pid);

  // The registry, to the trace log (level bit 2).
  void dump();

  // Runs in the child of fork() (registered with pthread_atfork): the
  // process's mutex is made anew, unlocked, as another thread of the parent
  // may have held it at the fork and that thread does not exist here.
  static void renewMutexInChild();

  SMEMMAPINFO* info() const { return m_pmemMapInfo; }
  CInterprocessLock* interprocessLock() const { return m_pLock; }

 private:
  void initialize();
  void checkCreateTime();
  void initMutex();

  pthread_mutex_t m_mutex;
  int m_nshmid;  // the registry segment
  SMEMMAPINFO* m_pmemMapInfo;
  std::map<std::string, CMemMapAllocInfo*> m_mapAllocInfo;
  CInterprocessLock* m_pLock;
};

// The process's registry handle, created on first use under g_mutexGlobals.
// A constructor exception passes out and leaves g_mutexGlobals locked.
CShareMemMap* get_shareMemMap();

extern CShareMemMap* g_pshareMemMap;

#endif  // AMBIT_SHM_SHARE_MEM_MAP_H_

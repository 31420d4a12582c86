#ifndef AMBIT_SHAREDMEMORY_H_
#define AMBIT_SHAREDMEMORY_H_

#include <string>

#include "ambit/export.h"

class CPSharedMemoryImpl;

// A block of memory shared between processes under a name, for the life of
// the object. The first object of a name on the machine (or the first after
// every user let go) is the creator and gets zero-filled memory; the others
// see the same bytes. Names match case-insensitively between processes.
// Several objects of one name in one process share one address. A size of
// 0 opens an existing block of any size. The constructor throws
// QKException 0xC1210E1C when the block cannot be had (size mismatch,
// registry full, 64 processes attached, system error); the reason is in the
// trace log.
class AMBIT_API CPSharedMemory {
 public:
  CPSharedMemory(const std::string& name, unsigned long size);
  ~CPSharedMemory();
  CPSharedMemory(const CPSharedMemory&) = delete;
  CPSharedMemory& operator=(const CPSharedMemory&) = delete;

  void* getAddress();
  // 1 when this object's acquire made the block new.
  int isCreator();

 private:
  CPSharedMemoryImpl* m_pImpl;  // owned
};

#endif  // AMBIT_SHAREDMEMORY_H_

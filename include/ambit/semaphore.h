#ifndef AMBIT_SEMAPHORE_H_
#define AMBIT_SEMAPHORE_H_

#include <string>

#include "ambit/export.h"

class CPSemaphoreImpl;
class CTerminateWait;

// A counting semaphore, private to the process (empty name) or shared by
// every process that opens the name. There is no upper limit: maximumCount
// is accepted and ignored and release() always adds a unit. Construction
// throws QKException 0xC1210E13 (create) or 0xC1210E14 (open only) when the
// named semaphore cannot be had.
class AMBIT_API CPSemaphore {
 public:
  // create non-zero: create the named semaphore with initialCount units, or
  // open it (keeping its count) if it exists; zero: open only.
  CPSemaphore(int create, unsigned long initialCount, unsigned long maximumCount,
              const std::string& name, int allowTrace);
  ~CPSemaphore();
  CPSemaphore(const CPSemaphore&) = delete;
  CPSemaphore& operator=(const CPSemaphore&) = delete;

  // 0 when a unit was taken, 0xE0000000 on time-out, 0xC0000000 when
  // terminate asked to stop, 0xD0000000 on failure (a signal included).
  unsigned long wait(unsigned long timeoutMs, CTerminateWait* terminate);
  void release();
  // 1 when this object created the named semaphore; 0 otherwise.
  int isCreator();

 private:
  CPSemaphoreImpl* m_pImpl;  // owned
  int m_allowTrace;
};

#endif  // AMBIT_SEMAPHORE_H_

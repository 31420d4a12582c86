#ifndef AMBIT_MUTEX_H_
#define AMBIT_MUTEX_H_

#include <string>

#include "ambit/export.h"

class CPMutexImpl;
class CTerminateWait;

// A Windows-style mutex: private to the process (empty name; then always
// recursive) or named and shared by every process that opens the name. A
// named mutex is re-entrant only when opened recursive; otherwise a second
// wait by its owning thread waits for its own release. Ownership of a named
// mutex is tracked by the kernel: when its owner dies (its process killed,
// say), a thread already waiting for it gets it at once, and the wait
// succeeds as usual (result 0); wasAbandoned() then tells that the state it
// guards may be half changed, as WAIT_ABANDONED does on Windows. The owning
// process is also recorded in the name map, for crash cleanup and the
// inspector. Construction throws QKException 0xC1210E13 (create) or
// 0xC1210E14 (open only) when the named mutex cannot be had.
class AMBIT_API CPMutex {
 public:
  // create non-zero: create the named mutex or open it if it exists; zero:
  // open only. initialOwner: acquire it before returning, if this call
  // created it.
  CPMutex(int create, int initialOwner, const std::string& name, int recursive,
          int allowTrace);
  ~CPMutex();
  CPMutex(const CPMutex&) = delete;
  CPMutex& operator=(const CPMutex&) = delete;

  // 0 when acquired, 0xE0000000 on time-out, 0xC0000000 when terminate
  // asked to stop, 0xD0000000 on failure. 0xFFFFFFFF waits without limit.
  unsigned long wait(unsigned long timeoutMs, CTerminateWait* terminate);
  // Releases one acquisition. A recursive named mutex released by a thread
  // that does not own it throws QKException 0xC1210E20; a non-recursive one
  // is left as it is. The result carries no meaning.
  unsigned long release();
  // 1 when the calling thread's last successful wait on this object took
  // the mutex over from an owner that died while holding it (Windows'
  // WAIT_ABANDONED); 0 otherwise, and always 0 for an unnamed mutex. What
  // the mutex guards may have been left half changed.
  int wasAbandoned();
  // 1 when this object created the named mutex.
  int isCreator();
  std::string getName();

 private:
  CPMutexImpl* m_pImpl;  // owned
  int m_allowTrace;
};

#endif  // AMBIT_MUTEX_H_

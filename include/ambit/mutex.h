#ifndef AMBIT_MUTEX_H_
#define AMBIT_MUTEX_H_

#include <string>

#include "ambit/export.h"

class CPMutexImpl;
class CTerminateWait;

// A Windows-style mutex: private to the process (empty name; then always
// recursive) or named and shared by every process that opens the name. A
// named mutex is re-entrant only when opened recursive; otherwise a second
// wait by its owning thread waits for its own release. The owning process
// is recorded in the name map, so that if it dies its lock is undone by the
// survivors' crash cleanup. Construction throws QKException 0xC1210E13
// (create) or 0xC1210E14 (open only) when the named mutex cannot be had.
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
  // that does not own it throws QKException 0xC1210E20. The result carries
  // no meaning.
  unsigned long release();
  // 1 when this object created the named mutex.
  int isCreator();
  std::string getName();

 private:
  CPMutexImpl* m_pImpl;  // owned
  int m_allowTrace;
};

#endif  // AMBIT_MUTEX_H_

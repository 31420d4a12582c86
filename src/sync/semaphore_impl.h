#ifndef AMBIT_SYNC_SEMAPHORE_IMPL_H_
#define AMBIT_SYNC_SEMAPHORE_IMPL_H_

#include <semaphore.h>

#include <string>

#include "names/name_map.h"

// The work behind CPSemaphore: a POSIX semaphore of its own, or the one in
// the name map entry of a named semaphore, whose holder word remembers the
// last process that took a unit and has not given one back.
class CPSemaphoreImpl {
 public:
  CPSemaphoreImpl(int create, unsigned long initialCount, unsigned long maximumCount,
                  const std::string& name, int allowTrace);
  ~CPSemaphoreImpl();
  CPSemaphoreImpl(const CPSemaphoreImpl&) = delete;
  CPSemaphoreImpl& operator=(const CPSemaphoreImpl&) = delete;

  unsigned long wait(unsigned long timeoutMs);
  void release();
  int isCreator() const { return m_isCreator; }
  const std::string& name() const { return m_name; }

 private:
  std::string m_name;
  int m_allowTrace;
  sem_t m_localSem;
  CNameMap::SNAMEINFO* m_pNameInfo;
  int* m_pPid;
  sem_t* m_pSem;
  int m_isCreator;
};

#endif  // AMBIT_SYNC_SEMAPHORE_IMPL_H_

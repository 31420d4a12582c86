#ifndef AMBIT_SHM_SHARED_MEMORY_IMPL_H_
#define AMBIT_SHM_SHARED_MEMORY_IMPL_H_

#include <string>

// Binds a name to this process's registry handle for its lifetime.
class CPSharedMemoryImpl {
 public:
  CPSharedMemoryImpl(const std::string& name, unsigned long size);
  ~CPSharedMemoryImpl();
  CPSharedMemoryImpl(const CPSharedMemoryImpl&) = delete;
  CPSharedMemoryImpl& operator=(const CPSharedMemoryImpl&) = delete;

  void* getAddress() const { return m_pvmem; }
  int isCreator() const { return m_bCreator; }

 private:
  std::string m_name;
  int m_bCreator;
  void* m_pvmem;
};

#endif  // AMBIT_SHM_SHARED_MEMORY_IMPL_H_

#include "ambit/sharedmemory.h"

#include "ambit/exception.h"
#include "ambit/portable.h"
#include "shm/share_mem_map.h"
#include "shm/shared_memory_impl.h"
#include "trace/trace_impl.h"

namespace {
constexpr unsigned long kCategoryLifeCycle = 16;
constexpr unsigned long kLevelOrdinary = 2;
}  // namespace

CPSharedMemoryImpl::CPSharedMemoryImpl(const std::string& name, unsigned long size)
    : m_name(name), m_bCreator(0), m_pvmem(nullptr) {
  if (g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelOrdinary,
              "CPSharedMemoryImpl::CPSharedMemoryImpl, name \"%s\", size %d\n", name.c_str(),
              static_cast<int>(size));
  m_pvmem = get_shareMemMap()->acquireSharedMemory(name, size, &m_bCreator);
  if (m_pvmem == nullptr) AMBIT_THROW(QK_E_SHARED_MEMORY);
}

CPSharedMemoryImpl::~CPSharedMemoryImpl() { get_shareMemMap()->releaseSharedMemory(m_name); }

CPSharedMemory::CPSharedMemory(const std::string& name, unsigned long size)
    : m_pImpl(nullptr) {
  m_pImpl = new CPSharedMemoryImpl(name, size);
}

CPSharedMemory::~CPSharedMemory() { delete m_pImpl; }

void* CPSharedMemory::getAddress() { return m_pImpl->getAddress(); }

int CPSharedMemory::isCreator() { return m_pImpl->isCreator(); }

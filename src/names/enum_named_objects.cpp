// Listing the named objects, and dumping both registries to the log.
#include "ambit/enumnamedobjects.h"

#include <vector>

#include "ambit/trace.h"
#include "names/name_map.h"
#include "shm/share_mem_map.h"

class CPEnumNamedObjectsImpl {
 public:
  struct CNameInfo {
    std::string name;
    CPEnumNamedObjects::NOTYPE type;
  };

  CPEnumNamedObjectsImpl(const std::string& prefix, CPEnumNamedObjects::NOTYPE type);
  ~CPEnumNamedObjectsImpl();
  CPEnumNamedObjectsImpl(const CPEnumNamedObjectsImpl&) = delete;
  CPEnumNamedObjectsImpl& operator=(const CPEnumNamedObjectsImpl&) = delete;

  bool enumNamedObject(unsigned long index, std::string* name, CPEnumNamedObjects::NOTYPE* type);

 private:
  std::vector<CNameInfo*> m_names;
};

CPEnumNamedObjectsImpl::CPEnumNamedObjectsImpl(const std::string& prefix,
                                               CPEnumNamedObjects::NOTYPE type) {
  CNameMap* names = get_nameMap();
  names->enumEntriesBegin();
  unsigned long index = 0;
  std::string name;
  CNameMap::NAMETYPE nameType;
  while (names->enumEntry(&index, &name, &nameType)) {
    CPEnumNamedObjects::NOTYPE kind = CPEnumNamedObjects::Any;
    if (nameType == CNameMap::Condvar || nameType == CNameMap::Mutex ||
        nameType == CNameMap::Semaphore)
      kind = static_cast<CPEnumNamedObjects::NOTYPE>(nameType);
    if (!prefix.empty() && name.compare(0, prefix.size(), prefix) != 0) continue;
    if (name.size() < prefix.size()) continue;
    if (type != CPEnumNamedObjects::Any && type != kind) continue;
    m_names.push_back(new CNameInfo{name, kind});
  }
  names->enumEntriesEnd();
}

CPEnumNamedObjectsImpl::~CPEnumNamedObjectsImpl() {
  for (CNameInfo* info : m_names) delete info;
}

bool CPEnumNamedObjectsImpl::enumNamedObject(unsigned long index, std::string* name,
                                             CPEnumNamedObjects::NOTYPE* type) {
  if (index >= m_names.size()) return false;
  *name = m_names[index]->name;
  *type = m_names[index]->type;
  return true;
}

CPEnumNamedObjects::CPEnumNamedObjects(const std::string& prefix, NOTYPE type)
    : m_pImpl(nullptr) {
  m_pImpl = new CPEnumNamedObjectsImpl(prefix, type);
}

CPEnumNamedObjects::~CPEnumNamedObjects() { delete m_pImpl; }

bool CPEnumNamedObjects::enumNamedObject(unsigned long index, std::string* name, NOTYPE* type) {
  return m_pImpl->enumNamedObject(index, name, type);
}

void AmbitDebug::dumpNamedObjectsInfo() {
  get_shareMemMap()->dump();
  get_nameMap()->dump();
}

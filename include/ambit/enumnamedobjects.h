#ifndef AMBIT_ENUMNAMEDOBJECTS_H_
#define AMBIT_ENUMNAMEDOBJECTS_H_

#include <string>

#include "ambit/export.h"

class CPEnumNamedObjectsImpl;

// A snapshot, taken at construction, of the named objects on this machine,
// in table order, optionally only those whose (stored) names begin with a
// prefix, exactly, and only of one kind. Stored names have every
// non-alphanumeric character replaced by '-'.
class AMBIT_API CPEnumNamedObjects {
 public:
  enum NOTYPE { Any = 0, Event = 1, Mutex = 2, Semaphore = 3 };

  CPEnumNamedObjects(const std::string& prefix, NOTYPE type);
  ~CPEnumNamedObjects();
  CPEnumNamedObjects(const CPEnumNamedObjects&) = delete;
  CPEnumNamedObjects& operator=(const CPEnumNamedObjects&) = delete;

  // The index-th object of the snapshot; false when there are not that many.
  bool enumNamedObject(unsigned long index, std::string* name, NOTYPE* type);

 private:
  CPEnumNamedObjectsImpl* m_pImpl;  // owned
};

#endif  // AMBIT_ENUMNAMEDOBJECTS_H_

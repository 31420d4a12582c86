#ifndef AMBIT_EXCEPTION_H_
#define AMBIT_EXCEPTION_H_

#include "ambit/export.h"

// The library's one exception type. Constructors and initialisers that cannot
// produce a usable object throw it by value; callers catch it by type and
// read the two public fields. Ordinary operations never throw: they return
// the result codes below.
class AMBIT_API QKException {
 public:
  // `where` becomes "file.line", cut to 269 characters; empty when file is
  // null. The file name is only read.
  QKException(long code, char* file, long line);
  // The same for a constant file name such as a literal or __FILE__. It is a
  // template so that a null file name picks the form above instead of being
  // ambiguous between the two.
  template <typename Unused = void>
  QKException(long code, const char* file, long line)
      : QKException(code, const_cast<char*>(file), line) {}
  virtual ~QKException();

  long code;        // one of the QK_E_ codes below
  char where[272];  // NUL-terminated source position of the throw
};

// Every error code of the library, in one place. All are of the form
// 0xC1210Exx. `QKException::code` is signed, so compare against these.
constexpr long QK_E_OUT_OF_MEMORY = static_cast<long>(0xC1210E10UL);
constexpr long QK_E_CREATE_NAMED_OBJECT = static_cast<long>(0xC1210E13UL);
constexpr long QK_E_OPEN_NAMED_OBJECT = static_cast<long>(0xC1210E14UL);
constexpr long QK_E_THREAD_START = static_cast<long>(0xC1210E15UL);
constexpr long QK_E_CREATE_EVENT = static_cast<long>(0xC1210E16UL);
constexpr long QK_E_OPEN_EVENT = static_cast<long>(0xC1210E17UL);
constexpr long QK_E_NAME_MAP = static_cast<long>(0xC1210E19UL);
constexpr long QK_E_SHARED_MEMORY = static_cast<long>(0xC1210E1CUL);
constexpr long QK_E_HOST_NOT_FOUND = static_cast<long>(0xC1210E1EUL);
constexpr long QK_E_MUTEX_NOT_OWNER = static_cast<long>(0xC1210E20UL);
constexpr long QK_E_QOS_NO_IMPL = static_cast<long>(0xC1210E21UL);
constexpr long QK_E_QOS_SETSOCKOPT = static_cast<long>(0xC1210E29UL);

// Result words of the waits (unsigned 32-bit).
constexpr unsigned long QK_WAIT_SIGNALLED = 0x00000000UL;
constexpr unsigned long QK_WAIT_MULTI_UNKNOWN = 0xA0000000UL;
constexpr unsigned long QK_WAIT_ABANDONED = 0xC0000000UL;
constexpr unsigned long QK_WAIT_FAILED = 0xD0000000UL;
constexpr unsigned long QK_WAIT_TIMEOUT = 0xE0000000UL;
// The value word of an event in its reset state.
constexpr unsigned long QK_EVENT_RESET = 0xF0000000UL;
// A time-out of this many milliseconds waits without limit.
constexpr unsigned long QK_INFINITE = 0xFFFFFFFFUL;

#endif  // AMBIT_EXCEPTION_H_

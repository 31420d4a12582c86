#include "ipcs/explain.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ambit/exception.h"

namespace {

// The library's own constants, by name, so the table cannot drift from them.
#define CODE(name) static_cast<uint32_t>(name), #name

struct Meaning {
  uint32_t code;
  const char* name;
  const char* text;
};

// QKException::code values: thrown by constructors (or returned where said).
const Meaning kExceptionCodes[] = {
    {CODE(QK_E_OUT_OF_MEMORY),
     "QKException: memory allocation failure; an implementation object or one of the "
     "registries could not be allocated (also returned by CPEventEx::Initialize and "
     "CPThreadEx::Initialize)"},
    {CODE(QK_E_CREATE_NAMED_OBJECT),
     "QKException from CPMutex or CPSemaphore: the named object could not be created (the "
     "name exists with another type, 512 named objects exist, 64 processes use it already, "
     "or a recursive mutex's record could not be made)"},
    {CODE(QK_E_OPEN_NAMED_OBJECT),
     "QKException from CPMutex or CPSemaphore opened with create 0: no mutex or semaphore "
     "of that name exists (or it has another type, or 64 processes use it already)"},
    {CODE(QK_E_THREAD_START),
     "QKException from CPThread (returned by CPThreadEx::Initialize): the thread could not "
     "be started"},
    {CODE(QK_E_CREATE_EVENT),
     "QKException from CPEvent: the event could not be created (name of another type, 512 "
     "named objects, or 64 processes using it)"},
    {CODE(QK_E_OPEN_EVENT),
     "QKException from CPEvent opened with create 0: no event of that name exists"},
    {CODE(QK_E_NAME_MAP),
     "QKException: the table of named objects could not be set up (its shared segment "
     "could not be had; see ambit-ipcs --check)"},
    {CODE(QK_E_SHARED_MEMORY),
     "QKException from CPSharedMemory: the segment could not be acquired (size differs from "
     "the existing one, 1024 segments in use, 64 processes attached, or a system error; the "
     "trace log says which)"},
    {CODE(QK_E_HOST_NOT_FOUND),
     "returned by CPortable::getHostByName: the host name could not be resolved"},
    {CODE(QK_E_MUTEX_NOT_OWNER),
     "QKException from CPMutex::release of a recursive mutex: the calling thread does not "
     "hold it, or it is not locked"},
    {CODE(QK_E_QOS_NO_IMPL),
     "returned by CPQoS: the object has no implementation (its construction failed)"},
    {CODE(QK_E_QOS_SETSOCKOPT),
     "returned by CPQoS::addSocket or setQoS: setsockopt(IP_TOS) failed"},
};

// Result words of the waits, and the event's value word.
const Meaning kWaitResults[] = {
    {CODE(QK_WAIT_SIGNALLED),
     "wait result: acquired or signalled (an event's wait returns its wake bits instead, a "
     "multi-event wait the index)"},
    {CODE(QK_WAIT_MULTI_UNKNOWN),
     "wait result of CPMultiEvent: woken, but the index of the event is not known"},
    {CODE(QK_WAIT_ABANDONED),
     "wait result: abandoned because the CTerminateWait hook asked to stop"},
    {CODE(QK_WAIT_FAILED),
     "wait result: the underlying wait failed (the trace log has the error number)"},
    {CODE(QK_WAIT_TIMEOUT), "wait result: time-out; the object was not signalled in time"},
    {CODE(QK_EVENT_RESET),
     "value word of a named event in its reset state (ambit-ipcs shows it as the event's value)"},
    {CODE(QK_INFINITE), "time-out argument: wait without limit"},
};

#undef CODE

bool Parse(const std::string& text, uint32_t* out) {
  if (text.empty()) return false;
  const char* s = text.c_str();
  char* end = nullptr;
  errno = 0;
  if (s[0] == '-') {
    const long long v = std::strtoll(s, &end, 0);
    if (errno != 0 || *end != '\0' || v < INT32_MIN) return false;
    *out = static_cast<uint32_t>(static_cast<int32_t>(v));
    return true;
  }
  const unsigned long long v = std::strtoull(s, &end, 0);
  if (errno != 0 || *end != '\0' || v > 0xFFFFFFFFull) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

std::string Hex(uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08X", v);
  return buf;
}

}  // namespace

bool ExplainCode(const std::string& text, std::string* meaning, bool* known) {
  uint32_t code = 0;
  *known = false;
  if (!Parse(text, &code)) {
    *meaning = "\"" + text + "\" is not a number (give it as 0x... or in decimal)";
    return false;
  }
  for (const Meaning& m : kExceptionCodes)
    if (m.code == code) {
      *known = true;
      *meaning = Hex(code) + " " + m.name + ": " + m.text;
      return true;
    }
  for (const Meaning& m : kWaitResults)
    if (m.code == code) {
      *known = true;
      *meaning = Hex(code) + " " + m.name + ": " + m.text;
      return true;
    }
  // A lock file that cannot be created is thrown with errno as the code.
  if (code > 0 && code < 4096) {
    *known = true;
    *meaning = Hex(code) + ": as a QKException code, the errno value " + std::to_string(code) +
               " (" + std::strerror(static_cast<int>(code)) +
               ") of a lock file under /tmp that could not be created; as a wait result, an "
               "event's wake bits";
    return true;
  }
  *meaning = Hex(code) + ": not a code of ambit";
  return true;
}

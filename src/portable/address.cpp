#include <arpa/inet.h>
#include <netdb.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "ambit/exception.h"
#include "ambit/portable.h"
#include "trace/trace_impl.h"

namespace {
constexpr unsigned long kCategoryLifeCycle = 16;
constexpr unsigned long kLevelError = 64;
constexpr unsigned long kErrnoResultBase = 0x80100000UL;
}  // namespace

unsigned long CPortable::stringToIPAddress(const std::string& text) {
  unsigned long a = 0, b = 0, c = 0, d = 0;
  std::sscanf(text.c_str(), "%lu.%lu.%lu.%lu", &a, &b, &c, &d);
  return a | b << 8 | c << 16 | d << 24;
}

int CPortable::formatIPAddress(unsigned long address, char* dst, int size) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
  const int n = std::snprintf(dst, static_cast<size_t>(size - 1), "%lu.%lu.%lu.%lu",
                              address & 0xFF, (address >> 8) & 0xFF,
                              (address >> 16) & 0xFF, (address >> 24) & 0xFF);
#pragma GCC diagnostic pop
  dst[size - 1] = '\0';
  return n;
}

std::string CPortable::IPAddressToString(unsigned long address) {
  char text[32];
  formatIPAddress(address, text, sizeof text);
  return text;
}

unsigned long CPortable::getHostByName(const std::string& name,
                                       std::string* address) {
  *address = "";
  if (name.empty()) return static_cast<unsigned long>(QK_E_HOST_NOT_FOUND);

  // 255.255.255.255 is inet_addr's error value: it is looked up as a name.
  const in_addr_t dotted = ::inet_addr(name.c_str());
  if (dotted != INADDR_NONE) {
    *address = IPAddressToString(dotted);
    return 0;
  }

  // The reentrant look-up: callers resolve from many threads at once.
  hostent entry;
  hostent* found = nullptr;
  int lookupError = 0;
  std::vector<char> work(1024);
  int r;
  while ((r = ::gethostbyname_r(name.c_str(), &entry, work.data(), work.size(),
                                &found, &lookupError)) == ERANGE)
    work.resize(work.size() * 2);
  if (r == 0 && found != nullptr && found->h_addr_list[0] != nullptr) {
    char text[64];
    if (::inet_ntop(AF_INET, found->h_addr_list[0], text, sizeof text) != nullptr) {
      *address = text;
      return 0;
    }
  }
  const unsigned long result =
      errno != 0 ? kErrnoResultBase + (static_cast<unsigned long>(errno) & 0xFFFF) : 0;
  if (g_pambittracing)
    traceImpl(kCategoryLifeCycle, kLevelError,
              "(Error) CPortable::getHostByName failed for %s, hr 0x%08X\n",
              name.c_str(), static_cast<unsigned>(result));
  return result;
}

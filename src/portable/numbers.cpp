#include <cstdio>
#include <string>

#include "ambit/portable.h"

namespace {
const char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
}  // namespace

char* CPortable::itoa(int value, char* buffer, int radix) {
  if (radix < 2 || radix > 36) radix = 10;
  char* p = buffer;
  unsigned magnitude = static_cast<unsigned>(value);
  if (radix == 10 && value < 0) {
    *p++ = '-';
    magnitude = 0u - magnitude;
  }
  char reversed[33];
  int n = 0;
  do {
    reversed[n++] = kDigits[magnitude % static_cast<unsigned>(radix)];
    magnitude /= static_cast<unsigned>(radix);
  } while (magnitude != 0);
  while (n > 0) *p++ = reversed[--n];
  *p = '\0';
  return buffer;
}

char* CPortable::ltoa(long value, char* buffer, int radix) {
  return itoa(static_cast<int>(value), buffer, radix);
}

unsigned long long CPortable::stoull(const std::string& text) {
  long long value = 0;
  if (std::sscanf(text.c_str(), "%lld", &value) != 1) return 0;
  return static_cast<unsigned long long>(value);
}

std::string CPortable::ulltos(const unsigned long long& value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%lld", static_cast<long long>(value));
  return buffer;
}

unsigned CPortable::_rotl(unsigned value, int shift) {
  const unsigned s = static_cast<unsigned>(shift) & 31u;
  return s == 0 ? value : (value << s) | (value >> (32u - s));
}

unsigned long CPortable::_lrotl(unsigned long value, int shift) {
  return _rotl(static_cast<unsigned>(value), shift);
}

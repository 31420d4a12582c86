#include <strings.h>

#include <cctype>
#include <cstring>
#include <cwctype>
#include <string>

#include "ambit/portable.h"

namespace {

bool IsLeadOrSingle(unsigned char c) { return (c & 0xC0) == 0xC0; }

}  // namespace

char* CPortable::lstrcpyn(char* dst, const char* src, int length) {
  std::strncpy(dst, src, static_cast<size_t>(length));
  dst[length - 1] = '\0';
  return dst;
}

int CPortable::stricmp(const char* a, const char* b) { return ::strcasecmp(a, b); }

int CPortable::strnicmp(const char* a, const char* b, size_t count) {
  return ::strncasecmp(a, b, count);
}

char* CPortable::strupr(char* text) {
  for (char* p = text; *p != '\0'; ++p)
    *p = static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
  return text;
}

char* CPortable::strlwr(char* text) {
  for (char* p = text; *p != '\0'; ++p)
    *p = static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
  return text;
}

wchar_t* CPortable::wcsupr(wchar_t* text) {
  for (wchar_t* p = text; *p != L'\0'; ++p)
    *p = static_cast<wchar_t>(std::towupper(static_cast<wint_t>(*p)));
  return text;
}

wchar_t* CPortable::wcslwr(wchar_t* text) {
  for (wchar_t* p = text; *p != L'\0'; ++p)
    *p = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(*p)));
  return text;
}

char* CPortable::strtok_r(char* text, const char* delimiters, char** state) {
  return ::strtok_r(text, delimiters, state);
}

void CPortable::truncUTF8(const std::string& src, char* dst, unsigned size) {
  if (size == 0) return;
  dst[0] = '\0';
  if (src.empty()) return;
  if (size > src.size() + 1) {
    std::memcpy(dst, src.c_str(), src.size() + 1);
    return;
  }
  // The first byte that does not fit; src[src.size()] is the terminator.
  const size_t first = size - 1;
  const unsigned char c = static_cast<unsigned char>(src.c_str()[first]);
  size_t cut;
  if (c < 0x80) {
    cut = first;
  } else if (IsLeadOrSingle(c)) {
    cut = first;
  } else {
    // A continuation byte: cut before the lead byte of its character. Any
    // byte without both top bits counts as a continuation here, so in
    // malformed text the walk may pass ASCII bytes too.
    size_t i = first;
    while (i > 0 && !IsLeadOrSingle(static_cast<unsigned char>(src[i - 1]))) --i;
    cut = i > 0 ? i - 1 : 0;
  }
  std::memcpy(dst, src.data(), cut);
  dst[cut] = '\0';
}

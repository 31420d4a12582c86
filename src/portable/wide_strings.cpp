// Conversions between wide (UTF-32) and multi-byte (UTF-8) strings, on top
// of the strict UTF converters.
#include <cstdint>
#include <cstring>
#include <new>

#include "ambit/convertutf.h"
#include "ambit/portable.h"

namespace {

constexpr unsigned kError = 0xFFFFFFFFu;
// How far past the caller's buffer the converters may be told to write or
// read: callers size their buffers first.
constexpr unsigned kSlack = 1000000;

const UTF32* Utf32(const wchar_t* p) { return reinterpret_cast<const UTF32*>(p); }

// p + bytes, held at the top of the address space: a stack buffer near its
// top must not wrap the end round to below its start.
template <typename T>
T* ClampedEnd(T* p, uintptr_t bytes) {
  const uintptr_t start = reinterpret_cast<uintptr_t>(p);
  const uintptr_t room = (UINTPTR_MAX - start) / sizeof(T) * sizeof(T);
  return reinterpret_cast<T*>(start + (bytes < room ? bytes : room));
}

}  // namespace

static_assert(sizeof(wchar_t) == sizeof(UTF32), "wchar_t holds UTF-32");

unsigned CPortable::wcstombs(char* dst, const wchar_t* src, unsigned count) {
  const UTF32* from = Utf32(src);
  if (dst == nullptr) {
    unsigned bytes = 0;
    const ConversionResult r =
        SizeOfConvertUTF32toUTF8(&from, from + count, strictConversion, &bytes);
    return r == conversionOK ? bytes : kError;
  }
  UTF8* to = reinterpret_cast<UTF8*>(dst);
  UTF8* const end = ClampedEnd(to, uintptr_t{count} + 1 + kSlack);
  const ConversionResult r = ConvertUTF32toUTF8(&from, from + count, &to, end, strictConversion);
  if (r != conversionOK) return kError;
  return static_cast<unsigned>(to - reinterpret_cast<UTF8*>(dst));
}

char* CPortable::wcstombs(const wchar_t* src, unsigned count) {
  if (src == nullptr || count == 0) return nullptr;
  const unsigned bytes = wcstombs(nullptr, src, count);
  if (bytes == kError) return nullptr;
  char* out = new (std::nothrow) char[bytes + 1];
  if (out == nullptr) return nullptr;
  std::memset(out, 0, bytes + 1);
  if (wcstombs(out, src, count) != bytes) {
    delete[] out;
    return nullptr;
  }
  return out;
}

unsigned CPortable::mbstowcs(wchar_t* dst, const char* src, unsigned count) {
  const UTF8* from = reinterpret_cast<const UTF8*>(src);
  if (dst == nullptr) {
    unsigned units = 0;
    const ConversionResult r =
        SizeOfConvertUTF8toUTF32(&from, from + count, strictConversion, &units);
    return r == conversionOK ? units : kError;
  }
  UTF32* to = reinterpret_cast<UTF32*>(dst);
  // The source is read up to a million bytes; the converter stops at a zero
  // byte anyway, so the end is put there and nothing past it is touched.
  const UTF8* const end = from + ::strnlen(src, kSlack);
  // Stopping because all count units are written is success.
  const ConversionResult r = ConvertUTF8toUTF32(&from, end, &to, to + count, strictConversion);
  if (r != conversionOK && r != targetExhausted) return kError;
  return static_cast<unsigned>(to - reinterpret_cast<UTF32*>(dst));
}

wchar_t* CPortable::mbstowcs(const char* src, unsigned count) {
  if (src == nullptr || count == 0) return nullptr;
  const unsigned units = mbstowcs(nullptr, src, count);
  if (units == kError) return nullptr;
  wchar_t* out = new (std::nothrow) wchar_t[units + 1];
  if (out == nullptr) return nullptr;
  std::memset(out, 0, (units + 1) * sizeof(wchar_t));
  if (mbstowcs(out, src, units) != units) {
    delete[] out;
    return nullptr;
  }
  return out;
}

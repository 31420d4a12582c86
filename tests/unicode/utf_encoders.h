#ifndef AMBIT_TESTS_UNICODE_UTF_ENCODERS_H_
#define AMBIT_TESTS_UNICODE_UTF_ENCODERS_H_

// Encoders written from the bit patterns of the Unicode standard, apart
// from the library's own code, for the tests and the fuzz targets to build
// their inputs and expected outputs with. No test framework here: the fuzz
// targets include it too.

#include <vector>

#include "ambit/convertutf.h"

namespace utf_test {

inline void EncodeUtf8(UTF32 c, std::vector<UTF8>* out) {
  if (c < 0x80) {
    out->push_back(UTF8(c));
  } else if (c < 0x800) {
    out->push_back(UTF8(0xC0 | (c >> 6)));
    out->push_back(UTF8(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out->push_back(UTF8(0xE0 | (c >> 12)));
    out->push_back(UTF8(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(UTF8(0x80 | (c & 0x3F)));
  } else {
    out->push_back(UTF8(0xF0 | (c >> 18)));
    out->push_back(UTF8(0x80 | ((c >> 12) & 0x3F)));
    out->push_back(UTF8(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(UTF8(0x80 | (c & 0x3F)));
  }
}

inline void EncodeUtf16(UTF32 c, std::vector<UTF16>* out) {
  if (c < 0x10000) {
    out->push_back(UTF16(c));
  } else {
    out->push_back(UTF16(0xD800 + ((c - 0x10000) >> 10)));
    out->push_back(UTF16(0xDC00 + ((c - 0x10000) & 0x3FF)));
  }
}

}  // namespace utf_test

#endif  // AMBIT_TESTS_UNICODE_UTF_ENCODERS_H_

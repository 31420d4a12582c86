#ifndef AMBIT_UNICODE_UTF_SSE2_H_
#define AMBIT_UNICODE_UTF_SSE2_H_

// SSE2 kernels for the UTF engines. Call them only when UseVectorPaths()
// (utf_vector_switch.h) is true: they are compiled for SSE2, which the
// i386 baseline does not have.
//
// Each kernel converts whole blocks (8 to 18 source units) from the front of
// its source while every block is well-formed text of the kinds it handles,
// and stops at the first block that is not, or that the source or the target
// cannot hold whole. What it leaves is for the scalar engine, which then
// finds exactly the results the kernel would have skipped. A kernel never
// takes a zero unit where its direction stops at zero, never reads at or
// past s + n, and never changes a target unit at or past the units it
// reports written. It returns the source units it consumed.
//
// Handled: well-formed UTF-8, UTF-16 (proper surrogate pairs) and UTF-32.
// Ill-formed input (unpaired surrogates, values that are not scalar,
// bytes or sequences that are not legal), the zero that stops a conversion
// and the last units before an end are left to the scalar code. Private to
// the library.

#include <cstddef>

#include "ambit/convertutf.h"

namespace ambit_utf {

// UTF-8 to UTF-16 / UTF-32 into t, which has room for `room` units; the
// units written go to *written. Stops before a zero byte.
size_t Sse2Utf8ToUtf16(const UTF8* s, size_t n, UTF16* t, size_t room, size_t* written);
size_t Sse2Utf8ToUtf32(const UTF8* s, size_t n, UTF32* t, size_t room, size_t* written);
// Counts the units the two above would write.
size_t Sse2Utf8CountUtf16(const UTF8* s, size_t n, size_t* units);
size_t Sse2Utf8CountUtf32(const UTF8* s, size_t n, size_t* units);

// UTF-16 / UTF-32 to UTF-8, or counting the bytes. Stop before a zero unit.
size_t Sse2Utf16ToUtf8(const UTF16* s, size_t n, UTF8* t, size_t room, size_t* written);
size_t Sse2Utf16CountUtf8(const UTF16* s, size_t n, size_t* bytes);
size_t Sse2Utf32ToUtf8(const UTF32* s, size_t n, UTF8* t, size_t room, size_t* written);
size_t Sse2Utf32CountUtf8(const UTF32* s, size_t n, size_t* bytes);

// UTF-16 to UTF-32 and back. Zero is converted like any unit.
size_t Sse2Utf16ToUtf32(const UTF16* s, size_t n, UTF32* t, size_t room, size_t* written);
size_t Sse2Utf32ToUtf16(const UTF32* s, size_t n, UTF16* t, size_t room, size_t* written);

}  // namespace ambit_utf

#endif  // AMBIT_UNICODE_UTF_SSE2_H_

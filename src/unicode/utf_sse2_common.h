#ifndef AMBIT_UNICODE_UTF_SSE2_COMMON_H_
#define AMBIT_UNICODE_UTF_SSE2_COMMON_H_

// What the SSE2 kernel files share, and only they may include: the target
// attribute that compiles a function for SSE2, and unaligned loads and
// stores. The functions are static, so each kernel file has copies of its
// own and none can be merged with code built for the i386 baseline.

#include <emmintrin.h>

#define AMBIT_SSE2 __attribute__((target("sse2")))

namespace ambit_utf {
namespace sse2 {

AMBIT_SSE2 static inline __m128i Load(const void* p) {
  return _mm_loadu_si128(static_cast<const __m128i*>(p));
}

AMBIT_SSE2 static inline void Store(void* p, __m128i v) {
  _mm_storeu_si128(static_cast<__m128i*>(p), v);
}

}  // namespace sse2
}  // namespace ambit_utf

#endif  // AMBIT_UNICODE_UTF_SSE2_COMMON_H_

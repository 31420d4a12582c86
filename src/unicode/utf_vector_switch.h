#ifndef AMBIT_UNICODE_UTF_VECTOR_SWITCH_H_
#define AMBIT_UNICODE_UTF_VECTOR_SWITCH_H_

// Whether the UTF engines use their SSE2 kernels (utf_sse2.h).
//
// The library is built for the i386 baseline, which has no SSE2, so the
// kernels are compiled for SSE2 on their own and chosen at run time: the
// first query asks cpuid once and keeps the answer. The scalar engines stay
// the fallback and the reference; tests and fuzz targets switch the kernels
// off to compare the two. Private to the library.

namespace ambit_utf {

// True when the processor has SSE2 and the kernels have not been switched
// off. Cheap after the first call: one relaxed atomic load.
bool UseVectorPaths();

// Switches the kernels off (false), or back on where the processor has
// SSE2 (true). Returns whether they were in use before. Meant for tests and
// fuzz targets; conversions running in other threads at the same time see
// either setting, and both give the same results.
bool SetVectorPaths(bool on);

}  // namespace ambit_utf

#endif  // AMBIT_UNICODE_UTF_VECTOR_SWITCH_H_

// The run-time choice between the SSE2 kernels and the scalar engines.
#include "unicode/utf_vector_switch.h"

#include <cpuid.h>

#include <atomic>

namespace ambit_utf {
namespace {

// -1 until the first query; then 1 when the kernels run, 0 when not.
std::atomic<int> g_nVectorPaths{-1};

bool CpuHasSse2() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return false;
  return (edx & bit_SSE2) != 0;
}

}  // namespace

bool UseVectorPaths() {
  int state = g_nVectorPaths.load(std::memory_order_relaxed);
  if (state < 0) {
    // Racing first callers all compute the same answer; the first store
    // wins and a later switch-off is not undone.
    int unknown = -1;
    g_nVectorPaths.compare_exchange_strong(unknown, CpuHasSse2() ? 1 : 0,
                                           std::memory_order_relaxed);
    state = g_nVectorPaths.load(std::memory_order_relaxed);
  }
  return state != 0;
}

bool SetVectorPaths(bool on) {
  const bool was = UseVectorPaths();
  g_nVectorPaths.store(on && CpuHasSse2() ? 1 : 0, std::memory_order_relaxed);
  return was;
}

}  // namespace ambit_utf

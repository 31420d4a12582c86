#ifndef AMBIT_BENCH_RATIO_MAIN_H_
#define AMBIT_BENCH_RATIO_MAIN_H_

// A main() for the benchmark programs that, after the usual Google Benchmark
// report, prints the ratios registered with AMBIT_BENCH_RATIO: the CPU time
// of one benchmark over the CPU time of its baseline, both measured in the
// same run (medians when --benchmark_repetitions is given). Link the program
// with ambit_bench_main instead of defining BENCHMARK_MAIN().

namespace ambit_bench {

struct RatioRegistrar {
  RatioRegistrar(const char* label, const char* measured, const char* baseline);
};

}  // namespace ambit_bench

#define AMBIT_BENCH_RATIO_CONCAT2(a, b) a##b
#define AMBIT_BENCH_RATIO_CONCAT(a, b) AMBIT_BENCH_RATIO_CONCAT2(a, b)
// AMBIT_BENCH_RATIO("critical section / raw mutex", "BM_CritSec", "BM_Raw");
#define AMBIT_BENCH_RATIO(label, measured, baseline)                        \
  static ::ambit_bench::RatioRegistrar AMBIT_BENCH_RATIO_CONCAT(            \
      g_ambitBenchRatio, __LINE__)(label, measured, baseline)

#endif  // AMBIT_BENCH_RATIO_MAIN_H_

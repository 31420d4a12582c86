#ifndef AMBIT_BENCH_RATIO_MAIN_H_
#define AMBIT_BENCH_RATIO_MAIN_H_

// A main() for the benchmark programs that, after the usual Google Benchmark
// report, prints the ratios registered with AMBIT_BENCH_RATIO: the CPU time
// of one benchmark over the CPU time of its baseline, both measured in the
// same run (medians when --benchmark_repetitions is given). Link the program
// with ambit_bench_main instead of defining BENCHMARK_MAIN().

#include <string>

namespace ambit_bench {

struct RatioRegistrar {
  // realTime: compare wall-clock times instead of CPU times (for benchmarks
  // whose work is done partly by other threads or processes).
  RatioRegistrar(const char* label, const char* measured, const char* baseline,
                 bool realTime = false);
};

// Records a figure that is not a ratio (a latency, say), printed after the
// ratios under "Figures": label, value and unit. Later reports of the same
// label replace earlier ones.
void ReportFigure(const std::string& label, double value, const char* unit);

// Runs the benchmarks selected on the command line and prints the ratios.
// The library's main() calls it; a program with its own main() (to set
// things up first) links the same library and calls it itself.
int RunWithRatios(int argc, char** argv);

}  // namespace ambit_bench

#define AMBIT_BENCH_RATIO_CONCAT2(a, b) a##b
#define AMBIT_BENCH_RATIO_CONCAT(a, b) AMBIT_BENCH_RATIO_CONCAT2(a, b)
// AMBIT_BENCH_RATIO("critical section / raw mutex", "BM_CritSec", "BM_Raw");
#define AMBIT_BENCH_RATIO(label, measured, baseline)                        \
  static ::ambit_bench::RatioRegistrar AMBIT_BENCH_RATIO_CONCAT(            \
      g_ambitBenchRatio, __LINE__)(label, measured, baseline)

// The same with wall-clock times: for ping-pongs, where the measuring
// thread sleeps while its partner works.
#define AMBIT_BENCH_RATIO_REAL(label, measured, baseline)                   \
  static ::ambit_bench::RatioRegistrar AMBIT_BENCH_RATIO_CONCAT(            \
      g_ambitBenchRatio, __LINE__)(label, measured, baseline, true)

#endif  // AMBIT_BENCH_RATIO_MAIN_H_

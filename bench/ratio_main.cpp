#include "ratio_main.h"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"

namespace ambit_bench {
namespace {

struct Ratio {
  std::string label, measured, baseline;
  bool realTime;
};

struct Times {
  double cpu;
  double real;
};

std::vector<Ratio>& Ratios() {
  static std::vector<Ratio> ratios;
  return ratios;
}

struct Figure {
  double value;
  std::string unit;
};

std::map<std::string, Figure>& Figures() {
  static std::map<std::string, Figure> figures;
  return figures;
}

// Console output as usual, plus the CPU time per iteration of each run,
// keyed by benchmark name (the median row when repetitions aggregate).
class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const std::string name = run.benchmark_name();
      if (run.run_type == Run::RT_Aggregate) {
        if (run.aggregate_name != "median") continue;
        m_times[run.run_name.str()] = {run.GetAdjustedCPUTime(), run.GetAdjustedRealTime()};
      } else if (m_times.find(name) == m_times.end() ||
                 run.repetitions <= 1) {
        m_times[name] = {run.GetAdjustedCPUTime(), run.GetAdjustedRealTime()};
      }
    }
  }
  const std::map<std::string, Times>& AllTimes() const { return m_times; }

 private:
  std::map<std::string, Times> m_times;
};

}  // namespace

void ReportFigure(const std::string& label, double value, const char* unit) {
  Figures()[label] = {value, unit};
}

RatioRegistrar::RatioRegistrar(const char* label, const char* measured,
                               const char* baseline, bool realTime) {
  Ratios().push_back({label, measured, baseline, realTime});
}

}  // namespace ambit_bench

int ambit_bench::RunWithRatios(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  ambit_bench::RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const auto& times = reporter.AllTimes();
  bool header = false;
  for (const auto& r : ambit_bench::Ratios()) {
    const auto m = times.find(r.measured);
    const auto b = times.find(r.baseline);
    if (m == times.end() || b == times.end()) continue;
    const double measured = r.realTime ? m->second.real : m->second.cpu;
    const double baseline = r.realTime ? b->second.real : b->second.cpu;
    if (baseline <= 0) continue;
    if (!header) {
      std::printf("\nRatios (lower is faster; same run):\n");
      header = true;
    }
    std::printf("  %-60s %6.2fx %s\n", r.label.c_str(), measured / baseline,
                r.realTime ? "wall" : "CPU");
  }
  if (!ambit_bench::Figures().empty()) std::printf("\nFigures (measured, not ratios):\n");
  for (const auto& f : ambit_bench::Figures())
    std::printf("  %-60s %10.2f %s\n", f.first.c_str(), f.second.value, f.second.unit.c_str());
  benchmark::Shutdown();
  return 0;
}

#pragma once
// A benchmark main that, after the usual console output, prints each named
// pair's ratio of real time per iteration, both measured in the same run (the
// machines are noisy, so only same-run ratios are quoted).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace benchratio {

struct Pair {
  std::string subject;
  std::string baseline;
  double target;  // the ratio the subject should stay within (0: none)
};

class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  // With --benchmark_repetitions the median stands for the benchmark.
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.error_occurred) continue;
      if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median") {
        medians_[r.run_name.str()] = r.GetAdjustedRealTime();
      } else if (r.run_type == Run::RT_Iteration) {
        times_[r.run_name.str()] = r.GetAdjustedRealTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> times() const {
    std::map<std::string, double> all = times_;
    for (const auto& [name, t] : medians_) all[name] = t;
    return all;
  }

 private:
  std::map<std::string, double> times_;
  std::map<std::string, double> medians_;
};

// Results are freed and reallocated every iteration. glibc hands large blocks
// back to the kernel and maps them afresh, so benchmarks would time first-touch
// page faults of each fresh result (a property of the machine, paid by any new
// buffer of that size) while their memcpy baselines reuse a warm buffer.
// Keeping freed memory in the process makes every benchmark measure the
// library's own work; VEMOPROC_BENCH_SYSTEM_MALLOC=1 skips this.
inline void keep_freed_memory() {
  if (std::getenv("VEMOPROC_BENCH_SYSTEM_MALLOC") != nullptr) return;
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_MMAP_MAX, 0);
}

inline int run(int argc, char** argv, const std::vector<Pair>& pairs) {
  keep_freed_memory();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  CollectingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  std::printf("\nRatios (same run, real time per iteration; medians when repeated):\n");
  const std::map<std::string, double> times = reporter.times();
  for (const Pair& p : pairs) {
    const auto s = times.find(p.subject);
    const auto b = times.find(p.baseline);
    if (s == times.end() || b == times.end()) continue;
    std::printf("  %-40s / %-32s = %6.2f", p.subject.c_str(), p.baseline.c_str(),
                s->second / b->second);
    if (p.target > 0) std::printf("   (target <= %g)", p.target);
    std::printf("\n");
  }
  return 0;
}

}  // namespace benchratio

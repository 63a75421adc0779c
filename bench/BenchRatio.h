// Runs the registered benchmarks and prints, for each pair named in the
// program, how our implementation compares with its baseline or peer in the
// same run: "ratio <ours> / <baseline>: 1.23x" (time per iteration, lower is
// better for ours below 1).
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace corvanth::bench {

class cCollectingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(std::vector<Run> const& runs) override {
    for (auto const& run : runs) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
        mTimes[run.benchmark_name()] = run.GetAdjustedRealTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> const& fTimes() const { return mTimes; }

 private:
  std::map<std::string, double> mTimes;
};

// pairs: {ours, baseline} benchmark names as Google Benchmark prints them.
inline int gRunAndPrintRatios(int argc, char** argv,
                              std::vector<std::pair<std::string, std::string>> const& pairs) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  cCollectingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  for (auto const& [ours, base] : pairs) {
    auto a = reporter.fTimes().find(ours);
    auto b = reporter.fTimes().find(base);
    if (a == reporter.fTimes().end() || b == reporter.fTimes().end() || b->second <= 0) continue;
    std::printf("ratio %s / %s: %.2fx\n", ours.c_str(), base.c_str(), a->second / b->second);
  }
  benchmark::Shutdown();
  return 0;
}

}  // namespace corvanth::bench

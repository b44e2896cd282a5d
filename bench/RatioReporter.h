// A console reporter that also keeps each benchmark's time per iteration in
// seconds, so that a benchmark can print ratios against a reference measured
// in the same run. With --benchmark_repetitions the median is kept.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace Witnessd::Bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // kCpu suits a shared build machine; kReal is needed for manual timing.
  enum class Clock { kCpu, kReal };
  explicit RatioReporter(Clock clock) : clock_(clock) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred || run.iterations == 0) {
        continue;
      }
      const std::string& name = run.run_name.function_name;
      bool first = run.run_type == Run::RT_Iteration && seconds_.count(name) == 0;
      bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (first || median) {
        double time = clock_ == Clock::kCpu ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
        seconds_[name] = time / benchmark::GetTimeUnitMultiplier(run.time_unit);
      }
    }
  }

  // Seconds per iteration of the benchmark function |name|; 0 when it did
  // not run.
  double Seconds(const std::string& name) const {
    auto it = seconds_.find(name);
    return it == seconds_.end() ? 0 : it->second;
  }

  // RateRatio is how many iterations of |a| run in the time of one of |b|,
  // relative: rate(a) / rate(b); 0 when either did not run.
  double RateRatio(const std::string& a, const std::string& b) const {
    double sa = Seconds(a);
    double sb = Seconds(b);
    return sa == 0 || sb == 0 ? 0 : sb / sa;
  }

 private:
  Clock clock_;
  std::map<std::string, double> seconds_;
};

}  // namespace Witnessd::Bench

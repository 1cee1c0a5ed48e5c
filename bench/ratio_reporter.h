// A console reporter that also prints, after the table, the time of each
// benchmark as a multiple of a named floor measured in the same run.
#ifndef DECONV_BENCH_RATIO_REPORTER_H
#define DECONV_BENCH_RATIO_REPORTER_H

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(std::string floor) : ConsoleReporter(OO_Tabular), floor_(std::move(floor)) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) seconds_[run.benchmark_name()] = run.GetAdjustedRealTime();
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const auto& [name, time] : seconds_)
      if (name.find(floor_) != 0) std::printf("%-50s %.2f x %s\n", name.c_str(), time / floor_time(), floor_.c_str());
  }

 private:
  double floor_time() const {
    for (const auto& [name, time] : seconds_)
      if (name.find(floor_) == 0) return time;
    return 0;
  }
  std::string floor_;
  std::map<std::string, double> seconds_;
};

#endif

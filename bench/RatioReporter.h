#pragma once

// Prints, after the usual table, each of our figures beside its reference from the same run.
//
// Benchmarks are named "<row>/ours" and "<row>/<reference>". Run with repetitions and random
// interleaving (main() below sets both unless the command line does), so that each figure is a
// median over rounds that took turns on the machine; a ratio of medians taken side by side is
// what counts on a noisy machine, not either figure alone.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kq::bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      // The median of repetitions, or the one run when there was only one.
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      const bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
      if (!median && !single) {
        continue;
      }
      const std::string& name = run.run_name.function_name;
      const auto slash = name.find('/');
      if (slash == std::string::npos) {
        continue;
      }
      const std::string& args = run.run_name.args;
      rows_[name.substr(0, slash) + (args.empty() ? "" : "/" + args)].emplace_back(
          name.substr(slash + 1), rate(run));
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\n%-40s %-22s %14s %14s %8s\n", "row (medians)", "reference", "ours", "reference",
                "ratio");
    for (const auto& [row, figures] : rows_) {
      double ours = 0;
      for (const auto& [who, value] : figures) {
        if (who == "ours") {
          ours = value;
        }
      }
      for (const auto& [who, value] : figures) {
        if (who != "ours" && value > 0) {
          std::printf("%-40s %-22s %14.0f %14.0f %7.2fx\n", row.c_str(), who.c_str(), ours, value,
                      ours / value);
        }
      }
    }
    std::printf("(figures are items per second; a ratio above 1 means ours is faster)\n");
  }

 private:
  // Items per second, or iterations per second when the benchmark counts no items.
  static double rate(const Run& run) {
    const auto items = run.counters.find("items_per_second");
    if (items != run.counters.end()) {
      return items->second.value;
    }
    const double seconds = run.GetAdjustedRealTime() * 1e-9 *
                           (run.time_unit == benchmark::kNanosecond    ? 1
                            : run.time_unit == benchmark::kMicrosecond ? 1e3
                            : run.time_unit == benchmark::kMillisecond ? 1e6
                                                                       : 1e9);
    return seconds > 0 ? 1 / seconds : 0;
  }

  std::map<std::string, std::vector<std::pair<std::string, double>>> rows_;
};

/// main() of a benchmark program that reports ratios: five repetitions unless the command line
/// asks for another number, always in random interleaving unless it turns that off.
inline int runWithRatios(int argc, char** argv) {
  std::vector<char*> arguments(argv, argv + argc);
  std::string repetitions = "--benchmark_repetitions=5";
  std::string interleaving = "--benchmark_enable_random_interleaving=true";
  std::string aggregates = "--benchmark_report_aggregates_only=true";
  const auto given = [&](std::string_view flag) {
    return std::any_of(argv + 1, argv + argc, [&](const char* argument) {
      return std::string_view(argument).starts_with(flag);
    });
  };
  if (!given("--benchmark_repetitions")) {
    arguments.push_back(repetitions.data());
    arguments.push_back(aggregates.data());
  }
  if (!given("--benchmark_enable_random_interleaving")) {
    arguments.push_back(interleaving.data());
  }
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace kq::bench

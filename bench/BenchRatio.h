// Shared main for benchmarks that compare against a peer in the same run.
//
// Register benchmarks as usual, then describe each comparison; the reporter
// records every run's time per iteration and, after the console output,
// prints one line per comparison:
//   ratio LoopRoundTrip/BareEpollRoundTrip = 1.08 (goal <= 1.25): met
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace CorvidBench {

struct Comparison {
  std::string ours;    // benchmark name as reported (with its argument, "Foo/1500")
  std::string peer;
  double goal;         // ours/peer must be at most this (0: informative only)
};

// Prints the usual console table and keeps each run's real and CPU time per
// iteration by benchmark name (0 for a name that did not run), for programs
// that print their own comparisons.
class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(std::vector<Run> const& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (auto const& r : runs) {
      // Aggregates of repeated runs are kept under their own names
      // ("Foo/repeats:5/real_time_median"), so comparisons can use medians.
      if (!r.error_occurred) {
        times[r.benchmark_name()] = r.GetAdjustedRealTime();
        cpuTimes[r.benchmark_name()] = r.GetAdjustedCPUTime();
      }
    }
  }
  double cpu(std::string const& name) const {
    auto it = cpuTimes.find(name);
    return it == cpuTimes.end() ? 0 : it->second;
  }
  std::map<std::string, double> times;
  std::map<std::string, double> cpuTimes;
};

// Runs the registered benchmarks and prints the comparisons; returns 0.
inline int runWithRatios(int argc, char** argv, std::vector<Comparison> const& comparisons) {
  benchmark::Initialize(&argc, argv);
  RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  for (auto const& c : comparisons) {
    auto ours = reporter.times.find(c.ours);
    auto peer = reporter.times.find(c.peer);
    if (ours == reporter.times.end() || peer == reporter.times.end() || peer->second <= 0) continue;
    double ratio = ours->second / peer->second;
    if (c.goal > 0) {
      std::printf("ratio %s / %s = %.3f (goal <= %.2f): %s\n", c.ours.c_str(), c.peer.c_str(), ratio, c.goal,
                  ratio <= c.goal ? "met" : "NOT MET");
    } else {
      std::printf("ratio %s / %s = %.3f\n", c.ours.c_str(), c.peer.c_str(), ratio);
    }
  }
  benchmark::Shutdown();
  return 0;
}

}  // namespace CorvidBench

// Shared main for benchmarks that compare against a peer in the same run.
//
// Register benchmarks as usual, then describe each comparison; the reporter
// records every run's time per iteration and, after the console output,
// prints one line per comparison:
//   ratio LoopRoundTrip/BareEpollRoundTrip = 1.08 (goal <= 1.25): met
#pragma once

#include <benchmark/benchmark.h>

#include <sys/utsname.h>

#include <cstdio>
#include <fstream>
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

// Prints what the figures were measured on: the processor, its widest
// vector extensions, the kernel, and the implementation the program chose.
// Ratios are only comparable between runs on the same kind of machine.
inline void printMachine(std::string const& implementation) {
  std::string model = "unknown processor";
  std::ifstream cpuinfo("/proc/cpuinfo");
  for (std::string line; std::getline(cpuinfo, line);) {
    if (line.rfind("model name", 0) == 0 && line.find(':') != std::string::npos) {
      model = line.substr(line.find(':') + 2);
      break;
    }
  }
  std::string vectors;
#if defined(__x86_64__)
  __builtin_cpu_init();
  vectors = __builtin_cpu_supports("avx512bw") ? "AVX-512BW" : __builtin_cpu_supports("avx2") ? "AVX2" : "SSE2";
#else
  vectors = "no x86 vectors";
#endif
  utsname u{};
  uname(&u);
  std::printf("machine: %s, widest vectors %s, kernel %s %s\nimplementation: %s\n", model.c_str(), vectors.c_str(),
              u.sysname, u.release, implementation.c_str());
}

// Prints one comparison in the form bench/run-all collects.
inline void printRatio(std::string const& ours, std::string const& peer, double ratio, double goal) {
  if (goal > 0) {
    std::printf("ratio %s / %s = %.3f (goal <= %.2f): %s\n", ours.c_str(), peer.c_str(), ratio, goal,
                ratio <= goal ? "met" : "NOT MET");
  } else {
    std::printf("ratio %s / %s = %.3f (informative)\n", ours.c_str(), peer.c_str(), ratio);
  }
}

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
    printRatio(c.ours, c.peer, ours->second / peer->second, c.goal);
  }
  benchmark::Shutdown();
  return 0;
}

}  // namespace CorvidBench

// The closing table the benchmarks print after Google Benchmark's own report:
//   measure | ours ms | peer ms | ratio | target
// MedianReporter keeps the median of each benchmark's repetitions; printMedianTable prints
// the table from those medians, and printRatioRow one row of it.

#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace kwq::bench {

// Which of a run's times the median is taken of.
enum class MedianOf { RealTime, CpuTime };

// Google Benchmark's console report, keeping the median of each benchmark's repetitions in
// milliseconds, by the name it was registered under.
class MedianReporter : public benchmark::ConsoleReporter {
 public:
  explicit MedianReporter(MedianOf time = MedianOf::RealTime, OutputOptions options = OO_Defaults)
      : ConsoleReporter(options), time_(time) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.aggregate_name == "median") {
        const double adjusted =
            time_ == MedianOf::CpuTime ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
        const double seconds = adjusted / benchmark::GetTimeUnitMultiplier(run.time_unit);
        medians_[run.run_name.function_name] = seconds * 1e3;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // The median in milliseconds, or -1 if the benchmark did not run.
  double medianMs(const std::string& name) const {
    const auto it = medians_.find(name);
    return it == medians_.end() ? -1 : it->second;
  }

 private:
  MedianOf time_;
  std::map<std::string, double> medians_;
};

// One row: ours and peer with `decimals` decimals, their ratio with `ratioDecimals`; the peer
// and the ratio are "-" when the peer has no time (peer <= 0).
inline void printRatioRow(const char* measure, double ours, double peer, const char* target,
                          int decimals = 2, int ratioDecimals = 3) {
  if (peer > 0)
    std::printf("%s | %.*f | %.*f | %.*f | %s\n", measure, decimals, ours, decimals, peer,
                ratioDecimals, ours / peer, target);
  else
    std::printf("%s | %.*f | - | - | %s\n", measure, decimals, ours, target);
}

// A row of the median table: the benchmarks it compares, by the names they were registered
// under.
struct MedianRow {
  const char* measure;
  const char* ours;
  const char* peer;  // nullptr: reported without a peer
  const char* target;
};

// The table of medians: a heading, then one row for each of `rows` whose own benchmark ran,
// with times to `decimals` decimals.
inline void printMedianTable(const MedianReporter& reporter, std::span<const MedianRow> rows,
                             int decimals = 2) {
  std::printf("\nmeasure | ours ms | peer ms | ratio | target\n");
  for (const MedianRow& row : rows) {
    const double ours = reporter.medianMs(row.ours);
    if (ours < 0) continue;
    const double peer = row.peer ? reporter.medianMs(row.peer) : -1;
    printRatioRow(row.measure, ours, peer, row.target, decimals);
  }
}

// One benchmark to register: its name and body.
struct BenchCase {
  const char* name;
  void (*fn)(benchmark::State&);
};

// Registers each case in milliseconds with five repetitions, reporting only the aggregates the
// closing table reads.
inline void registerRepeated(std::span<const BenchCase> cases) {
  for (const BenchCase& c : cases) {
    benchmark::RegisterBenchmark(c.name, c.fn)
        ->Unit(benchmark::kMillisecond)
        ->Repetitions(5)
        ->ReportAggregatesOnly(true);
  }
}

}  // namespace kwq::bench

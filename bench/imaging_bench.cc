// Imaging layer against the code a user would otherwise write, on the same 1920 x 1080 BGRA
// frame in the same run, single-threaded.
//
//   cmake -S . -B build-imaging -G Ninja && ninja -C build-imaging imaging_bench
//   ./build-imaging/bench/imaging_bench
//
// Prints Google Benchmark's own lines, then one table:
//   operation | ours ms | peer ms | ratio | target
// The ratio is ours / peer from this run; the target is the largest acceptable ratio.

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <unistd.h>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/KWQImagingHelperClass.h"

namespace {

constexpr int kW = 1920, kH = 1080;

// A photograph stretched to 1080p, premultiplied BGRA (opaque), rows packed.
const cv::Mat& frame() {
  static const cv::Mat bgra = [] {
    cv::Mat photo = cv::imread(KWQ_SAMPLE_DATA_DIR "/building.jpg", cv::IMREAD_COLOR);
    if (photo.empty()) photo = cv::Mat(480, 640, CV_8UC3, cv::Scalar(40, 120, 200));
    cv::Mat big, out;
    cv::resize(photo, big, cv::Size(kW, kH), 0, 0, cv::INTER_LINEAR);
    cv::cvtColor(big, out, cv::COLOR_BGR2BGRA);
    return out;
  }();
  return bgra;
}

const kwq::Image& frameImage() {
  static const kwq::Image image = kwq::KWQImagingHelper::makeUIImageFromBGRAData(
      frame().data, kW, kH, static_cast<int32_t>(frame().step[0]));
  return image;
}

void OursRotate90(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(kwq::rotatedByAngle(frameImage(), 90.0));
}
void PeerRotate90(benchmark::State& state) {
  for (auto _ : state) {
    cv::Mat out;  // a fresh result per frame, as a caller keeps each one
    cv::rotate(frame(), out, cv::ROTATE_90_COUNTERCLOCKWISE);
    benchmark::DoNotOptimize(out.data);
  }
}
void OursResizeHalf(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(kwq::resizeToSize(frameImage(), kwq::Size{kW / 2, kH / 2}));
}
void PeerResizeHalf(benchmark::State& state) {
  for (auto _ : state) {
    cv::Mat out;
    cv::resize(frame(), out, cv::Size(kW / 2, kH / 2), 0, 0, cv::INTER_LINEAR);
    benchmark::DoNotOptimize(out.data);
  }
}
void OursFromBGRA(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(kwq::KWQImagingHelper::makeUIImageFromBGRAData(
        frame().data, kW, kH, static_cast<int32_t>(frame().step[0])));
}
void PeerMemcpy(benchmark::State& state) {
  const size_t n = frame().step[0] * kH;
  std::vector<uint8_t> destination(n);  // the strictest peer: no allocation at all
  for (auto _ : state) {
    std::memcpy(destination.data(), frame().data, n);
    benchmark::ClobberMemory();
  }
}

// Keeps each benchmark's mean real time per iteration in milliseconds.
class Collector : public benchmark::ConsoleReporter {
 public:
  // Colour codes only on a terminal, so a saved run reads cleanly.
  Collector() : ConsoleReporter(isatty(1) ? OO_Defaults : OO_None) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs)
      if (r.run_type == Run::RT_Iteration) ms[r.benchmark_name()] = r.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> ms;
};

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);
  frameImage();  // build the input outside the timings
  benchmark::RegisterBenchmark("ours/rotatedByAngle90", OursRotate90)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("peer/cv::rotate", PeerRotate90)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("ours/resizeToSize", OursResizeHalf)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("peer/cv::resize", PeerResizeHalf)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("ours/makeUIImageFromBGRAData", OursFromBGRA)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("peer/memcpy", PeerMemcpy)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::Initialize(&argc, argv);
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);

  struct Row {
    const char *operation, *ours, *peer;
    double target;
  };
  const Row rows[] = {
      {"rotatedByAngle: 90, 1920x1080 BGRA vs cv::rotate", "ours/rotatedByAngle90/real_time",
       "peer/cv::rotate/real_time", 1.5},
      {"resizeToSize: half, 1920x1080 BGRA vs cv::resize linear", "ours/resizeToSize/real_time",
       "peer/cv::resize/real_time", 1.5},
      {"makeUIImageFromBGRAData: 1920x1080 vs memcpy", "ours/makeUIImageFromBGRAData/real_time",
       "peer/memcpy/real_time", 1.5},
  };
  std::printf("\n%-58s | %8s | %8s | %5s | %s\n", "operation", "ours ms", "peer ms", "ratio",
              "target");
  for (const Row& r : rows) {
    if (!collector.ms.count(r.ours) || !collector.ms.count(r.peer)) continue;  // filtered out
    const double ours = collector.ms[r.ours], peer = collector.ms[r.peer];
    std::printf("%-58s | %8.3f | %8.3f | %5.2f | <= %.1f %s\n", r.operation, ours, peer,
                ours / peer, r.target, ours / peer <= r.target ? "met" : "MISSED");
  }
  benchmark::Shutdown();
  return 0;
}

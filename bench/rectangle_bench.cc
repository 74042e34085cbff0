// Speed of the rectangle detector against the plain OpenCV recipe for finding quadrilaterals,
// on the same 1280 x 720 NV12 frame (frame 0 of the synthetic camera's scene: the ID card on
// the desk) in the same run, single-threaded. The peer is what a user would otherwise write
// at full size: cvtColor NV12 to gray, Canny 50/150, findContours (list, simple chains), then
// approxPolyDP at 2 % of each contour's perimeter, keeping the convex four-vertex ones. Ours
// is featuresInImage on the pixel buffer, with the engine's card settings (high accuracy,
// aspect ratio 1.592593, focal length 0) and at low accuracy. Prints Google Benchmark's
// report and then one table of medians of CPU time: measure | ours ms | peer ms | ratio | target.
//
//   cmake -S . -B build-rect -G Ninja && ninja -C build-rect rectangle_bench &&
//   ./build-rect/bench/rectangle_bench
//
// Usual Google Benchmark flags (--benchmark_filter=..., --benchmark_min_time=...) apply.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "bench/bench_report.h"
#include "bench/opencv_peer.h"
#include "capture/card_detection.h"
#include "platform/vision/rectangle_detector.h"
#include "synthetic_frame.h"

namespace {

constexpr int kWidth = 1280, kHeight = 720;

struct Inputs {
  kwq::PixelBuffer frame;  // 420f, the detector's input
  cv::Mat nv12;            // the same bytes packed as OpenCV's NV12 (luma rows, then chroma)
  std::shared_ptr<const kwq::platform::RectangleDetector> high = kwq::makeCardRectangleDetector();
  std::shared_ptr<const kwq::platform::RectangleDetector> low;

  Inputs() {
    kwq::bench::SyntheticNv12 synthetic = kwq::bench::syntheticNv12(kWidth, kHeight);
    nv12 = synthetic.nv12;
    frame = synthetic.frame;

    auto options = kwq::cardRectangleDetectorOptions();
    options.accuracy = kwq::platform::RectangleAccuracy::Low;
    low = kwq::platform::createRectangleDetector(options);
  }
};

Inputs& inputs() {
  static Inputs in;
  return in;
}

void oursHigh(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(inputs().high->featuresInImage(inputs().frame));
}

void oursLow(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(inputs().low->featuresInImage(inputs().frame));
}

void peer(benchmark::State& state) {
  kwq::bench::QuadRecipeScratch scratch;
  for (auto _ : state) benchmark::DoNotOptimize(kwq::bench::findQuadsPeer(inputs().nv12, scratch));
}

const kwq::bench::MedianRow kRows[] = {
    {"featuresInImage high (card settings), 1280x720 420f vs Canny+findContours+approxPolyDP",
     "ours/high", "peer/canny_contours", "<= 0.5"},
    {"featuresInImage low (card settings), 1280x720 420f vs Canny+findContours+approxPolyDP",
     "ours/low", "peer/canny_contours", "<= 0.5"},
};

void registerAll() {
  const kwq::bench::BenchCase cases[] = {
      {"ours/high", oursHigh}, {"peer/canny_contours", peer}, {"ours/low", oursLow}};
  kwq::bench::registerRepeated(cases);
}

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);  // both sides single-threaded
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  registerAll();
  // Render the frame before timing, and check that ours finds the card in it.
  if (inputs().high->featuresInImage(inputs().frame).size() != 1) {
    std::fprintf(stderr, "the card was not found in the benchmark frame\n");
    return 1;
  }
  // CPU time, because the machines this runs on are shared: wall time also counts the moments
  // another process holds the core.
  kwq::bench::MedianReporter reporter(kwq::bench::MedianOf::CpuTime);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  kwq::bench::printMedianTable(reporter, kRows);
  benchmark::Shutdown();
  return 0;
}

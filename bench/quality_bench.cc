// Speed of the quality measures against what a user would otherwise reach for in OpenCV, on
// the same input in the same run, single-threaded. Prints Google Benchmark's report and then
// one table of medians: measure | ours ms | peer ms | ratio | target.
//
//   cmake -S . -B build-quality -G Ninja && ninja -C build-quality quality_bench &&
//   ./build-quality/bench/quality_bench
//
// Usual Google Benchmark flags (--benchmark_filter=..., --benchmark_min_time=...) apply.

#include <benchmark/benchmark.h>

#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>

#include "bench/bench_report.h"
#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/kwq_quality.h"

namespace {

// One photograph at the sizes the measures see: a 1920 x 1080 BGRA camera-like frame, its gray
// version, and a 640 x 480 gray assessment raster. Noise stands in if the photo is missing.
struct Inputs {
  cv::Mat bgra, gray, raster;
  kwq::Image bgraImage, grayImage;

  Inputs() {
    cv::Mat photo = cv::imread(std::string(KWQ_SAMPLE_DATA_DIR) + "/building.jpg");
    if (photo.empty()) {
      photo.create(1080, 1920, CV_8UC3);
      cv::randu(photo, 0, 256);
    }
    cv::Mat frame;
    cv::resize(photo, frame, cv::Size(1920, 1080), 0, 0, cv::INTER_LINEAR);
    cv::cvtColor(frame, bgra, cv::COLOR_BGR2BGRA);
    cv::cvtColor(frame, gray, cv::COLOR_BGR2GRAY);
    cv::resize(gray, raster, cv::Size(640, 480), 0, 0, cv::INTER_AREA);
    bgraImage = kwq::Image::copyFromBytes(kwq::PixelLayout::BGRA32Premultiplied, 1920, 1080,
                                          bgra.step[0], bgra.data);
    grayImage =
        kwq::Image::copyFromBytes(kwq::PixelLayout::Gray8, 1920, 1080, gray.step[0], gray.data);
  }
};

const Inputs& inputs() {
  static const Inputs in;
  return in;
}

// The peer's common tail: Laplacian variance, the usual OpenCV sharpness measure.
double laplacianVariance(const cv::Mat& gray, cv::Mat& laplacian) {
  cv::Laplacian(gray, laplacian, CV_16S);
  cv::Scalar mean, stddev;
  cv::meanStdDev(laplacian, mean, stddev);
  return stddev[0] * stddev[0];
}

void oursTwoPi(benchmark::State& state) {
  const uint8_t* raster = inputs().raster.data;
  for (auto _ : state) benchmark::DoNotOptimize(TwoPiFocusAssess(raster));
}

void peerTwoPi(benchmark::State& state) {
  cv::Mat laplacian;
  for (auto _ : state) benchmark::DoNotOptimize(laplacianVariance(inputs().raster, laplacian));
}

void oursFocus(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(kwq::calculateFocus(inputs().bgraImage));
}

void peerFocus(benchmark::State& state) {
  cv::Mat gray, half, laplacian;
  for (auto _ : state) {
    cv::cvtColor(inputs().bgra, gray, cv::COLOR_BGRA2GRAY);
    cv::resize(gray, half, cv::Size(), 0.5, 0.5, cv::INTER_AREA);
    benchmark::DoNotOptimize(laplacianVariance(half, laplacian));
  }
}

void oursHalve(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(kwq::makeGrayScaleAndScale(inputs().bgraImage, 2));
  }
}

void peerHalve(benchmark::State& state) {
  cv::Mat gray, half;
  for (auto _ : state) {
    cv::cvtColor(inputs().bgra, gray, cv::COLOR_BGRA2GRAY);
    cv::resize(gray, half, cv::Size(), 0.5, 0.5, cv::INTER_AREA);
    benchmark::DoNotOptimize(half.data);
  }
}

void oursFocusScore(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(kwq::calculateFocusScore(inputs().bgraImage, 1, 1, 10));
  }
}

void oursBrightness(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(kwq::calculateBrightness(inputs().grayImage));
}

const kwq::bench::MedianRow kRows[] = {
    {"TwoPiFocusAssess 640x480 vs Laplacian+meanStdDev", "ours/two_pi", "peer/two_pi", "<= 0.5"},
    {"calculateFocus 1920x1080 BGRA vs gray+half+Laplacian+meanStdDev", "ours/calculate_focus",
     "peer/calculate_focus", "<= 1.0"},
    {"makeGrayScaleAndScale(2) 1920x1080 BGRA vs cvtColor+resize", "ours/gray_halve",
     "peer/gray_halve", "<= 1.0"},
    {"calculateFocusScore(1,1,10) 1920x1080 BGRA", "ours/focus_score", nullptr, "-"},
    {"calculateBrightness 1920x1080 gray", "ours/brightness", nullptr, "-"},
};

void registerAll() {
  const kwq::bench::BenchCase cases[] = {
      {"ours/two_pi", oursTwoPi},           {"peer/two_pi", peerTwoPi},
      {"ours/calculate_focus", oursFocus},  {"peer/calculate_focus", peerFocus},
      {"ours/gray_halve", oursHalve},       {"peer/gray_halve", peerHalve},
      {"ours/focus_score", oursFocusScore}, {"ours/brightness", oursBrightness}};
  kwq::bench::registerRepeated(cases);
}

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);  // both sides single-threaded
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  registerAll();
  inputs();  // decode and convert before timing
  // Colour only on a terminal, so a saved report is plain text.
  kwq::bench::MedianReporter reporter(kwq::bench::MedianOf::RealTime,
                                      isatty(fileno(stdout))
                                          ? benchmark::ConsoleReporter::OO_ColorTabular
                                          : benchmark::ConsoleReporter::OO_Tabular);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  kwq::bench::printMedianTable(reporter, kRows, 4);
  benchmark::Shutdown();
  return 0;
}

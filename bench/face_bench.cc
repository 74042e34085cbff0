// Speed of the still-image face search against a plain OpenCV cascade search, on the same
// 640 x 480 photograph (messi5.jpg stretched to 640 x 480) in the same run, single-threaded.
// The peer is what a user would otherwise write: cvtColor to gray, then
// cv::CascadeClassifier::detectMultiScale with its default arguments on
// haarcascade_frontalface_default.xml. Prints Google Benchmark's report and then one table
// of medians: measure | ours ms | peer ms | ratio | target.
//
//   cmake -S . -B build-faces -G Ninja && ninja -C build-faces face_bench &&
//   ./build-faces/bench/face_bench
//
// Usual Google Benchmark flags (--benchmark_filter=..., --benchmark_min_time=...) apply.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>
#include <string>
#include <vector>

#include "bench/bench_report.h"
#include "kwqimage/KWQImagingHelper.h"

#ifndef KWQ_OPENCV_DATA_DIR
#define KWQ_OPENCV_DATA_DIR "/usr/share/opencv4"
#endif

namespace {

struct Inputs {
  cv::Mat rgb;
  kwq::Image image;
  cv::CascadeClassifier peer;

  Inputs() {
    cv::Mat photo = cv::imread(std::string(KWQ_SAMPLE_DATA_DIR) + "/messi5.jpg");
    if (photo.empty()) {
      std::fprintf(stderr, "messi5.jpg not found (Debian package opencv-doc)\n");
      std::exit(1);
    }
    cv::Mat frame;
    cv::resize(photo, frame, cv::Size(640, 480), 0, 0, cv::INTER_LINEAR);
    cv::cvtColor(frame, rgb, cv::COLOR_BGR2RGB);
    image = kwq::Image::copyFromBytes(kwq::PixelLayout::RGB24, 640, 480, rgb.step[0], rgb.data);
    if (!peer.load(KWQ_OPENCV_DATA_DIR "/haarcascades/haarcascade_frontalface_default.xml")) {
      std::fprintf(stderr, "cascades not found (Debian package opencv-data)\n");
      std::exit(1);
    }
  }
};

Inputs& inputs() {
  static Inputs in;
  return in;
}

void oursLow(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(kwq::getKWQFaceFeaturesWithAccuracy(inputs().image, 0));
}

void oursHigh(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(kwq::getKWQFaceFeaturesWithAccuracy(inputs().image, 1));
}

void peer(benchmark::State& state) {
  Inputs& in = inputs();
  cv::Mat gray;
  std::vector<cv::Rect> faces;
  for (auto _ : state) {
    cv::cvtColor(in.rgb, gray, cv::COLOR_RGB2GRAY);
    in.peer.detectMultiScale(gray, faces);
    benchmark::DoNotOptimize(faces.data());
  }
}

const kwq::bench::MedianRow kRows[] = {
    {"getKWQFaceFeaturesWithAccuracy 0, 640x480 vs detectMultiScale(default cascade)",
     "ours/accuracy_0", "peer/detect_multiscale", "<= 0.5"},
    {"getKWQFaceFeaturesWithAccuracy 1, 640x480 vs detectMultiScale(default cascade)",
     "ours/accuracy_1", "peer/detect_multiscale", "<= 1.5"},
};

void registerAll() {
  const kwq::bench::BenchCase cases[] = {{"ours/accuracy_0", oursLow},
                                         {"peer/detect_multiscale", peer},
                                         {"ours/accuracy_1", oursHigh}};
  kwq::bench::registerRepeated(cases);
}

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);  // both sides single-threaded
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  registerAll();
  // Decode, and load our cascades, before timing: both sides load theirs once per process.
  benchmark::DoNotOptimize(kwq::getKWQFaceFeaturesWithAccuracy(inputs().image, 1));
  kwq::bench::MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  kwq::bench::printMedianTable(reporter, kRows);
  benchmark::Shutdown();
  return 0;
}

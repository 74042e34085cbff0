// Cost of the card capture on a stable 1280 x 720 420f frame (frame 0 of the synthetic
// camera's card scene), against the plain OpenCV recipe a user would otherwise write on the same
// frame in the same run, single-threaded:
//  - peer/bgr: cvtColor NV12 to BGR, getPerspectiveTransform, warpPerspective of the BGR frame
//    to 1000 x 628, cvtColor to gray, Laplacian and its variance (a colour card and a score);
//  - peer/gray: the same on the luma plane only (a gray card and a score).
// Ours is analyseCard with the detector's quad and the default settings: the flattened colour
// card, sharpness, brightness, glare and the verdict (the code is read separately, once per
// new best capture, and is timed as ours/code_read without a peer). Prints Google Benchmark's
// report and then one table of medians of CPU time: measure | ours ms | peer ms | ratio | target.
//
//   ninja -C build card_capture_bench && ./build/bench/card_capture_bench

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "bench/bench_report.h"
#include "capture/card_capture.h"
#include "capture/card_detection.h"
#include "kwqimage/CaptureSession.h"
#include "platform/vision/code_reader.h"
#include "synthetic_frame.h"

namespace {

constexpr int kWidth = 1280, kHeight = 720;

struct Inputs {
  kwq::SampleBuffer frame;  // 420f
  cv::Mat nv12;             // the same bytes packed as OpenCV's NV12
  kwq::platform::RectangleFeature feature;
  std::vector<cv::Point2f> corners;  // top left, top right, bottom right, bottom left

  Inputs() {
    kwq::bench::SyntheticNv12 synthetic = kwq::bench::syntheticNv12(kWidth, kHeight);
    nv12 = synthetic.nv12;
    kwq::PixelBuffer buffer = synthetic.frame;
    frame = kwq::SampleBuffer(buffer, kwq::MediaTime{0, 30});
    const auto features = kwq::makeCardRectangleDetector()->featuresInImage(frame);
    if (!features.empty()) {
      feature = features[0];
      for (const kwq::Point& p : kwq::cardCornersTopDown(feature, kHeight))
        corners.emplace_back(static_cast<float>(p.x), static_cast<float>(p.y));
    }
  }
};

Inputs& inputs() {
  static Inputs in;
  return in;
}

void ours(benchmark::State& state) {
  const Inputs& in = inputs();
  const kwq::CardCaptureSettings settings;
  for (auto _ : state)
    benchmark::DoNotOptimize(kwq::analyseCard(in.frame, &in.feature, true, std::nullopt, settings));
}

void oursCodeRead(benchmark::State& state) {
  const Inputs& in = inputs();
  const kwq::CardCapture c = kwq::analyseCard(in.frame, &in.feature, true, std::nullopt, {});
  const std::vector<std::string> types{std::string(kwq::AVMetadataObjectTypePDF417Code)};
  for (auto _ : state) benchmark::DoNotOptimize(kwq::platform::readCodes(c.card, types));
}

double peerScore(const cv::Mat& source, const std::vector<cv::Point2f>& corners, cv::Mat& card,
                 cv::Mat& gray, cv::Mat& lap) {
  const std::vector<cv::Point2f> target{{0, 0}, {1000, 0}, {1000, 628}, {0, 628}};
  const cv::Mat m = cv::getPerspectiveTransform(corners, target);
  cv::warpPerspective(source, card, m, cv::Size(1000, 628));
  if (card.channels() == 3)
    cv::cvtColor(card, gray, cv::COLOR_BGR2GRAY);
  else
    gray = card;
  cv::Laplacian(gray, lap, CV_16S);
  cv::Scalar mean, stddev;
  cv::meanStdDev(lap, mean, stddev);
  return stddev[0] * stddev[0];
}

void peerBgr(benchmark::State& state) {
  const Inputs& in = inputs();
  cv::Mat bgr, card, gray, lap;
  for (auto _ : state) {
    cv::cvtColor(in.nv12, bgr, cv::COLOR_YUV2BGR_NV12);
    benchmark::DoNotOptimize(peerScore(bgr, in.corners, card, gray, lap));
  }
}

void peerGray(benchmark::State& state) {
  const Inputs& in = inputs();
  const cv::Mat luma = in.nv12(cv::Rect(0, 0, kWidth, kHeight));
  cv::Mat card, gray, lap;
  for (auto _ : state) benchmark::DoNotOptimize(peerScore(luma, in.corners, card, gray, lap));
}

const kwq::bench::MedianRow kRows[] = {
    {"analyseCard, 1280x720 420f, colour card 1000x628 + measures vs NV12->BGR + warp + "
     "Laplacian variance",
     "ours/analyse", "peer/bgr", "<= 1.5"},
    {"analyseCard vs warp of the luma plane + Laplacian variance (gray card only)", "ours/analyse",
     "peer/gray", "-"},
    {"PDF417 read on the flattened card (once per new best capture)", "ours/code_read", nullptr,
     "-"},
};

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);  // both sides single-threaded
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (inputs().corners.size() != 4) {
    std::fprintf(stderr, "the card was not found in the benchmark frame\n");
    return 1;
  }
  const kwq::bench::BenchCase cases[] = {{"ours/analyse", ours},
                                         {"peer/bgr", peerBgr},
                                         {"peer/gray", peerGray},
                                         {"ours/code_read", oursCodeRead}};
  kwq::bench::registerRepeated(cases);
  kwq::bench::MedianReporter reporter(kwq::bench::MedianOf::CpuTime);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  kwq::bench::printMedianTable(reporter, kRows);
  benchmark::Shutdown();
  return 0;
}

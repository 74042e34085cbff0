// Drawing the progress circle: one 200 x 200 draw of the view (canvas, disk, outline, centre
// dot, ring segment, the image taken) against the same picture drawn with OpenCV's
// anti-aliased ellipse and polygon fills.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "bench_report.h"
#include "kwqimage/KWQProgressCircleView.h"
#include "kwqimage/Layer.h"

namespace {

constexpr int kSide = 200;

std::shared_ptr<kwq::KWQProgressCircleView> makeView() {
  auto view = kwq::KWQProgressCircleView::create({0, 0, kSide, kSide});
  view->setBorderSize(4);
  view->setBorderOffsetMargin(6);
  view->setInterierOffsetMargin(60);
  view->setCenterSize(12);
  view->setTrackColor(kwq::Color::redColor());
  view->setBorderColor(kwq::Color::blueColor());
  view->setTintColor(kwq::Color::whiteColor());
  view->setValue(62.5, false);
  return view;
}

kwq::Image drawOurs(kwq::KWQProgressCircleView& view) {
  view.setNeedsDisplay();
  view.displayIfNeeded();
  return view.layer()->contents();
}

void drawPeer(cv::Mat& canvas) {
  canvas.setTo(cv::Scalar::all(0));
  const cv::Point c(kSide / 2, kSide / 2);
  cv::circle(canvas, c, 96, {255, 255, 255, 255}, cv::FILLED, cv::LINE_AA);
  cv::circle(canvas, c, 94, {255, 0, 0, 255}, 4, cv::LINE_AA);
  cv::circle(canvas, c, 12, {0, 0, 255, 255}, cv::FILLED, cv::LINE_AA);
  std::vector<cv::Point> outer, inner;
  cv::ellipse2Poly(c, {90, 90}, 0, -90, 135, 1, outer);
  cv::ellipse2Poly(c, {60, 60}, 0, -90, 135, 1, inner);
  outer.insert(outer.end(), inner.rbegin(), inner.rend());
  cv::fillPoly(canvas, std::vector<std::vector<cv::Point>>{outer}, {0, 0, 255, 255}, cv::LINE_AA);
}

void ours(benchmark::State& state) {
  auto view = makeView();
  for (auto _ : state) benchmark::DoNotOptimize(drawOurs(*view));
}

void peer(benchmark::State& state) {
  cv::Mat canvas(kSide, kSide, CV_8UC4);
  for (auto _ : state) {
    drawPeer(canvas);
    benchmark::DoNotOptimize(canvas.data);
  }
}

const kwq::bench::MedianRow kRows[] = {
    {"progress circle 200x200 draw vs OpenCV circles + ring polygon", "ours/circle200",
     "peer/circle200", "<= 1 ms"},
};

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // Check before timing that the draw lands: the segment's colour at 3 o'clock on the ring.
  auto view = makeView();
  const kwq::Image check = drawOurs(*view);
  const uint8_t* p =
      check.isNull() ? nullptr : check.bytes().data() + 100 * check.bytesPerRow() + 175 * 4;
  if (!p || p[2] != 255 || p[1] != 0 || p[0] != 0) {
    std::fprintf(stderr, "the benchmark draw is wrong\n");
    return 1;
  }
  const kwq::bench::BenchCase cases[] = {{"ours/circle200", ours}, {"peer/circle200", peer}};
  kwq::bench::registerRepeated(cases);
  kwq::bench::MedianReporter reporter(kwq::bench::MedianOf::CpuTime);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  kwq::bench::printMedianTable(reporter, kRows, 3);
  benchmark::Shutdown();
  return 0;
}

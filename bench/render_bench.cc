// Speed of drawing the live preview: the layer renderer against the plain OpenCV recipe, on
// the same 1280 x 720 420f frame (frame 0 of the synthetic camera's scene) in the same run,
// single-threaded. Ours renders the engine's tree (a view layer holding the preview layer with
// the red centre box at the 30/50 inset, a golden face box and a barcode outline path) into a
// new 1280 x 720 premultiplied BGRA image. The peer is what a user would otherwise write:
// cvtColor NV12 to BGRA, resize to the view's size, then rectangle and line draws of the same
// overlays. A second pair draws into 960 x 540, where both sides must scale the picture.
// Prints Google Benchmark's report and then one table of medians of CPU time:
// measure | ours ms | peer ms | ratio | target.
//
//   cmake -S . -B build -G Ninja && ninja -C build render_bench && ./build/bench/render_bench
//
// Usual Google Benchmark flags (--benchmark_filter=..., --benchmark_min_time=...) apply.

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include "bench/bench_report.h"
#include "kwqimage/CaptureSession.h"
#include "kwqimage/Layer.h"
#include "platform/ui/renderer.h"
#include "synthetic_frame.h"

namespace {

constexpr int kWidth = 1280, kHeight = 720;
const kwq::Rect kFace{540, 200, 200, 240};
const kwq::Point kCode[4] = {{300, 470}, {620, 480}, {615, 560}, {295, 548}};

struct Inputs {
  kwq::PixelBuffer frame;  // 420f
  kwq::SampleBuffer sample;
  cv::Mat nv12;  // the same bytes packed as OpenCV's NV12 (luma rows, then chroma)
  std::shared_ptr<kwq::Layer> root;

  Inputs() {
    kwq::bench::SyntheticNv12 synthetic = kwq::bench::syntheticNv12(kWidth, kHeight);
    nv12 = synthetic.nv12;
    frame = synthetic.frame;
    sample = kwq::SampleBuffer(frame);

    // The tree getPreviewView builds, with the overlays a running engine adds.
    root = kwq::Layer::layer();
    root->setFrame({0, 0, kWidth, kHeight});
    auto preview = kwq::PreviewLayer::layerWithSession(kwq::CaptureSession::create());
    preview->setBackgroundColor(kwq::Color::blackColor());
    preview->setFrame(root->bounds());
    root->addSublayer(preview);
    auto center = kwq::ShapeLayer::layer();
    center->setBorderWidth(3.0);
    center->setBorderColor(kwq::Color::redColor());
    center->setFrame(preview->frame().insetBy(30.0, 50.0));
    preview->addSublayer(center);
    auto face = kwq::Layer::layer();
    face->setBorderWidth(1.0);
    face->setBorderColor({225 / 255.0, 201 / 255.0, 14 / 255.0, 1.0});
    face->setFrame(kFace);
    preview->addSublayer(face);
    auto code = kwq::ShapeLayer::layer();
    kwq::Path outline;
    outline.moveTo(kCode[3]);
    for (const auto& p : kCode) outline.addLineTo(p);
    code->setPath(outline);
    code->setFillColor(std::nullopt);
    code->setStrokeColor(kwq::Color::blueColor());
    code->setLineWidth(2.0);
    preview->addSublayer(code);
  }
};

Inputs& inputs() {
  static Inputs in;
  return in;
}

kwq::Image renderOurs(kwq::Size size) {
  const Inputs& in = inputs();
  return kwq::platform::renderLayerTree(*in.root, size, 0.0,
                                        [&](const kwq::PreviewLayer&) { return in.sample; });
}

cv::Mat renderPeer(cv::Size size) {
  const Inputs& in = inputs();
  cv::Mat bgra, out;
  cv::cvtColor(in.nv12, bgra, cv::COLOR_YUV2BGRA_NV12);
  cv::resize(bgra, out, size, 0, 0, cv::INTER_LINEAR);
  const double sx = size.width / double(kWidth), sy = size.height / double(kHeight);
  auto pt = [&](kwq::Point p) { return cv::Point(cvRound(p.x * sx), cvRound(p.y * sy)); };
  cv::rectangle(out, pt({30, 50}), pt({kWidth - 31, kHeight - 51}), {0, 0, 255, 255},
                std::max(1, cvRound(3 * sx)));
  cv::rectangle(out, pt(kFace.origin), pt({kFace.maxX() - 1, kFace.maxY() - 1}),
                {14, 201, 225, 255}, 1);
  for (int i = 0; i < 4; ++i)
    cv::line(out, pt(kCode[i]), pt(kCode[(i + 1) % 4]), {255, 0, 0, 255},
             std::max(1, cvRound(2 * sx)), cv::LINE_AA);
  return out;
}

void ours720(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(renderOurs({kWidth, kHeight}));
}
void peer720(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(renderPeer({kWidth, kHeight}).data);
}
void ours540(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(renderOurs({960, 540}));
}
void peer540(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(renderPeer({960, 540}).data);
}

const kwq::bench::MedianRow kRows[] = {
    {"preview 1280x720 420f + 3 overlays into 1280x720 vs cvtColor+resize+draws", "ours/720p",
     "peer/720p", "<= 1.5, <= 5 ms"},
    {"preview 1280x720 420f + 3 overlays into 960x540 vs cvtColor+resize+draws", "ours/540p",
     "peer/540p", "(scaled, for reference)"},
};

void registerAll() {
  const kwq::bench::BenchCase cases[] = {{"ours/720p", ours720},
                                         {"peer/720p", peer720},
                                         {"ours/540p", ours540},
                                         {"peer/540p", peer540}};
  kwq::bench::registerRepeated(cases);
}

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);  // both sides single-threaded
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  registerAll();
  // Check before timing that ours draws the picture and the centre box where they belong.
  const kwq::Image check = renderOurs({kWidth, kHeight});
  const uint8_t* box = check.bytes().data() + 300 * check.bytesPerRow() + 31 * 4;
  if (check.isNull() || box[2] != 255 || box[1] != 0 || box[0] != 0) {
    std::fprintf(stderr, "the benchmark render is wrong\n");
    return 1;
  }
  // CPU time, because the machines this runs on are shared.
  kwq::bench::MedianReporter reporter(kwq::bench::MedianOf::CpuTime);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  kwq::bench::printMedianTable(reporter, kRows, 3);
  benchmark::Shutdown();
  return 0;
}

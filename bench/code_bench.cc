// Speed of the code reader against zxing-cpp as a user would call it, on the same 1280 x 720
// frame (frame 0 of the synthetic camera's scene: the ID card with its PDF417) in the same
// run, single-threaded. Ours is readCodes on the 420f frame with the engine's settings, for
// PDF417 (the engine's default) and for PDF417 + QR; the peer is ZXing::ReadBarcodes with
// default hints (every format, try harder, rotate, downscale) on the same frame as BGRA
// (ImageFormat::BGRX). A frame without a code (the background alone) is timed as well, since
// most live frames hold none, and so is a licence card turned by 30 degrees (which only ours
// reads). Prints Google Benchmark's report and then one table of medians
// of CPU time: measure | ours ms | peer ms | ratio | target.
//
//   cmake --build build --target code_bench && build/bench/code_bench
//
// Usual Google Benchmark flags (--benchmark_filter=..., --benchmark_min_time=...) apply.

#define ZX_USE_UTF8

#include <ZXing/ReadBarcode.h>
#include <benchmark/benchmark.h>

#include <cstdio>
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <string>
#include <vector>

#include "bench/bench_report.h"
#include "platform/vision/code_reader.h"
#include "synthetic/renderer.h"
#include "tests/support/code_scenes.h"

namespace {

constexpr int kWidth = 1280, kHeight = 720;
const std::vector<std::string> kPdf417{std::string(kwq::AVMetadataObjectTypePDF417Code)};
const std::vector<std::string> kBoth{std::string(kwq::AVMetadataObjectTypePDF417Code),
                                     std::string(kwq::AVMetadataObjectTypeQRCode)};

struct Frame {
  cv::Mat bgra;
  kwq::SampleBuffer nv12;
  std::string text;
};

Frame render(bool card, uint64_t index = 0) {
  // A short text that both readers read (the default licence record's modules are too fine
  // to read on most frames), so both sides do the whole decode.
  kwq::synthetic::SceneRenderer scene(
      card ? kwq::SyntheticScene::card("KWQIMAGE SYNTHETIC CARD 0001") : kwq::SyntheticScene{},
      kWidth, kHeight);
  Frame f;
  f.bgra.create(kHeight, kWidth, CV_8UC4);
  const kwq::SyntheticFrameTruth truth = scene.render(index, {}, f.bgra.data, f.bgra.step[0]);
  if (truth.card() && !truth.card()->codes.empty()) f.text = truth.card()->codes[0].text;
  f.nv12 = kwq::SampleBuffer(kwq::test::frameFromBgra(f.bgra, kwq::kPixelFormat420f));
  return f;
}

const Frame& cardFrame() {
  // Frame 30 (a second in): on the square-on frame 0 zxing's default search misses the
  // symbol, and the comparison needs both sides to read it.
  static const Frame f = render(true, 30);
  return f;
}

const Frame& emptyFrame() {
  static const Frame f = render(false);
  return f;
}

// A licence card turned by 30 degrees and tilted by 15 on a photograph: zxing's default
// search does not read its PDF417 (its rows run too far from the picture's).
const Frame& turnedFrame() {
  static const Frame f = [] {
    Frame t;
    t.text = kwq::test::aamvaRecord(5);
    kwq::test::CodePose pose;
    pose.centre = {640, 360};
    pose.modulePixels = 2.5;
    pose.rotationDeg = 30;
    pose.tiltDeg = 15;
    pose.tiltAxisDeg = 70;
    pose.card = true;
    const cv::Mat photo =
        kwq::test::loadPhoto(KWQ_SAMPLE_DATA_DIR, "building.jpg", kWidth, kHeight);
    t.bgra = kwq::test::printSymbol(
                 photo.empty() ? cv::Mat(kHeight, kWidth, CV_8UC4, cv::Scalar(120, 130, 140, 255))
                               : photo,
                 kwq::test::writeSymbol(kwq::test::CodeKind::PDF417, t.text), pose)
                 .bgra;
    t.nv12 = kwq::SampleBuffer(kwq::test::frameFromBgra(t.bgra, kwq::kPixelFormat420f));
    return t;
  }();
  return f;
}

void ours(benchmark::State& state, const Frame& f, const std::vector<std::string>& types,
          const kwq::platform::CodeReaderSettings& settings = {}) {
  for (auto _ : state) benchmark::DoNotOptimize(kwq::platform::readCodes(f.nv12, types, settings));
}

// The reader without its search for turned PDF417 symbols (what it costs).
kwq::platform::CodeReaderSettings levelOnly() {
  kwq::platform::CodeReaderSettings s;
  s.maxLocatedRegions = 0;
  return s;
}

void peer(benchmark::State& state, const Frame& f) {
  const ZXing::ImageView view(f.bgra.data, f.bgra.cols, f.bgra.rows, ZXing::ImageFormat::BGRX,
                              static_cast<int>(f.bgra.step[0]));
  for (auto _ : state) benchmark::DoNotOptimize(ZXing::ReadBarcodes(view));
}

void oursCardPdf417(benchmark::State& s) {
  ours(s, cardFrame(), kPdf417);
}
void oursCardBoth(benchmark::State& s) {
  ours(s, cardFrame(), kBoth);
}
void oursEmptyPdf417(benchmark::State& s) {
  ours(s, emptyFrame(), kPdf417);
}
void oursEmptyBoth(benchmark::State& s) {
  ours(s, emptyFrame(), kBoth);
}
void levelEmptyPdf417(benchmark::State& s) {
  ours(s, emptyFrame(), kPdf417, levelOnly());
}
void oursTurnedPdf417(benchmark::State& s) {
  ours(s, turnedFrame(), kPdf417);
}
void oursTurnedBoth(benchmark::State& s) {
  ours(s, turnedFrame(), kBoth);
}
void peerTurned(benchmark::State& s) {
  peer(s, turnedFrame());
}
void peerCard(benchmark::State& s) {
  peer(s, cardFrame());
}
void peerEmpty(benchmark::State& s) {
  peer(s, emptyFrame());
}

const kwq::bench::MedianRow kRows[] = {
    {"card frame, PDF417: readCodes 420f vs ReadBarcodes default BGRX", "ours/card/pdf417",
     "peer/card", "<= 0.5"},
    {"card frame, PDF417+QR: readCodes 420f vs ReadBarcodes default BGRX", "ours/card/pdf417+qr",
     "peer/card", "<= 0.5"},
    {"no code, PDF417: readCodes 420f vs ReadBarcodes default BGRX", "ours/empty/pdf417",
     "peer/empty", "<= 0.5"},
    {"no code, PDF417+QR: readCodes 420f vs ReadBarcodes default BGRX", "ours/empty/pdf417+qr",
     "peer/empty", "<= 0.5"},
    {"no code, PDF417: readCodes without the turned-symbol search vs ReadBarcodes default",
     "level-only/empty/pdf417", "peer/empty", "-"},
    {"card turned 30 deg, PDF417: readCodes 420f vs ReadBarcodes default BGRX",
     "ours/turned/pdf417", "peer/turned", "<= 1.0"},
    {"card turned 30 deg, PDF417+QR: readCodes 420f vs ReadBarcodes default BGRX",
     "ours/turned/pdf417+qr", "peer/turned", "<= 1.0"},
};

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);  // both sides single-threaded
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // Both sides must read the card's code for the comparison to mean anything.
  bool oursReads = false, peerReads = false;
  for (const auto& o : kwq::platform::readCodes(cardFrame().nv12, kPdf417))
    oursReads =
        oursReads || dynamic_cast<const kwq::MetadataMachineReadableCodeObject&>(*o).stringValue ==
                         cardFrame().text;
  for (const auto& r :
       ZXing::ReadBarcodes({cardFrame().bgra.data, kWidth, kHeight, ZXing::ImageFormat::BGRX,
                            static_cast<int>(cardFrame().bgra.step[0])}))
    peerReads = peerReads || r.text() == cardFrame().text;
  if (!oursReads || !peerReads) {
    std::fprintf(stderr, "the card's code was not read in the benchmark frame (ours %d, peer %d)\n",
                 oursReads, peerReads);
    return 1;
  }
  emptyFrame();
  bool turnedRead = false;
  for (const auto& o : kwq::platform::readCodes(turnedFrame().nv12, kPdf417))
    turnedRead =
        turnedRead || dynamic_cast<const kwq::MetadataMachineReadableCodeObject&>(*o).stringValue ==
                          turnedFrame().text;
  if (!turnedRead) std::fprintf(stderr, "note: ours did not read the turned card's code\n");
  const kwq::bench::BenchCase cases[] = {{"ours/card/pdf417", oursCardPdf417},
                                         {"ours/card/pdf417+qr", oursCardBoth},
                                         {"peer/card", peerCard},
                                         {"ours/empty/pdf417", oursEmptyPdf417},
                                         {"ours/empty/pdf417+qr", oursEmptyBoth},
                                         {"peer/empty", peerEmpty},
                                         {"level-only/empty/pdf417", levelEmptyPdf417},
                                         {"ours/turned/pdf417", oursTurnedPdf417},
                                         {"ours/turned/pdf417+qr", oursTurnedBoth},
                                         {"peer/turned", peerTurned}};
  kwq::bench::registerRepeated(cases);
  // CPU time, because the machines this runs on are shared: wall time also counts the moments
  // another process holds the core.
  kwq::bench::MedianReporter reporter(kwq::bench::MedianOf::CpuTime);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  kwq::bench::printMedianTable(reporter, kRows);
  benchmark::Shutdown();
  return 0;
}

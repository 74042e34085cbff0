// Read rate of the code reader by the symbol's turn in the picture, beside zxing-cpp's
// ReadBarcodes with its default hints (try harder, try rotate, downscale; every format) on
// the same pictures, and the reader with its bar-region search switched off.
//
// Pictures: opencv-doc photographs filling 1280 x 720, with a symbol from zxing-cpp's writer
// printed into them: PDF417 on a licence card (an AAMVA record; a shorter text where the
// record's symbol would not fit the picture at that module size) and QR alone or on a card,
// turned 0 to 355 degrees in 5 degree steps, modules 1.5 to 4 pixels, tilted out of the
// plane by up to 30 degrees about a random axis, soft (sigma 0.4 to 1.0), noisy (1 to 4 gray
// levels), every third picture with glare. Each picture is read as a 420f frame by ours and
// as BGRA by zxing. A read counts when an object of the right type carries the printed text.
// "corner err" is the worst distance, in modules, between a corner ours reports and the
// printed one (largest over the reads of that row).
//
//   cmake --build build --target code_read_rate && build/bench/code_read_rate [samples]
//
// samples (default 2) is the number of pictures per angle and module size for each kind.

#define ZX_USE_UTF8

#include <ZXing/ReadBarcode.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>

#include "platform/vision/code_reader.h"
#include "tests/support/code_scenes.h"

namespace {

using kwq::test::CodeKind;

constexpr int kWidth = 1280, kHeight = 720;
const std::vector<std::string> kBoth{std::string(kwq::AVMetadataObjectTypePDF417Code),
                                     std::string(kwq::AVMetadataObjectTypeQRCode)};
constexpr double kModules[] = {1.5, 2, 2.5, 3, 4};

double cpuMs() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

struct Tally {
  int total = 0, ours = 0, noLocator = 0, peer = 0;
  double worstCorner = 0;  // modules
  double oursMs = 0, peerMs = 0;
};

std::string randomText(std::mt19937& rng, size_t length) {
  static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789 <>-/";
  std::string s;
  for (size_t i = 0; i < length; ++i) s += kChars[rng() % (sizeof(kChars) - 1)];
  return s;
}

// The worst corner distance in pixels, label for label (printed: top left, top right, bottom
// right, bottom left; reported: bottom left, bottom right, top right, top left).
double cornerError(const kwq::MetadataMachineReadableCodeObject& code,
                   const std::array<cv::Point2d, 4>& printed) {
  if (code.corners.size() != 4) return 1e9;
  double worst = 0;
  for (size_t i = 0; i < 4; ++i) {
    const cv::Point2d truth = printed[3 - i];
    worst = std::max(worst, std::hypot(code.corners[i].x * kWidth - truth.x,
                                       code.corners[i].y * kHeight - truth.y));
  }
  return worst;
}

void print(const char* title, const std::map<int, Tally>& byAngle, const Tally& all) {
  std::printf(
      "\n%s\nturn deg | pictures | ours | ours without bar regions | zxing ReadBarcodes "
      "| ours/upright | worst corner err (modules) | ours ms | zxing ms\n",
      title);
  const Tally& upright = byAngle.at(0);
  const double uprightRate = upright.total ? double(upright.ours) / upright.total : 0;
  auto row = [&](const std::string& label, const Tally& t) {
    const double rate = t.total ? double(t.ours) / t.total : 0;
    std::printf("%s | %d | %d (%.0f%%) | %d | %d (%.0f%%) | %.2f | %.2f | %.1f | %.1f\n",
                label.c_str(), t.total, t.ours, 100 * rate, t.noLocator, t.peer,
                t.total ? 100.0 * t.peer / t.total : 0.0, uprightRate > 0 ? rate / uprightRate : 0,
                t.worstCorner, t.total ? t.oursMs / t.total : 0, t.total ? t.peerMs / t.total : 0);
  };
  for (const auto& [angle, t] : byAngle) row(std::to_string(angle), t);
  row("all", all);
}

}  // namespace

int main(int argc, char** argv) {
  const int samples = argc > 1 ? std::max(1, std::atoi(argv[1])) : 2;
  cv::setNumThreads(1);
  kwq::platform::CodeReaderSettings noLocator;
  noLocator.maxLocatedRegions = 0;

  std::vector<cv::Mat> photos;
  for (const char* name : {"building.jpg", "messi5.jpg", "baboon.jpg", "fruits.jpg", "home.jpg",
                           "board.jpg", "stuff.jpg", "aero1.jpg", "graf1.png", "left01.jpg"}) {
    cv::Mat p = kwq::test::loadPhoto(KWQ_SAMPLE_DATA_DIR, name, kWidth, kHeight);
    if (!p.empty()) photos.push_back(p);
  }
  if (photos.empty()) {
    std::fprintf(stderr, "no opencv-doc photographs under %s\n", KWQ_SAMPLE_DATA_DIR);
    return 1;
  }

  std::mt19937 rng(11);
  std::uniform_real_distribution<double> unit(0, 1);
  // [kind][module >= 2] by angle.
  std::map<int, Tally> byAngle[2][2];
  Tally all[2][2];
  int n = 0;
  for (int angle = 0; angle < 360; angle += 5) {
    for (double module : kModules) {
      for (int s = 0; s < samples; ++s) {
        for (CodeKind kind : {CodeKind::PDF417, CodeKind::QR}) {
          const bool qr = kind == CodeKind::QR;
          kwq::test::CodePose pose;
          pose.modulePixels = module;
          pose.rotationDeg = angle;
          pose.tiltDeg = 30 * unit(rng);
          pose.tiltAxisDeg = 180 * unit(rng);
          pose.card = !qr || s % 2 == 0;
          pose.glare = n % 3 == 0 ? 40 + 80 * unit(rng) : 0;
          pose.blurSigma = 0.4 + 0.6 * unit(rng);
          pose.noiseSigma = 1 + 3 * unit(rng);
          pose.seed = rng();
          ++n;
          // The longest text whose card fits the picture at any turn.
          std::string text = qr ? randomText(rng, 20 + rng() % 100) : kwq::test::aamvaRecord(rng());
          cv::Mat symbol;
          double reach = 0;
          for (;;) {
            symbol = kwq::test::writeSymbol(kind, text);
            const double cardW = (symbol.cols + 8) * 1.15 * module;
            const double cardH = std::max(cardW / 1.5926, (symbol.rows + 8 + 24) * module);
            reach = 0.5 * std::hypot(cardW, cardH);
            if (2 * reach < kHeight - 8 || text.size() < 12) break;
            text = randomText(rng, text.size() * 2 / 3);
          }
          pose.centre = {reach + unit(rng) * std::max(0.0, kWidth - 2 * reach),
                         reach + unit(rng) * std::max(0.0, kHeight - 2 * reach)};
          const auto printed = kwq::test::printSymbol(photos[n % photos.size()], symbol, pose);
          const kwq::SampleBuffer frame(
              kwq::test::frameFromBgra(printed.bgra, kwq::kPixelFormat420f));
          const std::string_view type =
              qr ? kwq::AVMetadataObjectTypeQRCode : kwq::AVMetadataObjectTypePDF417Code;

          Tally& t = byAngle[qr][module >= 2][angle];
          Tally& a = all[qr][module >= 2];
          ++t.total, ++a.total;
          double start = cpuMs();
          const auto objects = kwq::platform::readCodes(frame, kBoth);
          const double oursMs = cpuMs() - start;
          t.oursMs += oursMs, a.oursMs += oursMs;
          for (const auto& o : objects) {
            const auto& code = dynamic_cast<const kwq::MetadataMachineReadableCodeObject&>(*o);
            if (code.type != type || code.stringValue != text) continue;
            ++t.ours, ++a.ours;
            const double err = cornerError(code, printed.corners) / module;
            t.worstCorner = std::max(t.worstCorner, err);
            a.worstCorner = std::max(a.worstCorner, err);
            break;
          }
          for (const auto& o : kwq::platform::readCodes(frame, kBoth, noLocator)) {
            const auto& code = dynamic_cast<const kwq::MetadataMachineReadableCodeObject&>(*o);
            if (code.type == type && code.stringValue == text) {
              ++t.noLocator, ++a.noLocator;
              break;
            }
          }
          start = cpuMs();
          const auto results =
              ZXing::ReadBarcodes({printed.bgra.data, kWidth, kHeight, ZXing::ImageFormat::BGRX,
                                   int(printed.bgra.step[0])});
          const double peerMs = cpuMs() - start;
          t.peerMs += peerMs, a.peerMs += peerMs;
          for (const auto& r : results)
            if (r.text() == text) {
              ++t.peer, ++a.peer;
              break;
            }
        }
      }
    }
  }
  print("PDF417 on a card, modules 2 to 4 px", byAngle[0][1], all[0][1]);
  print("PDF417 on a card, modules 1.5 px", byAngle[0][0], all[0][0]);
  print("QR, modules 2 to 4 px", byAngle[1][1], all[1][1]);
  print("QR, modules 1.5 px", byAngle[1][0], all[1][0]);
  return 0;
}

#include "tests/support/code_scenes.h"

#include <ZXing/BitMatrix.h>
#include <ZXing/CharacterSet.h>
#include <ZXing/MultiFormatWriter.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <random>

namespace kwq::test {

namespace {
constexpr int kQuietModules = 4;
constexpr double kInk = 30, kPaper = 220;
}  // namespace

cv::Mat writeSymbol(CodeKind kind, const std::string& text, bool binary) {
  try {
    ZXing::MultiFormatWriter writer(kind == CodeKind::QR ? ZXing::BarcodeFormat::QRCode
                                                         : ZXing::BarcodeFormat::PDF417);
    writer.setMargin(0);
    ZXing::BitMatrix m;
    if (binary) {
      writer.setEncoding(ZXing::CharacterSet::BINARY);
      std::wstring bytes;
      for (unsigned char c : text) bytes.push_back(static_cast<wchar_t>(c));
      m = writer.encode(bytes, 0, 0);
    } else {
      writer.setEncoding(ZXing::CharacterSet::UTF8);
      m = writer.encode(text, 0, 0);
    }
    cv::Mat out(m.height(), m.width(), CV_8UC1);
    for (int y = 0; y < m.height(); ++y)
      for (int x = 0; x < m.width(); ++x) out.at<uint8_t>(y, x) = m.get(x, y) ? 0 : 255;
    return out;
  } catch (...) {
    return {};
  }
}

std::string aamvaRecord(uint64_t seed) {
  std::mt19937_64 rng(seed);
  auto pick = [&](std::initializer_list<const char*> words) {
    return std::string(*(words.begin() + rng() % words.size()));
  };
  auto digits = [&](int n) {
    std::string s;
    for (int i = 0; i < n; ++i) s += static_cast<char>('0' + rng() % 10);
    return s;
  };
  auto date = [&](int from, int span) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%02d%02d%04d", 1 + int(rng() % 12), 1 + int(rng() % 28),
                  from + int(rng() % span));
    return std::string(buf);
  };
  std::string fields;
  auto field = [&](const char* id, const std::string& value) { fields += id + value + "\n"; };
  field("DCA", pick({"C", "D", "M", "A"}));
  field("DCB", pick({"NONE", "B", "1"}));
  field("DCD", pick({"NONE", "M"}));
  field("DBA", date(2027, 8));
  field("DCS", pick({"SAMPLE", "MUSTERMANN", "NGUYEN", "OKONKWO-SMITH", "DE LA CRUZ"}));
  field("DAC", pick({"JANE", "JOHN", "MARIA", "KWAME", "YUKI"}));
  field("DAD", pick({"NONE", "ANN", "LEE"}));
  field("DBD", date(2018, 8));
  field("DBB", date(1940, 60));
  field("DBC", pick({"1", "2", "9"}));
  field("DAY", pick({"BRO", "BLU", "GRN", "HAZ"}));
  field("DAU", digits(1) == "0" ? "070 IN" : "0" + digits(2) + " IN");
  field("DAG", digits(3 + rng() % 2) + " " + pick({"MAIN ST", "OAK AVE", "ELM DR", "PARK RD"}));
  field("DAI", pick({"ANYTOWN", "SPRINGFIELD", "RIVERTON"}));
  field("DAJ", pick({"CA", "NY", "TX", "VA", "WA"}));
  field("DAK", digits(5) + "0000  ");
  field("DAQ", pick({"D", "S", "K", "T"}) + digits(7 + rng() % 2));
  field("DCF", digits(10 + rng() % 10));
  field("DCG", "USA");
  field("DDE", "N");
  field("DDF", "N");
  field("DDG", "N");
  fields.back() = '\r';
  const std::string subfile = "DL" + fields;
  char header[64];
  // Header, then the one subfile's designator: type, offset and length.
  std::snprintf(header, sizeof header, "@\n\x1e\rANSI 636%03d%02d%02d01DL%04d%04d",
                int(rng() % 100), 8 + int(rng() % 3), int(rng() % 5), 31, int(subfile.size()));
  return header + subfile;
}

namespace {

// A point of the flat symbol (centred coordinates) turned out of the picture's plane about an
// axis through the centre and seen by a pinhole camera whose focal length is kFocal pixels.
constexpr double kFocal = 1000;

cv::Point2d tilted(cv::Point2d p, double tiltRad, double axisRad) {
  const double ax = std::cos(axisRad), ay = std::sin(axisRad);
  const double along = ax * p.x + ay * p.y, c = std::cos(tiltRad);
  const double x = p.x * c + ax * along * (1 - c), y = p.y * c + ay * along * (1 - c);
  const double z = (ax * p.y - ay * p.x) * std::sin(tiltRad);
  const double k = kFocal / (kFocal + z);
  return {x * k, y * k};
}

// The symbol with its quiet zone, alone or on a card, at `scale` pixels per module; `inner`
// receives the symbol's corners (pixel-edge coordinates of the canvas).
cv::Mat canvasFor(const cv::Mat& symbol, int scale, bool card, uint64_t seed,
                  std::array<cv::Point2d, 4>& inner) {
  cv::Mat padded;
  cv::copyMakeBorder(symbol, padded, kQuietModules, kQuietModules, kQuietModules, kQuietModules,
                     cv::BORDER_CONSTANT, 255);
  cv::Mat big;
  cv::resize(padded, big, cv::Size(), scale, scale, cv::INTER_NEAREST);
  cv::Point2d offset(0, 0);
  if (card) {
    // A licence's back: the symbol across most of the card's width near its bottom, lines of
    // small print above it.
    const int w = static_cast<int>(big.cols * 1.15);
    const int h = std::max(static_cast<int>(w / 1.5926), big.rows + 6 * scale * 4);
    cv::Mat paper(h, w, CV_8UC1, cv::Scalar(255));
    offset = {double(w - big.cols) / 2, double(h - big.rows - scale * 3)};
    big.copyTo(paper(cv::Rect(int(offset.x), int(offset.y), big.cols, big.rows)));
    std::mt19937 rng(static_cast<uint32_t>(seed));
    const double textScale = 0.3 * scale;
    int y = static_cast<int>(12 * textScale * 1.6);
    for (int line = 0; y < offset.y - 4 && line < 8; ++line, y += int(12 * textScale * 2.2)) {
      std::string words;
      for (int i = 0; i < 4 + int(rng() % 5); ++i)
        words +=
            std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789").substr(rng() % 30, 3 + rng() % 5) +
            " ";
      cv::putText(paper, words, cv::Point(int(w * 0.06), y), cv::FONT_HERSHEY_SIMPLEX, textScale,
                  cv::Scalar(40), std::max(1, scale / 2), cv::LINE_AA);
    }
    big = paper;
  }
  const double q = kQuietModules * scale;
  inner = {offset + cv::Point2d(q, q), offset + cv::Point2d(q + symbol.cols * scale, q),
           offset + cv::Point2d(q + symbol.cols * scale, q + symbol.rows * scale),
           offset + cv::Point2d(q, q + symbol.rows * scale)};
  return big;
}

}  // namespace

PrintedCode printSymbol(const cv::Mat& bgra, const cv::Mat& symbol, const CodePose& pose) {
  // The symbol (or its card) at a whole number of pixels per module (nearest-neighbour
  // enlargement keeps modules crisp), then warped into place.
  const int scale = std::max(1, static_cast<int>(std::ceil(pose.modulePixels)));
  std::array<cv::Point2d, 4> innerEdge;
  const cv::Mat big = canvasFor(symbol, scale, pose.card, pose.seed, innerEdge);
  cv::Mat ink;
  big.convertTo(ink, CV_32F, (kPaper - kInk) / 255.0, kInk);

  // Canvas pixels are placed about the symbol's centre: shortened at the top for the keystone,
  // turned in the plane, then tilted out of it.
  const double k = pose.modulePixels / scale;  // final pixels per enlarged pixel
  const cv::Point2d mid = 0.5 * (innerEdge[0] + innerEdge[2]);
  const double top = 1.0 - std::clamp(pose.keystone, 0.0, 0.5);
  const double a = pose.rotationDeg * CV_PI / 180.0;
  const double tilt = pose.tiltDeg * CV_PI / 180.0, axis = pose.tiltAxisDeg * CV_PI / 180.0;
  const double halfH = 0.5 * big.rows * k;
  auto place = [&](cv::Point2d canvasEdge) {
    cv::Point2d p = (canvasEdge - mid) * k;
    // Keystone: rows shrink linearly from full width at the bottom edge to `top` at the top.
    const double t = std::clamp((p.y + halfH) / (2 * halfH), 0.0, 1.0);  // 0 top, 1 bottom
    p.x *= top + (1 - top) * t;
    p = {p.x * std::cos(a) - p.y * std::sin(a), p.x * std::sin(a) + p.y * std::cos(a)};
    return pose.centre + tilted(p, tilt, axis);
  };
  // OpenCV maps pixel centres; corners in pixel-edge coordinates sit half a pixel out.
  cv::Point2f src[4], dst[4];
  const cv::Point2d srcEdge[4] = {
      {0, 0}, {double(big.cols), 0}, {double(big.cols), double(big.rows)}, {0, double(big.rows)}};
  for (int i = 0; i < 4; ++i) {
    src[i] = cv::Point2f(srcEdge[i].x - 0.5, srcEdge[i].y - 0.5);
    const cv::Point2d d = place(srcEdge[i]);
    dst[i] = cv::Point2f(d.x - 0.5, d.y - 0.5);
  }
  const cv::Mat M = cv::getPerspectiveTransform(src, dst);

  PrintedCode out;
  std::vector<cv::Point2f> inner, mapped;
  for (const cv::Point2d& p : innerEdge) inner.emplace_back(float(p.x - 0.5), float(p.y - 0.5));
  cv::perspectiveTransform(inner, mapped, M);
  for (int i = 0; i < 4; ++i) out.corners[i] = {mapped[i].x + 0.5, mapped[i].y + 0.5};

  cv::Mat warped, mask;
  cv::warpPerspective(ink, warped, M, bgra.size(), cv::INTER_AREA, cv::BORDER_CONSTANT, 0);
  cv::warpPerspective(cv::Mat(big.size(), CV_32F, cv::Scalar(1)), mask, M, bgra.size(),
                      cv::INTER_LINEAR, cv::BORDER_CONSTANT, 0);
  if (pose.glare > 0) {
    // A soft highlight off the symbol's middle, a third of its width across.
    const cv::Point2d c =
        0.25 * (out.corners[0] + out.corners[1] + out.corners[2] + out.corners[3]) +
        0.15 * (out.corners[1] - out.corners[0]);
    const double sigma = 0.18 * cv::norm(out.corners[1] - out.corners[0]) + 1;
    for (int y = 0; y < warped.rows; ++y)
      for (int x = 0; x < warped.cols; ++x) {
        const double r2 = (x - c.x) * (x - c.x) + (y - c.y) * (y - c.y);
        if (r2 < 16 * sigma * sigma)
          warped.at<float>(y, x) += float(pose.glare * std::exp(-r2 / (2 * sigma * sigma)));
      }
  }
  cv::Mat photo;
  bgra.convertTo(photo, CV_32FC4);
  std::vector<cv::Mat> channels;
  cv::split(photo, channels);
  for (int c = 0; c < 3; ++c) channels[c] = channels[c].mul(1.0 - mask) + warped.mul(mask);
  cv::merge(channels, photo);
  if (pose.blurSigma > 0) cv::GaussianBlur(photo, photo, cv::Size(), pose.blurSigma);
  if (pose.noiseSigma > 0) {
    cv::Mat noise(photo.size(), CV_32FC1);
    cv::RNG rng(pose.seed);
    rng.fill(noise, cv::RNG::NORMAL, 0, pose.noiseSigma);
    cv::Mat noise4;
    cv::merge(std::vector<cv::Mat>{noise, noise, noise, cv::Mat::zeros(noise.size(), CV_32F)},
              noise4);
    photo += noise4;
  }
  photo.convertTo(out.bgra, CV_8UC4);
  return out;
}

cv::Mat loadPhoto(const std::string& dir, const std::string& name, int width, int height) {
  const cv::Mat bgr = cv::imread(dir + "/" + name, cv::IMREAD_COLOR);
  if (bgr.empty()) return {};
  const double s = std::max(double(width) / bgr.cols, double(height) / bgr.rows);
  cv::Mat scaled;
  cv::resize(bgr, scaled, cv::Size(), s, s, s < 1 ? cv::INTER_AREA : cv::INTER_CUBIC);
  const cv::Rect crop((scaled.cols - width) / 2, (scaled.rows - height) / 2, width, height);
  cv::Mat bgra;
  cv::cvtColor(scaled(crop), bgra, cv::COLOR_BGR2BGRA);
  return bgra;
}

PixelBuffer frameFromBgra(const cv::Mat& bgra, uint32_t format, size_t rowAlignment) {
  PixelBuffer b = PixelBuffer::allocate(format, bgra.cols, bgra.rows, rowAlignment);
  if (b.isNull()) return b;
  b.lockBaseAddress();
  if (format == kPixelFormatBGRA) {
    for (int y = 0; y < bgra.rows; ++y)
      std::memcpy(b.baseAddressOfPlane(0) + y * b.bytesPerRowOfPlane(0), bgra.ptr(y),
                  static_cast<size_t>(bgra.cols) * 4);
  } else {
    // BT.601 full range from OpenCV, squeezed into 16..235 / 16..240 for video range.
    cv::Mat bgr, ycrcb;
    cv::cvtColor(bgra, bgr, cv::COLOR_BGRA2BGR);
    cv::cvtColor(bgr, ycrcb, cv::COLOR_BGR2YCrCb);
    std::vector<cv::Mat> p;
    cv::split(ycrcb, p);
    if (format == kPixelFormat420v) {
      p[0].convertTo(p[0], CV_8U, 219.0 / 255.0, 16);
      for (int c = 1; c < 3; ++c)
        p[c].convertTo(p[c], CV_8U, 224.0 / 255.0, 128 - 112.0 * 128 / 127.5);
    }
    const cv::Size half(static_cast<int>(b.widthOfPlane(1)), static_cast<int>(b.heightOfPlane(1)));
    cv::Mat cr, cb;
    cv::resize(p[1], cr, half, 0, 0, cv::INTER_AREA);
    cv::resize(p[2], cb, half, 0, 0, cv::INTER_AREA);
    for (int y = 0; y < bgra.rows; ++y)
      std::memcpy(b.baseAddressOfPlane(0) + y * b.bytesPerRowOfPlane(0), p[0].ptr(y), bgra.cols);
    for (int y = 0; y < half.height; ++y) {
      uint8_t* row = b.baseAddressOfPlane(1) + y * b.bytesPerRowOfPlane(1);
      for (int x = 0; x < half.width; ++x) {
        row[2 * x] = cb.at<uint8_t>(y, x);
        row[2 * x + 1] = cr.at<uint8_t>(y, x);
      }
    }
  }
  b.unlockBaseAddress();
  return b;
}

}  // namespace kwq::test

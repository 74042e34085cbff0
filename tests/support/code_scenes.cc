#include "tests/support/code_scenes.h"

#include <ZXing/BitMatrix.h>
#include <ZXing/CharacterSet.h>
#include <ZXing/MultiFormatWriter.h>

#include <cmath>
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

PrintedCode printSymbol(const cv::Mat& bgra, const cv::Mat& symbol, const CodePose& pose) {
  // The symbol with its quiet zone at a whole number of pixels per module (nearest-neighbour
  // enlargement keeps modules crisp), then warped into place.
  const int scale = std::max(1, static_cast<int>(std::ceil(pose.modulePixels)));
  cv::Mat padded;
  cv::copyMakeBorder(symbol, padded, kQuietModules, kQuietModules, kQuietModules, kQuietModules,
                     cv::BORDER_CONSTANT, 255);
  cv::Mat big;
  cv::resize(padded, big, cv::Size(), scale, scale, cv::INTER_NEAREST);
  cv::Mat ink;
  big.convertTo(ink, CV_32F, (kPaper - kInk) / 255.0, kInk);

  // Target corners of the padded symbol: a rectangle of the pose's module size around the
  // centre, its top edge shortened for the keystone, then rotated.
  const double k = pose.modulePixels / scale;  // final pixels per enlarged pixel
  const double w = big.cols * k, h = big.rows * k;
  const double top = 1.0 - std::clamp(pose.keystone, 0.0, 0.5);
  const cv::Point2d local[4] = {
      {-w / 2 * top, -h / 2}, {w / 2 * top, -h / 2}, {w / 2, h / 2}, {-w / 2, h / 2}};
  const double a = pose.rotationDeg * CV_PI / 180.0;
  auto place = [&](cv::Point2d p) {
    return cv::Point2d(pose.centre.x + p.x * std::cos(a) - p.y * std::sin(a),
                       pose.centre.y + p.x * std::sin(a) + p.y * std::cos(a));
  };
  // OpenCV maps pixel centres; corners in pixel-edge coordinates sit half a pixel out.
  cv::Point2f src[4], dst[4];
  const cv::Point2d srcEdge[4] = {
      {0, 0}, {double(big.cols), 0}, {double(big.cols), double(big.rows)}, {0, double(big.rows)}};
  for (int i = 0; i < 4; ++i) {
    src[i] = cv::Point2f(srcEdge[i].x - 0.5, srcEdge[i].y - 0.5);
    const cv::Point2d d = place(local[i]);
    dst[i] = cv::Point2f(d.x - 0.5, d.y - 0.5);
  }
  const cv::Mat M = cv::getPerspectiveTransform(src, dst);

  PrintedCode out;
  const double q = kQuietModules * scale;
  std::vector<cv::Point2f> inner = {{float(q - 0.5), float(q - 0.5)},
                                    {float(big.cols - q - 0.5), float(q - 0.5)},
                                    {float(big.cols - q - 0.5), float(big.rows - q - 0.5)},
                                    {float(q - 0.5), float(big.rows - q - 0.5)}},
                           mapped;
  cv::perspectiveTransform(inner, mapped, M);
  for (int i = 0; i < 4; ++i) out.corners[i] = {mapped[i].x + 0.5, mapped[i].y + 0.5};

  cv::Mat warped, mask;
  cv::warpPerspective(ink, warped, M, bgra.size(), cv::INTER_AREA, cv::BORDER_CONSTANT, 0);
  cv::warpPerspective(cv::Mat(big.size(), CV_32F, cv::Scalar(1)), mask, M, bgra.size(),
                      cv::INTER_LINEAR, cv::BORDER_CONSTANT, 0);
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

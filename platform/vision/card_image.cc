// Flattening the card with OpenCV: one perspective warp of each plane straight from the frame,
// so a 420f frame is never converted whole; only the flattened card is turned into colours.

#include "platform/vision/card_image.h"

#include <algorithm>
#include <cmath>
#include <exception>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace kwq::platform {
namespace {

constexpr size_t kMinWidth = 64;
constexpr size_t kMaxWidth = 4096;
// Sharpness and light are measured on the card reduced by this factor (100 pixels wide by
// default): well below the resolution at which even a small card (a third of a 720p frame)
// was filmed, so that the bilinear warp's softening of small cards does not reach the score
// and it does not depend on the card's size in the frame.
constexpr int kMeasureReduction = 10;
// Border of the reduced card left out of the sharpness and light measures: the outline's
// antialiased pixels and whatever of the background the quad takes in.
constexpr double kInnerMargin = 0.04;

cv::Matx33d translate(double dx, double dy) {
  return {1, 0, dx, 0, 1, dy, 0, 0, 1};
}
cv::Matx33d scale(double s) {
  return {s, 0, 0, 0, s, 0, 0, 0, 1};
}

const cv::Mat& videoRangeLuma() {
  static const cv::Mat lut = [] {
    cv::Mat t(1, 256, CV_8UC1);
    for (int i = 0; i < 256; ++i)
      t.at<uint8_t>(i) = cv::saturate_cast<uint8_t>(16 + i * 219.0 / 255.0);
    return t;
  }();
  return lut;
}
const cv::Mat& videoRangeChroma() {
  static const cv::Mat lut = [] {
    cv::Mat t(1, 256, CV_8UC1);
    for (int i = 0; i < 256; ++i)
      t.at<uint8_t>(i) = cv::saturate_cast<uint8_t>(128 + (i - 128) * 224.0 / 255.0);
    return t;
  }();
  return lut;
}

bool is420(uint32_t format) {
  return format == kPixelFormat420f || format == kPixelFormat420v;
}

// Releases a read-only lock when the function leaves.
struct ReadLock {
  const PixelBuffer& buffer;
  bool locked;
  explicit ReadLock(const PixelBuffer& b)
      : buffer(b), locked(b.lockBaseAddress(kPixelBufferLockReadOnly)) {}
  ~ReadLock() {
    if (locked) buffer.unlockBaseAddress(kPixelBufferLockReadOnly);
  }
};

cv::Mat plane(const PixelBuffer& b, size_t i, int type) {
  return cv::Mat(static_cast<int>(b.heightOfPlane(i)), static_cast<int>(b.widthOfPlane(i)), type,
                 b.baseAddressOfPlane(i), b.bytesPerRowOfPlane(i));
}

// The mean gray level of `gray` with its highlights left out: a hotspot, and the halo around
// it out to twice its radius, tell nothing of the exposure and would lift a dim card over the
// dark threshold. `all` (the mean of every pixel) when highlights cover most of the picture.
double unlitMean(const cv::Mat& gray, double glareLevel, double all) {
  cv::Mat lit;
  cv::compare(gray, cv::Scalar(std::clamp(glareLevel, 0.0, 255.0)), lit, cv::CMP_GE);
  const int count = cv::countNonZero(lit);
  if (count == 0) return all;
  const int reach = static_cast<int>(std::ceil(2.0 * std::sqrt(count / CV_PI)));
  cv::dilate(lit, lit,
             cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(2 * reach + 1, 2 * reach + 1)));
  cv::Mat unlit;
  cv::bitwise_not(lit, unlit);
  if (cv::countNonZero(unlit) * 4 < static_cast<int>(gray.total())) return all;
  return cv::mean(gray, unlit)[0];
}

void measure(const cv::Mat& gray, double glareLevel, CardImage& out) {
  cv::Mat small;
  cv::resize(gray, small, cv::Size(gray.cols / kMeasureReduction, gray.rows / kMeasureReduction), 0,
             0, cv::INTER_AREA);
  const int mx = static_cast<int>(small.cols * kInnerMargin);
  const int my = static_cast<int>(small.rows * kInnerMargin);
  const cv::Rect inner(mx, my, small.cols - 2 * mx, small.rows - 2 * my);
  cv::Mat lap;
  cv::Laplacian(small, lap, CV_16S, 1);
  cv::Scalar lm, ls, gm, gs;
  cv::meanStdDev(lap(inner), lm, ls);
  cv::meanStdDev(small(inner), gm, gs);
  const double rms = std::sqrt(lm[0] * lm[0] + ls[0] * ls[0]);
  out.sharpness = 100.0 * rms / std::max(gs[0], 1.0);
  out.brightness = unlitMean(small(inner), glareLevel, gm[0]);

  // Highlights on the full-size card: a small hotspot would be averaged away on the reduced one.
  cv::Mat glare;
  cv::compare(gray, cv::Scalar(std::clamp(glareLevel, 0.0, 255.0)), glare, cv::CMP_GE);
  const int count = cv::countNonZero(glare);
  out.glareFraction = static_cast<double>(count) / static_cast<double>(gray.total());
  if (count > 0) {
    const cv::Moments m = cv::moments(glare, true);
    out.glareCentre = {m.m10 / m.m00 + 0.5, m.m01 / m.m00 + 0.5};
    const cv::Rect box = cv::boundingRect(glare);
    out.glareBox = {1.0 * box.x, 1.0 * box.y, 1.0 * box.width, 1.0 * box.height};
  }
  out.measureGray =
      Image::copyFromBytes(PixelLayout::Gray8, small.cols, small.rows, small.step[0], small.data);
}

}  // namespace

size_t cardImageHeight(size_t width) {
  const size_t h = static_cast<size_t>(std::lround(static_cast<double>(width) * 54.0 / 86.0));
  return (h + 1) / 2 * 2;
}

std::optional<double> frameBrightness(const PixelBuffer& frame) {
  constexpr size_t kStep = 8;
  const uint32_t format = frame.pixelFormat();
  if (frame.isNull() || (!is420(format) && format != kPixelFormatBGRA)) return std::nullopt;
  ReadLock lock(frame);
  const uint8_t* base = lock.locked ? frame.baseAddressOfPlane(0) : nullptr;
  const size_t w = frame.widthOfPlane(0), h = frame.heightOfPlane(0);
  const size_t rowBytes = frame.bytesPerRowOfPlane(0);
  const size_t pixelBytes = is420(format) ? 1 : 4;
  if (!base || w == 0 || h == 0 || rowBytes < w * pixelBytes) return std::nullopt;
  double sum = 0;
  size_t count = 0;
  for (size_t y = kStep / 2; y < h; y += kStep) {
    const uint8_t* row = base + y * rowBytes;
    for (size_t x = kStep / 2; x < w; x += kStep, ++count) {
      const uint8_t* p = row + x * pixelBytes;
      // BT.601 luma of premultiplied BGRA; a 420 frame's luma plane as it is.
      sum += pixelBytes == 1 ? p[0] : 0.114 * p[0] + 0.587 * p[1] + 0.299 * p[2];
    }
  }
  if (count == 0) return std::nullopt;
  return sum / static_cast<double>(count);
}

std::optional<CardImage> flattenCard(const PixelBuffer& frame, const std::array<Point, 4>& corners,
                                     const CardImageSettings& settings) {
  try {
    const uint32_t format = frame.pixelFormat();
    if (frame.isNull() || (!is420(format) && format != kPixelFormatBGRA)) return std::nullopt;
    const size_t w = settings.width & ~size_t{1};
    if (w < kMinWidth || w > kMaxWidth) return std::nullopt;
    const size_t h = cardImageHeight(w);
    std::vector<cv::Point2f> src, dst;
    for (const Point& p : corners) {
      if (!std::isfinite(p.x) || !std::isfinite(p.y) || std::abs(p.x) > 1e6 || std::abs(p.y) > 1e6)
        return std::nullopt;
      src.emplace_back(static_cast<float>(p.x), static_cast<float>(p.y));
    }
    double area = 0;
    for (size_t i = 0; i < 4; ++i) area += src[i].cross(src[(i + 1) % 4]);
    if (std::abs(area) < 16.0) return std::nullopt;
    const float fw = static_cast<float>(w), fh = static_cast<float>(h);
    dst = {{0, 0}, {fw, 0}, {fw, fh}, {0, fh}};
    // Card to frame in continuous coordinates, then between pixel centres.
    const cv::Matx33d toFrame(cv::getPerspectiveTransform(dst, src));
    const cv::Matx33d lumaMap = translate(-0.5, -0.5) * toFrame * translate(0.5, 0.5);

    ReadLock lock(frame);
    if (!lock.locked) return std::nullopt;
    const cv::Size size(static_cast<int>(w), static_cast<int>(h));
    CardImage out;
    cv::Mat gray;
    if (is420(format)) {
      if (frame.planeCount() < 2 || frame.widthOfPlane(0) < 2 || frame.heightOfPlane(0) < 2 ||
          frame.widthOfPlane(1) < 1 || frame.heightOfPlane(1) < 1)
        return std::nullopt;
      cv::Mat y(size, CV_8UC1), uv(size / 2, CV_8UC2);
      cv::warpPerspective(plane(frame, 0, CV_8UC1), y, cv::Mat(lumaMap), size,
                          cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_REPLICATE);
      // A chroma pair covers 2 x 2 luma pixels: chroma centre j sits at luma 2j + 1.
      const cv::Matx33d chromaMap =
          translate(-0.5, -0.5) * scale(0.5) * toFrame * scale(2.0) * translate(0.5, 0.5);
      cv::warpPerspective(plane(frame, 1, CV_8UC2), uv, cv::Mat(chromaMap), uv.size(),
                          cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_REPLICATE);
      measure(y, settings.glareLevel, out);
      // OpenCV converts video-range BT.601; full-range planes are squeezed into that range
      // first (a rounding step of under one level).
      cv::Mat yv = y, uvv = uv;
      if (format == kPixelFormat420f) {
        yv = cv::Mat();
        uvv = cv::Mat();
        cv::LUT(y, videoRangeLuma(), yv);
        cv::LUT(uv, videoRangeChroma(), uvv);
      }
      std::vector<uint8_t> rgb(w * h * 3);
      cv::Mat rgbView(size, CV_8UC3, rgb.data());
      cv::cvtColorTwoPlane(yv, uvv, rgbView, cv::COLOR_YUV2RGB_NV12);
      out.card = Image::fromBuffer(PixelLayout::RGB24, w, h, w * 3, std::move(rgb));
    } else {
      cv::Mat bgra(size, CV_8UC4);
      cv::warpPerspective(plane(frame, 0, CV_8UC4), bgra, cv::Mat(lumaMap), size,
                          cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_REPLICATE);
      cv::cvtColor(bgra, gray, cv::COLOR_BGRA2GRAY);
      measure(gray, settings.glareLevel, out);
      out.card =
          Image::copyFromBytes(PixelLayout::BGRA32Premultiplied, w, h, bgra.step[0], bgra.data);
    }
    if (out.card.isNull()) return std::nullopt;
    return out;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace kwq::platform

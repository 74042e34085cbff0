#include "platform/media/synthetic_portrait.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include "platform/media/synthetic_motion.h"

namespace kwq::platform {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kFps = kSyntheticFrameRate;
// Seconds into the period at which the portrait starts to leave, is wholly out, starts back and
// is wholly back.
constexpr double kLeaveStart = 21.0, kGoneStart = 23.5, kReturnStart = 26.5, kBackAt = 29.0;

double smoothstep(double x) {
  x = std::clamp(x, 0.0, 1.0);
  return x * x * (3.0 - 2.0 * x);
}

cv::Matx33d translation(double x, double y) {
  return {1, 0, x, 0, 1, y, 0, 0, 1};
}

cv::Point2d apply(const cv::Matx33d& m, cv::Point2d p) {
  return {m(0, 0) * p.x + m(0, 1) * p.y + m(0, 2), m(1, 0) * p.x + m(1, 1) * p.y + m(1, 2)};
}

// The photograph's crop corners, in photograph coordinates.
std::array<cv::Point2d, 4> cropCorners() {
  const double x0 = kPortraitCropX, y0 = kPortraitCropY;
  const double x1 = x0 + kPortraitCropWidth, y1 = y0 + kPortraitCropHeight;
  return {cv::Point2d(x0, y0), cv::Point2d(x1, y0), cv::Point2d(x1, y1), cv::Point2d(x0, y1)};
}

}  // namespace

PortraitView portraitViewAt(uint64_t frameIndex, size_t width, size_t height) {
  const double w = static_cast<double>(width), h = static_cast<double>(height);
  const double t = static_cast<double>(frameIndex % kPortraitPeriodFrames) / kFps;
  const double ref = std::min(h, w / 1.8);

  PortraitView v;
  v.faceSide = ref * (0.31 - 0.19 * std::cos(2.0 * kPi * t / 15.0));
  v.rollDegrees = 40.0 * std::sin(2.0 * kPi * t / 10.0);
  const double scale = v.faceSide / kPortraitFaceSide;

  const double baseX = w / 2.0 + 0.22 * w * std::sin(2.0 * kPi * t / 30.0);
  const double baseY = h / 2.0 + 0.08 * h * std::sin(2.0 * kPi * t / 7.5);
  // Leaving: far enough right that the whole crop, whatever its roll, is past the edge.
  double radius = 0.0;
  for (const cv::Point2d& c : cropCorners())
    radius = std::max(radius, std::hypot(c.x - kPortraitFaceCentreX, c.y - kPortraitFaceCentreY));
  const double away = smoothstep((t - kLeaveStart) / (kGoneStart - kLeaveStart)) -
                      smoothstep((t - kReturnStart) / (kBackAt - kReturnStart));
  v.faceCentre = {baseX + away * (w - baseX + scale * radius + 2.0), baseY};

  // The photograph's head already leans a little; turn it by the rest.
  const double turn = (v.rollDegrees - kPortraitPhotoRollDegrees) * kPi / 180.0;
  const double c = std::cos(turn) * scale, s = std::sin(turn) * scale;
  // y points down, so this turns clockwise as seen for positive angles.
  const cv::Matx33d rotateScale(c, -s, 0, s, c, 0, 0, 0, 1);
  v.photoToPicture = translation(v.faceCentre.x, v.faceCentre.y) * rotateScale *
                     translation(-kPortraitFaceCentreX, -kPortraitFaceCentreY);
  return v;
}

void setPortraitTruth(const PortraitView& view, size_t width, size_t height,
                      SyntheticFrameTruth& truth) {
  const double half = view.faceSide / 2.0;
  const double a = view.rollDegrees * kPi / 180.0;
  const cv::Point2d across(std::cos(a), std::sin(a)), down(-std::sin(a), std::cos(a));
  const cv::Point2d c = view.faceCentre;
  const std::array<cv::Point2d, 4> q = {
      c - half * across - half * down, c + half * across - half * down,
      c + half * across + half * down, c - half * across + half * down};
  const double w = static_cast<double>(width), h = static_cast<double>(height);
  for (int i = 0; i < 4; ++i) truth.faceCorners[i] = {q[i].x, q[i].y};
  truth.faceBox = {{c.x - half, c.y - half}, {view.faceSide, view.faceSide}};
  truth.faceRollDegrees = view.rollDegrees;
  truth.faceVisible = visibleQuadArea(q, w, h) > 0.0;
  truth.faceFullyVisible = std::all_of(q.begin(), q.end(), [&](const cv::Point2d& p) {
    return p.x >= 0.0 && p.x <= w && p.y >= 0.0 && p.y <= h;
  });
}

PortraitPicture::PortraitPicture(const std::string& path) {
  try {
    const cv::Mat photo = cv::imread(path, cv::IMREAD_COLOR);
    const cv::Rect crop(kPortraitCropX, kPortraitCropY, kPortraitCropWidth, kPortraitCropHeight);
    if (photo.empty() || (crop & cv::Rect(0, 0, photo.cols, photo.rows)) != crop) return;
    cv::Mat level;
    cv::cvtColor(photo(crop), level, cv::COLOR_BGR2BGRA);
    // Halving levels (the crop's sides stay whole numbers down to 8 x 10), so a small face is
    // drawn from a level that is not much larger than it: no shimmering from skipped pixels.
    levels_.push_back(level);
    while (levels_.back().cols % 2 == 0 && levels_.back().rows % 2 == 0 &&
           levels_.back().cols >= 16 && levels_.back().rows >= 16) {
      cv::resize(levels_.back(), level, cv::Size(levels_.back().cols / 2, levels_.back().rows / 2),
                 0, 0, cv::INTER_AREA);
      levels_.push_back(level.clone());
    }
  } catch (const cv::Exception&) {
    levels_.clear();
  }
}

void PortraitPicture::draw(const PortraitView& view, cv::Mat& out) const {
  if (levels_.empty()) return;
  std::array<cv::Point2d, 4> q;
  for (int i = 0; i < 4; ++i) q[i] = apply(view.photoToPicture, cropCorners()[i]);
  double minX = q[0].x, maxX = q[0].x, minY = q[0].y, maxY = q[0].y;
  for (const cv::Point2d& p : q) {
    minX = std::min(minX, p.x);
    maxX = std::max(maxX, p.x);
    minY = std::min(minY, p.y);
    maxY = std::max(maxY, p.y);
  }
  auto clip = [](double v, int limit) { return static_cast<int>(std::clamp(v, 0.0, 1.0 * limit)); };
  const int x0 = clip(std::floor(minX) - 1.0, out.cols), x1 = clip(std::ceil(maxX) + 1.0, out.cols);
  const int y0 = clip(std::floor(minY) - 1.0, out.rows), y1 = clip(std::ceil(maxY) + 1.0, out.rows);
  if (x1 <= x0 || y1 <= y0) return;

  // The smallest level that still has a texel per picture pixel.
  const double scale = view.faceSide / kPortraitFaceSide;
  size_t k = 0;
  while (k + 1 < levels_.size() && std::ldexp(1.0, -static_cast<int>(k + 1)) >= scale) ++k;
  const double f = std::ldexp(1.0, -static_cast<int>(k));
  // Level pixel indices (centres at i + 0.5) to the box's pixel indices.
  const cv::Matx33d levelToPhoto = translation(kPortraitCropX, kPortraitCropY) *
                                   cv::Matx33d(1 / f, 0, 0, 0, 1 / f, 0, 0, 0, 1) *
                                   translation(0.5, 0.5);
  const cv::Matx33d m = translation(-0.5 - x0, -0.5 - y0) * view.photoToPicture * levelToPhoto;
  const cv::Matx23d affine(m(0, 0), m(0, 1), m(0, 2), m(1, 0), m(1, 1), m(1, 2));
  cv::Mat box = out(cv::Rect(x0, y0, x1 - x0, y1 - y0));
  // Transparent borders leave the background wherever the photograph does not reach.
  cv::warpAffine(levels_[k], box, affine, box.size(), cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
}

}  // namespace kwq::platform

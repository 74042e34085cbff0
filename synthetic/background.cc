#include "synthetic/background.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "synthetic/motion.h"

namespace kwq::synthetic {
namespace {

constexpr double kPi = 3.14159265358979323846;

// Smooth noise in [0, 1): random values on a coarse grid of about `cellsX` x `cellsY` cells,
// interpolated up to the full size.
cv::Mat smoothNoise(cv::RNG& rng, cv::Size size, int cellsX, int cellsY) {
  cv::Mat coarse(std::max(cellsY, 1) + 3, std::max(cellsX, 1) + 3, CV_32F);
  rng.fill(coarse, cv::RNG::UNIFORM, 0.0f, 1.0f);
  cv::Mat fine;
  cv::resize(coarse, fine, size, 0.0, 0.0, cv::INTER_CUBIC);
  return fine;
}

cv::Point point(cv::RNG& rng, cv::Size size) {
  return {rng.uniform(0, size.width), rng.uniform(0, size.height)};
}

// Things on the desk. Drawn with antialiasing so their edges look photographed, not drawn.
void drawClutter(cv::Mat& bgr, cv::RNG& rng, double ref) {
  const cv::Size size = bgr.size();
  auto px = [&](double v) { return std::max(1, static_cast<int>(std::lround(v * ref))); };

  // A coffee-cup ring: two thin concentric ellipses.
  const cv::Point ring = point(rng, size);
  const cv::Size axes(px(0.085), px(0.078));
  cv::ellipse(bgr, ring, axes, rng.uniform(0.0, 180.0), 0, 360, {34, 50, 72}, px(0.006),
              cv::LINE_AA);
  cv::ellipse(bgr, ring, axes - cv::Size(px(0.01), px(0.01)), 0, 20, 300, {44, 62, 86}, px(0.003),
              cv::LINE_AA);

  // Coins: a darker rim around a face.
  for (int i = 0; i < 3; ++i) {
    const cv::Point c = point(rng, size);
    const int r = px(rng.uniform(0.022, 0.032));
    cv::circle(bgr, c, r, {88, 104, 116}, cv::FILLED, cv::LINE_AA);
    cv::circle(bgr, c, r, {58, 70, 80}, px(0.004), cv::LINE_AA);
    cv::circle(bgr, c, r * 2 / 3, {76, 92, 104}, px(0.002), cv::LINE_AA);
  }

  // A cable: a long wavy curve.
  std::vector<cv::Point> cable;
  const double y0 = rng.uniform(0.2, 0.8) * size.height, amp = rng.uniform(0.05, 0.15) * ref;
  const double ph = rng.uniform(0.0, 2 * kPi), tilt = rng.uniform(-0.3, 0.3);
  for (int i = 0; i <= 64; ++i) {
    const double x = (i / 64.0) * size.width;
    cable.emplace_back(cv::saturate_cast<int>(x),
                       cv::saturate_cast<int>(y0 + tilt * x + amp * std::sin(x / ref * 7 + ph)));
  }
  cv::polylines(bgr, cable, false, {30, 31, 34}, px(0.008), cv::LINE_AA);

  // A pen: a thick bar with a rounded cap, a highlight along it and a clip.
  const cv::Point a = point(rng, size);
  const double angle = rng.uniform(0.0, 2 * kPi), length = 0.3 * ref;
  const cv::Point b(cv::saturate_cast<int>(a.x + length * std::cos(angle)),
                    cv::saturate_cast<int>(a.y + length * std::sin(angle)));
  cv::line(bgr, a, b, {96, 46, 30}, px(0.018), cv::LINE_AA);
  cv::line(bgr, a, b, {128, 78, 58}, px(0.004), cv::LINE_AA);
  cv::circle(bgr, b, px(0.006), {110, 112, 118}, cv::FILLED, cv::LINE_AA);
}

}  // namespace

cv::Mat makeBackground(size_t width, size_t height, uint64_t seed) {
  const int w = static_cast<int>(width), h = static_cast<int>(height);
  const cv::Size size(w, h);
  const double ref = std::min<double>(w, 1.8 * h);
  cv::RNG rng(mixBits(seed ^ 0xB4C6u));

  // Wood: grain lines slightly off horizontal, bent by medium-scale noise, with streaks of
  // lighter and darker wood and a broad light falloff towards the corners.
  const double grainAngle = rng.uniform(-0.15, 0.15);
  const double wavelength = std::max(ref / 42.0, 2.0);
  // Bends stretched along the grain keep the lines long, as sawn wood has them.
  const cv::Mat bend = smoothNoise(rng, size, std::max(w / 400, 2), std::max(h / 80, 2));
  const cv::Mat streaks = smoothNoise(rng, size, std::max(w / 300, 1), std::max(h / 6, 2));
  const cv::Mat light = smoothNoise(rng, size, 3, 2);
  cv::Mat grain(size, CV_32F);
  rng.fill(grain, cv::RNG::UNIFORM, -1.0f, 1.0f);

  cv::Mat bgr(size, CV_8UC3);
  const double ca = std::cos(grainAngle), sa = std::sin(grainAngle);
  for (int y = 0; y < h; ++y) {
    const float* bendRow = bend.ptr<float>(y);
    const float* streakRow = streaks.ptr<float>(y);
    const float* lightRow = light.ptr<float>(y);
    const float* grainRow = grain.ptr<float>(y);
    cv::Vec3b* out = bgr.ptr<cv::Vec3b>(y);
    const double ny = (y + 0.5) / h - 0.5;
    for (int x = 0; x < w; ++x) {
      const double nx = (x + 0.5) / w - 0.5;
      const double along = y * ca - x * sa + 2.5 * wavelength * bendRow[x];
      const double ring = std::pow(0.5 + 0.5 * std::sin(2 * kPi * along / wavelength), 3.0);
      const double vignette = 1.0 - 0.55 * (nx * nx + ny * ny);
      const double v = (0.78 + 0.3 * streakRow[x] - 0.16 * ring + 0.25 * lightRow[x]) * vignette +
                       0.025 * grainRow[x];
      out[x] = cv::Vec3b(cv::saturate_cast<uchar>(58 * v), cv::saturate_cast<uchar>(88 * v),
                         cv::saturate_cast<uchar>(122 * v));
    }
  }
  drawClutter(bgr, rng, ref);
  cv::Mat bgra;
  cv::cvtColor(bgr, bgra, cv::COLOR_BGR2BGRA);
  return bgra;
}

cv::Mat makeWall(size_t width, size_t height, uint64_t seed) {
  const int w = static_cast<int>(width), h = static_cast<int>(height);
  const cv::Size size(w, h);
  cv::RNG rng(mixBits(seed ^ 0x3A11u));
  const cv::Mat light = smoothNoise(rng, size, 2, 2);
  const cv::Mat plaster = smoothNoise(rng, size, std::max(w / 6, 2), std::max(h / 6, 2));
  cv::Mat bgra(size, CV_8UC4);
  for (int y = 0; y < h; ++y) {
    const float* lightRow = light.ptr<float>(y);
    const float* plasterRow = plaster.ptr<float>(y);
    cv::Vec4b* out = bgra.ptr<cv::Vec4b>(y);
    const double ny = (y + 0.5) / h;
    for (int x = 0; x < w; ++x) {
      const double v = 100.0 + 14.0 * lightRow[x] + 6.0 * plasterRow[x] + 8.0 * (1.0 - ny);
      out[x] = cv::Vec4b(cv::saturate_cast<uchar>(v * 1.02), cv::saturate_cast<uchar>(v),
                         cv::saturate_cast<uchar>(v * 0.97), 255);
    }
  }
  return bgra;
}

}  // namespace kwq::synthetic

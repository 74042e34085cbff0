#include "platform/media/synthetic_motion.h"

#include <vector>

#include <algorithm>
#include <cmath>

#include "platform/media/synthetic_card.h"

namespace kwq::platform {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kFps = 30.0;
constexpr double kDeg = kPi / 180.0;

// A number in [0, 1) drawn from the seed for parameter `k` of the path.
double unit(uint64_t seed, uint64_t k) {
  return static_cast<double>(mixBits(seed * 0x9E3779B97F4A7C15ull + k) >> 11) * 0x1.0p-53;
}
double phase(uint64_t seed, uint64_t k) {
  return 2.0 * kPi * unit(seed, k);
}
double sign(uint64_t seed, uint64_t k) {
  return unit(seed, k) < 0.5 ? -1.0 : 1.0;
}

// A raised-cosine bump of 4 s centred on `centre` seconds: 0 outside, 1 at the centre, with
// zero slope at both ends so the card eases out of the picture and back.
double bump(double seconds, double centre) {
  const double half = 2.0, d = seconds - centre;
  return std::abs(d) >= half ? 0.0 : 0.5 * (1.0 + std::cos(kPi * d / half));
}

cv::Matx33d rotation(double yaw, double pitch, double roll) {
  const double cy = std::cos(yaw), sy = std::sin(yaw), cp = std::cos(pitch), sp = std::sin(pitch),
               cr = std::cos(roll), sr = std::sin(roll);
  const cv::Matx33d rz(cr, -sr, 0, sr, cr, 0, 0, 0, 1);
  const cv::Matx33d ry(cy, 0, sy, 0, 1, 0, -sy, 0, cy);
  const cv::Matx33d rx(1, 0, 0, 0, cp, -sp, 0, sp, cp);
  return rz * ry * rx;
}

}  // namespace

uint64_t mixBits(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

cv::Point2d project(const cv::Matx33d& h, cv::Point2d p) {
  const cv::Vec3d q = h * cv::Vec3d(p.x, p.y, 1.0);
  return {q[0] / q[2], q[1] / q[2]};
}

CardView cardViewAt(uint64_t seed, uint64_t frameIndex, size_t width, size_t height) {
  const double w = static_cast<double>(width), h = static_cast<double>(height);
  // The path is a sum of whole harmonics of one period, so it repeats exactly.
  const uint64_t cycleFrame = frameIndex % kMotionPeriodFrames;
  const double seconds = static_cast<double>(cycleFrame) / kFps;
  const double theta = 2.0 * kPi * static_cast<double>(cycleFrame) / kMotionPeriodFrames;

  // Card width as a fraction of the reference side: 0.385 .. 0.615.
  const double ref = std::min(w, 1.8 * h);
  const double s = 0.5 + 0.08 * std::sin(2 * theta + phase(seed, 1)) +
                   0.035 * std::sin(5 * theta + phase(seed, 2));
  // Tilts are sines without phase so the card is square-on at theta 0 and pi; seeded signs
  // still vary the path. Slow swings, plus a faint hand tremor.
  const double yaw = (sign(seed, 3) * 14.0 * std::sin(3 * theta) +
                      sign(seed, 4) * 6.0 * std::sin(7 * theta) + 0.35 * std::sin(41 * theta)) *
                     kDeg;
  const double pitch = (sign(seed, 5) * 11.0 * std::sin(2 * theta) +
                        sign(seed, 6) * 5.0 * std::sin(9 * theta) + 0.35 * std::sin(47 * theta)) *
                       kDeg;
  // Roll stays within about 5 degrees: zxing-cpp stops reading PDF417 rows skewed much more.
  const double roll = (3.5 * std::sin(theta + phase(seed, 7)) +
                       1.5 * std::sin(6 * theta + phase(seed, 8)) + 0.3 * std::sin(53 * theta)) *
                      kDeg;

  // Half extents of the card's bounding box on screen, with room for perspective growth, and
  // the room left for the centre to wander while the card stays in the picture.
  const double cardW = s * ref, cardH = cardW * kCardHeightMm / kCardWidthMm;
  const double hx = 0.6 * (cardW * std::abs(std::cos(roll)) + cardH * std::abs(std::sin(roll)));
  const double hy = 0.6 * (cardH * std::abs(std::cos(roll)) + cardW * std::abs(std::sin(roll)));
  const double roomX = std::max(0.0, w / 2 - hx - 0.02 * w);
  const double roomY = std::max(0.0, h / 2 - hy - 0.02 * h);
  const double ux = 0.65 * std::sin(theta + phase(seed, 9)) +
                    0.3 * std::sin(4 * theta + phase(seed, 10)) +
                    0.05 * std::sin(59 * theta + phase(seed, 11));
  const double uy = 0.6 * std::sin(2 * theta + phase(seed, 12)) +
                    0.35 * std::sin(5 * theta + phase(seed, 13)) +
                    0.05 * std::sin(61 * theta + phase(seed, 14));

  // Two excursions a period, 4 s each, that carry the centre to a fifth of the half card
  // inside the picture's edge, leaving about 60 % of the card in view: the first sideways
  // between 14 and 24 s, the second to any side between 44 and 54 s.
  const double b1 = bump(seconds, 14.0 + 10.0 * unit(seed, 15));
  const double b2 = bump(seconds, 44.0 + 10.0 * unit(seed, 16));
  const double side1 = sign(seed, 17);
  const int side2 = static_cast<int>(unit(seed, 18) * 4.0);  // left, right, up, down
  double dx = b1 * side1 * (w / 2 - 0.2 * hx), dy = 0.0;
  if (side2 < 2)
    dx += b2 * (side2 == 0 ? -1.0 : 1.0) * (w / 2 - 0.2 * hx);
  else
    dy = b2 * (side2 == 2 ? -1.0 : 1.0) * (h / 2 - 0.2 * hy);
  const double bx = std::max(b1, side2 < 2 ? b2 : 0.0), by = side2 < 2 ? 0.0 : b2;
  const double cx = w / 2 + (1.0 - bx) * roomX * ux + dx;
  const double cy = h / 2 + (1.0 - by) * roomY * uy + dy;

  // Pinhole camera with its axis through the picture's centre; the distance makes the
  // square-on card cardW pixels wide.
  const double f = 0.9 * ref;
  const double z = f * kCardWidthMm / std::max(cardW, 1e-9);
  const cv::Vec3d t((cx - w / 2) * z / f, (cy - h / 2) * z / f, z);
  const cv::Matx33d r = rotation(yaw, pitch, roll);
  const cv::Matx33d k(f, 0, w / 2, 0, f, h / 2, 0, 0, 1);
  const cv::Matx33d plane(r(0, 0), r(0, 1), t[0], r(1, 0), r(1, 1), t[1], r(2, 0), r(2, 1), t[2]);
  const cv::Matx33d centre(1, 0, -kCardWidthMm / 2, 0, 1, -kCardHeightMm / 2, 0, 0, 1);

  CardView view;
  view.cardToPicture = k * plane * centre;
  view.tiltDegrees = std::acos(std::clamp(std::abs(r(2, 2)), 0.0, 1.0)) / kDeg;
  // Light from above left and in front; the card's printed side faces the camera (-z).
  const cv::Vec3d toLight = cv::normalize(cv::Vec3d(-0.35, -0.45, -1.0));
  const cv::Vec3d facing(-r(0, 2), -r(1, 2), -r(2, 2));
  view.shade = 0.85 + 0.15 * std::max(0.0, facing.dot(toLight));
  return view;
}

// Sutherland-Hodgman clipping against the four sides, then the shoelace formula.
double visibleQuadArea(const std::array<cv::Point2d, 4>& quad, double w, double h) {
  std::vector<cv::Point2d> poly(quad.begin(), quad.end());
  auto clip = [&poly](auto inside, auto cross) {
    std::vector<cv::Point2d> out;
    for (size_t i = 0; i < poly.size(); ++i) {
      const cv::Point2d a = poly[i], b = poly[(i + 1) % poly.size()];
      const bool ina = inside(a), inb = inside(b);
      if (ina) out.push_back(a);
      if (ina != inb) out.push_back(cross(a, b));
    }
    poly = std::move(out);
  };
  auto lerpX = [](double x) {
    return [x](cv::Point2d a, cv::Point2d b) {
      return cv::Point2d(x, a.y + (b.y - a.y) * (x - a.x) / (b.x - a.x));
    };
  };
  auto lerpY = [](double y) {
    return [y](cv::Point2d a, cv::Point2d b) {
      return cv::Point2d(a.x + (b.x - a.x) * (y - a.y) / (b.y - a.y), y);
    };
  };
  clip([](cv::Point2d p) { return p.x >= 0.0; }, lerpX(0.0));
  clip([w](cv::Point2d p) { return p.x <= w; }, lerpX(w));
  clip([](cv::Point2d p) { return p.y >= 0.0; }, lerpY(0.0));
  clip([h](cv::Point2d p) { return p.y <= h; }, lerpY(h));
  double area = 0.0;
  for (size_t i = 0; i < poly.size(); ++i) area += poly[i].cross(poly[(i + 1) % poly.size()]);
  return std::abs(area) / 2.0;
}

}  // namespace kwq::platform

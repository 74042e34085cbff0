#include "synthetic/motion.h"

#include <vector>

#include <algorithm>
#include <cmath>

namespace kwq::synthetic {
namespace {

constexpr double kPi = 3.14159265358979323846;
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

namespace {

double smoothstep(double x) {
  x = std::clamp(x, 0.0, 1.0);
  return x * x * (3.0 - 2.0 * x);
}

double cycle(double period) {
  return std::isfinite(period) && period > 0.0 ? period : 10.0;
}

// 0 at the start of each period, 1 half-way, easing at both ends.
double swing(double seconds, double period) {
  return 0.5 - 0.5 * std::cos(2.0 * kPi * seconds / cycle(period));
}

double finiteOr(double v, double fallback) {
  return std::isfinite(v) ? v : fallback;
}

// A card held in a hand: the seeded 60 s path. The harmonics, signs and excursions are the
// ones the card scene has always filmed, so its frames stay what they were.
Pose handheld(uint64_t seed, uint64_t frameIndex, double aspect, double w, double h) {
  // The path is a sum of whole harmonics of one period, so it repeats exactly.
  const uint64_t cycleFrame = frameIndex % kHandheldPeriodFrames;
  const double seconds = static_cast<double>(cycleFrame) / kFps;
  const double theta = 2.0 * kPi * static_cast<double>(cycleFrame) / kHandheldPeriodFrames;

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
  // Roll stays within about 5 degrees: PDF417 readers that follow rows lose them skewed more.
  const double roll = (3.5 * std::sin(theta + phase(seed, 7)) +
                       1.5 * std::sin(6 * theta + phase(seed, 8)) + 0.3 * std::sin(53 * theta)) *
                      kDeg;

  // Half extents of the card's bounding box on screen, with room for perspective growth, and
  // the room left for the centre to wander while the card stays in the picture.
  const double cardW = s * ref, cardH = cardW * aspect;
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
  Pose pose;
  pose.anchor = {w / 2 + (1.0 - bx) * roomX * ux + dx, h / 2 + (1.0 - by) * roomY * uy + dy};
  pose.width = cardW;
  pose.roll = roll;
  pose.yaw = yaw;
  pose.pitch = pitch;
  return pose;
}

// How far the prop reaches from its anchor on screen, at most (its farthest corner).
double reachOf(const PropGeometry& g, const Pose& pose) {
  double reach = 0.0;
  for (const cv::Point2d c :
       {cv::Point2d(0, 0), cv::Point2d(g.units.width, 0),
        cv::Point2d(g.units.width, g.units.height), cv::Point2d(0, g.units.height)})
    reach = std::max(reach, std::hypot(c.x - g.anchor.x, c.y - g.anchor.y));
  return reach * pose.width / g.widthUnits;
}

// A person before a kiosk camera: the face nears and recedes every 15 s, the head rolls, the
// face wanders about the middle, and once every 30 s the portrait leaves to the right.
Pose sway(const SyntheticMotion& m, const PropGeometry& g, uint64_t frameIndex, double w,
          double h) {
  // Seconds into the period at which the portrait starts to leave, is wholly out, starts back
  // and is wholly back.
  constexpr double kLeaveStart = 21.0, kGoneStart = 23.5, kReturnStart = 26.5, kBackAt = 29.0;
  const double t = static_cast<double>(frameIndex % kSwayPeriodFrames) / kFps;
  const double ref = std::min(h, w / 1.8);
  const double smallest = m.to.x > 0.0 ? m.to.x : 0.11, largest = m.to.y > 0.0 ? m.to.y : 0.50;
  Pose pose;
  const double mid = (smallest + largest) / 2.0, half = (largest - smallest) / 2.0;
  pose.width = ref * (mid - half * std::cos(2.0 * kPi * t / 15.0));
  pose.roll = (40.0 * std::sin(2.0 * kPi * t / 10.0) - g.ownRollDegrees) * kDeg;
  const double baseX = w / 2.0 + 0.22 * w * std::sin(2.0 * kPi * t / 30.0);
  const double baseY = h / 2.0 + 0.08 * h * std::sin(2.0 * kPi * t / 7.5);
  // Leaving: far enough right that the whole photograph, whatever its roll, is past the edge.
  const double away = smoothstep((t - kLeaveStart) / (kGoneStart - kLeaveStart)) -
                      smoothstep((t - kReturnStart) / (kBackAt - kReturnStart));
  pose.anchor = {baseX + away * (w - baseX + reachOf(g, pose) + 2.0), baseY};
  return pose;
}

// A smooth value in [-1, 1] with a seeded mix of frequencies near 4 Hz.
double tremor(uint64_t seed, uint64_t k, double seconds) {
  double v = 0.0;
  const double hz[] = {2.9, 4.1, 5.3};
  for (int i = 0; i < 3; ++i) v += std::sin(2.0 * kPi * hz[i] * seconds + phase(seed, k * 8 + i));
  return v / 3.0;
}

void leave(const SyntheticMotion& m, const PropGeometry& g, double seconds, double w, double h,
           Pose& pose) {
  constexpr double kEase = 1.5;
  double u = seconds;
  if (std::isfinite(m.period) && m.period > 0.0) u = std::fmod(seconds, m.period);
  const double start = finiteOr(m.start, 0.0), gone = std::max(0.0, finiteOr(m.duration, 0.0));
  const double away =
      smoothstep((u - start) / kEase) - smoothstep((u - (start + kEase + gone)) / kEase);
  if (away <= 0.0) return;
  // Far enough that the whole prop, whatever its turn, is past the edge.
  const double out = reachOf(g, pose) * 1.5 + 2.0;
  switch (m.side) {
    case SyntheticMotion::Side::Left:
      pose.anchor.x -= away * (pose.anchor.x + out);
      break;
    case SyntheticMotion::Side::Right:
      pose.anchor.x += away * (w - pose.anchor.x + out);
      break;
    case SyntheticMotion::Side::Up:
      pose.anchor.y -= away * (pose.anchor.y + out);
      break;
    case SyntheticMotion::Side::Down:
      pose.anchor.y += away * (h - pose.anchor.y + out);
      break;
  }
}

}  // namespace

Pose poseAt(const SyntheticProp& prop, const PropGeometry& g, uint64_t sceneSeed,
            uint64_t frameIndex, size_t width, size_t height) {
  const double w = static_cast<double>(width), h = static_cast<double>(height);
  const double seconds = static_cast<double>(frameIndex) / kFps;
  Pose pose;
  // Fractions far outside the picture and sizes a hundred pictures wide are as good as
  // gone; clamping them keeps every product finite.
  auto fraction = [](double v, double fallback) {
    return std::clamp(finiteOr(v, fallback), -100.0, 100.0);
  };
  pose.anchor = {fraction(prop.at.x, 0.5) * w, fraction(prop.at.y, 0.5) * h};
  pose.width = std::clamp(finiteOr(prop.size, 0.4), 0.0, 100.0) * w;
  pose.roll = std::fmod(finiteOr(prop.rollDegrees, 0.0), 360.0) * kDeg;
  pose.yaw = std::clamp(finiteOr(prop.yawDegrees, 0.0), -80.0, 80.0) * kDeg;
  pose.pitch = std::clamp(finiteOr(prop.pitchDegrees, 0.0), -80.0, 80.0) * kDeg;
  uint64_t k = 0;
  for (const SyntheticMotion& m : prop.motion) {
    const uint64_t seed = m.seed != 0 ? m.seed : sceneSeed;
    ++k;
    switch (m.kind) {
      case SyntheticMotion::Kind::Handheld:
        pose = handheld(seed, frameIndex, g.units.height / g.units.width, w, h);
        break;
      case SyntheticMotion::Kind::Sway:
        pose = sway(m, g, frameIndex, w, h);
        break;
      case SyntheticMotion::Kind::Pan: {
        const double f = swing(seconds, m.period);
        const cv::Point2d to(fraction(m.to.x, 0.5) * w, fraction(m.to.y, 0.5) * h);
        pose.anchor += f * (to - pose.anchor);
        break;
      }
      case SyntheticMotion::Kind::Approach:
        pose.width *= 1.0 + (std::clamp(finiteOr(m.amount, 1.0), 0.01, 100.0) - 1.0) *
                                swing(seconds, m.period);
        break;
      case SyntheticMotion::Kind::Turn: {
        // Ten turns a second at the most: faster is a blur, not a slant.
        const double amount = std::clamp(finiteOr(m.amount, 0.0), -3600.0, 3600.0);
        if (std::isfinite(m.period) && m.period > 0.0)
          pose.roll += amount * kDeg * std::sin(2.0 * kPi * seconds / m.period);
        else
          pose.roll += std::fmod(amount * seconds, 360.0) * kDeg;
        break;
      }
      case SyntheticMotion::Kind::Tilt: {
        const double a = 2.0 * kPi * seconds / cycle(m.period);
        pose.yaw += std::clamp(finiteOr(m.amount, 0.0), -80.0, 80.0) * kDeg * std::sin(a);
        pose.pitch -= std::clamp(finiteOr(m.amount2, 0.0), -80.0, 80.0) * kDeg * std::cos(a);
        break;
      }
      case SyntheticMotion::Kind::Shake: {
        const double reach = std::clamp(finiteOr(m.amount, 0.0), 0.0, 1.0) * pose.width;
        pose.anchor +=
            reach * cv::Point2d(tremor(seed, 3 * k, seconds), tremor(seed, 3 * k + 1, seconds));
        pose.roll += kDeg * tremor(seed, 3 * k + 2, seconds);
        break;
      }
      case SyntheticMotion::Kind::Leave:
        leave(m, g, seconds, w, h, pose);
        break;
    }
  }
  pose.yaw = std::clamp(pose.yaw, -80.0 * kDeg, 80.0 * kDeg);
  pose.pitch = std::clamp(pose.pitch, -80.0 * kDeg, 80.0 * kDeg);
  return pose;
}

PropView viewOf(const Pose& pose, const PropGeometry& g, size_t width, size_t height) {
  const double w = static_cast<double>(width), h = static_cast<double>(height);
  // Pinhole camera with its axis through the picture's centre; the distance makes the
  // square-on prop pose.width pixels wide.
  const double ref = std::min(w, 1.8 * h);
  const double f = 0.9 * ref;
  const double z = f * g.widthUnits / std::max(pose.width, 1e-9);
  const cv::Vec3d t((pose.anchor.x - w / 2) * z / f, (pose.anchor.y - h / 2) * z / f, z);
  const cv::Matx33d r = rotation(pose.yaw, pose.pitch, pose.roll);
  const cv::Matx33d k(f, 0, w / 2, 0, f, h / 2, 0, 0, 1);
  const cv::Matx33d plane(r(0, 0), r(0, 1), t[0], r(1, 0), r(1, 1), t[1], r(2, 0), r(2, 1), t[2]);
  const cv::Matx33d centre(1, 0, -g.anchor.x, 0, 1, -g.anchor.y, 0, 0, 1);

  PropView view;
  view.toPicture = k * plane * centre;
  view.tiltDegrees = std::acos(std::clamp(std::abs(r(2, 2)), 0.0, 1.0)) / kDeg;
  view.rollDegrees = pose.roll / kDeg;
  // Light from above left and in front; the printed side faces the camera (-z).
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

}  // namespace kwq::synthetic

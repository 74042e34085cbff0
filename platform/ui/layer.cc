#include "kwqimage/Layer.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kwq {

Transform3D Transform3D::makeRotation(double angle, double x, double y, double z) {
  const double length = std::sqrt(x * x + y * y + z * z);
  if (!(length > 0.0) || !std::isfinite(length)) return identity();
  x /= length;
  y /= length;
  z /= length;
  const double c = std::cos(angle), s = std::sin(angle), t = 1.0 - c;
  Transform3D r;
  r.m[0][0] = t * x * x + c;
  r.m[0][1] = t * x * y + z * s;
  r.m[0][2] = t * x * z - y * s;
  r.m[1][0] = t * x * y - z * s;
  r.m[1][1] = t * y * y + c;
  r.m[1][2] = t * y * z + x * s;
  r.m[2][0] = t * x * z + y * s;
  r.m[2][1] = t * y * z - x * s;
  r.m[2][2] = t * z * z + c;
  return r;
}

namespace {

bool isRotation(const Transform3D& t) {
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      double dot = 0.0;
      for (int k = 0; k < 3; ++k) dot += t.m[i][k] * t.m[j][k];
      if (std::abs(dot - (i == j ? 1.0 : 0.0)) > 1e-9) return false;
    }
  const auto& m = t.m;
  const double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                     m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                     m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
  return det > 0.0;
}

// The 3 x 3 product a * b of the rotation blocks (row vectors: a first, then b).
Transform3D multiply3(const Transform3D& a, const Transform3D& b) {
  Transform3D r;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      r.m[i][j] = 0.0;
      for (int k = 0; k < 3; ++k) r.m[i][j] += a.m[i][k] * b.m[k][j];
    }
  return r;
}

// Angle and axis of a rotation block, read back as makeRotation() builds it.
void axisAngle(const Transform3D& r, double& angle, double& x, double& y, double& z) {
  const auto& m = r.m;
  const double cosine = std::clamp((m[0][0] + m[1][1] + m[2][2] - 1.0) / 2.0, -1.0, 1.0);
  angle = std::acos(cosine);
  x = m[1][2] - m[2][1];
  y = m[2][0] - m[0][2];
  z = m[0][1] - m[1][0];
  if (std::sqrt(x * x + y * y + z * z) > 1e-6) return;
  // A half turn (or none): the skew part vanishes, the diagonal still names the axis.
  x = std::sqrt(std::max(0.0, (m[0][0] + 1.0) / 2.0));
  y = std::copysign(std::sqrt(std::max(0.0, (m[1][1] + 1.0) / 2.0)), x > 0 ? m[0][1] : 1.0);
  z = std::copysign(std::sqrt(std::max(0.0, (m[2][2] + 1.0) / 2.0)),
                    x > 0 ? m[0][2] : (y != 0 ? m[1][2] : 1.0));
}

}  // namespace

Transform3D Transform3D::interpolate(const Transform3D& from, const Transform3D& to, double t) {
  Transform3D r;
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) r.m[i][j] = from.m[i][j] + (to.m[i][j] - from.m[i][j]) * t;
  if (!isRotation(from) || !isRotation(to)) return r;
  // The turn from `from` to `to`, taken a fraction `t` of the way.
  Transform3D inverse;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) inverse.m[i][j] = from.m[j][i];
  double angle, x, y, z;
  axisAngle(multiply3(inverse, to), angle, x, y, z);
  const Transform3D turned = multiply3(from, makeRotation(angle * t, x, y, z));
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) r.m[i][j] = turned.m[i][j];
  return r;
}

double currentMediaTime() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::optional<double> BasicAnimation::progressAt(double time) const {
  // A zero or unusable duration means the platform's default quarter second.
  const double oneWay = std::isfinite(duration) && duration > 0.0 ? duration : 0.25;
  const double cycle = autoreverses ? 2.0 * oneWay : oneWay;
  const double cycles =
      std::isfinite(repeatCount) && repeatCount > 1.0f ? static_cast<double>(repeatCount) : 1.0;
  const double elapsed = time - std::chrono::duration<double>(beginTime.time_since_epoch()).count();
  if (!(elapsed >= 0.0) || elapsed >= cycle * cycles) return std::nullopt;
  const double local = std::fmod(elapsed, cycle);
  return local <= oneWay ? local / oneWay : 2.0 - local / oneWay;
}

void Path::moveTo(Point p) {
  subpaths.push_back({p});
}

void Path::addLineTo(Point p) {
  if (subpaths.empty()) subpaths.push_back({});
  subpaths.back().push_back(p);
}

void Path::addPath(const Path& other) {
  subpaths.insert(subpaths.end(), other.subpaths.begin(), other.subpaths.end());
}

void Path::addArc(Point center, double radius, double startAngle, double endAngle, bool clockwise) {
  if (!(radius >= 0.0) || !std::isfinite(radius) || !std::isfinite(center.x) ||
      !std::isfinite(center.y) || !std::isfinite(startAngle) || !std::isfinite(endAngle))
    return;
  constexpr double kTurn = 2.0 * M_PI;
  double sweep = endAngle - startAngle;
  // As the platform: a sweep of a full turn or more draws one full circle.
  if (!clockwise) {
    if (sweep >= kTurn)
      sweep = kTurn;
    else
      sweep = std::fmod(std::fmod(sweep, kTurn) + kTurn, kTurn);
  } else {
    if (sweep <= -kTurn)
      sweep = -kTurn;
    else
      sweep = -std::fmod(std::fmod(-sweep, kTurn) + kTurn, kTurn);
  }
  // Chords within 0.02 points of the circle, at most 1024 per turn.
  const double tolerance = 0.02;
  const double step = radius > tolerance ? 2.0 * std::acos(1.0 - tolerance / radius) : kTurn;
  const int n =
      std::clamp(static_cast<int>(std::ceil(std::abs(sweep) / std::max(step, 1e-9))), 1, 1024);
  auto at = [&](double a) {
    return Point{center.x + radius * std::cos(a), center.y + radius * std::sin(a)};
  };
  addLineTo(at(startAngle));
  for (int i = 1; i <= n; ++i) addLineTo(at(startAngle + sweep * i / n));
}

void Path::closeSubpath() {
  if (subpaths.empty() || subpaths.back().size() < 2) return;
  subpaths.back().push_back(subpaths.back().front());
}

void Path::addRect(const Rect& rect) {
  if (rect.isNull()) return;
  moveTo({rect.minX(), rect.minY()});
  addLineTo({rect.maxX(), rect.minY()});
  addLineTo({rect.maxX(), rect.maxY()});
  addLineTo({rect.minX(), rect.maxY()});
  closeSubpath();
}

Rect Path::boundingBox() const {
  double x0 = std::numeric_limits<double>::infinity(), y0 = x0, x1 = -x0, y1 = -x0;
  for (const auto& subpath : subpaths)
    for (const Point& p : subpath) {
      x0 = std::min(x0, p.x);
      y0 = std::min(y0, p.y);
      x1 = std::max(x1, p.x);
      y1 = std::max(y1, p.y);
    }
  if (x0 > x1) return Rect::null();
  return {x0, y0, x1 - x0, y1 - y0};
}

BasicAnimation BasicAnimation::animationWithKeyPath(std::string keyPath) {
  BasicAnimation a;
  a.keyPath = std::move(keyPath);
  return a;
}

std::shared_ptr<Layer> Layer::layer() {
  return std::shared_ptr<Layer>(new Layer);
}

Layer::~Layer() {
  // Sublayers outlive us only if others hold them: they no longer have a superlayer.
  for (auto& sublayer : sublayers_) sublayer->superlayer_.reset();
}

void Layer::setFrame(Rect frame) {
  frame_ = frame;
  bounds_.size = frame.size;
}

void Layer::setBounds(Rect bounds) {
  bounds_ = bounds;
  frame_.size = bounds.size;
}

void Layer::addSublayer(const std::shared_ptr<Layer>& layer) {
  insertSublayer(layer, sublayers_.size());
}

void Layer::insertSublayer(const std::shared_ptr<Layer>& layer, size_t index) {
  if (!layer) return;
  for (const Layer* a = this; a; a = a->superlayer_.lock().get())
    if (a == layer.get()) return;             // would make a cycle
  const std::shared_ptr<Layer> keep = layer;  // removal may drop the last other reference
  keep->removeFromSuperlayer();
  index = std::min(index, sublayers_.size());
  sublayers_.insert(sublayers_.begin() + static_cast<std::ptrdiff_t>(index), keep);
  keep->superlayer_ = weak_from_this();
}

void Layer::removeFromSuperlayer() {
  auto parent = superlayer_.lock();
  superlayer_.reset();
  if (!parent) return;
  auto& siblings = parent->sublayers_;
  siblings.erase(std::remove_if(siblings.begin(), siblings.end(),
                                [this](const auto& l) { return l.get() == this; }),
                 siblings.end());
}

Transform3D Layer::presentationTransform(double time) const {
  for (const auto& [key, animation] : animations_) {
    if (animation.keyPath != "transform") continue;
    const auto progress = animation.progressAt(time);
    if (!progress) continue;
    const auto* from = std::get_if<Transform3D>(&animation.fromValue);
    const auto* to = std::get_if<Transform3D>(&animation.toValue);
    return Transform3D::interpolate(from ? *from : transform_, to ? *to : transform_, *progress);
  }
  return transform_;
}

void Layer::addAnimation(BasicAnimation animation, const std::string& key) {
  animation.beginTime = std::chrono::steady_clock::now();
  animations_[key] = std::move(animation);
}

std::optional<BasicAnimation> Layer::animationForKey(const std::string& key) const {
  auto it = animations_.find(key);
  if (it == animations_.end()) return std::nullopt;
  return it->second;
}

void Layer::removeAnimationForKey(const std::string& key) {
  animations_.erase(key);
}

void Layer::removeAllAnimations() {
  animations_.clear();
}

std::vector<std::string> Layer::animationKeys() const {
  std::vector<std::string> keys;
  for (const auto& [key, animation] : animations_) keys.push_back(key);
  return keys;
}

std::shared_ptr<ShapeLayer> ShapeLayer::layer() {
  return std::shared_ptr<ShapeLayer>(new ShapeLayer);
}

}  // namespace kwq

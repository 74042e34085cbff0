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

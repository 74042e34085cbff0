#include "kwqimage/KWQProgressCircleView.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

#include "kwqimage/DispatchQueue.h"
#include "kwqimage/GraphicsContext.h"
#include "views/progress_circle_step.h"

extern "C" {
const double kAngleOffset = -90.0;
const int32_t INNER_BORDER_RADIUS_PERCENTAGE = 8;
}

namespace kwq {

namespace views {

ProgressCircleStep progressCircleStep(double value, double counter, double maximum, bool continuous,
                                      bool invert) {
  if (value != counter) {
    const double step = maximum / 360.0;
    if (std::fabs(value - counter) < step) counter = value;
    if (counter > value)
      counter -= step;
    else if (counter < value)
      counter += step;
    else
      counter = value;
    return {counter, invert, false};
  }
  if (!continuous) return {counter, invert, true};
  return {0.0, !invert, false};
}

}  // namespace views

namespace {

constexpr double kPi = 3.141592653589793;

// [0, maximum] with the arithmetic of the interface: single precision, min first.
double clampToMaximum(double v, double maximum) {
  return std::max(std::min(static_cast<float>(maximum), static_cast<float>(v)), 0.0f);
}

}  // namespace

std::shared_ptr<KWQProgressCircleView> KWQProgressCircleView::create(Rect frame) {
  auto view = std::shared_ptr<KWQProgressCircleView>(new KWQProgressCircleView(frame));
  view->setNeedsDisplay();  // the first picture, as a new view on screen gets
  return view;
}

KWQProgressCircleView::KWQProgressCircleView(Rect frame) : View(frame) {
  // baseInit
  setMaximumValue(100.0);
  setCenterSize(0.0);
}

KWQProgressCircleView::~KWQProgressCircleView() = default;

void KWQProgressCircleView::setValue(double value) {
  if (continousAnimation_) return;
  invert_ = false;
  value_ = clampToMaximum(value, maximumValue_);
  doAnmiation();
}

void KWQProgressCircleView::setValue(double value, bool animated) {
  if (animated) {
    setValue(value);
    return;
  }
  invert_ = false;
  const double v = clampToMaximum(value, maximumValue_);
  value_ = v;
  counterValue_ = v;
  setNeedsDisplay();
}

void KWQProgressCircleView::setMaximumValue(double maximum) {
  if (continousAnimation_) return;
  // NaN fails the comparison and becomes 1, so the loop's step stays finite.
  const float narrowed = static_cast<float>(maximum);
  maximumValue_ = narrowed >= 1.0f ? narrowed : 1.0f;
  if (value_ > maximumValue_) setValue(clampToMaximum(value_, maximumValue_));
}

Color KWQProgressCircleView::trackColor() {
  if (!trackColor_) trackColor_ = Color::greenColor();
  return *trackColor_;
}

void KWQProgressCircleView::setTrackColor(std::optional<Color> color) {
  trackColor_ = color;
  setNeedsDisplay();
}

Color KWQProgressCircleView::borderColor() {
  if (!borderColor_) borderColor_ = Color::greenColor();
  return *borderColor_;
}

void KWQProgressCircleView::setBorderColor(std::optional<Color> color) {
  borderColor_ = color;
  setNeedsDisplay();
}

Color KWQProgressCircleView::tintColor() {
  if (!tintColor_) tintColor_ = Color::clearColor();
  return *tintColor_;
}

void KWQProgressCircleView::setTintColor(std::optional<Color> color) {
  tintColor_ = color;
  setNeedsDisplay();
}

void KWQProgressCircleView::setBorderSize(double size) {
  borderSize_ = size >= 0.0 ? size : 0.0;
  setNeedsDisplay();
}

void KWQProgressCircleView::setBorderOffsetMargin(double margin) {
  borderOffsetMargin_ = margin >= 0.0 ? margin : 0.0;
  setNeedsDisplay();
}

void KWQProgressCircleView::setInterierOffsetMargin(double margin) {
  interierOffsetMargin_ = margin >= 0.0 ? margin : 0.0;
  setNeedsDisplay();
}

void KWQProgressCircleView::setCenterSize(double size) {
  // Two steps as the interface has them: the clamped size is compared, but the size itself
  // is what gets stored when it is not larger than the inner radius.
  centerSize_ = size >= 0.0 ? size : 0.0;
  centerSize_ = interierOffsetMargin_ < size ? interierOffsetMargin_ : size;
  setNeedsDisplay();
}

void KWQProgressCircleView::startAnimating() {
  setHidden(false);
  std::lock_guard lock(animatingLock_);
  stopAnimationCalled_ = false;
  continousAnimation_ = true;
  value_ = maximumValue_.load();
  // The loop in hand (running, or queued behind busy threads) becomes the sweep: waiting here
  // for it to end would hold the main thread on a thread this view does not control.
  if (animating_) {
    restartRequested_ = true;
    return;
  }
  animating_ = true;
  submitLoop();
}

void KWQProgressCircleView::stopAnimating() {
  if (hideWhenAnimationStops_) setHidden(true);
  stopAnimationCalled_ = true;
  continousAnimation_ = false;
  value_ = counterValue_.load();
}

void KWQProgressCircleView::doAnmiation() {
  std::lock_guard lock(animatingLock_);
  if (animating_) return;
  animating_ = true;
  submitLoop();
}

void KWQProgressCircleView::submitLoop() {
  auto self = std::static_pointer_cast<KWQProgressCircleView>(shared_from_this());
  DispatchQueue::global().async([self] { self->animationLoop(); });
}

void KWQProgressCircleView::animationLoop() {
  for (;;) {
    while (!stopAnimationCalled_) {
      const auto step = views::progressCircleStep(value_, counterValue_, maximumValue_,
                                                  continousAnimation_, invert_);
      if (step.finished) break;
      counterValue_ = step.counterValue;
      invert_ = step.invert;
      setNeedsDisplay();
      std::this_thread::sleep_for(std::chrono::microseconds(2000));
    }
    std::lock_guard lock(animatingLock_);
    // A sweep started while this loop was ending carries on here.
    const bool restart = restartRequested_ && !stopAnimationCalled_ && continousAnimation_;
    restartRequested_ = false;
    if (restart) continue;
    animating_ = false;
    stopAnimationCalled_ = false;
    return;
  }
}

double KWQProgressCircleView::convertToAngle(double value) const {
  return (value / maximumValue_ * 360.0 + (-90.0)) / 180.0 * kPi;
}

Rect KWQProgressCircleView::calculateDrawRectFromRect(Rect rect, double circleWidth) {
  const double w = rect.width(), h = rect.height();
  if (w > h)
    rect = rect.insetBy((w - h) * 0.5, 0.0);
  else if (h > w)
    rect = rect.insetBy(0.0, (h - w) * 0.5);
  return rect.insetBy(circleWidth, circleWidth);
}

void KWQProgressCircleView::draw(Rect r, GraphicsContext& context) {
  const Rect circle = calculateDrawRectFromRect(r, borderSize_);
  const Color tint = tintColor(), border = borderColor(), track = trackColor();
  context.setFillColor(tint);
  context.setStrokeColor(tint);
  context.fillEllipseInRect(circle);

  context.setStrokeColor(border);
  context.setFillColor(border);
  context.setLineWidth(borderSize_);
  context.strokeEllipseInRect(circle);

  const double cx = r.midX(), cy = r.midY();
  context.setFillColor(track);
  context.setStrokeColor(track);
  if (centerSize_ > 0.0) {
    const double s = centerSize_;
    context.fillEllipseInRect({cx - s, cy - s, 2 * s, 2 * s});
    context.strokeEllipseInRect({cx - s, cy - s, 2 * s, 2 * s});
  }

  const double t = borderSize_ > 0.0 ? borderSize_ + borderOffsetMargin_ : 0.0;
  const double counter = counterValue_, value = value_;
  const double a = convertToAngle(counter);
  const double outer = cy - t;
  if (interierOffsetMargin_ > outer - 1.0) interierOffsetMargin_ = outer - 1.0;
  const double inner = interierOffsetMargin_;

  Path path;
  if (value == 0.0 && counter == 0.0) {
    context.setLineWidth(1.0);
    path.moveTo({cx, cy - inner});
    path.addLineTo({cx, t});
    context.strokePath(path);
    return;
  }
  const float af = static_cast<float>(a);
  const bool inverted = invert_;
  path.moveTo({cx, t});
  path.addLineTo({cx, cy - inner});
  path.addArc({cx, cy}, inner, -kPi / 2, a, inverted);
  path.addLineTo({cx + outer * std::cos(af), cy + outer * std::sin(af)});
  path.addArc({cx, cy}, outer, a, -kPi / 2, !inverted);
  context.fillPath(path);
}

}  // namespace kwq

#pragma once

/// @file
/// A view that draws a value between 0 and a maximum as a filled ring segment from the top of a
/// circle, animated towards new values from a background loop.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "kwqimage/Color.h"
#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/View.h"
#include "kwqimage/kwq_quality.h"

namespace kwq {

/// The progress circle.
///
/// setValue() starts an animation loop on DispatchQueue::global() that moves counterValue()
/// towards value() by maximumValue() / 360 every 2 ms, snapping when less than a step remains,
/// and asks for a redisplay after each step; the view draws counterValue(). startAnimating()
/// sweeps round and round (filling, then emptying the ring) until stopAnimating(). One loop
/// runs per view at a time; it holds the view until it ends, so a continuous sweep keeps the
/// view alive until stopAnimating().
///
/// Threads: configure and draw on the main thread. The loop's fields (value, counter, invert,
/// the animation flags, the maximum) are atomics, read and written from the loop's thread and
/// any other; the colours, sizes and margins belong to the main thread.
class KWQ_EXPORT KWQProgressCircleView : public View {
 public:
  /// A circle view of `frame` (initWithFrame:): maximum 100, centre dot 0.
  static std::shared_ptr<KWQProgressCircleView> create(Rect frame);
  ~KWQProgressCircleView() override;

  ///@{
  /// Hides the view when stopAnimating() is called (false by default).
  uint8_t hideWhenAnimationStops() const { return hideWhenAnimationStops_; }
  void setHideWhenAnimationStops(uint8_t hide) { hideWhenAnimationStops_ = hide; }
  ///@}
  ///@{
  /// The continuous sweep mode; while on, setValue() and setMaximumValue() are ignored.
  bool continousAnimation() const { return continousAnimation_; }
  void setContinousAnimation(bool on) { continousAnimation_ = on; }
  ///@}
  ///@{
  /// True while an animation loop runs.
  bool animating() const { return animating_; }
  void setAnimating(bool animating) { animating_ = animating; }
  ///@}
  ///@{
  /// Asks the running loop to end at its next step.
  bool stopAnimationCalled() const { return stopAnimationCalled_; }
  void setStopAnimationCalled(bool stop) { stopAnimationCalled_ = stop; }
  ///@}
  ///@{
  /// Draws the complementary segment (the sweep's emptying half).
  bool invert() const { return invert_; }
  void setInvert(bool invert) { invert_ = invert; }
  ///@}

  /// The target value.
  double value() const { return value_; }
  /// Ignored in continuous mode; otherwise clears invert(), targets `value` clamped to
  /// [0, maximum] in single precision and starts the loop (doAnmiation()).
  void setValue(double value);
  /// Animated: setValue(value). Not animated, even in continuous mode: clears invert(), sets
  /// value() and counterValue() to the clamped value at once and asks for a redisplay.
  void setValue(double value, bool animated);
  /// The full-circle value, 100 by default.
  double maximumValue() const { return maximumValue_; }
  /// Ignored in continuous mode; otherwise stores `maximum` in single precision and at least
  /// 1.0, re-targeting value() (and animating) when it now exceeds the maximum.
  void setMaximumValue(double maximum);
  ///@{
  /// The value drawn; moves towards value().
  double counterValue() const { return counterValue_; }
  void setCounterValue(double value) { counterValue_ = value; }
  ///@}

  ///@{
  /// Colour of the segment, the centre dot and the zero tick; green when none is set.
  Color trackColor();
  void setTrackColor(std::optional<Color> color);
  ///@}
  ///@{
  /// Colour of the circle's outline; green when none is set.
  Color borderColor();
  void setBorderColor(std::optional<Color> color);
  ///@}
  ///@{
  /// Fill of the circle's disk; clear when none is set.
  Color tintColor();
  void setTintColor(std::optional<Color> color);
  ///@}

  ///@{
  /// Outline width and inset of the circle; negative values store 0.
  double borderSize() const { return borderSize_; }
  void setBorderSize(double size);
  ///@}
  ///@{
  /// Gap between the outline and the segment's outer edge; negative values store 0.
  double borderOffsetMargin() const { return borderOffsetMargin_; }
  void setBorderOffsetMargin(double margin);
  ///@}
  ///@{
  /// Inner radius of the segment; negative values store 0. A draw lowers it to one point
  /// inside the outer radius when it reaches further, and the lowered value stays.
  double interierOffsetMargin() const { return interierOffsetMargin_; }
  void setInterierOffsetMargin(double margin);
  ///@}
  /// Radius of the centre dot (none when not above 0).
  double centerSize() const { return centerSize_; }
  /// Stores the smaller of interierOffsetMargin() and `size` (negative sizes are first read as
  /// 0 but, the inner radius being at least 0, end up stored as given).
  void setCenterSize(double size);

  /// Shows the view and sweeps continuously from where the counter stands. A loop that is
  /// still running (or still waiting for a thread) carries on as the sweep rather than being
  /// waited for, so this never blocks. Main thread.
  void startAnimating();
  /// Freezes the segment where it is: the loop ends within one step; value() takes
  /// counterValue(). Hides the view when hideWhenAnimationStops() is set.
  void stopAnimating();
  /// Starts the animation loop on the global queue unless one is already running.
  void doAnmiation();

  /// Radians of `value` on the circle: (value / maximum * 360 - 90) degrees.
  double convertToAngle(double value) const;
  /// `rect` made square about its centre (the longer side shortened), then inset by
  /// `circleWidth` on every side.
  static Rect calculateDrawRectFromRect(Rect rect, double circleWidth);

 protected:
  /// For create().
  explicit KWQProgressCircleView(Rect frame);
  /// The disk, its outline, the centre dot and the segment (or the zero tick). Main thread.
  void draw(Rect rect, GraphicsContext& context) override;

 private:
  void animationLoop();
  // Queues the loop; animatingLock_ held, animating_ just set.
  void submitLoop();

  uint8_t hideWhenAnimationStops_ = 0;
  std::atomic<bool> continousAnimation_{false};
  std::atomic<bool> animating_{false};
  std::atomic<bool> stopAnimationCalled_{false};
  std::atomic<bool> invert_{false};
  std::atomic<double> value_{0.0};
  std::atomic<double> maximumValue_{100.0};
  std::optional<Color> trackColor_;
  std::optional<Color> borderColor_;
  std::optional<Color> tintColor_;
  double borderSize_ = 0.0;
  double borderOffsetMargin_ = 0.0;
  double interierOffsetMargin_ = 0.0;
  double centerSize_ = 0.0;
  std::atomic<double> counterValue_{0.0};
  std::mutex animatingLock_;
  bool restartRequested_ = false;  // startAnimating() met a running loop; animatingLock_
};

}  // namespace kwq

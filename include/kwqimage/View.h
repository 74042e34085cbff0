#pragma once

/// @file
/// Views: rectangles that own a layer, nest in a tree and may draw their own content. Use a view
/// tree on the main thread (the thread that runs GLib's default main context).

#include <memory>
#include <vector>

#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/GraphicsContext.h"
#include "kwqimage/Layer.h"

namespace kwq {

/// A rectangle of the host's interface, after the platform's views.
///
/// Each view owns one layer; a subview's layer is a sublayer of its superview's layer, so the
/// layer tree under layer() is what the renderer draws. frame, bounds and hidden are the
/// layer's. A subclass draws its content by overriding draw(); setNeedsDisplay() schedules that
/// draw on the main queue and stores the result as the layer's contents. Main thread only,
/// except setNeedsDisplay(), which may be called from any thread.
class KWQ_EXPORT View : public std::enable_shared_from_this<View> {
 public:
  /// A view with `frame` in its superview's coordinates (the platform's initWithFrame:).
  static std::shared_ptr<View> create(Rect frame);
  virtual ~View();
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  /// Where the view lies in its superview.
  Rect frame() const { return layer_->frame(); }
  /// Moves and sizes the view; a new size goes through setBounds() first, so a subclass sees
  /// every resize there.
  void setFrame(Rect frame);
  /// The view's own coordinate space.
  Rect bounds() const { return layer_->bounds(); }
  /// Sets the bounds (the frame takes their size). Overridden by views that rebuild their
  /// content on a resize.
  virtual void setBounds(Rect bounds) { layer_->setBounds(bounds); }
  ///@{
  /// A hidden view and its subviews are not drawn.
  bool isHidden() const { return layer_->isHidden(); }
  void setHidden(bool hidden) { layer_->setHidden(hidden); }
  ///@}
  /// The view's own layer; never null.
  const std::shared_ptr<Layer>& layer() const { return layer_; }

  /// The subviews, bottom first.
  const std::vector<std::shared_ptr<View>>& subviews() const { return subviews_; }
  /// The view this one is in; null for a root.
  std::shared_ptr<View> superview() const { return superview_.lock(); }
  /// Adds `view` on top, taking it from its old superview; null, the view itself and its
  /// ancestors are ignored.
  void addSubview(const std::shared_ptr<View>& view);
  /// Inserts `view` at `index` (clamped to the end) among the subviews.
  void insertSubview(const std::shared_ptr<View>& view, size_t index);
  /// Detaches the view and its layer from the superview; nothing when it has none.
  void removeFromSuperview();

  /// Asks for a draw: on a later turn of the main queue draw() runs once (however often this
  /// was called) and its image becomes the layer's contents. Thread: any.
  void setNeedsDisplay();
  /// True from setNeedsDisplay() until the draw has run.
  bool needsDisplay() const;
  /// Draws now if a draw is pending. Main thread.
  void displayIfNeeded();

 protected:
  /// For create() and subclasses.
  explicit View(Rect frame);
  /// Draws the view's content into `context`, whose size is the bounds' size; `rect` is the
  /// part to draw (the whole bounds, origin zero). Runs on the main thread. Draws nothing
  /// by default, leaving the contents transparent.
  virtual void draw(Rect rect, GraphicsContext& context);

 private:
  std::shared_ptr<Layer> layer_;
  std::vector<std::shared_ptr<View>> subviews_;
  std::weak_ptr<View> superview_;
  struct Pending;
  std::shared_ptr<Pending> pending_;
};

}  // namespace kwq

#include "kwqimage/View.h"

#include <algorithm>
#include <atomic>

#include "kwqimage/DispatchQueue.h"

namespace kwq {

// The draw request, shared with the queued block so that a view gone before the block runs
// is simply not drawn.
struct View::Pending {
  std::atomic<bool> needed{false};
};

std::shared_ptr<View> View::create(Rect frame) {
  return std::shared_ptr<View>(new View(frame));
}

View::View(Rect frame) : layer_(Layer::layer()), pending_(std::make_shared<Pending>()) {
  layer_->setFrame(frame);
}

View::~View() {
  for (auto& subview : subviews_) subview->superview_.reset();
}

void View::setFrame(Rect frame) {
  const Rect bounds = layer_->bounds();
  if (frame.size != bounds.size) setBounds({bounds.origin, frame.size});
  layer_->setFrame(frame);
}

void View::addSubview(const std::shared_ptr<View>& view) {
  insertSubview(view, subviews_.size());
}

void View::insertSubview(const std::shared_ptr<View>& view, size_t index) {
  if (!view) return;
  for (const View* a = this; a; a = a->superview_.lock().get())
    if (a == view.get()) return;  // would make a cycle
  const std::shared_ptr<View> keep = view;
  keep->removeFromSuperview();
  index = std::min(index, subviews_.size());
  subviews_.insert(subviews_.begin() + static_cast<std::ptrdiff_t>(index), keep);
  keep->superview_ = weak_from_this();
  // The layers follow the views' order: place it just above the subview below it (if any),
  // so layers the host hung on this view's layer directly keep their places.
  size_t layerIndex = 0;
  if (index > 0) {
    const auto& below = subviews_[index - 1]->layer_;
    const auto& layers = layer_->sublayers();
    const auto it = std::find(layers.begin(), layers.end(), below);
    layerIndex = it == layers.end() ? layers.size() : static_cast<size_t>(it - layers.begin()) + 1;
  } else if (subviews_.size() > 1) {
    const auto& above = subviews_[1]->layer_;
    const auto& layers = layer_->sublayers();
    const auto it = std::find(layers.begin(), layers.end(), above);
    layerIndex = it == layers.end() ? layers.size() : static_cast<size_t>(it - layers.begin());
  } else {
    layerIndex = layer_->sublayers().size();
  }
  layer_->insertSublayer(keep->layer_, layerIndex);
}

void View::removeFromSuperview() {
  auto parent = superview_.lock();
  superview_.reset();
  if (!parent) return;
  auto& siblings = parent->subviews_;
  siblings.erase(std::remove_if(siblings.begin(), siblings.end(),
                                [this](const auto& v) { return v.get() == this; }),
                 siblings.end());
  if (layer_->superlayer() == parent->layer_) layer_->removeFromSuperlayer();
}

void View::setNeedsDisplay() {
  if (pending_->needed.exchange(true)) return;  // a draw is already queued
  std::weak_ptr<View> weak = weak_from_this();
  if (weak.expired()) {  // not held by a shared_ptr: nothing could draw it later
    pending_->needed = false;
    return;
  }
  DispatchQueue::main().async([weak] {
    if (auto view = weak.lock()) view->displayIfNeeded();
  });
}

bool View::needsDisplay() const {
  return pending_->needed.load();
}

void View::displayIfNeeded() {
  if (!pending_->needed.exchange(false)) return;
  const Rect bounds = layer_->bounds();
  GraphicsContext context(bounds.size);
  if (!context.isValid()) {
    layer_->setContents({});
    return;
  }
  draw({0, 0, bounds.width(), bounds.height()}, context);
  layer_->setContents(context.takeImage());
}

void View::draw(Rect, GraphicsContext&) {}

}  // namespace kwq

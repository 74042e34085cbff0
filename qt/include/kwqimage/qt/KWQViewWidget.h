#pragma once

/// @file
/// Shows a view tree of the library in a Qt 6 window.

#include <QWidget>

#include <chrono>
#include <cstdint>
#include <memory>

#include "kwqimage/Export.h"
#include "kwqimage/View.h"

class QTimer;

/// The Qt 6 adapter.
namespace kwq::qt {

/// A widget that shows `view` and everything below it, filling the widget.
///
/// - Repaints: the tree is drawn again every refresh interval (16 ms by default) while the
///   widget is visible, so a draw requested with View::setNeedsDisplay() (it lands as layer
///   contents on the main queue) and each new camera frame of a preview layer appear at the
///   next tick. A 30 fps camera thus shows every frame.
/// - Resizes: the widget's size in points becomes the view's bounds size (origin kept), so a
///   view that rebuilds on a resize (KWQSimpleCaptureView) does so.
/// - Threads: use it on the GUI thread. The library's main queue is GLib's default main
///   context; Qt on Linux runs its GUI thread on that context (the GLib event dispatcher, the
///   default unless QT_NO_GLIB is set), so main-queue work runs on the GUI thread with no help.
///   Under any other dispatcher the widget pumps the context from a 5 ms timer instead.
class KWQ_EXPORT KWQViewWidget : public QWidget {
  Q_OBJECT

 public:
  /// A widget showing `view` (none: black) inside `parent`.
  explicit KWQViewWidget(std::shared_ptr<View> view = nullptr, QWidget* parent = nullptr);
  ~KWQViewWidget() override;

  /// The root of the tree shown; null shows black.
  std::shared_ptr<View> view() const { return view_; }
  /// Shows `view` and gives it the widget's size.
  void setView(std::shared_ptr<View> view);

  /// How often the tree is drawn again; at least 1 ms.
  std::chrono::milliseconds refreshInterval() const;
  /// Sets refreshInterval().
  void setRefreshInterval(std::chrono::milliseconds interval);

  /// The tree drawn now at the widget's size in device pixels, as the window shows it.
  QImage renderImage() const;
  /// Paints done since the widget was made.
  uint64_t framesPainted() const { return framesPainted_; }

  /// Whether the running Qt event dispatcher is GLib's, i.e. main-queue work runs on the GUI
  /// thread without pumping. Thread: GUI.
  static bool usesGlibEventDispatcher();

 signals:
  /// After each paint of the tree.
  void painted();

 protected:
  /// Draws the tree at the widget's size.
  void paintEvent(QPaintEvent* event) override;
  /// Gives the view the widget's new size.
  void resizeEvent(QResizeEvent* event) override;

 private:
  void forwardSize();

  std::shared_ptr<View> view_;
  QTimer* refresh_ = nullptr;
  QTimer* pump_ = nullptr;
  uint64_t framesPainted_ = 0;
};

}  // namespace kwq::qt

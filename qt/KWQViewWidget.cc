#include "kwqimage/qt/KWQViewWidget.h"

#include <glib.h>

#include <QAbstractEventDispatcher>
#include <QImage>
#include <QPaintEvent>
#include <QPainter>
#include <QResizeEvent>
#include <QTimer>
#include <cmath>

#include "kwqimage/Layer.h"
#include "kwqimage/Render.h"

namespace kwq::qt {

KWQViewWidget::KWQViewWidget(std::shared_ptr<View> view, QWidget* parent)
    : QWidget(parent), refresh_(new QTimer(this)) {
  // Every pixel is painted each time; Qt need not clear behind.
  setAttribute(Qt::WA_OpaquePaintEvent);
  refresh_->setInterval(16);
  connect(refresh_, &QTimer::timeout, this, [this] {
    if (isVisible()) update();
  });
  refresh_->start();
  if (!usesGlibEventDispatcher()) {
    // Another dispatcher does not run GLib's default context: run its ready work from here,
    // when no other thread owns the context.
    pump_ = new QTimer(this);
    pump_->setInterval(5);
    connect(pump_, &QTimer::timeout, this, [] {
      GMainContext* context = g_main_context_default();
      if (!g_main_context_acquire(context)) return;
      while (g_main_context_iteration(context, FALSE)) {
      }
      g_main_context_release(context);
    });
    pump_->start();
  }
  setView(std::move(view));
}

KWQViewWidget::~KWQViewWidget() = default;

bool KWQViewWidget::usesGlibEventDispatcher() {
  const QAbstractEventDispatcher* dispatcher = QAbstractEventDispatcher::instance();
  return dispatcher && dispatcher->inherits("QEventDispatcherGlib");
}

void KWQViewWidget::setView(std::shared_ptr<View> view) {
  view_ = std::move(view);
  forwardSize();
  update();
}

std::chrono::milliseconds KWQViewWidget::refreshInterval() const {
  return std::chrono::milliseconds(refresh_->interval());
}

void KWQViewWidget::setRefreshInterval(std::chrono::milliseconds interval) {
  refresh_->setInterval(static_cast<int>(std::max<int64_t>(1, interval.count())));
}

void KWQViewWidget::forwardSize() {
  if (!view_) return;
  const Rect bounds = view_->bounds();
  view_->setBounds({bounds.origin, {static_cast<double>(width()), static_cast<double>(height())}});
}

QImage KWQViewWidget::renderImage() const {
  const qreal ratio = devicePixelRatioF();
  const Size pixels{std::ceil(width() * ratio), std::ceil(height() * ratio)};
  if (!view_ || pixels.width <= 0 || pixels.height <= 0) return {};
  const Image image = renderView(*view_, pixels, currentMediaTime());
  if (image.isNull()) return {};
  // The render is premultiplied BGRA, which is Qt's ARGB32_Premultiplied on little-endian
  // machines; copy() detaches from the render's bytes.
  QImage wrapped(image.bytes().data(), static_cast<int>(image.width()),
                 static_cast<int>(image.height()), static_cast<qsizetype>(image.bytesPerRow()),
                 QImage::Format_ARGB32_Premultiplied);
  QImage copy = wrapped.copy();
  copy.setDevicePixelRatio(ratio);
  return copy;
}

void KWQViewWidget::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.fillRect(rect(), Qt::black);
  const QImage image = renderImage();
  if (!image.isNull()) painter.drawImage(QPointF(0, 0), image);
  ++framesPainted_;
  emit painted();
}

void KWQViewWidget::resizeEvent(QResizeEvent* event) {
  QWidget::resizeEvent(event);
  forwardSize();
}

}  // namespace kwq::qt

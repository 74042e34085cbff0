#include "kwqimage/qt/KWQViewWidget.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QPixmap>
#include <QScreen>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "kwqimage/CaptureDevice.h"
#include "kwqimage/DispatchQueue.h"
#include "kwqimage/KWQProgressCircleView.h"
#include "kwqimage/KWQSimpleCaptureView.h"
#include "support/test_support.h"

namespace kwq {
namespace {

using namespace std::chrono_literals;

// Runs Qt's event loop (and so, through Qt's GLib dispatcher, the library's main queue) until
// `condition` holds or `timeout` passes.
bool runQtUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 10s) {
  QTimer wake;  // wakes the loop for conditions other threads make true
  wake.start(5);
  QElapsedTimer clock;
  clock.start();
  while (!condition()) {
    if (clock.elapsed() > timeout.count()) return false;
    QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
  }
  return true;
}

// The window as the X server shows it.
QImage screenshot(QWidget& widget, const std::string& name) {
  const QImage image = QGuiApplication::primaryScreen()
                           ->grabWindow(widget.winId())
                           .toImage()
                           .convertToFormat(QImage::Format_RGB32);
  image.save(QString::fromStdString(test::outputDir() + "/" + name + ".png"));
  return image;
}

std::shared_ptr<CaptureDevice> camera(int64_t position) {
  SyntheticCameraOptions options;
  options.position = position;
  return CaptureDevice::syntheticCamera(options);
}

TEST(QtMainQueueTest, MainQueueWorkRunsOnTheGuiThread) {
  EXPECT_TRUE(qt::KWQViewWidget::usesGlibEventDispatcher());
  const auto gui = std::this_thread::get_id();
  std::atomic<bool> ran{false}, onGui{false};
  std::thread poster([&] {
    DispatchQueue::main().async([&] {
      onGui = std::this_thread::get_id() == gui;
      ran = true;
    });
  });
  poster.join();
  ASSERT_TRUE(runQtUntil([&] { return ran.load(); }));
  EXPECT_TRUE(onGui);
  EXPECT_TRUE(DispatchQueue::main().isCurrent());
}

TEST(ProgressCircleWindowTest, WindowRepaintsOnSetNeedsDisplay) {
  auto circle = KWQProgressCircleView::create({0, 0, 0, 0});
  circle->setTrackColor(Color::redColor());
  circle->setBorderColor(Color::blueColor());
  circle->setTintColor(Color::whiteColor());
  circle->setBorderSize(2);
  circle->setInterierOffsetMargin(40);
  qt::KWQViewWidget widget(circle);
  widget.resize(200, 200);
  widget.show();
  EXPECT_EQ(circle->bounds().size, (Size{200, 200}));

  auto redAt = [](const QImage& image, int x, int y) {
    const QColor c = image.pixelColor(x, y);
    return c.red() > 200 && c.green() < 50 && c.blue() < 50;
  };
  circle->setValue(50, false);  // the right half of the ring
  uint64_t painted = widget.framesPainted();
  ASSERT_TRUE(
      runQtUntil([&] { return !circle->needsDisplay() && widget.framesPainted() > painted + 1; }));
  QImage image = screenshot(widget, "window_progress_circle_50");
  EXPECT_TRUE(redAt(image, 170, 100));                       // 3 o'clock
  EXPECT_FALSE(redAt(image, 30, 100));                       // 9 o'clock
  EXPECT_EQ(image.pixelColor(100, 100), QColor(Qt::white));  // inside the inner radius

  circle->setValue(75, false);
  painted = widget.framesPainted();
  ASSERT_TRUE(
      runQtUntil([&] { return !circle->needsDisplay() && widget.framesPainted() > painted + 1; }));
  image = screenshot(widget, "window_progress_circle_75");
  EXPECT_TRUE(redAt(image, 30, 100));
  EXPECT_FALSE(redAt(image, 55, 45));  // the last quarter stays empty
}

TEST(SimpleCaptureViewWindowTest, WindowShowsTheLivePreview) {
  CaptureDevice::setDevices(
      {camera(AVCaptureDevicePositionBack), camera(AVCaptureDevicePositionFront)});
  auto view = KWQSimpleCaptureView::create({0, 0, 0, 0});
  {
    qt::KWQViewWidget widget(view);
    widget.resize(640, 360);
    widget.show();
    ASSERT_TRUE(runQtUntil([&] { return view->bounds().size == Size{640, 360}; }));
    ASSERT_NE(view->vwPreview(), nullptr);
    EXPECT_EQ(view->vwPreview()->frame(), (Rect{0, 0, 640, 360}));
    view->startVideo();
    const auto output = view->videoHelper()->videoDataOutput();
    ASSERT_TRUE(runQtUntil([&] { return output->deliveredFrameCount() > 3; }));
    uint64_t painted = widget.framesPainted();
    ASSERT_TRUE(runQtUntil([&] { return widget.framesPainted() > painted + 2; }));
    const QImage first = screenshot(widget, "window_simple_capture_view");
    // Frames move on; the window follows them.
    const uint64_t frames = output->deliveredFrameCount();
    ASSERT_TRUE(runQtUntil([&] { return output->deliveredFrameCount() > frames + 10; }));
    painted = widget.framesPainted();
    ASSERT_TRUE(runQtUntil([&] { return widget.framesPainted() > painted + 2; }));
    const QImage later = screenshot(widget, "window_simple_capture_view_later");
    view->stopVideo();

    ASSERT_EQ(first.size(), QSize(640, 360));
    // The synthetic scene, not the black background: bright and varied pixels, and the two
    // screenshots differ (the card moves).
    int bright = 0, changed = 0, samples = 0;
    for (int y = 0; y < 360; y += 6)
      for (int x = 0; x < 640; x += 6) {
        const QColor p = first.pixelColor(x, y), q = later.pixelColor(x, y);
        bright += p.red() + p.green() + p.blue() > 90;
        changed += std::abs(p.red() - q.red()) + std::abs(p.green() - q.green()) > 24;
        ++samples;
      }
    EXPECT_GT(bright, samples / 2);
    EXPECT_GT(changed, samples / 100);
  }
  view.reset();
  CaptureDevice::resetDevices();
}

}  // namespace
}  // namespace kwq

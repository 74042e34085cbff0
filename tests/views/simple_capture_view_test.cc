#include "kwqimage/KWQSimpleCaptureView.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "../platform/ui/render_test_support.h"
#include "kwqimage/CaptureDevice.h"
#include "kwqimage/CaptureSession.h"
#include "kwqimage/Render.h"
#include "support/main_loop.h"

namespace kwq {
namespace {

using namespace std::chrono_literals;

std::shared_ptr<CaptureDevice> camera(int64_t position) {
  SyntheticCameraOptions options;
  options.position = position;
  return CaptureDevice::syntheticCamera(options);
}

class SimpleCaptureViewTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CaptureDevice::setDevices(
        {camera(AVCaptureDevicePositionBack), camera(AVCaptureDevicePositionFront)});
  }
  void TearDown() override {
    if (view_) view_->stopVideo();
    view_.reset();
    CaptureDevice::resetDevices();
  }
  // Made with no size, the way a host creates a view before laying it out: the first size
  // it is given builds the preview view.
  std::shared_ptr<KWQSimpleCaptureView> make(Rect frame = {0, 0, 0, 0}) {
    view_ = KWQSimpleCaptureView::create(frame);
    return view_;
  }
  // A 320 x 180 view whose camera has delivered a few frames.
  std::shared_ptr<KWQSimpleCaptureView> running() {
    auto view = make();
    view->setBounds({0, 0, 320, 180});
    view->startVideo();
    const auto engine = view->videoHelper();
    EXPECT_TRUE(test::pumpMainContextUntil(
        [&] { return engine->videoDataOutput()->deliveredFrameCount() > 2; }));
    return view;
  }
  std::shared_ptr<KWQSimpleCaptureView> view_;
};

TEST_F(SimpleCaptureViewTest, StartsConfiguredAndStopped) {
  auto view = make();
  const auto engine = view->videoHelper();
  ASSERT_NE(engine, nullptr);
  EXPECT_EQ(engine->delegate(), view);
  EXPECT_EQ(engine->session()->sessionPreset(), AVCaptureSessionPreset1280x720);
  EXPECT_EQ(engine->device()->position(), AVCaptureDevicePositionBack);
  EXPECT_EQ(engine->previewLayer()->videoGravity(), AVLayerVideoGravityResizeAspectFill);
  EXPECT_EQ(engine->videoDataOutput()->pixelFormatType(), kPixelFormatBGRA);
  EXPECT_FALSE(engine->showBarcodeBoundingBox());
  EXPECT_EQ(engine->autoFocusRange(), AVCaptureAutoFocusRangeRestrictionNear);
  // A camera is listed, so the back camera counts as active and the boxes are off.
  EXPECT_TRUE(view->backCameraActive());
  EXPECT_FALSE(engine->showFaceBoundingBox());
  EXPECT_FALSE(engine->showCenterBox());
  EXPECT_FALSE(view->videoRunning());
  EXPECT_EQ(view->vwPreview(), nullptr);
  EXPECT_EQ(view->focusTimer(), nullptr);
  EXPECT_FALSE(view->callbackBlock());
}

TEST_F(SimpleCaptureViewTest, CaptureBeforeStartFailsAtOnceWithVideoNotStarted) {
  auto view = make();
  int calls = 0;
  view->captureImage([&](const Image& image, const std::optional<Error>& error) {
    ++calls;
    EXPECT_TRUE(image.isNull());
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain, "Video not started");
    EXPECT_EQ(error->code, 101);
    EXPECT_TRUE(error->userInfo.empty());
  });
  EXPECT_EQ(calls, 1);  // synchronously
  EXPECT_FALSE(view->callbackBlock());
  // No still was asked for: nothing arrives later either.
  EXPECT_FALSE(test::pumpMainContextUntil([&] { return calls > 1; }, 200ms));
}

TEST_F(SimpleCaptureViewTest, PreviewViewIsRebuiltOnlyWhenTheSizeChanges) {
  auto view = make({10, 20, 320, 180});
  EXPECT_EQ(view->vwPreview(), nullptr);  // not built by the initialiser
  view->setBounds({0, 0, 320, 240});
  const auto first = view->vwPreview();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->frame(), (Rect{0, 0, 320, 240}));
  EXPECT_EQ(first->superview(), view);
  view->setBounds({5, 7, 320, 240});  // new origin, same size
  EXPECT_EQ(view->vwPreview(), first);
  view->setFrame({0, 0, 640, 360});  // a frame of a new size is a resize too
  const auto second = view->vwPreview();
  ASSERT_NE(second, first);
  EXPECT_EQ(first->superview(), nullptr);
  EXPECT_EQ(second->frame(), (Rect{5, 7, 640, 360}));
  EXPECT_EQ(view->subviews().size(), 1u);
}

TEST_F(SimpleCaptureViewTest, StartAndStopVideoAttachThePreviewAndOneTimer) {
  auto view = make();
  view->setBounds({0, 0, 320, 180});
  const auto engine = view->videoHelper();
  const auto preview = engine->previewLayer();
  view->vwPreview()->layer()->addSublayer(Layer::layer());  // host content above the picture

  view->startVideo();
  EXPECT_TRUE(view->videoRunning());
  const auto timer = view->focusTimer();
  ASSERT_NE(timer, nullptr);
  EXPECT_TRUE(timer->isValid());
  EXPECT_EQ(timer->interval(), 3000ms);
  view->startTimers();
  EXPECT_EQ(view->focusTimer(), timer);  // still one timer
  const auto host = view->vwPreview()->layer();
  ASSERT_EQ(host->sublayers().size(), 2u);
  EXPECT_EQ(host->sublayers()[0], preview);  // at the bottom
  EXPECT_FALSE(host->masksToBounds());
  EXPECT_EQ(preview->frame(), (Rect{0, 0, 320, 180}));
  EXPECT_EQ(preview->backgroundColor(), Color::blackColor());
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return engine->session()->isRunning(); }));

  // The value already held reaches nothing: a preview taken off stays off.
  preview->removeFromSuperlayer();
  view->setVideoRunning(true);
  EXPECT_EQ(preview->superlayer(), nullptr);
  host->insertSublayer(preview, 0);

  view->stopVideo();
  EXPECT_FALSE(view->videoRunning());
  EXPECT_EQ(view->focusTimer(), nullptr);
  EXPECT_FALSE(timer->isValid());
  EXPECT_EQ(preview->superlayer(), nullptr);
  EXPECT_FALSE(engine->session()->isRunning());
  view->setVideoRunning(false);  // again: nothing
  EXPECT_FALSE(engine->session()->isRunning());
}

TEST_F(SimpleCaptureViewTest, ResizeWhileRunningLeavesTheNewPreviewViewEmpty) {
  auto view = make();
  view->setBounds({0, 0, 320, 180});
  view->startVideo();
  const auto old = view->vwPreview();
  view->setBounds({0, 0, 200, 100});
  EXPECT_EQ(old->superview(), nullptr);
  EXPECT_EQ(view->videoHelper()->previewLayer()->superlayer(), old->layer());
  EXPECT_TRUE(view->vwPreview()->layer()->sublayers().empty());
  view->stopVideo();
  view->startVideo();
  EXPECT_EQ(view->videoHelper()->previewLayer()->superlayer(), view->vwPreview()->layer());
  EXPECT_EQ(view->videoHelper()->previewLayer()->frame(), (Rect{0, 0, 200, 100}));
}

TEST_F(SimpleCaptureViewTest, ToggleTwiceRestoresCameraAndBoxes) {
  auto view = make();
  const auto engine = view->videoHelper();
  view->toggleCameraWithAnimation(false);
  EXPECT_FALSE(view->backCameraActive());
  EXPECT_TRUE(engine->showFaceBoundingBox());
  EXPECT_TRUE(engine->showCenterBox());
  EXPECT_EQ(engine->device()->position(), AVCaptureDevicePositionFront);
  view->toggleCameraWithAnimation(false);
  EXPECT_TRUE(view->backCameraActive());
  EXPECT_FALSE(engine->showFaceBoundingBox());
  EXPECT_FALSE(engine->showCenterBox());
  EXPECT_EQ(engine->device()->position(), AVCaptureDevicePositionBack);
}

TEST_F(SimpleCaptureViewTest, NoCameraListedMeansNoCameraCase) {
  CaptureDevice::setDevices({});
  EXPECT_FALSE(KWQSimpleCaptureView::isCameraAvailable());
  auto view = make();
  EXPECT_FALSE(view->backCameraActive());
  EXPECT_TRUE(view->videoHelper()->showFaceBoundingBox());
  EXPECT_TRUE(view->videoHelper()->showCenterBox());
  view->startTimers();
  EXPECT_EQ(view->focusTimer(), nullptr);
  view->setBounds({0, 0, 100, 100});
  view->startVideo();  // runs without a camera: no timer, no picture, no crash
  EXPECT_EQ(view->focusTimer(), nullptr);
  EXPECT_TRUE(view->videoRunning());
  int calls = 0;
  view->captureImage([&](const Image&, const std::optional<Error>&) { ++calls; });
  EXPECT_TRUE(view->callbackBlock());  // pending: the engine stays silent without a camera
  EXPECT_EQ(calls, 0);
}

TEST_F(SimpleCaptureViewTest, StillGoesToTheLastBlockOnlyOnce) {
  auto view = running();

  std::atomic<int> first{0}, second{0};
  std::atomic<bool> offMain{false};
  Image still;
  std::mutex mutex;
  view->captureImage([&](const Image&, const std::optional<Error>&) { ++first; });
  view->captureImage([&](const Image& image, const std::optional<Error>& error) {
    std::lock_guard lock(mutex);
    EXPECT_FALSE(error.has_value());
    still = image;
    offMain = !DispatchQueue::main().isCurrent();
    ++second;
  });
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return second.load() > 0; }));
  // The second still finds no block; the replaced block is never called.
  EXPECT_FALSE(test::pumpMainContextUntil([&] { return first + second > 1; }, 500ms));
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, 1);
  EXPECT_TRUE(offMain);
  EXPECT_FALSE(view->callbackBlock());
  std::lock_guard lock(mutex);
  ASSERT_FALSE(still.isNull());
  // The synthetic camera's full-resolution still (1920 x 1080 from 720p), turned upright for
  // the device's orientation.
  EXPECT_EQ(std::max(still.width(), still.height()), 1920u);
  EXPECT_EQ(still.width() * still.height(), 1920u * 1080u);
  view->getNewStillImage(still);  // no pending block: ignored
}

TEST_F(SimpleCaptureViewTest, RunningViewShowsTheCameraPicture) {
  auto view = running();
  const Image image = renderView(*view, {320, 180}, currentMediaTime());
  test::savePng(image, "simple_capture_view_running");
  // The synthetic camera's picture: far from the black background, and not one flat colour.
  int bright = 0, distinct = 0;
  test::Pixel last{-1, -1, -1, -1};
  for (size_t y = 0; y < 180; y += 4)
    for (size_t x = 0; x < 320; x += 4) {
      const auto p = test::pixelAt(image, x, y);
      bright += p.r + p.g + p.b > 90;
      distinct += !(p == last);
      last = p;
    }
  EXPECT_GT(bright, 45 * 80 / 2);
  EXPECT_GT(distinct, 45 * 80 / 4);
}

}  // namespace
}  // namespace kwq

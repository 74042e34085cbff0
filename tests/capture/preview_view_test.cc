#include <gtest/gtest.h>

#include "../platform/ui/render_test_support.h"
#include "kwqimage/KWQVideoHelper.h"
#include "kwqimage/Render.h"
#include "support/main_loop.h"

namespace kwq {
namespace {

using test::Pixel;
using test::pixelAt;

constexpr Pixel kBlack{0, 0, 0, 255}, kRed{255, 0, 0, 255};

std::shared_ptr<CaptureDevice> camera(int64_t position) {
  SyntheticCameraOptions options;
  options.position = position;
  return CaptureDevice::syntheticCamera(options);
}

class PreviewViewTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CaptureDevice::setDevices(
        {camera(AVCaptureDevicePositionBack), camera(AVCaptureDevicePositionFront)});
    engine_ = KWQVideoHelper::create(AVCaptureSessionPreset640x480, AVCaptureDevicePositionBack,
                                     AVLayerVideoGravityResizeAspect, kPixelFormat420f);
    ASSERT_NE(engine_, nullptr);
  }
  void TearDown() override {
    engine_->stopVideoCapture();
    CaptureDevice::resetDevices();
  }
  // Where the face handler puts the centre box: the preview's frame inset by 30 and 50.
  void placeCenterBox() {
    engine_->centerLayer()->setFrame(engine_->previewLayer()->frame().insetBy(30.0, 50.0));
  }
  int countRed(const Image& image) {
    int n = 0;
    for (size_t y = 0; y < image.height(); ++y)
      for (size_t x = 0; x < image.width(); ++x) n += pixelAt(image, x, y) == kRed;
    return n;
  }
  std::shared_ptr<KWQVideoHelper> engine_;
};

TEST_F(PreviewViewTest, CenterBoxIsAThreePointRedFrameAtTheInset) {
  const auto view = engine_->getPreviewView({15, 25, 320, 240}, true);
  const auto preview = engine_->previewLayer();
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(view->frame(), (Rect{15, 25, 320, 240}));
  EXPECT_FALSE(view->layer()->masksToBounds());
  EXPECT_EQ(preview->superlayer(), view->layer());
  EXPECT_EQ(preview->frame(), (Rect{0, 0, 320, 240}));  // the view's bounds, not its frame
  EXPECT_EQ(preview->backgroundColor(), Color::blackColor());
  EXPECT_TRUE(engine_->showCenterBox());
  EXPECT_EQ(engine_->centerLayer()->superlayer(), preview);

  // Added but still of zero size, the box shows nothing until a face places it.
  EXPECT_EQ(countRed(renderView(*view, {320, 240}, currentMediaTime())), 0);
  placeCenterBox();
  const Image image = renderView(*view, {320, 240}, currentMediaTime());
  test::savePng(image, "preview_view_center_box");
  // The camera is not running: black picture, red box from (30, 50) to (290, 190).
  EXPECT_EQ(pixelAt(image, 5, 5), kBlack);
  EXPECT_EQ(pixelAt(image, 160, 120), kBlack);
  for (size_t x : {30, 31, 32}) EXPECT_EQ(pixelAt(image, x, 120), kRed) << x;
  EXPECT_EQ(pixelAt(image, 29, 120), kBlack);
  EXPECT_EQ(pixelAt(image, 33, 120), kBlack);
  for (size_t y : {187, 188, 189}) EXPECT_EQ(pixelAt(image, 160, y), kRed) << y;
  EXPECT_EQ(pixelAt(image, 160, 186), kBlack);
  EXPECT_EQ(pixelAt(image, 160, 190), kBlack);
  EXPECT_EQ(pixelAt(image, 289, 50), kRed);
  // The border is the box's only drawing: perimeter 2 * (260 + 140) less the corners, 3 wide.
  EXPECT_EQ(countRed(image), 2 * 3 * (260 + 140) - 4 * 9);

  // Green while a head is centred, as the face handler colours it.
  engine_->centerLayer()->setBorderColor(Color::greenColor());
  EXPECT_EQ(pixelAt(renderView(*view, {320, 240}, 0.0), 31, 120), (Pixel{0, 255, 0, 255}));
}

TEST_F(PreviewViewTest, EachCallMovesThePreviewIntoTheNewestView) {
  const auto first = engine_->getPreviewView({0, 0, 320, 240}, true);
  placeCenterBox();
  const auto second = engine_->getPreviewView({0, 0, 160, 120}, false);
  EXPECT_TRUE(first->layer()->sublayers().empty());
  ASSERT_EQ(second->layer()->sublayers().size(), 1u);
  EXPECT_EQ(second->layer()->sublayers()[0], engine_->previewLayer());
  EXPECT_EQ(engine_->previewLayer()->frame(), (Rect{0, 0, 160, 120}));
  // NO takes the box off even though it was shown.
  EXPECT_FALSE(engine_->showCenterBox());
  EXPECT_EQ(engine_->centerLayer()->superlayer(), nullptr);
  EXPECT_EQ(countRed(renderView(*second, {160, 120}, 0.0)), 0);
  // The first view lost the picture: nothing of it is drawn any more.
  EXPECT_EQ(pixelAt(renderView(*first, {320, 240}, 0.0), 100, 100), (Pixel{0, 0, 0, 0}));
  // Resizing the view leaves the preview's frame alone.
  second->setFrame({0, 0, 400, 300});
  EXPECT_EQ(engine_->previewLayer()->frame(), (Rect{0, 0, 160, 120}));
}

TEST_F(PreviewViewTest, TooSmallForTheInsetGivesNoBox) {
  // 59 points wide leaves no room for 30 on each side; 99 high none for 50 above and below.
  for (Rect frame : {Rect{0, 0, 59, 200}, Rect{0, 0, 200, 99}}) {
    const auto view = engine_->getPreviewView(frame, true);
    placeCenterBox();
    EXPECT_TRUE(engine_->centerLayer()->frame().isNull());
    const Image image = renderView(*view, frame.size, 0.0);
    ASSERT_FALSE(image.isNull());
    EXPECT_EQ(countRed(image), 0);
    EXPECT_EQ(pixelAt(image, 10, 10), kBlack);
  }
  // At exactly 60 x 100 the box is empty: a zero rectangle has no border to draw either.
  const auto view = engine_->getPreviewView({0, 0, 60, 100}, true);
  placeCenterBox();
  EXPECT_EQ(engine_->centerLayer()->frame(), (Rect{30, 50, 0, 0}));
  EXPECT_EQ(countRed(renderView(*view, {60, 100}, 0.0)), 0);
}

TEST_F(PreviewViewTest, RunningEngineShowsItsNewestFrame) {
  const auto view = engine_->getPreviewView({0, 0, 320, 300}, false);
  engine_->startVideoCapture();
  ASSERT_TRUE(test::pumpMainContextUntil(
      [&] { return engine_->videoDataOutput()->deliveredFrameCount() >= 3; }));
  const Image image = renderView(*view, {320, 300}, currentMediaTime());
  engine_->stopVideoCapture();
  test::savePng(image, "preview_view_running");
  // 640 x 480 fitted into 320 x 300: 320 x 240 at y 30, black bars above and below.
  EXPECT_EQ(pixelAt(image, 160, 10), kBlack);
  EXPECT_EQ(pixelAt(image, 160, 289), kBlack);
  int lit = 0;
  for (size_t y = 30; y < 270; y += 4)
    for (size_t x = 0; x < 320; x += 4) {
      const Pixel p = pixelAt(image, x, y);
      lit += p.r + p.g + p.b > 60;
    }
  EXPECT_GT(lit, 80 * 60 * 3 / 4);  // the synthetic scene, not the black background
}

}  // namespace
}  // namespace kwq

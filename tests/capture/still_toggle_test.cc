// Stills and camera switching on running engines with synthetic cameras: the still reaches the
// delegate on the frame queue converted with the camera's position; a delegate without the
// still callback gets nothing; switching follows the device list, with or without the flip.

#include <atomic>
#include <cstring>
#include <mutex>
#include <numbers>

#include <gtest/gtest.h>

#include "capture/KWQVideoHelperState.h"
#include "kwqimage/DeviceOrientation.h"
#include "kwqimage/KWQImagingHelperClass.h"
#include "kwqimage/KWQVideoHelper.h"
#include "support/main_loop.h"

namespace kwq {
namespace {

using test::pumpMainContextUntil;
using namespace std::chrono_literals;

std::shared_ptr<CaptureDevice> camera(int64_t position, bool showCard = true) {
  SyntheticCameraOptions options;
  options.position = position;
  if (!showCard) options.scene.props.clear();
  if (position != AVCaptureDevicePositionBack && position != AVCaptureDevicePositionFront)
    options.uniqueID = "kwq.synthetic.other";
  return CaptureDevice::syntheticCamera(options);
}

struct StillCatcher : KWQFrameDelegate, KWQStillImageDelegate {
  void getLastSampleBuffer(const SampleBuffer&, Rect, double, double,
                           const std::optional<std::string>&) override {
    ++frames;
  }
  void getNewStillImage(const Image& image) override {
    onFrameQueue = frameQueue && frameQueue->isCurrent();
    {
      std::lock_guard lock(mutex);
      still = image;
    }
    arrived = true;
  }
  // For tests where a late still may still come while they look.
  Image latestStill() {
    std::lock_guard lock(mutex);
    return still;
  }
  std::mutex mutex;
  std::atomic<int> frames{0};
  std::atomic<bool> arrived{false};
  std::atomic<bool> onFrameQueue{false};
  std::shared_ptr<DispatchQueue> frameQueue;
  Image still;
};

struct FramesOnly : KWQFrameDelegate {
  void getLastSampleBuffer(const SampleBuffer&, Rect, double, double,
                           const std::optional<std::string>&) override {
    ++frames;
  }
  std::atomic<int> frames{0};
};

class StillToggleTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (engine) engine->stopVideoCapture();
    test::drainMainContext();
    CaptureDevice::resetDevices();
  }
  void start(int64_t position) {
    engine = KWQVideoHelper::create(AVCaptureSessionPreset640x480, position,
                                    AVLayerVideoGravityResizeAspect, kPixelFormat420f);
    ASSERT_NE(engine, nullptr);
  }
  // A still from a running engine whose delegate has seen some frames (the lens has focused).
  Image still(const std::shared_ptr<StillCatcher>& catcher) {
    catcher->frameQueue = engine->state().videoDataOutputQueue;
    engine->setDelegate(catcher);
    engine->startVideoCapture();
    EXPECT_TRUE(pumpMainContextUntil([&] { return catcher->frames > 15; }));
    engine->takeStillPicture();
    EXPECT_TRUE(pumpMainContextUntil([&] { return catcher->arrived.load(); }));
    engine->stopVideoCapture();
    return catcher->still;
  }
  std::shared_ptr<KWQVideoHelper> engine;
};

TEST_F(StillToggleTest, StillsReachTheDelegateOnTheFrameQueueConvertedForTheirCamera) {
  // Without the card the synthetic picture is the same in every frame, so the back and the
  // front camera's stills differ only by the conversion for the camera's position.
  CaptureDevice::setDevices(
      {camera(AVCaptureDevicePositionBack, false), camera(AVCaptureDevicePositionFront, false)});
  // A landscape host: back stills stay as filmed, front ones are turned half round.
  DeviceOrientation::setCurrent(DeviceOrientation::LandscapeLeft);
  start(AVCaptureDevicePositionBack);
  auto backCatcher = std::make_shared<StillCatcher>();
  const Image back = still(backCatcher);
  ASSERT_FALSE(back.isNull());
  EXPECT_TRUE(backCatcher->onFrameQueue);
  // Synthetic stills are drawn 1920 wide at the stream's 4:3.
  EXPECT_EQ(back.width(), 1920u);
  EXPECT_EQ(back.height(), 1440u);

  start(AVCaptureDevicePositionFront);
  auto frontCatcher = std::make_shared<StillCatcher>();
  const Image front = still(frontCatcher);
  ASSERT_FALSE(front.isNull());

  // The back still as a BGRA frame, converted as a front camera's: the front still.
  const Image bgra = back.converted(PixelLayout::BGRA32Premultiplied);
  PixelBuffer buffer = PixelBuffer::allocate(kPixelFormatBGRA, bgra.width(), bgra.height());
  ASSERT_TRUE(buffer.lockBaseAddress());
  for (size_t y = 0; y < bgra.height(); ++y)
    std::memcpy(buffer.baseAddressOfPlane(0) + y * buffer.bytesPerRowOfPlane(0),
                bgra.bytes().data() + y * bgra.bytesPerRow(), bgra.width() * 4);
  buffer.unlockBaseAddress();
  const Image expected = KWQImagingHelper::makeUIImageFromCMSampleBuffer(
      SampleBuffer(buffer), AVCaptureDevicePositionFront);
  ASSERT_EQ(expected.width(), front.width());
  const Image a = expected.converted(PixelLayout::BGRA32Premultiplied);
  const Image b = front.converted(PixelLayout::BGRA32Premultiplied);
  size_t differing = 0;
  for (size_t y = 0; y < a.height(); ++y)
    differing += std::memcmp(a.bytes().data() + y * a.bytesPerRow(),
                             b.bytes().data() + y * b.bytesPerRow(), a.width() * 4) != 0;
  EXPECT_EQ(differing, 0u);
  // And it is not the back still itself: the position made a difference.
  EXPECT_NE(std::memcmp(a.bytes().data(), bgra.bytes().data(), a.width() * 4), 0);
  DeviceOrientation::setCurrent(DeviceOrientation::Unknown);
}

TEST_F(StillToggleTest, DelegateWithoutTheStillCallbackGetsNothing) {
  CaptureDevice::setDevices({camera(AVCaptureDevicePositionBack)});
  start(AVCaptureDevicePositionBack);
  auto frames = std::make_shared<FramesOnly>();
  engine->setDelegate(frames);
  engine->startVideoCapture();
  ASSERT_TRUE(pumpMainContextUntil([&] { return frames->frames > 5; }));
  engine->takeStillPicture();
  // The frame queue keeps delivering after the still: nothing blocked, nothing thrown.
  const int before = frames->frames;
  EXPECT_TRUE(pumpMainContextUntil([&] { return frames->frames > before + 10; }));
  engine->stopVideoCapture();

  // A still from an engine that is not running is dropped silently. (A fresh engine: the
  // still asked for above may still be on its way, and would reach a new delegate.)
  start(AVCaptureDevicePositionBack);
  auto catcher = std::make_shared<StillCatcher>();
  engine->setDelegate(catcher);
  engine->takeStillPicture();
  EXPECT_FALSE(pumpMainContextUntil([&] { return catcher->arrived.load(); },
                                    std::chrono::milliseconds(500)));
}

TEST_F(StillToggleTest, AStillInFlightArrivesAfterTheHostReleasesTheEngine) {
  CaptureDevice::setDevices({camera(AVCaptureDevicePositionBack)});
  start(AVCaptureDevicePositionBack);
  auto catcher = std::make_shared<StillCatcher>();
  engine->setDelegate(catcher);
  engine->startVideoCapture();
  ASSERT_TRUE(pumpMainContextUntil([&] { return catcher->frames > 5; }));
  std::weak_ptr<KWQVideoHelper> weak = engine;
  engine->takeStillPicture();
  engine.reset();  // the host lets go while the still is on its way
  EXPECT_TRUE(pumpMainContextUntil([&] { return catcher->arrived.load(); }, 30s));
  EXPECT_FALSE(catcher->latestStill().isNull());
  // Once the photo is delivered the engine goes.
  EXPECT_TRUE(pumpMainContextUntil([&] { return weak.expired(); }, 30s));
}

TEST_F(StillToggleTest, AStillRequestedAsTheSessionStopsNeitherHangsNorSpoilsTheNext) {
  CaptureDevice::setDevices({camera(AVCaptureDevicePositionBack)});
  start(AVCaptureDevicePositionBack);
  auto catcher = std::make_shared<StillCatcher>();
  engine->setDelegate(catcher);
  for (int round = 0; round < 3; ++round) {
    engine->startVideoCapture();
    ASSERT_TRUE(pumpMainContextUntil([&] { return catcher->frames > 3; }));
    engine->takeStillPicture();
    engine->stopVideoCapture();  // a still racing the stop arrives whole or not at all
    test::drainMainContext();
    if (catcher->arrived) EXPECT_FALSE(catcher->latestStill().isNull());
    catcher->arrived = false;
    catcher->frames = 0;
  }
  // The still asked for as the session stopped has had its chance; a new one arrives.
  engine->startVideoCapture();
  ASSERT_TRUE(pumpMainContextUntil([&] { return catcher->frames > 3; }));
  catcher->arrived = false;
  engine->takeStillPicture();
  EXPECT_TRUE(pumpMainContextUntil([&] { return catcher->arrived.load(); }, 30s));
  EXPECT_FALSE(catcher->latestStill().isNull());
}

TEST_F(StillToggleTest, ToggleSwapsFrontAndBackWithOrWithoutTheFlip) {
  auto back = camera(AVCaptureDevicePositionBack), front = camera(AVCaptureDevicePositionFront);
  auto other = camera(0);
  CaptureDevice::setDevices({other, back, front});
  start(AVCaptureDevicePositionBack);
  ASSERT_EQ(engine->device(), back);

  engine->toggleCameraWithAnimation(false);
  EXPECT_EQ(engine->device(), front);
  ASSERT_EQ(engine->session()->inputs().size(), 1u);
  EXPECT_EQ(engine->session()->inputs()[0]->device(), front);
  test::drainMainContext();
  EXPECT_FALSE(engine->previewLayer()->animationForKey("transform").has_value());

  engine->toggleCameraWithAnimation(true);
  EXPECT_EQ(engine->device(), back);
  EXPECT_EQ(engine->session()->inputs()[0]->device(), back);
  EXPECT_FALSE(engine->previewLayer()->animationForKey("transform").has_value())
      << "the flip is queued on the main queue";
  test::drainMainContext();
  const auto flip = engine->previewLayer()->animationForKey("transform");
  ASSERT_TRUE(flip.has_value());
  EXPECT_EQ(flip->keyPath, "transform");
  EXPECT_EQ(flip->duration, 0.1);
  EXPECT_TRUE(flip->autoreverses);
  EXPECT_EQ(std::get<Transform3D>(flip->toValue),
            Transform3D::makeRotation(1.5707963267948966, 0, 1, 0));

  // From a camera that is neither front nor back: to the front one.
  start(0);
  ASSERT_EQ(engine->device(), other);
  engine->toggleCameraWithAnimation(false);
  EXPECT_EQ(engine->device(), front);
}

TEST_F(StillToggleTest, OnlyABackCameraLeavesTheSessionWithoutOne) {
  auto back = camera(AVCaptureDevicePositionBack);
  CaptureDevice::setDevices({back});
  start(AVCaptureDevicePositionBack);
  engine->toggleCameraWithAnimation(false);
  EXPECT_TRUE(engine->session()->inputs().empty());
  EXPECT_EQ(engine->device(), back);
  // The device still names the back camera, so the next switch looks for a front one again.
  engine->toggleCameraWithAnimation(false);
  EXPECT_TRUE(engine->session()->inputs().empty());
}

}  // namespace
}  // namespace kwq

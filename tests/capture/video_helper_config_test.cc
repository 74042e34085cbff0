#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

#include "../platform/capture/capture_test_support.h"
#include "capture/KWQVideoHelperState.h"
#include "kwqimage/KWQCameraRollHelper.h"
#include "kwqimage/KWQImageDictionary.h"
#include "kwqimage/KWQVideoHelper.h"
#include "platform/media/capture_internal.h"
#include "support/main_loop.h"
#include "support/test_support.h"

namespace kwq {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using test::pumpMainContextUntil;

const std::string kFace{AVMetadataObjectTypeFace};
const std::string kPDF417{AVMetadataObjectTypePDF417Code};
const std::string kQR{AVMetadataObjectTypeQRCode};

std::shared_ptr<CaptureDevice> camera(int64_t position, SyntheticCameraOptions options = {}) {
  options.position = position;
  return CaptureDevice::syntheticCamera(options);
}

class VideoHelperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CaptureDevice::setDevices(
        {camera(AVCaptureDevicePositionBack), camera(AVCaptureDevicePositionFront)});
  }
  void TearDown() override { CaptureDevice::resetDevices(); }
};

TEST_F(VideoHelperTest, InitDefaultsAndSessionSetUp) {
  auto engine = KWQVideoHelper::create();
  ASSERT_NE(engine, nullptr);
  // The front camera, set up for documents: one near auto-focus pass, continuous white
  // balance and exposure.
  ASSERT_NE(engine->device(), nullptr);
  EXPECT_EQ(engine->device()->position(), AVCaptureDevicePositionFront);
  EXPECT_EQ(engine->device()->focusMode(), AVCaptureFocusModeAutoFocus);
  EXPECT_EQ(engine->autoFocusRange(), AVCaptureAutoFocusRangeRestrictionNear);
  EXPECT_EQ(engine->device()->whiteBalanceMode(),
            AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance);
  EXPECT_EQ(engine->device()->exposureMode(), AVCaptureExposureModeContinuousAutoExposure);

  EXPECT_FALSE(engine->showCenterBox());
  EXPECT_TRUE(engine->showBarcodeBoundingBox());
  EXPECT_TRUE(engine->showFaceBoundingBox());
  EXPECT_TRUE(engine->faceFindSupport());
  EXPECT_TRUE(engine->pdf417Support());
  EXPECT_FALSE(engine->qrCodeSupport());
  EXPECT_EQ(engine->metaObjects(), (std::vector<std::string>{kFace, kPDF417}));
  EXPECT_FALSE(engine->shouldDetectCardRect() || engine->recordCameraData() ||
               engine->hasYawAngle() || engine->hasRollAngle() || engine->isHeadCentered());
  EXPECT_EQ(engine->minHeadSize(), 0.0);
  EXPECT_EQ(engine->maxHeadSize(), 5000.0);
  EXPECT_EQ(engine->consecutiveDetectionFrames(), 0);
  EXPECT_EQ(engine->cardDetectionThreshold(), 0.0);
  EXPECT_EQ(engine->faceRect(), Rect::zero());
  EXPECT_EQ(engine->cardRect(), Rect::zero());
  EXPECT_EQ(engine->barcodeRect(), Rect::zero());
  EXPECT_EQ(engine->cardCenter(), Point::zero());
  EXPECT_FALSE(engine->parsedData().has_value());
  EXPECT_EQ(engine->delegate(), nullptr);
  EXPECT_EQ(engine->primaryLayer(), nullptr);
  EXPECT_EQ(engine->barcodeLineLayer(), nullptr);
  EXPECT_TRUE(engine->avfFaceLayers().empty());

  // Session: High, the camera, the still, video and metadata outputs in that order.
  auto session = engine->session();
  EXPECT_EQ(session->sessionPreset(), AVCaptureSessionPresetHigh);
  ASSERT_EQ(session->inputs().size(), 1u);
  EXPECT_EQ(session->inputs()[0]->device(), engine->device());
  const auto outputs = session->outputs();
  ASSERT_EQ(outputs.size(), 3u);
  EXPECT_EQ(outputs[0], engine->stillImageOutput());
  EXPECT_EQ(outputs[1], engine->videoDataOutput());
  EXPECT_EQ(outputs[2], engine->metaOutput());
  EXPECT_EQ(engine->videoDataOutput()->pixelFormatType(), kPixelFormat420f);
  EXPECT_TRUE(engine->videoDataOutput()->alwaysDiscardsLateVideoFrames());
  EXPECT_EQ(engine->videoDataOutput()->sampleBufferCallbackQueue()->label(),
            "VideoDataOutputQueue");
  EXPECT_TRUE(engine->state().sessionQueue->label().ends_with("videoCaptureQueue"));
  EXPECT_EQ(engine->metaOutput()->metadataObjectTypes(), engine->metaObjects());

  // Layers: the preview on the session with the gravity; the centre box made, not attached.
  EXPECT_EQ(engine->previewLayer()->session(), session);
  EXPECT_EQ(engine->previewLayer()->videoGravity(), AVLayerVideoGravityResizeAspect);
  auto center = engine->centerLayer();
  ASSERT_NE(std::dynamic_pointer_cast<ShapeLayer>(center), nullptr);
  EXPECT_EQ(center->borderWidth(), 3.0);
  EXPECT_EQ(center->borderColor(), Color::redColor());
  EXPECT_EQ(center->superlayer(), nullptr);
  EXPECT_EQ(center->frame(), Rect::zero());
  // The designated initialiser's arguments are checked through the simple capture view,
  // which makes its engine with a preset, position, gravity and format of its own.
}

TEST_F(VideoHelperTest, WithoutAFrontCameraTheSessionRunsEmpty) {
  CaptureDevice::setDevices({camera(AVCaptureDevicePositionBack)});
  auto engine = KWQVideoHelper::create();
  EXPECT_EQ(engine->device(), nullptr);
  EXPECT_TRUE(engine->session()->inputs().empty());
  // Controls on no camera do nothing.
  engine->setFlashMode(AVCaptureFlashModeOn);
  engine->enableTorchWithLevel(1.0f);
  engine->autoFocusCamera();
  EXPECT_EQ(engine->flashMode(), AVCaptureFlashModeOff);
  EXPECT_EQ(engine->autoFocusRange(), AVCaptureAutoFocusRangeRestrictionNone);
  engine->startVideoCapture();
  ASSERT_TRUE(pumpMainContextUntil([&] { return engine->session()->isRunning(); }));
  engine->stopVideoCapture();
  engine->stopVideoCapture();
  EXPECT_FALSE(engine->session()->isRunning());

  // A camera in neither position is never chosen by position.
  CaptureDevice::setDevices({camera(AVCaptureDevicePositionUnspecified)});
  EXPECT_EQ(KWQVideoHelper::create()->device(), nullptr);
}

TEST_F(VideoHelperTest, DeviceControlsAndTheirLockRules) {
  SyntheticCameraOptions noFlash;
  noFlash.hasFlash = false;
  noFlash.maxAvailableTorchLevel = 0.5f;
  CaptureDevice::setDevices({camera(AVCaptureDevicePositionFront, noFlash)});
  auto engine = KWQVideoHelper::create();
  auto device = engine->device();
  ASSERT_NE(device, nullptr);

  engine->setFlashMode(AVCaptureFlashModeOn);
  EXPECT_EQ(engine->flashMode(), AVCaptureFlashModeOff);

  // Torch: 0, negative and above the maximum do nothing; the maximum itself turns it on.
  for (float level : {0.0f, -0.5f, AVCaptureMaxAvailableTorchLevel + 0.01f}) {
    engine->enableTorchWithLevel(level);
    EXPECT_EQ(device->torchMode(), AVCaptureTorchModeOff) << level;
  }
  engine->enableTorchWithLevel(AVCaptureMaxAvailableTorchLevel);
  EXPECT_EQ(device->torchMode(), AVCaptureTorchModeOn);
  EXPECT_FLOAT_EQ(device->torchLevel(), 0.5f);  // the lamp's limit, not clamped by the engine
  engine->disableTorch();
  EXPECT_EQ(device->torchMode(), AVCaptureTorchModeOff);

  engine->setAutoFocusRange(AVCaptureAutoFocusRangeRestrictionFar);
  EXPECT_EQ(engine->autoFocusRange(), AVCaptureAutoFocusRangeRestrictionFar);
  engine->autoFocusContinuousCamera();
  EXPECT_EQ(device->focusMode(), AVCaptureFocusModeContinuousAutoFocus);
  engine->autoFocusCamera();
  EXPECT_EQ(device->focusMode(), AVCaptureFocusModeAutoFocus);

  // While another thread holds the device, every control is skipped and the lock stays theirs.
  std::mutex m;
  std::condition_variable cv;
  bool held = false, release = false;
  std::thread holder([&] {
    ASSERT_TRUE(device->lockForConfiguration());
    std::unique_lock lock(m);
    held = true;
    cv.notify_all();
    cv.wait(lock, [&] { return release; });
    device->unlockForConfiguration();
  });
  {
    std::unique_lock lock(m);
    cv.wait(lock, [&] { return held; });
  }
  engine->setAutoFocusRange(AVCaptureAutoFocusRangeRestrictionNear);
  engine->autoFocusContinuousCamera();
  engine->enableTorchWithLevel(0.3f);
  EXPECT_EQ(engine->autoFocusRange(), AVCaptureAutoFocusRangeRestrictionFar);
  EXPECT_EQ(device->focusMode(), AVCaptureFocusModeAutoFocus);
  EXPECT_EQ(device->torchMode(), AVCaptureTorchModeOff);
  EXPECT_FALSE(device->lockForConfiguration());
  {
    std::lock_guard lock(m);
    release = true;
    cv.notify_all();
  }
  holder.join();

  // A camera without range restriction reads 0 and ignores changes.
  SyntheticCameraOptions fixedRange;
  fixedRange.hasAutoFocusRangeRestriction = false;
  CaptureDevice::setDevices({camera(AVCaptureDevicePositionFront, fixedRange)});
  auto plain = KWQVideoHelper::create();
  plain->setAutoFocusRange(AVCaptureAutoFocusRangeRestrictionFar);
  EXPECT_EQ(plain->autoFocusRange(), AVCaptureAutoFocusRangeRestrictionNone);
}

TEST_F(VideoHelperTest, CenterBoxIsShownOnceOnTopAndTakenOff) {
  auto engine = KWQVideoHelper::create();
  auto preview = engine->previewLayer();
  auto center = engine->centerLayer();
  engine->setShowCenterBox(true);
  auto other = Layer::layer();
  preview->addSublayer(other);
  engine->setShowCenterBox(true);  // again: still one box, now on top
  ASSERT_EQ(preview->sublayers().size(), 2u);
  EXPECT_EQ(preview->sublayers()[1], center);
  EXPECT_EQ(center->superlayer(), preview);
  engine->setShowCenterBox(false);
  EXPECT_EQ(center->superlayer(), nullptr);
  EXPECT_EQ(preview->sublayers().size(), 1u);
}

TEST_F(VideoHelperTest, MetadataTypeSelection) {
  auto engine = KWQVideoHelper::create();
  auto output = engine->metaOutput();
  auto connection = output->connectionWithMediaType(AVMediaTypeMetadata);
  engine->setQrCodeSupport(true);
  engine->setQrCodeSupport(true);
  EXPECT_EQ(engine->metaObjects(), (std::vector<std::string>{kFace, kPDF417, kQR}));
  engine->setFaceFindSupport(false);
  EXPECT_EQ(engine->metaObjects(), (std::vector<std::string>{kPDF417, kQR}));
  // Disabling an absent type changes nothing but still pushes the list and enables the
  // connection.
  connection->setEnabled(false);
  engine->setFaceFindSupport(false);
  EXPECT_TRUE(connection->isEnabled());
  EXPECT_EQ(output->metadataObjectTypes(), engine->metaObjects());
  // A type the output does not offer is never added.
  engine->UpdateAVCaptureMetadataOutput("org.iso.Code128", true);
  EXPECT_EQ(engine->metaObjects().size(), 2u);
  EXPECT_EQ(engine->metaOutput(), output);  // made once

  // While running, requests are dropped and the switches keep their values.
  engine->startVideoCapture();
  ASSERT_TRUE(pumpMainContextUntil([&] { return engine->session()->isRunning(); }));
  engine->setQrCodeSupport(false);
  engine->setFaceFindSupport(true);
  EXPECT_TRUE(engine->qrCodeSupport());
  EXPECT_FALSE(engine->faceFindSupport());
  engine->stopVideoCapture();
  engine->setFaceFindSupport(true);
  EXPECT_EQ(engine->metaObjects(), (std::vector<std::string>{kPDF417, kQR, kFace}));
}

TEST_F(VideoHelperTest, FramesReachTheEngineOnItsFrameQueue) {
  auto engine = KWQVideoHelper::create(AVCaptureSessionPreset640x480, AVCaptureDevicePositionBack,
                                       AVLayerVideoGravityResizeAspect, kPixelFormat420f);
  engine->startVideoCapture();
  ASSERT_TRUE(
      pumpMainContextUntil([&] { return engine->videoDataOutput()->deliveredFrameCount() >= 10; }));
  engine->stopVideoCapture();
  EXPECT_FALSE(engine->session()->isRunning());
  // The last frame's size, as the preview layer sees it.
  EXPECT_EQ(platform::sessionVideoSize(*engine->session()), (Size{640, 480}));
}

TEST_F(VideoHelperTest, RecordingFollowsStartAndStop) {
  const fs::path root = fs::path(test::outputDir()) / "engine-recording";
  fs::remove_all(root);
  fs::create_directories(root / "Documents");
  fs::create_directories(root / "Pictures");
  KWQImageDictionary::setDocumentsDirectory((root / "Documents").string());
  KWQCameraRollHelper::setPhotoLibraryDirectory((root / "Pictures").string());
  auto& recorder = KWQCameraRollHelper::getInstance();
  ASSERT_FALSE(recorder.isRecording());

  auto engine = KWQVideoHelper::create(AVCaptureSessionPreset640x480, AVCaptureDevicePositionBack,
                                       AVLayerVideoGravityResizeAspect, kPixelFormat420f);
  engine->startVideoCapture();  // recording off: the recorder is left alone
  engine->stopVideoCapture();
  EXPECT_FALSE(recorder.isRecording());

  engine->setRecordCameraData(true);
  engine->startVideoCapture();
  EXPECT_TRUE(recorder.isRecording());
  // The frame step hands every frame to the recorder; a few frames make a movie.
  ASSERT_TRUE(
      pumpMainContextUntil([&] { return engine->videoDataOutput()->deliveredFrameCount() >= 5; }));
  engine->stopVideoCapture();
  EXPECT_FALSE(engine->session()->isRunning());
  ASSERT_TRUE(recorder.waitForPendingSaves(60s));
  EXPECT_FALSE(recorder.isRecording());
  EXPECT_FALSE(fs::is_empty(root / "Pictures"));  // the movie reached the photo library
}

TEST_F(VideoHelperTest, StartStopHundredTimesAndDropWithFramesInFlight) {
  const int threadsBefore = test::threadCount();
  {
    auto engine = KWQVideoHelper::create(AVCaptureSessionPreset640x480, AVCaptureDevicePositionBack,
                                         AVLayerVideoGravityResizeAspect, kPixelFormat420f);
    for (int i = 0; i < 100; ++i) {
      engine->startVideoCapture();
      if (i % 20 == 0)
        ASSERT_TRUE(pumpMainContextUntil(
            [&] { return engine->videoDataOutput()->deliveredFrameCount() > uint64_t(i / 20); }));
      engine->stopVideoCapture();
      ASSERT_FALSE(engine->session()->isRunning());
    }
    // Dropped while running, frames in flight: the engine stops as it goes.
    engine->startVideoCapture();
    ASSERT_TRUE(
        pumpMainContextUntil([&] { return engine->videoDataOutput()->deliveredFrameCount() > 5; }));
    engine.reset();

    // Dropped on its own frame queue: the last handle goes with a queued block.
    auto last = KWQVideoHelper::create(AVCaptureSessionPreset640x480, AVCaptureDevicePositionBack,
                                       AVLayerVideoGravityResizeAspect, kPixelFormat420f);
    last->startVideoCapture();
    ASSERT_TRUE(
        pumpMainContextUntil([&] { return last->videoDataOutput()->deliveredFrameCount() > 2; }));
    auto queue = last->state().videoDataOutputQueue;
    std::atomic<bool> gone{false};
    queue->async([engine = std::move(last), &gone]() mutable {
      engine.reset();
      gone = true;
    });
    queue.reset();
    ASSERT_TRUE(pumpMainContextUntil([&] { return gone.load(); }));
  }
  // Every queue and camera thread has ended (the global pool may have grown once).
  EXPECT_TRUE(pumpMainContextUntil([&] { return test::threadCount() <= threadsBefore + 8; }));
}

}  // namespace
}  // namespace kwq

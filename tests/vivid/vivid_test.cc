// The webcam path against real V4L2 devices: the kernel's virtual camera driver with two
// webcam instances, inside the QEMU guest that run-in-vm.sh boots. Outside that guest the
// tests skip: the host has no such cameras.

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>

#include "kwqimage/CaptureDevice.h"
#include "kwqimage/CaptureSession.h"
#include "platform/media/capture_pipeline.h"
#include "platform/media/gst_init.h"
#include "platform/media/v4l2_controls.h"
#include "support/main_loop.h"
#include "support/test_support.h"
#include "vivid/vivid_support.h"

#include <linux/videodev2.h>

namespace kwq {
namespace {

using namespace std::chrono_literals;
using vivid::FrameCounter;

std::shared_ptr<DispatchQueue> frameQueue() {
  return DispatchQueue::createSerial("vivid.frames");
}

// A session on `camera` with a video-data output delivering `format` to `counter`.
struct Filming {
  std::shared_ptr<CaptureSession> session = CaptureSession::create();
  std::shared_ptr<VideoDataOutput> output = VideoDataOutput::create();
  std::shared_ptr<FrameCounter> counter = std::make_shared<FrameCounter>();
  std::shared_ptr<DispatchQueue> queue = frameQueue();

  Filming(std::shared_ptr<CaptureDevice> camera, std::string_view preset, uint32_t format) {
    session->setSessionPreset(preset);
    session->addInput(CaptureDeviceInput::deviceInputWithDevice(std::move(camera)));
    output->setVideoSettings(format);
    output->setSampleBufferDelegate(counter, queue);
    session->addOutput(output);
  }
  ~Filming() { session->stopRunning(); }
};

TEST(VividDiscovery, ListsBothCamerasWithNamesIdsAndPositions) {
  KWQ_REQUIRE_GUEST();
  CaptureDevice::resetDevices();
  const auto devices = CaptureDevice::devicesWithMediaType(AVMediaTypeVideo);
  ASSERT_EQ(devices.size(), 2u);
  std::set<std::string> ids;
  for (const auto& d : devices) {
    EXPECT_NE(d->localizedName().find("vivid"), std::string::npos) << d->localizedName();
    EXPECT_EQ(d->uniqueID().rfind("v4l2:", 0), 0u) << d->uniqueID();
    ids.insert(d->uniqueID());
  }
  EXPECT_EQ(ids.size(), 2u) << "unique ids must differ";
  // Neither reports an orientation: the first in path order faces the user, the second is
  // the back camera.
  EXPECT_EQ(devices[0]->position(), AVCaptureDevicePositionFront);
  EXPECT_EQ(devices[1]->position(), AVCaptureDevicePositionBack);
  EXPECT_EQ(CaptureDevice::defaultDeviceWithMediaType(AVMediaTypeVideo), devices[0]);
  EXPECT_EQ(CaptureDevice::deviceWithUniqueID(devices[1]->uniqueID()), devices[1]);
}

// Each preset films at a size the driver lists (320x180 ... 3840x2160): the fixed presets at
// their own size, High at the largest listed size up to 1920 x 1080.
TEST(VividDiscovery, PresetsFilmAtSizesTheDriverOffers) {
  KWQ_REQUIRE_GUEST();
  CaptureDevice::resetDevices();
  const auto camera = CaptureDevice::defaultDeviceWithMediaType(AVMediaTypeVideo);
  ASSERT_TRUE(camera);
  const struct {
    std::string_view preset;
    size_t width, height;
  } cases[] = {{AVCaptureSessionPreset640x480, 640, 480},
               {AVCaptureSessionPreset1280x720, 1280, 720},
               {AVCaptureSessionPreset1920x1080, 1920, 1080},
               {AVCaptureSessionPresetHigh, 1920, 1080}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.preset));
    Filming f(camera, c.preset, kPixelFormatBGRA);
    EXPECT_TRUE(f.session->canSetSessionPreset(c.preset));
    ASSERT_EQ(f.session->sessionPreset(), c.preset);
    f.session->startRunning();
    ASSERT_TRUE(f.counter->waitForMore(2, 30s)) << "no frames";
    const PixelBuffer& px = f.counter->last().imageBuffer();
    EXPECT_EQ(px.width(), c.width);
    EXPECT_EQ(px.height(), c.height);
    // Filmed at that size, not scaled: the bars' edges stay sharp.
    EXPECT_LE(vivid::barError(f.counter->last()), 6);
  }
}

// --- Pixels -------------------------------------------------------------------------------

// v4l2src held to one camera format, as the session's source bin holds it to a size.
class FormatSource final : public platform::CameraSource {
 public:
  FormatSource(const std::string& path, const std::string& caps) {
    GstElement* src = gst_element_factory_make("v4l2src", nullptr);
    if (src) g_object_set(src, "device", path.c_str(), nullptr);
    bin_ = platform::makeDecodingSourceBin(src, gst_caps_from_string(caps.c_str()));
  }
  GstElement* element() override { return bin_; }
  bool isLive() const override { return true; }

 private:
  GstElement* bin_ = nullptr;
};

// Every camera format a webcam commonly sends (and some it may), converted by the session's
// pipeline to 420f and to BGRA: the bars come out with the driver's colours.
TEST(VividFrames, CameraFormatsConvertToTheBarsColours) {
  KWQ_REQUIRE_GUEST();
  ASSERT_TRUE(platform::ensureGStreamer(nullptr));
  const char* formats[] = {"YUY2", "UYVY", "YVYU", "NV12", "NV21", "I420",
                           "YV12", "NV16", "RGB",  "BGR",  "BGRx", "xRGB"};
  for (const char* format : formats) {
    for (uint32_t out : {kPixelFormat420f, kPixelFormatBGRA}) {
      SCOPED_TRACE(std::string(format) + (out == kPixelFormatBGRA ? " to BGRA" : " to 420f"));
      std::mutex mutex;
      SampleBuffer got;
      std::atomic<int> frames{0};
      std::string error;
      auto pipeline = platform::CapturePipeline::create(
          std::make_unique<FormatSource>(vivid::nodePath(0), std::string("video/x-raw,format=") +
                                                                 format + ",width=640,height=480"),
          "vivid", 640, 480, out,
          [&](const SampleBuffer& s) {
            std::lock_guard lock(mutex);
            got = s;
            ++frames;
          },
          &error);
      ASSERT_TRUE(pipeline) << error;
      ASSERT_TRUE(pipeline->start(&error)) << error;
      ASSERT_TRUE(test::pumpMainContextUntil([&] { return frames >= 2; }, 20s));
      pipeline->stop();
      std::lock_guard lock(mutex);
      EXPECT_EQ(got.imageBuffer().pixelFormat(), out);
      EXPECT_LE(vivid::barError(got), 6);
    }
  }
}

// The share of the driver's frames that reach the delegate at 640 x 480, 420f, with a
// delegate that only counts; and nothing after stopRunning() returns.
TEST(VividFrames, DeliveryAt640x480AndNothingAfterStop) {
  KWQ_REQUIRE_GUEST();
  CaptureDevice::resetDevices();
  Filming f(CaptureDevice::defaultDeviceWithMediaType(AVMediaTypeVideo),
            AVCaptureSessionPreset640x480, kPixelFormat420f);
  f.session->startRunning();
  ASSERT_TRUE(f.counter->waitForMore(60, 60s)) << "fewer than 60 frames in a minute";
  f.session->stopRunning();
  f.counter->markStopped();
  const int atStop = f.counter->frames();
  test::pumpMainContextUntil([] { return false; }, 1500ms);
  EXPECT_EQ(f.counter->framesAfterStop(), 0);
  EXPECT_EQ(f.counter->frames(), atStop);
  EXPECT_LE(vivid::barError(f.counter->last()), 6);

  // The driver films 640 x 480 at 25 frames a second at most, the rate v4l2src asks for.
  auto t = f.counter->timeStamps();
  ASSERT_GE(t.size(), 2u);
  for (size_t i = 1; i < t.size(); ++i) ASSERT_GT(t[i], t[i - 1]) << "time stamps must rise";
  const double span = t.back() - t.front();
  const double produced = span * 25 + 1;
  std::printf(
      "delivery at 640x480: %zu frames in %.2f s of the driver's 25 fps (%.0f frames):"
      " %.0f %%; %llu dropped at the output\n",
      t.size(), span, produced, 100.0 * t.size() / produced,
      static_cast<unsigned long long>(f.output->droppedFrameCount()));
  ::testing::Test::RecordProperty("delivered", static_cast<int>(t.size()));
  ::testing::Test::RecordProperty("produced", static_cast<int>(produced + 0.5));
}

// --- Controls -----------------------------------------------------------------------------

// The virtual webcam has image controls but no lens, flash or exposure modes: the device
// offers no focus, white-balance, exposure, flash or torch mode, and the engine's set-up and
// controls skip them silently.
TEST(VividControls, ModesTheCameraLacksAreSkippedSilently) {
  KWQ_REQUIRE_GUEST();
  CaptureDevice::resetDevices();
  auto camera = CaptureDevice::defaultDeviceWithMediaType(AVMediaTypeVideo);
  ASSERT_TRUE(camera);
  for (int64_t mode : {0, 1, 2}) {
    EXPECT_FALSE(camera->isFocusModeSupported(mode));
    EXPECT_FALSE(camera->isWhiteBalanceModeSupported(mode));
    EXPECT_FALSE(camera->isExposureModeSupported(mode));
    EXPECT_FALSE(camera->isFlashModeSupported(mode));
    EXPECT_FALSE(camera->isTorchModeSupported(mode));
  }
  EXPECT_FALSE(camera->isAutoFocusRangeRestrictionSupported());
  EXPECT_FALSE(camera->hasFlash());
  EXPECT_FALSE(camera->hasTorch());
  ASSERT_TRUE(camera->lockForConfiguration());
  camera->setTorchMode(AVCaptureTorchModeOn);
  EXPECT_FALSE(camera->setTorchModeOnWithLevel(1.0f));
  camera->setFlashMode(AVCaptureFlashModeOn);
  camera->unlockForConfiguration();
  EXPECT_EQ(camera->torchMode(), AVCaptureTorchModeOff);
  EXPECT_EQ(camera->flashMode(), AVCaptureFlashModeOff);
}

// Brightness and gain are there and reach the driver: a brighter setting brightens the bars.
TEST(VividControls, BrightnessAndGainAreThereAndAct) {
  KWQ_REQUIRE_GUEST();
  auto controls = platform::openV4l2ControlDevice(vivid::nodePath(0));
  ASSERT_TRUE(controls);
  const auto brightness = controls->query(V4L2_CID_BRIGHTNESS);
  ASSERT_TRUE(brightness);
  EXPECT_LT(brightness->minimum, brightness->maximum);
  ASSERT_TRUE(controls->query(V4L2_CID_GAIN));
  ASSERT_TRUE(controls->query(V4L2_CID_AUTOGAIN));
  EXPECT_FALSE(controls->query(V4L2_CID_FOCUS_AUTO));
  EXPECT_FALSE(controls->query(V4L2_CID_EXPOSURE_AUTO));
  EXPECT_FALSE(controls->query(V4L2_CID_FLASH_LED_MODE));

  CaptureDevice::resetDevices();
  Filming f(CaptureDevice::defaultDeviceWithMediaType(AVMediaTypeVideo),
            AVCaptureSessionPreset640x480, kPixelFormat420f);
  f.session->startRunning();
  auto meanLuma = [&] {
    f.counter->waitForMore(3, 20s);
    const PixelBuffer& p = f.counter->last().imageBuffer();
    if (p.isNull() || !p.lockBaseAddress(kPixelBufferLockReadOnly)) return -1.0;
    double sum = 0;
    for (size_t y = p.height() / 2; y < p.height(); ++y)
      for (size_t x = 0; x < p.width(); ++x)
        sum += p.baseAddressOfPlane(0)[y * p.bytesPerRowOfPlane(0) + x];
    p.unlockBaseAddress(kPixelBufferLockReadOnly);
    return sum / (p.width() * (p.height() - p.height() / 2));
  };
  const double before = meanLuma();
  ASSERT_TRUE(controls->set(V4L2_CID_BRIGHTNESS, brightness->maximum));
  EXPECT_EQ(controls->get(V4L2_CID_BRIGHTNESS), brightness->maximum);
  f.counter->waitForMore(3, 20s);  // frames filmed before the change
  const double after = meanLuma();
  controls->set(V4L2_CID_BRIGHTNESS, brightness->defaultValue);
  EXPECT_GT(after, before + 20) << "brightness did not reach the picture";
}

}  // namespace
}  // namespace kwq

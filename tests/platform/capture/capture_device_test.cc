#include <cmath>
#include <filesystem>
#include <limits>
#include <thread>

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include "capture_test_support.h"
#include "kwqimage/CaptureDevice.h"
#include "platform/media/v4l2_camera.h"
#include "platform/media/v4l2_controls.h"
#include "support/main_loop.h"
#include "synthetic/camera.h"

namespace kwq {
namespace {

using namespace std::chrono_literals;

bool otherThreadLocks(CaptureDevice& device) {
  bool locked = true;
  std::thread([&] {
    std::string error;
    locked = device.lockForConfiguration(&error);
    if (locked)
      device.unlockForConfiguration();
    else
      EXPECT_FALSE(error.empty());
  }).join();
  return locked;
}

TEST(CaptureDeviceTest, ConfigurationLockBelongsToOneThread) {
  auto camera = test::syntheticCamera();
  // Without the lock nothing changes.
  camera->setFocusMode(AVCaptureFocusModeLocked);
  EXPECT_EQ(camera->focusMode(), AVCaptureFocusModeContinuousAutoFocus);
  ASSERT_TRUE(camera->lockForConfiguration());
  ASSERT_TRUE(camera->lockForConfiguration());  // nests
  EXPECT_FALSE(otherThreadLocks(*camera));
  // Another thread's unlock does not release ours.
  std::thread([&] { camera->unlockForConfiguration(); }).join();
  camera->unlockForConfiguration();
  EXPECT_FALSE(otherThreadLocks(*camera));
  camera->setFocusMode(AVCaptureFocusModeLocked);
  EXPECT_EQ(camera->focusMode(), AVCaptureFocusModeLocked);
  camera->unlockForConfiguration();
  EXPECT_TRUE(otherThreadLocks(*camera));
  camera->unlockForConfiguration();  // unbalanced: ignored
  EXPECT_TRUE(otherThreadLocks(*camera));
}

TEST(CaptureDeviceTest, ModesTorchAndFlashFollowWhatTheCameraHas) {
  SyntheticCameraOptions options;
  options.hasFlash = false;
  options.hasAutoFocusRangeRestriction = false;
  options.maxAvailableTorchLevel = 0.5f;
  auto camera = CaptureDevice::syntheticCamera(options);
  ASSERT_TRUE(camera->lockForConfiguration());
  EXPECT_FALSE(camera->hasFlash());
  camera->setFlashMode(AVCaptureFlashModeOn);
  EXPECT_EQ(camera->flashMode(), AVCaptureFlashModeOff);
  EXPECT_FALSE(camera->isAutoFocusRangeRestrictionSupported());
  camera->setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestrictionNear);
  EXPECT_EQ(camera->autoFocusRangeRestriction(), AVCaptureAutoFocusRangeRestrictionNone);
  EXPECT_FALSE(camera->isExposureModeSupported(3));
  camera->setExposureMode(3);
  EXPECT_EQ(camera->exposureMode(), AVCaptureExposureModeContinuousAutoExposure);

  // Torch levels: (0, max] accepted, shining at most at what the lamp has available.
  for (float bad : {0.0f, -1.0f, 1.0001f, std::numeric_limits<float>::quiet_NaN()}) {
    std::string error;
    EXPECT_FALSE(camera->setTorchModeOnWithLevel(bad, &error)) << bad;
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(camera->torchMode(), AVCaptureTorchModeOff);
  }
  EXPECT_TRUE(camera->setTorchModeOnWithLevel(AVCaptureMaxAvailableTorchLevel));
  EXPECT_EQ(camera->torchMode(), AVCaptureTorchModeOn);
  EXPECT_FLOAT_EQ(camera->torchLevel(), 0.5f);
  camera->setTorchMode(AVCaptureTorchModeOff);
  EXPECT_EQ(camera->torchLevel(), 0.0f);
  camera->unlockForConfiguration();
  EXPECT_FALSE(camera->setTorchModeOnWithLevel(0.3f));  // not locked

  SyntheticCameraOptions bare;
  bare.hasTorch = bare.hasFocus = bare.hasWhiteBalance = bare.hasExposure = false;
  auto plain = CaptureDevice::syntheticCamera(bare);
  ASSERT_TRUE(plain->lockForConfiguration());
  EXPECT_FALSE(plain->setTorchModeOnWithLevel(0.5f));
  EXPECT_FALSE(plain->isFocusModeSupported(AVCaptureFocusModeAutoFocus));
  EXPECT_EQ(plain->focusMode(), AVCaptureFocusModeLocked);
  plain->unlockForConfiguration();
}

TEST(CaptureDeviceTest, SimulatedControlsShowInTheFrames) {
  test::CaptureRig rig(test::syntheticCamera(), AVCaptureSessionPreset640x480, kPixelFormat420f);
  auto& camera = *rig.camera;
  std::mutex mutex;
  SampleBuffer latest;
  rig.log->onFrame = [&](const SampleBuffer& f) {
    std::lock_guard lock(mutex);
    latest = f;
  };
  auto effects = [&] {
    std::lock_guard lock(mutex);
    return latest.isNull() ? synthetic::CameraEffects{-1, -1}
                           : synthetic::syntheticFrameEffects(camera, latest).value();
  };
  rig.session->startRunning();
  // Continuous auto-focus brings the lens into focus.
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return effects().defocusSigma == 0.0; }));
  ASSERT_TRUE(camera.lockForConfiguration());
  // Far subjects only: the near card goes out of focus.
  camera.setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestrictionFar);
  EXPECT_TRUE(test::pumpMainContextUntil([&] { return effects().defocusSigma > 2.5; }));
  // A one-shot pass restricted to near subjects focuses and then locks.
  camera.setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestrictionNear);
  camera.setFocusMode(AVCaptureFocusModeAutoFocus);
  EXPECT_EQ(camera.focusMode(), AVCaptureFocusModeAutoFocus);
  EXPECT_TRUE(
      test::pumpMainContextUntil([&] { return camera.focusMode() == AVCaptureFocusModeLocked; }));
  EXPECT_TRUE(test::pumpMainContextUntil([&] { return effects().defocusSigma == 0.0; }));
  // The torch brightens.
  ASSERT_TRUE(camera.setTorchModeOnWithLevel(0.8f));
  EXPECT_TRUE(
      test::pumpMainContextUntil([&] { return std::abs(effects().lightGain - 1.4) < 1e-6; }));
  camera.unlockForConfiguration();
}

TEST(CaptureDeviceTest, DeviceListCanBeReplacedAndFound) {
  auto back = test::syntheticCamera(AVCaptureDevicePositionBack);
  CaptureDevice::setDevices({back, nullptr});
  ASSERT_EQ(CaptureDevice::devices().size(), 1u);
  EXPECT_EQ(CaptureDevice::devicesWithMediaType(AVMediaTypeVideo)[0], back);
  EXPECT_TRUE(CaptureDevice::devicesWithMediaType(AVMediaTypeAudio).empty());
  EXPECT_EQ(CaptureDevice::deviceWithUniqueID("kwq.synthetic.back"), back);
  EXPECT_EQ(CaptureDevice::deviceWithUniqueID("nope"), nullptr);
  CaptureDevice::setDevices({});
  EXPECT_EQ(CaptureDevice::defaultDeviceWithMediaType(AVMediaTypeVideo), nullptr);

  CaptureDevice::resetDevices();
  const auto found = CaptureDevice::devices();
  ASSERT_FALSE(found.empty());
  EXPECT_EQ(CaptureDevice::devices(), found);  // found once, stable
  bool anyVideoNode = false;
  for (int i = 0; i < 64; ++i)
    anyVideoNode |= std::filesystem::exists("/dev/video" + std::to_string(i));
  if (!anyVideoNode) {
    // No camera here: a synthetic back and front camera.
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0]->position(), AVCaptureDevicePositionBack);
    EXPECT_EQ(found[1]->position(), AVCaptureDevicePositionFront);
    EXPECT_NE(found[0]->uniqueID(), found[1]->uniqueID());
  }
  EXPECT_EQ(CaptureDevice::v4l2Camera("/dev/null"), nullptr);
  EXPECT_EQ(CaptureDevice::v4l2Camera("/nonexistent/video0"), nullptr);
}

// A V4L2 device that only remembers its controls.
class FakeControls : public platform::V4l2ControlDevice {
 public:
  std::optional<platform::V4l2Control> query(uint32_t id) const override {
    for (auto& c : controls)
      if (c.id == id) return c;
    return std::nullopt;
  }
  std::optional<int64_t> get(uint32_t id) const override {
    auto it = values.find(id);
    if (it == values.end()) return std::nullopt;
    return it->second;
  }
  bool set(uint32_t id, int64_t value) override {
    values[id] = value;
    log.emplace_back(id, value);
    return true;
  }
  std::vector<platform::V4l2Control> controls;
  std::map<uint32_t, int64_t> values;
  std::vector<std::pair<uint32_t, int64_t>> log;
};

platform::V4l2Control control(uint32_t id, int64_t min, int64_t max,
                              std::vector<int64_t> menu = {}) {
  platform::V4l2Control c;
  c.id = id;
  c.type = menu.empty() ? V4L2_CTRL_TYPE_INTEGER : V4L2_CTRL_TYPE_MENU;
  c.minimum = min;
  c.maximum = max;
  c.menu = std::move(menu);
  return c;
}

TEST(V4l2ControlsTest, ModesMapOntoTheDriversControls) {
  // A UVC webcam: auto focus on/off, aperture-priority exposure, white balance; no flash.
  auto uvc = std::make_shared<FakeControls>();
  uvc->controls = {control(V4L2_CID_FOCUS_AUTO, 0, 1), control(V4L2_CID_FOCUS_ABSOLUTE, 0, 255),
                   control(V4L2_CID_AUTO_WHITE_BALANCE, 0, 1),
                   control(V4L2_CID_EXPOSURE_AUTO, 0, 3, {1, 3})};
  uvc->values = {
      {V4L2_CID_FOCUS_AUTO, 1}, {V4L2_CID_AUTO_WHITE_BALANCE, 1}, {V4L2_CID_EXPOSURE_AUTO, 3}};
  platform::V4l2ControlMap map(uvc);
  const auto& caps = map.capabilities();
  EXPECT_EQ(caps.focusModes, (std::vector<int64_t>{0, 2}));  // no one-shot without the button
  EXPECT_EQ(caps.exposureModes, (std::vector<int64_t>{0, 2}));
  EXPECT_TRUE(caps.flashModes.empty());
  EXPECT_TRUE(caps.torchModes.empty());
  EXPECT_FALSE(caps.autoFocusRangeRestriction);
  const auto now = map.currentControls();
  EXPECT_EQ(now.focusMode, AVCaptureFocusModeContinuousAutoFocus);
  EXPECT_EQ(now.exposureMode, AVCaptureExposureModeContinuousAutoExposure);
  map.apply(now, false);
  uvc->log.clear();
  auto locked = now;
  locked.exposureMode = AVCaptureExposureModeLocked;
  map.apply(locked, false);  // only what changed is set
  EXPECT_EQ(uvc->log, (decltype(uvc->log){{V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_MANUAL}}));
  EXPECT_EQ(map.position(), std::nullopt);

  // A phone-like sensor: one-shot focus, range menu, flash LED with torch, orientation.
  auto phone = std::make_shared<FakeControls>();
  phone->controls = {control(V4L2_CID_FOCUS_AUTO, 0, 1),
                     control(V4L2_CID_AUTO_FOCUS_START, 0, 1),
                     control(V4L2_CID_AUTO_FOCUS_RANGE, 0, 3, {0, 1, 2, 3}),
                     control(V4L2_CID_FLASH_LED_MODE, 0, 2, {0, 1, 2}),
                     control(V4L2_CID_FLASH_STROBE, 0, 1),
                     control(V4L2_CID_FLASH_TORCH_INTENSITY, 10, 110),
                     control(V4L2_CID_CAMERA_ORIENTATION, 0, 2, {0, 1, 2})};
  phone->values = {{V4L2_CID_CAMERA_ORIENTATION, V4L2_CAMERA_ORIENTATION_BACK}};
  platform::V4l2ControlMap flashMap(phone);
  EXPECT_EQ(flashMap.position(), AVCaptureDevicePositionBack);
  EXPECT_EQ(flashMap.capabilities().focusModes, (std::vector<int64_t>{0, 1, 2}));
  platform::CameraControls c;
  flashMap.apply(c, false);
  phone->log.clear();
  c.autoFocusRangeRestriction = AVCaptureAutoFocusRangeRestrictionNear;
  c.focusMode = AVCaptureFocusModeAutoFocus;
  c.torchMode = AVCaptureTorchModeOn;
  c.torchLevel = 0.25f;
  flashMap.apply(c, true);
  EXPECT_EQ(phone->values[V4L2_CID_AUTO_FOCUS_RANGE], V4L2_AUTO_FOCUS_RANGE_MACRO);
  EXPECT_EQ(phone->values[V4L2_CID_FOCUS_AUTO], 0);
  EXPECT_EQ(phone->values[V4L2_CID_AUTO_FOCUS_START], 1);
  EXPECT_EQ(phone->values[V4L2_CID_FLASH_TORCH_INTENSITY], 35);
  EXPECT_EQ(phone->values[V4L2_CID_FLASH_LED_MODE], V4L2_FLASH_LED_MODE_TORCH);
  // With the torch on, the flash does not strobe; with it off and flash on, it does.
  c.flashMode = AVCaptureFlashModeOn;
  flashMap.fireFlash(c);
  EXPECT_EQ(phone->values.count(V4L2_CID_FLASH_STROBE), 0u);
  c.torchMode = AVCaptureTorchModeOff;
  flashMap.apply(c, false);
  EXPECT_EQ(phone->values[V4L2_CID_FLASH_LED_MODE], V4L2_FLASH_LED_MODE_FLASH);
  flashMap.fireFlash(c);
  EXPECT_EQ(phone->values[V4L2_CID_FLASH_STROBE], 1);
}

TEST(V4l2ControlsTest, PositionsPresetsAndOrder) {
  using P = std::vector<std::optional<int64_t>>;
  EXPECT_EQ(platform::assignV4l2Positions(P{std::nullopt}), (std::vector<int64_t>{2}));
  EXPECT_EQ(platform::assignV4l2Positions(P{std::nullopt, 1, std::nullopt, std::nullopt}),
            (std::vector<int64_t>{2, 1, 1, 0}));
  EXPECT_TRUE(platform::devicePathLess("/dev/video2", "/dev/video10"));
  EXPECT_FALSE(platform::devicePathLess("/dev/video10", "/dev/video2"));

  const std::vector<Size> uvc{{640, 480}, {1280, 720}, {2592, 1944}, {320, 240}};
  EXPECT_EQ(platform::v4l2SizeForPreset(uvc, AVCaptureSessionPresetHigh), (Size{1280, 720}));
  EXPECT_EQ(platform::v4l2SizeForPreset(uvc, AVCaptureSessionPreset640x480), (Size{640, 480}));
  EXPECT_EQ(platform::v4l2SizeForPreset(uvc, AVCaptureSessionPreset1920x1080), std::nullopt);
  EXPECT_EQ(platform::v4l2SizeForPreset({}, AVCaptureSessionPreset1920x1080), (Size{1920, 1080}));
  EXPECT_EQ(platform::v4l2SizeForPreset(uvc, "bogus"), std::nullopt);
}

}  // namespace
}  // namespace kwq

#include "platform/media/v4l2_controls.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <string>

#include "kwqimage/CaptureDevice.h"

namespace kwq::platform {
namespace {

constexpr uint32_t kMappedControls[] = {V4L2_CID_FOCUS_AUTO,         V4L2_CID_FOCUS_ABSOLUTE,
                                        V4L2_CID_AUTO_FOCUS_START,   V4L2_CID_AUTO_FOCUS_RANGE,
                                        V4L2_CID_AUTO_WHITE_BALANCE, V4L2_CID_DO_WHITE_BALANCE,
                                        V4L2_CID_EXPOSURE_AUTO,      V4L2_CID_FLASH_LED_MODE,
                                        V4L2_CID_FLASH_STROBE,       V4L2_CID_FLASH_TORCH_INTENSITY,
                                        V4L2_CID_CAMERA_ORIENTATION};

class IoctlControlDevice final : public V4l2ControlDevice {
 public:
  explicit IoctlControlDevice(std::string path) : path_(std::move(path)) {}

  std::optional<V4l2Control> query(uint32_t id) const override {
    const Node node(path_);
    const int fd = node.fd;
    v4l2_queryctrl q{};
    q.id = id;
    if (xioctl(fd, VIDIOC_QUERYCTRL, &q) != 0 || (q.flags & V4L2_CTRL_FLAG_DISABLED))
      return std::nullopt;
    V4l2Control c;
    c.id = id;
    c.type = q.type;
    c.minimum = q.minimum;
    c.maximum = q.maximum;
    c.step = q.step;
    c.defaultValue = q.default_value;
    if (q.type == V4L2_CTRL_TYPE_MENU || q.type == V4L2_CTRL_TYPE_INTEGER_MENU) {
      for (int64_t i = q.minimum; i <= q.maximum && i - q.minimum < 64; ++i) {
        v4l2_querymenu m{};
        m.id = id;
        m.index = static_cast<uint32_t>(i);
        if (xioctl(fd, VIDIOC_QUERYMENU, &m) == 0) c.menu.push_back(i);
      }
    }
    return c;
  }

  std::optional<int64_t> get(uint32_t id) const override {
    const Node node(path_);
    const int fd = node.fd;
    v4l2_control c{};
    c.id = id;
    if (xioctl(fd, VIDIOC_G_CTRL, &c) != 0) return std::nullopt;
    return c.value;
  }

  bool set(uint32_t id, int64_t value) override {
    const Node node(path_);
    const int fd = node.fd;
    v4l2_control c{};
    c.id = id;
    c.value = static_cast<int32_t>(value);
    return xioctl(fd, VIDIOC_S_CTRL, &c) == 0;
  }

 private:
  // The node is opened for each call and closed after it, so that an idle camera is not held
  // open: a driver re-registers an unplugged camera only once every handle on it is closed.
  struct Node {
    explicit Node(const std::string& path)
        : fd(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) {}
    ~Node() {
      if (fd >= 0) close(fd);
    }
    const int fd;
  };
  const std::string path_;
};

}  // namespace

int xioctl(int fd, unsigned long request, void* arg) {
  int r;
  do {
    r = ioctl(fd, request, arg);
  } while (r == -1 && errno == EINTR);
  return r;
}

std::unique_ptr<V4l2ControlDevice> openV4l2ControlDevice(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return nullptr;
  close(fd);
  return std::make_unique<IoctlControlDevice>(path);
}

V4l2ControlMap::V4l2ControlMap(std::shared_ptr<V4l2ControlDevice> device)
    : device_(std::move(device)) {
  if (!device_) return;
  for (uint32_t id : kMappedControls)
    if (auto c = device_->query(id)) controls_.push_back(*c);

  if (has(V4L2_CID_FOCUS_AUTO) || has(V4L2_CID_FOCUS_ABSOLUTE))
    caps_.focusModes.push_back(AVCaptureFocusModeLocked);
  if (has(V4L2_CID_AUTO_FOCUS_START)) caps_.focusModes.push_back(AVCaptureFocusModeAutoFocus);
  if (has(V4L2_CID_FOCUS_AUTO)) caps_.focusModes.push_back(AVCaptureFocusModeContinuousAutoFocus);
  caps_.autoFocusRangeRestriction = has(V4L2_CID_AUTO_FOCUS_RANGE);

  if (has(V4L2_CID_AUTO_WHITE_BALANCE))
    caps_.whiteBalanceModes.push_back(AVCaptureWhiteBalanceModeLocked);
  if (has(V4L2_CID_DO_WHITE_BALANCE))
    caps_.whiteBalanceModes.push_back(AVCaptureWhiteBalanceModeAutoWhiteBalance);
  if (has(V4L2_CID_AUTO_WHITE_BALANCE))
    caps_.whiteBalanceModes.push_back(AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance);

  if (menuHas(V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_MANUAL))
    caps_.exposureModes.push_back(AVCaptureExposureModeLocked);
  if (menuHas(V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_AUTO) ||
      menuHas(V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_APERTURE_PRIORITY))
    caps_.exposureModes.push_back(AVCaptureExposureModeContinuousAutoExposure);

  if (menuHas(V4L2_CID_FLASH_LED_MODE, V4L2_FLASH_LED_MODE_FLASH) && has(V4L2_CID_FLASH_STROBE))
    caps_.flashModes = {AVCaptureFlashModeOff, AVCaptureFlashModeOn};
  if (menuHas(V4L2_CID_FLASH_LED_MODE, V4L2_FLASH_LED_MODE_TORCH)) {
    caps_.torchModes = {AVCaptureTorchModeOff, AVCaptureTorchModeOn};
    caps_.maxAvailableTorchLevel = 1.0f;
  }
  // What the device does now counts as applied: opening a camera changes none of its controls.
  applied_ = currentControls();
}

bool V4l2ControlMap::has(uint32_t id) const {
  return std::any_of(controls_.begin(), controls_.end(), [&](auto& c) { return c.id == id; });
}

bool V4l2ControlMap::menuHas(uint32_t id, int64_t value) const {
  for (auto& c : controls_)
    if (c.id == id) return std::find(c.menu.begin(), c.menu.end(), value) != c.menu.end();
  return false;
}

void V4l2ControlMap::set(uint32_t id, int64_t value) {
  if (has(id)) device_->set(id, value);
}

CameraControls V4l2ControlMap::currentControls() const {
  CameraControls c;
  auto get = [&](uint32_t id) { return has(id) ? device_->get(id) : std::nullopt; };
  if (auto v = get(V4L2_CID_FOCUS_AUTO))
    c.focusMode = *v ? AVCaptureFocusModeContinuousAutoFocus : AVCaptureFocusModeLocked;
  if (auto v = get(V4L2_CID_AUTO_FOCUS_RANGE))
    c.autoFocusRangeRestriction =
        *v == V4L2_AUTO_FOCUS_RANGE_MACRO      ? AVCaptureAutoFocusRangeRestrictionNear
        : *v == V4L2_AUTO_FOCUS_RANGE_INFINITY ? AVCaptureAutoFocusRangeRestrictionFar
                                               : AVCaptureAutoFocusRangeRestrictionNone;
  if (auto v = get(V4L2_CID_AUTO_WHITE_BALANCE))
    c.whiteBalanceMode =
        *v ? AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance : AVCaptureWhiteBalanceModeLocked;
  if (auto v = get(V4L2_CID_EXPOSURE_AUTO))
    c.exposureMode = *v == V4L2_EXPOSURE_MANUAL ? AVCaptureExposureModeLocked
                                                : AVCaptureExposureModeContinuousAutoExposure;
  if (auto v = get(V4L2_CID_FLASH_LED_MODE)) {
    if (*v == V4L2_FLASH_LED_MODE_FLASH && !caps_.flashModes.empty())
      c.flashMode = AVCaptureFlashModeOn;
    if (*v == V4L2_FLASH_LED_MODE_TORCH) {
      c.torchMode = AVCaptureTorchModeOn;
      c.torchLevel = 1.0f;
      for (auto& control : controls_)
        if (control.id == V4L2_CID_FLASH_TORCH_INTENSITY && control.maximum > control.minimum)
          if (auto level = get(V4L2_CID_FLASH_TORCH_INTENSITY))
            c.torchLevel = static_cast<float>(*level - control.minimum) /
                           static_cast<float>(control.maximum - control.minimum);
    }
  }
  return c;
}

void V4l2ControlMap::apply(const CameraControls& c, bool focusPassRequested) {
  if (!device_) return;
  const bool first = !applied_;
  const CameraControls before = applied_.value_or(CameraControls{});
  auto changed = [&](auto field) { return first || c.*field != before.*field; };

  if (changed(&CameraControls::autoFocusRangeRestriction) && has(V4L2_CID_AUTO_FOCUS_RANGE)) {
    int64_t v = V4L2_AUTO_FOCUS_RANGE_AUTO;
    if (c.autoFocusRangeRestriction == AVCaptureAutoFocusRangeRestrictionNear)
      v = V4L2_AUTO_FOCUS_RANGE_MACRO;
    else if (c.autoFocusRangeRestriction == AVCaptureAutoFocusRangeRestrictionFar)
      v = V4L2_AUTO_FOCUS_RANGE_INFINITY;
    else if (!menuHas(V4L2_CID_AUTO_FOCUS_RANGE, v))
      v = V4L2_AUTO_FOCUS_RANGE_NORMAL;
    if (menuHas(V4L2_CID_AUTO_FOCUS_RANGE, v)) set(V4L2_CID_AUTO_FOCUS_RANGE, v);
  }
  if (changed(&CameraControls::focusMode) || focusPassRequested) {
    if (c.focusMode == AVCaptureFocusModeContinuousAutoFocus) {
      set(V4L2_CID_FOCUS_AUTO, 1);
    } else {
      set(V4L2_CID_FOCUS_AUTO, 0);
      if (c.focusMode == AVCaptureFocusModeAutoFocus) set(V4L2_CID_AUTO_FOCUS_START, 1);
    }
  }
  if (changed(&CameraControls::whiteBalanceMode)) {
    const bool continuous =
        c.whiteBalanceMode == AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance;
    set(V4L2_CID_AUTO_WHITE_BALANCE, continuous ? 1 : 0);
    if (c.whiteBalanceMode == AVCaptureWhiteBalanceModeAutoWhiteBalance)
      set(V4L2_CID_DO_WHITE_BALANCE, 1);
  }
  if (changed(&CameraControls::exposureMode) && has(V4L2_CID_EXPOSURE_AUTO)) {
    if (c.exposureMode == AVCaptureExposureModeLocked) {
      if (menuHas(V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_MANUAL))
        set(V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_MANUAL);
    } else if (c.exposureMode == AVCaptureExposureModeContinuousAutoExposure) {
      set(V4L2_CID_EXPOSURE_AUTO, menuHas(V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_AUTO)
                                      ? V4L2_EXPOSURE_AUTO
                                      : V4L2_EXPOSURE_APERTURE_PRIORITY);
    }
  }
  const bool ledChanged = changed(&CameraControls::flashMode) ||
                          changed(&CameraControls::torchMode) ||
                          changed(&CameraControls::torchLevel);
  if (ledChanged && has(V4L2_CID_FLASH_LED_MODE)) {
    const bool torch = c.torchMode != AVCaptureTorchModeOff && !caps_.torchModes.empty();
    const bool flash = c.flashMode != AVCaptureFlashModeOff && !caps_.flashModes.empty();
    if (torch) {
      for (auto& control : controls_) {
        if (control.id != V4L2_CID_FLASH_TORCH_INTENSITY) continue;
        const double span = static_cast<double>(control.maximum - control.minimum);
        const int64_t v =
            control.minimum + std::llround(std::clamp(c.torchLevel, 0.0f, 1.0f) * span);
        device_->set(control.id, std::clamp(v, control.minimum, control.maximum));
      }
    }
    set(V4L2_CID_FLASH_LED_MODE, torch   ? V4L2_FLASH_LED_MODE_TORCH
                                 : flash ? V4L2_FLASH_LED_MODE_FLASH
                                         : V4L2_FLASH_LED_MODE_NONE);
  }
  applied_ = c;
}

void V4l2ControlMap::fireFlash(const CameraControls& c) {
  if (caps_.flashModes.empty() || c.flashMode == AVCaptureFlashModeOff ||
      c.torchMode != AVCaptureTorchModeOff)
    return;
  set(V4L2_CID_FLASH_STROBE, 1);
}

std::optional<int64_t> V4l2ControlMap::position() const {
  if (!has(V4L2_CID_CAMERA_ORIENTATION)) return std::nullopt;
  const auto v = device_->get(V4L2_CID_CAMERA_ORIENTATION);
  if (v == V4L2_CAMERA_ORIENTATION_FRONT) return AVCaptureDevicePositionFront;
  if (v == V4L2_CAMERA_ORIENTATION_BACK) return AVCaptureDevicePositionBack;
  return std::nullopt;
}

}  // namespace kwq::platform

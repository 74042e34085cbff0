#pragma once

// V4L2 controls behind the camera's modes. The mapping, by control:
//
//   focus      locked: V4L2_CID_FOCUS_AUTO 0 (or a manual-only lens with FOCUS_ABSOLUTE);
//              auto (one pass): FOCUS_AUTO 0, then the AUTO_FOCUS_START button;
//              continuous: FOCUS_AUTO 1.
//   range      AUTO_FOCUS_RANGE: none -> AUTO (NORMAL where AUTO is missing), near -> MACRO,
//              far -> INFINITY; a value the driver's menu lacks is not set.
//   white bal. locked: AUTO_WHITE_BALANCE 0; auto (once): AUTO_WHITE_BALANCE 0, then the
//              DO_WHITE_BALANCE button; continuous: AUTO_WHITE_BALANCE 1.
//   exposure   locked: EXPOSURE_AUTO MANUAL; continuous: EXPOSURE_AUTO AUTO, else
//              APERTURE_PRIORITY (what UVC webcams offer). No one-shot exposure in V4L2.
//   flash      FLASH_LED_MODE FLASH with the FLASH_STROBE button: modes off and on; a still
//              with flash on strobes.
//   torch      FLASH_LED_MODE TORCH, brightness FLASH_TORCH_INTENSITY scaled from 0..1 onto
//              the control's range. The torch wins over the flash while both are on.
//   position   CAMERA_ORIENTATION front -> 2, back -> 1; external or missing -> unknown.
//
// Controls that fail to set are skipped silently (the driver may refuse while streaming).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/media/camera_backend.h"

namespace kwq::platform {

/// One control as the driver describes it.
struct V4l2Control {
  uint32_t id = 0;
  uint32_t type = 0;  // V4L2_CTRL_TYPE_*
  int64_t minimum = 0, maximum = 0, step = 1, defaultValue = 0;
  /// Values of a menu control the driver offers.
  std::vector<int64_t> menu;
};

/// The control calls of a V4L2 device; tests stand in a fake.
class V4l2ControlDevice {
 public:
  virtual ~V4l2ControlDevice() = default;
  /// None when the device lacks the control or it is disabled.
  virtual std::optional<V4l2Control> query(uint32_t id) const = 0;
  virtual std::optional<int64_t> get(uint32_t id) const = 0;
  virtual bool set(uint32_t id, int64_t value) = 0;
};

/// ioctl(2), repeated while a signal interrupts it.
int xioctl(int fd, unsigned long request, void* arg);

/// The controls of the device node at `path`, which each call opens and closes again (the
/// camera is never held open while idle); null when it cannot be opened now.
std::unique_ptr<V4l2ControlDevice> openV4l2ControlDevice(const std::string& path);

/// Camera modes on a device's controls (the table above). Not thread-safe: the backend calls
/// it under its lock.
class V4l2ControlMap {
 public:
  explicit V4l2ControlMap(std::shared_ptr<V4l2ControlDevice> device);

  const CameraCapabilities& capabilities() const { return caps_; }
  /// The modes the device is in now.
  CameraControls currentControls() const;
  /// Sets the controls whose mode changed since the last call, or since the map read the
  /// device (and a requested focus pass).
  void apply(const CameraControls& controls, bool focusPassRequested);
  /// Strobes the flash when the controls ask for it (flash on, torch off).
  void fireFlash(const CameraControls& controls);
  /// AVCaptureDevicePositionFront or Back from the orientation control; none otherwise.
  std::optional<int64_t> position() const;

 private:
  bool has(uint32_t id) const;
  bool menuHas(uint32_t id, int64_t value) const;
  void set(uint32_t id, int64_t value);

  std::shared_ptr<V4l2ControlDevice> device_;
  std::vector<V4l2Control> controls_;  // those the device has, of the ids the map uses
  CameraCapabilities caps_;
  std::optional<CameraControls> applied_;
};

}  // namespace kwq::platform

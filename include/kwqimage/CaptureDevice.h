#pragma once

/// @file
/// Cameras: the devices a capture session films with, the process's device list, and the
/// cameras the library makes itself (synthetic cameras and video files played as cameras).

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kwqimage/Export.h"
#include "kwqimage/SyntheticScene.h"

namespace kwq {

///@{
/// Media types, as the platform spells them.
inline constexpr std::string_view AVMediaTypeVideo = "vide";
inline constexpr std::string_view AVMediaTypeAudio = "soun";
inline constexpr std::string_view AVMediaTypeMetadata = "meta";
///@}

///@{
/// Camera positions.
inline constexpr int64_t AVCaptureDevicePositionUnspecified = 0;
inline constexpr int64_t AVCaptureDevicePositionBack = 1;
inline constexpr int64_t AVCaptureDevicePositionFront = 2;
///@}

///@{
/// Focus modes: locked; one auto-focus pass, after which the lens locks (the mode reads locked
/// again once the pass is over); continuous auto-focus.
inline constexpr int64_t AVCaptureFocusModeLocked = 0;
inline constexpr int64_t AVCaptureFocusModeAutoFocus = 1;
inline constexpr int64_t AVCaptureFocusModeContinuousAutoFocus = 2;
///@}

///@{
/// Where auto-focus looks: anywhere, near subjects, far subjects.
inline constexpr int64_t AVCaptureAutoFocusRangeRestrictionNone = 0;
inline constexpr int64_t AVCaptureAutoFocusRangeRestrictionNear = 1;
inline constexpr int64_t AVCaptureAutoFocusRangeRestrictionFar = 2;
///@}

///@{
/// White-balance modes.
inline constexpr int64_t AVCaptureWhiteBalanceModeLocked = 0;
inline constexpr int64_t AVCaptureWhiteBalanceModeAutoWhiteBalance = 1;
inline constexpr int64_t AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance = 2;
///@}

///@{
/// Exposure modes.
inline constexpr int64_t AVCaptureExposureModeLocked = 0;
inline constexpr int64_t AVCaptureExposureModeAutoExpose = 1;
inline constexpr int64_t AVCaptureExposureModeContinuousAutoExposure = 2;
///@}

///@{
/// Flash and torch modes.
inline constexpr int64_t AVCaptureFlashModeOff = 0;
inline constexpr int64_t AVCaptureFlashModeOn = 1;
inline constexpr int64_t AVCaptureFlashModeAuto = 2;
inline constexpr int64_t AVCaptureTorchModeOff = 0;
inline constexpr int64_t AVCaptureTorchModeOn = 1;
inline constexpr int64_t AVCaptureTorchModeAuto = 2;
///@}

/// The highest torch level a caller may ask for (full brightness). A device may shine less
/// than asked while its maxAvailableTorchLevel() is lower.
inline constexpr float AVCaptureMaxAvailableTorchLevel = 1.0f;

/// A synthetic camera: films a scene of props (kwqimage/SyntheticScene.h; by default an ID card
/// with a PDF417 code held over a desk) at the session preset's size and 30 frames a second,
/// with each frame's ground truth known (kwqimage/SyntheticCamera.h). It simulates the controls it
/// is said to have below, so that they show in the picture: a lens that is out of focus until
/// auto-focus has run (and always with the range restricted to far subjects, the card being near),
/// a torch that brightens the picture, and a flash that brightens the frame a still capture takes.
struct SyntheticCameraOptions {
  /// Back, front or unspecified.
  int64_t position = AVCaptureDevicePositionBack;
  /// Empty: "kwq.synthetic.back" / "kwq.synthetic.front" / "kwq.synthetic.<position>".
  std::string uniqueID;
  /// Empty: "Synthetic Back Camera" / "Synthetic Front Camera" / "Synthetic Camera".
  std::string localizedName;

  /// What it films (the default cameras of the device list film SyntheticScene::card(), the
  /// front one with seed 2).
  SyntheticScene scene = SyntheticScene::card();

  /// Controls the camera offers.
  bool hasFocus = true;  ///< focus modes locked, auto and continuous
  /// Auto-focus can be restricted to near or far subjects.
  bool hasAutoFocusRangeRestriction = true;
  bool hasWhiteBalance = true;  ///< white-balance modes locked, auto, continuous
  bool hasExposure = true;      ///< exposure modes locked, auto, continuous
  /// A flash for stills.
  bool hasFlash = true;
  /// A torch (a lamp that stays on while filming).
  bool hasTorch = true;
  /// The brightest the torch can shine now, 0..1 (a hot lamp is held below 1).
  float maxAvailableTorchLevel = 1.0f;
};

/// A camera. Devices are shared: the device list, inputs and the engine hold the same object.
///
/// Controls follow the platform's rule: lockForConfiguration(), change, unlockForConfiguration().
/// The lock belongs to the thread that took it; another thread's lock fails until it is
/// released. A setter called without holding the lock, or with a value the device does not
/// support, changes nothing (the platform would raise; this library never throws). Reading is
/// allowed at any time from any thread.
class KWQ_EXPORT CaptureDevice {
 public:
  // The device list.

  /// Every camera, in a stable order: the list a host set with setDevices(), else the cameras
  /// found on the machine (V4L2 webcams, sorted by device path), else a synthetic back and a
  /// synthetic front camera. Found once, on first use. Thread: any.
  static std::vector<std::shared_ptr<CaptureDevice>> devices();
  /// The cameras of devices() that deliver `mediaType`, in the same order.
  static std::vector<std::shared_ptr<CaptureDevice>> devicesWithMediaType(
      std::string_view mediaType);
  /// The first of devicesWithMediaType(); null when there is none.
  static std::shared_ptr<CaptureDevice> defaultDeviceWithMediaType(std::string_view mediaType);
  /// The device of devices() with that unique id; null when there is none.
  static std::shared_ptr<CaptureDevice> deviceWithUniqueID(std::string_view uniqueID);
  /// Replaces the device list (an empty list means: no cameras at all). Null entries are
  /// dropped. Sessions already built keep their devices.
  static void setDevices(std::vector<std::shared_ptr<CaptureDevice>> devices);
  /// Forgets a list set with setDevices() and looks for cameras again on the next devices().
  static void resetDevices();

  // Cameras the library makes.

  /// A synthetic camera (see SyntheticCameraOptions). Never null.
  static std::shared_ptr<CaptureDevice> syntheticCamera(SyntheticCameraOptions options = {});
  /// A video file played as a camera: any video GStreamer can decode, looped forever and paced
  /// at its own frame rate, scaled to the session preset's size with borders that keep its
  /// aspect. The file is examined here: null when it is missing or has no playable video. No
  /// controls (no focus, flash or torch). Empty `uniqueID`: "kwq.file:<path>".
  static std::shared_ptr<CaptureDevice> fileCamera(const std::string& path,
                                                   int64_t position = AVCaptureDevicePositionBack,
                                                   std::string uniqueID = {});
  /// A V4L2 camera at `devicePath` ("/dev/video0"): null when it cannot be opened or does not
  /// capture video. Its controls are those the driver offers (see the device list notes in
  /// the implementation). Position as given.
  static std::shared_ptr<CaptureDevice> v4l2Camera(const std::string& devicePath,
                                                   int64_t position = AVCaptureDevicePositionFront);

  ~CaptureDevice();
  CaptureDevice(const CaptureDevice&) = delete;
  CaptureDevice& operator=(const CaptureDevice&) = delete;

  /// The id that finds the device again with deviceWithUniqueID().
  const std::string& uniqueID() const;
  /// A name to show a person.
  const std::string& localizedName() const;
  /// AVCaptureDevicePositionBack, Front or Unspecified.
  int64_t position() const;
  /// True for AVMediaTypeVideo.
  bool hasMediaType(std::string_view mediaType) const;
  /// False once the camera has gone from the machine (a webcam unplugged); true again when it
  /// is back at the same device node. The library's own cameras are always connected. Asks the
  /// device each time. Thread: any.
  bool isConnected() const;

  /// Takes the configuration lock for the calling thread (again if it holds it already; locks
  /// nest). False, with a reason in `error` when given, while another thread holds it.
  bool lockForConfiguration(std::string* error = nullptr);
  /// Releases one lockForConfiguration() of the calling thread; ignored from other threads.
  void unlockForConfiguration();

  ///@{
  /// Focus: the modes offered, the current one, and the auto-focus range restriction.
  bool isFocusModeSupported(int64_t focusMode) const;
  int64_t focusMode() const;
  void setFocusMode(int64_t focusMode);
  bool isAutoFocusRangeRestrictionSupported() const;
  int64_t autoFocusRangeRestriction() const;
  void setAutoFocusRangeRestriction(int64_t restriction);
  ///@}

  ///@{
  /// White balance: the modes offered and the current one.
  bool isWhiteBalanceModeSupported(int64_t mode) const;
  int64_t whiteBalanceMode() const;
  void setWhiteBalanceMode(int64_t mode);
  ///@}
  ///@{
  /// Exposure: the modes offered and the current one.
  bool isExposureModeSupported(int64_t mode) const;
  int64_t exposureMode() const;
  void setExposureMode(int64_t mode);
  ///@}

  ///@{
  /// Flash: whether there is one, the modes offered and the current one.
  bool hasFlash() const;
  bool isFlashModeSupported(int64_t mode) const;
  int64_t flashMode() const;
  void setFlashMode(int64_t mode);
  ///@}

  ///@{
  /// Torch: whether there is one, the modes offered and the current one.
  bool hasTorch() const;
  bool isTorchModeSupported(int64_t mode) const;
  int64_t torchMode() const;
  ///@}
  /// The current torch brightness, 0..1 (0 while off).
  float torchLevel() const;
  /// The brightest the torch can shine now, 0..1.
  float maxAvailableTorchLevel() const;
  /// Off, on (at full level) or auto (treated as on while filming).
  void setTorchMode(int64_t mode);
  /// Turns the torch on at `level` (0 < level <= AVCaptureMaxAvailableTorchLevel), shining at
  /// most maxAvailableTorchLevel(). False, with a reason, without the lock, without a torch or
  /// with a level out of range.
  bool setTorchModeOnWithLevel(float level, std::string* error = nullptr);

  /// The implementation, private to the library.
  struct Impl;
  /// The implementation, for the capture layer.
  const std::shared_ptr<Impl>& impl() const { return d_; }
  /// Wraps an implementation; for the capture layer, a host uses the factories above.
  explicit CaptureDevice(std::shared_ptr<Impl> d);

 private:
  std::shared_ptr<Impl> d_;
};

}  // namespace kwq

#include <algorithm>
#include <cmath>
#include <mutex>
#include <optional>

#include "platform/media/capture_internal.h"
#include "platform/media/file_camera.h"
#include "platform/media/v4l2_camera.h"

namespace kwq {
namespace {

bool contains(const std::vector<int64_t>& modes, int64_t mode) {
  return std::find(modes.begin(), modes.end(), mode) != modes.end();
}

// The process's device list: the host's, else the one found on first use.
struct DeviceList {
  std::mutex mutex;
  std::optional<std::vector<std::shared_ptr<CaptureDevice>>> hostList;
  std::optional<std::vector<std::shared_ptr<CaptureDevice>>> found;
};

DeviceList& deviceList() {
  static DeviceList* list = new DeviceList;  // devices may be used while the process exits
  return *list;
}

std::vector<std::shared_ptr<CaptureDevice>> findDevices() {
  std::vector<std::shared_ptr<CaptureDevice>> devices = platform::discoverV4l2Cameras();
  if (!devices.empty()) return devices;
  // No camera on this machine: film the synthetic scene from both sides.
  SyntheticCameraOptions back;
  back.position = AVCaptureDevicePositionBack;
  SyntheticCameraOptions front;
  front.position = AVCaptureDevicePositionFront;
  front.scene.seed = 2;
  return {CaptureDevice::syntheticCamera(back), CaptureDevice::syntheticCamera(front)};
}

// Runs `change` on the controls when the caller holds the lock and `supported` holds.
template <class Change>
void changeControls(CaptureDevice::Impl& d, bool supported, Change change, bool focusPass = false) {
  std::lock_guard lock(d.mutex);
  if (!supported || !d.callerHoldsLock()) return;
  change(d.controls);
  d.backend->applyControls(d.controls, focusPass);
}

}  // namespace

namespace platform {

std::shared_ptr<CaptureDevice> makeCaptureDevice(std::string uniqueID, std::string name,
                                                 int64_t position,
                                                 std::shared_ptr<CameraBackend> backend) {
  if (!backend) return nullptr;
  auto d = std::make_shared<CaptureDevice::Impl>();
  d->uniqueID = std::move(uniqueID);
  d->name = std::move(name);
  d->position = position;
  d->caps = backend->capabilities();
  d->controls = backend->initialControls();
  std::weak_ptr<CaptureDevice::Impl> weak = d;
  backend->onFocusPassFinished = [weak] {
    if (auto device = weak.lock()) {
      std::lock_guard lock(device->mutex);
      if (device->controls.focusMode == AVCaptureFocusModeAutoFocus)
        device->controls.focusMode = AVCaptureFocusModeLocked;
    }
  };
  d->backend = std::move(backend);
  {
    std::lock_guard lock(d->mutex);
    d->backend->applyControls(d->controls, false);
  }
  return std::make_shared<CaptureDevice>(std::move(d));
}

}  // namespace platform

CaptureDevice::CaptureDevice(std::shared_ptr<Impl> d) : d_(std::move(d)) {}
CaptureDevice::~CaptureDevice() = default;

std::vector<std::shared_ptr<CaptureDevice>> CaptureDevice::devices() {
  DeviceList& list = deviceList();
  std::lock_guard lock(list.mutex);
  if (list.hostList) return *list.hostList;
  if (!list.found) list.found = findDevices();
  return *list.found;
}

std::vector<std::shared_ptr<CaptureDevice>> CaptureDevice::devicesWithMediaType(
    std::string_view mediaType) {
  std::vector<std::shared_ptr<CaptureDevice>> result;
  for (auto& device : devices())
    if (device->hasMediaType(mediaType)) result.push_back(device);
  return result;
}

std::shared_ptr<CaptureDevice> CaptureDevice::defaultDeviceWithMediaType(
    std::string_view mediaType) {
  auto list = devicesWithMediaType(mediaType);
  return list.empty() ? nullptr : list.front();
}

std::shared_ptr<CaptureDevice> CaptureDevice::deviceWithUniqueID(std::string_view uniqueID) {
  for (auto& device : devices())
    if (device->uniqueID() == uniqueID) return device;
  return nullptr;
}

void CaptureDevice::setDevices(std::vector<std::shared_ptr<CaptureDevice>> devices) {
  std::erase(devices, nullptr);
  DeviceList& list = deviceList();
  std::lock_guard lock(list.mutex);
  list.hostList = std::move(devices);
}

void CaptureDevice::resetDevices() {
  DeviceList& list = deviceList();
  std::lock_guard lock(list.mutex);
  list.hostList.reset();
  list.found.reset();
}

std::shared_ptr<CaptureDevice> CaptureDevice::fileCamera(const std::string& path, int64_t position,
                                                         std::string uniqueID) {
  auto backend = platform::makeFileCameraBackend(path);
  if (!backend) return nullptr;
  if (uniqueID.empty()) uniqueID = "kwq.file:" + path;
  const std::string name = "File Camera (" + path.substr(path.find_last_of('/') + 1) + ")";
  return platform::makeCaptureDevice(std::move(uniqueID), name, position, std::move(backend));
}

std::shared_ptr<CaptureDevice> CaptureDevice::v4l2Camera(const std::string& devicePath,
                                                         int64_t position) {
  return platform::makeV4l2Camera(devicePath, position);
}

const std::string& CaptureDevice::uniqueID() const {
  return d_->uniqueID;
}
const std::string& CaptureDevice::localizedName() const {
  return d_->name;
}
int64_t CaptureDevice::position() const {
  return d_->position;
}
bool CaptureDevice::isConnected() const {
  return d_->backend->isConnected();
}
bool CaptureDevice::hasMediaType(std::string_view mediaType) const {
  return mediaType == AVMediaTypeVideo;
}

bool CaptureDevice::lockForConfiguration(std::string* error) {
  std::lock_guard lock(d_->mutex);
  if (d_->lockDepth > 0 && d_->lockOwner != std::this_thread::get_id()) {
    if (error) *error = "The device " + d_->name + " is locked for configuration by another thread";
    return false;
  }
  d_->lockOwner = std::this_thread::get_id();
  ++d_->lockDepth;
  return true;
}

void CaptureDevice::unlockForConfiguration() {
  std::lock_guard lock(d_->mutex);
  if (!d_->callerHoldsLock()) return;
  if (--d_->lockDepth == 0) d_->lockOwner = {};
}

bool CaptureDevice::isFocusModeSupported(int64_t focusMode) const {
  return contains(d_->caps.focusModes, focusMode);
}
int64_t CaptureDevice::focusMode() const {
  return d_->currentControls().focusMode;
}
void CaptureDevice::setFocusMode(int64_t focusMode) {
  changeControls(
      *d_, isFocusModeSupported(focusMode), [&](auto& c) { c.focusMode = focusMode; },
      focusMode == AVCaptureFocusModeAutoFocus);
}
bool CaptureDevice::isAutoFocusRangeRestrictionSupported() const {
  return d_->caps.autoFocusRangeRestriction;
}
int64_t CaptureDevice::autoFocusRangeRestriction() const {
  return d_->currentControls().autoFocusRangeRestriction;
}
void CaptureDevice::setAutoFocusRangeRestriction(int64_t restriction) {
  const bool valid = restriction >= AVCaptureAutoFocusRangeRestrictionNone &&
                     restriction <= AVCaptureAutoFocusRangeRestrictionFar;
  changeControls(*d_, valid && isAutoFocusRangeRestrictionSupported(),
                 [&](auto& c) { c.autoFocusRangeRestriction = restriction; });
}

bool CaptureDevice::isWhiteBalanceModeSupported(int64_t mode) const {
  return contains(d_->caps.whiteBalanceModes, mode);
}
int64_t CaptureDevice::whiteBalanceMode() const {
  return d_->currentControls().whiteBalanceMode;
}
void CaptureDevice::setWhiteBalanceMode(int64_t mode) {
  changeControls(*d_, isWhiteBalanceModeSupported(mode),
                 [&](auto& c) { c.whiteBalanceMode = mode; });
}
bool CaptureDevice::isExposureModeSupported(int64_t mode) const {
  return contains(d_->caps.exposureModes, mode);
}
int64_t CaptureDevice::exposureMode() const {
  return d_->currentControls().exposureMode;
}
void CaptureDevice::setExposureMode(int64_t mode) {
  changeControls(*d_, isExposureModeSupported(mode), [&](auto& c) { c.exposureMode = mode; });
}

bool CaptureDevice::hasFlash() const {
  return !d_->caps.flashModes.empty();
}
bool CaptureDevice::isFlashModeSupported(int64_t mode) const {
  return contains(d_->caps.flashModes, mode);
}
int64_t CaptureDevice::flashMode() const {
  return d_->currentControls().flashMode;
}
void CaptureDevice::setFlashMode(int64_t mode) {
  changeControls(*d_, isFlashModeSupported(mode), [&](auto& c) { c.flashMode = mode; });
}

bool CaptureDevice::hasTorch() const {
  return !d_->caps.torchModes.empty();
}
bool CaptureDevice::isTorchModeSupported(int64_t mode) const {
  return contains(d_->caps.torchModes, mode);
}
int64_t CaptureDevice::torchMode() const {
  return d_->currentControls().torchMode;
}
float CaptureDevice::torchLevel() const {
  return d_->currentControls().torchLevel;
}
float CaptureDevice::maxAvailableTorchLevel() const {
  return d_->caps.maxAvailableTorchLevel;
}
void CaptureDevice::setTorchMode(int64_t mode) {
  const float full = std::min(1.0f, d_->caps.maxAvailableTorchLevel);
  changeControls(*d_, isTorchModeSupported(mode), [&](auto& c) {
    c.torchMode = mode;
    c.torchLevel = mode == AVCaptureTorchModeOff ? 0.0f : full;
  });
}

bool CaptureDevice::setTorchModeOnWithLevel(float level, std::string* error) {
  auto fail = [&](const char* reason) {
    if (error) *error = reason;
    return false;
  };
  if (!hasTorch() || !isTorchModeSupported(AVCaptureTorchModeOn)) return fail("no torch");
  if (!(level > 0.0f && level <= AVCaptureMaxAvailableTorchLevel))
    return fail("torch level out of range");
  std::lock_guard lock(d_->mutex);
  if (!d_->callerHoldsLock()) return fail("the device is not locked for configuration");
  d_->controls.torchMode = AVCaptureTorchModeOn;
  d_->controls.torchLevel = std::min(level, d_->caps.maxAvailableTorchLevel);
  d_->backend->applyControls(d_->controls, false);
  return true;
}

}  // namespace kwq

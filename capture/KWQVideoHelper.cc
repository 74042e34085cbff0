// The engine's configuration: data model and defaults, initialisers, session set-up, start
// and stop, device controls and option setters.

#include "kwqimage/KWQVideoHelper.h"

#include <algorithm>
#include <exception>

#include "capture/KWQVideoHelperState.h"
#include "kwqimage/KWQCameraRollHelper.h"

namespace kwq {
namespace {

// Runs `change` on the device between lock and unlock. The lock's result is ignored, as these
// controls are meant to: a refused lock makes the device ignore the change.
template <class Change>
void withLockIgnoringResult(CaptureDevice& device, Change change) {
  device.lockForConfiguration();
  change();
  device.unlockForConfiguration();
}

// Runs `change` only when the lock succeeds.
template <class Change>
void withLock(CaptureDevice& device, Change change) {
  std::string error;
  if (!device.lockForConfiguration(&error)) return;
  change();
  device.unlockForConfiguration();
}

}  // namespace

KWQVideoHelperDelegate::~KWQVideoHelperDelegate() = default;

KWQVideoHelper::KWQVideoHelper() : d_(std::make_unique<State>()) {}

KWQVideoHelper::~KWQVideoHelper() {
  // The session stops with its last owner; no frame reaches this engine any more.
  if (d_->session) d_->session->stopRunning();
}

std::shared_ptr<KWQVideoHelper> KWQVideoHelper::create() {
  return create(AVCaptureSessionPresetHigh, AVCaptureDevicePositionFront,
                AVLayerVideoGravityResizeAspect, kPixelFormat420f);
}

std::shared_ptr<KWQVideoHelper> KWQVideoHelper::create(std::string_view sessionPreset,
                                                       int64_t devicePosition,
                                                       std::string_view previewVideoGravity,
                                                       uint32_t pixelFormat) {
  try {
    std::shared_ptr<KWQVideoHelper> engine(new KWQVideoHelper);
    State& d = *engine->d_;
    // Defaults; the containers start empty, everything else at zero.
    d.showBarcodeBoundingBox = true;
    d.showFaceBoundingBox = true;
    d.minHeadSize = 0.0;
    d.maxHeadSize = 5000.0;
    d.card.consecutiveDetectionFrames = 0;
    engine->setupAVCapture(sessionPreset, devicePosition, previewVideoGravity, pixelFormat);
    engine->setFaceFindSupport(true);
    engine->setPdf417Support(true);
    // Made last, once the session exists.
    d.sessionQueue = DispatchQueue::createSerial("com.kwqimage.videoCaptureQueue");
    return engine;
  } catch (const std::exception&) {
    return nullptr;
  }
}

void KWQVideoHelper::setupAVCapture(std::string_view sessionPreset, int64_t devicePosition,
                                    std::string_view previewVideoGravity, uint32_t pixelFormat) {
  State& d = *d_;
  d.session = CaptureSession::create();
  d.session->setSessionPreset(sessionPreset);

  // The first camera at the position; none leaves the session without a camera.
  std::shared_ptr<CaptureDevice> device;
  for (auto& candidate : CaptureDevice::devicesWithMediaType(AVMediaTypeVideo)) {
    if (candidate->position() == devicePosition) {
      device = candidate;
      break;
    }
  }
  d.set(&State::device, device);

  if (device) {
    if (device->isFocusModeSupported(AVCaptureFocusModeAutoFocus)) {
      // The range is set without asking whether it is supported: an unsupported range is
      // ignored by the device.
      withLock(*device, [&] {
        device->setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestrictionNear);
        device->setFocusMode(AVCaptureFocusModeAutoFocus);
      });
    }
    if (device->isWhiteBalanceModeSupported(AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance))
      withLock(*device, [&] {
        device->setWhiteBalanceMode(AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance);
      });
    if (device->isExposureModeSupported(AVCaptureExposureModeContinuousAutoExposure))
      withLock(*device,
               [&] { device->setExposureMode(AVCaptureExposureModeContinuousAutoExposure); });
    auto input = CaptureDeviceInput::deviceInputWithDevice(device);
    if (d.session->canAddInput(input)) d.session->addInput(input);
  }

  d.stillImageOutput = StillImageOutput::create();
  if (d.session->canAddOutput(d.stillImageOutput)) d.session->addOutput(d.stillImageOutput);

  d.videoDataOutput = VideoDataOutput::create();
  d.videoDataOutput->setVideoSettings(pixelFormat);
  d.videoDataOutput->setAlwaysDiscardsLateVideoFrames(true);
  d.videoDataOutputQueue = DispatchQueue::createSerial("VideoDataOutputQueue");
  d.videoDataOutput->setSampleBufferDelegate(
      std::static_pointer_cast<CaptureVideoDataOutputSampleBufferDelegate>(shared_from_this()),
      d.videoDataOutputQueue);
  if (d.session->canAddOutput(d.videoDataOutput)) d.session->addOutput(d.videoDataOutput);

  d.captureConnection = d.videoDataOutput->connectionWithMediaType(AVMediaTypeVideo);
  if (d.captureConnection) d.captureConnection->setEnabled(true);

  d.previewLayer = PreviewLayer::layerWithSession(d.session);
  d.previewLayer->setVideoGravity(previewVideoGravity);

  auto center = ShapeLayer::layer();
  center->setBorderWidth(3.0);
  center->setBorderColor(Color::redColor());
  d.set(&State::centerLayer, std::shared_ptr<Layer>(center));
  if (d.showCenterBox) d.previewLayer->addSublayer(center);
}

void KWQVideoHelper::startVideoCapture() {
  if (d_->recordCameraData) KWQCameraRollHelper::getInstance().startSavingCameraData();
  d_->sessionQueue->async([self = shared_from_this()] { self->d_->session->startRunning(); });
}

void KWQVideoHelper::stopVideoCapture() {
  if (d_->recordCameraData) KWQCameraRollHelper::getInstance().stopSavingCameraData();
  d_->sessionQueue->sync([] {});
  d_->session->stopRunning();
}

// Device controls

int64_t KWQVideoHelper::flashMode() const {
  auto device = this->device();
  return device && device->hasFlash() ? device->flashMode() : AVCaptureFlashModeOff;
}

void KWQVideoHelper::setFlashMode(int64_t flashMode) {
  auto device = this->device();
  if (!device || !device->hasFlash()) return;
  withLockIgnoringResult(*device, [&] { device->setFlashMode(flashMode); });
}

int64_t KWQVideoHelper::autoFocusRange() const {
  auto device = this->device();
  return device && device->isAutoFocusRangeRestrictionSupported()
             ? device->autoFocusRangeRestriction()
             : AVCaptureAutoFocusRangeRestrictionNone;
}

void KWQVideoHelper::setAutoFocusRange(int64_t autoFocusRange) {
  auto device = this->device();
  if (!device || !device->isAutoFocusRangeRestrictionSupported()) return;
  withLock(*device, [&] { device->setAutoFocusRangeRestriction(autoFocusRange); });
}

void KWQVideoHelper::autoFocusCamera() {
  auto device = this->device();
  if (!device || !device->isFocusModeSupported(AVCaptureFocusModeAutoFocus)) return;
  withLock(*device, [&] { device->setFocusMode(AVCaptureFocusModeAutoFocus); });
}

void KWQVideoHelper::autoFocusContinuousCamera() {
  auto device = this->device();
  if (!device || !device->isFocusModeSupported(AVCaptureFocusModeContinuousAutoFocus)) return;
  withLock(*device, [&] { device->setFocusMode(AVCaptureFocusModeContinuousAutoFocus); });
}

void KWQVideoHelper::enableTorchWithLevel(float level) {
  auto device = this->device();
  // Both bounds as stated: 0.0 does nothing, the maximum itself is accepted; NaN fails both.
  if (!(level > 0.0f && AVCaptureMaxAvailableTorchLevel >= level) || !device || !device->hasTorch())
    return;
  withLockIgnoringResult(*device, [&] { device->setTorchModeOnWithLevel(level); });
}

void KWQVideoHelper::disableTorch() {
  auto device = this->device();
  if (!device || !device->hasTorch()) return;
  withLockIgnoringResult(*device, [&] { device->setTorchMode(AVCaptureTorchModeOff); });
}

// Options

bool KWQVideoHelper::showCenterBox() const {
  return d_->showCenterBox;
}

void KWQVideoHelper::setShowCenterBox(bool showCenterBox) {
  d_->showCenterBox = showCenterBox;
  auto center = centerLayer();
  if (!center) return;
  center->removeFromSuperlayer();
  if (showCenterBox && d_->previewLayer) d_->previewLayer->addSublayer(center);
}

bool KWQVideoHelper::showBarcodeBoundingBox() const {
  return d_->showBarcodeBoundingBox;
}
void KWQVideoHelper::setShowBarcodeBoundingBox(bool show) {
  d_->showBarcodeBoundingBox = show;
}
bool KWQVideoHelper::showFaceBoundingBox() const {
  return d_->showFaceBoundingBox;
}
void KWQVideoHelper::setShowFaceBoundingBox(bool show) {
  d_->showFaceBoundingBox = show;
}
double KWQVideoHelper::minHeadSize() const {
  return d_->minHeadSize;
}
void KWQVideoHelper::setMinHeadSize(double minHeadSize) {
  d_->minHeadSize = minHeadSize;
}
double KWQVideoHelper::maxHeadSize() const {
  return d_->maxHeadSize;
}
void KWQVideoHelper::setMaxHeadSize(double maxHeadSize) {
  d_->maxHeadSize = maxHeadSize;
}
void KWQVideoHelper::setMinHeadSize(double minHeadSize, double maxHeadSize) {
  setMaxHeadSize(maxHeadSize);
  setMinHeadSize(minHeadSize);
}
bool KWQVideoHelper::shouldDetectCardRect() const {
  return d_->shouldDetectCardRect;
}
void KWQVideoHelper::setShouldDetectCardRect(bool detect) {
  d_->shouldDetectCardRect = detect;
}
bool KWQVideoHelper::recordCameraData() const {
  return d_->recordCameraData;
}
void KWQVideoHelper::setRecordCameraData(bool record) {
  d_->recordCameraData = record;
}

// Results

bool KWQVideoHelper::hasYawAngle() const {
  return d_->hasYawAngle;
}
void KWQVideoHelper::setHasYawAngle(bool has) {
  d_->hasYawAngle = has;
}
bool KWQVideoHelper::hasRollAngle() const {
  return d_->hasRollAngle;
}
void KWQVideoHelper::setHasRollAngle(bool has) {
  d_->hasRollAngle = has;
}
bool KWQVideoHelper::isHeadCentered() const {
  return d_->isHeadCentered;
}
void KWQVideoHelper::setIsHeadCentered(bool centered) {
  d_->isHeadCentered = centered;
}
double KWQVideoHelper::yawAngle() const {
  return d_->yawAngle;
}
void KWQVideoHelper::setYawAngle(double angle) {
  d_->yawAngle = angle;
}
double KWQVideoHelper::rollAngle() const {
  return d_->rollAngle;
}
void KWQVideoHelper::setRollAngle(double angle) {
  d_->rollAngle = angle;
}
Rect KWQVideoHelper::faceRect() const {
  return d_->get(&State::faceRect);
}
void KWQVideoHelper::setFaceRect(Rect rect) {
  d_->set(&State::faceRect, rect);
}
std::optional<std::string> KWQVideoHelper::parsedData() const {
  return d_->get(&State::parsedData);
}
void KWQVideoHelper::setParsedData(std::optional<std::string> text) {
  d_->set(&State::parsedData, std::move(text));
}
Rect KWQVideoHelper::barcodeRect() const {
  return d_->get(&State::barcodeRect);
}
void KWQVideoHelper::setBarcodeRect(Rect rect) {
  d_->set(&State::barcodeRect, rect);
}
int32_t KWQVideoHelper::consecutiveDetectionFrames() const {
  std::lock_guard lock(d_->mutex);
  return d_->card.consecutiveDetectionFrames;
}
void KWQVideoHelper::setConsecutiveDetectionFrames(int32_t frames) {
  std::lock_guard lock(d_->mutex);
  d_->card.consecutiveDetectionFrames = frames;
}
double KWQVideoHelper::cardDetectionThreshold() const {
  std::lock_guard lock(d_->mutex);
  return d_->card.cardDetectionThreshold;
}
void KWQVideoHelper::setCardDetectionThreshold(double threshold) {
  std::lock_guard lock(d_->mutex);
  d_->card.cardDetectionThreshold = threshold;
}
Rect KWQVideoHelper::cardRect() const {
  std::lock_guard lock(d_->mutex);
  return d_->card.cardRect;
}
void KWQVideoHelper::setCardRect(Rect rect) {
  std::lock_guard lock(d_->mutex);
  d_->card.cardRect = rect;
}
Point KWQVideoHelper::cardCenter() const {
  std::lock_guard lock(d_->mutex);
  return d_->card.cardCenter;
}
void KWQVideoHelper::setCardCenter(Point center) {
  std::lock_guard lock(d_->mutex);
  d_->card.cardCenter = center;
}

// Delegate, capture objects and layers

std::shared_ptr<KWQVideoHelperDelegate> KWQVideoHelper::delegate() const {
  return d_->get(&State::delegate).lock();
}
void KWQVideoHelper::setDelegate(std::weak_ptr<KWQVideoHelperDelegate> delegate) {
  d_->set(&State::delegate, std::move(delegate));
}
std::shared_ptr<CaptureSession> KWQVideoHelper::session() const {
  return d_->session;
}
std::shared_ptr<CaptureDevice> KWQVideoHelper::device() const {
  return d_->get(&State::device);
}
void KWQVideoHelper::setDevice(std::shared_ptr<CaptureDevice> device) {
  d_->set(&State::device, std::move(device));
}
std::shared_ptr<VideoDataOutput> KWQVideoHelper::videoDataOutput() const {
  return d_->videoDataOutput;
}
std::shared_ptr<StillImageOutput> KWQVideoHelper::stillImageOutput() const {
  return d_->stillImageOutput;
}
std::shared_ptr<MetadataOutput> KWQVideoHelper::metaOutput() const {
  return d_->get(&State::metaOutput);
}
std::shared_ptr<PreviewLayer> KWQVideoHelper::previewLayer() const {
  return d_->previewLayer;
}
std::shared_ptr<Layer> KWQVideoHelper::centerLayer() const {
  return d_->get(&State::centerLayer);
}
void KWQVideoHelper::setCenterLayer(std::shared_ptr<Layer> layer) {
  d_->set(&State::centerLayer, std::move(layer));
}
std::shared_ptr<Layer> KWQVideoHelper::primaryLayer() const {
  return d_->get(&State::primaryLayer);
}
void KWQVideoHelper::setPrimaryLayer(std::shared_ptr<Layer> layer) {
  d_->set(&State::primaryLayer, std::move(layer));
}
std::shared_ptr<ShapeLayer> KWQVideoHelper::barcodeLineLayer() const {
  return d_->get(&State::barcodeLineLayer);
}
void KWQVideoHelper::setBarcodeLineLayer(std::shared_ptr<ShapeLayer> layer) {
  d_->set(&State::barcodeLineLayer, std::move(layer));
}
std::map<int64_t, std::shared_ptr<Layer>> KWQVideoHelper::avfFaceLayers() const {
  return d_->get(&State::avfFaceLayers);
}

}  // namespace kwq

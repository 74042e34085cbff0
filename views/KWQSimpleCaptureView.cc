#include "kwqimage/KWQSimpleCaptureView.h"

#include <chrono>

#include "kwqimage/CaptureDevice.h"
#include "kwqimage/CaptureSession.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq {

std::shared_ptr<KWQSimpleCaptureView> KWQSimpleCaptureView::create(Rect frame) {
  auto view = std::shared_ptr<KWQSimpleCaptureView>(new KWQSimpleCaptureView(frame));
  // The engine holds its delegate weakly, so it can only be told once a shared_ptr exists.
  view->initDefaults();
  return view;
}

KWQSimpleCaptureView::KWQSimpleCaptureView(Rect frame) : View(frame) {}

KWQSimpleCaptureView::~KWQSimpleCaptureView() {
  if (focusTimer_) focusTimer_->invalidate();
}

bool KWQSimpleCaptureView::isCameraAvailable() {
  return !CaptureDevice::devicesWithMediaType(AVMediaTypeVideo).empty();
}

void KWQSimpleCaptureView::initDefaults() {
  videoHelper_ = KWQVideoHelper::create(AVCaptureSessionPreset1280x720, AVCaptureDevicePositionBack,
                                        AVLayerVideoGravityResizeAspectFill, kPixelFormatBGRA);
  if (!videoHelper_) return;
  videoHelper_->setDelegate(std::static_pointer_cast<KWQSimpleCaptureView>(shared_from_this()));
  videoHelper_->setShowBarcodeBoundingBox(false);
  videoHelper_->setAutoFocusRange(AVCaptureAutoFocusRangeRestrictionNear);
  // Any camera at all, not the position of the one in use: the interface asks it this way.
  backCameraActive_ = isCameraAvailable();
  videoHelper_->setShowFaceBoundingBox(!backCameraActive_);
  videoHelper_->setShowCenterBox(!backCameraActive_);
}

KWQSimpleCaptureView::CompletionBlock KWQSimpleCaptureView::callbackBlock() const {
  std::lock_guard lock(callbackMutex_);
  return callbackBlock_;
}

void KWQSimpleCaptureView::setCallbackBlock(CompletionBlock block) {
  std::lock_guard lock(callbackMutex_);
  callbackBlock_ = std::move(block);
}

void KWQSimpleCaptureView::setBounds(Rect bounds) {
  const Rect old = this->bounds();
  View::setBounds(bounds);
  if (bounds.size.width != old.size.width || bounds.size.height != old.size.height) initPreview();
}

void KWQSimpleCaptureView::initPreview() {
  if (vwPreview_) vwPreview_->removeFromSuperview();
  vwPreview_ = View::create(bounds());
  addSubview(vwPreview_);
}

void KWQSimpleCaptureView::setVideoRunning(bool videoRunning) {
  if (videoRunning == videoRunning_) return;
  videoRunning_ = videoRunning;
  if (!videoHelper_) return;
  const auto preview = videoHelper_->previewLayer();
  if (videoRunning) {
    videoHelper_->startVideoCapture();
    if (vwPreview_ && preview) {
      vwPreview_->layer()->setMasksToBounds(false);
      preview->setBackgroundColor(Color::blackColor());
      preview->setFrame(vwPreview_->layer()->bounds());
      vwPreview_->layer()->insertSublayer(preview, 0);
    }
  } else {
    if (preview) preview->removeFromSuperlayer();
    videoHelper_->stopVideoCapture();
  }
}

void KWQSimpleCaptureView::startVideo() {
  startTimers();
  setVideoRunning(true);
}

void KWQSimpleCaptureView::stopVideo() {
  stopTimers();
  setVideoRunning(false);
}

void KWQSimpleCaptureView::startTimers() {
  if (!isCameraAvailable() || focusTimer_) return;
  // The timer holds the view weakly: a view dropped by its host stops focusing instead of
  // living on through its own timer.
  std::weak_ptr<View> weak = weak_from_this();
  focusTimer_ = Timer::scheduledTimer(std::chrono::milliseconds(3000), true, [weak] {
    if (auto view = std::static_pointer_cast<KWQSimpleCaptureView>(weak.lock()))
      view->focusTimer_Tick();
  });
}

void KWQSimpleCaptureView::stopTimers() {
  if (!focusTimer_) return;
  focusTimer_->invalidate();
  focusTimer_.reset();
}

void KWQSimpleCaptureView::focusTimer_Tick() {
  if (videoHelper_) videoHelper_->autoFocusCamera();
}

void KWQSimpleCaptureView::toggleCameraWithAnimation(bool animate) {
  if (videoHelper_) videoHelper_->toggleCameraWithAnimation(animate);
  backCameraActive_ = !backCameraActive_;
  if (!videoHelper_) return;
  videoHelper_->setShowFaceBoundingBox(!backCameraActive_);
  videoHelper_->setShowCenterBox(!backCameraActive_);
}

void KWQSimpleCaptureView::captureImage(CompletionBlock completion) {
  if (!videoRunning_) {
    if (completion)
      completion(
          Image(),
          Error{std::string(KWQVideoNotStartedErrorDomain), KWQVideoNotStartedErrorCode, {}});
    return;
  }
  setCallbackBlock(std::move(completion));
  if (videoHelper_) videoHelper_->takeStillPicture();
}

void KWQSimpleCaptureView::getNewStillImage(const Image& image) {
  CompletionBlock block;
  {
    std::lock_guard lock(callbackMutex_);
    std::swap(block, callbackBlock_);
  }
  if (block) block(image, std::nullopt);
}

}  // namespace kwq

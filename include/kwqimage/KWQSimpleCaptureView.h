#pragma once

/// @file
/// A ready-made view with a live camera preview and a one-call still capture.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "kwqimage/Error.h"
#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"
#include "kwqimage/KWQVideoHelper.h"
#include "kwqimage/KWQVideoHelperDelegate.h"
#include "kwqimage/Timer.h"
#include "kwqimage/View.h"

namespace kwq {

/// The simple capture view: owns one capture engine (1280 x 720, back camera, aspect-fill
/// preview, BGRA frames), shows its preview in a child view, re-focuses every 3 seconds while
/// video runs and hands each still to a completion block.
///
/// "A camera is available" means the device list (CaptureDevice::devices()) holds a video
/// camera. Synthetic cameras count: they film, focus and take stills like a webcam, and the
/// default device list offers them where no webcam is attached. A host that set an empty
/// device list (CaptureDevice::setDevices({})) has no camera: backCameraActive() starts false,
/// the face and centre boxes are on, and no focus timer is ever scheduled.
///
/// Use: create(), place it, give it a size (the preview view is built on every size change),
/// startVideo(); captureImage() while running; stopVideo(). Threads: every method on the main
/// thread (the thread that runs GLib's default main context), except getNewStillImage(), which
/// the engine calls on "VideoDataOutputQueue"; the completion block runs there.
class KWQ_EXPORT KWQSimpleCaptureView : public View, public KWQStillImageDelegate {
 public:
  /// Receives the still (the null image on failure) and the error (none on success).
  using CompletionBlock =
      std::function<void(const Image& image, const std::optional<Error>& error)>;

  /// The view with its engine configured (initWithFrame:); no preview view until its size
  /// changes, video stopped.
  static std::shared_ptr<KWQSimpleCaptureView> create(Rect frame);
  ~KWQSimpleCaptureView() override;

  /// True while the back camera is believed active: at first, whether a camera is available.
  bool backCameraActive() const { return backCameraActive_; }
  /// Whether capture runs with the preview attached.
  bool videoRunning() const { return videoRunning_; }
  /// A change starts the engine and hangs its preview layer at the bottom of the preview view
  /// (black background, the preview view's bounds), or takes the layer off and stops the
  /// engine. The value already held does nothing.
  void setVideoRunning(bool videoRunning);
  ///@{
  /// The child view that hosts the preview; null until the first size change.
  std::shared_ptr<View> vwPreview() const { return vwPreview_; }
  void setVwPreview(std::shared_ptr<View> view) { vwPreview_ = std::move(view); }
  ///@}
  ///@{
  /// The capture engine; the view is its delegate.
  std::shared_ptr<KWQVideoHelper> videoHelper() const { return videoHelper_; }
  void setVideoHelper(std::shared_ptr<KWQVideoHelper> helper) { videoHelper_ = std::move(helper); }
  ///@}
  ///@{
  /// The repeating auto-focus timer; null when none is scheduled.
  std::shared_ptr<Timer> focusTimer() const { return focusTimer_; }
  void setFocusTimer(std::shared_ptr<Timer> timer) { focusTimer_ = std::move(timer); }
  ///@}
  ///@{
  /// The block of the capture in progress; empty when none is pending. Thread: any.
  CompletionBlock callbackBlock() const;
  void setCallbackBlock(CompletionBlock block);
  ///@}

  /// Sets the bounds; a new size (the origin is not compared) rebuilds the preview view.
  void setBounds(Rect bounds) override;
  /// Replaces the preview view with a new empty one of the view's bounds (no preview layer
  /// until video starts again).
  void initPreview();
  /// startTimers(), then setVideoRunning(true).
  void startVideo();
  /// stopTimers(), then setVideoRunning(false).
  void stopVideo();
  /// Schedules the 3-second focus timer when a camera is available and none exists.
  void startTimers();
  /// Invalidates and drops the focus timer.
  void stopTimers();
  /// One auto-focus pass of the engine's camera (what the timer does).
  void focusTimer_Tick();
  /// Swaps front and back camera on the engine, flips backCameraActive() and shows the face
  /// and centre boxes exactly while the back camera is not active.
  void toggleCameraWithAnimation(bool animate);
  /// Not running: calls `completion` at once with the null image and the error of domain
  /// "Video not started", code 101, no user info. Running: keeps `completion` (replacing a
  /// pending one, which is then never called) and asks the engine for a still.
  void captureImage(CompletionBlock completion);
  /// The engine's still: hands it to the pending block, once, and forgets the block; ignored
  /// when none is pending. Thread: the engine's still queue.
  void getNewStillImage(const Image& image) override;

  /// Whether the device list offers a video camera. Thread: any.
  static bool isCameraAvailable();

 protected:
  /// For create().
  explicit KWQSimpleCaptureView(Rect frame);

 private:
  void initDefaults();

  bool backCameraActive_ = false;
  bool videoRunning_ = false;
  std::shared_ptr<View> vwPreview_;
  std::shared_ptr<KWQVideoHelper> videoHelper_;
  std::shared_ptr<Timer> focusTimer_;
  // The engine's thread delivers stills while the main thread may store a new block.
  mutable std::mutex callbackMutex_;
  CompletionBlock callbackBlock_;
};

}  // namespace kwq

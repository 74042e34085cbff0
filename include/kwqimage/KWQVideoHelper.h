#pragma once

/// @file
/// The capture engine: one camera session with a video-data output (frames to the delegate),
/// a still output, a metadata output (faces and codes), a preview layer and its overlays.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kwqimage/CaptureDevice.h"
#include "kwqimage/CaptureSession.h"
#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/KWQVideoHelperDelegate.h"
#include "kwqimage/Layer.h"
#include "kwqimage/View.h"

namespace kwq {

/// The capture engine.
///
/// Use: create(), set the delegate and options, take previewLayer() into the host's view,
/// startVideoCapture(); stopVideoCapture() when done. Start and stop may be repeated.
///
/// Threads: configuration, device controls and layers from the host's main thread (the thread
/// that runs GLib's default main context; the host must run or pump it, see DispatchQueue).
/// Frames reach the engine, and the delegate's frame callback runs, on the serial queue
/// "VideoDataOutputQueue"; the session starts on a serial queue labelled
/// "com.kwqimage.videoCaptureQueue"; metadata (faces, codes) arrive on the main queue. Every
/// accessor may be called from any thread: the engine's fields are individually guarded, and a
/// value read from another queue may be one update old, as the engine's design accepts.
///
/// Ownership: the engine is shared (queued work holds it until it has run); it owns its
/// session, outputs and layers; it holds its delegate weakly. Dropping the last handle while
/// frames are in flight is safe: the engine goes when the last queued block has run.
///
/// Nothing here throws; what cannot be done (no camera, no torch, a refused lock) is skipped.
class KWQ_EXPORT KWQVideoHelper : public CaptureVideoDataOutputSampleBufferDelegate,
                                  public CaptureMetadataOutputObjectsDelegate,
                                  public std::enable_shared_from_this<KWQVideoHelper> {
 public:
  /// The engine with preset High, the front camera (position 2), gravity ResizeAspect and
  /// pixel format 420f. Null only when memory runs out.
  static std::shared_ptr<KWQVideoHelper> create();
  /// The designated initialiser (initWithAVCaptureSessionPreset:devicePosition:
  /// previewVideoGravity:pixelFormat:): builds the session on the first camera of the device
  /// list at `devicePosition` (none: the session has no camera and films nothing), then turns
  /// face and PDF417 metadata on. Null only when memory runs out.
  static std::shared_ptr<KWQVideoHelper> create(std::string_view sessionPreset,
                                                int64_t devicePosition,
                                                std::string_view previewVideoGravity,
                                                uint32_t pixelFormat);
  ~KWQVideoHelper() override;
  KWQVideoHelper(const KWQVideoHelper&) = delete;
  KWQVideoHelper& operator=(const KWQVideoHelper&) = delete;

  /// Starts the recorder when recordCameraData() is on, then starts the session on the
  /// session queue (asynchronously).
  void startVideoCapture();
  /// Stops the recorder when recordCameraData() is on, then stops the session on the calling
  /// thread. A start still queued on the session queue runs first, so a stop never overtakes
  /// the start it follows. Stopping a stopped engine does nothing.
  void stopVideoCapture();

  /// Takes one still: the still output's next frame in BGRA, converted on
  /// "VideoDataOutputQueue" with the camera's position (front stills mirrored) and handed to
  /// the delegate's getNewStillImage() there when it implements KWQStillImageDelegate. Errors
  /// (not running, no frame) are silent. A still on its way keeps the engine (and its session)
  /// alive until it is delivered, even when the host has let the engine go. Thread: main.
  void takeStillPicture();
  /// Swaps the session's camera: from the front camera to the back one, from any other to the
  /// front one (the last camera of each position in the device list), in one configuration
  /// transaction that first removes the current input. A missing camera leaves the session
  /// without one and device() unchanged. The preset and the new camera's modes are left as
  /// they are. With `animate`, the preview gets a flip (a quarter turn about y, 0.1 s each way)
  /// under the key "transform" on the main queue. Thread: main.
  void toggleCameraWithAnimation(bool animate);

  // Device controls, on the caller's thread (see the device's lock rules).

  /// The camera's flash mode; 0 (off) for a camera without flash.
  int64_t flashMode() const;
  /// Sets the camera's flash mode where supported and the lock succeeds.
  void setFlashMode(int64_t flashMode);
  /// The camera's auto-focus range restriction; 0 (none) where it cannot be restricted.
  int64_t autoFocusRange() const;
  /// Changes the range where supported and only when the lock succeeds.
  void setAutoFocusRange(int64_t autoFocusRange);
  /// One auto-focus pass (mode 1), where supported and the lock succeeds.
  void autoFocusCamera();
  /// Continuous auto-focus (mode 2), where supported and the lock succeeds.
  void autoFocusContinuousCamera();
  /// Torch on at `level` when 0 < level <= AVCaptureMaxAvailableTorchLevel and the camera has
  /// a torch; other levels are ignored, never clamped.
  void enableTorchWithLevel(float level);
  /// Torch off, where the camera has one and the lock succeeds.
  void disableTorch();

  // Options.

  /// Whether the centre box is shown and faces are tested for being centred (off by default).
  bool showCenterBox() const;
  /// Stores the flag, detaches the centre box, and re-attaches it on top of the preview's
  /// sublayers when the flag is on. Main thread.
  void setShowCenterBox(bool showCenterBox);
  ///@{
  /// Whether a read code's outline is drawn (on by default).
  bool showBarcodeBoundingBox() const;
  void setShowBarcodeBoundingBox(bool show);
  ///@}
  ///@{
  /// Whether the tracked face gets a box layer (on by default).
  bool showFaceBoundingBox() const;
  void setShowFaceBoundingBox(bool show);
  ///@}
  ///@{
  /// Faces narrower than this (preview points, exclusive) are not centred; 0 by default.
  double minHeadSize() const;
  void setMinHeadSize(double minHeadSize);
  ///@}
  ///@{
  /// Faces wider than this (preview points, exclusive) are not centred; 5000 by default.
  double maxHeadSize() const;
  void setMaxHeadSize(double maxHeadSize);
  ///@}
  /// Stores the maximum, then the minimum; no check that min <= max.
  void setMinHeadSize(double minHeadSize, double maxHeadSize);
  ///@{
  /// Card mode: look for an ID card in every frame (off by default).
  bool shouldDetectCardRect() const;
  void setShouldDetectCardRect(bool detect);
  ///@}
  ///@{
  /// Whether start and stop drive the recorder and frames go to it (off by default).
  bool recordCameraData() const;
  void setRecordCameraData(bool record);
  ///@}

  // Metadata types: the support switches read whether metaObjects() holds their type and set
  // it through UpdateAVCaptureMetadataOutput().

  ///@{
  /// Whether faces are among the metadata types.
  bool faceFindSupport() const;
  void setFaceFindSupport(bool support);
  ///@}
  ///@{
  /// Whether PDF417 codes are among the metadata types.
  bool pdf417Support() const;
  void setPdf417Support(bool support);
  ///@}
  ///@{
  /// Whether QR codes are among the metadata types.
  bool qrCodeSupport() const;
  void setQrCodeSupport(bool support);
  ///@}
  /// Adds (`enabled`) or removes a metadata type, creating the metadata output on first use.
  /// Ignored while the session runs; types the output does not offer are never added.
  void UpdateAVCaptureMetadataOutput(std::string_view metadataObjectType, bool enabled);
  /// The requested metadata types, in the order they were enabled.
  std::vector<std::string> metaObjects() const;

  // Results of the face, barcode and card steps.

  ///@{
  /// Whether the tracked face's yaw was estimated.
  bool hasYawAngle() const;
  void setHasYawAngle(bool has);
  ///@}
  ///@{
  /// Copied from the face's yaw flag, as the engine has always done.
  bool hasRollAngle() const;
  void setHasRollAngle(bool has);
  ///@}
  ///@{
  /// The latest centring test; written only while showCenterBox() is on.
  bool isHeadCentered() const;
  void setIsHeadCentered(bool centered);
  ///@}
  ///@{
  /// The tracked face's yaw, in degrees.
  double yawAngle() const;
  void setYawAngle(double angle);
  ///@}
  ///@{
  /// The tracked face's roll, in degrees.
  double rollAngle() const;
  void setRollAngle(double angle);
  ///@}
  ///@{
  /// The tracked face in preview points; zero when the latest callback had none.
  Rect faceRect() const;
  void setFaceRect(Rect rect);
  ///@}
  /// The latest barcode text; none before any was read.
  std::optional<std::string> parsedData() const;
  /// Sets parsedData().
  void setParsedData(std::optional<std::string> text);
  ///@{
  /// The latest code's outline in preview points; zero when none.
  Rect barcodeRect() const;
  void setBarcodeRect(Rect rect);
  ///@}
  ///@{
  /// Card mode: how many frames in a row a card was accepted.
  int32_t consecutiveDetectionFrames() const;
  void setConsecutiveDetectionFrames(int32_t frames);
  ///@}
  ///@{
  /// Card mode: the largest accepted distance from the ID card's aspect ratio (0 means 0.1).
  double cardDetectionThreshold() const;
  void setCardDetectionThreshold(double threshold);
  ///@}
  ///@{
  /// Card mode: zero while no card is stable, a marker rectangle once one is.
  Rect cardRect() const;
  void setCardRect(Rect rect);
  ///@}
  ///@{
  /// Card mode: the stable card's centre in image coordinates; zero otherwise.
  Point cardCenter() const;
  void setCardCenter(Point center);
  ///@}
  /// Withdraws a published card: cardRect() and cardCenter() to zero. The count is kept, so
  /// the next accepted frame of an unbroken run publishes the card again at once.
  void clearCardRectData();

  // The delegate.

  ///@{
  /// The host's delegate, held weakly; null once the host dropped it.
  std::shared_ptr<KWQVideoHelperDelegate> delegate() const;
  void setDelegate(std::weak_ptr<KWQVideoHelperDelegate> delegate);
  ///@}

  // Capture objects and layers the engine owns.

  /// The engine's session.
  std::shared_ptr<CaptureSession> session() const;
  /// The camera in use; null when none was found for the position.
  std::shared_ptr<CaptureDevice> device() const;
  /// Replaces the recorded camera; the session's input is left as it is.
  void setDevice(std::shared_ptr<CaptureDevice> device);
  /// The frame output.
  std::shared_ptr<VideoDataOutput> videoDataOutput() const;
  /// The still output.
  std::shared_ptr<StillImageOutput> stillImageOutput() const;
  /// Null until the first UpdateAVCaptureMetadataOutput() (the initialiser makes it).
  std::shared_ptr<MetadataOutput> metaOutput() const;
  /// The preview layer showing the session.
  std::shared_ptr<PreviewLayer> previewLayer() const;
  /// The centre box: a shape layer, border 3.0 red; attached to the preview while
  /// showCenterBox() is on.
  std::shared_ptr<Layer> centerLayer() const;
  /// Replaces the centre box.
  void setCenterLayer(std::shared_ptr<Layer> layer);
  /// The face box; null until a face is tracked.
  std::shared_ptr<Layer> primaryLayer() const;
  /// Replaces the face box.
  void setPrimaryLayer(std::shared_ptr<Layer> layer);
  /// The barcode outline layer: the engine never makes one; a host assigns it.
  std::shared_ptr<ShapeLayer> barcodeLineLayer() const;
  /// Assigns the layer code outlines are drawn into.
  void setBarcodeLineLayer(std::shared_ptr<ShapeLayer> layer);
  /// Face box layers by face id.
  std::map<int64_t, std::shared_ptr<Layer>> avfFaceLayers() const;

  /// A new view of `frame` that shows the preview (getPreviewView:withCenterBox:): first
  /// setShowCenterBox(withCenterBox), then previewLayer() gets a black background and the
  /// view's bounds as its frame and moves into the view's layer, which does not clip (overlays
  /// may reach past the view). A layer has one parent, so only the newest view shows the
  /// picture. Resizing the view later leaves the preview's frame as it is. Main thread.
  std::shared_ptr<View> getPreviewView(Rect frame, bool withCenterBox);

  /// The EXIF orientation code of an image orientation: 0..7 (up, down, left, right, then
  /// mirrored) give 1, 3, 8, 6, 2, 4, 5, 7; any other value gives 1 (up). Thread: any.
  static int32_t exifOrientationFromUIImageOrientation(int64_t orientation);

  // Capture callbacks.

  /// A video frame, on "VideoDataOutputQueue" (the output and connection are not used). In
  /// order: the frame goes to the recorder when recordCameraData() is on (also without a
  /// delegate); when the tracked rectangle (faceRect(), or in card mode cardRect() as it was
  /// before this frame) is zero, the main queue turns the centre box red and drops the face
  /// box; in face mode with a zero barcodeRect(), parsedData() becomes "" and the main queue
  /// drops the barcode outline layer; then, only for a delegate that is a KWQFrameDelegate:
  /// in face mode one call with faceRect(); in card mode the card detector runs on the frame
  /// (made on first use) and the delegate is called with cardRect() only when it is not zero.
  /// The mode is read once per frame. A delegate that throws loses that frame (logged).
  void captureOutput(VideoDataOutput& output, const SampleBuffer& sampleBuffer,
                     CaptureConnection& connection) override;
  /// Faces and codes found in a frame, on the main queue (the output and connection are not
  /// used). barcodeRect() is reset first. Codes, in array order: parsedData() takes each code's
  /// text (none when undecodable); with showBarcodeBoundingBox() on and four corners (in
  /// preview points P0..P3) the host's barcodeLineLayer() gets the outline P3-P2, P3-P0, P0-P1,
  /// P2-P1 and barcodeRect() becomes (P3.x, P3.y, P2.x - P3.x, P0.y - P3.y), signs as they
  /// fall. Faces: the widest by normalised width (strictly wider wins, zero width never);
  /// without one the centre box is queued red and faceRect() becomes zero, nothing else
  /// changes. With one: its preview-point rectangle R and its angles are taken (hasRollAngle()
  /// copies the yaw flag, so roll is tested exactly when yaw is known); with showCenterBox()
  /// on the centre box is placed 30/50 points inside the preview and judged: R not inside it
  /// queues red; a roll or yaw other than 0 turns it red at once; a width strictly between
  /// minHeadSize() and maxHeadSize() queues green and sets isHeadCentered(); otherwise red.
  /// With showFaceBoundingBox() on, a face box is made when there is none and queued to the
  /// preview, then queued to R; off, the box is queued off the preview. Last, faceRect() = R.
  void captureOutput(MetadataOutput& output, const MetadataObjects& metadataObjects,
                     CaptureConnection& connection) override;

  /// Forgets the face rectangle (faceRect() to zero); angles, flags and layers stay. For the
  /// host after it has used a face. Thread: main.
  void clearFaceData();
  /// Forgets the code: barcodeRect() to zero, parsedData() to "" and the outline layer taken
  /// off its superlayer and released (outlines stop until the host assigns a layer again).
  /// Thread: main.
  void clearBarcodeData();
  /// The point at `index` of a code's corner list; the zero point past the end. Thread: any.
  static Point pointFromArray(const std::vector<Point>& array, size_t index);

  struct State;
  /// The engine's fields, for the engine's own source files.
  State& state() const { return *d_; }

 private:
  KWQVideoHelper();
  void setupAVCapture(std::string_view sessionPreset, int64_t devicePosition,
                      std::string_view previewVideoGravity, uint32_t pixelFormat);
  std::unique_ptr<State> d_;
};

}  // namespace kwq

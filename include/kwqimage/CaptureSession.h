#pragma once

/// @file
/// Capture sessions: one camera input feeding a video-data output (frames to a delegate), a
/// still-image output and a metadata output (faces and codes), after the platform's classes.
///
/// Threads: every method may be called from any thread (configuration normally comes from the
/// host's main thread). Frames reach a video-data output's delegate on the serial queue given
/// with it; metadata objects reach theirs on the queue given with it.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kwqimage/CaptureDevice.h"
#include "kwqimage/DispatchQueue.h"
#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq {

///@{
/// Session presets, as the platform spells them. High is the camera's best size up to
/// 1920 x 1080 (synthetic cameras: 1280 x 720; files: their own size).
inline constexpr std::string_view AVCaptureSessionPresetHigh = "AVCaptureSessionPresetHigh";
inline constexpr std::string_view AVCaptureSessionPreset1920x1080 =
    "AVCaptureSessionPreset1920x1080";
inline constexpr std::string_view AVCaptureSessionPreset1280x720 = "AVCaptureSessionPreset1280x720";
inline constexpr std::string_view AVCaptureSessionPreset640x480 = "AVCaptureSessionPreset640x480";
///@}

///@{
/// Metadata object types, as the platform spells them.
inline constexpr std::string_view AVMetadataObjectTypeFace = "face";
inline constexpr std::string_view AVMetadataObjectTypePDF417Code = "org.iso.PDF417";
inline constexpr std::string_view AVMetadataObjectTypeQRCode = "org.iso.QRCode";
/// The machine-readable zone of a passport, ID card or visa (ICAO 9303), this library's own
/// type: a MetadataMachineReadableCodeObject whose text is the zone's lines separated by line
/// feeds (parseMRZ reads it) and whose corners are the zone's text block.
inline constexpr std::string_view KWQMetadataObjectTypeMRZ = "org.icao.9303.MRZ";
///@}

/// Something found in a frame. `bounds` is in the frame's normalised coordinates (0..1, origin
/// at the top left, y down) as delivered, or in layer points once a preview layer has
/// transformed it.
struct KWQ_EXPORT MetadataObject {
  virtual ~MetadataObject();
  /// One of the AVMetadataObjectType names.
  std::string type;
  /// Where the object lies (see above).
  Rect bounds;
  /// The time stamp of the frame it was found in.
  MediaTime time;
  /// That frame's duration.
  MediaTime duration;
};

/// A face; angles in degrees as the platform reports them, in coarse steps, and only when the
/// has... flag says they were estimated (0 otherwise). Yaw is one of 0 (frontal), 45 or 90 (the
/// head turned towards the frame's right edge: the nose points right as seen), 315 or 270
/// (turned towards its left edge). Roll is the clockwise tilt as seen in the frame, a multiple
/// of 30 in [0, 360): 30 for a head leaning clockwise, 330 for one leaning counter-clockwise.
struct KWQ_EXPORT MetadataFaceObject : MetadataObject {
  /// The same number for as long as the face is tracked.
  int64_t faceID = 0;
  ///@{
  /// Whether the roll was estimated, and the roll.
  bool hasRollAngle = false;
  double rollAngle = 0.0;
  ///@}
  ///@{
  /// Whether the yaw was estimated, and the yaw.
  bool hasYawAngle = false;
  double yawAngle = 0.0;
  ///@}
};

/// A machine-readable code: its text (none when it could not be decoded as text) and its
/// corners, in the coordinates of `bounds`, clockwise from the code's own top left.
struct KWQ_EXPORT MetadataMachineReadableCodeObject : MetadataObject {
  /// The decoded text.
  std::optional<std::string> stringValue;
  /// The four corners.
  std::vector<Point> corners;
};

/// The objects of one metadata callback.
using MetadataObjects = std::vector<std::shared_ptr<const MetadataObject>>;

class CaptureSession;
class CaptureOutput;
class VideoDataOutput;
class MetadataOutput;

/// The link from a session's camera to one output. It exists for as long as the output does
/// and carries frames while the output's session has a camera input.
class KWQ_EXPORT CaptureConnection {
 public:
  ~CaptureConnection();
  CaptureConnection(const CaptureConnection&) = delete;
  CaptureConnection& operator=(const CaptureConnection&) = delete;

  /// AVMediaTypeVideo or AVMediaTypeMetadata.
  const std::string& mediaType() const;
  /// A disabled connection delivers nothing to its output. Enabled from the start.
  bool isEnabled() const;
  /// Enables or disables delivery.
  void setEnabled(bool enabled);
  /// Digital zoom is not offered: the factor is 1.0 and the maximum is 1.0; other values are
  /// ignored.
  double videoScaleAndCropFactor() const;
  /// Ignored unless 1.0 (no digital zoom).
  void setVideoScaleAndCropFactor(double factor);
  /// Always 1.0.
  double videoMaxScaleAndCropFactor() const;

  struct Impl;
  /// Wraps an implementation; made by the outputs.
  explicit CaptureConnection(std::shared_ptr<Impl> d);
  /// The implementation, for the capture layer.
  const std::shared_ptr<Impl>& impl() const { return d_; }

 private:
  std::shared_ptr<Impl> d_;
};

/// A camera feeding a session.
class KWQ_EXPORT CaptureDeviceInput {
 public:
  /// An input on `device`; null, with a reason in `error` when given, for a null device.
  static std::shared_ptr<CaptureDeviceInput> deviceInputWithDevice(
      std::shared_ptr<CaptureDevice> device, std::string* error = nullptr);
  /// The camera.
  const std::shared_ptr<CaptureDevice>& device() const { return device_; }

 private:
  explicit CaptureDeviceInput(std::shared_ptr<CaptureDevice> device) : device_(std::move(device)) {}
  std::shared_ptr<CaptureDevice> device_;
};

/// What outputs share: their connection.
class KWQ_EXPORT CaptureOutput {
 public:
  virtual ~CaptureOutput();
  CaptureOutput(const CaptureOutput&) = delete;
  CaptureOutput& operator=(const CaptureOutput&) = delete;

  /// The output's connection when it carries `mediaType`, else null.
  std::shared_ptr<CaptureConnection> connectionWithMediaType(std::string_view mediaType) const;
  /// The output's connections (one).
  std::vector<std::shared_ptr<CaptureConnection>> connections() const;

 protected:
  /// An output whose connection carries `mediaType`.
  explicit CaptureOutput(std::string_view mediaType);
  /// The output's one connection.
  std::shared_ptr<CaptureConnection> connection_;
};

/// Receives a video-data output's frames.
class KWQ_EXPORT CaptureVideoDataOutputSampleBufferDelegate {
 public:
  virtual ~CaptureVideoDataOutputSampleBufferDelegate();
  /// One frame, on the output's delegate queue; the sample is borrowed for the call (copy the
  /// SampleBuffer handle to keep the pixels).
  virtual void captureOutput(VideoDataOutput& output, const SampleBuffer& sampleBuffer,
                             CaptureConnection& connection) = 0;
};

/// Frames to a delegate on a serial queue, in 420f (NV12, full range), 420v (NV12, video
/// range) or BGRA, at the session preset's size.
///
/// With alwaysDiscardsLateVideoFrames on (the default), a frame that arrives while the
/// delegate is still busy waits in a slot of one: a newer frame replaces it (the older is
/// dropped), so a slow delegate gets fewer frames, each at most one frame old, never a
/// backlog. Off, up to 8 frames wait, the oldest dropped beyond that.
class KWQ_EXPORT VideoDataOutput : public CaptureOutput {
 public:
  /// A new output: 420f, late frames discarded, no delegate.
  static std::shared_ptr<VideoDataOutput> create();
  ~VideoDataOutput() override;

  /// kPixelFormat420f, kPixelFormat420v or kPixelFormatBGRA; others are ignored.
  void setVideoSettings(uint32_t pixelFormatType);
  /// The frames' pixel format.
  uint32_t pixelFormatType() const;
  /// 420f, 420v and BGRA.
  std::vector<uint32_t> availableVideoCVPixelFormatTypes() const;
  /// Whether a busy delegate gets only the newest frame (see above).
  bool alwaysDiscardsLateVideoFrames() const;
  /// Sets alwaysDiscardsLateVideoFrames().
  void setAlwaysDiscardsLateVideoFrames(bool discard);
  /// The delegate (held weakly) and the serial queue its calls run on. A null delegate or
  /// queue stops delivery.
  void setSampleBufferDelegate(std::weak_ptr<CaptureVideoDataOutputSampleBufferDelegate> delegate,
                               std::shared_ptr<DispatchQueue> queue);
  /// The queue the delegate's calls run on; null before one is set.
  std::shared_ptr<DispatchQueue> sampleBufferCallbackQueue() const;

  ///@{
  /// Frames handed to the delegate and frames dropped since the output was made.
  uint64_t deliveredFrameCount() const;
  uint64_t droppedFrameCount() const;
  ///@}

  struct Impl;
  /// The implementation, for the capture layer.
  const std::shared_ptr<Impl>& impl() const { return d_; }

 private:
  VideoDataOutput();
  std::shared_ptr<Impl> d_;
};

/// Full-resolution stills from the running session: synthetic cameras draw the frame again
/// 1920 pixels wide at the stream's aspect ratio (1920 x 1080 from 720p); a webcam films the
/// still at the largest size it lists, stopping the stream for that moment (a webcam films one
/// size at a time; frames resume after it, and the stream frame is given when the large one
/// does not come); video files give their stream frame.
class KWQ_EXPORT StillImageOutput : public CaptureOutput {
 public:
  /// Receives the still, or an error text and a null sample.
  using CompletionHandler = std::function<void(const SampleBuffer& imageSampleBuffer,
                                               const std::optional<std::string>& error)>;

  /// A new output taking BGRA stills.
  static std::shared_ptr<StillImageOutput> create();
  ~StillImageOutput() override;

  /// The stills' pixel format: kPixelFormatBGRA (the default), 420f or 420v; others ignored.
  void setOutputSettings(uint32_t pixelFormatType);
  /// The stills' pixel format.
  uint32_t outputPixelFormatType() const;
  /// Takes the next frame the camera delivers after the call (firing the flash first when
  /// the device's flash mode asks for it) in the output settings' format, and calls `handler`
  /// on a thread of the global queue. Errors: the connection is not this output's or is
  /// disabled, the session is not running, no frame came within 3 seconds.
  void captureStillImageAsynchronouslyFromConnection(
      const std::shared_ptr<CaptureConnection>& connection, CompletionHandler handler);

  struct Impl;
  /// The implementation, for the capture layer.
  const std::shared_ptr<Impl>& impl() const { return d_; }

 private:
  StillImageOutput();
  std::shared_ptr<Impl> d_;
};

/// Receives a metadata output's objects.
class KWQ_EXPORT CaptureMetadataOutputObjectsDelegate {
 public:
  virtual ~CaptureMetadataOutputObjectsDelegate();
  /// Objects found in one frame, on the output's delegate queue; called for every frame with
  /// objects and once with an empty list when they are gone.
  virtual void captureOutput(MetadataOutput& output, const MetadataObjects& metadataObjects,
                             CaptureConnection& connection) = 0;
};

/// How a metadata output's recognition keeps up with the camera.
struct MetadataOutputStatistics {
  ///@{
  /// Frames recognition looked at, and frames it never looked at because a newer one came
  /// while it was busy.
  uint64_t framesExamined = 0;
  uint64_t framesSkipped = 0;
  ///@}
  ///@{
  /// Delegate calls made, and those carrying at least one face or code.
  uint64_t callbacks = 0;
  uint64_t callbacksWithFaces = 0;
  uint64_t callbacksWithCodes = 0;
  ///@}
  ///@{
  /// Time from a frame's arrival at the output to the start of the delegate call made for it,
  /// over the last 512 calls; 0 before the first.
  double latencyP50Milliseconds = 0.0;
  double latencyP95Milliseconds = 0.0;
  ///@}
};

/// Faces and codes found in the session's frames.
///
/// Available types are face, PDF417 and QR once the output belongs to a session, none before.
/// Requested types that are not available are left out (the platform would raise).
///
/// Recognition runs on a worker of the output's own, one frame at a time: whenever it is free
/// it takes the newest frame, and frames that arrive while it is busy replace one another, so
/// it never holds up the video-data output and never works through a backlog. Faces are
/// detected on a reduced frame every few frames and tracked in between (a face keeps its
/// faceID while tracked); codes are read on the luma plane in place. Objects carry the time
/// stamp of the frame they were found in.
class KWQ_EXPORT MetadataOutput : public CaptureOutput {
 public:
  /// A new output with no types requested and no delegate.
  static std::shared_ptr<MetadataOutput> create();
  ~MetadataOutput() override;

  /// Counters and latency since the output was made. Thread: any.
  MetadataOutputStatistics statistics() const;

  /// The types this output can find (see above).
  std::vector<std::string> availableMetadataObjectTypes() const;
  /// The types asked for.
  std::vector<std::string> metadataObjectTypes() const;
  /// Asks for `types`, less those not available.
  void setMetadataObjectTypes(const std::vector<std::string>& types);
  /// The delegate (held weakly) and the queue its calls run on; null stops delivery.
  void setMetadataObjectsDelegate(std::weak_ptr<CaptureMetadataOutputObjectsDelegate> delegate,
                                  std::shared_ptr<DispatchQueue> queue);

  struct Impl;
  /// The implementation, for the capture layer.
  const std::shared_ptr<Impl>& impl() const { return d_; }

 private:
  MetadataOutput();
  std::shared_ptr<Impl> d_;
};

/// What went wrong with a session's camera: it was unplugged (`disconnected`), failed while
/// filming, or could not start (`atStart`; busy in another process, a format it refuses).
struct CaptureRuntimeError {
  std::string deviceUniqueID;  ///< the camera's CaptureDevice::uniqueID()
  std::string deviceName;      ///< the camera's localized name
  bool disconnected = false;   ///< the camera went away (unplugged, driver gone)
  bool atStart = false;        ///< the camera never delivered: busy, or refused the format
  std::string message;         ///< the camera layer's own words
};

/// One camera and its outputs.
///
/// Inputs: one camera at a time. Outputs: one of each kind. Changes made while running take
/// effect at once, or at commitConfiguration() inside a configuration transaction. A running
/// session without a camera input delivers nothing. A camera that fails while running (a file
/// that stops decoding, an unplugged webcam) delivers nothing more and the session still counts
/// as running until stopRunning(); the failure is logged in one line naming the camera
/// ("Capture: the camera <name> (<unique id>) was disconnected: <message>", "... failed:
/// <message>", or "Capture: <name>: the camera could not start: <message>"), kept as
/// runtimeError() and handed to the runtime-error handler. After an unplug, stopRunning()
/// and startRunning() film again once the camera is back (see CaptureDevice::isConnected()).
class KWQ_EXPORT CaptureSession {
 public:
  /// A new session: no input, no outputs, preset High, stopped.
  static std::shared_ptr<CaptureSession> create();
  ~CaptureSession();
  CaptureSession(const CaptureSession&) = delete;
  CaptureSession& operator=(const CaptureSession&) = delete;

  /// AVCaptureSessionPresetHigh by default.
  std::string sessionPreset() const;
  /// One of the presets above that the current camera can film; others ignored.
  bool canSetSessionPreset(std::string_view preset) const;
  /// Sets the preset when canSetSessionPreset() allows it.
  void setSessionPreset(std::string_view preset);

  /// The camera inputs (none or one).
  std::vector<std::shared_ptr<CaptureDeviceInput>> inputs() const;
  /// False for null, for an input already in the session, while the session has a camera
  /// input, and for a camera that cannot film the current preset.
  bool canAddInput(const std::shared_ptr<CaptureDeviceInput>& input) const;
  /// Adds the input when canAddInput() allows it.
  void addInput(const std::shared_ptr<CaptureDeviceInput>& input);
  /// Removes the input; nothing when it is not in the session.
  void removeInput(const std::shared_ptr<CaptureDeviceInput>& input);

  /// The outputs, in the order added.
  std::vector<std::shared_ptr<CaptureOutput>> outputs() const;
  /// False for null, for an output in this or another session, and for a second output of the
  /// same kind.
  bool canAddOutput(const std::shared_ptr<CaptureOutput>& output) const;
  /// Adds the output when canAddOutput() allows it.
  void addOutput(const std::shared_ptr<CaptureOutput>& output);
  /// Removes the output; nothing when it is not in the session.
  void removeOutput(const std::shared_ptr<CaptureOutput>& output);

  /// Groups changes: a running session applies them once, at the outermost commit.
  void beginConfiguration();
  /// Ends a beginConfiguration(); the outermost applies the changes.
  void commitConfiguration();

  /// Starts filming and returns once the camera runs (or has failed, which is logged; the
  /// session then counts as running without frames). Does nothing while running.
  void startRunning();
  /// Stops filming and returns once the camera has stopped: no frame reaches an output after
  /// this returns, and frames waiting for a busy delegate are dropped; a delegate call already
  /// under way on its queue finishes. Does nothing while stopped.
  void stopRunning();
  /// True between startRunning() and stopRunning().
  bool isRunning() const;

  /// Called on the main queue once per run whose camera fails or cannot start. Thread: any.
  void setRuntimeErrorHandler(std::function<void(const CaptureRuntimeError&)> handler);
  /// The failure of the current (or last) run; none while it goes well. startRunning() clears
  /// it. Thread: any.
  std::optional<CaptureRuntimeError> runtimeError() const;

  struct Impl;
  /// The implementation, for the capture layer.
  const std::shared_ptr<Impl>& impl() const { return d_; }

 private:
  CaptureSession();
  std::shared_ptr<Impl> d_;
};

}  // namespace kwq

#pragma once

// The insides of the capture objects, shared by the capture layer's source files.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kwqimage/CaptureDevice.h"
#include "kwqimage/CaptureSession.h"
#include "platform/media/camera_backend.h"

namespace kwq {

namespace platform {

class CapturePipeline;

/// Receives every frame of a running session. consumeFrame() runs on a GStreamer streaming
/// thread and must never block.
class FrameConsumer {
 public:
  virtual ~FrameConsumer() = default;
  virtual void consumeFrame(const SampleBuffer& sample) = 0;
  /// The session stopped: drop frames waiting for delivery.
  virtual void sessionStopped() {}
};

/// Hands a running session's frames to its outputs and keeps the newest frame for stills and
/// the preview. Owned jointly by the session and the pipeline's frame callback, so a frame in
/// flight never keeps the session (and its pipeline) alive on a streaming thread.
class FrameRouter {
 public:
  void setConsumers(std::vector<std::shared_ptr<FrameConsumer>> consumers);
  void route(const SampleBuffer& sample);
  void setRunning(bool running);
  bool isRunning() const { return running_.load(); }
  /// The newest frame (null before the first).
  SampleBuffer latestFrame() const;
  /// The first frame routed after the call with a time stamp of at least `notBeforeNs`; null
  /// after `timeout` or when the session stops.
  SampleBuffer nextFrame(std::chrono::milliseconds timeout, int64_t notBeforeNs = -1);
  /// Size of the newest frame; zero before the first.
  Size frameSize() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable frameArrived_;
  std::vector<std::shared_ptr<FrameConsumer>> consumers_;
  SampleBuffer latest_;
  uint64_t frameCount_ = 0;
  std::atomic<bool> running_{false};
};

/// Makes a device around a backend.
std::shared_ptr<CaptureDevice> makeCaptureDevice(std::string uniqueID, std::string name,
                                                 int64_t position,
                                                 std::shared_ptr<CameraBackend> backend);

/// The V4L2 cameras on the machine, sorted by device path (see v4l2_camera.cc).
std::vector<std::shared_ptr<CaptureDevice>> discoverV4l2Cameras();

}  // namespace platform

struct CaptureDevice::Impl {
  std::string uniqueID;
  std::string name;
  int64_t position = 0;
  std::shared_ptr<platform::CameraBackend> backend;
  platform::CameraCapabilities caps;

  mutable std::mutex mutex;  // guards the fields below
  platform::CameraControls controls;
  std::thread::id lockOwner;
  int lockDepth = 0;

  bool callerHoldsLock() const { return lockDepth > 0 && lockOwner == std::this_thread::get_id(); }
  platform::CameraControls currentControls() const {
    std::lock_guard lock(mutex);
    return controls;
  }
};

struct CaptureConnection::Impl {
  explicit Impl(std::string_view type) : mediaType(type) {}
  const std::string mediaType;
  std::atomic<bool> enabled{true};
};

/// The session an output belongs to, as outputs see it.
struct OutputAttachment {
  std::weak_ptr<CaptureSession::Impl> session;
  std::weak_ptr<platform::FrameRouter> router;
};

struct VideoDataOutput::Impl : platform::FrameConsumer,
                               std::enable_shared_from_this<VideoDataOutput::Impl> {
  void consumeFrame(const SampleBuffer& sample) override;
  void sessionStopped() override;
  void deliverNext();  // on the delegate queue

  std::weak_ptr<VideoDataOutput> self;
  std::shared_ptr<CaptureConnection> connection;

  mutable std::mutex mutex;  // guards the fields below
  uint32_t pixelFormat = kPixelFormat420f;
  bool discardLate = true;
  std::weak_ptr<CaptureVideoDataOutputSampleBufferDelegate> delegate;
  std::shared_ptr<DispatchQueue> queue;
  std::deque<SampleBuffer> waiting;
  bool scheduled = false;  // a delivery block is queued or running
  std::shared_ptr<OutputAttachment> attachment;

  std::atomic<uint64_t> delivered{0};
  std::atomic<uint64_t> dropped{0};
};

struct StillImageOutput::Impl {
  std::shared_ptr<CaptureConnection> connection;
  mutable std::mutex mutex;
  uint32_t pixelFormat = kPixelFormatBGRA;
  std::shared_ptr<OutputAttachment> attachment;
};

struct MetadataOutput::Impl : platform::FrameConsumer,
                              std::enable_shared_from_this<MetadataOutput::Impl> {
  /// Finds objects of the requested types in one frame. Runs on the output's recognition
  /// queue, one frame at a time.
  using Recognizer = std::function<MetadataObjects(const SampleBuffer& frame,
                                                   const std::vector<std::string>& types)>;

  void consumeFrame(const SampleBuffer& sample) override;
  void sessionStopped() override;
  void recognizeNext();  // on the recognition queue
  // Counts a delegate call and its latency; on the delegate queue.
  void noteCallback(const MetadataObjects& found, std::chrono::steady_clock::time_point arrived);

  std::weak_ptr<MetadataOutput> self;
  std::shared_ptr<CaptureConnection> connection;
  std::shared_ptr<DispatchQueue> recognitionQueue;

  mutable std::mutex mutex;  // guards the fields below
  std::vector<std::string> types;
  std::weak_ptr<CaptureMetadataOutputObjectsDelegate> delegate;
  std::shared_ptr<DispatchQueue> queue;
  Recognizer recognizer;
  SampleBuffer waiting;
  std::chrono::steady_clock::time_point waitingSince;  // when `waiting` arrived
  bool scheduled = false;
  bool lastHadObjects = false;
  MetadataOutputStatistics stats;  // latency fields filled on request from `latencies`
  std::vector<double> latencies;   // ring of the last kLatencyWindow, milliseconds
  size_t nextLatency = 0;
  static constexpr size_t kLatencyWindow = 512;
  std::shared_ptr<OutputAttachment> attachment;
};

struct CaptureSession::Impl : std::enable_shared_from_this<CaptureSession::Impl> {
  ~Impl();
  // Builds the pipeline for the current configuration and plays it. runMutex held.
  void startPipeline();
  void stopPipeline();
  // Applies configuration changes to a running session unless a transaction is open.
  void configurationChanged();
  // The consumers for the router; mutex held.
  std::vector<std::shared_ptr<platform::FrameConsumer>> consumersLocked() const;
  std::shared_ptr<CaptureDevice> cameraLocked() const;
  // The size frames will have with the current camera and preset; zero without a camera.
  Size videoSize() const;
  // One frame in BGRA at `size` from `camera`, the session's running camera: the stream stops,
  // a pipeline films at that size, and the stream starts again. Null when the camera is not the
  // running one or gave no frame within `timeout`. Thread: not the frame queue.
  SampleBuffer filmStill(const std::shared_ptr<CaptureDevice>& camera, Size size,
                         std::chrono::milliseconds timeout);
  // Records, logs and hands to the host the first failure of run `run`. Thread: any.
  void reportRuntimeError(uint64_t run, const std::shared_ptr<CaptureDevice>& camera,
                          const std::string& message, bool atStart);

  std::mutex runMutex;  // serialises start, stop and rebuilds; taken before `mutex`
  mutable std::mutex mutex;
  std::string preset{AVCaptureSessionPresetHigh};
  std::vector<std::shared_ptr<CaptureDeviceInput>> inputs;
  std::vector<std::shared_ptr<CaptureOutput>> outputs;
  int configurationDepth = 0;
  bool changedInTransaction = false;
  bool running = false;
  std::unique_ptr<platform::CapturePipeline> pipeline;
  uint64_t run = 0;  // counts pipeline starts
  std::optional<CaptureRuntimeError> runtimeError;
  std::function<void(const CaptureRuntimeError&)> runtimeErrorHandler;
  std::shared_ptr<platform::FrameRouter> router = std::make_shared<platform::FrameRouter>();
};

namespace platform {

/// Replaces the function that finds objects in a metadata output's frames (every output starts
/// with the face and code recognisers of platform/vision/metadata_recognizer.h). Null: the
/// output finds nothing.
void setMetadataRecognizer(MetadataOutput& output, MetadataOutput::Impl::Recognizer recognizer);

/// The size of the frames a session delivers: that of the newest frame, else the size the
/// camera and preset will give; zero without a camera.
Size sessionVideoSize(const CaptureSession& session);
/// The camera of a session's input; null without one.
std::shared_ptr<CaptureDevice> sessionCamera(const CaptureSession& session);
/// The newest frame a running session delivered; null otherwise.
SampleBuffer sessionLatestFrame(const CaptureSession& session);

}  // namespace platform
}  // namespace kwq

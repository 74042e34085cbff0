#pragma once

// One run of a capture session on GStreamer:
//
//   <camera source> ! videoscale ! videoconvert ! capsfilter ! appsink drop=true max-buffers=1
//
// The caps filter asks for the session's pixel format (420f: NV12 with full-range BT.601
// colours; 420v: the same in video range; BGRA) at the preset's size, with square pixels, so a
// source of another shape is scaled with borders. Frames leave the appsink as SampleBuffers
// that wrap the mapped GStreamer memory (no copy); their time stamps are the pipeline's running
// time, kept strictly rising even when a file camera restarts its time line.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "kwqimage/SampleBuffer.h"
#include "platform/media/camera_backend.h"

namespace kwq::platform {

class CapturePipeline {
 public:
  /// Called on a GStreamer streaming thread for every frame; must not block.
  using FrameCallback = std::function<void(const SampleBuffer&)>;

  /// A pipeline around `source`; null with a reason when elements are missing or the format is
  /// not one of 420f, 420v, BGRA. `cameraName` prefixes log lines.
  static std::unique_ptr<CapturePipeline> create(std::unique_ptr<CameraSource> source,
                                                 const std::string& cameraName, size_t width,
                                                 size_t height, uint32_t pixelFormat,
                                                 FrameCallback onFrame, std::string* error);
  ~CapturePipeline();
  CapturePipeline(const CapturePipeline&) = delete;
  CapturePipeline& operator=(const CapturePipeline&) = delete;

  /// Plays; false with the reason when the camera cannot start (the pipeline is then stopped).
  /// Waits at most about 5 seconds. Thread: not a streaming thread.
  bool start(std::string* error);
  /// Stops and waits until no streaming thread runs; no frame callback starts afterwards.
  void stop();
  /// Receives the first error the pipeline posts (a camera unplugged or gone wrong, also one
  /// that makes start() fail), once, on the posting thread; never block in it. Set before
  /// start(). Without one, the error is logged as "Capture: <camera>: <message>".
  using ErrorCallback = std::function<void(const std::string& message)>;
  void setErrorCallback(ErrorCallback onError);

  struct Core;

 private:
  CapturePipeline() = default;
  std::unique_ptr<CameraSource> source_;
  GstElement* pipeline_ = nullptr;
  std::shared_ptr<Core> core_;
  bool playing_ = false;
};

/// A source bin around `producer` (filesrc, v4l2src): producer ! [capsfilter] ! decodebin, whose
/// first raw video stream is linked to a videoconvert that the bin's "src" pad leads out of;
/// other streams stay unlinked. `filter` (may be null) is taken. Null when elements are missing
/// (then `producer` and `filter` are released). A pipeline around the bin keeps YUV sources in
/// the range its format promises (GStreamer's converter copies YUV code values between two
/// YUV formats of one matrix without moving them to the other range).
GstElement* makeDecodingSourceBin(GstElement* producer, GstCaps* filter);

/// The GStreamer caps string an appsink asks for to deliver `pixelFormat` at width x height;
/// empty for other formats.
std::string captureCapsString(uint32_t pixelFormat, size_t width, size_t height);

/// Converts a frame to `pixelFormat` (420f, 420v or BGRA) at the same size; the frame itself
/// when it already has that format; null when it cannot be converted. Thread: any.
SampleBuffer convertFrame(const SampleBuffer& frame, uint32_t pixelFormat);

}  // namespace kwq::platform

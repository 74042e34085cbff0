#pragma once

// Shared by the capture tests: a frame-logging delegate and a running session on one camera.

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "kwqimage/CaptureSession.h"

namespace kwq::test {

/// Records the frames a video-data output delivers (on its queue) and can be slowed down.
class FrameLog : public CaptureVideoDataOutputSampleBufferDelegate {
 public:
  void captureOutput(VideoDataOutput& output, const SampleBuffer& sample,
                     CaptureConnection& connection) override;

  /// Runs inside each delivery, on the output's queue.
  std::function<void(const SampleBuffer&)> onFrame;
  std::atomic<int> count{0};
  std::atomic<int> offQueue{0};  // deliveries not on the output's queue
  std::shared_ptr<DispatchQueue> queue;

  std::vector<SampleBuffer> frames() const;
  void keepFrames(size_t n) { keep_ = n; }

 private:
  mutable std::mutex mutex_;
  std::vector<SampleBuffer> frames_;
  size_t keep_ = 0;
};

/// A session with one camera and a video-data output whose frames go to a FrameLog on the
/// serial queue "VideoDataOutputQueue".
struct CaptureRig {
  CaptureRig(std::shared_ptr<CaptureDevice> camera, std::string_view preset, uint32_t pixelFormat);
  ~CaptureRig();

  std::shared_ptr<CaptureDevice> camera;
  std::shared_ptr<CaptureSession> session;
  std::shared_ptr<VideoDataOutput> output;
  std::shared_ptr<DispatchQueue> queue;
  std::shared_ptr<FrameLog> log;
};

/// A synthetic camera with default options at `position`.
std::shared_ptr<CaptureDevice> syntheticCamera(int64_t position = AVCaptureDevicePositionBack);

/// Writes a short MJPEG AVI (videotestsrc) and returns its path.
std::string makeTestMovie(const std::string& name, int frames, int width, int height, int fps);

/// Number of threads of this process.
int threadCount();

}  // namespace kwq::test

#pragma once

// Helpers for the tests on the kernel's virtual cameras (see vivid_test.cc).

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kwqimage/CaptureSession.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq::vivid {

/// True inside the guest that run-in-vm.sh boots (the virtual cameras exist).
bool inGuest();

#define KWQ_REQUIRE_GUEST()     \
  if (!::kwq::vivid::inGuest()) \
  GTEST_SKIP() << "needs the virtual cameras (run through tests/vivid/run-in-vm.sh)"

/// The device node of the n-th virtual camera ("/dev/video0", "/dev/video1").
std::string nodePath(int n);

/// Presses the driver's Disconnect button on `path`: the node goes away at once and comes
/// back once every open handle on it is closed, this one's included (it is closed when the
/// Unplug goes, or by replug()).
class Unplug {
 public:
  explicit Unplug(const std::string& path);
  ~Unplug() { replug(); }
  Unplug(const Unplug&) = delete;
  Unplug& operator=(const Unplug&) = delete;
  /// The control was found and pressed.
  bool pressed() const { return pressed_; }
  void replug();

 private:
  int fd_ = -1;
  bool pressed_ = false;
};
/// Sets a control of `path` by its V4L2 id (for instance the driver's test pattern).
bool setControl(const std::string& path, uint32_t id, int64_t value);

/// Waits (polling) until some handle streams from `path` (VIDIOC_REQBUFS answers busy).
bool waitForStreaming(const std::string& path, std::chrono::milliseconds timeout);

/// The 75 % colour bars the driver draws by default, left to right, as R, G, B: eight bars
/// across the width below the on-screen text at the top.
struct Rgb {
  int r, g, b;
};
inline constexpr Rgb kBars[8] = {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0},
                                 {191, 0, 191},   {191, 0, 0},   {0, 0, 191},   {0, 0, 0}};

/// Largest difference, over the bars' centres on rows from 40 % to 95 % of the height,
/// between the frame and the bars: per channel for BGRA; luma and chroma (full-range BT.601
/// of the bars) for 420f. A frame of another format gives 255.
int barError(const SampleBuffer& frame);

/// Collects a video-data output's frames: count, sizes, time stamps, and frames that
/// arrived after `stopped` was set.
class FrameCounter : public CaptureVideoDataOutputSampleBufferDelegate {
 public:
  void captureOutput(VideoDataOutput&, const SampleBuffer& sample, CaptureConnection&) override;
  int frames() const { return frames_.load(); }
  int framesAfterStop() const { return afterStop_.load(); }
  void markStopped() { stopped_ = true; }
  /// The newest frame (pixels kept).
  SampleBuffer last() const;
  std::vector<double> timeStamps() const;
  /// Waits (pumping the main context) for `n` more frames than now; false on timeout.
  bool waitForMore(int n, std::chrono::milliseconds timeout);

 private:
  std::atomic<int> frames_{0}, afterStop_{0};
  std::atomic<bool> stopped_{false};
  mutable std::mutex mutex_;
  SampleBuffer last_;
  std::vector<double> times_;
};

}  // namespace kwq::vivid

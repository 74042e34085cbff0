#pragma once

// What `kwq capture` collects while the engine runs: it sits between the camera's outputs and
// the engine, counting, timing and keeping what the summary reports.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <kwqimage/Image.h>
#include <kwqimage/KWQVideoHelper.h>

#include "kwq/capture_events.h"

namespace kwq::tool {

using Clock = std::chrono::steady_clock;

/// Between the metadata output and the engine, on the main queue: notes the codes of each
/// callback (the engine keeps only their text) and hands the objects on.
class MetadataMonitor final : public CaptureMetadataOutputObjectsDelegate {
 public:
  explicit MetadataMonitor(std::shared_ptr<KWQVideoHelper> engine) : engine_(std::move(engine)) {}

  void captureOutput(MetadataOutput& output, const MetadataObjects& objects,
                     CaptureConnection& connection) override;

  /// The codes of the newest callback, and the time stamp of the frame they were found in
  /// (invalid when it had no objects). Any thread.
  std::pair<std::vector<CodeSeen>, MediaTime> latest() const;
  /// Each code with the number of callbacks that carried it. Any thread.
  std::map<CodeSeen, uint64_t> frames() const;

 private:
  const std::shared_ptr<KWQVideoHelper> engine_;
  mutable std::mutex mutex_;
  std::vector<CodeSeen> latest_;
  MediaTime latestTime_;
  std::map<CodeSeen, uint64_t> frames_;
};

/// Between the video output and the engine, on the engine's frame queue: counts and times every
/// frame step (the engine's captureOutput, delegate call included) and is the engine's delegate.
/// Frames past the limit are not handed on, so a run has exactly the frames asked for.
class CaptureMonitor final : public CaptureVideoDataOutputSampleBufferDelegate,
                             public KWQFrameDelegate,
                             public KWQStillImageDelegate {
 public:
  /// `events`: where each frame's line goes (written on the frame queue only); null: nowhere.
  CaptureMonitor(std::shared_ptr<KWQVideoHelper> engine, bool cardMode,
                 std::optional<uint64_t> limit, std::shared_ptr<const MetadataMonitor> metadata,
                 std::ofstream* events);

  // Frame queue.
  void captureOutput(VideoDataOutput& output, const SampleBuffer& sample,
                     CaptureConnection& connection) override;
  // Frame queue, inside the engine's step.
  void getLastSampleBuffer(const SampleBuffer& sample, Rect faceRect, double, double,
                           const std::optional<std::string>&) override;
  // "VideoDataOutputQueue", from takeStillPicture().
  void getNewStillImage(const Image& image) override;

  /// The still picture, once it has arrived. Any thread.
  std::optional<Image> still() const;
  /// Frames handed to the engine so far. Any thread.
  uint64_t frames() const { return frames_.load(); }
  uint64_t faceFrames() const;
  uint64_t stableFrames() const;
  /// When the newest frame arrived; none before the first.
  std::optional<Clock::time_point> lastArrival() const;
  /// Source frames produced minus frames delivered: exact for the synthetic camera, whose
  /// frames carry their number; other cameras: frames the output discarded as late.
  uint64_t dropped(const VideoDataOutput& output, bool synthetic) const;

  struct Summary {
    uint64_t frames = 0, delegateCalls = 0, stableFrames = 0;
    uint64_t faceFrames = 0, centredFrames = 0;
    std::map<double, uint64_t> yaws, rolls;  // frames with a face per angle, where known
    size_t width = 0, height = 0;
    std::optional<uint64_t> firstStable;  // 1-based
    double seconds = 0.0;                 // first to last arrival
    std::vector<double> stepMs;
    Rect marker;   // the newest stable frame's delegate rectangle
    Point centre;  // and the card centre then
    SampleBuffer firstStableSample;
  };
  /// After the frame queue has gone quiet.
  Summary summary() const;

 private:
  // Frame queue, right after the engine's step: counts what the engine now holds for this
  // frame and writes its event line.
  void noteResults(const SampleBuffer& sample);

  const std::shared_ptr<KWQVideoHelper> engine_;
  const bool cardMode_;
  const std::optional<uint64_t> limit_;
  const std::shared_ptr<const MetadataMonitor> metadata_;
  std::ofstream* const events_;
  std::atomic<uint64_t> frames_{0};

  mutable std::mutex mutex_;  // guards the fields below
  Summary s_;                 // all but frames, seconds and size, kept as they come
  std::optional<Clock::time_point> firstArrival_;
  Clock::time_point lastArrival_;
  std::optional<uint64_t> firstIndex_, lastIndex_;
  std::optional<Image> still_;
};

}  // namespace kwq::tool

#include "kwq/capture_monitor.h"

#include <algorithm>
#include <set>

#include <kwqimage/SyntheticCamera.h>

namespace kwq::tool {

void MetadataMonitor::captureOutput(MetadataOutput& output, const MetadataObjects& objects,
                                    CaptureConnection& connection) {
  std::vector<CodeSeen> codes;
  for (const auto& object : objects)
    if (auto* code = dynamic_cast<const MetadataMachineReadableCodeObject*>(object.get()))
      codes.push_back({codeTypeName(code->type), code->stringValue});
  {
    std::lock_guard lock(mutex_);
    // A code found twice in one callback counts once for it.
    for (const CodeSeen& code : std::set<CodeSeen>(codes.begin(), codes.end())) ++frames_[code];
    latest_ = std::move(codes);
    latestTime_ =
        objects.empty() || !objects.front() ? MediaTime::invalid() : objects.front()->time;
  }
  engine_->captureOutput(output, objects, connection);
}

std::pair<std::vector<CodeSeen>, MediaTime> MetadataMonitor::latest() const {
  std::lock_guard lock(mutex_);
  return {latest_, latestTime_};
}

std::map<CodeSeen, uint64_t> MetadataMonitor::frames() const {
  std::lock_guard lock(mutex_);
  return frames_;
}

CaptureMonitor::CaptureMonitor(std::shared_ptr<KWQVideoHelper> engine, bool cardMode,
                               std::optional<uint64_t> limit,
                               std::shared_ptr<const MetadataMonitor> metadata,
                               std::ofstream* events)
    : engine_(std::move(engine)),
      cardMode_(cardMode),
      limit_(limit),
      metadata_(std::move(metadata)),
      events_(events) {}

void CaptureMonitor::captureOutput(VideoDataOutput& output, const SampleBuffer& sample,
                                   CaptureConnection& connection) {
  if (limit_ && frames_ >= *limit_) return;
  const auto index = syntheticFrameIndex(sample);
  const Clock::time_point start = Clock::now();
  engine_->captureOutput(output, sample, connection);
  const Clock::time_point end = Clock::now();
  noteResults(sample);
  {
    std::lock_guard lock(mutex_);
    s_.stepMs.push_back(std::chrono::duration<double, std::milli>(end - start).count());
    if (!firstArrival_) firstArrival_ = start;
    lastArrival_ = start;
    s_.width = sample.imageBuffer().width();
    s_.height = sample.imageBuffer().height();
    if (index) {
      firstIndex_ = std::min(firstIndex_.value_or(*index), *index);
      lastIndex_ = std::max(lastIndex_.value_or(*index), *index);
    }
  }
  frames_.fetch_add(1);
}

void CaptureMonitor::getLastSampleBuffer(const SampleBuffer& sample, Rect faceRect, double, double,
                                         const std::optional<std::string>&) {
  std::lock_guard lock(mutex_);
  ++s_.delegateCalls;
  if (!cardMode_ || faceRect == Rect::zero()) return;
  ++s_.stableFrames;
  s_.marker = faceRect;
  s_.centre = engine_->cardCenter();  // this frame's: detection just ran on this queue
  if (!s_.firstStable) {
    s_.firstStable = frames_.load() + 1;
    s_.firstStableSample = sample;  // keeps the pixels for the snapshot
  }
}

void CaptureMonitor::getNewStillImage(const Image& image) {
  std::lock_guard lock(mutex_);
  still_ = image;
}

std::optional<Image> CaptureMonitor::still() const {
  std::lock_guard lock(mutex_);
  return still_;
}

uint64_t CaptureMonitor::faceFrames() const {
  std::lock_guard lock(mutex_);
  return s_.faceFrames;
}

uint64_t CaptureMonitor::stableFrames() const {
  std::lock_guard lock(mutex_);
  return s_.stableFrames;
}

std::optional<Clock::time_point> CaptureMonitor::lastArrival() const {
  std::lock_guard lock(mutex_);
  return firstArrival_ ? std::optional(lastArrival_) : std::nullopt;
}

uint64_t CaptureMonitor::dropped(const VideoDataOutput& output, bool synthetic) const {
  std::lock_guard lock(mutex_);
  if (!synthetic) return output.droppedFrameCount();
  if (!firstIndex_) return 0;
  const uint64_t produced = *lastIndex_ - *firstIndex_ + 1;
  return produced > s_.stepMs.size() ? produced - s_.stepMs.size() : 0;
}

CaptureMonitor::Summary CaptureMonitor::summary() const {
  std::lock_guard lock(mutex_);
  Summary s = s_;
  s.frames = s_.stepMs.size();
  if (firstArrival_)
    s.seconds = std::chrono::duration<double>(lastArrival_ - *firstArrival_).count();
  return s;
}

void CaptureMonitor::noteResults(const SampleBuffer& sample) {
  const FrameResults r = readFrameResults(*engine_, sample);
  const auto [codes, found] = metadata_->latest();
  std::lock_guard lock(mutex_);
  if (r.hasFace) {
    ++s_.faceFrames;
    if (r.centred) ++s_.centredFrames;
    if (r.hasYaw) ++s_.yaws[r.yaw];
    if (r.hasRoll) ++s_.rolls[r.roll];
  }
  if (events_) {
    const auto camera = engine_->device();
    const auto truth = camera ? syntheticFrameTruth(*camera, sample) : std::nullopt;
    writeFrameEvent(*events_, s_.stepMs.size(), sample, r, codes, found, truth ? &*truth : nullptr);
  }
}

}  // namespace kwq::tool

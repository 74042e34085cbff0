#include "kwq/capture_command.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <set>
#include <vector>

#include <kwqimage/Image.h>
#include <kwqimage/KWQCameraRollHelper.h>
#include <kwqimage/KWQVideoHelper.h>
#include <kwqimage/SyntheticCamera.h>

#include "kwq/card_output.h"
#include "kwq/table.h"

namespace kwq::tool {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

std::atomic<bool> gInterrupted{false};
extern "C" void onInterrupt(int) {
  gInterrupted = true;
}

std::string format(const char* fmt, double value) {
  char text[64];
  std::snprintf(text, sizeof text, fmt, value);
  return text;
}

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  // Nearest rank: the smallest value with at least p of the values at or below it.
  const size_t rank = static_cast<size_t>(std::max(1.0, std::ceil(p * values.size())));
  return values[std::min(rank, values.size()) - 1];
}

// Sits between the video output and the engine, on the engine's frame queue: counts and times
// every frame step (the engine's captureOutput, delegate call included) and is the engine's
// delegate. Frames past the limit are not handed on, so a run has exactly the frames asked for.
class CaptureMonitor final : public CaptureVideoDataOutputSampleBufferDelegate,
                             public KWQFrameDelegate {
 public:
  CaptureMonitor(std::shared_ptr<KWQVideoHelper> engine, bool cardMode,
                 std::optional<uint64_t> limit)
      : engine_(std::move(engine)), cardMode_(cardMode), limit_(limit) {}

  // Frame queue.
  void captureOutput(VideoDataOutput& output, const SampleBuffer& sample,
                     CaptureConnection& connection) override {
    if (limit_ && frames_ >= *limit_) return;
    const auto index = syntheticFrameIndex(sample);
    const Clock::time_point start = Clock::now();
    engine_->captureOutput(output, sample, connection);
    const Clock::time_point end = Clock::now();
    {
      std::lock_guard lock(mutex_);
      stepMs_.push_back(std::chrono::duration<double, std::milli>(end - start).count());
      if (!firstArrival_) firstArrival_ = start;
      lastArrival_ = start;
      width_ = sample.imageBuffer().width();
      height_ = sample.imageBuffer().height();
      if (index) {
        firstIndex_ = std::min(firstIndex_.value_or(*index), *index);
        lastIndex_ = std::max(lastIndex_.value_or(*index), *index);
      }
    }
    frames_.fetch_add(1);
  }

  // Frame queue, inside the engine's step.
  void getLastSampleBuffer(const SampleBuffer& sample, Rect faceRect, double, double,
                           const std::optional<std::string>&) override {
    std::lock_guard lock(mutex_);
    ++delegateCalls_;
    if (!cardMode_ || faceRect == Rect::zero()) return;
    ++stableFrames_;
    marker_ = faceRect;
    centre_ = engine_->cardCenter();  // this frame's: detection just ran on this queue
    if (!firstStable_) {
      firstStable_ = frames_.load() + 1;
      firstStableSample_ = sample;  // keeps the pixels for the snapshot
    }
  }

  uint64_t frames() const { return frames_.load(); }
  uint64_t stableFrames() const {
    std::lock_guard lock(mutex_);
    return stableFrames_;
  }
  std::optional<Clock::time_point> lastArrival() const {
    std::lock_guard lock(mutex_);
    return firstArrival_ ? std::optional(lastArrival_) : std::nullopt;
  }
  // Source frames produced minus frames delivered: exact for the synthetic camera, whose
  // frames carry their number; other cameras: frames the output discarded as late.
  uint64_t dropped(const VideoDataOutput& output, bool synthetic) const {
    std::lock_guard lock(mutex_);
    if (!synthetic) return output.droppedFrameCount();
    if (!firstIndex_) return 0;
    const uint64_t produced = *lastIndex_ - *firstIndex_ + 1;
    return produced > stepMs_.size() ? produced - stepMs_.size() : 0;
  }

  struct Summary {
    uint64_t frames = 0, delegateCalls = 0, stableFrames = 0;
    size_t width = 0, height = 0;
    std::optional<uint64_t> firstStable;
    double seconds = 0.0;
    std::vector<double> stepMs;
    Rect marker;
    Point centre;
    SampleBuffer firstStableSample;
  };
  // After the frame queue has gone quiet.
  Summary summary() const {
    std::lock_guard lock(mutex_);
    Summary s;
    s.frames = stepMs_.size();
    s.delegateCalls = delegateCalls_;
    s.stableFrames = stableFrames_;
    s.firstStable = firstStable_;
    if (firstArrival_)
      s.seconds = std::chrono::duration<double>(lastArrival_ - *firstArrival_).count();
    s.width = width_;
    s.height = height_;
    s.stepMs = stepMs_;
    s.marker = marker_;
    s.centre = centre_;
    s.firstStableSample = firstStableSample_;
    return s;
  }

 private:
  const std::shared_ptr<KWQVideoHelper> engine_;
  const bool cardMode_;
  const std::optional<uint64_t> limit_;
  std::atomic<uint64_t> frames_{0};

  mutable std::mutex mutex_;  // guards the fields below
  std::vector<double> stepMs_;
  std::optional<Clock::time_point> firstArrival_;
  Clock::time_point lastArrival_;
  size_t width_ = 0, height_ = 0;
  std::optional<uint64_t> firstIndex_, lastIndex_;
  uint64_t delegateCalls_ = 0, stableFrames_ = 0;
  std::optional<uint64_t> firstStable_;
  Rect marker_;
  Point centre_;
  SampleBuffer firstStableSample_;
};

// A synthetic camera like `camera` that films the portrait.
std::shared_ptr<CaptureDevice> portraitCameraLike(const CaptureDevice& camera) {
  SyntheticCameraOptions options;
  options.scene = SyntheticSceneKind::Portrait;
  options.position = camera.position();
  options.uniqueID = camera.uniqueID();
  options.localizedName = camera.localizedName();
  return CaptureDevice::syntheticCamera(options);
}

// The camera named on the command line; null after one line on `err`.
std::shared_ptr<CaptureDevice> chooseCamera(const std::string& name, std::ostream& err) {
  if (name.empty()) {
    auto camera = CaptureDevice::defaultDeviceWithMediaType(AVMediaTypeVideo);
    if (!camera) err << "kwq capture: no camera found\n";
    return camera;
  }
  if (name == "synthetic") return CaptureDevice::syntheticCamera();
  if (auto camera = CaptureDevice::deviceWithUniqueID(name)) return camera;
  std::error_code ec;
  if (fs::is_regular_file(name, ec)) {
    auto camera = CaptureDevice::fileCamera(name);
    if (!camera) err << "kwq capture: '" << name << "' has no video this tool can play\n";
    return camera;
  }
  std::string ids;
  for (const auto& camera : CaptureDevice::devices())
    ids += (ids.empty() ? "" : ", ") + camera->uniqueID();
  err << "kwq capture: no camera or video file '" << name << "' (cameras: " << ids
      << "; or synthetic)\n";
  return nullptr;
}

// Why a snapshot cannot be written to `path`; empty when it can be tried.
std::string snapshotPathProblem(const std::string& path) {
  std::error_code ec;
  if (fs::is_directory(path, ec)) return "it is a folder";
  const fs::path parent =
      fs::path(path).parent_path().empty() ? fs::path(".") : fs::path(path).parent_path();
  if (!fs::is_directory(parent, ec)) return "no folder " + parent.string();
  if (::access(parent.c_str(), W_OK) != 0) return "the folder is not writable";
  return {};
}

std::set<std::string> moviesIn(const std::string& folder) {
  std::set<std::string> movies;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
    if (it->path().extension() == ".mov") movies.insert(it->path().string());
  return movies;
}

std::string progressLine(const CaptureMonitor& monitor, const KWQVideoHelper& engine,
                         const CaptureOptions& options, bool synthetic, Clock::time_point start) {
  const uint64_t frames = monitor.frames();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::string code = engine.parsedData().value_or("");
  if (code.empty()) code = "-";
  if (code.size() > 40) code = code.substr(0, 37) + "...";
  std::string line = "frames " + std::to_string(frames);
  if (options.frames) line += "/" + std::to_string(*options.frames);
  line += "  " + format("%.1f", seconds > 0 ? frames / seconds : 0.0) + " fps";
  line += "  dropped " + std::to_string(monitor.dropped(*engine.videoDataOutput(), synthetic));
  if (options.cardMode) line += "  stable " + std::to_string(monitor.stableFrames());
  line += "  code " + code;
  return line;
}

struct Loop {
  const CaptureOptions* options = nullptr;
  const CardOutput* card = nullptr;  // with card captures: the live guidance word
  const CaptureMonitor* monitor = nullptr;
  const KWQVideoHelper* engine = nullptr;
  std::ostream* out = nullptr;
  bool synthetic = false;
  Clock::time_point start;
  Clock::time_point lastPrint;
  size_t lastWidth = 0;
  bool done = false;
  bool stalled = false;
};

// Main thread, every 100 ms: progress, and whether the run is over.
gboolean onTick(gpointer data) {
  Loop& loop = *static_cast<Loop*>(data);
  const Clock::time_point now = Clock::now();
  const uint64_t frames = loop.monitor->frames();
  if (gInterrupted) loop.done = true;
  if (loop.options->frames && frames >= *loop.options->frames) loop.done = true;
  if (loop.options->seconds &&
      std::chrono::duration<double>(now - loop.start).count() >= *loop.options->seconds)
    loop.done = true;
  // A camera that delivers nothing (or stops) ends the run rather than hanging it.
  const auto last = loop.monitor->lastArrival();
  if ((!last && now - loop.start > std::chrono::seconds(10)) ||
      (last && now - *last > std::chrono::seconds(5))) {
    loop.done = loop.stalled = true;
  }

  const bool live = loop.options->liveProgress;
  if (live || loop.done || now - loop.lastPrint >= std::chrono::seconds(1)) {
    std::string line =
        progressLine(*loop.monitor, *loop.engine, *loop.options, loop.synthetic, loop.start);
    if (loop.card) line += "  guidance " + loop.card->guidance();
    if (live) {
      *loop.out << '\r' << line
                << std::string(loop.lastWidth > line.size() ? loop.lastWidth - line.size() : 0,
                               ' ');
      if (loop.done) *loop.out << '\n';
      loop.lastWidth = line.size();
    } else {
      *loop.out << line << '\n';
    }
    loop.out->flush();
    loop.lastPrint = now;
  }
  return loop.done ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

std::string rectText(Rect r) {
  return format("%g", r.origin.x) + ", " + format("%g", r.origin.y) + ", " +
         format("%g", r.size.width) + ", " + format("%g", r.size.height);
}

}  // namespace

int runCapture(const CaptureOptions& options, std::ostream& out, std::ostream& err) {
  if (!options.snapshot.empty()) {
    if (!options.cardMode) {
      err << "kwq capture: --snapshot saves the first stable-card frame; it needs card mode\n";
      return 2;
    }
    if (const std::string problem = snapshotPathProblem(options.snapshot); !problem.empty()) {
      err << "kwq capture: cannot write a snapshot to '" << options.snapshot << "': " << problem
          << '\n';
      return 2;
    }
  }
  if (!options.outDir.empty() && !options.cardMode) {
    err << "kwq capture: --out writes the captured card; it needs card mode\n";
    return 2;
  }
  std::shared_ptr<CaptureDevice> camera = chooseCamera(options.camera, err);
  if (!camera) return 2;
  // Synthetic cameras film the card; face mode films the portrait instead.
  if (!options.cardMode && isSyntheticCamera(*camera)) camera = portraitCameraLike(*camera);

  // The engine takes the first camera at its position: make ours the only one.
  CaptureDevice::setDevices({camera});
  auto engine = KWQVideoHelper::create(AVCaptureSessionPresetHigh, camera->position(),
                                       AVLayerVideoGravityResizeAspect, kPixelFormat420f);
  if (!engine || engine->device() != camera) {
    err << "kwq capture: the engine could not use camera " << camera->uniqueID() << '\n';
    return 2;
  }
  engine->setShouldDetectCardRect(options.cardMode);
  engine->setRecordCameraData(options.record);
  auto monitor = std::make_shared<CaptureMonitor>(engine, options.cardMode, options.frames);
  // Card captures (--out, or the per-frame analysis beside a recording) put the card output
  // in front of the monitor as the engine's delegate.
  std::shared_ptr<CardOutput> card;
  if (options.cardMode && (!options.outDir.empty() || options.record))
    card = std::make_shared<CardOutput>(monitor, options.record);
  if (card)
    engine->setDelegate(card);
  else
    engine->setDelegate(monitor);
  const auto output = engine->videoDataOutput();
  const auto frameQueue = output->sampleBufferCallbackQueue();
  output->setSampleBufferDelegate(monitor, frameQueue);

  const std::string pictures = KWQCameraRollHelper::photoLibraryDirectory();
  const std::set<std::string> moviesBefore =
      options.record ? moviesIn(pictures) : std::set<std::string>{};

  Loop loop;
  loop.options = &options;
  loop.monitor = monitor.get();
  loop.card = card.get();
  loop.engine = engine.get();
  loop.out = &out;
  loop.synthetic = isSyntheticCamera(*camera);
  loop.start = loop.lastPrint = Clock::now();
  gInterrupted = false;
  const auto previousHandler = std::signal(SIGINT, onInterrupt);

  engine->startVideoCapture();
  g_timeout_add(100, onTick, &loop);
  while (!loop.done) g_main_context_iteration(nullptr, TRUE);
  engine->stopVideoCapture();
  frameQueue->sync([] {});  // a frame step under way at the stop has finished
  std::signal(SIGINT, previousHandler);

  const CaptureMonitor::Summary s = monitor->summary();
  Table table({"measure", "value"});
  table.alignLeft();
  table.addRow({"camera", camera->localizedName() + " (" + camera->uniqueID() + ")"});
  table.addRow({"mode", options.cardMode ? "card" : "face"});
  table.addRow({"frame size", std::to_string(s.width) + "x" + std::to_string(s.height)});
  table.addRow({"frames delivered", std::to_string(s.frames)});
  table.addRow({"duration s", format("%.2f", s.seconds)});
  table.addRow({"fps", s.frames > 1 && s.seconds > 0 ? format("%.1f", (s.frames - 1) / s.seconds)
                                                     : std::string("-")});
  table.addRow({"frames dropped", std::to_string(monitor->dropped(*output, loop.synthetic))});
  table.addRow({"delegate calls", std::to_string(s.delegateCalls)});
  if (options.cardMode) {
    table.addRow({"frames with a stable card", std::to_string(s.stableFrames)});
    table.addRow(
        {"first stable frame", s.firstStable ? std::to_string(*s.firstStable) : std::string("-")});
    table.addRow({"card centre (px, y up)",
                  s.firstStable ? format("%.1f", s.centre.x) + ", " + format("%.1f", s.centre.y)
                                : std::string("-")});
    table.addRow({"marker rect", s.firstStable ? rectText(s.marker) : std::string("-")});
  }
  std::string code = engine->parsedData().value_or("");
  table.addRow({"code text", code.empty() ? std::string("-") : code});
  table.addRow({"frame step p50 ms", format("%.2f", percentile(s.stepMs, 0.50))});
  table.addRow({"frame step p95 ms", format("%.2f", percentile(s.stepMs, 0.95))});

  int status = 0;
  if (loop.stalled) {
    err << "kwq capture: the camera " << (s.frames ? "stopped delivering" : "delivered no")
        << " frames\n";
    status = 1;
  }
  if (options.record) {
    auto& recorder = KWQCameraRollHelper::getInstance();
    std::string saved;
    if (recorder.waitForPendingSaves(std::chrono::minutes(2))) {
      for (const std::string& movie : moviesIn(pictures))
        if (!moviesBefore.count(movie)) saved = movie;
    }
    table.addRow({"movie", saved.empty() ? std::string("-") : saved});
    if (card && !saved.empty()) {
      const std::string sidecar = fs::path(saved).replace_extension(".frames.jsonl").string();
      if (card->writeFrames(sidecar, err)) table.addRow({"frame analysis", sidecar});
    }
    if (saved.empty()) {
      err << "kwq capture: no movie was saved to " << pictures << '\n';
      status = 1;
    }
  }
  if (!options.snapshot.empty()) {
    bool written = false;
    if (!s.firstStableSample.isNull()) {
      written =
          Image::fromPixelBuffer(s.firstStableSample.imageBuffer()).writePNG(options.snapshot);
      if (!written) err << "kwq capture: cannot write the snapshot " << options.snapshot << '\n';
    } else {
      err << "kwq capture: the card never became stable; no snapshot written\n";
    }
    table.addRow({"snapshot", written ? options.snapshot : std::string("-")});
    if (!written) status = 1;
  }
  if (card && !options.outDir.empty()) {
    const bool written = card->write(options.outDir, err);
    table.addRow({"card", written ? options.outDir + "/card.png" : std::string("-")});
    if (!written) status = 1;
  }
  table.print(out);
  // Clearing blocks the engine queued for the main thread.
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  CaptureDevice::resetDevices();
  return status;
}

}  // namespace kwq::tool

#include "kwq/capture_command.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include <kwqimage/AAMVA.h>
#include <kwqimage/DeviceOrientation.h>
#include <kwqimage/Image.h>
#include <kwqimage/KWQCameraRollHelper.h>
#include <kwqimage/KWQVideoHelper.h>
#include <kwqimage/Render.h>
#include <kwqimage/SyntheticCamera.h>

#include "kwq/card_output.h"
#include "kwq/json.h"
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

// A code as the metadata output reported it.
struct CodeSeen {
  std::string type;
  std::optional<std::string> text;
  friend auto operator<=>(const CodeSeen&, const CodeSeen&) = default;
};

std::string codeTypeName(std::string_view type) {
  if (type == AVMetadataObjectTypePDF417Code) return "PDF417";
  if (type == AVMetadataObjectTypeQRCode) return "QR";
  return std::string(type);
}

// Sits between the metadata output and the engine, on the main queue: notes the codes of each
// callback (the engine keeps only their text) and hands the objects on.
class MetadataMonitor final : public CaptureMetadataOutputObjectsDelegate {
 public:
  explicit MetadataMonitor(std::shared_ptr<KWQVideoHelper> engine) : engine_(std::move(engine)) {}

  void captureOutput(MetadataOutput& output, const MetadataObjects& objects,
                     CaptureConnection& connection) override {
    std::vector<CodeSeen> codes;
    for (const auto& object : objects)
      if (auto* code = dynamic_cast<const MetadataMachineReadableCodeObject*>(object.get()))
        codes.push_back({codeTypeName(code->type), code->stringValue});
    {
      std::lock_guard lock(mutex_);
      for (const CodeSeen& code : std::set<CodeSeen>(codes.begin(), codes.end())) ++frames_[code];
      latest_ = std::move(codes);
      latestTime_ =
          objects.empty() || !objects.front() ? MediaTime::invalid() : objects.front()->time;
    }
    engine_->captureOutput(output, objects, connection);
  }

  // The codes of the newest callback. Any thread.
  std::vector<CodeSeen> latest() const {
    std::lock_guard lock(mutex_);
    return latest_;
  }
  // The time stamp of the frame the newest callback's objects were found in; invalid when it
  // had none. Any thread.
  MediaTime latestTime() const {
    std::lock_guard lock(mutex_);
    return latestTime_;
  }
  // Each code with the number of callbacks that carried it.
  std::map<CodeSeen, uint64_t> frames() const {
    std::lock_guard lock(mutex_);
    return frames_;
  }

 private:
  const std::shared_ptr<KWQVideoHelper> engine_;
  mutable std::mutex mutex_;
  std::vector<CodeSeen> latest_;
  MediaTime latestTime_;
  std::map<CodeSeen, uint64_t> frames_;
};

// A rectangle in preview points back in the frame's pixels (top-left origin), undoing the
// preview's gravity and mirroring.
std::optional<Rect> framePixels(Rect r, const PreviewLayer& preview, size_t width, size_t height) {
  const Rect video = preview.videoRect();
  if (video.isNull() || !(video.size.width > 0) || !(video.size.height > 0)) return std::nullopt;
  double nx = (r.origin.x - video.origin.x) / video.size.width;
  const double ny = (r.origin.y - video.origin.y) / video.size.height;
  const double nw = r.size.width / video.size.width, nh = r.size.height / video.size.height;
  if (preview.isMirrored()) nx = 1.0 - nx - nw;
  return Rect{nx * width, ny * height, nw * width, nh * height};
}

Json rectJson(Rect r) {
  return Json::numbers({r.origin.x, r.origin.y, r.size.width, r.size.height});
}

// Sits between the video output and the engine, on the engine's frame queue: counts and times
// every frame step (the engine's captureOutput, delegate call included) and is the engine's
// delegate. Frames past the limit are not handed on, so a run has exactly the frames asked for.
class CaptureMonitor final : public CaptureVideoDataOutputSampleBufferDelegate,
                             public KWQFrameDelegate,
                             public KWQStillImageDelegate {
 public:
  CaptureMonitor(std::shared_ptr<KWQVideoHelper> engine, bool cardMode,
                 std::optional<uint64_t> limit, std::shared_ptr<const MetadataMonitor> metadata,
                 std::ofstream* events)
      : engine_(std::move(engine)),
        cardMode_(cardMode),
        limit_(limit),
        metadata_(std::move(metadata)),
        events_(events) {}

  // Frame queue.
  void captureOutput(VideoDataOutput& output, const SampleBuffer& sample,
                     CaptureConnection& connection) override {
    if (limit_ && frames_ >= *limit_) return;
    const auto index = syntheticFrameIndex(sample);
    const Clock::time_point start = Clock::now();
    engine_->captureOutput(output, sample, connection);
    const Clock::time_point end = Clock::now();
    noteResults(sample);
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

  // "VideoDataOutputQueue", from takeStillPicture().
  void getNewStillImage(const Image& image) override {
    std::lock_guard lock(mutex_);
    still_ = image;
    stillArrived_ = true;
  }
  bool stillArrived() const {
    std::lock_guard lock(mutex_);
    return stillArrived_;
  }
  Image still() const {
    std::lock_guard lock(mutex_);
    return still_;
  }

  uint64_t frames() const { return frames_.load(); }
  uint64_t faceFrames() const {
    std::lock_guard lock(mutex_);
    return faceFrames_;
  }
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
    uint64_t faceFrames = 0, centredFrames = 0;
    std::map<double, uint64_t> yaws, rolls;  // frames with a face per angle, where known
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
    s.faceFrames = faceFrames_;
    s.centredFrames = centredFrames_;
    s.yaws = yaws_;
    s.rolls = rolls_;
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
  // Frame queue, right after the engine's step: what the engine now holds for this frame.
  void noteResults(const SampleBuffer& sample) {
    const Rect face = engine_->faceRect();
    const bool hasFace = face != Rect::zero();
    const bool hasYaw = engine_->hasYawAngle(), hasRoll = engine_->hasRollAngle();
    const double yaw = engine_->yawAngle(), roll = engine_->rollAngle();
    const bool centred = hasFace && engine_->isHeadCentered();
    std::optional<Rect> pixels;
    if (hasFace)
      pixels = framePixels(face, *engine_->previewLayer(), sample.imageBuffer().width(),
                           sample.imageBuffer().height());
    const std::vector<CodeSeen> codes = metadata_->latest();
    const MediaTime found = metadata_->latestTime();
    std::lock_guard lock(mutex_);
    if (hasFace) {
      ++faceFrames_;
      if (centred) ++centredFrames_;
      if (hasYaw) ++yaws_[yaw];
      if (hasRoll) ++rolls_[roll];
    }
    if (!events_) return;
    Json event = Json::object();
    event.set("frame", stepMs_.size());
    const auto index = syntheticFrameIndex(sample);
    event.set("source_frame", index ? Json(*index) : Json());
    const MediaTime stamp = sample.presentationTimeStamp();
    event.set("time", stamp.isValid() ? Json(stamp.seconds()) : Json());
    // Recognition trails the frames: the results above come from the frame of this time.
    event.set("metadata_time", found.isValid() ? Json(found.seconds()) : Json());
    event.set("face_frame_px", pixels ? rectJson(*pixels) : Json());
    event.set("yaw", yaw).set("roll", roll).set("has_yaw", hasYaw).set("has_roll", hasRoll);
    event.set("head_centred", centred);
    event.set("code", !codes.empty() && codes.back().text ? Json(*codes.back().text) : Json());
    event.set("code_type", codes.empty() ? Json() : Json(codes.back().type));
    const Rect card = engine_->cardRect();
    event.set("card_rect", card != Rect::zero() ? rectJson(card) : Json());
    event.write(*events_);
    *events_ << '\n';
  }

  const std::shared_ptr<KWQVideoHelper> engine_;
  const bool cardMode_;
  const std::optional<uint64_t> limit_;
  const std::shared_ptr<const MetadataMonitor> metadata_;
  std::ofstream* const events_;  // written on the frame queue only
  std::atomic<uint64_t> frames_{0};

  mutable std::mutex mutex_;  // guards the fields below
  std::vector<double> stepMs_;
  std::optional<Clock::time_point> firstArrival_;
  Clock::time_point lastArrival_;
  size_t width_ = 0, height_ = 0;
  std::optional<uint64_t> firstIndex_, lastIndex_;
  uint64_t delegateCalls_ = 0, stableFrames_ = 0;
  uint64_t faceFrames_ = 0, centredFrames_ = 0;
  std::map<double, uint64_t> yaws_, rolls_;
  bool stillArrived_ = false;
  Image still_;
  std::optional<uint64_t> firstStable_;
  Rect marker_;
  Point centre_;
  SampleBuffer firstStableSample_;
};

// The synthetic camera settings the run asks for: the card or the portrait, glare, dim light.
SyntheticCameraOptions syntheticOptions(const CaptureOptions& run) {
  SyntheticCameraOptions options;
  if (!run.cardMode) options.scene = SyntheticScene::portrait();
  options.scene.light.glareProbability = run.glare;
  options.scene.light.dimProbability = run.dim;
  return options;
}

// A synthetic camera like `camera` (its position, id and name) with the run's settings.
std::shared_ptr<CaptureDevice> syntheticCameraLike(const CaptureDevice& camera,
                                                   const CaptureOptions& run) {
  SyntheticCameraOptions options = syntheticOptions(run);
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

// Why a file cannot be written to `path`; empty when it can be tried.
std::string outputPathProblem(const std::string& path) {
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

// A code's text for a terminal line: a licence record by its number and holder, any other
// text with control characters spelt out (\n, \x1e) and cut to `width` characters.
std::string printableCode(const std::string& text, size_t width) {
  if (const AAMVAParseResult record = parseAAMVA(text); record.ok()) {
    const AAMVARecord& r = *record.record;
    return "AAMVA " + r.customerId + " " + r.familyName + ", " + r.givenName;
  }
  std::string out;
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else if (u < 0x20 || u == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", u);
      out += escaped;
    } else
      out += c;
  }
  if (out.size() > width) out = out.substr(0, width - 3) + "...";
  return out;
}

std::string progressLine(const CaptureMonitor& monitor, const KWQVideoHelper& engine,
                         const CaptureOptions& options, bool synthetic, Clock::time_point start) {
  const uint64_t frames = monitor.frames();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::string code = printableCode(engine.parsedData().value_or(""), 40);
  if (code.empty()) code = "-";
  std::string line = "frames " + std::to_string(frames);
  if (options.frames) line += "/" + std::to_string(*options.frames);
  line += "  " + format("%.1f", seconds > 0 ? frames / seconds : 0.0) + " fps";
  line += "  dropped " + std::to_string(monitor.dropped(*engine.videoDataOutput(), synthetic));
  if (options.cardMode)
    line += "  stable " + std::to_string(monitor.stableFrames());
  else
    line += "  faces " + std::to_string(monitor.faceFrames());
  line += "  code " + code;
  return line;
}

struct Loop {
  const CaptureOptions* options = nullptr;
  const CardOutput* card = nullptr;  // with card captures: the live guidance word
  const CaptureMonitor* monitor = nullptr;
  KWQVideoHelper* engine = nullptr;
  std::shared_ptr<ShapeLayer> outline;  // the host's barcode outline, when a preview is drawn
  bool toggled = false;
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
  if (loop.options->toggleAt && !loop.toggled && frames >= *loop.options->toggleAt) {
    loop.engine->toggleCameraWithAnimation(true);
    loop.toggled = true;
  }
  // The engine lets go of the outline layer whenever no code is outlined; a host that wants
  // outlines hands it back, emptied.
  if (loop.outline && !loop.engine->barcodeLineLayer()) {
    loop.outline->setPath({});
    loop.engine->previewLayer()->addSublayer(loop.outline);
    loop.engine->setBarcodeLineLayer(loop.outline);
  }
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

// One line of the summary: a label and text for the table, a key and value for JSON.
struct Entry {
  std::string key, label;
  Json value;
  std::string text;
};

void addEntry(std::vector<Entry>& entries, std::string key, std::string label, Json value,
              std::string text) {
  entries.push_back({std::move(key), std::move(label), std::move(value), std::move(text)});
}

// "0: 12, 30: 4" for the table, {"0": 12, "30": 4} for JSON.
void addAngles(std::vector<Entry>& entries, const char* key, const char* label,
               const std::map<double, uint64_t>& counts) {
  Json object = Json::object();
  std::string text;
  for (const auto& [angle, n] : counts) {
    const std::string name = format("%g", angle);
    object.set(name, n);
    text += (text.empty() ? "" : ", ") + name + ": " + std::to_string(n);
  }
  addEntry(entries, key, label, std::move(object), text.empty() ? "-" : text);
}

// The options' output paths that cannot be written; prints why on `err`.
bool pathsWritable(const CaptureOptions& options, std::ostream& err) {
  const std::pair<const char*, const std::string*> paths[] = {{"a snapshot", &options.snapshot},
                                                              {"events", &options.events},
                                                              {"a preview", &options.preview},
                                                              {"a still", &options.still}};
  for (const auto& [what, path] : paths) {
    if (path->empty()) continue;
    if (const std::string problem = outputPathProblem(*path); !problem.empty()) {
      err << "kwq capture: cannot write " << what << " to '" << *path << "': " << problem << '\n';
      return false;
    }
  }
  return true;
}

// The camera to switch to with --toggle-at: a synthetic camera of the other position filming
// the same scene, so that a machine without a second camera can show the switch.
std::shared_ptr<CaptureDevice> partnerFor(const CaptureDevice& camera, const CaptureOptions& run) {
  SyntheticCameraOptions options = syntheticOptions(run);
  options.position = camera.position() == AVCaptureDevicePositionFront
                         ? AVCaptureDevicePositionBack
                         : AVCaptureDevicePositionFront;
  return CaptureDevice::syntheticCamera(options);
}

}  // namespace

int runCapture(const CaptureOptions& options, std::ostream& out, std::ostream& err) {
  if (!options.snapshot.empty() && !options.cardMode) {
    err << "kwq capture: --snapshot saves the first stable-card frame; it needs card mode\n";
    return 2;
  }
  if (options.previewWidth < 1 || options.previewHeight < 1 || options.previewWidth > 8192 ||
      options.previewHeight > 8192) {
    err << "kwq capture: --preview-size must be WxH with sides of 1 to 8192\n";
    return 2;
  }
  if (!pathsWritable(options, err)) return 2;
  if (!options.outDir.empty() && !options.cardMode) {
    err << "kwq capture: --out writes the captured card; it needs card mode\n";
    return 2;
  }
  std::shared_ptr<CaptureDevice> camera = chooseCamera(options.camera, err);
  if (!camera) return 2;
  // Synthetic cameras film the card; face mode films the portrait instead.
  if (isSyntheticCamera(*camera)) {
    if (!options.cardMode || options.glare > 0 || options.dim > 0)
      camera = syntheticCameraLike(*camera, options);
  } else if (options.glare > 0 || options.dim > 0) {
    err << "kwq capture: --glare and --dim set up the synthetic camera; " << camera->uniqueID()
        << " is not one\n";
    return 2;
  }

  // The engine takes the first camera at its position: make ours the first one. Switching
  // cameras needs one of the other position as well.
  std::vector<std::shared_ptr<CaptureDevice>> devices{camera};
  if (options.toggleAt) devices.push_back(partnerFor(*camera, options));
  CaptureDevice::setDevices(devices);
  auto engine = KWQVideoHelper::create(AVCaptureSessionPresetHigh, camera->position(),
                                       AVLayerVideoGravityResizeAspect, kPixelFormat420f);
  if (!engine || engine->device() != camera) {
    err << "kwq capture: the engine could not use camera " << camera->uniqueID() << '\n';
    return 2;
  }
  engine->setShouldDetectCardRect(options.cardMode);
  if (options.record) KWQCameraRollHelper::getInstance().setVideoCodec(options.codec);
  engine->setRecordCameraData(options.record);
  // As a host shows it: a view of the preview, with the centre box in face mode. Faces are
  // measured in the view's points.
  const Size viewSize{static_cast<double>(options.previewWidth),
                      static_cast<double>(options.previewHeight)};
  const auto view = engine->getPreviewView({0, 0, viewSize.width, viewSize.height},
                                           /*withCenterBox=*/!options.cardMode);

  std::ofstream events;
  if (!options.events.empty()) {
    events.open(options.events, std::ios::trunc);
    if (!events) {
      err << "kwq capture: cannot write events to '" << options.events << "'\n";
      return 2;
    }
  }
  auto metadata = std::make_shared<MetadataMonitor>(engine);
  if (auto output = engine->metaOutput())
    output->setMetadataObjectsDelegate(
        metadata, std::shared_ptr<DispatchQueue>(std::shared_ptr<void>(), &DispatchQueue::main()));
  auto monitor = std::make_shared<CaptureMonitor>(engine, options.cardMode, options.frames,
                                                  metadata, events.is_open() ? &events : nullptr);
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

  const std::string pictures =
      options.record ? KWQCameraRollHelper::photoLibraryDirectory() : std::string();
  const std::set<std::string> moviesBefore =
      options.record ? moviesIn(pictures) : std::set<std::string>{};

  Loop loop;
  loop.options = &options;
  loop.monitor = monitor.get();
  loop.card = card.get();
  loop.engine = engine.get();
  if (!options.preview.empty()) {
    loop.outline = ShapeLayer::layer();
    loop.outline->setStrokeColor(Color::greenColor());
    loop.outline->setFillColor(std::nullopt);
    loop.outline->setLineWidth(3.0);
  }
  loop.out = options.json ? &err : &out;  // JSON alone on stdout, for scripts
  loop.synthetic = isSyntheticCamera(*camera);
  loop.start = loop.lastPrint = Clock::now();
  gInterrupted = false;
  const auto previousHandler = std::signal(SIGINT, onInterrupt);

  engine->startVideoCapture();
  g_timeout_add(100, onTick, &loop);
  while (!loop.done) g_main_context_iteration(nullptr, TRUE);

  // The still and the preview need the camera still running.
  bool stillSaved = false, previewSaved = false;
  if (!options.still.empty()) {
    // A desktop camera is fixed in landscape: stills come out as filmed (a front camera's
    // picture is turned half round for a device held the other way up).
    const auto current = engine->device();
    DeviceOrientation::setCurrent(current && current->position() == AVCaptureDevicePositionFront
                                      ? DeviceOrientation::LandscapeRight
                                      : DeviceOrientation::LandscapeLeft);
    engine->takeStillPicture();
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(5);
    while (!monitor->stillArrived() && Clock::now() < deadline)
      if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(2000);
    const Image still = monitor->still();
    stillSaved = !still.isNull() && still.writePNG(options.still);
    if (!stillSaved) err << "kwq capture: no still could be saved to " << options.still << '\n';
  }
  if (!options.preview.empty()) {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }  // layer changes queued for the main thread land first
    previewSaved = renderView(*view, viewSize, currentMediaTime()).writePNG(options.preview);
    if (!previewSaved) err << "kwq capture: cannot write the preview " << options.preview << '\n';
  }

  engine->stopVideoCapture();
  frameQueue->sync([] {});  // a frame step under way at the stop has finished
  std::signal(SIGINT, previousHandler);
  if (events.is_open()) events.close();

  const CaptureMonitor::Summary s = monitor->summary();
  const MetadataOutputStatistics meta =
      engine->metaOutput() ? engine->metaOutput()->statistics() : MetadataOutputStatistics{};
  const double fps = s.frames > 1 && s.seconds > 0 ? (s.frames - 1) / s.seconds : 0.0;
  const uint64_t dropped = monitor->dropped(*output, loop.synthetic);
  std::vector<Entry> e;
  addEntry(e, "camera", "camera", camera->uniqueID(),
           camera->localizedName() + " (" + camera->uniqueID() + ")");
  addEntry(e, "mode", "mode", options.cardMode ? "card" : "face",
           options.cardMode ? "card" : "face");
  addEntry(e, "frame_size", "frame size", Json::numbers({double(s.width), double(s.height)}),
           std::to_string(s.width) + "x" + std::to_string(s.height));
  addEntry(e, "frames", "frames delivered", s.frames, std::to_string(s.frames));
  addEntry(e, "seconds", "duration s", s.seconds, format("%.2f", s.seconds));
  addEntry(e, "fps", "fps", fps, fps > 0 ? format("%.1f", fps) : "-");
  addEntry(e, "frames_dropped", "frames dropped", dropped, std::to_string(dropped));
  addEntry(e, "delegate_calls", "delegate calls", s.delegateCalls, std::to_string(s.delegateCalls));
  if (options.cardMode) {
    addEntry(e, "stable_frames", "frames with a stable card", s.stableFrames,
             std::to_string(s.stableFrames));
    addEntry(e, "first_stable_frame", "first stable frame",
             s.firstStable ? Json(*s.firstStable) : Json(),
             s.firstStable ? std::to_string(*s.firstStable) : "-");
    addEntry(e, "card_centre", "card centre (px, y up)",
             s.firstStable ? Json::numbers({s.centre.x, s.centre.y}) : Json(),
             s.firstStable ? format("%.1f", s.centre.x) + ", " + format("%.1f", s.centre.y) : "-");
    addEntry(e, "marker_rect", "marker rect", s.firstStable ? rectJson(s.marker) : Json(),
             s.firstStable ? rectText(s.marker) : "-");
  } else {
    addEntry(e, "face_frames", "frames with a face", s.faceFrames, std::to_string(s.faceFrames));
    addEntry(e, "centred_frames", "frames with the head centred", s.centredFrames,
             std::to_string(s.centredFrames));
    addAngles(e, "yaw_frames", "face frames by yaw", s.yaws);
    addAngles(e, "roll_frames", "face frames by roll", s.rolls);
  }
  const double metaSeconds = std::max(s.seconds, 1e-9);
  addEntry(e, "face_metadata_per_s", "face metadata /s", meta.callbacksWithFaces / metaSeconds,
           format("%.1f", meta.callbacksWithFaces / metaSeconds));
  addEntry(e, "code_metadata_per_s", "code metadata /s", meta.callbacksWithCodes / metaSeconds,
           format("%.1f", meta.callbacksWithCodes / metaSeconds));
  addEntry(e, "metadata_frames_examined", "frames examined for metadata", meta.framesExamined,
           std::to_string(meta.framesExamined));
  addEntry(e, "metadata_latency_p50_ms", "metadata latency p50 ms", meta.latencyP50Milliseconds,
           format("%.1f", meta.latencyP50Milliseconds));
  addEntry(e, "metadata_latency_p95_ms", "metadata latency p95 ms", meta.latencyP95Milliseconds,
           format("%.1f", meta.latencyP95Milliseconds));
  Json codes = Json::array();
  std::string codeRows;
  for (const auto& [code, frames] : metadata->frames()) {
    codes.push(Json::object()
                   .set("type", code.type)
                   .set("text", code.text ? Json(*code.text) : Json())
                   .set("frames", frames));
    codeRows += (codeRows.empty() ? "" : "; ") + code.type + " \"" +
                (code.text ? printableCode(*code.text, 60) : "(not text)") + "\" x" +
                std::to_string(frames);
  }
  addEntry(e, "codes", "codes read", std::move(codes), codeRows.empty() ? "-" : codeRows);
  addEntry(e, "frame_step_p50_ms", "frame step p50 ms", percentile(s.stepMs, 0.50),
           format("%.2f", percentile(s.stepMs, 0.50)));
  addEntry(e, "frame_step_p95_ms", "frame step p95 ms", percentile(s.stepMs, 0.95),
           format("%.2f", percentile(s.stepMs, 0.95)));

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
    addEntry(e, "movie", "movie", saved.empty() ? Json() : Json(saved),
             saved.empty() ? "-" : saved);
    std::error_code ec;
    const auto bytes = saved.empty() ? 0 : fs::file_size(saved, ec);
    if (!saved.empty() && !ec)
      addEntry(e, "movie_bytes", "movie bytes", static_cast<double>(bytes),
               format("%.1f MB", bytes / 1e6));
    if (card && !saved.empty()) {
      const std::string sidecar = fs::path(saved).replace_extension(".frames.jsonl").string();
      if (card->writeFrames(sidecar, err))
        addEntry(e, "frame_analysis", "frame analysis", sidecar, sidecar);
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
    addEntry(e, "snapshot", "snapshot", written ? Json(options.snapshot) : Json(),
             written ? options.snapshot : "-");
    if (!written) status = 1;
  }
  if (card && !options.outDir.empty()) {
    const bool written = card->write(options.outDir, err);
    const std::string png = options.outDir + "/card.png";
    addEntry(e, "card", "card", written ? Json(png) : Json(), written ? png : "-");
    if (!written) status = 1;
  }
  if (!options.still.empty()) {
    addEntry(e, "still", "still", stillSaved ? Json(options.still) : Json(),
             stillSaved ? options.still : "-");
    if (!stillSaved) status = 1;
  }
  if (!options.preview.empty()) {
    addEntry(e, "preview", "preview", previewSaved ? Json(options.preview) : Json(),
             previewSaved ? options.preview : "-");
    if (!previewSaved) status = 1;
  }
  if (options.toggleAt)
    addEntry(e, "camera_after_toggle", "camera after the switch",
             engine->device() ? Json(engine->device()->uniqueID()) : Json(),
             engine->device() ? engine->device()->uniqueID() : "-");

  if (options.json) {
    Json summary = Json::object();
    for (Entry& entry : e) summary.set(entry.key, std::move(entry.value));
    summary.write(out);
    out << '\n';
  } else {
    Table table({"measure", "value"});
    table.alignLeft();
    for (const Entry& entry : e) table.addRow({entry.label, entry.text});
    table.print(out);
  }
  // Clearing blocks the engine queued for the main thread.
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  CaptureDevice::resetDevices();
  return status;
}

}  // namespace kwq::tool

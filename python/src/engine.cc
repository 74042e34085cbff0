#include "engine.h"

#include <glib.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <kwqimage/KWQImage.h>

#include "arrays.h"

namespace py = pybind11;
using namespace py::literals;

namespace kwq::python {
namespace {

using Clock = std::chrono::steady_clock;

/// One frame and what the engine knew when its step ended.
struct Frame {
  Image image;                    // the frame's pixels, copied (the camera reuses its buffers)
  std::optional<uint64_t> index;  // the synthetic camera's frame number
  double time = 0.0;              // presentation time stamp, seconds
  Rect faceRect;
  double yaw = 0.0;
  double roll = 0.0;
  std::optional<std::string> barcode;
  Rect cardRect;
  Point cardCenter;
  bool delegateCalled = false;  // card mode: the card has held its shape for six frames
  std::optional<SyntheticFrameTruth> truth;
};

// Stands between the video output and the engine on "VideoDataOutputQueue": runs the engine's
// frame step, is its delegate, and queues every frame with the step's results for Python.
// Never touches Python: the Python side only pops the queue.
class FrameTap final : public CaptureVideoDataOutputSampleBufferDelegate, public KWQFrameDelegate {
 public:
  FrameTap(std::weak_ptr<KWQVideoHelper> engine, std::shared_ptr<CaptureDevice> camera,
           size_t capacity)
      : engine_(std::move(engine)), camera_(std::move(camera)), capacity_(capacity) {}

  void captureOutput(VideoDataOutput& output, const SampleBuffer& sample,
                     CaptureConnection& connection) override {
    auto engine = engine_.lock();
    if (!engine) return;
    // The preview takes the frame's size, as a host's full-size view would, so that faces
    // (measured in preview points) come out in frame pixels. Layers change on the main queue.
    if (!previewSized_.exchange(true)) {
      const Rect frame{0, 0, static_cast<double>(sample.imageBuffer().width()),
                       static_cast<double>(sample.imageBuffer().height())};
      DispatchQueue::main().async([engine, frame] { engine->previewLayer()->setFrame(frame); });
    }
    called_ = false;
    engine->captureOutput(output, sample, connection);
    Frame f;
    f.image = Image::fromPixelBuffer(sample.imageBuffer());
    if (f.image.isNull()) return;
    f.time = sample.presentationTimeStamp().seconds();
    f.index = syntheticFrameIndex(sample);
    if (isSyntheticCamera(*camera_)) f.truth = syntheticFrameTruth(*camera_, sample);
    f.faceRect = called_ ? rect_ : engine->faceRect();
    f.yaw = called_ ? yaw_ : engine->yawAngle();
    f.roll = called_ ? roll_ : engine->rollAngle();
    f.barcode = called_ ? barcode_ : engine->parsedData();
    f.cardRect = engine->cardRect();
    f.cardCenter = engine->cardCenter();
    f.delegateCalled = called_;
    {
      std::lock_guard lock(mutex_);
      frames_.push_back(std::move(f));
      // A consumer slower than the camera sees the newest frames, as the engine does.
      while (frames_.size() > capacity_) {
        frames_.pop_front();
        ++dropped_;
      }
    }
    ready_.notify_one();
  }

  // Inside the engine's step, same queue.
  void getLastSampleBuffer(const SampleBuffer&, Rect faceRect, double yaw, double roll,
                           const std::optional<std::string>& barcode) override {
    called_ = true;
    rect_ = faceRect;
    yaw_ = yaw;
    roll_ = roll;
    barcode_ = barcode;
  }

  // Waits up to `wait` for a frame; the main context is pumped meanwhile, since the engine's
  // metadata (faces, codes) and layer work run there. Call without the GIL.
  std::optional<Frame> pop(std::chrono::milliseconds wait) {
    const auto deadline = Clock::now() + wait;
    while (true) {
      for (int i = 0; i < 64 && g_main_context_iteration(nullptr, FALSE); ++i) {
      }
      std::unique_lock lock(mutex_);
      if (!frames_.empty()) {
        Frame f = std::move(frames_.front());
        frames_.pop_front();
        return f;
      }
      if (Clock::now() >= deadline) return std::nullopt;
      ready_.wait_for(lock, std::chrono::milliseconds(5));
    }
  }

  uint64_t dropped() const {
    std::lock_guard lock(mutex_);
    return dropped_;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    frames_.clear();
  }

 private:
  const std::weak_ptr<KWQVideoHelper> engine_;
  const std::shared_ptr<CaptureDevice> camera_;
  const size_t capacity_;
  // Written and read on the frame queue only.
  bool called_ = false;
  Rect rect_;
  double yaw_ = 0.0, roll_ = 0.0;
  std::optional<std::string> barcode_;
  std::atomic<bool> previewSized_{false};

  mutable std::mutex mutex_;  // guards the fields below
  std::condition_variable ready_;
  std::deque<Frame> frames_;
  uint64_t dropped_ = 0;
};

std::shared_ptr<CaptureDevice> chooseCamera(const std::string& name, const std::string& scene) {
  if (name == "synthetic") {
    SyntheticCameraOptions options;
    std::string error;
    auto described = SyntheticScene::preset(scene);
    if (!described && scene.size() > 5 && scene.ends_with(".json"))
      described = syntheticSceneFromFile(scene, &error);
    if (!described)
      throw py::value_error(error.empty() ? "unknown scene '" + scene +
                                                "': use 'card', 'portrait', 'empty' or a .json file"
                                          : "scene " + error);
    options.scene = std::move(*described);
    return CaptureDevice::syntheticCamera(options);
  }
  if (auto camera = CaptureDevice::deviceWithUniqueID(name)) return camera;
  std::error_code ec;
  if (std::filesystem::is_regular_file(name, ec)) {
    if (auto camera = CaptureDevice::fileCamera(name)) return camera;
    throw py::value_error("'" + name + "' has no video that can be played");
  }
  std::string ids;
  for (const auto& camera : CaptureDevice::devices())
    ids += (ids.empty() ? "" : ", ") + camera->uniqueID();
  throw py::value_error("no camera or video file '" + name + "' (cameras: " + ids +
                        "; or 'synthetic')");
}

std::string_view presetNamed(const std::string& name) {
  if (name == "high") return AVCaptureSessionPresetHigh;
  if (name == "1920x1080") return AVCaptureSessionPreset1920x1080;
  if (name == "1280x720") return AVCaptureSessionPreset1280x720;
  if (name == "640x480") return AVCaptureSessionPreset640x480;
  throw py::value_error("unknown preset '" + name +
                        "': use 'high', '1920x1080', '1280x720' or '640x480'");
}

/// The Python Engine: one KWQVideoHelper on one camera.
class Engine {
 public:
  Engine(const std::string& cameraName, const std::string& mode, const std::string& scene,
         const std::string& preset, bool record, size_t queueSize,
         const std::optional<std::vector<std::string>>& codes) {
    if (mode != "card" && mode != "face")
      throw py::value_error("unknown mode '" + mode + "': use 'card' or 'face'");
    if (codes)
      for (const std::string& c : *codes)
        if (c != "pdf417" && c != "qr")
          throw py::value_error("unknown code type '" + c + "': use 'pdf417' or 'qr'");
    if (queueSize < 1) throw py::value_error("queue_size must be at least 1");
    const std::string_view presetName = presetNamed(preset);
    camera_ = chooseCamera(cameraName, scene);
    {
      py::gil_scoped_release release;
      // The engine takes the first camera at its position: make ours the only one meanwhile.
      static std::mutex devicesMutex;
      std::lock_guard lock(devicesMutex);
      CaptureDevice::setDevices({camera_});
      engine_ = KWQVideoHelper::create(presetName, camera_->position(),
                                       AVLayerVideoGravityResizeAspect, kPixelFormat420f);
      CaptureDevice::resetDevices();
    }
    if (!engine_ || engine_->device() != camera_)
      throw std::runtime_error("the capture engine could not use camera " + camera_->uniqueID());
    engine_->setShouldDetectCardRect(mode == "card");
    // The code types through the engine's own switch, while it is stopped (a running
    // engine ignores it); without `codes` the initialiser's choice (PDF417) stands.
    if (codes) {
      auto wanted = [&](const char* name) {
        return std::find(codes->begin(), codes->end(), name) != codes->end();
      };
      engine_->UpdateAVCaptureMetadataOutput(AVMetadataObjectTypePDF417Code, wanted("pdf417"));
      engine_->UpdateAVCaptureMetadataOutput(AVMetadataObjectTypeQRCode, wanted("qr"));
    }
    engine_->setRecordCameraData(record);
    tap_ = std::make_shared<FrameTap>(engine_, camera_, queueSize);
    engine_->setDelegate(tap_);
    const auto output = engine_->videoDataOutput();
    output->setSampleBufferDelegate(tap_, output->sampleBufferCallbackQueue());
  }

  ~Engine() {
    py::gil_scoped_release release;
    stopEngine();
  }

  void start() {
    py::gil_scoped_release release;
    if (running_) return;
    tap_->clear();
    engine_->startVideoCapture();
    running_ = true;
  }

  void stop() {
    py::gil_scoped_release release;
    stopEngine();
  }

  // The next frame; TimeoutError when none came within `timeout` seconds.
  Frame read(double timeout) {
    if (!running_) throw std::runtime_error("the engine is not running: call start() first");
    const auto wait = std::chrono::milliseconds(static_cast<int64_t>(timeout * 1000.0));
    std::optional<Frame> frame;
    {
      py::gil_scoped_release release;
      frame = tap_->pop(wait);
    }
    if (!frame) {
      PyErr_SetString(PyExc_TimeoutError, "the camera delivered no frame in time");
      throw py::error_already_set();
    }
    return std::move(*frame);
  }

  bool running() const { return running_; }
  uint64_t dropped() const { return tap_->dropped(); }
  std::string cameraID() const { return camera_->uniqueID(); }

 private:
  void stopEngine() {
    if (!running_) return;
    running_ = false;
    engine_->stopVideoCapture();
    engine_->videoDataOutput()->sampleBufferCallbackQueue()->sync([] {});
    // Blocks the engine queued for the main thread (clearing overlays) run now.
    for (int i = 0; i < 1000 && g_main_context_iteration(nullptr, FALSE); ++i) {
    }
  }

  std::shared_ptr<CaptureDevice> camera_;
  std::shared_ptr<KWQVideoHelper> engine_;
  std::shared_ptr<FrameTap> tap_;
  bool running_ = false;
};

std::array<double, 4> rectTuple(const Rect& r) {
  return {r.origin.x, r.origin.y, r.size.width, r.size.height};
}
std::array<double, 2> pointTuple(const Point& p) {
  return {p.x, p.y};
}

py::object truthDict(const SyntheticFrameTruth& t) {
  auto corners = [](const std::array<Point, 4>& c) {
    return std::array<std::array<double, 2>, 4>{pointTuple(c[0]), pointTuple(c[1]),
                                                pointTuple(c[2]), pointTuple(c[3])};
  };
  py::list props;
  for (const SyntheticPropTruth& p : t.props) {
    py::list codes;
    for (const SyntheticCodeTruth& c : p.codes)
      codes.append(py::dict("type"_a = syntheticCodeTypeName(c.type), "text"_a = c.text,
                            "corners"_a = corners(c.corners)));
    py::object face = py::none();
    if (p.face)
      face = py::dict("box"_a = rectTuple(p.face->box), "corners"_a = corners(p.face->corners),
                      "fully_visible"_a = p.face->fullyVisible,
                      "roll_degrees"_a = p.face->rollDegrees, "yaw_degrees"_a = p.face->yawDegrees);
    py::object glare = py::none();
    if (p.glareRadius > 0.0)
      glare = py::dict("centre"_a = pointTuple(p.glareCentre), "radius"_a = p.glareRadius,
                       "visible"_a = p.glareVisible);
    props.append(py::dict("kind"_a = syntheticPropKindName(p.kind), "name"_a = p.name,
                          "corners"_a = corners(p.corners), "fully_visible"_a = p.fullyVisible,
                          "tilt_degrees"_a = p.tiltDegrees, "roll_degrees"_a = p.rollDegrees,
                          "codes"_a = codes, "face"_a = face, "glare"_a = glare));
  }
  return py::dict("frame_index"_a = t.frameIndex, "exposure"_a = t.exposure, "props"_a = props);
}

}  // namespace

void defineEngine(py::module_& m) {
  py::class_<Frame>(m, "Frame", "One camera frame with the engine's results for it.")
      .def_property_readonly(
          "image", [](const Frame& f) { return arrayFromImage(f.image); },
          "The frame as an (H, W, 3) RGB array (shares the frame's copy; no further copy).")
      .def_readonly("index", &Frame::index, "The synthetic camera's frame number, else None.")
      .def_readonly("time", &Frame::time, "Presentation time stamp in seconds.")
      .def_property_readonly(
          "face_rect", [](const Frame& f) { return rectTuple(f.faceRect); },
          "Face mode: the tracked face in frame pixels (x, y, width, height from the top left),\n"
          "zero when none. Card mode: the\n"
          "stable-card marker the delegate received, zero on frames without a stable card.")
      .def_readonly("yaw", &Frame::yaw)
      .def_readonly("roll", &Frame::roll)
      .def_readonly("barcode", &Frame::barcode, "The latest barcode text (None before any).")
      .def_property_readonly("card_rect", [](const Frame& f) { return rectTuple(f.cardRect); })
      .def_property_readonly("card_center", [](const Frame& f) { return pointTuple(f.cardCenter); })
      .def_readonly("delegate_called", &Frame::delegateCalled,
                    "True when the engine called its delegate for this frame (card mode: the\n"
                    "card has held its shape over six frames).")
      .def_property_readonly(
          "truth",
          [](const Frame& f) { return f.truth ? truthDict(*f.truth) : py::object(py::none()); },
          "The synthetic camera's ground truth of this frame (a dict), else None.")
      .def("__repr__", [](const Frame& f) {
        return "<Frame " + (f.index ? std::to_string(*f.index) : std::string("?")) + " " +
               std::to_string(f.image.width()) + "x" + std::to_string(f.image.height()) + ">";
      });

  py::class_<Engine>(m, "Engine",
                     "The capture engine on one camera; iterate it for frames.\n\n"
                     "    with kwqimage.Engine() as engine:\n"
                     "        for frame in itertools.islice(engine, 100): ...\n\n"
                     "camera: 'synthetic' (default), a camera's unique id or a video file.\n"
                     "mode: 'card' (card detection) or 'face'. scene: what the synthetic\n"
                     "camera films: 'card', 'turning', 'portrait', 'empty' or a scene file\n"
                     "(default: 'portrait' in face mode). Frame.truth lists the props in view.\n"
                     "preset: 'high', '1920x1080', '1280x720' or '640x480'. record: record\n"
                     "the stream with the recorder. queue_size: frames kept for a slow reader\n"
                     "(older ones are dropped, as the engine drops late frames). codes: the\n"
                     "code types to read, of 'pdf417' and 'qr' (default: the engine's, PDF417).")
      .def(py::init([](const std::string& camera, const std::string& mode,
                       const std::optional<std::string>& scene, const std::string& preset,
                       bool record, size_t queueSize,
                       const std::optional<std::vector<std::string>>& codes) {
             return std::make_unique<Engine>(camera, mode,
                                             scene.value_or(mode == "face" ? "portrait" : "card"),
                                             preset, record, queueSize, codes);
           }),
           "camera"_a = "synthetic", "mode"_a = "card", "scene"_a = py::none(), "preset"_a = "high",
           "record"_a = false, "queue_size"_a = 4, "codes"_a = py::none())
      .def("start", &Engine::start, "Starts capture (frames begin to arrive).")
      .def("stop", &Engine::stop,
           "Stops capture; returns once the frame step under way has finished.")
      .def("read", &Engine::read, "timeout"_a = 10.0,
           "The next frame; TimeoutError when none arrives within `timeout` seconds.")
      .def_property_readonly("running", &Engine::running)
      .def_property_readonly("dropped", &Engine::dropped,
                             "Frames dropped because the reader fell behind.")
      .def_property_readonly("camera_id", &Engine::cameraID)
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__",
           [](Engine& e) {
             if (!e.running()) throw py::stop_iteration();
             return e.read(10.0);
           })
      .def("__enter__",
           [](py::object self) {
             self.cast<Engine&>().start();
             return self;
           })
      .def("__exit__", [](Engine& e, py::args) { e.stop(); });
}

}  // namespace kwq::python

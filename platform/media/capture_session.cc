#include <algorithm>
#include <atomic>
#include <exception>

#include "platform/foundation/log_format.h"
#include "platform/media/capture_internal.h"
#include "platform/media/capture_pipeline.h"
#include "platform/media/gst_init.h"
#include "platform/vision/metadata_recognizer.h"

namespace kwq {
namespace {

constexpr size_t kMaxWaitingFrames = 8;

template <class T>
std::shared_ptr<OutputAttachment> attachmentOf(const T& impl) {
  std::lock_guard lock(impl.mutex);
  return impl.attachment;
}

// The output's attachment slot, whatever its kind.
template <class F>
void withAttachment(CaptureOutput& output, F f) {
  if (auto* v = dynamic_cast<VideoDataOutput*>(&output)) {
    std::lock_guard lock(v->impl()->mutex);
    f(v->impl()->attachment);
  } else if (auto* s = dynamic_cast<StillImageOutput*>(&output)) {
    std::lock_guard lock(s->impl()->mutex);
    f(s->impl()->attachment);
  } else if (auto* m = dynamic_cast<MetadataOutput*>(&output)) {
    std::lock_guard lock(m->impl()->mutex);
    f(m->impl()->attachment);
  }
}

void runDelegateCall(const char* what, const std::function<void()>& call) {
  try {
    call();
  } catch (const std::exception& e) {
    logf("Capture: %s delegate threw: %s", what, e.what());
  } catch (...) {
    logf("Capture: %s delegate threw", what);
  }
}

}  // namespace

namespace platform {

std::optional<Size> fixedPresetSize(std::string_view preset) {
  if (preset == AVCaptureSessionPreset1920x1080) return Size{1920, 1080};
  if (preset == AVCaptureSessionPreset1280x720) return Size{1280, 720};
  if (preset == AVCaptureSessionPreset640x480) return Size{640, 480};
  return std::nullopt;
}

bool isKnownPreset(std::string_view preset) {
  return preset == AVCaptureSessionPresetHigh || fixedPresetSize(preset).has_value();
}

// FrameRouter

void FrameRouter::setConsumers(std::vector<std::shared_ptr<FrameConsumer>> consumers) {
  std::lock_guard lock(mutex_);
  consumers_ = std::move(consumers);
}

void FrameRouter::route(const SampleBuffer& sample) {
  std::vector<std::shared_ptr<FrameConsumer>> consumers;
  {
    std::lock_guard lock(mutex_);
    if (!running_.load()) return;
    latest_ = sample;
    ++frameCount_;
    consumers = consumers_;
  }
  frameArrived_.notify_all();
  for (auto& consumer : consumers) consumer->consumeFrame(sample);
}

void FrameRouter::setRunning(bool running) {
  std::vector<std::shared_ptr<FrameConsumer>> consumers;
  {
    std::lock_guard lock(mutex_);
    running_.store(running);
    if (!running) {
      latest_ = {};
      consumers = consumers_;
    }
  }
  frameArrived_.notify_all();
  for (auto& consumer : consumers) consumer->sessionStopped();
}

SampleBuffer FrameRouter::latestFrame() const {
  std::lock_guard lock(mutex_);
  return latest_;
}

SampleBuffer FrameRouter::nextFrame(std::chrono::milliseconds timeout, int64_t notBeforeNs) {
  std::unique_lock lock(mutex_);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  uint64_t seen = frameCount_;
  for (;;) {
    const bool arrived = frameArrived_.wait_until(
        lock, deadline, [&] { return !running_.load() || frameCount_ != seen; });
    if (!arrived || !running_.load()) return {};
    seen = frameCount_;
    const MediaTime t = latest_.presentationTimeStamp();
    if (notBeforeNs < 0 || (t.isValid() && t.seconds() * 1e9 + 0.5 >= notBeforeNs)) return latest_;
  }
}

Size FrameRouter::frameSize() const {
  std::lock_guard lock(mutex_);
  if (latest_.isNull()) return {};
  return {static_cast<double>(latest_.imageBuffer().width()),
          static_cast<double>(latest_.imageBuffer().height())};
}

void setMetadataRecognizer(MetadataOutput& output, MetadataOutput::Impl::Recognizer recognizer) {
  std::lock_guard lock(output.impl()->mutex);
  output.impl()->recognizer = std::move(recognizer);
}

Size sessionVideoSize(const CaptureSession& session) {
  const Size delivered = session.impl()->router->frameSize();
  if (delivered.width > 0) return delivered;
  return session.impl()->videoSize();
}

std::shared_ptr<CaptureDevice> sessionCamera(const CaptureSession& session) {
  std::lock_guard lock(session.impl()->mutex);
  return session.impl()->cameraLocked();
}

SampleBuffer sessionLatestFrame(const CaptureSession& session) {
  return session.impl()->router->latestFrame();
}

}  // namespace platform

// Connections and inputs

CaptureConnection::CaptureConnection(std::shared_ptr<Impl> d) : d_(std::move(d)) {}
CaptureConnection::~CaptureConnection() = default;
const std::string& CaptureConnection::mediaType() const {
  return d_->mediaType;
}
bool CaptureConnection::isEnabled() const {
  return d_->enabled.load();
}
void CaptureConnection::setEnabled(bool enabled) {
  d_->enabled.store(enabled);
}
double CaptureConnection::videoScaleAndCropFactor() const {
  return 1.0;
}
void CaptureConnection::setVideoScaleAndCropFactor(double) {}
double CaptureConnection::videoMaxScaleAndCropFactor() const {
  return 1.0;
}

std::shared_ptr<CaptureDeviceInput> CaptureDeviceInput::deviceInputWithDevice(
    std::shared_ptr<CaptureDevice> device, std::string* error) {
  if (!device) {
    if (error) *error = "no device";
    return nullptr;
  }
  return std::shared_ptr<CaptureDeviceInput>(new CaptureDeviceInput(std::move(device)));
}

// Outputs

CaptureOutput::CaptureOutput(std::string_view mediaType)
    : connection_(std::make_shared<CaptureConnection>(
          std::make_shared<CaptureConnection::Impl>(mediaType))) {}
CaptureOutput::~CaptureOutput() = default;

std::shared_ptr<CaptureConnection> CaptureOutput::connectionWithMediaType(
    std::string_view mediaType) const {
  return connection_->mediaType() == mediaType ? connection_ : nullptr;
}

std::vector<std::shared_ptr<CaptureConnection>> CaptureOutput::connections() const {
  return {connection_};
}

CaptureVideoDataOutputSampleBufferDelegate::~CaptureVideoDataOutputSampleBufferDelegate() = default;
CaptureMetadataOutputObjectsDelegate::~CaptureMetadataOutputObjectsDelegate() = default;
MetadataObject::~MetadataObject() = default;

VideoDataOutput::VideoDataOutput() : CaptureOutput(AVMediaTypeVideo), d_(std::make_shared<Impl>()) {
  d_->connection = connection_;
}
VideoDataOutput::~VideoDataOutput() = default;

std::shared_ptr<VideoDataOutput> VideoDataOutput::create() {
  std::shared_ptr<VideoDataOutput> output(new VideoDataOutput);
  output->d_->self = output;
  return output;
}

void VideoDataOutput::setVideoSettings(uint32_t pixelFormatType) {
  if (pixelFormatType != kPixelFormat420f && pixelFormatType != kPixelFormat420v &&
      pixelFormatType != kPixelFormatBGRA)
    return;
  std::shared_ptr<OutputAttachment> attachment;
  {
    std::lock_guard lock(d_->mutex);
    if (d_->pixelFormat == pixelFormatType) return;
    d_->pixelFormat = pixelFormatType;
    attachment = d_->attachment;
  }
  // A running session changes its frames' format.
  if (attachment)
    if (auto session = attachment->session.lock()) session->configurationChanged();
}

uint32_t VideoDataOutput::pixelFormatType() const {
  std::lock_guard lock(d_->mutex);
  return d_->pixelFormat;
}

std::vector<uint32_t> VideoDataOutput::availableVideoCVPixelFormatTypes() const {
  return {kPixelFormat420v, kPixelFormat420f, kPixelFormatBGRA};
}

bool VideoDataOutput::alwaysDiscardsLateVideoFrames() const {
  std::lock_guard lock(d_->mutex);
  return d_->discardLate;
}

void VideoDataOutput::setAlwaysDiscardsLateVideoFrames(bool discard) {
  std::lock_guard lock(d_->mutex);
  d_->discardLate = discard;
}

void VideoDataOutput::setSampleBufferDelegate(
    std::weak_ptr<CaptureVideoDataOutputSampleBufferDelegate> delegate,
    std::shared_ptr<DispatchQueue> queue) {
  std::lock_guard lock(d_->mutex);
  d_->delegate = std::move(delegate);
  d_->queue = std::move(queue);
}

std::shared_ptr<DispatchQueue> VideoDataOutput::sampleBufferCallbackQueue() const {
  std::lock_guard lock(d_->mutex);
  return d_->queue;
}

uint64_t VideoDataOutput::deliveredFrameCount() const {
  return d_->delivered.load();
}
uint64_t VideoDataOutput::droppedFrameCount() const {
  return d_->dropped.load();
}

void VideoDataOutput::Impl::consumeFrame(const SampleBuffer& sample) {
  if (!connection->isEnabled()) return;
  std::shared_ptr<DispatchQueue> target;
  {
    std::lock_guard lock(mutex);
    if (!queue || delegate.expired()) return;
    if (discardLate) {
      dropped += waiting.size();
      waiting.clear();
    } else if (waiting.size() >= kMaxWaitingFrames) {
      waiting.pop_front();
      ++dropped;
    }
    waiting.push_back(sample);
    if (scheduled) return;
    scheduled = true;
    target = queue;
  }
  target->async([self = shared_from_this()] { self->deliverNext(); });
}

void VideoDataOutput::Impl::sessionStopped() {
  std::lock_guard lock(mutex);
  dropped += waiting.size();
  waiting.clear();
}

// One frame per block, so other work on the delegate's queue interleaves with frames.
void VideoDataOutput::Impl::deliverNext() {
  {
    SampleBuffer sample;
    std::shared_ptr<CaptureVideoDataOutputSampleBufferDelegate> target;
    {
      std::lock_guard lock(mutex);
      if (!waiting.empty()) {
        sample = std::move(waiting.front());
        waiting.pop_front();
        target = delegate.lock();
      }
    }
    auto output = self.lock();
    if (target && output && !sample.isNull()) {
      runDelegateCall("video data output",
                      [&] { target->captureOutput(*output, sample, *connection); });
      ++delivered;
    }
  }  // the frame and the delegate are released before the next block is queued
  std::shared_ptr<DispatchQueue> next;
  {
    std::lock_guard lock(mutex);
    if (waiting.empty() || !queue) {
      scheduled = false;
      return;
    }
    next = queue;
  }
  next->async([self = shared_from_this()] { self->deliverNext(); });
}

StillImageOutput::StillImageOutput()
    : CaptureOutput(AVMediaTypeVideo), d_(std::make_shared<Impl>()) {
  d_->connection = connection_;
}
StillImageOutput::~StillImageOutput() = default;

std::shared_ptr<StillImageOutput> StillImageOutput::create() {
  return std::shared_ptr<StillImageOutput>(new StillImageOutput);
}

void StillImageOutput::setOutputSettings(uint32_t pixelFormatType) {
  if (pixelFormatType != kPixelFormat420f && pixelFormatType != kPixelFormat420v &&
      pixelFormatType != kPixelFormatBGRA)
    return;
  std::lock_guard lock(d_->mutex);
  d_->pixelFormat = pixelFormatType;
}

uint32_t StillImageOutput::outputPixelFormatType() const {
  std::lock_guard lock(d_->mutex);
  return d_->pixelFormat;
}

void StillImageOutput::captureStillImageAsynchronouslyFromConnection(
    const std::shared_ptr<CaptureConnection>& connection, CompletionHandler handler) {
  if (!handler) return;
  DispatchQueue::global().async([d = d_, connection, handler = std::move(handler)] {
    auto fail = [&](const char* reason) { handler(SampleBuffer(), std::string(reason)); };
    if (!connection || connection != d->connection)
      return fail("The connection does not belong to this still image output");
    if (!connection->isEnabled()) return fail("The connection is disabled");
    auto attachment = attachmentOf(*d);
    auto router = attachment ? attachment->router.lock() : nullptr;
    auto session = attachment ? attachment->session.lock() : nullptr;
    if (!router || !session || !router->isRunning()) return fail("The session is not running");
    int64_t notBefore = -1;
    std::shared_ptr<CaptureDevice> camera;
    {
      std::lock_guard lock(session->mutex);
      camera = session->cameraLocked();
    }
    if (camera)
      notBefore = camera->impl()->backend->prepareStill(camera->impl()->currentControls());
    const SampleBuffer frame = router->nextFrame(std::chrono::seconds(3), notBefore);
    if (frame.isNull()) return fail("No frame arrived from the camera");
    // A webcam that films larger pictures than the stream: one frame at its largest size, with
    // the stream frame's time stamps; the stream frame when that fails.
    SampleBuffer large;
    if (auto size = camera ? camera->impl()->backend->stillSize() : std::nullopt;
        size &&
        size->width * size->height >
            frame.imageBuffer().width() * static_cast<double>(frame.imageBuffer().height())) {
      const SampleBuffer taken = session->filmStill(camera, *size, std::chrono::seconds(15));
      if (!taken.isNull())
        large = SampleBuffer(taken.imageBuffer(), frame.presentationTimeStamp(), frame.duration());
    }
    session.reset();
    uint32_t format;
    {
      std::lock_guard lock(d->mutex);
      format = d->pixelFormat;
    }
    // A camera that takes larger stills draws this frame again at its full resolution.
    SampleBuffer source = large.isNull() ? frame : large;
    if (camera && large.isNull()) {
      SampleBuffer full = camera->impl()->backend->fullResolutionStill(frame);
      if (!full.isNull()) source = std::move(full);
    }
    const SampleBuffer still = platform::convertFrame(source, format);
    if (still.isNull()) return fail("The frame could not be converted");
    handler(still, std::nullopt);
  });
}

MetadataOutput::MetadataOutput()
    : CaptureOutput(AVMediaTypeMetadata), d_(std::make_shared<Impl>()) {
  d_->connection = connection_;
}
MetadataOutput::~MetadataOutput() = default;

std::shared_ptr<MetadataOutput> MetadataOutput::create() {
  std::shared_ptr<MetadataOutput> output(new MetadataOutput);
  output->d_->self = output;
  output->d_->recognizer = platform::makeMetadataRecognizer();
  return output;
}

std::vector<std::string> MetadataOutput::availableMetadataObjectTypes() const {
  if (!attachmentOf(*d_)) return {};
  return {std::string(AVMetadataObjectTypeFace), std::string(AVMetadataObjectTypePDF417Code),
          std::string(AVMetadataObjectTypeQRCode), std::string(KWQMetadataObjectTypeMRZ)};
}

std::vector<std::string> MetadataOutput::metadataObjectTypes() const {
  std::lock_guard lock(d_->mutex);
  return d_->types;
}

void MetadataOutput::setMetadataObjectTypes(const std::vector<std::string>& types) {
  const auto available = availableMetadataObjectTypes();
  std::vector<std::string> kept;
  for (const auto& type : types)
    if (std::find(available.begin(), available.end(), type) != available.end() &&
        std::find(kept.begin(), kept.end(), type) == kept.end())
      kept.push_back(type);
  std::lock_guard lock(d_->mutex);
  d_->types = std::move(kept);
}

void MetadataOutput::setMetadataObjectsDelegate(
    std::weak_ptr<CaptureMetadataOutputObjectsDelegate> delegate,
    std::shared_ptr<DispatchQueue> queue) {
  std::lock_guard lock(d_->mutex);
  d_->delegate = std::move(delegate);
  d_->queue = std::move(queue);
}

void MetadataOutput::Impl::consumeFrame(const SampleBuffer& sample) {
  if (!connection->isEnabled()) return;
  std::shared_ptr<DispatchQueue> target;
  {
    std::lock_guard lock(mutex);
    if (!recognizer || (types.empty() && !lastHadObjects) || !queue || delegate.expired()) return;
    if (!waiting.isNull()) ++stats.framesSkipped;
    waiting = sample;  // the newest frame; an older one still waiting is dropped
    waitingSince = std::chrono::steady_clock::now();
    if (scheduled) return;
    scheduled = true;
    if (!recognitionQueue) recognitionQueue = DispatchQueue::createSerial("MetadataOutputQueue");
    target = recognitionQueue;
  }
  target->async([self = shared_from_this()] { self->recognizeNext(); });
}

void MetadataOutput::Impl::sessionStopped() {
  std::lock_guard lock(mutex);
  waiting = {};
}

MetadataOutputStatistics MetadataOutput::statistics() const {
  std::vector<double> sorted;
  MetadataOutputStatistics out;
  {
    std::lock_guard lock(d_->mutex);
    out = d_->stats;
    sorted = d_->latencies;
  }
  if (!sorted.empty()) {
    std::sort(sorted.begin(), sorted.end());
    auto at = [&](double q) { return sorted[static_cast<size_t>(q * (sorted.size() - 1) + 0.5)]; };
    out.latencyP50Milliseconds = at(0.50);
    out.latencyP95Milliseconds = at(0.95);
  }
  return out;
}

void MetadataOutput::Impl::noteCallback(const MetadataObjects& found,
                                        std::chrono::steady_clock::time_point arrived) {
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - arrived).count();
  const bool faces = std::any_of(found.begin(), found.end(),
                                 [](const auto& o) { return o->type == AVMetadataObjectTypeFace; });
  std::lock_guard lock(mutex);
  ++stats.callbacks;
  if (faces) ++stats.callbacksWithFaces;
  if (std::any_of(found.begin(), found.end(),
                  [](const auto& o) { return o->type != AVMetadataObjectTypeFace; }))
    ++stats.callbacksWithCodes;
  if (latencies.size() < kLatencyWindow)
    latencies.push_back(ms);
  else
    latencies[nextLatency] = ms;
  nextLatency = (nextLatency + 1) % kLatencyWindow;
}

void MetadataOutput::Impl::recognizeNext() {
  SampleBuffer frame;
  Recognizer recognize;
  std::vector<std::string> wanted;
  std::chrono::steady_clock::time_point arrived;
  {
    std::lock_guard lock(mutex);
    frame = std::move(waiting);
    waiting = {};
    arrived = waitingSince;
    recognize = recognizer;
    wanted = types;
    if (!frame.isNull()) ++stats.framesExamined;
  }
  if (!frame.isNull() && recognize) {
    MetadataObjects found;
    try {
      if (!wanted.empty()) found = recognize(frame, wanted);
    } catch (...) {
      found.clear();
    }
    std::erase_if(found, [&](const auto& object) {
      return !object || std::find(wanted.begin(), wanted.end(), object->type) == wanted.end();
    });
    std::shared_ptr<DispatchQueue> target;
    std::weak_ptr<CaptureMetadataOutputObjectsDelegate> listener;
    {
      std::lock_guard lock(mutex);
      // Every frame with objects is reported, and the first frame without them.
      if (!found.empty() || lastHadObjects) {
        target = queue;
        listener = delegate;
      }
      lastHadObjects = !found.empty();
    }
    if (target) {
      target->async([self = shared_from_this(), listener, found = std::move(found), arrived] {
        auto d = listener.lock();
        auto output = self->self.lock();
        if (!d || !output) return;
        self->noteCallback(found, arrived);
        runDelegateCall("metadata output",
                        [&] { d->captureOutput(*output, found, *self->connection); });
      });
    }
  }
  std::shared_ptr<DispatchQueue> next;
  {
    std::lock_guard lock(mutex);
    if (waiting.isNull()) {
      scheduled = false;
      return;
    }
    next = recognitionQueue;
  }
  next->async([self = shared_from_this()] { self->recognizeNext(); });
}

// Session

CaptureSession::CaptureSession() : d_(std::make_shared<Impl>()) {}

CaptureSession::~CaptureSession() {
  stopRunning();
  // Outputs may outlive the session: they no longer belong to one.
  std::vector<std::shared_ptr<CaptureOutput>> outputs;
  {
    std::lock_guard lock(d_->mutex);
    outputs.swap(d_->outputs);
  }
  for (auto& output : outputs) withAttachment(*output, [](auto& a) { a.reset(); });
}

CaptureSession::Impl::~Impl() {
  if (pipeline) pipeline->stop();
}

std::shared_ptr<CaptureSession> CaptureSession::create() {
  return std::shared_ptr<CaptureSession>(new CaptureSession);
}

std::shared_ptr<CaptureDevice> CaptureSession::Impl::cameraLocked() const {
  for (auto& input : inputs)
    if (input && input->device() && input->device()->hasMediaType(AVMediaTypeVideo))
      return input->device();
  return nullptr;
}

std::vector<std::shared_ptr<platform::FrameConsumer>> CaptureSession::Impl::consumersLocked()
    const {
  std::vector<std::shared_ptr<platform::FrameConsumer>> consumers;
  for (auto& output : outputs) {
    if (auto* v = dynamic_cast<VideoDataOutput*>(output.get())) consumers.push_back(v->impl());
    if (auto* m = dynamic_cast<MetadataOutput*>(output.get())) consumers.push_back(m->impl());
  }
  return consumers;
}

Size CaptureSession::Impl::videoSize() const {
  std::lock_guard lock(mutex);
  auto camera = cameraLocked();
  if (!camera) return {};
  auto size = camera->impl()->backend->sizeForPreset(preset);
  if (!size) size = camera->impl()->backend->sizeForPreset(AVCaptureSessionPresetHigh);
  return size.value_or(Size{});
}

void CaptureSession::Impl::startPipeline() {
  std::shared_ptr<CaptureDevice> camera;
  uint32_t format = kPixelFormat420f;
  uint64_t thisRun;
  {
    std::lock_guard lock(mutex);
    thisRun = ++run;
    runtimeError.reset();
    camera = cameraLocked();
    for (auto& output : outputs)
      if (auto* v = dynamic_cast<VideoDataOutput*>(output.get())) format = v->pixelFormatType();
    router->setConsumers(consumersLocked());
    running = true;
  }
  router->setRunning(true);
  if (!camera) return;  // runs, films nothing
  const Size size = videoSize();
  std::string error;
  std::unique_ptr<platform::CameraSource> source;
  if (platform::ensureGStreamer(&error))
    source = camera->impl()->backend->makeSource(static_cast<size_t>(size.width),
                                                 static_cast<size_t>(size.height), &error);
  std::unique_ptr<platform::CapturePipeline> p;
  if (source) {
    std::weak_ptr<platform::FrameRouter> weakRouter = router;
    p = platform::CapturePipeline::create(
        std::move(source), camera->localizedName(), static_cast<size_t>(size.width),
        static_cast<size_t>(size.height), format,
        [weakRouter](const SampleBuffer& sample) {
          if (auto r = weakRouter.lock()) r->route(sample);
        },
        &error);
  }
  if (p) {
    // Errors while starting are start()'s to report; later ones are the running camera's.
    auto started = std::make_shared<std::atomic<bool>>(false);
    std::weak_ptr<Impl> weakSelf = weak_from_this();
    p->setErrorCallback([weakSelf, thisRun, camera, started](const std::string& message) {
      if (!started->load()) return;
      if (auto self = weakSelf.lock()) self->reportRuntimeError(thisRun, camera, message, false);
    });
    if (p->start(&error))
      started->store(true);
    else
      p.reset();
  }
  if (!p) {
    reportRuntimeError(thisRun, camera, error, true);
    return;
  }
  std::lock_guard lock(mutex);
  pipeline = std::move(p);
}

SampleBuffer CaptureSession::Impl::filmStill(const std::shared_ptr<CaptureDevice>& camera,
                                             Size size, std::chrono::milliseconds timeout) {
  std::lock_guard hold(runMutex);
  std::unique_ptr<platform::CapturePipeline> stream;
  {
    std::lock_guard lock(mutex);
    if (!running || !pipeline || cameraLocked() != camera) return {};
    stream = std::move(pipeline);
  }
  stream->stop();  // the device films one size at a time
  stream.reset();

  struct Slot {
    std::mutex mutex;
    std::condition_variable arrived;
    SampleBuffer frame;
  };
  auto slot = std::make_shared<Slot>();
  std::string error;
  const auto w = static_cast<size_t>(size.width), h = static_cast<size_t>(size.height);
  auto source = camera->impl()->backend->makeSource(w, h, &error);
  auto once = source ? platform::CapturePipeline::create(
                           std::move(source), camera->localizedName(), w, h, kPixelFormatBGRA,
                           [slot](const SampleBuffer& s) {
                             std::lock_guard lock(slot->mutex);
                             if (!slot->frame.isNull()) return;
                             slot->frame = s;
                             slot->arrived.notify_all();
                           },
                           &error)
                     : nullptr;
  SampleBuffer still;
  if (once && once->start(&error)) {
    std::unique_lock lock(slot->mutex);
    slot->arrived.wait_for(lock, timeout, [&] { return !slot->frame.isNull(); });
    still = slot->frame;
  }
  if (once) once->stop();
  once.reset();
  if (still.isNull())
    logf("Capture: %s: no still at %.0fx%.0f: %s", camera->localizedName().c_str(), size.width,
         size.height, error.empty() ? "no frame came" : error.c_str());
  startPipeline();  // the stream again, as it was
  return still;
}

void CaptureSession::Impl::reportRuntimeError(uint64_t thisRun,
                                              const std::shared_ptr<CaptureDevice>& camera,
                                              const std::string& message, bool atStart) {
  CaptureRuntimeError e;
  e.deviceUniqueID = camera->uniqueID();
  e.deviceName = camera->localizedName();
  e.disconnected = !camera->isConnected();
  e.atStart = atStart;
  e.message = message;
  std::function<void(const CaptureRuntimeError&)> handler;
  {
    std::lock_guard lock(mutex);
    if (thisRun != run || runtimeError) return;
    runtimeError = e;
    handler = runtimeErrorHandler;
  }
  if (atStart)
    logf("Capture: %s: the camera could not start: %s", e.deviceName.c_str(), message.c_str());
  else
    logf("Capture: the camera %s (%s) %s: %s", e.deviceName.c_str(), e.deviceUniqueID.c_str(),
         e.disconnected ? "was disconnected" : "failed", message.c_str());
  if (handler) DispatchQueue::main().async([handler, e] { handler(e); });
}

void CaptureSession::Impl::stopPipeline() {
  router->setRunning(false);
  std::unique_ptr<platform::CapturePipeline> p;
  {
    std::lock_guard lock(mutex);
    p = std::move(pipeline);
    running = false;
  }
  if (p) p->stop();
}

void CaptureSession::Impl::configurationChanged() {
  std::lock_guard run(runMutex);
  {
    std::lock_guard lock(mutex);
    if (configurationDepth > 0) {
      changedInTransaction = true;
      return;
    }
    if (!running) return;
  }
  stopPipeline();
  startPipeline();
}

std::string CaptureSession::sessionPreset() const {
  std::lock_guard lock(d_->mutex);
  return d_->preset;
}

bool CaptureSession::canSetSessionPreset(std::string_view preset) const {
  if (!platform::isKnownPreset(preset)) return false;
  std::lock_guard lock(d_->mutex);
  auto camera = d_->cameraLocked();
  return !camera || camera->impl()->backend->sizeForPreset(preset).has_value();
}

void CaptureSession::setSessionPreset(std::string_view preset) {
  if (!canSetSessionPreset(preset)) return;
  {
    std::lock_guard lock(d_->mutex);
    if (d_->preset == preset) return;
    d_->preset = preset;
  }
  d_->configurationChanged();
}

std::vector<std::shared_ptr<CaptureDeviceInput>> CaptureSession::inputs() const {
  std::lock_guard lock(d_->mutex);
  return d_->inputs;
}

bool CaptureSession::canAddInput(const std::shared_ptr<CaptureDeviceInput>& input) const {
  if (!input || !input->device()) return false;
  std::lock_guard lock(d_->mutex);
  if (std::find(d_->inputs.begin(), d_->inputs.end(), input) != d_->inputs.end()) return false;
  if (d_->cameraLocked()) return false;
  return input->device()->impl()->backend->sizeForPreset(d_->preset).has_value();
}

void CaptureSession::addInput(const std::shared_ptr<CaptureDeviceInput>& input) {
  if (!canAddInput(input)) return;
  {
    std::lock_guard lock(d_->mutex);
    d_->inputs.push_back(input);
  }
  d_->configurationChanged();
}

void CaptureSession::removeInput(const std::shared_ptr<CaptureDeviceInput>& input) {
  {
    std::lock_guard lock(d_->mutex);
    auto it = std::find(d_->inputs.begin(), d_->inputs.end(), input);
    if (it == d_->inputs.end()) return;
    d_->inputs.erase(it);
  }
  d_->configurationChanged();
}

std::vector<std::shared_ptr<CaptureOutput>> CaptureSession::outputs() const {
  std::lock_guard lock(d_->mutex);
  return d_->outputs;
}

bool CaptureSession::canAddOutput(const std::shared_ptr<CaptureOutput>& output) const {
  if (!output) return false;
  bool attached = false;
  withAttachment(*output, [&](auto& a) { attached = a != nullptr; });
  if (attached) return false;
  std::lock_guard lock(d_->mutex);
  const CaptureOutput& added = *output;
  for (auto& existing : d_->outputs) {
    const CaptureOutput& present = *existing;
    if (typeid(present) == typeid(added)) return false;
  }
  return true;
}

void CaptureSession::addOutput(const std::shared_ptr<CaptureOutput>& output) {
  if (!canAddOutput(output)) return;
  auto attachment = std::make_shared<OutputAttachment>();
  attachment->session = d_;
  attachment->router = d_->router;
  withAttachment(*output, [&](auto& a) { a = attachment; });
  bool rebuild = false;
  {
    std::lock_guard lock(d_->mutex);
    d_->outputs.push_back(output);
    d_->router->setConsumers(d_->consumersLocked());
    // The video output decides the frames' format.
    rebuild = dynamic_cast<VideoDataOutput*>(output.get()) != nullptr;
  }
  if (rebuild) d_->configurationChanged();
}

void CaptureSession::removeOutput(const std::shared_ptr<CaptureOutput>& output) {
  {
    std::lock_guard lock(d_->mutex);
    auto it = std::find(d_->outputs.begin(), d_->outputs.end(), output);
    if (it == d_->outputs.end()) return;
    d_->outputs.erase(it);
    d_->router->setConsumers(d_->consumersLocked());
  }
  withAttachment(*output, [](auto& a) { a.reset(); });
}

void CaptureSession::beginConfiguration() {
  std::lock_guard lock(d_->mutex);
  ++d_->configurationDepth;
}

void CaptureSession::commitConfiguration() {
  bool apply = false;
  {
    std::lock_guard lock(d_->mutex);
    if (d_->configurationDepth == 0) return;
    if (--d_->configurationDepth == 0 && d_->changedInTransaction) {
      d_->changedInTransaction = false;
      apply = true;
    }
  }
  if (apply) d_->configurationChanged();
}

void CaptureSession::startRunning() {
  std::lock_guard run(d_->runMutex);
  {
    std::lock_guard lock(d_->mutex);
    if (d_->running) return;
  }
  d_->startPipeline();
}

void CaptureSession::stopRunning() {
  std::lock_guard run(d_->runMutex);
  {
    std::lock_guard lock(d_->mutex);
    if (!d_->running) return;
  }
  d_->stopPipeline();
}

void CaptureSession::setRuntimeErrorHandler(
    std::function<void(const CaptureRuntimeError&)> handler) {
  std::lock_guard lock(d_->mutex);
  d_->runtimeErrorHandler = std::move(handler);
}

std::optional<CaptureRuntimeError> CaptureSession::runtimeError() const {
  std::lock_guard lock(d_->mutex);
  return d_->runtimeError;
}

bool CaptureSession::isRunning() const {
  std::lock_guard lock(d_->mutex);
  return d_->running;
}

}  // namespace kwq

#include "synthetic/camera.h"

#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "kwqimage/CaptureSession.h"
#include "platform/media/capture_internal.h"

namespace kwq::synthetic {
namespace {

using platform::CameraBackend;
using platform::CameraCapabilities;
using platform::CameraControls;
using platform::CameraSource;

constexpr int kFocusPassFrames = 6;
constexpr double kFocusingBlur = 2.0;
constexpr double kOutOfFocusBlur = 3.0;
constexpr double kFlashGain = 1.8;
constexpr size_t kEffectsKept = 256;
constexpr size_t kStillWidth = 1920;  // stills are this wide, at the stream's aspect ratio

class SyntheticBackend final : public CameraBackend,
                               public std::enable_shared_from_this<SyntheticBackend> {
 public:
  explicit SyntheticBackend(SyntheticCameraOptions options) : options_(std::move(options)) {
    effects_.fill({UINT64_MAX, {}});
  }

  CameraCapabilities capabilities() const override {
    CameraCapabilities c;
    if (options_.hasFocus)
      c.focusModes = {AVCaptureFocusModeLocked, AVCaptureFocusModeAutoFocus,
                      AVCaptureFocusModeContinuousAutoFocus};
    c.autoFocusRangeRestriction = options_.hasFocus && options_.hasAutoFocusRangeRestriction;
    if (options_.hasWhiteBalance)
      c.whiteBalanceModes = {AVCaptureWhiteBalanceModeLocked,
                             AVCaptureWhiteBalanceModeAutoWhiteBalance,
                             AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance};
    if (options_.hasExposure)
      c.exposureModes = {AVCaptureExposureModeLocked, AVCaptureExposureModeAutoExpose,
                         AVCaptureExposureModeContinuousAutoExposure};
    if (options_.hasFlash)
      c.flashModes = {AVCaptureFlashModeOff, AVCaptureFlashModeOn, AVCaptureFlashModeAuto};
    if (options_.hasTorch) {
      c.torchModes = {AVCaptureTorchModeOff, AVCaptureTorchModeOn, AVCaptureTorchModeAuto};
      c.maxAvailableTorchLevel = std::clamp(options_.maxAvailableTorchLevel, 0.0f, 1.0f);
    }
    return c;
  }

  CameraControls initialControls() const override {
    CameraControls c;
    if (options_.hasFocus) c.focusMode = AVCaptureFocusModeContinuousAutoFocus;
    if (options_.hasWhiteBalance)
      c.whiteBalanceMode = AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance;
    if (options_.hasExposure) c.exposureMode = AVCaptureExposureModeContinuousAutoExposure;
    return c;
  }

  std::optional<Size> sizeForPreset(std::string_view preset) const override {
    if (preset == AVCaptureSessionPresetHigh) return Size{1280, 720};
    return platform::fixedPresetSize(preset);
  }

  std::unique_ptr<CameraSource> makeSource(size_t width, size_t height,
                                           std::string* error) override;

  void applyControls(const CameraControls& c, bool focusPassRequested) override {
    std::lock_guard lock(mutex_);
    const bool refocus = focusPassRequested ||
                         (c.focusMode == AVCaptureFocusModeContinuousAutoFocus &&
                          (controls_.focusMode != c.focusMode ||
                           controls_.autoFocusRangeRestriction != c.autoFocusRangeRestriction));
    controls_ = c;
    if (refocus && options_.hasFocus) focusingFrames_ = kFocusPassFrames;
  }

  int64_t prepareStill(const CameraControls& c) override {
    if (!options_.hasFlash) return -1;
    if (c.flashMode != AVCaptureFlashModeOn && c.flashMode != AVCaptureFlashModeAuto) return -1;
    std::lock_guard lock(mutex_);
    flashNextFrame_ = true;
    // The flash lights the next frame rendered: its time stamp is its number / 30 s.
    return static_cast<int64_t>(
        gst_util_uint64_scale(nextFrameIndex_, GST_SECOND, kSyntheticFrameRate));
  }

  // The frame drawn again at the still size: the same picture, 1920 pixels wide at the
  // stream's aspect ratio (the first still at a size draws the scene's textures, later ones
  // reuse them). Any thread.
  SampleBuffer fullResolutionStill(const SampleBuffer& streamFrame) override {
    const auto index = syntheticFrameIndex(streamFrame);
    const size_t w = streamFrame.imageBuffer().width(), h = streamFrame.imageBuffer().height();
    if (!index || w == 0 || h == 0) return {};
    const size_t width = kStillWidth;
    const size_t height = std::max<size_t>(1, (h * kStillWidth + w / 2) / w);
    if (height > SceneRenderer::kMaxSide) return {};
    PixelBuffer pixels = PixelBuffer::allocate(kPixelFormatBGRA, width, height);
    if (pixels.isNull() || !pixels.lockBaseAddress()) return {};
    {
      std::lock_guard lock(stillMutex_);
      if (!stillScene_ || stillScene_->width() != width || stillScene_->height() != height)
        stillScene_ = std::make_unique<SceneRenderer>(options_.scene, width, height);
      stillScene_->render(*index, effectsOf(*index).value_or(CameraEffects{}),
                          pixels.baseAddressOfPlane(0), pixels.bytesPerRowOfPlane(0));
    }
    pixels.unlockBaseAddress();
    return SampleBuffer(pixels, streamFrame.presentationTimeStamp(), streamFrame.duration());
  }

  // Effects of frame `index`, advancing the simulated lens by one frame. Producer thread.
  CameraEffects effectsForFrame(uint64_t index) {
    CameraEffects e;
    bool passFinished = false;
    {
      std::lock_guard lock(mutex_);
      const bool far = controls_.autoFocusRangeRestriction == AVCaptureAutoFocusRangeRestrictionFar;
      if (!options_.hasFocus) {
        e.defocusSigma = 0.0;
      } else if (focusingFrames_ > 0) {
        e.defocusSigma = kFocusingBlur;
        if (--focusingFrames_ == 0) {
          lensInFocus_ = !far;
          passFinished = controls_.focusMode == AVCaptureFocusModeAutoFocus;
        }
      } else {
        if (controls_.focusMode == AVCaptureFocusModeContinuousAutoFocus) lensInFocus_ = !far;
        e.defocusSigma = lensInFocus_ ? 0.0 : kOutOfFocusBlur;
      }
      if (controls_.torchMode != AVCaptureTorchModeOff) e.lightGain += 0.5 * controls_.torchLevel;
      if (flashNextFrame_) {
        e.lightGain *= kFlashGain;
        flashNextFrame_ = false;
      }
      effects_[index % kEffectsKept] = {index, e};
      nextFrameIndex_ = index + 1;
    }
    if (passFinished && onFocusPassFinished) onFocusPassFinished();
    return e;
  }

  uint64_t nextFrameIndex() const {
    std::lock_guard lock(mutex_);
    return nextFrameIndex_;
  }

  std::optional<CameraEffects> effectsOf(uint64_t index) const {
    std::lock_guard lock(mutex_);
    const auto& slot = effects_[index % kEffectsKept];
    if (slot.first != index) return std::nullopt;
    return slot.second;
  }

  SyntheticFrameTruth truthOf(uint64_t index, size_t width, size_t height) {
    std::lock_guard lock(truthMutex_);
    if (!truthScene_ || truthScene_->width() != width || truthScene_->height() != height)
      truthScene_ = std::make_unique<SceneRenderer>(options_.scene, width, height);
    return truthScene_->truth(index);
  }

  const SyntheticScene& scene() const { return options_.scene; }

 private:
  const SyntheticCameraOptions options_;
  mutable std::mutex mutex_;  // guards the fields below
  CameraControls controls_;
  int focusingFrames_ = 0;
  bool lensInFocus_ = false;
  bool flashNextFrame_ = false;
  uint64_t nextFrameIndex_ = 0;
  std::array<std::pair<uint64_t, CameraEffects>, kEffectsKept> effects_;

  std::mutex truthMutex_;
  std::unique_ptr<SceneRenderer> truthScene_;
  std::mutex stillMutex_;
  std::unique_ptr<SceneRenderer> stillScene_;
};

// One run: an appsrc fed by a producer thread that renders a frame every 1/30 s of real time.
class SyntheticSource final : public CameraSource {
 public:
  SyntheticSource(std::shared_ptr<SyntheticBackend> backend, size_t width, size_t height)
      : backend_(std::move(backend)), width_(width), height_(height) {
    appsrc_ = gst_element_factory_make("appsrc", nullptr);
    if (!appsrc_) return;
    GstCaps* caps =
        gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "BGRA", "width", G_TYPE_INT,
                            static_cast<int>(width), "height", G_TYPE_INT, static_cast<int>(height),
                            "framerate", GST_TYPE_FRACTION, kSyntheticFrameRate, 1,
                            "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1, nullptr);
    g_object_set(appsrc_, "caps", caps, "is-live", TRUE, "format", GST_FORMAT_TIME, "do-timestamp",
                 FALSE, "max-buffers", guint64{2}, nullptr);
    // A full queue drops its oldest frame, as a sensor overwrites a frame nobody read.
    gst_util_set_object_arg(G_OBJECT(appsrc_), "leaky-type", "downstream");
    gst_caps_unref(caps);
  }

  ~SyntheticSource() override { willStop(); }

  GstElement* element() override { return appsrc_; }
  bool isLive() const override { return true; }

  void didStart() override {
    if (!appsrc_ || producer_.joinable()) return;
    stopping_ = false;
    producer_ = std::thread([this] { produce(); });
  }

  void willStop() override {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      wake_.notify_all();
    }
    if (producer_.joinable()) producer_.join();
  }

 private:
  void produce() {
    using Clock = std::chrono::steady_clock;
    const auto period = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(1.0 / kSyntheticFrameRate));
    SceneRenderer scene(backend_->scene(), width_, height_);
    const bool drawable = width_ <= SceneRenderer::kMaxSide && height_ <= SceneRenderer::kMaxSide &&
                          width_ * height_ <= SceneRenderer::kMaxPixels;
    const size_t bytesPerRow = width_ * 4;
    const uint64_t base = backend_->nextFrameIndex();
    const auto start = Clock::now();
    uint64_t tick = 0;
    for (;;) {
      {
        std::unique_lock lock(mutex_);
        if (wake_.wait_until(lock, start + tick * period, [this] { return stopping_; })) return;
      }
      const uint64_t index = base + tick;
      const CameraEffects effects = backend_->effectsForFrame(index);
      GstBuffer* buffer = gst_buffer_new_allocate(nullptr, bytesPerRow * height_, nullptr);
      if (!buffer) return;
      GstMapInfo map;
      if (gst_buffer_map(buffer, &map, GST_MAP_WRITE)) {
        if (!drawable) std::memset(map.data, 0, map.size);
        scene.render(index, effects, map.data, bytesPerRow);
        gst_buffer_unmap(buffer, &map);
      }
      GST_BUFFER_PTS(buffer) = gst_util_uint64_scale(index, GST_SECOND, kSyntheticFrameRate);
      GST_BUFFER_DURATION(buffer) = gst_util_uint64_scale(1, GST_SECOND, kSyntheticFrameRate);
      GST_BUFFER_OFFSET(buffer) = index;
      if (gst_app_src_push_buffer(GST_APP_SRC(appsrc_), buffer) != GST_FLOW_OK) return;
      // Behind real time (slow rendering): skip the frames that are already late.
      const uint64_t due = static_cast<uint64_t>((Clock::now() - start) / period);
      tick = std::max(tick + 1, due);
    }
  }

  std::shared_ptr<SyntheticBackend> backend_;
  const size_t width_, height_;
  GstElement* appsrc_ = nullptr;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread producer_;
};

std::unique_ptr<CameraSource> SyntheticBackend::makeSource(size_t width, size_t height,
                                                           std::string* error) {
  auto source = std::make_unique<SyntheticSource>(shared_from_this(), width, height);
  if (!source->element()) {
    if (error) *error = "the GStreamer element appsrc is missing";
    return nullptr;
  }
  return source;
}

SyntheticBackend* syntheticBackendOf(const CaptureDevice& device) {
  return dynamic_cast<SyntheticBackend*>(device.impl()->backend.get());
}

}  // namespace

std::shared_ptr<CameraBackend> makeSyntheticCameraBackend(SyntheticCameraOptions options) {
  return std::make_shared<SyntheticBackend>(std::move(options));
}

std::optional<CameraEffects> syntheticFrameEffects(const CaptureDevice& device,
                                                   const SampleBuffer& frame) {
  SyntheticBackend* backend = syntheticBackendOf(device);
  const auto index = syntheticFrameIndex(frame);
  if (!backend || !index) return std::nullopt;
  return backend->effectsOf(*index);
}

}  // namespace kwq::synthetic

namespace kwq {

std::optional<uint64_t> syntheticFrameIndex(const SampleBuffer& frame) {
  const MediaTime t = frame.presentationTimeStamp();
  if (!t.isValid() || t.value < 0) return std::nullopt;
  return static_cast<uint64_t>(std::llround(t.seconds() * kSyntheticFrameRate));
}

std::optional<SyntheticFrameTruth> syntheticFrameTruth(const CaptureDevice& device,
                                                       const SampleBuffer& frame) {
  synthetic::SyntheticBackend* backend = synthetic::syntheticBackendOf(device);
  const auto index = syntheticFrameIndex(frame);
  if (!backend || !index || frame.isNull()) return std::nullopt;
  return backend->truthOf(*index, frame.imageBuffer().width(), frame.imageBuffer().height());
}

bool isSyntheticCamera(const CaptureDevice& device) {
  return synthetic::syntheticBackendOf(device) != nullptr;
}

std::shared_ptr<CaptureDevice> CaptureDevice::syntheticCamera(SyntheticCameraOptions options) {
  std::string id = options.uniqueID;
  std::string name = options.localizedName;
  const int64_t position = options.position;
  if (id.empty()) {
    id = position == AVCaptureDevicePositionBack    ? "kwq.synthetic.back"
         : position == AVCaptureDevicePositionFront ? "kwq.synthetic.front"
                                                    : "kwq.synthetic." + std::to_string(position);
  }
  if (name.empty()) {
    name = position == AVCaptureDevicePositionBack    ? "Synthetic Back Camera"
           : position == AVCaptureDevicePositionFront ? "Synthetic Front Camera"
                                                      : "Synthetic Camera";
  }
  return platform::makeCaptureDevice(std::move(id), std::move(name), position,
                                     synthetic::makeSyntheticCameraBackend(std::move(options)));
}

}  // namespace kwq

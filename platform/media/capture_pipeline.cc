#include "platform/media/capture_pipeline.h"

#include <gst/app/gstappsink.h>
#include <gst/video/video.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>

#include "platform/foundation/log_format.h"
#include "platform/media/gst_init.h"

namespace kwq::platform {
namespace {

GstVideoFormat videoFormatOf(uint32_t pixelFormat) {
  if (pixelFormat == kPixelFormat420f || pixelFormat == kPixelFormat420v)
    return GST_VIDEO_FORMAT_NV12;
  if (pixelFormat == kPixelFormatBGRA) return GST_VIDEO_FORMAT_BGRA;
  return GST_VIDEO_FORMAT_UNKNOWN;
}

// BT.601 colours; 420f in full range (0..255), 420v in video range (16..235).
GstVideoColorimetry colorimetryOf(uint32_t pixelFormat) {
  GstVideoColorimetry c{};
  c.range =
      pixelFormat == kPixelFormat420f ? GST_VIDEO_COLOR_RANGE_0_255 : GST_VIDEO_COLOR_RANGE_16_235;
  c.matrix = GST_VIDEO_COLOR_MATRIX_BT601;
  c.transfer = GST_VIDEO_TRANSFER_BT709;
  c.primaries = GST_VIDEO_COLOR_PRIMARIES_SMPTE170M;
  return c;
}

bool videoInfoFor(uint32_t pixelFormat, size_t width, size_t height, GstVideoInfo* info) {
  const GstVideoFormat format = videoFormatOf(pixelFormat);
  if (format == GST_VIDEO_FORMAT_UNKNOWN || width == 0 || height == 0 || width > 16384 ||
      height > 16384)
    return false;
  gst_video_info_init(info);
  if (!gst_video_info_set_format(info, format, static_cast<guint>(width),
                                 static_cast<guint>(height)))
    return false;
  if (format == GST_VIDEO_FORMAT_NV12) info->colorimetry = colorimetryOf(pixelFormat);
  return true;
}

// A mapped frame that lives as long as the PixelBuffer wrapping it.
struct MappedFrame {
  GstVideoFrame frame;
  GstSample* sample;
};

// Wraps a mapped frame of `info`'s layout; takes the reference on `sample` in every case.
PixelBuffer wrapSample(GstSample* sample, uint32_t pixelFormat, const GstVideoInfo& info) {
  GstBuffer* buffer = gst_sample_get_buffer(sample);
  auto* mapped = new MappedFrame{{}, sample};
  GstVideoInfo copy = info;
  if (!buffer || !gst_video_frame_map(&mapped->frame, &copy, buffer, GST_MAP_READ)) {
    gst_sample_unref(sample);
    delete mapped;
    return {};
  }
  const size_t w = GST_VIDEO_FRAME_WIDTH(&mapped->frame);
  const size_t h = GST_VIDEO_FRAME_HEIGHT(&mapped->frame);
  std::vector<PixelPlane> planes;
  for (guint p = 0; p < GST_VIDEO_FRAME_N_PLANES(&mapped->frame); ++p) {
    PixelPlane plane;
    plane.baseAddress = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&mapped->frame, p));
    plane.bytesPerRow = static_cast<size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&mapped->frame, p));
    plane.width = p == 0 ? w : (w + 1) / 2;
    plane.height = p == 0 ? h : (h + 1) / 2;
    planes.push_back(plane);
  }
  auto release = [mapped] {
    gst_video_frame_unmap(&mapped->frame);
    gst_sample_unref(mapped->sample);
    delete mapped;
  };
  PixelBuffer pixels = PixelBuffer::wrap(pixelFormat, w, h, std::move(planes), release);
  if (pixels.isNull()) release();  // not taken: the planes did not fit the format
  return pixels;
}

// What the camera's decoded stream is, as seen where it enters the source bin's converter.
// GStreamer's converter keeps YUV code values as they are between two YUV formats of the
// same matrix, whatever the ranges (a webcam's video-range YUYV would come out as "full-range"
// NV12 with black at 16), so the pipeline puts the range right itself; RGB sources and other
// matrices go through a real conversion and need nothing.
struct SourceColour {
  enum Kind : int { kUnknown, kYuv601Video, kYuv601Full, kOther };
  std::atomic<int> kind{kUnknown};
};

constexpr const char* kSourceColourKey = "kwq-source-colour";

GstPadProbeReturn noteSourceCaps(GstPad*, GstPadProbeInfo* info, gpointer data) {
  GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
  if (!event || GST_EVENT_TYPE(event) != GST_EVENT_CAPS) return GST_PAD_PROBE_OK;
  GstCaps* caps = nullptr;
  gst_event_parse_caps(event, &caps);
  GstVideoInfo vi;
  int kind = SourceColour::kOther;
  if (caps && gst_video_info_from_caps(&vi, caps) && GST_VIDEO_INFO_IS_YUV(&vi) &&
      vi.colorimetry.matrix == GST_VIDEO_COLOR_MATRIX_BT601) {
    if (vi.colorimetry.range == GST_VIDEO_COLOR_RANGE_16_235) kind = SourceColour::kYuv601Video;
    if (vi.colorimetry.range == GST_VIDEO_COLOR_RANGE_0_255) kind = SourceColour::kYuv601Full;
  }
  (*static_cast<std::shared_ptr<SourceColour>*>(data))->kind.store(kind);
  return GST_PAD_PROBE_OK;
}

// A copy of NV12 `in` with its samples moved from one range to the other (video range: luma
// 16..235, chroma 16..240 around 128).
PixelBuffer remapRange(const PixelBuffer& in, bool toFull) {
  uint8_t luma[256], chroma[256];
  for (int v = 0; v < 256; ++v) {
    const double y = toFull ? (v - 16) * 255.0 / 219.0 : v * 219.0 / 255.0 + 16;
    const double c = toFull ? (v - 128) * 255.0 / 224.0 : (v - 128) * 224.0 / 255.0;
    luma[v] = static_cast<uint8_t>(std::clamp(y + 0.5, 0.0, 255.0));
    chroma[v] = static_cast<uint8_t>(std::clamp(c + 128.5, 0.0, 255.0));
  }
  PixelBuffer out = PixelBuffer::allocate(in.pixelFormat(), in.width(), in.height());
  if (out.isNull() || !in.lockBaseAddress(kPixelBufferLockReadOnly)) return {};
  out.lockBaseAddress();
  for (size_t p = 0; p < 2 && p < in.planeCount() && p < out.planeCount(); ++p) {
    const uint8_t* table = p == 0 ? luma : chroma;
    const size_t bytes = p == 0 ? in.widthOfPlane(0) : 2 * in.widthOfPlane(1);
    for (size_t y = 0; y < in.heightOfPlane(p); ++y) {
      const uint8_t* src = in.baseAddressOfPlane(p) + y * in.bytesPerRowOfPlane(p);
      uint8_t* dst = out.baseAddressOfPlane(p) + y * out.bytesPerRowOfPlane(p);
      for (size_t x = 0; x < bytes; ++x) dst[x] = table[src[x]];
    }
  }
  out.unlockBaseAddress();
  in.unlockBaseAddress(kPixelBufferLockReadOnly);
  return out;
}

}  // namespace

struct CapturePipeline::Core {
  // Set before any callback is installed, then only read. `ready` publishes them to the
  // streaming threads in a way thread checkers see (GStreamer's own hand-over is invisible).
  std::string cameraName;
  uint32_t pixelFormat = 0;
  FrameCallback onFrame;
  GstElement* pipeline = nullptr;
  std::atomic<bool> ready{false};
  // The decoded camera stream's colours, when the source bin reports them.
  std::shared_ptr<SourceColour> sourceColour;

  // The source receives bus messages until the pipeline is torn down; a message posted
  // concurrently with the teardown finds it gone rather than half destroyed.
  std::mutex sourceMutex;
  CameraSource* source = nullptr;

  std::mutex mutex;  // guards the fields below
  std::string firstError;
  CapturePipeline::ErrorCallback onError;
  int64_t lastPts = -1;
  int64_t ptsOffset = 0;

  // Running time as a strictly rising time stamp.
  MediaTime timeStamp(GstSample* sample, GstBuffer* buffer) {
    const GstSegment* segment = gst_sample_get_segment(sample);
    const GstClockTime pts = GST_BUFFER_PTS(buffer);
    if (!segment || !GST_CLOCK_TIME_IS_VALID(pts) || segment->format != GST_FORMAT_TIME)
      return MediaTime::invalid();
    const guint64 running = gst_segment_to_running_time(segment, GST_FORMAT_TIME, pts);
    if (!GST_CLOCK_TIME_IS_VALID(running)) return MediaTime::invalid();
    std::lock_guard lock(mutex);
    int64_t t = static_cast<int64_t>(running) + ptsOffset;
    if (t <= lastPts) {
      const GstClockTime d = GST_BUFFER_DURATION(buffer);
      const int64_t step =
          GST_CLOCK_TIME_IS_VALID(d) && d > 0 ? static_cast<int64_t>(d) : GST_SECOND / 30;
      ptsOffset += lastPts + step - t;
      t = lastPts + step;
    }
    lastPts = t;
    return MediaTime::fromNanoseconds(t);
  }

  static GstFlowReturn onNewSample(GstAppSink* sink, gpointer data) {
    Core& core = **static_cast<std::shared_ptr<Core>*>(data);
    if (!core.ready.load(std::memory_order_acquire)) return GST_FLOW_OK;
    GstSample* sample = gst_app_sink_pull_sample(sink);
    if (!sample) return GST_FLOW_OK;
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    GstCaps* caps = gst_sample_get_caps(sample);
    GstVideoInfo info;
    if (!buffer || !caps || !gst_video_info_from_caps(&info, caps)) {
      gst_sample_unref(sample);
      return GST_FLOW_OK;
    }
    const MediaTime pts = core.timeStamp(sample, buffer);
    const GstClockTime d = GST_BUFFER_DURATION(buffer);
    const MediaTime duration = GST_CLOCK_TIME_IS_VALID(d)
                                   ? MediaTime::fromNanoseconds(static_cast<int64_t>(d))
                                   : MediaTime::invalid();
    PixelBuffer pixels = wrapSample(sample, core.pixelFormat, info);
    if (pixels.isNull()) return GST_FLOW_OK;
    if (core.sourceColour && core.pixelFormat != kPixelFormatBGRA) {
      const int kind = core.sourceColour->kind.load();
      const bool wantFull = core.pixelFormat == kPixelFormat420f;
      if ((kind == SourceColour::kYuv601Video && wantFull) ||
          (kind == SourceColour::kYuv601Full && !wantFull)) {
        pixels = remapRange(pixels, wantFull);
        if (pixels.isNull()) return GST_FLOW_OK;
      }
    }
    try {
      core.onFrame(SampleBuffer(std::move(pixels), pts, duration));
    } catch (...) {
      // A frame consumer must not end the stream.
    }
    return GST_FLOW_OK;
  }

  static GstBusSyncReply onBusMessage(GstBus*, GstMessage* message, gpointer data) {
    Core& core = *static_cast<Core*>(data);
    if (!core.ready.load(std::memory_order_acquire)) return GST_BUS_DROP;
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
      GError* err = nullptr;
      gchar* debug = nullptr;
      gst_message_parse_error(message, &err, &debug);
      const std::string text = err && err->message ? err->message : "unknown error";
      bool first = false;
      CapturePipeline::ErrorCallback onError;
      {
        std::lock_guard lock(core.mutex);
        first = core.firstError.empty();
        if (first) core.firstError = text;
        onError = core.onError;
      }
      if (first && onError)
        onError(text);
      else if (first)
        logf("Capture: %s: %s", core.cameraName.c_str(), text.c_str());
      if (err) g_error_free(err);
      g_free(debug);
    }
    std::lock_guard lock(core.sourceMutex);
    if (core.source) core.source->handleBusMessage(core.pipeline, message);
    return GST_BUS_DROP;
  }

  std::string error() {
    std::lock_guard lock(mutex);
    return firstError;
  }
};

namespace {

// Links the first raw video stream decodebin exposes.
void linkDecodedVideo(GstElement*, GstPad* pad, gpointer data) {
  auto* convert = static_cast<GstElement*>(data);
  GstCaps* caps = gst_pad_get_current_caps(pad);
  if (!caps) caps = gst_pad_query_caps(pad, nullptr);
  const bool video =
      caps && gst_caps_get_size(caps) > 0 &&
      g_str_has_prefix(gst_structure_get_name(gst_caps_get_structure(caps, 0)), "video/x-raw");
  if (caps) gst_caps_unref(caps);
  if (!video) return;
  GstPad* sink = gst_element_get_static_pad(convert, "sink");
  if (!gst_pad_is_linked(sink)) gst_pad_link(pad, sink);
  gst_object_unref(sink);
}

}  // namespace

GstElement* makeDecodingSourceBin(GstElement* producer, GstCaps* filter) {
  GstElement* bin = gst_bin_new(nullptr);
  GstElement* capsfilter = filter ? gst_element_factory_make("capsfilter", nullptr) : nullptr;
  GstElement* decode = gst_element_factory_make("decodebin", nullptr);
  GstElement* convert = gst_element_factory_make("videoconvert", nullptr);
  if (!bin || !producer || !decode || !convert || (filter && !capsfilter)) {
    for (GstElement* e : {bin, producer, capsfilter, decode, convert})
      if (e) gst_object_unref(gst_object_ref_sink(e));
    if (filter) gst_caps_unref(filter);
    return nullptr;
  }
  gst_bin_add_many(GST_BIN(bin), producer, decode, convert, nullptr);
  if (capsfilter) {
    g_object_set(capsfilter, "caps", filter, nullptr);
    gst_caps_unref(filter);
    gst_bin_add(GST_BIN(bin), capsfilter);
    gst_element_link_many(producer, capsfilter, decode, nullptr);
  } else {
    gst_element_link(producer, decode);
  }
  GstPad* target = gst_element_get_static_pad(convert, "src");
  gst_element_add_pad(bin, gst_ghost_pad_new("src", target));
  gst_object_unref(target);
  g_signal_connect(decode, "pad-added", G_CALLBACK(&linkDecodedVideo), convert);
  auto* colour = new std::shared_ptr<SourceColour>(std::make_shared<SourceColour>());
  g_object_set_data_full(G_OBJECT(bin), kSourceColourKey,
                         new std::shared_ptr<SourceColour>(*colour),
                         [](gpointer p) { delete static_cast<std::shared_ptr<SourceColour>*>(p); });
  GstPad* convertSink = gst_element_get_static_pad(convert, "sink");
  gst_pad_add_probe(convertSink, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, &noteSourceCaps, colour,
                    [](gpointer p) { delete static_cast<std::shared_ptr<SourceColour>*>(p); });
  gst_object_unref(convertSink);
  return bin;
}

std::string captureCapsString(uint32_t pixelFormat, size_t width, size_t height) {
  GstVideoInfo info;
  if (!videoInfoFor(pixelFormat, width, height, &info)) return {};
  info.fps_n = 0;
  info.fps_d = 1;
  GstCaps* caps = gst_video_info_to_caps(&info);
  // Any frame rate the camera has.
  gst_structure_remove_field(gst_caps_get_structure(caps, 0), "framerate");
  gchar* text = gst_caps_to_string(caps);
  std::string result = text;
  g_free(text);
  gst_caps_unref(caps);
  return result;
}

std::unique_ptr<CapturePipeline> CapturePipeline::create(
    std::unique_ptr<CameraSource> source, const std::string& cameraName, size_t width,
    size_t height, uint32_t pixelFormat, FrameCallback onFrame, std::string* error) {
  auto fail = [&](const std::string& reason) -> std::unique_ptr<CapturePipeline> {
    if (error) *error = reason;
    return nullptr;
  };
  if (!ensureGStreamer(error)) return nullptr;
  if (!source || !source->element()) return fail("no camera source");
  const std::string capsText = captureCapsString(pixelFormat, width, height);
  if (capsText.empty()) return fail("unsupported pixel format or size");

  std::unique_ptr<CapturePipeline> p(new CapturePipeline);
  p->core_ = std::make_shared<Core>();
  p->core_->cameraName = cameraName;
  p->core_->pixelFormat = pixelFormat;
  p->core_->onFrame = std::move(onFrame);

  p->pipeline_ = gst_pipeline_new(nullptr);
  GstElement* scale = gst_element_factory_make("videoscale", nullptr);
  GstElement* convert = gst_element_factory_make("videoconvert", nullptr);
  GstElement* filter = gst_element_factory_make("capsfilter", nullptr);
  GstElement* sink = gst_element_factory_make("appsink", nullptr);
  if (!p->pipeline_ || !scale || !convert || !filter || !sink) {
    for (GstElement* e : {scale, convert, filter, sink})
      if (e) gst_object_unref(gst_object_ref_sink(e));
    return fail("GStreamer's videoscale, videoconvert, capsfilter or appsink is missing");
  }
  GstElement* src = source->element();
  if (auto* colour = static_cast<std::shared_ptr<SourceColour>*>(
          g_object_get_data(G_OBJECT(src), kSourceColourKey)))
    p->core_->sourceColour = *colour;
  gst_bin_add_many(GST_BIN(p->pipeline_), src, scale, convert, filter, sink, nullptr);
  p->source_ = std::move(source);

  GstCaps* caps = gst_caps_from_string(capsText.c_str());
  g_object_set(filter, "caps", caps, nullptr);
  gst_caps_unref(caps);
  // Late frames are discarded: one frame waits in the sink at most. A file camera is paced by
  // the clock at the sink; live cameras pace themselves.
  g_object_set(sink, "drop", TRUE, "max-buffers", 1u, "sync", p->source_->isLive() ? FALSE : TRUE,
               "enable-last-sample", FALSE, "emit-signals", FALSE, nullptr);
  GstAppSinkCallbacks callbacks{};
  callbacks.new_sample = &Core::onNewSample;
  gst_app_sink_set_callbacks(
      GST_APP_SINK(sink), &callbacks, new std::shared_ptr<Core>(p->core_),
      [](gpointer data) { delete static_cast<std::shared_ptr<Core>*>(data); });

  if (!gst_element_link_many(src, scale, convert, filter, sink, nullptr))
    return fail("the camera's video cannot be converted to the session's format");

  p->core_->source = p->source_.get();
  p->core_->pipeline = p->pipeline_;
  p->core_->ready.store(true, std::memory_order_release);
  GstBus* bus = gst_element_get_bus(p->pipeline_);
  gst_bus_set_sync_handler(bus, &Core::onBusMessage, p->core_.get(), nullptr);
  gst_object_unref(bus);
  return p;
}

CapturePipeline::~CapturePipeline() {
  stop();
  if (core_) {
    std::lock_guard lock(core_->sourceMutex);
    core_->source = nullptr;
  }
  if (pipeline_) {
    GstBus* bus = gst_element_get_bus(pipeline_);
    gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
    gst_object_unref(bus);
    gst_object_unref(pipeline_);
  }
}

bool CapturePipeline::start(std::string* error) {
  if (playing_) return true;
  const bool live = source_->isLive();
  constexpr GstClockTime kWait = 5 * GST_SECOND;
  auto failed = [&](GstStateChangeReturn r) {
    if (r != GST_STATE_CHANGE_FAILURE) return false;
    if (error) {
      *error = core_->error();
      if (error->empty()) *error = "the camera could not start";
    }
    source_->willStop();
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    return true;
  };
  if (!live) {
    // Preroll first, so the looping seek lands on a ready pipeline.
    if (failed(gst_element_set_state(pipeline_, GST_STATE_PAUSED))) return false;
    if (failed(gst_element_get_state(pipeline_, nullptr, nullptr, kWait))) return false;
    source_->willPlay(pipeline_);
    if (failed(gst_element_get_state(pipeline_, nullptr, nullptr, kWait))) return false;
  }
  if (failed(gst_element_set_state(pipeline_, GST_STATE_PLAYING))) return false;
  source_->didStart();
  playing_ = true;
  // A live pipeline completes its change to playing with its first frame.
  if (failed(gst_element_get_state(pipeline_, nullptr, nullptr, kWait))) {
    playing_ = false;
    return false;
  }
  return true;
}

void CapturePipeline::setErrorCallback(ErrorCallback onError) {
  std::lock_guard lock(core_->mutex);
  core_->onError = std::move(onError);
}

void CapturePipeline::stop() {
  if (!pipeline_) return;
  source_->willStop();
  gst_element_set_state(pipeline_, GST_STATE_NULL);
  playing_ = false;
}

SampleBuffer convertFrame(const SampleBuffer& frame, uint32_t pixelFormat) {
  const PixelBuffer& in = frame.imageBuffer();
  if (in.isNull()) return {};
  if (in.pixelFormat() == pixelFormat) return frame;
  GstVideoInfo inInfo, outInfo;
  if (!videoInfoFor(in.pixelFormat(), in.width(), in.height(), &inInfo) ||
      !videoInfoFor(pixelFormat, in.width(), in.height(), &outInfo))
    return {};
  PixelBuffer out = PixelBuffer::allocate(pixelFormat, in.width(), in.height());
  if (out.isNull() || !in.lockBaseAddress(kPixelBufferLockReadOnly)) return {};
  if (!out.lockBaseAddress()) {
    in.unlockBaseAddress(kPixelBufferLockReadOnly);
    return {};
  }
  // Describe both buffers' real strides and plane addresses to the converter.
  GstVideoFrame src{}, dst{};
  src.info = inInfo;
  dst.info = outInfo;
  for (size_t p = 0; p < in.planeCount(); ++p) {
    src.data[p] = in.baseAddressOfPlane(p);
    src.info.stride[p] = static_cast<gint>(in.bytesPerRowOfPlane(p));
  }
  for (size_t p = 0; p < out.planeCount(); ++p) {
    dst.data[p] = out.baseAddressOfPlane(p);
    dst.info.stride[p] = static_cast<gint>(out.bytesPerRowOfPlane(p));
  }
  GstVideoConverter* converter = gst_video_converter_new(&src.info, &dst.info, nullptr);
  if (converter) {
    gst_video_converter_frame(converter, &src, &dst);
    gst_video_converter_free(converter);
  }
  out.unlockBaseAddress();
  in.unlockBaseAddress(kPixelBufferLockReadOnly);
  if (!converter) return {};
  return SampleBuffer(std::move(out), frame.presentationTimeStamp(), frame.duration());
}

}  // namespace kwq::platform

#include "platform/media/movie_writer.h"

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "platform/foundation/file_url.h"
#include "platform/foundation/log_format.h"
#include "platform/media/gst_init.h"

namespace kwq::platform {

namespace {

using namespace std::chrono_literals;

// A fragment of movie (its own index, then its frames) is written every tenth of a second of
// movie time; see the header for why fragments and why this length.
constexpr guint kFragmentMs = 100;

constexpr size_t kMinSide = 16;     // qtmux refuses smaller raw video
constexpr size_t kMaxSide = 16384;  // keeps a frame's bytes far from any overflow
constexpr int32_t kMaxTrackTimescale = 1000000;
constexpr auto kFinishTimeout = 30s;
constexpr int64_t kDefaultFrameNs = 1000000000 / 30;

// Frames queued in appsrc before the input stops being ready.
constexpr uint64_t kRealTimeQueueFrames = 4;
constexpr uint64_t kQueueFrames = 16;
// An append beyond this many times the queue bound is refused: the caller ignores readiness.
constexpr uint64_t kHardQueueFactor = 4;

// value / timescale seconds in nanoseconds, rounded down; false when it does not fit.
bool toNanoseconds(MediaTime t, int64_t* ns) {
  if (!t.isValid()) return false;
  const __int128 scaled = static_cast<__int128>(t.value) * 1000000000;
  __int128 q = scaled / t.timescale;
  if (scaled % t.timescale != 0 && scaled < 0) --q;
  if (q > INT64_MAX || q < INT64_MIN) return false;
  *ns = static_cast<int64_t>(q);
  return true;
}

// "message (reason)" from a GStreamer error: the reason is the last line of the debug text,
// which names the system error where there is one.
std::string describe(GError* err, const gchar* debug) {
  std::string text = err && err->message ? err->message : "Unknown GStreamer error.";
  if (debug) {
    const char* lastLine = std::strrchr(debug, '\n');
    if (lastLine && lastLine[1]) text += std::string(" (") + (lastLine + 1) + ")";
  }
  return text;
}

GstVideoFormat videoFormatFor(uint32_t pixelFormat) {
  if (pixelFormat == kPixelFormat420f || pixelFormat == kPixelFormat420v)
    return GST_VIDEO_FORMAT_NV12;
  if (pixelFormat == kPixelFormatBGRA) return GST_VIDEO_FORMAT_BGRA;
  return GST_VIDEO_FORMAT_UNKNOWN;
}

// Balances a pixel buffer lock on every path.
class ReadLock {
 public:
  explicit ReadLock(const PixelBuffer& b)
      : b_(b), ok_(b.lockBaseAddress(kPixelBufferLockReadOnly)) {}
  ~ReadLock() {
    if (ok_) b_.unlockBaseAddress(kPixelBufferLockReadOnly);
  }
  bool ok() const { return ok_; }

 private:
  const PixelBuffer& b_;
  bool ok_;
};

}  // namespace

struct MovieWriterInput::State {
  mutable std::mutex mutex;
  MovieVideoCodec codec = MovieVideoCodec::Raw;
  bool realTime = false;
  bool finished = false;
  bool attached = false;
  std::weak_ptr<MovieWriterCore> core;
};

struct MovieWriterCore : std::enable_shared_from_this<MovieWriterCore> {
  std::string url;
  std::string path;

  // Set once the bus handler is installed. The handler runs on GStreamer's threads, which get
  // it through GLib's own locks; this release/acquire pair is the ordering our code states
  // (and ThreadSanitizer, which cannot see into GLib, checks).
  std::atomic<bool> busReady{false};
  mutable std::mutex mutex;
  std::condition_variable changed;
  MovieWriterStatus status = MovieWriterStatus::Unknown;
  std::string failure;      // why the writer failed
  std::string lastRefusal;  // why the latest sample was refused
  std::shared_ptr<MovieWriterInput::State> input;
  bool started = false;    // startWriting() ran
  bool finishing = false;  // the pipeline is being (or has been) stopped
  bool endOfStream = false;

  GstElement* pipeline = nullptr;  // owns the elements below
  GstElement* appsrc = nullptr;
  GstElement* capsfilter = nullptr;
  GstElement* mux = nullptr;
  MovieVideoCodec codec = MovieVideoCodec::Raw;

  std::mutex appendMutex;  // serialises appends; taken before `mutex`
  bool sessionStarted = false;
  int64_t sessionStartNs = 0;
  bool haveFirstFrame = false;
  int64_t firstNs = 0;
  int64_t lastNs = 0;
  bool configured = false;  // format, size and time scale fixed by the first admitted frame
  uint32_t pixelFormat = 0;
  GstVideoInfo info{};  // layout of the frames pushed into appsrc
  uint64_t queueBytes = 0;

  ~MovieWriterCore() {
    if (!pipeline) return;
    gst_element_set_state(pipeline, GST_STATE_NULL);
    GstBus* bus = gst_element_get_bus(pipeline);
    gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
    gst_object_unref(bus);
    gst_object_unref(pipeline);
  }

  // Bus messages arrive on whichever thread posts them (streaming threads, or the caller of
  // a state change); they are handled here and dropped.
  static GstBusSyncReply onBusMessage(GstBus*, GstMessage* message, gpointer data) {
    auto* self = static_cast<MovieWriterCore*>(data);
    if (!self->busReady.load(std::memory_order_acquire)) return GST_BUS_DROP;
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
      GError* err = nullptr;
      gchar* debug = nullptr;
      gst_message_parse_error(message, &err, &debug);
      const std::string text = describe(err, debug);
      if (err) g_error_free(err);
      g_free(debug);
      std::lock_guard lock(self->mutex);
      if (self->failure.empty()) self->failure = text;
      if (self->status == MovieWriterStatus::Writing) self->status = MovieWriterStatus::Failed;
      self->changed.notify_all();
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
      std::lock_guard lock(self->mutex);
      self->endOfStream = true;
      self->changed.notify_all();
    }
    return GST_BUS_DROP;
  }

  // Called with the mutex held.
  void fail(std::string reason) {
    status = MovieWriterStatus::Failed;
    if (failure.empty()) failure = std::move(reason);
  }

  bool refuse(std::string reason) {
    lastRefusal = std::move(reason);
    return false;
  }

  // The encoder for `codec`, configured; null for raw frames or when the plugin is missing.
  static GstElement* makeEncoder(MovieVideoCodec codec) {
    GstElement* e = nullptr;
    switch (codec) {
      case MovieVideoCodec::Raw:
        return nullptr;
      case MovieVideoCodec::H264Lossless:
        e = gst_element_factory_make("x264enc", nullptr);
        if (!e) return nullptr;
        // No look-ahead, no B-frames, no frame threads: every frame leaves the encoder as soon
        // as it is coded, so a fragment holds what was appended before it. A key frame every
        // three frames (a tenth of a second at 30 fps) lets every fragment decode on its own.
        gst_util_set_object_arg(G_OBJECT(e), "tune", "zerolatency");
        gst_util_set_object_arg(G_OBJECT(e), "speed-preset", "ultrafast");
        g_object_set(e, "key-int-max", 3u, "bframes", 0u, "byte-stream", FALSE, nullptr);
        // Quantiser 0 makes x264 code losslessly (High 4:4:4 Predictive).
        gst_util_set_object_arg(G_OBJECT(e), "pass", "quant");
        g_object_set(e, "quantizer", 0u, nullptr);
        return e;
    }
    return nullptr;
  }

  // Builds the pipeline; false (with the failure set) when an element is missing. Mutex held.
  bool buildPipeline() {
    pipeline = gst_pipeline_new(nullptr);
    appsrc = gst_element_factory_make("appsrc", nullptr);
    GstElement* convert = gst_element_factory_make("videoconvert", nullptr);
    capsfilter = gst_element_factory_make("capsfilter", nullptr);
    GstElement* encoder = makeEncoder(codec);
    mux = gst_element_factory_make("qtmux", nullptr);
    GstElement* sink = gst_element_factory_make("filesink", nullptr);
    const bool encoded = codec != MovieVideoCodec::Raw;
    GstElement* all[] = {appsrc, convert, capsfilter, encoder, mux, sink};
    if (!pipeline || !appsrc || !convert || !capsfilter || !mux || !sink || (encoded && !encoder)) {
      for (GstElement* e : all)
        if (e) gst_object_unref(e);
      if (pipeline) gst_object_unref(pipeline);
      pipeline = appsrc = capsfilter = mux = nullptr;
      fail(encoded ? "A GStreamer element of the movie pipeline is missing (appsrc, videoconvert, "
                     "capsfilter, x264enc from gst-plugins-ugly, qtmux, filesink)."
                   : "A GStreamer element of the movie pipeline is missing (appsrc, videoconvert, "
                     "capsfilter, qtmux, filesink).");
      return false;
    }
    gst_bin_add_many(GST_BIN(pipeline), appsrc, convert, capsfilter, mux, sink, nullptr);
    bool linked = false;
    if (encoded) {
      gst_bin_add(GST_BIN(pipeline), encoder);
      linked = gst_element_link_many(appsrc, convert, capsfilter, encoder, mux, sink, nullptr);
    } else {
      linked = gst_element_link_many(appsrc, convert, capsfilter, mux, sink, nullptr);
    }
    if (!linked) {
      fail("The movie pipeline could not be linked.");
      return false;
    }
    g_object_set(appsrc, "format", GST_FORMAT_TIME, "is-live", FALSE, "block", FALSE,
                 "emit-signals", FALSE, nullptr);
    // Pure repacking: no colour matrix, no chroma filtering, no dithering. Encoders take YUV
    // only, so for them BGRA frames go through the colour matrix.
    gst_util_set_object_arg(G_OBJECT(convert), "chroma-mode", "none");
    if (!encoded) gst_util_set_object_arg(G_OBJECT(convert), "matrix-mode", "none");
    gst_util_set_object_arg(G_OBJECT(convert), "dither", "none");
    g_object_set(mux, "fragment-duration", kFragmentMs, nullptr);
    // Unbuffered: what qtmux has written is in the kernel, where a killed process cannot lose it.
    g_object_set(sink, "location", path.c_str(), "sync", FALSE, "async", FALSE, nullptr);
    gst_util_set_object_arg(G_OBJECT(sink), "buffer-mode", "unbuffered");
    busReady.store(true, std::memory_order_release);
    GstBus* bus = gst_element_get_bus(pipeline);
    gst_bus_set_sync_handler(bus, &MovieWriterCore::onBusMessage, this, nullptr);
    gst_object_unref(bus);
    return true;
  }

  // The layout the converter hands on: what qtmux keeps raw, or what the encoder codes.
  const char* storedFormat() const {
    const bool nv12 = GST_VIDEO_INFO_FORMAT(&info) == GST_VIDEO_FORMAT_NV12;
    switch (codec) {
      case MovieVideoCodec::Raw:
        return nv12 ? "UYVY" : "RGB";
      case MovieVideoCodec::H264Lossless:
        // x264 codes NV12 as delivered; BGRA becomes planar 4:4:4 YUV.
        return nv12 ? "NV12" : "Y444";
    }
    return "UYVY";
  }

  bool startWriting() {
    {
      std::lock_guard lock(mutex);
      if (started) return status == MovieWriterStatus::Writing;
      started = true;
      if (!input) {
        fail("The writer has no input.");
        return false;
      }
      struct stat st;
      if (::lstat(path.c_str(), &st) == 0) {
        fail("The file \"" + path + "\" already exists.");
        return false;
      }
      {
        std::lock_guard inputLock(input->mutex);
        codec = input->codec;
      }
      if (!buildPipeline()) return false;
    }
    // Outside the lock: a failing state change posts its error synchronously, on this thread.
    const GstStateChangeReturn r = gst_element_set_state(pipeline, GST_STATE_PLAYING);
    std::lock_guard lock(mutex);
    if (r == GST_STATE_CHANGE_FAILURE || !failure.empty()) {
      fail("The movie file \"" + path + "\" could not be opened for writing.");
      finishing = true;  // nothing more to finish; the destructor stops the pipeline
      return false;
    }
    status = MovieWriterStatus::Writing;
    return true;
  }

  void startSession(MediaTime time) {
    std::lock_guard lock(mutex);
    int64_t ns = 0;
    if (status != MovieWriterStatus::Writing || sessionStarted || !toNanoseconds(time, &ns)) return;
    sessionStarted = true;
    sessionStartNs = ns;
  }

  bool isReady() {
    std::lock_guard lock(mutex);
    if (status != MovieWriterStatus::Writing || finishing || !input || queueBytes == 0) return true;
    {
      std::lock_guard inputLock(input->mutex);
      if (input->finished) return true;
    }
    return gst_app_src_get_current_level_bytes(GST_APP_SRC(appsrc)) < queueBytes;
  }

  // Fixes format, size and time scale from the first accepted frame. Mutex held.
  void configure(const PixelBuffer& pb, MediaTime pts, bool realTime) {
    pixelFormat = pb.pixelFormat();
    gst_video_info_set_format(&info, videoFormatFor(pixelFormat), static_cast<guint>(pb.width()),
                              static_cast<guint>(pb.height()));
    info.fps_n = 0;  // variable frame rate: the time stamps say when each frame was taken
    info.fps_d = 1;
    if (pixelFormat == kPixelFormat420f) {
      info.colorimetry.range = GST_VIDEO_COLOR_RANGE_0_255;
      info.colorimetry.matrix = GST_VIDEO_COLOR_MATRIX_BT601;
    } else if (pixelFormat == kPixelFormat420v) {
      info.colorimetry.range = GST_VIDEO_COLOR_RANGE_16_235;
      info.colorimetry.matrix = GST_VIDEO_COLOR_MATRIX_BT601;
    }
    // appsrc's thread may hand the caps on at once: what they meet downstream is set first.
    GstCaps* stored =
        gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, storedFormat(), nullptr);
    g_object_set(capsfilter, "caps", stored, nullptr);
    gst_caps_unref(stored);
    const guint timescale = static_cast<guint>(std::min(pts.timescale, kMaxTrackTimescale));
    g_object_set(mux, "trak-timescale", timescale, nullptr);
    GstCaps* caps = gst_video_info_to_caps(&info);
    gst_app_src_set_caps(GST_APP_SRC(appsrc), caps);
    gst_caps_unref(caps);
    queueBytes = GST_VIDEO_INFO_SIZE(&info) * (realTime ? kRealTimeQueueFrames : kQueueFrames);
    g_object_set(appsrc, "max-bytes", static_cast<guint64>(queueBytes), nullptr);
  }

  // A buffer with the frame's pixels in the layout of `info`; null when the planes do not
  // hold a whole frame.
  GstBuffer* copyFrame(const PixelBuffer& pb) {
    ReadLock lock(pb);
    if (!lock.ok() || pb.planeCount() < GST_VIDEO_INFO_N_PLANES(&info)) return nullptr;
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr);
    if (!buffer) return nullptr;
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_WRITE)) {
      gst_buffer_unref(buffer);
      return nullptr;
    }
    bool ok = true;
    for (guint p = 0; p < GST_VIDEO_INFO_N_PLANES(&info) && ok; ++p) {
      const size_t rowBytes = GST_VIDEO_INFO_COMP_WIDTH(&info, p) *
                              static_cast<size_t>(GST_VIDEO_INFO_COMP_PSTRIDE(&info, p));
      const size_t rows = GST_VIDEO_INFO_COMP_HEIGHT(&info, p);
      const size_t srcStride = pb.bytesPerRowOfPlane(p);
      const uint8_t* src = pb.baseAddressOfPlane(p);
      if (!src || srcStride < rowBytes || pb.heightOfPlane(p) < rows) {
        ok = false;
        break;
      }
      const size_t dstStride = static_cast<size_t>(GST_VIDEO_INFO_PLANE_STRIDE(&info, p));
      uint8_t* dst = map.data + GST_VIDEO_INFO_PLANE_OFFSET(&info, p);
      for (size_t y = 0; y < rows; ++y)
        std::memcpy(dst + y * dstStride, src + y * srcStride, rowBytes);
    }
    gst_buffer_unmap(buffer, &map);
    if (!ok) {
      gst_buffer_unref(buffer);
      return nullptr;
    }
    return buffer;
  }

  // Checks the sample against the movie and, for the first one, fixes the movie's format;
  // fills the frame's times. Mutex held.
  bool admit(const SampleBuffer& sample, const MovieWriterInput::State& from, int64_t* ns,
             int64_t* ptsNs, int64_t* durationNs) {
    if (status != MovieWriterStatus::Writing)
      return refuse(
          formatString("The writer is not writing (status %ld).", static_cast<long>(status)));
    if (finishing) return refuse("The movie is being finished.");
    bool finished = false, realTime = false;
    {
      std::lock_guard inputLock(from.mutex);
      finished = from.finished;
      realTime = from.realTime;
    }
    if (finished) return refuse("The input was marked as finished.");
    if (!sessionStarted) return refuse("No session was started.");
    if (sample.isNull()) return refuse("The sample has no image buffer.");
    if (!sample.dataIsReady()) return refuse("The sample's data is not ready.");
    if (!toNanoseconds(sample.presentationTimeStamp(), ns))
      return refuse("The sample has no valid presentation time stamp.");
    if (*ns < sessionStartNs) return refuse("The sample's time is before the session start.");
    if (haveFirstFrame && *ns <= lastNs)
      return refuse("The sample's time is not after the previous sample's.");
    const PixelBuffer& pb = sample.imageBuffer();
    if (videoFormatFor(pb.pixelFormat()) == GST_VIDEO_FORMAT_UNKNOWN)
      return refuse(formatString("The pixel format 0x%08x is not supported.", pb.pixelFormat()));
    if (pb.width() < kMinSide || pb.height() < kMinSide || pb.width() > kMaxSide ||
        pb.height() > kMaxSide)
      return refuse(
          formatString("The frame size %zux%zu is outside 16..16384.", pb.width(), pb.height()));
    if (configured && (pb.pixelFormat() != pixelFormat ||
                       pb.width() != static_cast<size_t>(GST_VIDEO_INFO_WIDTH(&info)) ||
                       pb.height() != static_cast<size_t>(GST_VIDEO_INFO_HEIGHT(&info))))
      return refuse("The frame's format or size differs from the movie's.");
    if (configured &&
        gst_app_src_get_current_level_bytes(GST_APP_SRC(appsrc)) >= kHardQueueFactor * queueBytes)
      return refuse("The writer's queue is full.");
    if (!configured) {
      configure(pb, sample.presentationTimeStamp(), realTime);
      configured = true;
    }
    *ptsNs = *ns - (haveFirstFrame ? firstNs : *ns);
    // qtmux times each frame by the next one's time stamp; only the last frame keeps its own
    // duration, and a frame lasting 0 is dropped by players. Without one, a frame lasts as
    // long as the step before it (a lone first frame: 1/30 s).
    if (!toNanoseconds(sample.duration(), durationNs) || *durationNs <= 0)
      *durationNs = haveFirstFrame ? *ns - lastNs : kDefaultFrameNs;
    return true;
  }

  bool append(const SampleBuffer& sample, const std::shared_ptr<MovieWriterInput::State>& from) {
    // One append at a time, so frames reach appsrc in the order they were admitted. The state
    // lock is not held while copying and pushing: status queries stay quick, and nothing
    // GStreamer does on this thread can wait for a lock its own bus handler needs.
    std::lock_guard serial(appendMutex);
    int64_t ns = 0, ptsNs = 0, durationNs = 0;
    {
      std::lock_guard lock(mutex);
      if (!admit(sample, *from, &ns, &ptsNs, &durationNs)) return false;
    }
    GstBuffer* buffer = copyFrame(sample.imageBuffer());  // `info` is fixed once configured
    GstFlowReturn flow = GST_FLOW_ERROR;
    if (buffer) {
      GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer) = static_cast<GstClockTime>(ptsNs);
      GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(durationNs);
      flow = gst_app_src_push_buffer(GST_APP_SRC(appsrc), buffer);
    }
    std::lock_guard lock(mutex);
    if (!buffer) return refuse("The frame's pixels could not be read.");
    if (flow != GST_FLOW_OK) return refuse("The movie pipeline refused the frame.");
    if (!haveFirstFrame) {
      haveFirstFrame = true;
      firstNs = ns;
    }
    lastNs = ns;
    lastRefusal.clear();
    return true;
  }

  void finish(std::function<void()> handler) {
    enum { JustCall, Stop, Drain } action = JustCall;
    {
      std::lock_guard lock(mutex);
      if (!finishing && pipeline) {
        finishing = true;
        action = status == MovieWriterStatus::Writing ? Drain : Stop;
      }
    }
    if (action == Drain) gst_app_src_end_of_stream(GST_APP_SRC(appsrc));
    std::thread([self = shared_from_this(), action, handler = std::move(handler)] {
      if (action != JustCall) {
        bool drained = true;
        if (action == Drain) {
          std::unique_lock lock(self->mutex);
          drained = self->changed.wait_for(lock, kFinishTimeout, [&] {
            return self->endOfStream || self->status != MovieWriterStatus::Writing;
          });
        }
        gst_element_set_state(self->pipeline, GST_STATE_NULL);
        std::lock_guard lock(self->mutex);
        if (self->status == MovieWriterStatus::Writing) {
          if (drained && self->endOfStream)
            self->status = MovieWriterStatus::Completed;
          else
            self->fail("Finishing the movie timed out.");
        }
      }
      try {
        if (handler) handler();
      } catch (...) {
        // A completion handler's exception has nowhere to go on this thread.
      }
    }).detach();
  }

  void abandon() {
    {
      std::lock_guard lock(mutex);
      if (finishing || !pipeline) return;
      finishing = true;
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
  }
};

std::shared_ptr<MovieWriterInput> MovieWriterInput::videoInput(MovieVideoCodec codec) {
  auto state = std::make_shared<State>();
  state->codec = codec;
  return std::shared_ptr<MovieWriterInput>(new MovieWriterInput(std::move(state)));
}

MovieVideoCodec MovieWriterInput::codec() const {
  std::lock_guard lock(d_->mutex);
  return d_->codec;
}

void MovieWriterInput::setExpectsMediaDataInRealTime(bool realTime) {
  std::lock_guard lock(d_->mutex);
  d_->realTime = realTime;
}

bool MovieWriterInput::expectsMediaDataInRealTime() const {
  std::lock_guard lock(d_->mutex);
  return d_->realTime;
}

bool MovieWriterInput::isReadyForMoreMediaData() const {
  std::shared_ptr<MovieWriterCore> core;
  {
    std::lock_guard lock(d_->mutex);
    core = d_->core.lock();
  }
  return !core || core->isReady();
}

bool MovieWriterInput::appendSampleBuffer(const SampleBuffer& sample) {
  std::shared_ptr<MovieWriterCore> core;
  {
    std::lock_guard lock(d_->mutex);
    core = d_->core.lock();
  }
  return core && core->append(sample, d_);
}

void MovieWriterInput::markAsFinished() {
  std::lock_guard lock(d_->mutex);
  d_->finished = true;
}

std::shared_ptr<MovieWriter> MovieWriter::create(const std::string& fileURL, MovieFileType fileType,
                                                 std::string* error) {
  std::string reason;
  const std::optional<std::string> path = pathFromFileURL(fileURL);
  if (fileType != MovieFileType::QuickTimeMovie) reason = "The file type is not supported.";
  if (!path || path->empty() || path->back() == '/')
    reason = "\"" + fileURL + "\" is not the URL of a local file.";
  if (reason.empty()) ensureGStreamer(&reason);
  if (!reason.empty()) {
    if (error) *error = reason;
    return nullptr;
  }
  auto core = std::make_shared<MovieWriterCore>();
  core->url = fileURL;
  core->path = *path;
  return std::shared_ptr<MovieWriter>(new MovieWriter(std::move(core)));
}

MovieWriter::~MovieWriter() {
  core_->abandon();
}

bool MovieWriter::addInput(const std::shared_ptr<MovieWriterInput>& input) {
  if (!input) return false;
  std::lock_guard lock(core_->mutex);
  std::lock_guard inputLock(input->d_->mutex);
  if (core_->input || core_->started || input->d_->attached) return false;
  input->d_->attached = true;
  input->d_->core = core_;
  core_->input = input->d_;
  return true;
}

bool MovieWriter::startWriting() {
  return core_->startWriting();
}

void MovieWriter::startSessionAtSourceTime(MediaTime time) {
  core_->startSession(time);
}

MovieWriterStatus MovieWriter::status() const {
  std::lock_guard lock(core_->mutex);
  return core_->status;
}

std::string MovieWriter::error() const {
  std::lock_guard lock(core_->mutex);
  return core_->status == MovieWriterStatus::Failed ? core_->failure : core_->lastRefusal;
}

void MovieWriter::finishWriting(std::function<void()> completionHandler) {
  core_->finish(std::move(completionHandler));
}

const std::string& MovieWriter::outputURL() const {
  return core_->url;
}

}  // namespace kwq::platform

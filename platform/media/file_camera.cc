#include "platform/media/file_camera.h"

#include <gst/pbutils/pbutils.h>

#include <mutex>

#include "kwqimage/CaptureSession.h"
#include "kwqimage/DispatchQueue.h"
#include "kwqimage/Log.h"
#include "platform/media/capture_pipeline.h"
#include "platform/media/gst_init.h"

namespace kwq::platform {
namespace {

// Loops the pipeline: a segment seek to the start whenever a pass over the file ends. Seeks run
// on the global queue (never on a streaming thread), and never after the run has stopped.
struct Looper {
  std::mutex mutex;
  bool stopped = false;

  void seekToStart(GstElement* pipeline, bool flush) {
    std::lock_guard lock(mutex);
    if (stopped) return;
    const auto flags =
        static_cast<GstSeekFlags>(GST_SEEK_FLAG_SEGMENT | (flush ? GST_SEEK_FLAG_FLUSH : 0));
    gst_element_seek(pipeline, 1.0, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET, 0,
                     GST_SEEK_TYPE_NONE, GST_CLOCK_TIME_NONE);
  }
};

class FileSource final : public CameraSource {
 public:
  explicit FileSource(const std::string& path) : looper_(std::make_shared<Looper>()) {
    GstElement* src = gst_element_factory_make("filesrc", nullptr);
    if (src) g_object_set(src, "location", path.c_str(), nullptr);
    bin_ = makeDecodingSourceBin(src, nullptr);
  }

  ~FileSource() override { willStop(); }

  GstElement* element() override { return bin_; }
  bool isLive() const override { return false; }

  void willPlay(GstElement* pipeline) override { looper_->seekToStart(pipeline, true); }

  void willStop() override {
    std::lock_guard lock(looper_->mutex);
    looper_->stopped = true;
  }

  void handleBusMessage(GstElement* pipeline, GstMessage* message) override {
    const GstMessageType type = GST_MESSAGE_TYPE(message);
    if (type != GST_MESSAGE_SEGMENT_DONE && type != GST_MESSAGE_EOS) return;
    // A segment seek continues the time line; after a plain end of stream (a demuxer that
    // ignores segment seeks) only a flushing seek restarts the file.
    const bool flush = type == GST_MESSAGE_EOS;
    gst_object_ref(pipeline);
    DispatchQueue::global().async([looper = looper_, pipeline, flush] {
      looper->seekToStart(pipeline, flush);
      gst_object_unref(pipeline);
    });
  }

 private:
  GstElement* bin_ = nullptr;
  std::shared_ptr<Looper> looper_;
};

class FileBackend final : public CameraBackend {
 public:
  FileBackend(std::string path, Size size) : path_(std::move(path)), size_(size) {}

  CameraCapabilities capabilities() const override { return {}; }

  std::optional<Size> sizeForPreset(std::string_view preset) const override {
    if (preset == AVCaptureSessionPresetHigh) return size_;
    return fixedPresetSize(preset);
  }

  std::unique_ptr<CameraSource> makeSource(size_t, size_t, std::string* error) override {
    auto source = std::make_unique<FileSource>(path_);
    if (!source->element()) {
      if (error) *error = "the GStreamer elements filesrc, decodebin or videoconvert are missing";
      return nullptr;
    }
    return source;
  }

 private:
  const std::string path_;
  const Size size_;
};

}  // namespace

std::shared_ptr<CameraBackend> makeFileCameraBackend(const std::string& path) {
  if (path.empty() || !ensureGStreamer()) return nullptr;
  GError* error = nullptr;
  gchar* uri = gst_filename_to_uri(path.c_str(), &error);
  if (!uri) {
    if (error) g_error_free(error);
    return nullptr;
  }
  GstDiscoverer* discoverer = gst_discoverer_new(5 * GST_SECOND, &error);
  if (!discoverer) {
    if (error) g_error_free(error);
    g_free(uri);
    return nullptr;
  }
  GstDiscovererInfo* info = gst_discoverer_discover_uri(discoverer, uri, &error);
  if (error) g_error_free(error);
  Size size;
  if (info && gst_discoverer_info_get_result(info) == GST_DISCOVERER_OK) {
    GList* streams = gst_discoverer_info_get_video_streams(info);
    for (GList* s = streams; s; s = s->next) {
      auto* video = GST_DISCOVERER_VIDEO_INFO(s->data);
      if (gst_discoverer_video_info_is_image(video)) continue;
      const double w = gst_discoverer_video_info_get_width(video);
      const double h = gst_discoverer_video_info_get_height(video);
      if (w > 0 && h > 0) {
        size = {w, h};
        break;
      }
    }
    gst_discoverer_stream_info_list_free(streams);
  }
  if (info) gst_discoverer_info_unref(info);
  g_object_unref(discoverer);
  g_free(uri);
  if (size.width <= 0) return nullptr;
  return std::make_shared<FileBackend>(path, size);
}

}  // namespace kwq::platform

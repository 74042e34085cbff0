#include "platform/media/v4l2_camera.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>

#include "kwqimage/CaptureSession.h"
#include "platform/media/capture_internal.h"
#include "platform/media/capture_pipeline.h"
#include "platform/media/gst_init.h"
#include "platform/media/v4l2_controls.h"

namespace kwq::platform {
namespace {

struct NodeInfo {
  std::string card;
  std::string busInfo;
  std::vector<Size> sizes;
};

// Capability and frame sizes of a capture node; none when it does not capture video.
std::optional<NodeInfo> probeNode(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  v4l2_capability cap{};
  std::optional<NodeInfo> info;
  if (xioctl(fd, VIDIOC_QUERYCAP, &cap) == 0) {
    const uint32_t caps =
        (cap.capabilities & V4L2_CAP_DEVICE_CAPS) ? cap.device_caps : cap.capabilities;
    if ((caps & V4L2_CAP_VIDEO_CAPTURE) && (caps & V4L2_CAP_STREAMING)) {
      info.emplace();
      info->card.assign(reinterpret_cast<const char*>(cap.card),
                        strnlen(reinterpret_cast<const char*>(cap.card), sizeof cap.card));
      info->busInfo.assign(
          reinterpret_cast<const char*>(cap.bus_info),
          strnlen(reinterpret_cast<const char*>(cap.bus_info), sizeof cap.bus_info));
      for (uint32_t f = 0; f < 64; ++f) {
        v4l2_fmtdesc fmt{};
        fmt.index = f;
        fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (xioctl(fd, VIDIOC_ENUM_FMT, &fmt) != 0) break;
        for (uint32_t s = 0; s < 256; ++s) {
          v4l2_frmsizeenum size{};
          size.index = s;
          size.pixel_format = fmt.pixelformat;
          if (xioctl(fd, VIDIOC_ENUM_FRAMESIZES, &size) != 0) break;
          if (size.type != V4L2_FRMSIZE_TYPE_DISCRETE) break;  // stepwise: any size, scaled
          const Size sz{static_cast<double>(size.discrete.width),
                        static_cast<double>(size.discrete.height)};
          if (std::find(info->sizes.begin(), info->sizes.end(), sz) == info->sizes.end())
            info->sizes.push_back(sz);
        }
      }
    }
  }
  close(fd);
  return info;
}

int64_t presetArea(const Size& s) {
  return static_cast<int64_t>(s.width) * static_cast<int64_t>(s.height);
}

class V4l2Source final : public CameraSource {
 public:
  V4l2Source(const std::string& path, size_t width, size_t height, bool sizeListed) {
    GstElement* src = gst_element_factory_make("v4l2src", nullptr);
    if (src) g_object_set(src, "device", path.c_str(), nullptr);
    GstCaps* filter = nullptr;
    if (sizeListed) {
      // Raw or MJPEG at the preset's size; decodebin decodes what the camera picks.
      const int w = static_cast<int>(width), h = static_cast<int>(height);
      filter = gst_caps_new_simple("video/x-raw", "width", G_TYPE_INT, w, "height", G_TYPE_INT, h,
                                   nullptr);
      gst_caps_append(filter, gst_caps_new_simple("image/jpeg", "width", G_TYPE_INT, w, "height",
                                                  G_TYPE_INT, h, nullptr));
    }
    bin_ = makeDecodingSourceBin(src, filter);
  }
  GstElement* element() override { return bin_; }
  bool isLive() const override { return true; }

 private:
  GstElement* bin_ = nullptr;
};

class V4l2Backend final : public CameraBackend {
 public:
  V4l2Backend(std::string path, std::vector<Size> sizes,
              std::shared_ptr<V4l2ControlDevice> controls)
      : path_(std::move(path)), sizes_(std::move(sizes)), map_(std::move(controls)) {}

  CameraCapabilities capabilities() const override {
    std::lock_guard lock(mutex_);
    return map_.capabilities();
  }
  CameraControls initialControls() const override {
    std::lock_guard lock(mutex_);
    return map_.currentControls();
  }
  std::optional<Size> sizeForPreset(std::string_view preset) const override {
    return v4l2SizeForPreset(sizes_, preset);
  }
  std::optional<Size> stillSize() const override {
    std::optional<Size> largest;
    for (const Size& s : sizes_)
      if (!largest || presetArea(s) > presetArea(*largest)) largest = s;
    return largest;
  }
  std::unique_ptr<CameraSource> makeSource(size_t width, size_t height,
                                           std::string* error) override {
    const bool listed =
        std::find(sizes_.begin(), sizes_.end(),
                  Size{static_cast<double>(width), static_cast<double>(height)}) != sizes_.end();
    auto source = std::make_unique<V4l2Source>(path_, width, height, listed);
    if (!source->element()) {
      if (error) *error = "the GStreamer elements v4l2src or decodebin are missing";
      return nullptr;
    }
    return source;
  }
  void applyControls(const CameraControls& controls, bool focusPassRequested) override {
    {
      std::lock_guard lock(mutex_);
      map_.apply(controls, focusPassRequested);
    }
    // The lens runs its pass on its own; V4L2 has no portable completion report.
    if (focusPassRequested && onFocusPassFinished) {
      auto done = onFocusPassFinished;
      DispatchQueue::global().async(done);
    }
  }
  int64_t prepareStill(const CameraControls& controls) override {
    std::lock_guard lock(mutex_);
    map_.fireFlash(controls);
    return -1;
  }
  // The same camera still answers at the node: a re-plugged camera may come back at another
  // node, and another camera may take this one's.
  bool isConnected() const override {
    auto node = probeNode(path_);
    return node && node->busInfo == busInfo_;
  }
  void setBusInfo(std::string busInfo) { busInfo_ = std::move(busInfo); }
  std::optional<int64_t> reportedPosition() const {
    std::lock_guard lock(mutex_);
    return map_.position();
  }

 private:
  const std::string path_;
  const std::vector<Size> sizes_;
  std::string busInfo_;
  mutable std::mutex mutex_;
  V4l2ControlMap map_;
};

}  // namespace

std::optional<Size> v4l2SizeForPreset(const std::vector<Size>& sizes, std::string_view preset) {
  if (preset == AVCaptureSessionPresetHigh) {
    std::optional<Size> best;
    for (const Size& s : sizes)
      if (s.width <= 1920 && s.height <= 1080 && (!best || presetArea(s) > presetArea(*best)))
        best = s;
    return best.value_or(Size{1280, 720});
  }
  const auto fixed = fixedPresetSize(preset);
  if (!fixed) return std::nullopt;
  if (sizes.empty() || std::find(sizes.begin(), sizes.end(), *fixed) != sizes.end()) return fixed;
  return std::nullopt;
}

std::vector<int64_t> assignV4l2Positions(const std::vector<std::optional<int64_t>>& reported) {
  std::vector<int64_t> positions;
  int unreported = 0;
  for (const auto& r : reported) {
    if (r) {
      positions.push_back(*r);
      continue;
    }
    positions.push_back(unreported == 0   ? AVCaptureDevicePositionFront
                        : unreported == 1 ? AVCaptureDevicePositionBack
                                          : AVCaptureDevicePositionUnspecified);
    ++unreported;
  }
  return positions;
}

bool devicePathLess(const std::string& a, const std::string& b) {
  auto split = [](const std::string& s) {
    size_t i = s.size();
    while (i > 0 && s[i - 1] >= '0' && s[i - 1] <= '9') --i;
    const std::string digits = s.substr(i);
    return std::make_pair(s.substr(0, i), digits.empty() ? -1L : std::stol(digits.substr(0, 9)));
  };
  const auto x = split(a), y = split(b);
  if (x != y) return x < y;
  return a < b;
}

std::shared_ptr<CaptureDevice> makeV4l2Camera(const std::string& path,
                                              std::optional<int64_t> position) {
  auto node = probeNode(path);
  if (!node) return nullptr;
  std::shared_ptr<V4l2ControlDevice> controls = openV4l2ControlDevice(path);
  auto backend = std::make_shared<V4l2Backend>(path, node->sizes, controls);
  backend->setBusInfo(node->busInfo);
  const int64_t pos =
      position ? *position : backend->reportedPosition().value_or(AVCaptureDevicePositionFront);
  const std::string id = "v4l2:" + (node->busInfo.empty() ? path : node->busInfo + ":" + path);
  return makeCaptureDevice(id, node->card.empty() ? path : node->card, pos, std::move(backend));
}

std::vector<std::shared_ptr<CaptureDevice>> discoverV4l2Cameras() {
  if (!ensureGStreamer()) return {};
  std::vector<std::string> paths;
  GstDeviceMonitor* monitor = gst_device_monitor_new();
  gst_device_monitor_add_filter(monitor, "Video/Source", nullptr);
  GList* devices = gst_device_monitor_get_devices(monitor);
  for (GList* l = devices; l; l = l->next) {
    GstStructure* props = gst_device_get_properties(GST_DEVICE(l->data));
    if (!props) continue;
    const gchar* path = gst_structure_get_string(props, "api.v4l2.path");
    if (!path) {
      const gchar* api = gst_structure_get_string(props, "device.api");
      if (api && std::strcmp(api, "v4l2") == 0)
        path = gst_structure_get_string(props, "device.path");
    }
    if (path && std::find(paths.begin(), paths.end(), path) == paths.end()) paths.push_back(path);
    gst_structure_free(props);
  }
  g_list_free_full(devices, gst_object_unref);
  gst_object_unref(monitor);
  std::sort(paths.begin(), paths.end(), devicePathLess);

  // Probe first, so that the position rule sees every camera's orientation.
  std::vector<std::string> capturePaths;
  std::vector<std::optional<int64_t>> reported;
  for (const auto& path : paths) {
    if (!probeNode(path)) continue;  // metadata nodes and other non-capture devices
    auto controls = openV4l2ControlDevice(path);
    capturePaths.push_back(path);
    reported.push_back(controls ? V4l2ControlMap(std::move(controls)).position() : std::nullopt);
  }
  const auto positions = assignV4l2Positions(reported);
  std::vector<std::shared_ptr<CaptureDevice>> cameras;
  for (size_t i = 0; i < capturePaths.size(); ++i)
    if (auto camera = makeV4l2Camera(capturePaths[i], positions[i])) cameras.push_back(camera);
  return cameras;
}

}  // namespace kwq::platform

#include "recording/recording_support.h"

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "platform/media/gst_init.h"

namespace kwq::test {
namespace {

void linkToSink(GstElement*, GstPad* pad, gpointer sink) {
  GstPad* sinkPad = gst_element_get_static_pad(GST_ELEMENT(sink), "sink");
  if (!gst_pad_is_linked(sinkPad)) gst_pad_link(pad, sinkPad);
  gst_object_unref(sinkPad);
}

std::string busError(GstElement* pipeline) {
  GstBus* bus = gst_element_get_bus(pipeline);
  std::string text;
  if (GstMessage* m = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR)) {
    GError* err = nullptr;
    gst_message_parse_error(m, &err, nullptr);
    text = err ? err->message : "error";
    if (err) g_error_free(err);
    gst_message_unref(m);
  }
  gst_object_unref(bus);
  return text;
}

uint8_t lumaAt(size_t x, size_t y, int i) {
  return static_cast<uint8_t>(x * 7 + y * 13 + i * 29);
}
uint8_t cbAt(size_t cx, size_t cy, int i) {
  return static_cast<uint8_t>(cx * 5 + cy * 11 + i * 3 + 17);
}
uint8_t crAt(size_t cx, size_t cy, int i) {
  return static_cast<uint8_t>(cx * 3 + cy * 17 + i * 7 + 99);
}
uint8_t bgraAt(size_t x, size_t y, int i, int c) {
  switch (c) {
    case 0:
      return static_cast<uint8_t>(x * 3 + y * 5 + i);
    case 1:
      return static_cast<uint8_t>(x * 11 + y * 2 + 2 * i);
    case 2:
      return static_cast<uint8_t>(x + y * 7 + 3 * i);
    default:
      return 255;
  }
}

}  // namespace

TempDir::TempDir(const std::string& prefix) {
  std::string name = "/tmp/" + prefix + "-XXXXXX";
  if (::mkdtemp(name.data())) path = name;
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!path.empty()) std::filesystem::remove_all(path, ignored);
}

PixelBuffer patternFrame(uint32_t pixelFormat, size_t width, size_t height, int index,
                         size_t rowAlignment) {
  PixelBuffer pb = PixelBuffer::allocate(pixelFormat, width, height, rowAlignment);
  if (!pb.lockBaseAddress()) return pb;
  for (size_t p = 0; p < pb.planeCount(); ++p) {
    uint8_t* base = pb.baseAddressOfPlane(p);
    const size_t stride = pb.bytesPerRowOfPlane(p);
    std::memset(base, 0xEE, stride * pb.heightOfPlane(p));
    for (size_t y = 0; y < pb.heightOfPlane(p); ++y) {
      uint8_t* row = base + y * stride;
      for (size_t x = 0; x < pb.widthOfPlane(p); ++x) {
        if (pixelFormat == kPixelFormatBGRA) {
          for (int c = 0; c < 4; ++c) row[4 * x + c] = bgraAt(x, y, index, c);
        } else if (p == 0) {
          row[x] = lumaAt(x, y, index);
        } else {
          row[2 * x] = cbAt(x, y, index);
          row[2 * x + 1] = crAt(x, y, index);
        }
      }
    }
  }
  pb.unlockBaseAddress();
  return pb;
}

int patternDifference(const StoredFrame& f, uint32_t pixelFormat, int index) {
  const bool bgra = pixelFormat == kPixelFormatBGRA;
  if (f.format != (bgra ? "RGB" : "UYVY") || !f.data) return 256;
  int worst = 0;
  auto check = [&](uint8_t stored, uint8_t expected) {
    worst = std::max(worst, std::abs(int{stored} - int{expected}));
  };
  for (int y = 0; y < f.height; ++y) {
    const uint8_t* row = f.data + static_cast<size_t>(y) * f.stride;
    for (int x = 0; x < f.width; ++x) {
      if (bgra) {
        for (int c = 0; c < 3; ++c) check(row[3 * x + c], bgraAt(x, y, index, 2 - c));
      } else {
        check(row[2 * x + 1], lumaAt(x, y, index));
        if (x % 2 == 0) {
          check(row[2 * x], cbAt(x / 2, y / 2, index));
          check(row[2 * x + 2], crAt(x / 2, y / 2, index));
        }
      }
    }
  }
  return worst;
}

MovieSummary readMovie(const std::string& path,
                       const std::function<void(const StoredFrame&)>& onFrame, bool decode) {
  MovieSummary summary;
  if (!platform::ensureGStreamer(&summary.error)) return summary;
  GstElement* pipeline = gst_pipeline_new(nullptr);
  GstElement* src = gst_element_factory_make("filesrc", nullptr);
  GstElement* demux = gst_element_factory_make("qtdemux", nullptr);
  GstElement* sink = gst_element_factory_make("appsink", nullptr);
  gst_bin_add_many(GST_BIN(pipeline), src, demux, sink, nullptr);
  gst_element_link(src, demux);
  if (decode) {
    GstElement* decoder = gst_element_factory_make("decodebin", nullptr);
    gst_bin_add(GST_BIN(pipeline), decoder);
    g_signal_connect(demux, "pad-added", G_CALLBACK(linkToSink), decoder);
    g_signal_connect(decoder, "pad-added", G_CALLBACK(linkToSink), sink);
  } else {
    g_signal_connect(demux, "pad-added", G_CALLBACK(linkToSink), sink);
  }
  g_object_set(src, "location", path.c_str(), nullptr);
  g_object_set(sink, "sync", FALSE, "max-buffers", 4u, nullptr);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  for (;;) {
    GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 20 * GST_SECOND);
    if (!sample) break;
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    GstVideoInfo info;
    GstVideoFrame frame;
    if (gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) &&
        gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ)) {
      StoredFrame f;
      f.ptsNs = static_cast<int64_t>(GST_BUFFER_PTS(buffer));
      f.durationNs = GST_BUFFER_DURATION_IS_VALID(buffer)
                         ? static_cast<int64_t>(GST_BUFFER_DURATION(buffer))
                         : -1;
      f.format = gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(&info));
      f.width = GST_VIDEO_INFO_WIDTH(&info);
      f.height = GST_VIDEO_INFO_HEIGHT(&info);
      f.data = static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
      f.stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
      f.planes = static_cast<int>(GST_VIDEO_FRAME_N_PLANES(&frame));
      for (int p = 0; p < f.planes && p < 4; ++p) {
        f.plane[p] = static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, p));
        f.planeStride[p] = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, p);
      }
      if (summary.frames == 0) summary.firstPtsNs = f.ptsNs;
      summary.endNs = f.ptsNs + std::max<int64_t>(f.durationNs, 0);
      ++summary.frames;
      if (onFrame) onFrame(f);
      gst_video_frame_unmap(&frame);
    }
    gst_sample_unref(sample);
  }
  summary.error = busError(pipeline);
  if (summary.error.empty() && summary.frames == 0) summary.error = "no video frames";
  summary.opened = summary.error.empty() && gst_app_sink_is_eos(GST_APP_SINK(sink));
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
  return summary;
}

}  // namespace kwq::test

// GLib keeps the first block of its quark table (16 KB, allocated while the library
// initialises) when the table grows, for readers that take no lock; under LeakSanitizer that
// block shows as a leak in any process that registers enough GStreamer types. Only allocations
// made during shared-library initialisation are exempt, which needs full stacks at malloc time.
// (Without a sanitizer these two functions are never called.)
extern "C" const char* __asan_default_options() {
  return "fast_unwind_on_malloc=0";
}
extern "C" const char* __lsan_default_suppressions() {
  return "leak:_dl_init\n";
}

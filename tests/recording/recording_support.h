#pragma once

// Helpers for the recorder and movie writer tests: a frame pattern whose every byte depends on
// plane, position and frame number, movies read back as stored (filesrc ! qtdemux ! appsink,
// no conversion), and waiting for a condition with a deadline.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "kwqimage/SampleBuffer.h"

namespace kwq::test {

/// Frame `index` of the pattern in 420f (or 420v) or BGRA; row padding is filled with 0xEE.
PixelBuffer patternFrame(uint32_t pixelFormat, size_t width, size_t height, int index,
                         size_t rowAlignment = 64);

/// One stored frame, valid during the callback.
struct StoredFrame {
  int64_t ptsNs = 0;
  int64_t durationNs = -1;  // -1 when the movie gives none
  std::string format;       // GStreamer's name: "UYVY", "RGB"
  int width = 0, height = 0;
  const uint8_t* data = nullptr;  // first plane
  int stride = 0;
  int planes = 0;  // every plane, for decoded frames (I420, NV12, ...)
  const uint8_t* plane[4] = {};
  int planeStride[4] = {};
};

/// Largest difference of any stored sample from pattern frame `index` as the writer stores it
/// (420f as UYVY with each chroma pair on both of its rows, BGRA as RGB) over the stored size;
/// 256 when the stored layout is not the expected one.
int patternDifference(const StoredFrame& frame, uint32_t pixelFormat, int index);

struct MovieSummary {
  bool opened = false;  // a video track was found and read to its end without error
  std::string error;
  size_t frames = 0;
  int64_t firstPtsNs = -1;
  int64_t endNs = 0;  // last frame's pts plus its duration
};

/// Reads the movie at `path`, every frame through `onFrame` when given. With `decode`, encoded
/// frames go through GStreamer's decoders (decodebin) first: a movie that reads this way plays.
MovieSummary readMovie(const std::string& path,
                       const std::function<void(const StoredFrame&)>& onFrame = {},
                       bool decode = false);

/// A new folder /tmp/<prefix>-XXXXXX, removed with its contents when this goes; `path` is
/// empty when it could not be made.
struct TempDir {
  explicit TempDir(const std::string& prefix);
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  std::filesystem::path path;
};

/// Polls `condition` until it holds or `timeout` passes; true when it held.
template <class Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace kwq::test

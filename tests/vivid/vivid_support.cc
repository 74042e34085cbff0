#include "vivid/vivid_support.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "support/main_loop.h"

namespace kwq::vivid {
namespace {

int openNode(const std::string& path) {
  return open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

int ioctlRetry(int fd, unsigned long request, void* arg) {
  int r;
  do r = ioctl(fd, request, arg);
  while (r < 0 && errno == EINTR);
  return r;
}

int clampByte(double v) {
  return static_cast<int>(std::clamp(v + 0.5, 0.0, 255.0));
}

}  // namespace

bool inGuest() {
  return std::getenv("KWQ_IN_VM") != nullptr && access("/dev/video0", F_OK) == 0;
}

std::string nodePath(int n) {
  return "/dev/video" + std::to_string(n);
}

bool setControl(const std::string& path, uint32_t id, int64_t value) {
  const int fd = openNode(path);
  if (fd < 0) return false;
  v4l2_control control{};
  control.id = id;
  control.value = static_cast<int32_t>(value);
  const bool ok = ioctlRetry(fd, VIDIOC_S_CTRL, &control) == 0;
  close(fd);
  return ok;
}

Unplug::Unplug(const std::string& path) : fd_(openNode(path)) {
  if (fd_ < 0) return;
  // The driver's private controls are found by name, walking the list.
  v4l2_queryctrl q{};
  q.id = V4L2_CTRL_FLAG_NEXT_CTRL;
  std::optional<uint32_t> id;
  while (ioctlRetry(fd_, VIDIOC_QUERYCTRL, &q) == 0) {
    if (std::strcmp(reinterpret_cast<const char*>(q.name), "Disconnect") == 0) id = q.id;
    q.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
  }
  if (id) {
    v4l2_control control{};
    control.id = *id;
    control.value = 1;
    pressed_ = ioctlRetry(fd_, VIDIOC_S_CTRL, &control) == 0;
  }
}

void Unplug::replug() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool waitForStreaming(const std::string& path, std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  do {
    const int fd = openNode(path);
    if (fd >= 0) {
      v4l2_requestbuffers req{};
      req.count = 1;
      req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
      req.memory = V4L2_MEMORY_MMAP;
      const bool busy = ioctlRetry(fd, VIDIOC_REQBUFS, &req) != 0 && errno == EBUSY;
      if (!busy) {
        req.count = 0;
        ioctlRetry(fd, VIDIOC_REQBUFS, &req);
      }
      close(fd);
      if (busy) return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  } while (std::chrono::steady_clock::now() < end);
  return false;
}

int barError(const SampleBuffer& frame) {
  const PixelBuffer& p = frame.imageBuffer();
  if (p.isNull() || p.width() < 64 || p.height() < 16) return 255;
  const bool bgra = p.pixelFormat() == kPixelFormatBGRA;
  if (!bgra && p.pixelFormat() != kPixelFormat420f) return 255;
  if (!p.lockBaseAddress(kPixelBufferLockReadOnly)) return 255;
  int worst = 0;
  const size_t w = p.width(), h = p.height();
  for (size_t y = h * 2 / 5; y < h * 19 / 20; y += std::max<size_t>(1, h / 20)) {
    for (int bar = 0; bar < 8; ++bar) {
      const size_t x = (2 * bar + 1) * w / 16;
      const Rgb c = kBars[bar];
      if (bgra) {
        const uint8_t* px = p.baseAddressOfPlane(0) + y * p.bytesPerRowOfPlane(0) + 4 * x;
        worst =
            std::max({worst, std::abs(px[0] - c.b), std::abs(px[1] - c.g), std::abs(px[2] - c.r)});
      } else {
        // Full-range BT.601, as the engine's 420f frames are.
        const int luma = clampByte(0.299 * c.r + 0.587 * c.g + 0.114 * c.b);
        const int cb = clampByte(128 - 0.168736 * c.r - 0.331264 * c.g + 0.5 * c.b);
        const int cr = clampByte(128 + 0.5 * c.r - 0.418688 * c.g - 0.081312 * c.b);
        const uint8_t* yp = p.baseAddressOfPlane(0) + y * p.bytesPerRowOfPlane(0) + x;
        const uint8_t* uv = p.baseAddressOfPlane(1) + (y / 2) * p.bytesPerRowOfPlane(1) + (x & ~1u);
        worst = std::max({worst, std::abs(*yp - luma), std::abs(uv[0] - cb), std::abs(uv[1] - cr)});
      }
    }
  }
  p.unlockBaseAddress(kPixelBufferLockReadOnly);
  return worst;
}

void FrameCounter::captureOutput(VideoDataOutput&, const SampleBuffer& sample, CaptureConnection&) {
  if (stopped_) ++afterStop_;
  std::lock_guard lock(mutex_);
  last_ = sample;
  times_.push_back(sample.presentationTimeStamp().seconds());
  ++frames_;
}

SampleBuffer FrameCounter::last() const {
  std::lock_guard lock(mutex_);
  return last_;
}

std::vector<double> FrameCounter::timeStamps() const {
  std::lock_guard lock(mutex_);
  return times_;
}

bool FrameCounter::waitForMore(int n, std::chrono::milliseconds timeout) {
  const int target = frames() + n;
  return test::pumpMainContextUntil([&] { return frames() >= target; }, timeout);
}

}  // namespace kwq::vivid

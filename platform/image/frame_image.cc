#include "platform/image/frame_image.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace kwq::platform {
namespace {

uint8_t clampByte(int v) {
  return static_cast<uint8_t>(std::clamp(v, 0, 255));
}

// BT.601 in 16.16 fixed point. Full range: Y as is, chroma about 128. Video range: Y from
// 16..235 and chroma from 16..240 stretched to 0..255 first.
struct YuvCoefficients {
  int yOffset, yScale, rv, gu, gv, bu;
};
constexpr YuvCoefficients kFullRange{0, 65536, 91881, -22554, -46802, 116130};
constexpr YuvCoefficients kVideoRange{16, 76309, 104597, -25675, -53279, 132201};

Image nv12ToRgb(const PixelBuffer& frame, const YuvCoefficients& k) {
  const size_t width = frame.width(), height = frame.height();
  const size_t chromaWidth = (width + 1) / 2, chromaHeight = (height + 1) / 2;
  if (frame.planeCount() < 2 || frame.widthOfPlane(0) < width || frame.heightOfPlane(0) < height ||
      frame.bytesPerRowOfPlane(0) < width || frame.widthOfPlane(1) < chromaWidth ||
      frame.heightOfPlane(1) < chromaHeight || frame.bytesPerRowOfPlane(1) < 2 * chromaWidth)
    return {};
  const uint8_t* luma = frame.baseAddressOfPlane(0);
  const uint8_t* chroma = frame.baseAddressOfPlane(1);
  if (!luma || !chroma) return {};
  const size_t lumaStride = frame.bytesPerRowOfPlane(0);
  const size_t chromaStride = frame.bytesPerRowOfPlane(1);

  std::vector<uint8_t> rgb(width * height * 3);
  for (size_t row = 0; row < height; ++row) {
    const uint8_t* y = luma + row * lumaStride;
    const uint8_t* uv = chroma + (row / 2) * chromaStride;
    uint8_t* out = rgb.data() + row * width * 3;
    for (size_t col = 0; col < width; ++col) {
      const int c = (static_cast<int>(y[col]) - k.yOffset) * k.yScale + 32768;
      const int u = static_cast<int>(uv[(col / 2) * 2]) - 128;
      const int v = static_cast<int>(uv[(col / 2) * 2 + 1]) - 128;
      out[3 * col] = clampByte((c + k.rv * v) >> 16);
      out[3 * col + 1] = clampByte((c + k.gu * u + k.gv * v) >> 16);
      out[3 * col + 2] = clampByte((c + k.bu * u) >> 16);
    }
  }
  return Image::fromBuffer(PixelLayout::RGB24, width, height, width * 3, std::move(rgb));
}

Image bgraCopy(const PixelBuffer& frame) {
  const size_t width = frame.width(), height = frame.height();
  const uint8_t* base = frame.baseAddressOfPlane(0);
  if (!base || frame.bytesPerRowOfPlane(0) < width * 4 || frame.heightOfPlane(0) < height)
    return {};
  return Image::copyFromBytes(PixelLayout::BGRA32Premultiplied, width, height,
                              frame.bytesPerRowOfPlane(0), base);
}

}  // namespace

Image imageFromPixelBuffer(const PixelBuffer& frame) {
  const uint32_t format = frame.pixelFormat();
  if (format != kPixelFormat420f && format != kPixelFormat420v && format != kPixelFormatBGRA)
    return {};
  if (frame.width() == 0 || frame.height() == 0) return {};
  if (!frame.lockBaseAddress(kPixelBufferLockReadOnly)) return {};
  Image image;
  try {
    image = format == kPixelFormatBGRA
                ? bgraCopy(frame)
                : nv12ToRgb(frame, format == kPixelFormat420f ? kFullRange : kVideoRange);
  } catch (const std::bad_alloc&) {
    image = {};
  }
  frame.unlockBaseAddress(kPixelBufferLockReadOnly);
  return image;
}

}  // namespace kwq::platform

namespace kwq {

Image Image::fromPixelBuffer(const PixelBuffer& frame) {
  return platform::imageFromPixelBuffer(frame);
}

}  // namespace kwq

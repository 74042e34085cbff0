#pragma once

// Shared by the rendering tests: pixel reads, PNG dumps and known camera frames.

#include <cstdint>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "kwqimage/Image.h"
#include "kwqimage/SampleBuffer.h"
#include "platform/image/png_codec.h"
#include "support/test_support.h"

namespace kwq::test {

/// One pixel of a premultiplied BGRA render.
struct Pixel {
  int r, g, b, a;
  friend bool operator==(const Pixel&, const Pixel&) = default;
};

inline Pixel pixelAt(const Image& image, size_t x, size_t y) {
  const uint8_t* p = image.bytes().data() + y * image.bytesPerRow() + x * 4;
  return {p[2], p[1], p[0], p[3]};
}

/// True when every channel is within `tolerance`.
inline bool near(Pixel p, Pixel q, int tolerance = 2) {
  return std::abs(p.r - q.r) <= tolerance && std::abs(p.g - q.g) <= tolerance &&
         std::abs(p.b - q.b) <= tolerance && std::abs(p.a - q.a) <= tolerance;
}

inline std::ostream& operator<<(std::ostream& os, const Pixel& p) {
  return os << "rgba(" << p.r << ", " << p.g << ", " << p.b << ", " << p.a << ")";
}

/// Writes the render as `name`.png into the test output folder, for looking at.
inline void savePng(const Image& image, const std::string& name) {
  const auto png = platform::encodePNG(image);
  ASSERT_FALSE(png.empty()) << name;
  std::ofstream(outputDir() + "/" + name + ".png", std::ios::binary)
      .write(reinterpret_cast<const char*>(png.data()), static_cast<std::streamsize>(png.size()));
}

/// The (Y, Cb, Cr) of each quadrant of quadrantFrame(): reddish, greenish, bluish, light.
inline constexpr uint8_t kQuadrantYuv[4][3] = {
    {82, 90, 240}, {145, 54, 34}, {41, 240, 110}, {200, 128, 128}};

/// A 420f frame of `width` x `height` (even) in four flat quadrants: top left, top right,
/// bottom left, bottom right.
inline PixelBuffer quadrantFrame(size_t width, size_t height) {
  PixelBuffer frame = PixelBuffer::allocate(kPixelFormat420f, width, height);
  frame.lockBaseAddress();
  for (size_t y = 0; y < height; ++y) {
    uint8_t* luma = frame.baseAddressOfPlane(0) + y * frame.bytesPerRowOfPlane(0);
    uint8_t* chroma = frame.baseAddressOfPlane(1) + (y / 2) * frame.bytesPerRowOfPlane(1);
    for (size_t x = 0; x < width; ++x) {
      const int q = (y >= height / 2 ? 2 : 0) + (x >= width / 2 ? 1 : 0);
      luma[x] = kQuadrantYuv[q][0];
      chroma[(x / 2) * 2] = kQuadrantYuv[q][1];
      chroma[(x / 2) * 2 + 1] = kQuadrantYuv[q][2];
    }
  }
  frame.unlockBaseAddress();
  return frame;
}

}  // namespace kwq::test

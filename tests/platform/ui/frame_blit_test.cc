#include "platform/image/frame_blit.h"

#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "platform/image/frame_image.h"

namespace kwq {
namespace {

PixelBuffer randomFrame(std::mt19937& rng, uint32_t format, size_t width, size_t height) {
  PixelBuffer frame = PixelBuffer::allocate(format, width, height);
  frame.lockBaseAddress();
  for (size_t plane = 0; plane < frame.planeCount(); ++plane) {
    uint8_t* base = frame.baseAddressOfPlane(plane);
    const size_t bytes = frame.bytesPerRowOfPlane(plane) * frame.heightOfPlane(plane);
    for (size_t i = 0; i < bytes; ++i) base[i] = static_cast<uint8_t>(rng());
    // Premultiplied BGRA frames are opaque camera pictures.
    if (format == kPixelFormatBGRA)
      for (size_t i = 3; i < bytes; i += 4) base[i] = 255;
  }
  frame.unlockBaseAddress();
  return frame;
}

// The block as the conversion to an image gives it: BGRA from the RGB24 or BGRA image.
std::vector<uint8_t> expectedBlock(const Image& image, size_t x, size_t y, size_t w, size_t h,
                                   bool mirrored) {
  std::vector<uint8_t> out(w * h * 4);
  const size_t bpp = bytesPerPixel(image.layout());
  for (size_t row = 0; row < h; ++row)
    for (size_t col = 0; col < w; ++col) {
      const size_t sx = mirrored ? x + w - 1 - col : x + col;
      const uint8_t* p = image.bytes().data() + (y + row) * image.bytesPerRow() + sx * bpp;
      uint8_t* q = out.data() + (row * w + col) * 4;
      if (bpp == 3) {
        q[0] = p[2], q[1] = p[1], q[2] = p[0], q[3] = 255;
      } else {
        q[0] = p[0], q[1] = p[1], q[2] = p[2], q[3] = p[3];
      }
    }
  return out;
}

TEST(FrameBlitTest, BlocksMatchTheFrameConversionByteForByte) {
  std::mt19937 rng(7);
  for (uint32_t format : {kPixelFormat420f, kPixelFormat420v, kPixelFormatBGRA}) {
    for (int trial = 0; trial < 20; ++trial) {
      const size_t fw = 1 + rng() % 61, fh = 1 + rng() % 41;
      const PixelBuffer frame = randomFrame(rng, format, fw, fh);
      const Image image = platform::imageFromPixelBuffer(frame);
      ASSERT_FALSE(image.isNull());
      // Odd and even starts and widths, both directions.
      const size_t x = rng() % fw, y = rng() % fh;
      const size_t w = 1 + rng() % (fw - x), h = 1 + rng() % (fh - y);
      const bool mirrored = trial % 2 == 1;
      const size_t stride = w * 4 + 8;  // padded rows stay untouched past the block
      std::vector<uint8_t> canvas(stride * h, 0xAB);
      ASSERT_TRUE(platform::blitFrame(frame, x, y, w, h, mirrored, canvas.data(), stride));
      const auto expected = expectedBlock(image, x, y, w, h, mirrored);
      for (size_t row = 0; row < h; ++row) {
        ASSERT_EQ(0,
                  std::memcmp(canvas.data() + row * stride, expected.data() + row * w * 4, w * 4))
            << "format " << format << " " << fw << "x" << fh << " block " << x << "," << y << " "
            << w << "x" << h << (mirrored ? " mirrored" : "") << " row " << row;
        for (size_t i = w * 4; i < stride; ++i) ASSERT_EQ(canvas[row * stride + i], 0xAB);
      }
    }
  }
}

TEST(FrameBlitTest, RefusesBlocksAndBuffersItCannotRead) {
  std::mt19937 rng(3);
  const PixelBuffer frame = randomFrame(rng, kPixelFormat420f, 16, 8);
  std::vector<uint8_t> canvas(16 * 8 * 4);
  EXPECT_FALSE(platform::blitFrame(frame, 1, 0, 16, 8, false, canvas.data(), 64));  // too wide
  EXPECT_FALSE(platform::blitFrame(frame, 0, 8, 16, 1, false, canvas.data(), 64));  // below
  EXPECT_FALSE(platform::blitFrame(frame, SIZE_MAX, 0, 2, 1, false, canvas.data(), 64));
  EXPECT_FALSE(platform::blitFrame(frame, 0, 0, 16, 8, false, canvas.data(), 63));  // short rows
  EXPECT_FALSE(platform::blitFrame(frame, 0, 0, 16, 8, false, nullptr, 64));
  EXPECT_FALSE(platform::blitFrame(PixelBuffer(), 0, 0, 1, 1, false, canvas.data(), 64));
  // A wrapped 420f buffer whose chroma plane is too short for its luma.
  std::vector<uint8_t> luma(16 * 8), chroma(16 * 2);
  const PixelBuffer shortChroma = PixelBuffer::wrap(
      kPixelFormat420f, 16, 8, {{luma.data(), 16, 16, 8}, {chroma.data(), 16, 8, 2}}, [] {});
  EXPECT_FALSE(platform::blitFrame(shortChroma, 0, 0, 16, 8, false, canvas.data(), 64));
  EXPECT_FALSE(frame.isLocked());  // every path unlocks
}

}  // namespace
}  // namespace kwq

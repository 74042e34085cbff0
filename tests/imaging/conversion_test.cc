#include <cstring>
#include <limits>
#include <memory>

#include <gtest/gtest.h>

#include "imaging/pixels.h"
#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/KWQImagingHelperClass.h"

namespace kwq {
namespace {

using test::pixelAt;
using test::Px;
using H = KWQImagingHelper;

TEST(Conversion, DeviceOrientationMapsByTheWholeTable) {
  using O = ImageOrientation;
  const std::pair<int64_t, O> table[] = {{0, O::Right}, {1, O::Right},  {2, O::Left},
                                         {3, O::Up},    {4, O::Down},   {5, O::Right},
                                         {6, O::Right}, {-7, O::Right}, {99, O::Right}};
  for (const auto& [device, image] : table)
    EXPECT_EQ(H::convertToImageOrientation(device), image) << device;
}

// A 6 x 4 camera frame in a pixel buffer with padded rows: opaque gray with a red pixel at
// the top left and a green one at the bottom right.
SampleBuffer bgraFrame() {
  PixelBuffer pixels = PixelBuffer::allocate(kPixelFormatBGRA, 6, 4);
  pixels.lockBaseAddress();
  for (size_t y = 0; y < 4; ++y) {
    uint8_t* row = pixels.baseAddressOfPlane(0) + y * pixels.bytesPerRowOfPlane(0);
    for (size_t x = 0; x < 6; ++x) {
      const Px p = x == 0 && y == 0   ? Px{0, 0, 255, 255}
                   : x == 5 && y == 3 ? Px{0, 255, 0, 255}
                                      : Px{90, 90, 90, 255};
      std::memcpy(row + 4 * x, p.data(), 4);
    }
  }
  pixels.unlockBaseAddress();
  return SampleBuffer(pixels, MediaTime::fromNanoseconds(1000));
}

class DeviceOrientationScope {
 public:
  explicit DeviceOrientationScope(int64_t o) : saved_(DeviceOrientation::current()) {
    DeviceOrientation::setCurrent(o);
  }
  ~DeviceOrientationScope() { DeviceOrientation::setCurrent(saved_); }

 private:
  int64_t saved_;
};

TEST(Conversion, CameraFramesTurnByDeviceOrientationAndPosition) {
  EXPECT_EQ(DeviceOrientation::current(), DeviceOrientation::Unknown);  // documented default
  const SampleBuffer frame = bgraFrame();
  const Px red{0, 0, 255, 255};
  enum Turn { None, Half, Clockwise };
  struct Case {
    int64_t device, position;
    Turn turn;
  };
  const Case cases[] = {{3, 1, None},      {3, 2, Half},      {4, 1, Half},
                        {4, 2, None},      {4, 0, None},      {1, 1, Clockwise},
                        {2, 2, Clockwise}, {5, 1, Clockwise}, {0, 2, Clockwise}};
  for (const Case& c : cases) {
    DeviceOrientationScope scope(c.device);
    Image raw;
    const Image out = H::makeUIImageFromCMSampleBuffer(frame, c.position, &raw);
    SCOPED_TRACE(testing::Message() << "device " << c.device << " position " << c.position);
    ASSERT_EQ(raw.width(), 6u);
    ASSERT_EQ(raw.height(), 4u);
    EXPECT_EQ(pixelAt(raw, 0, 0), red);
    EXPECT_FALSE(out.sharesBitmapWith(raw));  // redrawn even when unturned
    EXPECT_EQ(out.bitmapInfo(), kBitmapInfoBGRAPremultiplied);
    const bool quarter = c.turn == Clockwise;
    ASSERT_EQ(out.width(), quarter ? 4u : 6u);
    ASSERT_EQ(out.height(), quarter ? 6u : 4u);
    const size_t x = c.turn == None ? 0 : out.width() - 1, y = c.turn == Half ? 3 : 0;
    EXPECT_EQ(pixelAt(out, x, y), red);
  }
  EXPECT_FALSE(H::makeUIImageFromCMSampleBuffer(frame, 1).isNull());
  EXPECT_FALSE(frame.imageBuffer().isLocked());
}

TEST(Conversion, FramesThatAreNotBGRAGiveTheNullImage) {
  Image raw = test::distinctBGRA(2, 2);
  const SampleBuffer nv12(PixelBuffer::allocate(kPixelFormat420f, 6, 4));
  EXPECT_TRUE(H::makeUIImageFromCMSampleBuffer(nv12, 1, &raw).isNull());
  EXPECT_TRUE(raw.isNull());
  EXPECT_TRUE(H::makeUIImageFromCMSampleBuffer(SampleBuffer(), 1).isNull());
}

TEST(Conversion, ByteArraysKeepTheirLayoutAndCopyEveryRowWithItsPadding) {
  struct Case {
    Image (*make)(const uint8_t*, int32_t, int32_t, int32_t);
    PixelLayout layout;
    uint32_t info;
  };
  const Case cases[] = {
      {H::makeUIImageFromGrayScaleData, PixelLayout::Gray8, 0},
      {H::makeUIImageFromRGBData, PixelLayout::RGB24, 0},
      {H::makeUIImageFromRGBAData, PixelLayout::RGBA32, 3},
      {H::makeUIImageFromBGRAData, PixelLayout::BGRA32Premultiplied, 8194},
  };
  for (const Case& c : cases) {
    const int32_t bpp = static_cast<int32_t>(bytesPerPixel(c.layout)), w = 3, h = 5;
    const int32_t bpr = w * bpp + 5;
    auto data = std::make_unique<uint8_t[]>(bpr * h);
    for (int32_t i = 0; i < bpr * h; ++i) data[i] = static_cast<uint8_t>(i * 7);
    const std::vector<uint8_t> expected(data.get(), data.get() + bpr * h);
    const Image img = c.make(data.get(), w, h, bpr);
    data.reset();  // the caller may free its buffer at once
    ASSERT_FALSE(img.isNull());
    EXPECT_EQ(img.layout(), c.layout);
    EXPECT_EQ(img.bitmapInfo(), c.info);
    EXPECT_EQ(img.width(), 3u);
    EXPECT_EQ(img.bytesPerRow(), static_cast<size_t>(bpr));
    EXPECT_EQ(img.copyData(), expected);
    // The padding is never shown: a redraw holds only the row's pixels.
    const Image drawn = rotatedByAngle(img, 0.0);
    EXPECT_EQ(drawn.bytesPerRow(), static_cast<size_t>(w * bpp));
  }
}

TEST(Conversion, BadByteArraysGiveTheNullImageWithoutReading) {
  const uint8_t tiny[4] = {};
  const auto rgba = H::makeUIImageFromRGBAData;
  EXPECT_TRUE(rgba(nullptr, 1, 1, 4).isNull());
  EXPECT_TRUE(rgba(tiny, 0, 1, 4).isNull());
  EXPECT_TRUE(rgba(tiny, 1, -1, 4).isNull());
  EXPECT_TRUE(rgba(tiny, 2, 1, 7).isNull());  // row shorter than two pixels
  EXPECT_TRUE(rgba(tiny, 1, 1, -4).isNull());
  // 65536 x 65536 bytes overflows the 32-bit product; nothing of `tiny` may be read.
  EXPECT_TRUE(H::makeUIImageFromGrayScaleData(tiny, 1, 65536, 65536).isNull());
  EXPECT_TRUE(H::makeUIImageFromBGRAData(tiny, std::numeric_limits<int32_t>::max(), 1,
                                         std::numeric_limits<int32_t>::max())
                  .isNull());
  EXPECT_EQ(H::convertBGRAtoRGB(tiny, 1, 1, 4), nullptr);
  EXPECT_EQ(H::convertBGRAtoRGB(nullptr, -1, 0, 0), nullptr);
}

TEST(Conversion, ImageFromColorIsTenByTenPremultiplied) {
  const Image red = H::imageFromColor(Color::redColor());
  ASSERT_EQ(red.width(), 10u);
  ASSERT_EQ(red.height(), 10u);
  EXPECT_EQ(red.layout(), PixelLayout::BGRA32Premultiplied);
  for (size_t i = 0; i < 10; ++i) EXPECT_EQ(pixelAt(red, i, 9 - i), (Px{0, 0, 255, 255}));
  const Px half = pixelAt(H::imageFromColor(Color{0.0, 0.0, 1.0, 0.5}), 4, 4);
  EXPECT_NEAR(half[0], 128, 1);  // blue premultiplied by alpha
  EXPECT_NEAR(half[3], 128, 1);
}

}  // namespace
}  // namespace kwq

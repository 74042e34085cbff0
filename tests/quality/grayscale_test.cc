#include <gtest/gtest.h>

#include <random>

#include "kwqimage/KWQImagingHelper.h"
#include "reference.h"
#include "support/test_support.h"

namespace kwq::test {
namespace {

std::vector<uint8_t> packedBytes(const Image& gray) {
  EXPECT_EQ(gray.layout(), PixelLayout::Gray8);
  EXPECT_EQ(gray.bytesPerRow(), gray.width());
  const auto b = gray.bytes();
  return {b.begin(), b.end()};
}

TEST(GrayScale, ReductionMatchesDefinitionForEveryLayoutSizeFactorAndPath) {
  std::mt19937 rng(11);
  const PixelLayout layouts[] = {PixelLayout::BGRA32Premultiplied, PixelLayout::RGBA32,
                                 PixelLayout::RGB24, PixelLayout::Gray8};
  // Widths around the vector widths (16 and 32 outputs a step), odd sizes, padded rows.
  const size_t sizes[][2] = {{1920, 1080}, {1001, 7}, {67, 65}, {130, 3}, {3, 3}, {2, 2}};
  for (PixelLayout layout : layouts) {
    for (const auto& size : sizes) {
      for (size_t padding : {0, 5}) {
        const Image image = randomImage(rng, layout, size[0], size[1], padding);
        for (int factor : {2, 3, 4, 7}) {
          const auto want = ref::grayReduce(image, factor);
          forEachSimdPath([&](quality::SimdPath path) {
            const Image gray = makeGrayScaleAndScale(image, factor);
            SCOPED_TRACE(::testing::Message()
                         << size[0] << "x" << size[1] << " layout " << int(layout) << " factor "
                         << factor << " on " << quality::simdPathName(path));
            if (want.empty()) {
              EXPECT_TRUE(gray.isNull());
              return;
            }
            EXPECT_EQ(gray.width(), image.width() / factor);
            EXPECT_EQ(packedBytes(gray), want);
          });
        }
      }
    }
  }
}

TEST(GrayScale, WeightsFallOnBytesOneAndTwo) {
  const uint8_t green[] = {0, 255, 0, 255}, byte2[] = {0, 0, 255, 255}, byte0[] = {255, 0, 0, 0};
  const auto level = [](const uint8_t* px) {
    return makeGrayScaleAndScale(Image::filled(PixelLayout::BGRA32Premultiplied, 64, 32, px), 2)
        .bytes()[0];
  };
  EXPECT_EQ(level(green), 204);
  EXPECT_EQ(level(byte2), 51);
  EXPECT_EQ(level(byte0), 0);
  const Image halved =
      makeGrayScaleAndScale(Image::filled(PixelLayout::BGRA32Premultiplied, 1280, 960, green), 2);
  EXPECT_EQ(halved.width(), 640u);
  EXPECT_EQ(halved.height(), 480u);
}

TEST(GrayScale, SmallFactorsAreThePlatformConversionAndEmptyResultsAreNull) {
  std::mt19937 rng(5);
  const Image image = randomImage(rng, PixelLayout::BGRA32Premultiplied, 31, 17);
  const Image full = makeGrayScale(image);
  ASSERT_EQ(full.width(), 31u);
  for (int factor : {1, 0, -3}) {
    EXPECT_EQ(packedBytes(makeGrayScaleAndScale(image, factor)), packedBytes(full));
  }
  EXPECT_TRUE(isGrayScale(full));
  EXPECT_FALSE(isGrayScale(image));
  EXPECT_FALSE(isGrayScale(Image::withoutBitmap({10, 10})));
  EXPECT_TRUE(makeGrayScale(Image::withoutBitmap({-5, 1e300})).isNull());
  EXPECT_TRUE(makeGrayScaleAndScale(Image::withoutBitmap({64, 64}), 2).isNull());
  EXPECT_TRUE(makeGrayScaleAndScale(image, 18).isNull());
  EXPECT_TRUE(makeGrayScaleAndScale(image, INT32_MAX).isNull());
}

}  // namespace
}  // namespace kwq::test

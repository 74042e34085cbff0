#include "kwqimage/Image.h"

#include <cstring>
#include <limits>
#include <random>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "platform/draw/bitmap_draw.h"
#include "support/test_support.h"

namespace kwq {
namespace {

TEST(Image, LayoutsReportThePlatformPropertiesTheMeasuresRead) {
  struct Expect {
    PixelLayout layout;
    size_t bitsPerPixel;
    uint32_t info;
    ColorSpaceModel model;
  };
  for (const Expect e :
       {Expect{PixelLayout::Gray8, 8, 0, ColorSpaceModel::Monochrome},
        Expect{PixelLayout::RGB24, 24, 0, ColorSpaceModel::RGB},
        Expect{PixelLayout::RGBA32, 32, 3, ColorSpaceModel::RGB},
        Expect{PixelLayout::BGRA32Premultiplied, 32, 8194, ColorSpaceModel::RGB}}) {
    const size_t row = 5 * e.bitsPerPixel / 8 + 3;  // padded rows
    std::vector<uint8_t> bytes(row * 4, 7);
    const Image image = Image::copyFromBytes(e.layout, 5, 4, row, bytes.data());
    ASSERT_TRUE(image.hasBitmap());
    EXPECT_EQ(image.bitsPerPixel(), e.bitsPerPixel);
    EXPECT_EQ(image.bitsPerComponent(), 8u);
    EXPECT_EQ(image.bitmapInfo(), e.info);
    EXPECT_EQ(image.colorSpaceModel(), e.model);
    EXPECT_EQ(image.bytesPerRow(), row);
    EXPECT_EQ(image.bytes().size(), row * 4);
    EXPECT_EQ(image.copyData(), bytes);
  }
}

TEST(Image, NullAndBitmaplessImagesAreDistinctAndSafe) {
  const Image null;
  EXPECT_TRUE(null.isNull());
  EXPECT_FALSE(null.hasBitmap());
  EXPECT_EQ(null.size(), Size::zero());

  const Image bare = Image::withoutBitmap({30, 20});
  EXPECT_FALSE(bare.isNull());
  EXPECT_FALSE(bare.hasBitmap());
  EXPECT_EQ(bare.size(), (Size{30, 20}));
  EXPECT_EQ(bare.width(), 0u);
  EXPECT_TRUE(bare.bytes().empty());
  EXPECT_EQ(bare.colorSpaceModel(), ColorSpaceModel::Unknown);
  EXPECT_TRUE(bare.converted(PixelLayout::Gray8).isNull());
}

TEST(Image, RejectsGeometryThatDoesNotFitTheBytes) {
  const uint8_t byte = 0;
  const size_t huge = std::numeric_limits<size_t>::max() / 2;
  EXPECT_TRUE(Image::copyFromBytes(PixelLayout::Gray8, 4, 4, 4, nullptr).isNull());
  EXPECT_TRUE(Image::copyFromBytes(PixelLayout::Gray8, 0, 4, 4, &byte).isNull());
  EXPECT_TRUE(Image::copyFromBytes(PixelLayout::RGB24, 4, 4, 11, &byte).isNull());  // row < 12
  EXPECT_TRUE(Image::copyFromBytes(PixelLayout::Gray8, huge, 4, huge, &byte).isNull());
  EXPECT_TRUE(
      Image::copyFromBytes(PixelLayout::BGRA32Premultiplied, huge, huge, huge, &byte).isNull());
  EXPECT_TRUE(Image::fromBuffer(PixelLayout::Gray8, 4, 4, 4, std::vector<uint8_t>(15)).isNull());
  EXPECT_FALSE(Image::fromBuffer(PixelLayout::Gray8, 4, 4, 4, std::vector<uint8_t>(16)).isNull());
}

TEST(Image, PointSizeFollowsScaleAndQuarterTurnOrientations) {
  const uint8_t gray = 1;
  const Image image = Image::filled(PixelLayout::Gray8, 40, 30, &gray);
  EXPECT_EQ(image.size(), (Size{40, 30}));
  EXPECT_EQ(image.withScale(2.0, ImageOrientation::Up).size(), (Size{20, 15}));
  for (auto o : {ImageOrientation::Left, ImageOrientation::Right, ImageOrientation::LeftMirrored,
                 ImageOrientation::RightMirrored})
    EXPECT_EQ(image.withScale(1.0, o).size(), (Size{30, 40}));
  const Image rescaled = image.withScale(2.0, ImageOrientation::Down);
  EXPECT_TRUE(rescaled.sharesBitmapWith(image));
  EXPECT_EQ(rescaled.width(), 40u);  // pixels unchanged
}

TEST(Image, LayoutConversionsKeepColourAndHandleAlpha) {
  // One pixel, half-transparent orange, in straight RGBA.
  const uint8_t rgba[4] = {240, 120, 40, 128};
  const Image straight = Image::copyFromBytes(PixelLayout::RGBA32, 1, 1, 4, rgba);
  const Image premul = straight.converted(PixelLayout::BGRA32Premultiplied);
  ASSERT_FALSE(premul.isNull());
  const auto p = premul.bytes();
  EXPECT_NEAR(p[0], 40 * 128 / 255.0, 1);
  EXPECT_NEAR(p[1], 120 * 128 / 255.0, 1);
  EXPECT_NEAR(p[2], 240 * 128 / 255.0, 1);
  EXPECT_EQ(p[3], 128);
  const Image roundTrip = premul.converted(PixelLayout::RGBA32);
  const auto back = roundTrip.bytes();
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(back[i], rgba[i], 2) << i;

  // Gray composites over black: half-transparent white is mid-gray.
  const uint8_t white[4] = {255, 255, 255, 128};
  EXPECT_NEAR(Image::copyFromBytes(PixelLayout::RGBA32, 1, 1, 4, white)
                  .converted(PixelLayout::Gray8)
                  .bytes()[0],
              128, 1);
  // BT.601 weights: pure green is 0.587 x 255.
  const uint8_t green[3] = {0, 255, 0};
  EXPECT_NEAR(Image::copyFromBytes(PixelLayout::RGB24, 1, 1, 3, green)
                  .converted(PixelLayout::Gray8)
                  .bytes()[0],
              150, 1);
}

TEST(Image, DecodesRealFilesAndRejectsGarbage) {
  const Image photo = test::loadSample("baboon.jpg");
  ASSERT_FALSE(photo.isNull());
  EXPECT_EQ(photo.layout(), PixelLayout::RGB24);
  EXPECT_EQ(photo.width(), 512u);
  // Byte order is R, G, B: compare with OpenCV's own decode, which is B, G, R.
  const cv::Mat bgr = cv::imread(test::samplePath("baboon.jpg"));
  const auto b = photo.bytes();
  EXPECT_EQ(b[0], bgr.at<cv::Vec3b>(0, 0)[2]);
  EXPECT_EQ(b[2], bgr.at<cv::Vec3b>(0, 0)[0]);

  const uint8_t junk[] = {0x89, 'P', 'N', 'G', 1, 2, 3};
  EXPECT_TRUE(Image::decode(junk, sizeof junk).isNull());
  EXPECT_TRUE(Image::decode(nullptr, 10).isNull());
  EXPECT_TRUE(Image::loadFile("/nonexistent/file.png").isNull());
}

TEST(BitmapDraw, RedrawKeepsLayoutAndResamples) {
  std::mt19937 rng(7);
  for (PixelLayout layout : {PixelLayout::Gray8, PixelLayout::RGB24, PixelLayout::RGBA32,
                             PixelLayout::BGRA32Premultiplied}) {
    const Image src = test::randomImage(rng, layout, 37, 21, 5);
    const Image up = platform::redrawResampled(src, 74, 42);
    ASSERT_FALSE(up.isNull());
    EXPECT_EQ(up.layout(), layout);
    EXPECT_EQ(up.width(), 74u);
    EXPECT_EQ(up.bytesPerRow(), 74 * bytesPerPixel(layout));
    EXPECT_TRUE(platform::redrawResampled(src, 0, 10).isNull());
  }
  // A uniform image stays uniform at any size.
  const uint8_t v = 93;
  const Image flat = Image::filled(PixelLayout::Gray8, 100, 60, &v);
  const Image small = platform::redrawResampled(flat, 33, 17);
  for (uint8_t b : small.bytes()) ASSERT_EQ(b, 93);
}

TEST(BitmapDraw, GrayDrawIsPackedAndLosesTopRowsWhenTheRectIsTaller) {
  // Rows 0..9 are 10, 20, ..., 100 (the top row first).
  std::vector<uint8_t> rows(8 * 10);
  for (size_t y = 0; y < 10; ++y) std::memset(&rows[y * 8], static_cast<int>(10 * (y + 1)), 8);
  const Image src = Image::fromBuffer(PixelLayout::Gray8, 8, 10, 8, rows);
  const Image same = platform::drawIntoGray(src, 8, 10, {8, 10});
  ASSERT_FALSE(same.isNull());
  EXPECT_EQ(same.bytesPerRow(), 8u);
  EXPECT_EQ(same.copyData(), rows);

  // The draw rectangle is 20 rows tall in a 10-row context with y up: only the lower half of
  // the stretched bitmap (source rows 5..9) remains visible.
  const Image cut = platform::drawIntoGray(src, 8, 10, {8, 20});
  ASSERT_FALSE(cut.isNull());
  EXPECT_GE(cut.bytes()[0], 55);
  EXPECT_NEAR(cut.bytes()[9 * 8], 100, 1);
  EXPECT_TRUE(platform::drawIntoGray(Image::withoutBitmap({8, 8}), 8, 8, {8, 8}).isNull());
}

}  // namespace
}  // namespace kwq

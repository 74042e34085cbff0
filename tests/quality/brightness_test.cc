#include <gtest/gtest.h>

#include <random>

#include "kwqimage/KWQImagingHelper.h"
#include "reference.h"
#include "support/test_support.h"

namespace kwq::test {
namespace {

Image grayOf(size_t w, size_t h, uint8_t value) {
  return Image::filled(PixelLayout::Gray8, w, h, &value);
}

TEST(Brightness, DividesByTheNominalGridSize) {
  EXPECT_EQ(calculateBrightness(grayOf(100, 100, 128)), 128);
  // 42 samples over a nominal 3,900 / 10 / 10 = 39: 5,376 / 39 = 137.8.
  EXPECT_EQ(calculateBrightness(grayOf(105, 100, 128)), 137);
  EXPECT_EQ(calculateBrightness(grayOf(100, 100, 128), 1, 25), 128);
}

TEST(Brightness, MatchesDefinitionOnRandomImages) {
  // The 3000 x 3000 image sums past 2^24, where float rounding follows sample order.
  std::mt19937 rng(9);
  const size_t sizes[][2] = {{3000, 2500}, {641, 479}, {97, 53}, {45, 41}, {12, 300}};
  for (const auto& size : sizes) {
    for (PixelLayout layout :
         {PixelLayout::Gray8, PixelLayout::RGB24, PixelLayout::BGRA32Premultiplied}) {
      const Image image = randomImage(rng, layout, size[0], size[1]);
      const int bpp = static_cast<int>(bytesPerPixel(layout));
      SCOPED_TRACE(::testing::Message() << size[0] << "x" << size[1] << " bpp " << bpp);
      EXPECT_EQ(calculateBrightness(image), ref::brightness(image, 1, -1));
      for (int edge : {0, 10, 33, 99}) {
        EXPECT_EQ(calculateBrightness(image, bpp, edge), ref::brightness(image, bpp, edge));
      }
    }
  }
  uint8_t level = 201;
  const Image large = Image::filled(PixelLayout::Gray8, 3000, 3000, &level);
  EXPECT_EQ(calculateBrightness(large), ref::brightness(large, 1, -1));
  EXPECT_NE(ref::brightness(large, 1, -1), 201);  // float rounding shows: the test can tell
}

TEST(Brightness, OutOfRangePercentagesMeanNoBorder) {
  std::mt19937 rng(4);
  const Image image = randomImage(rng, PixelLayout::RGB24, 120, 90);
  const int32_t none = calculateBrightness(image, 3, 0);
  for (int edge : {100, -1, INT32_MIN, INT32_MAX})
    EXPECT_EQ(calculateBrightness(image, 3, edge), none);
  // Nonsense pixel widths read nothing outside the bytes.
  for (int bpp : {0, -4, 1 << 20, INT32_MAX, INT32_MIN}) calculateBrightness(image, bpp, 10);
}

TEST(Brightness, RectangleTestSwapsWidthAndHeightAndSquaresTheHeight) {
  const Image image = grayOf(640, 480, 100);
  LogCapture log;
  EXPECT_EQ(calculateBrightness(image, Rect(0, 0, 600, 400)), 0);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0],
            "-[UIImage(KWQImagingHelper) calculateBrightness:] [Line 709] *** error: rect is "
            "outside of image");
  // Accepted although rows from 480 on are past the pixels (they add nothing): 41 x 48
  // samples of 100 over 600 x 600 / 100 = 3600.
  EXPECT_EQ(calculateBrightness(image, Rect(0, 0, 400, 600)), 100 * 41 * 48 / 3600);
  // Both ends inclusive: 2 x 2 samples over 10 x 10 / 100 = 1.
  EXPECT_EQ(calculateBrightness(image, Rect(20, 30, 10, 10)), 400);
  EXPECT_EQ(calculateBrightness(image, Rect(20, 30, 10, 5)), 0);  // 25 / 100 truncates to 0
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Brightness, ImagesWithoutBitmapLogAndScoreZero) {
  const Image none = Image::withoutBitmap({30, 20});
  LogCapture log;
  EXPECT_EQ(calculateBrightness(none), 0);
  EXPECT_EQ(calculateBrightness(none, 4, 10), 0);
  EXPECT_EQ(calculateBrightness(none, Rect(0, 0, 1, 1)), 0);
  EXPECT_EQ(calculateBrightness(Image()), 0);
  const std::string d = none.description();
  const std::vector<std::string> want = {
      "-[UIImage(KWQImagingHelper) calculateBrightness] [Line 590] *** error: image must be "
      "backed by a CGImage: " +
          d,
      "-[UIImage(KWQImagingHelper) calculateBrightness:edgePercentSkip:] [Line 642] *** error: "
      "image must be backed by a CGImage: " +
          d,
      "-[UIImage(KWQImagingHelper) calculateBrightness:] [Line 699] *** error: image must be "
      "backed by a CGImage: " +
          d,
      "-[UIImage(KWQImagingHelper) calculateBrightness] [Line 590] *** error: image must be "
      "backed by a CGImage: (null)"};
  EXPECT_EQ(log.lines(), want);
}

}  // namespace
}  // namespace kwq::test

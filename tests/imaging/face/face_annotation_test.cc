#include <array>
#include <cstring>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "kwqimage/KWQImagingHelper.h"
#include "platform/image/png_codec.h"
#include "support/test_support.h"

// Fontconfig keeps its parsed configuration and font patterns for the life of the process
// (Pango's font map holds them per thread); LeakSanitizer would report them at exit.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libexpat.so\n";
}

namespace kwq {
namespace {

using BGRA = std::array<uint8_t, 4>;
constexpr BGRA kRed{0, 0, 255, 255}, kBlue{255, 0, 0, 255}, kGreen{0, 255, 0, 255},
    kYellow{0, 255, 255, 255}, kGray{128, 128, 128, 255}, kClear{0, 0, 0, 0};

BGRA pixel(const Image& image, double x, double y) {
  BGRA p;
  std::memcpy(p.data(),
              image.bytes().data() + static_cast<size_t>(y) * image.bytesPerRow() +
                  static_cast<size_t>(x) * 4,
              4);
  return p;
}

Image gray(size_t width, size_t height, uint8_t value = 128) {
  return Image::filled(PixelLayout::Gray8, width, height, &value);
}

void savePNG(const Image& image, const std::string& name) {
  const std::vector<uint8_t> png = platform::encodePNG(image);
  ASSERT_FALSE(png.empty());
  std::ofstream(test::outputDir() + "/" + name, std::ios::binary)
      .write(reinterpret_cast<const char*>(png.data()), static_cast<std::streamsize>(png.size()));
}

TEST(FaceAnnotation, MarkersAreThirtyPointOutlinesStrokedInOrder) {
  // Blue overlaps red and the face box shares red's left edge: the later colour wins.
  const Image out = drawFacialLocationsLeftEye(gray(200, 150), {100, 50}, {120, 50}, {110, 110},
                                               Rect(85, 10, 100, 130));
  ASSERT_EQ(out.layout(), PixelLayout::BGRA32Premultiplied);
  ASSERT_EQ(out.width(), 200u);
  // Red (85, 35)-(115, 65): a 3-wide line covers two whole pixels on each edge.
  EXPECT_EQ(pixel(out, 114, 60), kRed);
  EXPECT_EQ(pixel(out, 100, 34), kRed);
  EXPECT_EQ(pixel(out, 100, 65), kRed);
  EXPECT_EQ(pixel(out, 100, 50), kGray);  // outlines, not filled
  EXPECT_EQ(pixel(out, 87, 50), kGray);
  EXPECT_EQ(pixel(out, 105, 35), kBlue);  // blue (105, 35)-(135, 65) over red
  EXPECT_EQ(pixel(out, 134, 50), kBlue);
  EXPECT_EQ(pixel(out, 95, 110), kGreen);  // green (95, 95)-(125, 125)
  EXPECT_EQ(pixel(out, 85, 50), kYellow);  // the face box last
  EXPECT_EQ(pixel(out, 150, 139), kYellow);

  // Scale 2: a 200 x 100 bitmap is 100 x 50 points, and the markers are in points.
  const Image half = drawFacialLocationsLeftEye(gray(200, 100).withScale(2, ImageOrientation::Up),
                                                {30, 25}, {70, 25}, {50, 40}, Rect());
  ASSERT_EQ(half.width(), 100u);
  EXPECT_EQ(pixel(half, 15, 25), kRed);
  // Without a bitmap: a transparent canvas with the markers only.
  const Image bare =
      drawFacialLocationsLeftEye(Image::withoutBitmap({60, 40}), {20, 20}, {}, {}, Rect());
  ASSERT_EQ(bare.width(), 60u);
  EXPECT_EQ(pixel(bare, 5, 20), kRed);
  EXPECT_EQ(pixel(bare, 20, 20), kClear);
  EXPECT_TRUE(drawFacialLocationsLeftEye(Image(), {}, {}, {}, Rect()).isNull());
  EXPECT_TRUE(
      drawFacialLocationsLeftEye(Image::withoutBitmap({0, 5}), {}, {}, {}, Rect()).isNull());
  EXPECT_TRUE(drawText(Image::withoutBitmap({1e9, 5}), "x", {}, Color::redColor(), 12).isNull());
}

// How many pixels are clearly red, and the rows and columns they span.
struct Ink {
  size_t count = 0, minX = SIZE_MAX, minY = SIZE_MAX, maxY = 0;
};
Ink redInk(const Image& image) {
  Ink ink;
  for (size_t y = 0; y < image.height(); ++y)
    for (size_t x = 0; x < image.width(); ++x) {
      const BGRA p = pixel(image, x, y);
      if (p[2] < 200 || p[1] > 100 || p[0] > 100) continue;
      ++ink.count;
      ink.minX = std::min(ink.minX, x);
      ink.minY = std::min(ink.minY, y);
      ink.maxY = std::max(ink.maxY, y);
    }
  return ink;
}

TEST(FaceAnnotation, TextIsDrawnInTheBoxFromThePoint) {
  const Image page = gray(320, 160, 255);
  const Image hello = drawText(page, "Hello", {20.4, 30}, Color::redColor(), 24);
  savePNG(hello, "face_text.png");
  const Ink a = redInk(hello);
  // Inside the integral box from (20, 30), near its corner; capitals of 24 pixels are 14 to
  // 26 rows high.
  ASSERT_GT(a.count, 100u);
  EXPECT_TRUE(a.minX >= 20 && a.minX < 30) << a.minX;
  EXPECT_TRUE(a.minY >= 30 && a.minY < 45) << a.minY;
  EXPECT_TRUE(a.maxY - a.minY >= 13 && a.maxY - a.minY <= 25) << a.maxY - a.minY;
  // Twice the size, about four times the ink.
  const size_t big = redInk(drawText(page, "Hello", {20, 30}, Color::redColor(), 48)).count;
  EXPECT_TRUE(big > 3 * a.count && big < 5 * a.count) << big << " vs " << a.count;
  // Text longer than the box wraps onto further lines.
  EXPECT_GT(redInk(drawText(page, "wrap wrap wrap wrap wrap wrap wrap wrap wrap wrap", {0, 0},
                            Color::redColor(), 24))
                .maxY,
            50u);
  // No text for a size of 0 or less; invalid UTF-8 still draws (replacement characters).
  for (const int32_t size : {0, INT32_MIN})
    EXPECT_EQ(redInk(drawText(page, "Hello", {20, 30}, Color::redColor(), size)).count, 0u);
  EXPECT_GT(redInk(drawText(page, "\xff\xfe ok", {20, 30}, Color::redColor(), 24)).count, 0u);
  EXPECT_FALSE(drawText(page, std::string("a\0b", 3), {1e300, -1e300}, {}, INT32_MAX).isNull());
}

TEST(FaceAnnotation, RealFacesAreMarkedWhereTheDetectorFoundThem) {
  const Image photo = test::loadSample("messi5.jpg");
  const KWQFaceFeatures f = getKWQFaceFeaturesWithAccuracy(photo, 1);
  ASSERT_GT(f.faceRect.size.width, 0);
  ASSERT_NE(f.mouth, Point::zero());
  const Image out = drawFacialLocationsLeftEye(photo, f.leftEye, f.rightEye, f.mouth, f.faceRect);
  savePNG(out, "face_messi5.png");
  EXPECT_EQ(pixel(out, f.faceRect.minX(), f.faceRect.midY()), kYellow);
  EXPECT_EQ(pixel(out, f.faceRect.midX(), f.faceRect.maxY() - 1), kYellow);
  // The eyes of a small face lie close together, so their squares overlap; the mouth's
  // square comes after them and shows whole.
  EXPECT_EQ(pixel(out, f.mouth.x - 15, f.mouth.y + 14), kGreen);
}

}  // namespace
}  // namespace kwq

#include <array>
#include <cstring>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "kwqimage/KWQImagingHelper.h"
#include "platform/image/png_codec.h"
#include "support/test_support.h"

namespace kwq {
namespace {

using BGRA = std::array<uint8_t, 4>;
constexpr BGRA kRed{0, 0, 255, 255}, kBlue{255, 0, 0, 255}, kGreen{0, 255, 0, 255},
    kYellow{0, 255, 255, 255}, kGray{128, 128, 128, 255}, kClear{0, 0, 0, 0};

BGRA pixel(const Image& image, size_t x, size_t y) {
  BGRA p;
  std::memcpy(p.data(), image.bytes().data() + y * image.bytesPerRow() + x * 4, 4);
  return p;
}

Image gray(size_t width, size_t height) {
  const uint8_t value = 128;
  return Image::filled(PixelLayout::Gray8, width, height, &value);
}

void savePNG(const Image& image, const std::string& name) {
  const std::vector<uint8_t> png = platform::encodePNG(image);
  ASSERT_FALSE(png.empty());
  std::ofstream(test::outputDir() + "/" + name, std::ios::binary)
      .write(reinterpret_cast<const char*>(png.data()), static_cast<std::streamsize>(png.size()));
}

TEST(FaceAnnotation, MarkersAreThirtyPointSquaresStrokedInOrder) {
  // The blue square overlaps the red one and the face box shares the red square's left edge,
  // so the later colour must win where they cross.
  const Image out = drawFacialLocationsLeftEye(gray(200, 150), {100, 50}, {120, 50}, {110, 110},
                                               Rect(85, 10, 100, 130));
  ASSERT_EQ(out.layout(), PixelLayout::BGRA32Premultiplied);
  ASSERT_EQ(out.width(), 200u);
  ASSERT_EQ(out.height(), 150u);
  // Red square (85, 35)-(115, 65); a 3-wide line covers two whole pixels on each edge.
  EXPECT_EQ(pixel(out, 114, 60), kRed);
  EXPECT_EQ(pixel(out, 100, 34), kRed);
  EXPECT_EQ(pixel(out, 100, 65), kRed);
  EXPECT_EQ(pixel(out, 100, 50), kGray);  // squares are outlines, not filled
  EXPECT_EQ(pixel(out, 100, 38), kGray);
  EXPECT_EQ(pixel(out, 87, 50), kGray);
  // Blue square (105, 35)-(135, 65), drawn over red.
  EXPECT_EQ(pixel(out, 105, 50), kBlue);
  EXPECT_EQ(pixel(out, 105, 35), kBlue);
  EXPECT_EQ(pixel(out, 134, 50), kBlue);
  // Green square (95, 95)-(125, 125).
  EXPECT_EQ(pixel(out, 95, 110), kGreen);
  EXPECT_EQ(pixel(out, 110, 124), kGreen);
  // Yellow face box last, over the red edge it shares.
  EXPECT_EQ(pixel(out, 85, 50), kYellow);
  EXPECT_EQ(pixel(out, 184, 100), kYellow);
  EXPECT_EQ(pixel(out, 150, 139), kYellow);
  EXPECT_EQ(pixel(out, 10, 10), kGray);
  savePNG(out, "face_markers.png");
}

TEST(FaceAnnotation, CanvasFollowsThePointSize) {
  // Scale 2: a 200 x 100 bitmap is 100 x 50 points, and the markers are in points.
  const Image scaled = gray(200, 100).withScale(2.0, ImageOrientation::Up);
  const Image out = drawFacialLocationsLeftEye(scaled, {30, 25}, {70, 25}, {50, 40}, Rect());
  ASSERT_EQ(out.width(), 100u);
  ASSERT_EQ(out.height(), 50u);
  EXPECT_EQ(pixel(out, 15, 25), kRed);

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

// Bounds of the pixels where red clearly dominates, and how many there are.
struct Ink {
  size_t count = 0, minX = SIZE_MAX, minY = SIZE_MAX, maxX = 0, maxY = 0;
};
Ink redInk(const Image& image) {
  Ink ink;
  for (size_t y = 0; y < image.height(); ++y)
    for (size_t x = 0; x < image.width(); ++x) {
      const BGRA p = pixel(image, x, y);
      if (p[2] < 200 || p[1] > 100 || p[0] > 100) continue;
      ++ink.count;
      ink.minX = std::min(ink.minX, x);
      ink.maxX = std::max(ink.maxX, x);
      ink.minY = std::min(ink.minY, y);
      ink.maxY = std::max(ink.maxY, y);
    }
  return ink;
}

TEST(FaceAnnotation, TextIsDrawnInTheBoxFromThePoint) {
  const uint8_t white = 255;
  const Image page = Image::filled(PixelLayout::Gray8, 320, 160, &white);
  const Image small = drawText(page, "Hello", {20.4, 30}, Color::redColor(), 24);
  savePNG(small, "face_text.png");
  const Ink a = redInk(small);
  ASSERT_GT(a.count, 100u);
  // Inside the integral box from (20, 30); capitals of a 24-pixel font are 14 to 24 high.
  EXPECT_GE(a.minX, 20u);
  EXPECT_GE(a.minY, 30u);
  EXPECT_LT(a.minX, 30u);
  EXPECT_LT(a.minY, 45u);
  EXPECT_GE(a.maxY - a.minY + 1, 14u);
  EXPECT_LE(a.maxY - a.minY + 1, 26u);
  for (size_t x = 0; x < 320; ++x) EXPECT_EQ(pixel(small, x, 5)[0], 255);  // untouched above

  // Twice the size, about four times the ink.
  const Ink b = redInk(drawText(page, "Hello", {20, 30}, Color::redColor(), 48));
  EXPECT_GT(b.count, 3 * a.count);
  EXPECT_LT(b.count, 5 * a.count);

  // Text longer than the box wraps onto further lines.
  const Ink wrapped = redInk(drawText(page, "wrap wrap wrap wrap wrap wrap wrap wrap wrap wrap",
                                      {0, 0}, Color::redColor(), 24));
  EXPECT_GT(wrapped.maxY, 50u);

  // No text for a size of 0 or less; invalid UTF-8 still draws (replacement characters).
  for (const int32_t size : {0, -5, INT32_MIN})
    EXPECT_EQ(redInk(drawText(page, "Hello", {20, 30}, Color::redColor(), size)).count, 0u);
  EXPECT_GT(redInk(drawText(page, "\xff\xfe ok", {20, 30}, Color::redColor(), 24)).count, 0u);
  EXPECT_FALSE(drawText(page, std::string("a\0b", 3), {1e300, -1e300}, Color::redColor(), INT32_MAX)
                   .isNull());
}

TEST(FaceAnnotation, RealFacesAreMarkedWhereTheDetectorFoundThem) {
  const Image photo = test::loadSample("messi5.jpg");
  const KWQFaceFeatures f = getKWQFaceFeaturesWithAccuracy(photo, 1);
  ASSERT_GT(f.faceRect.size.width, 0);
  const Image out = drawFacialLocationsLeftEye(photo, f.leftEye, f.rightEye, f.mouth, f.faceRect);
  savePNG(out, "face_messi5.png");
  // The face box's left edge and bottom edge are yellow.
  const auto ix = [](double v) { return static_cast<size_t>(v); };
  EXPECT_EQ(pixel(out, ix(f.faceRect.minX()), ix(f.faceRect.midY())), kYellow);
  EXPECT_EQ(pixel(out, ix(f.faceRect.midX()), ix(f.faceRect.maxY()) - 1), kYellow);
  // Each found feature's square: its left edge 15 points left of the feature. The eyes of a
  // small face lie close together, so only the mouth's square (drawn after the eyes) and
  // the left eye's far-left edge are free of later strokes.
  if (f.mouth != Point::zero())
    EXPECT_EQ(pixel(out, ix(f.mouth.x - 15), ix(f.mouth.y + 14)), kGreen);
  if (f.leftEye != Point::zero() && f.leftEye.x - 15 < f.faceRect.minX() - 2)
    EXPECT_EQ(pixel(out, ix(f.leftEye.x - 15), ix(f.leftEye.y)), kRed);
}

}  // namespace
}  // namespace kwq

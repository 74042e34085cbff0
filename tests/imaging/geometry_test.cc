#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "imaging/pixels.h"
#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/kwq_quality.h"
#include "support/test_support.h"

namespace kwq {
namespace {

using test::distinctBGRA;
using test::makeImage;
using test::pixelAt;
using test::Px;

// Where each pixel of a 4 x 2 picture lands: both methods, both senses. Even sides put every
// pixel exactly on a pixel of the canvas, so the values are exact.
TEST(Geometry, QuarterAndHalfTurnsPlaceEveryPixel) {
  const Image src = distinctBGRA(4, 2);
  const size_t W = 4, H = 2;
  struct Turn {
    Image out;
    size_t w, h;
    std::function<Px(size_t, size_t)> expected;
  };
  const auto at = [&](size_t x, size_t y) { return pixelAt(src, x, y); };
  const auto ccw = [&](size_t X, size_t Y) { return at(W - 1 - Y, X); };
  const auto cw = [&](size_t X, size_t Y) { return at(Y, H - 1 - X); };
  const auto half = [&](size_t X, size_t Y) { return at(W - 1 - X, H - 1 - Y); };
  const Turn turns[] = {{rotatedByAngle(src, 90.0), 2, 4, ccw},
                        {rotatedByAngle(src, -90.0), 2, 4, cw},
                        {rotatedByAngle(src, 180.0), 4, 2, half},
                        {imageRotatedByDegrees(src, 90.0), 2, 4, cw},
                        {imageRotatedByDegrees(src, -90.0), 2, 4, ccw},
                        {imageRotatedByDegrees(src, 180.0), 4, 2, half},
                        {imageRotatedByRadians(src, M_PI / 2), 2, 4, cw}};
  for (size_t i = 0; i < std::size(turns); ++i) {
    const Turn& t = turns[i];
    ASSERT_EQ(t.out.width(), t.w) << i;
    ASSERT_EQ(t.out.height(), t.h) << i;
    for (size_t Y = 0; Y < t.h; ++Y)
      for (size_t X = 0; X < t.w; ++X) EXPECT_EQ(pixelAt(t.out, X, Y), t.expected(X, Y)) << i;
  }
  // imageRotatedByDegrees also turns an odd-sided picture exactly: its canvas is centred on
  // the picture, while rotatedByAngle's integer origin may fall between pixels (next test).
  const Image odd = distinctBGRA(3, 2);
  const Image oddCw = imageRotatedByDegrees(odd, 90.0);
  ASSERT_EQ(oddCw.width(), 2u);
  ASSERT_EQ(oddCw.height(), 3u);
  for (size_t Y = 0; Y < 3; ++Y)
    for (size_t X = 0; X < 2; ++X) EXPECT_EQ(pixelAt(oddCw, X, Y), pixelAt(odd, Y, 1 - X));
}

// rotatedByAngle against a plain model of its context: canvas pixel centres mapped back
// through the rotation about (NW >> 1, NH >> 1) in a y-up space, sampled bilinearly, zero
// outside the picture.
Px modelRotated(const Image& src, double degrees, size_t nw, size_t nh, size_t X, size_t Y) {
  const double r = degrees * 0.017453292519943295, c = std::cos(r), s = std::sin(r);
  const double u = X + 0.5 - static_cast<double>(nw >> 1);
  const double v = static_cast<double>(nh - (nh >> 1)) - (Y + 0.5);
  const double fx = c * u + s * v + src.width() / 2.0 - 0.5;
  const double fy = src.height() / 2.0 - (-s * u + c * v) - 0.5;
  const double x0 = std::floor(fx), y0 = std::floor(fy), ax = fx - x0, ay = fy - y0;
  const size_t n = bytesPerPixel(src.layout());
  Px out{};
  for (size_t k = 0; k < n; ++k) {
    double acc = 0;
    for (int dy = 0; dy < 2; ++dy)
      for (int dx = 0; dx < 2; ++dx) {
        const double x = x0 + dx, y = y0 + dy;
        if (x < 0 || y < 0 || x >= src.width() || y >= src.height()) continue;
        acc += (dx ? ax : 1 - ax) * (dy ? ay : 1 - ay) *
               pixelAt(src, static_cast<size_t>(x), static_cast<size_t>(y))[k];
      }
    out[k] = static_cast<uint8_t>(std::lround(acc));
  }
  return out;
}

TEST(Geometry, RotatedByAngleMatchesItsContextModelAndKeepsTheLayout) {
  std::mt19937 rng(7);
  for (PixelLayout layout : {PixelLayout::Gray8, PixelLayout::BGRA32Premultiplied}) {
    const Image src = test::randomImage(rng, layout, 3, 2);
    for (double angle : {90.0, -90.0, 180.0, 45.0, 30.0, 0.0}) {
      const Image out = rotatedByAngle(src, angle);
      ASSERT_EQ(out.layout(), layout);
      EXPECT_FALSE(out.sharesBitmapWith(src));
      const double r = angle * 0.017453292519943295;
      const size_t nw =
          static_cast<size_t>(3 * std::abs(std::cos(r)) + 2 * std::abs(std::sin(r)) + 0.5);
      const size_t nh =
          static_cast<size_t>(3 * std::abs(std::sin(r)) + 2 * std::abs(std::cos(r)) + 0.5);
      ASSERT_EQ(out.width(), nw) << angle;
      ASSERT_EQ(out.height(), nh) << angle;
      // Sample positions are kept to 1/32 pixel, which moves a value by up to 255/64 at other
      // angles; right angles sample at whole or half pixels.
      const int tolerance = std::fmod(angle, 90.0) == 0.0 ? 1 : 4;
      for (size_t Y = 0; Y < nh; ++Y)
        for (size_t X = 0; X < nw; ++X) {
          const Px want = modelRotated(src, angle, nw, nh, X, Y), got = pixelAt(out, X, Y);
          for (size_t k = 0; k < bytesPerPixel(layout); ++k)
            EXPECT_NEAR(got[k], want[k], tolerance) << angle << " at " << X << "," << Y;
        }
    }
  }
  const uint8_t gray = 9;
  const Image big = Image::filled(PixelLayout::Gray8, 640, 480, &gray);
  EXPECT_EQ(rotatedByAngle(big, 90.0).width(), 480u);
  EXPECT_EQ(rotatedByAngle(big, 90.0).height(), 640u);
  const Image square = Image::filled(PixelLayout::Gray8, 100, 100, &gray);
  EXPECT_EQ(rotatedByAngle(square, 45.0).width(), 141u);
  EXPECT_EQ(imageRotatedByDegrees(square, 45.0).width(), 142u);  // canvas rounded up
}

// A 640 x 480 picture whose pixels encode their own coordinates.
Image coordinateImage() {
  return makeImage(PixelLayout::RGBA32, 640, 480, [](size_t x, size_t y) {
    return Px{static_cast<uint8_t>(x), static_cast<uint8_t>(x >> 8 | (y >> 8) << 4),
              static_cast<uint8_t>(y), 255};
  });
}

Rect cropFrame(const Image& crop) {
  if (crop.isNull()) return Rect::null();
  const Px p = pixelAt(crop, 0, 0);
  return Rect(p[0] + 256 * (p[1] & 15), p[2] + 256 * (p[1] >> 4), crop.width(), crop.height());
}

TEST(Geometry, PaddedCropGrowsHoldsOriginAwayFromZeroAndClampsAtTheEdge) {
  const Image img = coordinateImage();
  EXPECT_EQ(cropFrame(cropImageAtCoordinates(img, Rect(10, 10, 100, 50), 20.0f)),
            Rect(1, 5, 120, 60));
  EXPECT_EQ(cropFrame(cropImageAtCoordinates(img, Rect(0, 0, 50, 50), 0.0f)), Rect(1, 1, 50, 50));
  EXPECT_EQ(cropFrame(cropImageAtCoordinates(img, Rect(600, 10, 100, 100), 0.0f)),
            Rect(600, 10, 40, 100));
  EXPECT_EQ(cropFrame(cropImageAtCoordinates(img, Rect(10, 400, 50, 100), 0.0f)),
            Rect(10, 400, 50, 80));
  EXPECT_EQ(cropImageAtCoordinates(img, Rect(10, 10, 50, 50), 0.0f).layout(), PixelLayout::RGBA32);
  EXPECT_TRUE(cropImageAtCoordinates(img, Rect(700, 10, 5, 5), 0.0f).isNull());
}

TEST(Geometry, ViewCropScalesIgnoresPaddingAndWrapsToNothing) {
  const Image img = coordinateImage();
  const Size view{320, 240};
  const Image a = cropImageAtCoordinates(img, Rect(10, 10, 20, 20), 0.0f, view);
  const Image b = cropImageAtCoordinates(img, Rect(10, 10, 20, 20), 50.0f, view);
  EXPECT_EQ(cropFrame(a), Rect(20, 20, 40, 40));
  EXPECT_EQ(test::maxDifference(a, b), 0);
  // Centre x 5 -> 10, half width 20: the origin wraps below zero.
  EXPECT_TRUE(cropImageAtCoordinates(img, Rect(-5, 0, 20, 20), 0.0f, view).isNull());
  EXPECT_EQ(cropFrame(imageAtRect(img, Rect(0.5, 2, 3, 4.2))), Rect(0, 2, 4, 5));
  // Degenerate input never crashes.
  const double nan = std::nan("");
  EXPECT_TRUE(cropImageAtCoordinates(img, Rect(0, 0, 20, 20), 0.0f, Size{0, 0}).isNull());
  EXPECT_TRUE(imageAtRect(img, Rect(nan, 0, 5, 5)).isNull());
  EXPECT_TRUE(cropImageAtCoordinates(img, Rect(-1e300, 1e300, nan, 5), 10.0f).isNull());
  EXPECT_TRUE(rotatedByAngle(img, nan).isNull());
}

TEST(Geometry, MissingBitmapIsLoggedByCropsAndRotation) {
  test::LogCapture log;
  const Image noBitmap = Image::withoutBitmap(Size{10, 10});
  EXPECT_TRUE(cropImageAtCoordinates(noBitmap, Rect(0, 0, 5, 5), 0.0f).isNull());
  EXPECT_TRUE(cropImageAtCoordinates(noBitmap, Rect(0, 0, 5, 5), 0.0f, Size{5, 5}).isNull());
  EXPECT_TRUE(rotatedByAngle(noBitmap, 90.0).isNull());
  EXPECT_TRUE(rotatedByAngle(Image(), 90.0).isNull());  // the null image is silent
  const std::string tail =
      "*** error: image must be backed by a CGImage: " + noBitmap.description();
  const std::vector<std::string> lines = log.lines();
  ASSERT_EQ(lines.size(), 3u);
  const char* names[] = {
      "-[UIImage(KWQImagingHelper) cropImageAtCoordinates:withPaddingPercent:] [Line ",
      "-[UIImage(KWQImagingHelper) cropImageAtCoordinates:withPaddingPercent:viewSize:] [Line ",
      "-[UIImage(KWQImagingHelper) rotatedByAngle:] [Line "};
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(lines[i].rfind(names[i], 0), 0u) << lines[i];
    EXPECT_EQ(lines[i].substr(lines[i].size() - tail.size()), tail);
  }
}

// Four 50-pixel bands A B C D across a 200 x 100 picture.
TEST(Geometry, ScalingsFillFitAndStretchAsDescribed) {
  const Px band[] = {{255, 0, 0, 255}, {0, 255, 0, 255}, {0, 0, 255, 255}, {255, 255, 255, 255}};
  const Image src = makeImage(PixelLayout::BGRA32Premultiplied, 200, 100,
                              [&](size_t x, size_t) { return band[x / 50]; });
  const Size target{100, 100};
  const Image fill = imageByScalingProportionallyToMinimumSize(src, target);  // (-50, 0, 200, 100)
  const Image fit = imageByScalingProportionallyToSize(src, target);          // (0, 25, 100, 50)
  const Image stretch = imageByScalingToSize(src, target);
  for (const Image* img : {&fill, &fit, &stretch}) {
    ASSERT_EQ(img->width(), 100u);
    ASSERT_EQ(img->height(), 100u);
  }
  EXPECT_EQ(pixelAt(fill, 25, 5), band[1]);
  EXPECT_EQ(pixelAt(fill, 75, 95), band[2]);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(pixelAt(fit, 12 + 25 * i, 50), band[i]);
    EXPECT_EQ(pixelAt(stretch, 12 + 25 * i, 2), band[i]);
  }
  EXPECT_EQ(pixelAt(fit, 50, 24), (Px{0, 0, 0, 0}));
  EXPECT_EQ(pixelAt(fit, 50, 25)[3], 255);
  EXPECT_EQ(pixelAt(fit, 50, 74)[3], 255);
  EXPECT_EQ(pixelAt(fit, 50, 75), (Px{0, 0, 0, 0}));

  test::LogCapture log;
  EXPECT_TRUE(resizeToSize(src, Size{0, 10}).isNull());
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(imageByScalingToSize(src, Size{0, 10}).isNull());
  EXPECT_TRUE(imageByScalingProportionallyToSize(src, Size{-1, 5}).isNull());
  EXPECT_TRUE(imageByScalingProportionallyToMinimumSize(src, Size{1e9, 5}).isNull());
  EXPECT_EQ(log.lines(), std::vector<std::string>(3, "could not scale image"));
}

TEST(Geometry, ResizeGivesExactlyTheSizeInPremultipliedBGRA) {
  const Image src = distinctBGRA(4, 2);
  const Image resized = resizeToSize(src, Size{37, 23});
  EXPECT_EQ(resized.width(), 37u);
  EXPECT_EQ(resized.height(), 23u);
  EXPECT_EQ(resized.bitmapInfo(), kBitmapInfoBGRAPremultiplied);
  // A gray picture is drawn as opaque BGRA.
  const uint8_t g = 77;
  EXPECT_EQ(pixelAt(resizeToSize(Image::filled(PixelLayout::Gray8, 3, 3, &g), Size{6, 6}), 3, 3),
            (Px{77, 77, 77, 255}));
}

}  // namespace
}  // namespace kwq

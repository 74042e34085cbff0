// Renders rotations and scalings of a real photograph to PNG files (for a person to look at)
// and checks the pixels of the files as written.

#include <filesystem>

#include <gtest/gtest.h>

#include "imaging/pixels.h"
#include "kwqimage/KWQImageDictionary.h"
#include "kwqimage/KWQImagingHelper.h"
#include "support/test_support.h"

namespace kwq {
namespace {

using test::pixelAt;
using test::Px;

class Render : public testing::Test {
 protected:
  void SetUp() override {
    folder_ = test::outputDir() + "/imaging-renders";
    std::filesystem::create_directories(folder_);
    KWQImageDictionary::setDocumentsDirectory(folder_);
    photo_ = test::loadSample("fruits.jpg");  // 512 x 480, RGB
    ASSERT_FALSE(photo_.isNull());
  }
  void TearDown() override { KWQImageDictionary::setDocumentsDirectory(""); }

  // Saves through the store and decodes the file from disk.
  Image written(const Image& image, const std::string& name) {
    EXPECT_TRUE(KWQImageDictionary::saveImageAsPNG(image, name));
    return Image::loadFile(folder_ + "/" + name + ".png");
  }
  Px rgbOf(size_t x, size_t y) const {
    const Px p = pixelAt(photo_, x, y);
    return {p[0], p[1], p[2], 255};
  }

  std::string folder_;
  Image photo_;
};

TEST_F(Render, QuarterTurnsOfAPhotographLandEveryPixel) {
  const size_t W = photo_.width(), H = photo_.height();
  const Image ccw = written(rotatedByAngle(photo_, 90.0), "fruits-rotatedByAngle-90");
  const Image cw = written(imageRotatedByDegrees(photo_, 90.0), "fruits-imageRotatedByDegrees-90");
  ASSERT_EQ(ccw.width(), H);
  ASSERT_EQ(ccw.height(), W);
  ASSERT_EQ(cw.width(), H);
  for (size_t Y = 0; Y < W; Y += 37)
    for (size_t X = 0; X < H; X += 41) {
      const Px a = pixelAt(ccw, X, Y), b = pixelAt(cw, X, Y);
      EXPECT_EQ((Px{a[0], a[1], a[2], 255}), rgbOf(W - 1 - Y, X));
      EXPECT_EQ(b, rgbOf(Y, H - 1 - X));  // drawn as opaque RGBA
    }
}

TEST_F(Render, ScalingsAndDiagonalTurnsKeepTheirMarginsTransparent) {
  const Image fit =
      written(imageByScalingProportionallyToSize(photo_, Size{300, 100}), "fruits-fit");
  ASSERT_EQ(fit.width(), 300u);
  // Factor 100 / 480: 106.67 wide, centred at x = 96.67.
  EXPECT_EQ(pixelAt(fit, 90, 50)[3], 0);
  EXPECT_EQ(pixelAt(fit, 98, 50)[3], 255);
  EXPECT_EQ(pixelAt(fit, 202, 50)[3], 255);
  EXPECT_EQ(pixelAt(fit, 210, 50)[3], 0);
  const Image turned = written(rotatedByAngle(photo_, 30.0), "fruits-rotatedByAngle-30");
  ASSERT_EQ(turned.layout(), PixelLayout::RGB24);      // the photograph's own layout
  EXPECT_EQ(pixelAt(turned, 0, 0), (Px{0, 0, 0, 0}));  // black corner of an opaque canvas
  const Px centre = pixelAt(turned, turned.width() / 2, turned.height() / 2);
  const Px original = rgbOf(256, 240);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(centre[k], original[k], 40);
}

}  // namespace
}  // namespace kwq

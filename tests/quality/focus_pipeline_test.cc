#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <random>

#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/kwq_quality.h"
#include "reference.h"
#include "support/test_support.h"

namespace kwq::test {
namespace {

using Raster = std::unique_ptr<uint8_t, decltype(&std::free)>;
Raster pad(const Image& image) {
  return Raster(padImage(image), &std::free);
}

Image grayRamp(size_t w, size_t h) {
  std::vector<uint8_t> bytes(w * h);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i % 251);
  return Image::fromBuffer(PixelLayout::Gray8, w, h, w, std::move(bytes));
}

TEST(FocusPipeline, PadCopiesExactFitAndCentresOtherSizesOnMidGray) {
  const Image exact = grayRamp(640, 480);
  const Raster copied = pad(exact);
  EXPECT_EQ(0, std::memcmp(copied.get(), exact.bytes().data(), 307200));
  // 641 wide: dx = -1 / 2 = 0, so the last column is dropped.
  const Raster wide = pad(grayRamp(641, 480));
  EXPECT_EQ(wide.get()[640], 641 % 251);
  EXPECT_EQ(wide.get()[639], 639 % 251);
  // 1000 x 1000 fits to 480 x 480 and sits at dx = 80 with mid-gray either side.
  const Image fitted = scaleImage(grayRamp(1000, 1000));
  ASSERT_EQ(fitted.width(), 480u);
  ASSERT_EQ(fitted.height(), 480u);
  const Raster centred = pad(fitted);
  for (size_t y = 0; y < 480; ++y) {
    for (size_t x : {0, 79, 560, 639}) ASSERT_EQ(centred.get()[y * 640 + x], 128);
    ASSERT_EQ(centred.get()[y * 640 + 80], fitted.bytes()[y * 480]);
  }
  // Nothing to read: every byte is mid-gray, never 0.
  for (const Image& empty : {Image(), Image::withoutBitmap({640, 480})}) {
    const Raster r = pad(empty);
    EXPECT_EQ(std::count(r.get(), r.get() + 307200, 128), 307200);
  }
}

TEST(FocusPipeline, ScaleFitsInsideTheRasterByTheLargerRatio) {
  const size_t cases[][4] = {{320, 240, 640, 480},
                             {1000, 1000, 480, 480},
                             {1280, 500, 640, 250},
                             {100, 480, 100, 480},
                             {64, 3, 640, 30}};
  for (const auto& c : cases) {
    const Image scaled = scaleImage(grayRamp(c[0], c[1]));
    EXPECT_EQ(scaled.width(), c[2]) << c[0] << "x" << c[1];
    EXPECT_EQ(scaled.height(), c[3]) << c[0] << "x" << c[1];
  }
  EXPECT_TRUE(scaleImage(Image::withoutBitmap({640, 480})).isNull());
  EXPECT_TRUE(scaleImage(grayRamp(1, 4000)).isNull());  // narrower than one pixel
}

TEST(FocusPipeline, FocusEqualsHalvingPaddingAndAssessingStepByStep) {
  // The colour branch halves straight into the raster window; it must equal the steps run
  // one after another, for sizes that overhang, fit exactly, or leave a border.
  std::mt19937 rng(21);
  const size_t sizes[][2] = {{1920, 1080}, {1280, 960}, {701, 503},
                             {2000, 400},  {90, 1200},  {3, 3}};
  for (const auto& size : sizes) {
    for (PixelLayout layout : {PixelLayout::BGRA32Premultiplied, PixelLayout::RGB24}) {
      const Image image = randomImage(rng, layout, size[0], size[1], 4);
      const Raster raster = pad(makeGrayScaleAndScale(image, 2));
      const int32_t want = ref::imageAssess(raster.get()).focus;
      forEachSimdPath([&](quality::SimdPath path) {
        EXPECT_EQ(calculateFocus(image), want)
            << size[0] << "x" << size[1] << " " << quality::simdPathName(path);
      });
    }
  }
  const Image gray = randomImage(rng, PixelLayout::Gray8, 800, 600);
  EXPECT_EQ(calculateFocus(gray), TwoPiFocusAssess(pad(scaleImage(gray)).get()));
  EXPECT_EQ(calculateFocus(Image()), 0);
  EXPECT_EQ(calculateFocus(Image::withoutBitmap({1e12, -1e12})), 0);
}

Image blurred(const Image& image, double sigma) {
  if (sigma == 0) return image;
  const int type = CV_8UC(static_cast<int>(bytesPerPixel(image.layout())));
  const cv::Mat in(static_cast<int>(image.height()), static_cast<int>(image.width()), type,
                   const_cast<uint8_t*>(image.bytes().data()), image.bytesPerRow());
  cv::Mat out;
  cv::GaussianBlur(in, out, cv::Size(0, 0), sigma);
  return Image::copyFromBytes(image.layout(), image.width(), image.height(), out.step[0], out.data);
}

TEST(FocusPipeline, PhotographsScoreLowerAsBlurGrows) {
  for (const char* name : {"building.jpg", "text_defocus.jpg", "messi5.jpg", "baboon.jpg"}) {
    const Image photo = loadSample(name);
    ASSERT_FALSE(photo.isNull());
    for (PixelLayout layout : {PixelLayout::BGRA32Premultiplied, PixelLayout::Gray8}) {
      const Image image = photo.converted(layout);
      std::vector<int32_t> focus, score;
      for (double sigma : {0.0, 0.8, 1.6, 3.2, 6.4}) {
        const Image b = blurred(image, sigma);
        focus.push_back(calculateFocus(b));
        score.push_back(calculateFocusScore(b, 1, 1, 10));
      }
      SCOPED_TRACE(::testing::Message() << name << " layout " << int(layout));
      for (size_t i = 1; i < focus.size(); ++i) {
        EXPECT_LE(focus[i], focus[i - 1]);
        EXPECT_LE(score[i], score[i - 1]);
      }
      EXPECT_LT(focus.back(), focus.front());
      EXPECT_LT(score.back(), score.front());
    }
  }
}

}  // namespace
}  // namespace kwq::test

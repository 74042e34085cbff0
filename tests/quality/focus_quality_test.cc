#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>

#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/kwq_quality.h"
#include "reference.h"
#include "support/test_support.h"

namespace kwq::test {
namespace {

TEST(FocusQuality, MatchesDefinitionInSampleOrder) {
  // Rows of very different contrast: the running float sum passes 2^24 part-way, after which
  // each addition rounds and only the original order gives the same bits.
  std::mt19937 rng(17);
  for (int trial = 0; trial < 60; ++trial) {
    const int w = 1 + rng() % 300, h = 1 + rng() % 200, bpp = 1 + rng() % 4;
    std::vector<uint8_t> data(size_t(w) * h * bpp);
    for (size_t i = 0; i < data.size(); ++i) {
      const size_t row = i / (size_t(w) * bpp);
      data[i] = static_cast<uint8_t>(row % 3 == 0 ? rng() % 256 : rng() % 4);
    }
    const int distance = rng() % 5, step = 1 + rng() % 4, edge = rng() % 30;
    const float want = ref::focusQuality(data, w, h, bpp, distance, step, edge);
    const float got = CalculateFocusQuality(data.data(), w, h, bpp, distance, step, edge);
    EXPECT_EQ(got, want) << w << "x" << h << " bpp " << bpp << " d " << distance << " step " << step
                         << " edge " << edge;
  }
}

TEST(FocusQuality, UniformStripesAndBorders) {
  // Small enough that the float sum stays exact (larger ones round as the reference does).
  std::vector<uint8_t> uniform(100 * 80, 90), columns(21 * 11), wide(101 * 81);
  for (size_t i = 0; i < columns.size(); ++i) columns[i] = (i % 21) % 2 ? 255 : 0;
  for (size_t i = 0; i < wide.size(); ++i) wide[i] = (i % 101) % 2 ? 255 : 0;
  EXPECT_EQ(CalculateFocusQuality(uniform.data(), 100, 80, 1, 1, 1, 10), 0.0f);
  EXPECT_EQ(CalculateFocusQuality(columns.data(), 21, 11, 1, 1, 1, 10), 65025.0f);
  EXPECT_EQ(CalculateFocusQuality(columns.data(), 21, 11, 1, 1, 4, 10), 65025.0f);
  // Above 50 % nothing is left; at exactly 50 % the middle row and column of odd sizes remain.
  EXPECT_EQ(CalculateFocusQuality(wide.data(), 101, 81, 1, 1, 1, 51), 0.0f);
  EXPECT_EQ(CalculateFocusQuality(wide.data(), 101, 81, 1, 1, 1, 50), 65025.0f);
  EXPECT_EQ(CalculateFocusQuality(wide.data(), 100, 81, 1, 1, 1, 50), 0.0f);
  // With no border the last samples' partners lie past the buffer; they are skipped.
  EXPECT_EQ(CalculateFocusQuality(columns.data(), 21, 11, 1, 3, 1, 0),
            ref::focusQuality(columns, 21, 11, 1, 3, 1, 0));
}

TEST(FocusQuality, BadArgumentsGiveZeroWithoutReadingOutside) {
  std::vector<uint8_t> data(64 * 64, 7);
  data[5] = 200;
  for (int step : {0, -1, INT32_MIN})
    EXPECT_EQ(CalculateFocusQuality(data.data(), 64, 64, 1, 1, step, 10), 0.0f);
  EXPECT_EQ(CalculateFocusQuality(nullptr, 64, 64, 1, 1, 1, 10), 0.0f);
  EXPECT_EQ(CalculateFocusQuality(data.data(), 64, 64, 0, 1, 1, 10), 0.0f);
  for (int edge : {-100, -7, 101, INT32_MAX, INT32_MIN}) {
    EXPECT_TRUE(std::isfinite(CalculateFocusQuality(data.data(), 64, 64, 1, 1, 1, edge)));
  }
  for (int distance : {INT32_MIN, -5000, 5000, INT32_MAX}) {
    EXPECT_EQ(CalculateFocusQuality(data.data(), 64, 64, 1, distance, 1, 0), 0.0f);
  }
  EXPECT_EQ(CalculateFocusQuality(data.data(), UINT32_MAX, UINT32_MAX, INT32_MAX, 1, 1, 10), 0.0f);
}

TEST(FocusQuality, ScoreIsThreeRootMeanSquareCappedAt100) {
  std::vector<uint8_t> stripes(40 * 30);
  for (size_t i = 0; i < stripes.size(); ++i) stripes[i] = (i % 40) % 2 ? 10 : 0;
  const Image image = Image::fromBuffer(PixelLayout::Gray8, 40, 30, 40, stripes);
  EXPECT_EQ(calculateFocusScore(image, 1, 1, 10), 30);  // d = 10 everywhere
  EXPECT_EQ(calculateFocusScore(image, 2, 1, 10), 0);
  for (auto& b : stripes) b *= 20;
  EXPECT_EQ(
      calculateFocusScore(Image::fromBuffer(PixelLayout::Gray8, 40, 30, 40, stripes), 1, 1, 10),
      100);
  EXPECT_EQ(calculateFocusScore(Image(), 1, 1, 10), 0);
  EXPECT_EQ(calculateFocusScore(Image::withoutBitmap({50, 50}), 1, 1, 10), 0);
  EXPECT_EQ(calculateFocusScore(image, 1, 0, 10), 0);
}

TEST(FocusQuality, DataArrayIsAMallocedCopyOfTheStoredBytes) {
  std::mt19937 rng(2);
  const Image image = randomImage(rng, PixelLayout::RGB24, 13, 9, 3);
  uint8_t* copy = makeDataArray(image);
  ASSERT_NE(copy, nullptr);
  EXPECT_TRUE(std::equal(image.bytes().begin(), image.bytes().end(), copy));
  std::free(copy);
  EXPECT_EQ(makeDataArray(Image::withoutBitmap({4, 4})), nullptr);
}

}  // namespace
}  // namespace kwq::test

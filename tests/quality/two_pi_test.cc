#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "kwqimage/kwq_quality.h"
#include "quality/two_pi_focus.h"
#include "reference.h"

namespace kwq::test {
namespace {

using Raster = std::vector<uint8_t>;

Raster filledRaster(uint8_t value) {
  return Raster(KWQ_ASSESSMENT_RASTER_BYTES, value);
}

ref::TwoPiScores assess(const Raster& raster) {
  const ImageAssessSource source{raster.data()};
  ImageAssessResult result{};
  ImageAssess(&source, &result);
  EXPECT_EQ(TwoPiFocusAssess(raster.data()), result.focusScore);
  return {result.centerSurroundScore, result.focusScore, result.rowAlternationScore};
}

// The four accumulators must agree exactly (one misjudged block changes them even when the
// rounded scores do not), and so must the scores.
void expectMatchesReference(const Raster& raster, const char* what) {
  const ref::TwoPiSums sums = ref::twoPiSums(raster.data());
  const ref::TwoPiScores want = ref::imageAssess(raster.data());
  forEachSimdPath([&](quality::SimdPath path) {
    SCOPED_TRACE(std::string(what) + " on " + quality::simdPathName(path));
    const quality::two_pi::Sums gotSums = quality::two_pi::assessSums(raster.data(), path);
    EXPECT_EQ(gotSums.rowSum, sums.rowSum);
    EXPECT_EQ(gotSums.allSum, sums.allSum);
    EXPECT_EQ(gotSums.cleanSum, sums.cleanSum);
    EXPECT_EQ(gotSums.cleanCount, sums.cleanCount);
    const ref::TwoPiScores got = assess(raster);
    EXPECT_EQ(got.centerSurround, want.centerSurround);
    EXPECT_EQ(got.focus, want.focus);
    EXPECT_EQ(got.rowAlternation, want.rowAlternation);
  });
}

TEST(TwoPiFocus, EveryPathMatchesTheBlockByBlockDefinition) {
  std::mt19937 rng(7);
  for (int trial = 0; trial < 40; ++trial) {
    // Vary the contrast and how many pixels pass the bright limit, so every mask pixel, the
    // saturating scores and the 32-bit wrap of extreme sums are exercised. The reference reads
    // only the block window, so equal sums also show the rest of the raster is ignored.
    const int low = std::uniform_int_distribution<int>(0, 200)(rng);
    const int high = std::uniform_int_distribution<int>(low, 255)(rng);
    const bool binary = trial % 5 == 4;
    std::uniform_int_distribution<int> value(low, high);
    Raster raster(KWQ_ASSESSMENT_RASTER_BYTES);
    for (auto& b : raster) b = static_cast<uint8_t>(binary ? (rng() & 1) * 255 : value(rng));
    expectMatchesReference(raster, "random raster");
  }
}

TEST(TwoPiFocus, UniformAndStripedRasters) {
  for (uint8_t v : {0, 128, 255}) {
    const ref::TwoPiScores s = assess(filledRaster(v));
    EXPECT_EQ(s.centerSurround, 0);
    EXPECT_EQ(s.focus, 0);
    EXPECT_EQ(s.rowAlternation, 0);
  }
  Raster rows(KWQ_ASSESSMENT_RASTER_BYTES), columns(KWQ_ASSESSMENT_RASTER_BYTES);
  for (size_t i = 0; i < rows.size(); ++i) {
    rows[i] = (i / 640) % 2 ? 255 : 0;
    columns[i] = (i % 640) % 2 ? 255 : 0;
  }
  EXPECT_GT(assess(rows).rowAlternation, 90);
  EXPECT_EQ(assess(columns).rowAlternation, 0);
  // Everything bright: no clean block, yet the other two scores are computed as usual.
  Raster bright = rows;
  for (auto& b : bright) b = b ? 255 : 200;
  const ref::TwoPiScores s = assess(bright);
  EXPECT_EQ(s.focus, 0);
  EXPECT_GT(s.rowAlternation, 0);
}

TEST(TwoPiFocus, NullArgumentsWriteNothing) {
  ImageAssessResult result{};
  result.focusScore = 77;
  const ImageAssessSource empty{nullptr};
  ImageAssess(&empty, &result);
  ImageAssess(nullptr, &result);
  EXPECT_EQ(result.focusScore, 77);
  const Raster raster = filledRaster(9);
  const ImageAssessSource source{raster.data()};
  ImageAssess(&source, nullptr);
  EXPECT_EQ(TwoPiFocusAssess(nullptr), 0);
}

}  // namespace
}  // namespace kwq::test

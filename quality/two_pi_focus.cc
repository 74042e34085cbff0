#include "quality/two_pi_focus.h"

#include <cmath>

#include "kwqimage/kwq_quality.h"
#include "quality/quality_internal.h"
#include "quality/simd_ops.h"

namespace kwq::quality {

#if KWQ_QUALITY_X86
namespace sse2 {
#include "quality/two_pi_simd_body.h"
}  // namespace sse2
KWQ_AVX2_REGION_BEGIN
namespace avx2 {
#include "quality/two_pi_simd_body.h"
}  // namespace avx2
KWQ_AVX2_REGION_END
#endif

namespace two_pi {
namespace {

// Portable path: the same square decomposition in plain integer code.
void scalarBand(const uint8_t* raster, int band, Band& out) {
  const uint8_t* row = raster + (kOrigin + 4 * band) * kStride + kOrigin;
  for (int g = 0; g < kComputedGroups; ++g) {
    const uint8_t* p = row + 4 * g;
    int32_t left[4], right[4];
    for (int i = 0; i < 4; ++i) {
      left[i] = p[i * kStride] + p[i * kStride + 1];
      right[i] = p[i * kStride + 2] + p[i * kStride + 3];
    }
    const int32_t topLeft = left[0] + left[1], topRight = right[0] + right[1];
    const int32_t bottomLeft = left[2] + left[3], bottomRight = right[2] + right[3];
    out.total[g] = topLeft + topRight + bottomLeft + bottomRight;
    out.alt[g] =
        (left[0] + right[0]) - (left[1] + right[1]) + (left[2] + right[2]) - (left[3] + right[3]);
    out.top[g] = topLeft | (topRight << 16);
    out.bottom[g] = bottomLeft | (bottomRight << 16);
    const uint8_t* last = p + 3 * kStride;
    out.bright[g] = (p[0] >= 200 ? kTopFirst : 0) | (p[3] >= 200 ? kTopLast : 0) |
                    (last[0] >= 200 ? kBottomFirst : 0) | (last[3] >= 200 ? kBottomLast : 0);
  }
}

uint32_t energyTerm(int32_t response) {
  return (static_cast<uint32_t>(response * response) + 128u) >> 8;
}

void scalarBlocks(const Band& upper, const Band& lower, Sums& sums) {
  for (int b = 0; b < kBlockCols; ++b) {
    const int32_t total = upper.total[b] + upper.total[b + 1] + lower.total[b] + lower.total[b + 1];
    const int32_t alt = upper.alt[b] + upper.alt[b + 1] + lower.alt[b] + lower.alt[b + 1];
    const int32_t inner = (upper.bottom[b] >> 16) + (upper.bottom[b + 1] & 0xFFFF) +
                          (lower.top[b] >> 16) + (lower.top[b + 1] & 0xFFFF);
    const uint32_t qTerm = energyTerm(4 * inner - total);  // 3 x inner - (total - inner)
    sums.allSum += qTerm;
    sums.rowSum += energyTerm(alt);
    const int32_t bright =
        (upper.bright[b] & kMaskUpperLeft) | (upper.bright[b + 1] & kMaskUpperRight) |
        (lower.bright[b] & kMaskLowerLeft) | (lower.bright[b + 1] & kMaskLowerRight);
    if (bright == 0) {
      sums.cleanSum += qTerm;
      sums.cleanCount += 1;
    }
  }
}

Sums scalarSums(const uint8_t* raster) {
  Band bands[2] = {};
  Sums sums;
  scalarBand(raster, 0, bands[0]);
  for (int a = 0; a < kBlockRows; ++a) {
    scalarBand(raster, a + 1, bands[(a + 1) & 1]);
    scalarBlocks(bands[a & 1], bands[(a + 1) & 1], sums);
  }
  return sums;
}

// k x k / (k x k + midpoint) on 0..100, from a 32-bit sum: the sum is read as signed, rounded
// by `shift` bits and squared with 32-bit wrap-around, as the score was always computed.
int32_t saturatingScore(uint32_t sum, int shift) {
  const int32_t k = static_cast<int32_t>(sum + (1u << (shift - 1))) >> shift;
  const int32_t square = static_cast<int32_t>(static_cast<uint32_t>(k) * static_cast<uint32_t>(k));
  const int32_t denominator = static_cast<int32_t>(static_cast<uint32_t>(square) + 2000000u);
  if (denominator == 0) return 0;  // only reachable through wrap-around; avoids 0/0
  return truncToInt32(static_cast<float>(square) * 100.0f / static_cast<float>(denominator) + 0.5f);
}

}  // namespace

Sums assessSums(const uint8_t* raster, SimdPath path) {
  switch (path) {
#if KWQ_QUALITY_X86
    case SimdPath::Avx2:
      return avx2::twoPiSums(raster);
    case SimdPath::Sse2:
      return sse2::twoPiSums(raster);
#endif
    default:
      return scalarSums(raster);
  }
}

Scores scoresFromSums(const Sums& sums) {
  Scores scores;
  scores.rowAlternation = saturatingScore(sums.rowSum, 11);
  scores.centerSurround = saturatingScore(sums.allSum, 10);
  // Mean clean-block energy, scaled; every step in single precision in this order.
  float m = static_cast<float>(static_cast<int32_t>(sums.cleanSum));
  m = m * 14000.0f;
  m = m * 256.0f;
  m = m / static_cast<float>(static_cast<int32_t>(sums.cleanCount));
  m = m * 1.52587890625e-05f;
  const float mm = m * m;
  scores.focus = truncToInt32(std::floor(mm * 100.0f / (mm + 3311294.0f) + 0.5f));
  return scores;
}

}  // namespace two_pi
}  // namespace kwq::quality

extern "C" {

void ImageAssess(const ImageAssessSource* source, ImageAssessResult* result) {
  using namespace kwq::quality;
  if (!source || !source->raster || !result) return;
  const two_pi::Scores scores =
      two_pi::scoresFromSums(two_pi::assessSums(source->raster, activeSimdPath()));
  result->centerSurroundScore = scores.centerSurround;
  result->focusScore = scores.focus;
  result->rowAlternationScore = scores.rowAlternation;
}

int32_t TwoPiFocusAssess(const uint8_t* raster) {
  if (!raster) return 0;
  const ImageAssessSource source{raster};
  ImageAssessResult result;
  ImageAssess(&source, &result);
  return result.focusScore;
}

}  // extern "C"

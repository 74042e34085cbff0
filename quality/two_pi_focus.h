#pragma once

// Internals of the two-pi focus assessment, shared by its instruction-set variants and tests.
//
// Blocks are 8 x 8 pixels at a stride of 4, so the assessed window (rows 39..446, columns
// 39..606) splits into 4 x 4 squares: 102 bands of 4 rows by 142 groups of 4 columns. Each
// block is exactly 2 x 2 squares (bands a, a + 1 by groups b, b + 1), so every sum a block
// needs is a sum of per-square sums computed once per square instead of once per block.

#include <cstdint>

#include "quality/simd_path.h"

namespace kwq::quality::two_pi {

inline constexpr int kStride = 640;     // raster row length in bytes
inline constexpr int kOrigin = 39;      // first row and column of the block grid
inline constexpr int kBlockRows = 101;  // block tops at rows 39, 43, ..., 439
inline constexpr int kBlockCols = 141;  // block lefts at columns 39, 43, ..., 599
inline constexpr int kBands = kBlockRows + 1;
inline constexpr int kComputedGroups = 144;  // 142 real groups rounded up to whole vectors
inline constexpr int kGroupSlots = 152;      // room for vector loads at group b + 1

// Bright-pixel flags of a square: the first or last pixel of its first or last row is 200 or
// more. Bits sit in bytes 0 and 3 of the word, where vector code finds those pixels.
inline constexpr int32_t kTopFirst = 0x01;
inline constexpr int32_t kBottomFirst = 0x04;
inline constexpr int32_t kTopLast = 0x02 << 24;
inline constexpr int32_t kBottomLast = 0x08 << 24;

// The eight mask pixels of the block at bands (a, a + 1) and groups (b, b + 1): block pixels
// (0,0) and (3,0) in square (a,b); (0,4) and (0,7) in (a,b+1); (7,0) and (7,3) in (a+1,b);
// (4,7) and (7,7) in (a+1,b+1).
inline constexpr int32_t kMaskUpperLeft = kTopFirst | kBottomFirst;
inline constexpr int32_t kMaskUpperRight = kTopFirst | kTopLast;
inline constexpr int32_t kMaskLowerLeft = kBottomFirst | kBottomLast;
inline constexpr int32_t kMaskLowerRight = kTopLast | kBottomLast;

/// Per-square sums of one band, indexed by group.
struct Band {
  alignas(32) int32_t total[kGroupSlots];  // sum of the 16 pixels
  alignas(32) int32_t alt[kGroupSlots];    // row0 - row1 + row2 - row3
  // Two 2 x 2 cells packed as (left | right << 16): rows 0-1 in `top`, rows 2-3 in `bottom`.
  alignas(32) int32_t top[kGroupSlots];
  alignas(32) int32_t bottom[kGroupSlots];
  alignas(32) int32_t bright[kGroupSlots];  // kTopFirst | kTopLast | ... flags
};

/// The accumulators of the block filter after the last block.
struct Sums {
  uint32_t rowSum = 0;
  uint32_t allSum = 0;
  uint32_t cleanSum = 0;
  uint32_t cleanCount = 1;  // starts at 1 so an image without clean blocks scores 0
};

/// Runs the block filter over a 640 x 480 raster with the given instruction set.
Sums assessSums(const uint8_t* raster, SimdPath path);

/// The three 0..100 scores from the accumulators.
struct Scores {
  int32_t centerSurround;
  int32_t focus;
  int32_t rowAlternation;
};
Scores scoresFromSums(const Sums& sums);

}  // namespace kwq::quality::two_pi

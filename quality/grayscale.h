#pragma once

// Internals of the gray-scale reduction, shared with the focus pipeline and tests.

#include <cstddef>
#include <cstdint>

#include "platform/image/image_data.h"
#include "quality/simd_path.h"

namespace kwq::quality {

/// Writes the output pixels [x0, x0 + width) x [y0, y0 + height) of the gray reduction of
/// `source` by `factor` (>= 2) to `out`, rows `outStride` bytes apart. Each output byte is
/// (R + 4 G) / 20 over the corners of a (factor / 2)-sided square at the top-left of the
/// pixel's factor x factor cell, G and R being bytes 1 and 2 (a narrower pixel repeats its last
/// byte). The caller keeps the rectangle inside (source width / factor) x (height / factor).
void reduceToGray(const Bitmap& source, uint32_t factor, size_t x0, size_t y0, size_t width,
                  size_t height, uint8_t* out, size_t outStride, SimdPath path);

/// (R + 4 G) / 20 for R + 4 G <= 5100 as a multiply and shift (the form the vector code uses).
constexpr uint32_t divideBy20(uint32_t x) {
  return (x * 52429u) >> 20;
}

}  // namespace kwq::quality

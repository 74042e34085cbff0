#pragma once

// The two bitmap-context draws the quality measures need, in the source's own coordinate
// conventions: the whole destination is covered and the orientation is not applied.

#include <cstddef>

#include "kwqimage/Image.h"

namespace kwq::platform {

/// Redraws the bitmap of `source` at width x height in its own pixel layout, resampled
/// (bilinear when enlarging, area averaging when reducing; alpha resampled premultiplied).
/// Returns a scale-1, orientation-up image with rows packed, or null when `source` has no
/// bitmap or a size is 0.
Image redrawResampled(const Image& source, size_t width, size_t height);

/// Draws the bitmap of `source` into an 8-bit gray, row-packed context of width x height,
/// stretched over the rectangle (0, 0, drawSize) of a context whose y axis points up (so a
/// draw rectangle taller than the context loses the bitmap's top rows; one smaller than the
/// context, which makeGrayScale never asks for, repeats the edge pixels). Colour becomes gray
/// with the ITU-R BT.601 weights after compositing over black. Null when `source` has no
/// bitmap or a size is 0.
Image drawIntoGray(const Image& source, size_t width, size_t height, Size drawSize);

}  // namespace kwq::platform

#pragma once

// The bitmap drawing context: drawing in the source bitmap's own pixel layout on a canvas
// whose y axis points up (origin at the bottom left), and crops of stored bitmaps. Rotation
// and crops of the geometry functions go through here.

#include <cstddef>

#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"

namespace kwq::platform {

/// Largest canvas side of rotateInBitmapContext.
inline constexpr size_t kMaxBitmapContextSide = 32767;

/// Draws the bitmap of `source` into a new, zeroed width x height canvas of its own layout
/// (rows packed) whose transform is: translate by (width >> 1, height >> 1), then rotate by
/// `radians` (counter-clockwise as seen, the y axis pointing up), the bitmap filling the
/// rectangle (-W / 2, -H / 2, W, H). Bilinear, edges blended with the zero canvas; straight
/// alpha is resampled premultiplied. When the mapping lands every pixel exactly on a pixel,
/// the pixels are copied (the same result, faster). Null without a bitmap, for a zero size or
/// a side beyond kMaxBitmapContextSide (source or canvas), or a non-finite angle.
Image rotateInBitmapContext(const Image& source, double radians, size_t width, size_t height);

/// The part of the bitmap inside `rect` after making it integral and cutting it at the
/// bitmap's edges (the platform's image-in-rect crop), copied with rows packed in the same
/// layout. Null without a bitmap, when nothing is left, or for a NaN value or an infinite
/// origin (an infinite size reaches to the edge).
Image cropBitmap(const Image& source, const Rect& rect);

}  // namespace kwq::platform

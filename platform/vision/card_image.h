#pragma once

// The pixel work of the card capture: the card cut out of a frame and flattened to a fixed
// size, and what its pixels say about sharpness, light and glare. The rules that turn these
// numbers into a verdict live with the capture engine; this header is free of OpenCV.

#include <array>
#include <cstddef>
#include <optional>

#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq::platform {

/// Size of the flattened card and the gray level at which card pixels count as glare.
struct CardImageSettings {
  size_t width = 1000;  ///< even; the height follows from the 86:54 shape (rounded to even)
  double glareLevel = 250.0;
};

/// The flattened card and its measures.
struct CardImage {
  /// The card as RGB (from 420f/420v frames) or premultiplied BGRA (from BGRA frames), top
  /// left of the quad at the top left.
  Image card;
  /// Gray of the card reduced by 10 (block means), the picture the measures are taken on.
  Image measureGray;
  /// Root mean square of the Laplacian of `measureGray` over the card's inner part, per unit
  /// of its gray-level standard deviation, times 100: rises with detail, falls with blur, and
  /// does not depend on how large the card was in the frame or how bright the light.
  double sharpness = 0.0;
  /// Mean gray level of the card's inner part, 0..255, highlights and their halo left out.
  double brightness = 0.0;
  /// Share of the full-size card's pixels at or above the glare level, 0..1.
  double glareFraction = 0.0;
  /// Centre and bounding box of those pixels in the flattened card's pixels (zero without).
  Point glareCentre;
  Rect glareBox;
};

/// The card's height for `width`: width x 54 / 86 rounded to an even number.
size_t cardImageHeight(size_t width);

/// Flattens the quad `corners` (top left, top right, bottom right, bottom left, in the
/// frame's pixels with the origin at the top left, y down, pixel (i, j) covering
/// [i, i + 1) x [j, j + 1)) of a 420f, 420v or BGRA frame to settings.width x its height and
/// measures it. None for the null buffer, another format, a buffer that cannot be locked, a
/// width outside 64..4096, non-finite corners or a degenerate quad; never throws. Corners may
/// lie outside the frame (the edge pixels are repeated). Thread: any; the buffer is locked
/// read-only for the call.
std::optional<CardImage> flattenCard(const PixelBuffer& frame, const std::array<Point, 4>& corners,
                                     const CardImageSettings& settings);

/// Mean gray level of a 420f, 420v or BGRA frame, 0..255, sampled every 8th pixel of every
/// 8th row: tells a dark room from an empty desk when no card is found. None for another
/// format or a buffer that cannot be read. Thread: any; locks the buffer read-only.
std::optional<double> frameBrightness(const PixelBuffer& frame);

}  // namespace kwq::platform

#pragma once

/// @file
/// Operations on images: focus, brightness and gray-scale measures (and, beside them, geometry
/// and face features). Every function may be called from any thread; none changes its image.

#include <cstdint>

#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"

namespace kwq {

// ---- Focus measure pipeline ---------------------------------------------------------------

/// The image redrawn, aspect kept, to touch 640 x 480 from inside (small images are enlarged),
/// in its own pixel layout. Null for a null image, an image without a bitmap, or a result
/// narrower or lower than one pixel.
KWQ_EXPORT Image scaleImage(const Image& image);

/// A malloc'ed 640 x 480 raster (307,200 bytes; release with free) holding the image's bytes,
/// read as 8-bit gray rows packed at its point width, centred on mid-gray (128) and cut where it
/// overhangs. A 640 x 480 image is copied unchanged. Reads never go past the image's bytes:
/// a null image, or rows beyond the bitmap, leave the canvas at 128. Null only when allocation
/// fails.
KWQ_EXPORT uint8_t* padImage(const Image& image);

/// Two-pi focus score 0..100 (higher is sharper): gray images are fitted to 640 x 480, colour
/// images are halved (and cut to 640 x 480 about the centre). 0 for a null image.
KWQ_EXPORT int32_t calculateFocus(const Image& image);

/// Focus quality score 0..100: 3 x the root of the mean squared difference between gray pixels
/// `distance` apart along rows, sampled every `step` pixels, less `edgePercent` percent at each
/// border; capped at 100. 0 when nothing can be sampled.
KWQ_EXPORT int32_t calculateFocusScore(const Image& image, int32_t distance, int32_t step,
                                       int32_t edgePercent);

/// A malloc'ed copy of the bitmap's bytes exactly as stored (bytesPerRow x height bytes);
/// release with free. Null when the image has no bitmap.
KWQ_EXPORT uint8_t* makeDataArray(const Image& image);

// ---- Brightness -----------------------------------------------------------------------------
// Each returns the mean raw byte of a sparse grid (every min(width, 10)-th row and column) of
// the bitmap addressed as packed rows, 0 on failure. The divisor is the grid's nominal size,
// so an uneven grid can give more than the true mean; callers compare scores, not levels.

/// Gray bytes less a 20-pixel border. Logs and returns 0 without a bitmap.
KWQ_EXPORT int32_t calculateBrightness(const Image& image);

/// Byte 1 of each pixel (byte 0 when bytesPerPixel is 1 or 2) less `edgePercent` percent at
/// each border (values outside 0..99 mean 0). Logs and returns 0 without a bitmap.
KWQ_EXPORT int32_t calculateBrightness(const Image& image, int32_t bytesPerPixel,
                                       int32_t edgePercent);

/// Gray bytes inside `rect` (bitmap pixels, both ends inclusive). The rectangle must lie inside
/// (0, 0, image height, image width): height and width trade places in this test, and the
/// divisor is height x height / step / step. Logs and returns 0 when the test fails or there
/// is no bitmap; samples past the end of the bytes are skipped.
KWQ_EXPORT int32_t calculateBrightness(const Image& image, const Rect& rect);

// ---- Gray scale -----------------------------------------------------------------------------

/// True exactly when the bitmap's colour space is monochrome.
KWQ_EXPORT bool isGrayScale(const Image& image);

/// The image drawn into an 8-bit gray, row-packed bitmap of its point size (truncated);
/// orientation not applied. Null for a null image or a size below one pixel.
KWQ_EXPORT Image makeGrayScale(const Image& image);

/// For factor < 2, makeGrayScale. Otherwise an 8-bit gray image of (width / factor) x
/// (height / factor) pixels whose each byte is (R + 4 G) / 20 over the four pixels at the
/// corners of a (factor / 2)-sided square at the top-left of each factor x factor cell, where G
/// is byte 1 and R byte 2 of a 4-byte pixel (green and red of BGRA). Pixels narrower than four
/// bytes read their last byte in place of a missing one (gray gives its own value); padded rows
/// are read at their real stride. Null without a bitmap or when the result would be empty.
KWQ_EXPORT Image makeGrayScaleAndScale(const Image& image, int32_t factor);

}  // namespace kwq

// =============================================================================================
// Geometry
// =============================================================================================
//
// Resizing, cropping, rotation and scaling. Every function returns a new image (scale 1,
// orientation up) and leaves its argument unchanged; each may run on any thread.
//
// Two drawing models are used, as the platform's image and bitmap contexts have them:
//  - Drawing functions (resizeToSize, the three imageByScaling... functions,
//    imageRotatedByDegrees/Radians) draw into a fresh premultiplied-BGRA canvas, transparent
//    where nothing is drawn, y axis down. The image is drawn with its orientation applied,
//    resampled bilinearly; imageRotatedByDegrees draws the bitmap as stored. A canvas size is
//    rounded up to whole pixels (values within 1e-6 of an integer count as that integer); a
//    size that rounds to no pixel, is not finite or exceeds 32767 pixels gives no canvas.
//  - Bitmap functions (the crops, rotatedByAngle, imageAtRect) work on the bitmap as stored, in
//    its own pixel layout (a gray image stays gray), ignoring scale and orientation.
//
// Conversions of floating-point values to unsigned integers saturate: NaN and negative values
// give 0, values beyond the range give the largest value.
//
// The null image in gives the null image out, silently. An image without a bitmap makes the
// crops and rotatedByAngle log "<method> [Line <n>] *** error: image must be backed by a
// CGImage: <description>" and return the null image; the drawing functions draw nothing for it.
//
// Both crops are named after their first keyword: they differ in arity, so overloads stay
// unambiguous.

namespace kwq {

/// The image drawn into a canvas of exactly `size` (at (0, 0, size)).
KWQ_EXPORT Image resizeToSize(const Image& image, Size size);

/// A crop in bitmap pixels. With `paddingPercent` > 0 the rectangle first grows about its centre
/// by that percentage (single precision) and its origin is held at 1 or more. Then the origin is
/// truncated and held away from row and column 0; a size that reaches the far edge becomes the
/// image's size less one, and the crop is cut at the image's edge. Null when nothing is left.
KWQ_EXPORT Image cropImageAtCoordinates(const Image& image, const Rect& rect, float paddingPercent);

/// A crop given in the coordinates of a view of `viewSize` showing the whole bitmap. The
/// padding is ignored. The crop keeps the rectangle's scaled centre and size; when its origin
/// would be negative the unsigned arithmetic wraps and the result is null.
KWQ_EXPORT Image cropImageAtCoordinates(const Image& image, const Rect& rect, float paddingPercent,
                                        Size viewSize);

/// The bitmap rotated by `degrees` counter-clockwise as seen, on a canvas of the rotated
/// bounding box rounded half up, in the image's own layout; corners outside the picture are
/// zero (transparent or black). Redraws also at 0 degrees. Null when the image or the canvas
/// exceeds 32767 pixels on a side (or memory), or the angle is not finite.
KWQ_EXPORT Image rotatedByAngle(const Image& image, double degrees);

/// The part of the bitmap inside `rect` (made integral and cut at the edges); null when
/// nothing is left.
KWQ_EXPORT Image imageAtRect(const Image& image, const Rect& rect);

/// The image scaled, aspect kept, to cover `targetSize` and centred; the overflow is cut.
/// Logs "could not scale image" and returns null when no canvas can be made.
KWQ_EXPORT Image imageByScalingProportionallyToMinimumSize(const Image& image, Size targetSize);

/// The image scaled, aspect kept, to fit inside `targetSize` and centred; the margin stays
/// transparent. Logs "could not scale image" and returns null when no canvas can be made.
KWQ_EXPORT Image imageByScalingProportionallyToSize(const Image& image, Size targetSize);

/// The image stretched to `targetSize`. Logs "could not scale image" and returns null when
/// no canvas can be made.
KWQ_EXPORT Image imageByScalingToSize(const Image& image, Size targetSize);

/// imageRotatedByDegrees(image, RadiansToDegrees(radians)).
KWQ_EXPORT Image imageRotatedByRadians(const Image& image, double radians);

/// The bitmap rotated by `degrees` clockwise as seen (the opposite sense of rotatedByAngle),
/// centred on a canvas of the rotated bounding box of the point size.
KWQ_EXPORT Image imageRotatedByDegrees(const Image& image, double degrees);

}  // namespace kwq

#include "kwqimage/KWQImagingHelperFaces.h"

#pragma once

// The rectangle detection service: finds the outlines of flat rectangular things (cards,
// boxes, sheets, screens) in a frame or a still image, as quadrilaterals under perspective.
// Built on OpenCV (edges, contours, a convex quadrilateral fit, sides refined on the full
// picture); this header is free of OpenCV so that library code can use the service and tests
// can script it.

#include <cstdint>
#include <memory>
#include <vector>

#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq::platform {

/// How hard the detector looks.
enum class RectangleAccuracy : uint8_t {
  /// Fast: edges searched on a copy reduced by a whole factor to a long side of at most 400
  /// pixels, sides re-fitted there (corners within a pixel or two of that copy, so a few
  /// pixels on large frames; faint outlines such as hairlines may be missed).
  Low,
  /// Thorough: edges searched on a smoothed copy reduced by a whole factor to a long side of
  /// at most 640, and the sides of the leading quadrilaterals re-fitted twice on the full
  /// picture, so corners land within a fraction of a pixel of the sharp corners the sides
  /// span (rounded corners are cut off).
  High,
};

/// How the detector is made; fixed for the life of a detector.
struct RectangleDetectorOptions {
  RectangleAccuracy accuracy = RectangleAccuracy::Low;
  /// Width over height of the rectangles sought, in either orientation (1.6 also prefers
  /// upright 1 / 1.6 rectangles). A preference, never a filter: rectangles whose shape is near
  /// it rank first, and a rectangle of any other shape (a square, a 3:1 strip) is still
  /// reported when it is the most prominent thing left. 0 or less: no preference.
  double aspectRatio = 0.0;
  /// How a rectangle's shape is measured against `aspectRatio`:
  ///  - 0 or less: as it appears, the ratio of the mean long side to the mean short side
  ///    (perspective ignored);
  ///  - positive: the camera's focal length in pixels; the rectangle's true ratio is recovered
  ///    from its perspective (principal point at the picture's centre), so a card tilted away
  ///    from the camera still ranks as a card.
  double focalLength = -1.0;
  /// Most features returned (at least 1).
  int maxFeatureCount = 1;
};

/// One rectangle, in the coordinates of the picture it was found in with the origin at the
/// BOTTOM-left (y up), in pixels: a pixel row r (counted from the top) lies at y = height - r.
///
/// The corners go round the outline: topLeft is the corner nearest the picture's top-left
/// direction (smallest x - y), and topLeft, topRight, bottomRight, bottomLeft follow one
/// another clockwise as the picture is seen. An upright rectangle therefore has topLeft at its
/// top left as seen, whatever its size; a rotated one is labelled as it now appears.
struct RectangleFeature {
  Point topLeft;
  Point topRight;
  Point bottomLeft;
  Point bottomRight;
  /// The bounding box of the corners.
  Rect bounds;
};

/// Finds rectangles. Implementations are safe to call from any thread, also concurrently on
/// one instance (the detector built here keeps no per-call state).
class RectangleDetector {
 public:
  virtual ~RectangleDetector() = default;

  /// The rectangles of a frame, most prominent first (large, well outlined, and near the
  /// aspect-ratio hint), at most `maxFeatureCount`. A rectangle is at least 0.8 % of the
  /// frame's area and wholly inside it (one cut off by the frame's edge is not reported).
  /// Reads 420f and 420v frames' luma plane in place, and BGRA frames converted to gray.
  /// Empty for the null buffer, another pixel format, a buffer that cannot be locked, a frame
  /// smaller than 16 pixels on a side (or so long and thin that its reduced copy is), and on
  /// any internal failure; never throws. Thread: any; the buffer is locked read-only for the
  /// call, and scratch memory of about one luma plane is used per call.
  virtual std::vector<RectangleFeature> featuresInImage(const PixelBuffer& frame) const = 0;

  /// The same for an image's bitmap (its orientation and scale are not applied), in the
  /// bitmap's pixels. Empty for the null image and an image without a bitmap.
  virtual std::vector<RectangleFeature> featuresInImage(const Image& image) const = 0;

  /// The frame's image buffer; empty for the null sample.
  std::vector<RectangleFeature> featuresInImage(const SampleBuffer& sample) const {
    return featuresInImage(sample.imageBuffer());
  }
};

/// The OpenCV detector with `options` (a maxFeatureCount below 1 counts as 1). Cheap to make;
/// make one and reuse it. Thread: any.
std::shared_ptr<const RectangleDetector> createRectangleDetector(
    const RectangleDetectorOptions& options);

}  // namespace kwq::platform

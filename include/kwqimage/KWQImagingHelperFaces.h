#pragma once

/// @file
/// Face features and annotation.
///
/// Finding the largest face of a still image with its eyes and mouth, and drawing on images for
/// visual checks. Every function may run on any thread, also concurrently; none changes its
/// image. Nothing here logs.

#include <cstdint>
#include <string>

#include "kwqimage/Color.h"
#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"

namespace kwq {

/// The largest face of an image. Coordinates are bitmap pixels with the origin at the top left.
struct KWQFaceFeatures {
  Rect faceRect;                ///< bounds of the chosen face; zero when there is none
  Point leftEye;                ///< the eye nearer the image's left edge; zero when not found
  Point rightEye;               ///< the other eye; zero when not found
  Point mouth;                  ///< zero when not found
  float faceAngle = 0.0f;       ///< eye-line angle in degrees (y up) of the LAST face enumerated
  bool hasSmile = false;        ///< read only when the chosen face's mouth was found
  bool leftEyeClosed = false;   ///< read only when the left eye was found
  bool rightEyeClosed = false;  ///< read only when the right eye was found
  int32_t featuresFound = 0;    ///< 1 once any eye or mouth position was taken, else 0
};

/// getKWQFaceFeaturesWithAccuracy(image, accuracy, false).
KWQ_EXPORT KWQFaceFeatures getKWQFaceFeaturesWithAccuracy(const Image& image, int64_t accuracy);

/// Runs the face detector on the image's bitmap (its scale and orientation are not applied):
/// accuracy 0 is the fast search, any other value the thorough one. Faces are taken in the
/// detector's order (top to bottom, then left to right); a face strictly wider than the one
/// held replaces the rectangle and whichever of its eyes and mouth it has, so a point it lacks
/// keeps the earlier face's value, and ties keep the earlier face. The face angle is that of
/// the last face enumerated, chosen or not (0 when it had not both eyes). A null image, an
/// image without a bitmap or one without faces gives the empty record (zero rectangle and
/// points, angle 0, flags false, featuresFound 0). `logging` changes nothing.
KWQ_EXPORT KWQFaceFeatures getKWQFaceFeaturesWithAccuracy(const Image& image, int64_t accuracy,
                                                          bool logging);

/// The image drawn at (0, 0) into a premultiplied-BGRA canvas of its point size, with four
/// outlines of line width 3.0 on top, in this order: red, blue and green squares of side 30
/// centred on the left eye, right eye and mouth, and a yellow `faceBox`. All coordinates are
/// the image's points, origin top left. An image without a bitmap gives a transparent canvas
/// with the outlines; the null image, or a size that gives no canvas (not positive, not
/// finite, or above 32767 once rounded up to whole pixels), gives the null image.
KWQ_EXPORT Image drawFacialLocationsLeftEye(const Image& image, Point leftEye, Point rightEye,
                                            Point mouth, const Rect& faceBox);

/// The image drawn into a premultiplied-BGRA canvas of its point size with `text` on top in
/// the bold system font ("Sans Bold") of `fontSize` points and `color`, laid out from `point`
/// in the box (point, image size) made integral, wrapped at its width, baseline raised by one
/// point. A font size of 0 or less draws no text; sizes above 4096 are drawn at 4096. Invalid
/// UTF-8 is drawn as replacement characters. The null image, or a size that gives no canvas,
/// gives the null image.
KWQ_EXPORT Image drawText(const Image& image, const std::string& text, Point point, Color color,
                          int32_t fontSize);

}  // namespace kwq

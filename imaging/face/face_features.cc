#include "imaging/face/face_features.h"

#include <exception>
#include <vector>

namespace kwq {
namespace face {

KWQFaceFeatures faceFeatures(const Image& image, int64_t accuracy,
                             const platform::FaceDetector& detector) {
  KWQFaceFeatures result;
  // Without a bitmap the detector has nothing to look at.
  if (!image.hasBitmap()) return result;

  // The detector's origin is at the bottom left; (x, y) becomes (x, H - y).
  const double height = static_cast<double>(image.height());
  const AffineTransform flip = AffineTransform::scale(1.0, -1.0).translated(0.0, -height);

  platform::FaceDetectionOptions options;
  options.accuracy = accuracy == 0 ? platform::FaceAccuracy::Low : platform::FaceAccuracy::High;
  options.detectSmile = true;
  options.detectEyeBlink = true;
  std::vector<platform::FaceFeature> faces;
  try {
    faces = detector.featuresInImage(image, options);
  } catch (const std::exception&) {
    return result;
  }

  for (const platform::FaceFeature& face : faces) {
    // Every face's angle is read, before the size test: the last one enumerated wins.
    result.faceAngle = face.faceAngle;
    const Rect bounds = face.bounds.applying(flip);
    if (!(bounds.size.width > result.faceRect.size.width)) continue;
    result.faceRect = bounds;
    if (face.hasLeftEyePosition) {
      result.leftEye = flip.apply(face.leftEyePosition);
      result.leftEyeClosed = face.leftEyeClosed;
      result.featuresFound = 1;
    }
    if (face.hasRightEyePosition) {
      result.rightEye = flip.apply(face.rightEyePosition);
      result.rightEyeClosed = face.rightEyeClosed;
      result.featuresFound = 1;
    }
    if (face.hasMouthPosition) {
      result.mouth = flip.apply(face.mouthPosition);
      result.hasSmile = face.hasSmile;
      result.featuresFound = 1;
    }
  }
  return result;
}

}  // namespace face

KWQFaceFeatures getKWQFaceFeaturesWithAccuracy(const Image& image, int64_t accuracy) {
  return getKWQFaceFeaturesWithAccuracy(image, accuracy, false);
}

KWQFaceFeatures getKWQFaceFeaturesWithAccuracy(const Image& image, int64_t accuracy, bool logging) {
  // The flag is accepted for callers that pass it; no timings or other lines are reported.
  (void)logging;
  return face::faceFeatures(image, accuracy, *platform::sharedFaceDetector());
}

}  // namespace kwq

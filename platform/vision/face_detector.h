#pragma once

// The face detection service: one detector over OpenCV's cascade classifiers (frontal and
// profile faces, eyes, smiles), shared by the still-image face features and the live engine.
// This header is free of OpenCV so that library code can use the service and tests can
// script it.

#include <cstdint>
#include <memory>
#include <vector>

#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"

namespace kwq::platform {

/// How hard the detector looks.
enum class FaceAccuracy : uint8_t {
  /// Fast: frontal faces of at least 20 pixels on a copy reduced to a long side of at most
  /// 400 (at 640 x 480: faces of 32 pixels and more).
  Low,
  /// Thorough: frontal faces of at least 24 pixels and profiles of at least 40, on a copy
  /// whose long side is at most 1280.
  High,
};

/// What to find besides the face bounds.
struct FaceDetectionOptions {
  FaceAccuracy accuracy = FaceAccuracy::Low;
  /// Decide `hasSmile` (the mouth position is looked for in any case).
  bool detectSmile = false;
  /// Decide `leftEyeClosed` and `rightEyeClosed`.
  bool detectEyeBlink = false;
  /// Estimate coarse yaw and roll: adds the profile search at low accuracy and a search for
  /// faces rolled by 30 degrees either way. Costs about three times a plain search (at low
  /// accuracy on 640 x 480, some 150 ms on one core of a small machine), so a live caller
  /// should hand in reduced frames or skip frames.
  bool estimateAngles = false;
};

/// One face, in the coordinates of the bitmap it was found in with the origin at the
/// BOTTOM-left (y up), as the platform's still-image detector reports them: a pixel row r
/// of the bitmap (counted from the top) lies at y = height - r.
///
/// "Left" and "right" eye are as seen in the image: the left eye is the one nearer the
/// image's left edge.
struct FaceFeature {
  Rect bounds;

  bool hasLeftEyePosition = false;
  Point leftEyePosition;
  bool hasRightEyePosition = false;
  Point rightEyePosition;
  bool hasMouthPosition = false;
  Point mouthPosition;

  /// Meaningful only when the eye's position is known and eye-blink detection was asked for.
  bool leftEyeClosed = false;
  bool rightEyeClosed = false;
  /// Meaningful only when the mouth position is known and smile detection was asked for.
  bool hasSmile = false;

  /// Angle of the line from the left to the right eye against the x axis, in degrees,
  /// counter-clockwise as seen (y up); 0 when not both eyes were found.
  bool hasFaceAngle = false;
  float faceAngle = 0.0f;

  /// Coarse head angles, reported only with `estimateAngles`. Yaw is 0 (frontal), 45 or 90
  /// (turned towards the image's right edge) or 315 or 270 (towards its left edge). Roll is
  /// the clockwise tilt as seen, a multiple of 30 in [0, 360).
  bool hasYawAngle = false;
  double yawAngle = 0.0;
  bool hasRollAngle = false;
  double rollAngle = 0.0;
};

/// Finds faces in still images. Implementations are safe to call from any thread, also
/// concurrently on one instance.
class FaceDetector {
 public:
  virtual ~FaceDetector() = default;

  /// The faces in the image's bitmap (its orientation and scale are not applied), top row
  /// first and left to right within a row. A candidate counts as a face when an eye is found
  /// in it or, in colour images, when a second frontal cascade confirms it and its middle has
  /// a skin colour. Empty for an image without a bitmap, for one too
  /// small to hold a face, and on any internal failure; never throws.
  virtual std::vector<FaceFeature> featuresInImage(const Image& image,
                                                   const FaceDetectionOptions& options) const = 0;
};

/// The process-wide cascade detector. Cascades are loaded once, on first use; each concurrent
/// call borrows its own set of classifiers, so calls never wait for one another.
/// Thread: any.
std::shared_ptr<const FaceDetector> sharedFaceDetector();

/// A face as the live engine consumes it: normalised bounds with the origin at the top left
/// ((0, 0) top-left corner, (1, 1) bottom-right corner of the frame), an identifier that stays
/// with the face from frame to frame, and the coarse angles.
struct TrackedFace {
  Rect bounds;
  int64_t faceID = 0;
  bool hasYawAngle = false;
  double yawAngle = 0.0;
  bool hasRollAngle = false;
  double rollAngle = 0.0;
};

/// Follows faces across the frames of one video stream and numbers them. A face keeps its
/// identifier while it overlaps its box of the previous frame (intersection over union at
/// least 0.3); new faces get the next number, starting at 1.
///
/// Thread: one instance is used by one thread at a time (the engine's video queue); the
/// detector it holds is shared and thread-safe.
class FaceTracker {
 public:
  /// Tracks with `detector`, or with the shared cascade detector when null.
  explicit FaceTracker(std::shared_ptr<const FaceDetector> detector = nullptr,
                       FaceAccuracy accuracy = FaceAccuracy::Low);

  /// Detects the faces of the next frame (with angles) and numbers them. An empty frame or
  /// a frame without faces forgets every face.
  std::vector<TrackedFace> track(const Image& frame);

  /// Numbers faces already detected in a frame of `frameSize` pixels (bottom-left origin, as
  /// the detector reports them).
  std::vector<TrackedFace> update(const std::vector<FaceFeature>& faces, Size frameSize);

 private:
  struct Known {
    Rect bounds;  // normalised, top-left origin
    int64_t id;
  };
  std::shared_ptr<const FaceDetector> detector_;
  FaceAccuracy accuracy_;
  std::vector<Known> known_;
  int64_t nextID_ = 1;
};

}  // namespace kwq::platform

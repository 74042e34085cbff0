#pragma once

// Faces in live video, frame after frame of one stream, as the metadata output delivers them.
//
// A full search with dlib's HOG frontal-face detector runs on a reduced copy of every few
// frames; in between, each face found is followed by matching its picture from the last search
// in a window around its last place, and a face whose match fails sends the recogniser back to
// a full search at once. dlib's 68 facial landmarks, fitted on every frame, give the head's
// coarse yaw (solvePnP against a generic three-dimensional face) and roll (the line through the
// eyes). This header is free of OpenCV and dlib.

#include <cstdint>
#include <memory>
#include <vector>

#include "kwqimage/CaptureSession.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq::platform {

/// How the recogniser trades cost for reach.
struct LiveFaceOptions {
  /// Faces are searched on a copy of the frame reduced until its shorter side is at most this
  /// many pixels (never enlarged). The detector sees faces of about 80 pixels and more there,
  /// so with 360 a 1280 x 720 frame shows faces of about 160 pixels (22% of its height) and up.
  int detectionShortSide = 360;
  /// A full search every this many frames (1: every frame, nothing is followed); faces are
  /// followed in between. A face lost between searches brings the next search forward.
  int detectionInterval = 4;
  /// Fit landmarks to estimate yaw and roll. Off, every face reports neither.
  bool estimateAngles = true;
};

/// Finds and follows the faces of one video stream.
///
/// Each face is delivered with type AVMetadataObjectTypeFace, bounds normalised to the frame
/// as delivered ((0, 0) its top-left corner, (1, 1) its bottom-right corner, y down), and the
/// frame's presentation time and duration. A face keeps its `faceID` while it is followed or
/// found again overlapping its last place; a new face gets the next number, from 1.
///
/// Angles, in degrees, when landmarks could be fitted (then hasYawAngle and hasRollAngle are
/// both set; otherwise neither is, and both angles are 0):
///  - yaw is 0 (frontal), 45 or 90 when the face is turned towards the frame's right edge
///    (the nose points right as seen), 315 or 270 when turned towards its left edge; the
///    nearest of these to the estimated turn. The frontal detector does not find faces turned
///    much beyond 60 degrees, so 90 and 270 are rare.
///  - roll is the face's clockwise tilt as seen in the frame (eyes' line falling to the right),
///    rounded to the nearest multiple of 30, in [0, 360): a head leaning 30 degrees clockwise
///    reports 30, one leaning 30 degrees counter-clockwise 330.
///
/// Frames: 420f and 420v are read in place through their luma plane; BGRA is converted to
/// gray. A null sample, another pixel format, a buffer that cannot be locked or a frame too
/// small to hold a face gives no faces. A frame of another size than the last one starts the
/// numbering of places afresh (identifiers still never repeat).
///
/// Thread: one instance serves one thread at a time (the metadata output's worker); different
/// instances may run concurrently. The landmark model (about 100 MB, read from Debian's
/// libdlib-data) is loaded once per process on first use and shared read-only.
class LiveFaceRecognizer {
 public:
  explicit LiveFaceRecognizer(LiveFaceOptions options = {});
  ~LiveFaceRecognizer();
  LiveFaceRecognizer(const LiveFaceRecognizer&) = delete;
  LiveFaceRecognizer& operator=(const LiveFaceRecognizer&) = delete;

  /// The faces in the next frame of the stream, largest first. Never throws.
  std::vector<std::shared_ptr<const MetadataFaceObject>> recognize(const SampleBuffer& frame);

  /// True when the landmark model could be loaded (angles can be estimated).
  static bool landmarksAvailable();

 private:
  struct State;
  std::unique_ptr<State> d_;
};

}  // namespace kwq::platform

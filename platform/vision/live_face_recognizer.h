#pragma once

// Faces in live video, frame after frame of one stream, as the metadata output delivers them.
//
// Faces are searched with dlib's HOG frontal-face detector, whose window is 80 pixels: to see
// faces of the smallest wanted width the frame is searched at full resolution (scaled so that
// the smallest face is 80 pixels). That search would cost more than a frame's time, so it is
// cut into pieces (columns of each pyramid level, and the whole frame reduced by half for the
// larger faces) that are spread over several frames in turn. A face found is followed on every
// frame: its picture is matched near its last place, and the detector, run on a small window
// around it scaled to the face, confirms it and updates its size. dlib's 68 facial landmarks,
// fitted on every other frame, give the head's coarse yaw (solvePnP against a generic
// three-dimensional face) and roll (the line through the eyes). This header is free of OpenCV
// and dlib.

#include <cstdint>
#include <memory>
#include <vector>

#include "kwqimage/CaptureSession.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq::platform {

/// How the recogniser trades cost for reach.
struct LiveFaceOptions {
  /// Narrowest face searched for, in frame pixels; 0 (the default) means 1/16 of the frame's
  /// width, never below 40 (80 in a 1280 x 720 frame). Narrower faces are not reported, and a
  /// followed face that shrinks below it is let go.
  double minFaceWidth = 0;
  /// Frames over which one full search of the frame is spread (1: the whole search on every
  /// frame). Faces are followed on every frame in between.
  int searchFrames = 8;
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
/// numbering of places afresh (identifiers still never repeat). A face first found by the search
/// is reported from the next frame on which the detector finds it again, so a chance pattern
/// that looks like a face on one frame is never reported.
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

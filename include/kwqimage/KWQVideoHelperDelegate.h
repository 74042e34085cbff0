#pragma once

/// @file
/// What the capture engine tells its host. Both callbacks are optional: a host implements the
/// interfaces it wants, and the engine asks (dynamic_cast) whether its delegate does.

#include <optional>
#include <string>

#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq {

/// The engine's delegate; held weakly by the engine. Implement one or both of the optional
/// interfaces below (derive from them; they derive virtually from this one).
class KWQ_EXPORT KWQVideoHelperDelegate {
 public:
  virtual ~KWQVideoHelperDelegate();
};

/// Optional: one call per video frame, on the engine's serial queue "VideoDataOutputQueue"
/// (not the main thread: hop to DispatchQueue::main() for user-interface work).
class KWQ_EXPORT KWQFrameDelegate : public virtual KWQVideoHelperDelegate {
 public:
  /// The frame (borrowed for the call), the tracked face rectangle (or, in card mode, the
  /// stable-card marker) in preview-layer points, the face's yaw and roll angles, and the
  /// latest barcode text (none before any was read, "" after it was cleared).
  virtual void getLastSampleBuffer(const SampleBuffer& sampleBuffer, Rect faceRect,
                                   double faceYawAngle, double faceRollAngle,
                                   const std::optional<std::string>& barcodeData) = 0;
};

/// Optional: the picture takeStillPicture() took, on "VideoDataOutputQueue".
class KWQ_EXPORT KWQStillImageDelegate : public virtual KWQVideoHelperDelegate {
 public:
  /// The still, upright (front stills mirrored), in BGRA.
  virtual void getNewStillImage(const Image& image) = 0;
};

}  // namespace kwq

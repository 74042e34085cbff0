#pragma once

// The still-image face search with the detector passed in, so that tests can script faces.

#include <cstdint>

#include "kwqimage/KWQImagingHelperFaces.h"
#include "platform/vision/face_detector.h"

namespace kwq::face {

/// getKWQFaceFeaturesWithAccuracy on `detector`. Thread: any; `detector` is borrowed for the
/// call. An exception from the detector gives the empty record.
KWQFaceFeatures faceFeatures(const Image& image, int64_t accuracy,
                             const platform::FaceDetector& detector);

}  // namespace kwq::face

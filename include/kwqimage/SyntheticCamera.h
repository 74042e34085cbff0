#pragma once

// The synthetic camera as a test camera: a host films with CaptureDevice::syntheticCamera()
// like with any camera, and for every frame it delivers can ask what the picture shows (the
// card's and the code's corners and text, or the portrait's face box and roll), matched by
// the frame's time stamp.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kwqimage/CaptureDevice.h"
#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq {

/// Frames a second of every synthetic camera; frame n carries the time stamp n / 30 s.
inline constexpr int kSyntheticFrameRate = 30;

/// The exposure of a dim span (SyntheticCameraOptions::dimProbability), relative to normal.
inline constexpr double kSyntheticDimExposure = 0.3;

/// Ground truth of one synthetic frame, in the frame's pixel coordinates with the origin at
/// the top left and y down; pixel (i, j) covers [i, i + 1) x [j, j + 1), so the picture spans
/// [0, width] x [0, height]. Corners are given even where they lie outside the picture. Only
/// the fields of the scene the camera films are set; the others keep their defaults.
struct SyntheticFrameTruth {
  /// The frame's number on the camera's 30 fps timeline.
  uint64_t frameIndex = 0;

  // The card scene. Without a card every card field keeps its default; a card whose text the
  // PDF417 writer cannot encode (empty, or too long for one symbol) carries no code, and
  // codeText and codeCorners keep their defaults.

  bool cardVisible = false;       ///< some of the card is in the picture
  bool cardFullyVisible = false;  ///< all four corners are inside the picture
  /// Card corners: top left, top right, bottom right, bottom left of the card as printed.
  std::array<Point, 4> cardCorners{};
  /// Corners of the PDF417 symbol in the same order.
  std::array<Point, 4> codeCorners{};
  /// Text the PDF417 symbol encodes.
  std::string codeText;
  /// Angle between the card's normal and the camera's axis in degrees (0: square-on).
  double cardTiltDegrees = 0.0;
  /// A specular highlight shines on the card (glareProbability): its centre and the radius
  /// within which it saturates the picture, in pixels.
  bool glareVisible = false;
  Point glareCentre;
  double glareRadius = 0.0;
  /// The scene's light on this frame relative to normal: the drift (exposureDrift) times
  /// kSyntheticDimExposure in a dim span. A torch or flash the camera fires comes on top.
  double exposure = 1.0;

  // The portrait scene. Without the photograph every face field keeps its default.

  bool faceVisible = false;       ///< some of the face box is in the picture
  bool faceFullyVisible = false;  ///< all four corners of the face box are inside the picture
  /// The face's square box with its roll undone: centred on the face, as wide as the face
  /// appears (brows to chin, cheek to cheek).
  Rect faceBox;
  /// The same box as it stands in the picture, turned by the roll: top left, top right,
  /// bottom right, bottom left of the upright face.
  std::array<Point, 4> faceCorners{};
  /// In-plane tilt of the head in degrees, positive clockwise as seen (0: eyes level).
  double faceRollDegrees = 0.0;
};

/// The frame number a synthetic camera's frame carries in its time stamp (the time stamp
/// times 30, rounded); none for an invalid or negative time stamp. Thread: any.
KWQ_EXPORT std::optional<uint64_t> syntheticFrameIndex(const SampleBuffer& frame);

/// True when `device` was made by CaptureDevice::syntheticCamera(). Thread: any.
KWQ_EXPORT bool isSyntheticCamera(const CaptureDevice& device);

/// Ground truth of a frame that `device` (a synthetic camera) delivered, at the frame's size;
/// none for other cameras, the null frame and frames without a valid time stamp. Thread: any
/// (calls are serialised inside; cheap: nothing is rendered).
KWQ_EXPORT std::optional<SyntheticFrameTruth> syntheticFrameTruth(const CaptureDevice& device,
                                                                  const SampleBuffer& frame);

}  // namespace kwq

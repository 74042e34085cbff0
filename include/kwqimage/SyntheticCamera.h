#pragma once

/// @file
/// The synthetic camera as a test camera: a host films with CaptureDevice::syntheticCamera()
/// like with any camera, and for every frame it delivers can ask what the picture shows (every
/// prop in view with its outline, its codes' corners and text, a portrait's face box and roll),
/// matched by the frame's time stamp.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kwqimage/CaptureDevice.h"
#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/SampleBuffer.h"
#include "kwqimage/SyntheticScene.h"

namespace kwq {

/// Frames a second of every synthetic camera; frame n carries the time stamp n / 30 s.
inline constexpr int kSyntheticFrameRate = 30;

/// The exposure of a dim span (SyntheticLight::dimProbability), relative to normal.
inline constexpr double kSyntheticDimExposure = 0.3;

/// A code printed on a prop, as it stands in the frame.
struct SyntheticCodeTruth {
  /// Its symbology.
  SyntheticCodeType type = SyntheticCodeType::PDF417;
  /// The text it encodes.
  std::string text;
  /// The symbol's outline without its quiet zone: top left, top right, bottom right, bottom
  /// left of the symbol as printed (upright).
  std::array<Point, 4> corners{};
};

/// A machine-readable zone printed on a document, as it stands in the frame.
struct SyntheticMRZTruth {
  /// Its lines, separated by line feeds, as printed.
  std::string text;
  /// Its text block, from the first line's cap height to the last line's baseline and from
  /// the first character cell's left edge to the last one's right: top left, top right, bottom
  /// right, bottom left as printed (upright).
  std::array<Point, 4> corners{};
  /// All four corners are inside the picture.
  bool fullyVisible = false;
  /// Mean height of a capital in pixels (the zone's height over its lines, scaled).
  double characterHeight = 0.0;
};

/// A face in a photograph, as it stands in the frame.
struct SyntheticFaceTruth {
  /// The face's square box with its roll undone: centred on the face, as wide as the face
  /// appears (brows to chin, cheek to cheek).
  Rect box = {{0.0, 0.0}, {0.0, 0.0}};
  /// The same box as it stands in the picture, turned by the roll: top left, top right,
  /// bottom right, bottom left of the upright face.
  std::array<Point, 4> corners{};
  /// All four corners are inside the picture.
  bool fullyVisible = false;
  /// In-plane tilt of the head in degrees, positive clockwise as seen (0: eyes level).
  double rollDegrees = 0.0;
  /// The photograph's turn about its vertical axis in degrees (the head in it faces the
  /// lens; a turned print foreshortens the face without turning the head).
  double yawDegrees = 0.0;
};

/// One prop in view in one frame.
struct SyntheticPropTruth {
  /// What the prop is.
  SyntheticPropKind kind = SyntheticPropKind::Card;
  /// The prop's name in the scene (SyntheticProp::name, or the one given it).
  std::string name;
  /// Its outline: top left, top right, bottom right, bottom left as printed (a portrait: of
  /// the part of the photograph shown).
  std::array<Point, 4> corners{};
  /// All four corners are inside the picture.
  bool fullyVisible = false;
  ///@{
  /// Angle between its normal and the camera's axis (0: square-on), and its turn in the
  /// picture's plane (clockwise as seen), in degrees.
  double tiltDegrees = 0.0;
  double rollDegrees = 0.0;
  ///@}
  /// The codes printed on it (a card or sticker whose text could not be encoded has none).
  std::vector<SyntheticCodeTruth> codes;
  /// A document's machine-readable zone.
  std::optional<SyntheticMRZTruth> mrz;
  /// A portrait's face, while some of its box is in the picture.
  std::optional<SyntheticFaceTruth> face;
  ///@{
  /// A specular highlight shines on it (SyntheticLight::glareProbability): its centre and the
  /// radius within which it saturates the picture, in pixels.
  bool glareVisible = false;
  Point glareCentre = {0.0, 0.0};
  double glareRadius = 0.0;
  ///@}
};

/// Ground truth of one synthetic frame, in the frame's pixel coordinates with the origin at
/// the top left and y down; pixel (i, j) covers [i, i + 1) x [j, j + 1), so the picture spans
/// [0, width] x [0, height]. Corners are given even where they lie outside the picture.
///
/// Hosts of the earlier flat record find its fields here: cardVisible is card() != nullptr,
/// cardFullyVisible card()->fullyVisible, cardCorners card()->corners, cardTiltDegrees
/// card()->tiltDegrees, codeCorners and codeText card()->codes[0], glare* card()->glare*;
/// faceVisible is face() != nullptr, faceBox, faceCorners and faceRollDegrees face()->box,
/// ->corners and ->rollDegrees, faceFullyVisible face()->fullyVisible.
struct SyntheticFrameTruth {
  /// The frame's number on the camera's 30 fps timeline.
  uint64_t frameIndex = 0;
  /// The scene's light on this frame relative to normal: the drift (exposureDrift) times
  /// kSyntheticDimExposure in a dim span. A torch or flash the camera fires comes on top.
  double exposure = 1.0;
  /// The props some of which is in the picture, in the scene's drawing order.
  std::vector<SyntheticPropTruth> props;

  /// The first prop in view of `kind`, else null.
  const SyntheticPropTruth* find(SyntheticPropKind kind) const {
    for (const SyntheticPropTruth& p : props)
      if (p.kind == kind) return &p;
    return nullptr;
  }
  /// The first card in view, else null.
  const SyntheticPropTruth* card() const { return find(SyntheticPropKind::Card); }
  /// The face of the first portrait in view, else null.
  const SyntheticFaceTruth* face() const {
    const SyntheticPropTruth* p = find(SyntheticPropKind::Portrait);
    return p && p->face ? &*p->face : nullptr;
  }
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

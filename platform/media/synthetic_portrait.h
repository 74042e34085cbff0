#pragma once

// The synthetic camera's portrait scene: a real photograph of a person (head and shoulders),
// moved, scaled and rolled in the picture along a smooth path, with the face's box and roll
// known in every frame.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "kwqimage/SyntheticCamera.h"

namespace kwq::platform {

/// NASA's portrait of astronaut Eileen Collins (512 x 512, public domain), as Debian's
/// python3-skimage package installs it.
inline constexpr const char* kPortraitPhotoPath =
    "/usr/lib/python3/dist-packages/skimage/data/astronaut.png";

/// The face in that photograph, in its pixel coordinates (top-left origin, pixel (i, j)
/// covering [i, i + 1) x [j, j + 1)): a square of 98 pixels centred at (224, 114). Found once
/// with OpenCV's frontal-face cascades (haarcascade_frontalface_default: 175, 66, 97 x 97;
/// _alt2: 175, 64, 100 x 100) and checked by eye on a 4x enlargement: brows to just above
/// the chin, cheek to cheek.
inline constexpr double kPortraitFaceCentreX = 224.0;
inline constexpr double kPortraitFaceCentreY = 114.0;
inline constexpr double kPortraitFaceSide = 98.0;
/// The head's own roll in the photograph, clockwise as seen: the pupils sit at about
/// (203, 100.5) and (246, 102.5), read off the same enlargement.
inline constexpr double kPortraitPhotoRollDegrees = 2.7;
/// The head-and-shoulders part of the photograph the scene shows (x, y, width, height).
inline constexpr int kPortraitCropX = 96, kPortraitCropY = 0, kPortraitCropWidth = 256,
                     kPortraitCropHeight = 320;

/// The portrait's path repeats every this many frames (30 s).
inline constexpr uint64_t kPortraitPeriodFrames = 900;

/// The portrait as the camera sees it in one frame.
struct PortraitView {
  /// Maps photograph coordinates to picture coordinates (both top-left origin, pixel (i, j)
  /// covering [i, i + 1) x [j, j + 1)).
  cv::Matx33d photoToPicture;
  /// Where the face's centre lands, its side in picture pixels and its roll (clockwise as
  /// seen, degrees).
  cv::Point2d faceCentre;
  double faceSide = 0.0;
  double rollDegrees = 0.0;
};

/// The portrait's view in frame `frameIndex` of a width x height picture (both at least 1).
///
/// Over each 30 s period the face's width sweeps between 12 and 50 % of the picture's height
/// (of its width / 1.8 when that is smaller) with a period of 15 s, smallest at the start; the
/// head rolls as 40 sin(2 pi t / 10 s) degrees, so it passes level, 30 and -30 degrees each
/// way; the face's centre wanders 22 % of the width about the middle (30 s) and 8 % of the
/// height (7.5 s). From 21 s to 23.5 s the whole portrait slides out past the right edge, stays
/// out until 26.5 s and slides back by 29 s.
PortraitView portraitViewAt(uint64_t frameIndex, size_t width, size_t height);

/// Fills the face fields of `truth` from a view.
void setPortraitTruth(const PortraitView& view, size_t width, size_t height,
                      SyntheticFrameTruth& truth);

/// The photograph's head-and-shoulders crop, ready to draw at any size.
class PortraitPicture {
 public:
  /// Reads the photograph; empty() when it is missing, undecodable or smaller than the crop.
  explicit PortraitPicture(const std::string& path);
  bool empty() const { return levels_.empty(); }
  /// Draws the portrait over `out` (opaque BGRA) as `view` places it.
  void draw(const PortraitView& view, cv::Mat& out) const;

 private:
  std::vector<cv::Mat> levels_;  // BGRA; each half the size of the one before
};

}  // namespace kwq::platform

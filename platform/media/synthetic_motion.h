#pragma once

// Where the synthetic camera's card is in each frame: a seeded, smooth path of the card's 3D
// pose in front of a pinhole camera, and what that pose looks like in the picture.

#include <array>
#include <cstddef>
#include <cstdint>

#include <opencv2/core.hpp>

namespace kwq::platform {

/// The path repeats every this many frames (60 s at 30 frames a second).
inline constexpr uint64_t kMotionPeriodFrames = 1800;

/// The card as the camera sees it in one frame.
struct CardView {
  /// Maps card millimetres (x right, y down from the top-left corner) to picture coordinates
  /// (top-left origin, pixel (i, j) covering [i, i + 1) x [j, j + 1)).
  cv::Matx33d cardToPicture;
  /// Angle between the card's normal and the camera's axis, in degrees (0: square-on).
  double tiltDegrees = 0.0;
  /// Light falling on the card relative to square-on light (about 0.85 to 1).
  double shade = 1.0;
};

/// The card's view in frame `frameIndex` of a width x height picture for the path `seed`
/// picks. Most of the time the card is wholly in the picture and about 38 to 62 % of the
/// width (of 1.8 x height on pictures wider than that) across; twice a period it slides
/// partly out for a few seconds. Square-on at frames 0 and 900 of each period.
CardView cardViewAt(uint64_t seed, uint64_t frameIndex, size_t width, size_t height);

/// Applies a homography to a point.
cv::Point2d project(const cv::Matx33d& h, cv::Point2d p);

/// 64-bit mixing function (splitmix64's finaliser): seeds everything per frame without
/// shared state.
uint64_t mixBits(uint64_t x);

/// Area of the part of a convex quadrilateral inside [0, width] x [0, height].
double visibleQuadArea(const std::array<cv::Point2d, 4>& quad, double width, double height);

}  // namespace kwq::platform

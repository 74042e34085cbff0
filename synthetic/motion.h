#pragma once

// Where a prop is in each frame: its pose (anchor, size, turns) from its placement and its
// motions, and what that pose looks like through the synthetic camera's pinhole lens.

#include <array>
#include <cstddef>
#include <cstdint>

#include <opencv2/core.hpp>

#include "kwqimage/SyntheticScene.h"

namespace kwq::synthetic {

inline constexpr double kFps = 30.0;
/// The handheld card path repeats every this many frames (60 s).
inline constexpr uint64_t kHandheldPeriodFrames = 1800;
/// The portrait's sway repeats every this many frames (30 s).
inline constexpr uint64_t kSwayPeriodFrames = 900;

/// A prop's pose in one frame.
struct Pose {
  cv::Point2d anchor;  ///< where the prop's anchor lands, picture pixels
  double width = 0.0;  ///< its reference width on screen were it square-on, pixels
  double roll = 0.0, yaw = 0.0, pitch = 0.0;  ///< radians; roll clockwise as seen
};

/// The shape of a prop in its own units (millimetres for documents, modules for stickers,
/// pixels for photographs), top-left origin, x right, y down.
struct PropGeometry {
  cv::Size2d units;
  cv::Point2d anchor;         ///< the point the pose places
  double widthUnits = 1.0;    ///< the width Pose::width measures (a portrait: its face's)
  double ownRollDegrees = 0;  ///< a portrait: the head's roll in the photograph itself
};

/// A pose as the camera sees it.
struct PropView {
  /// Maps prop units to picture coordinates (pixel (i, j) covering [i, i + 1) x [j, j + 1)).
  cv::Matx33d toPicture;
  double tiltDegrees = 0.0;  ///< between the prop's normal and the camera's axis
  double rollDegrees = 0.0;  ///< the pose's turn in the picture's plane
  double shade = 1.0;        ///< light on the prop relative to square-on (about 0.85 to 1)
};

/// The prop's pose in frame `frameIndex` of a width x height picture (both at least 1).
Pose poseAt(const SyntheticProp& prop, const PropGeometry& geometry, uint64_t sceneSeed,
            uint64_t frameIndex, size_t width, size_t height);

/// The pose through the camera: a pinhole with its axis through the picture's centre and a
/// focal length of 0.9 x min(width, 1.8 height).
PropView viewOf(const Pose& pose, const PropGeometry& geometry, size_t width, size_t height);

/// Applies a homography to a point.
cv::Point2d project(const cv::Matx33d& h, cv::Point2d p);

/// 64-bit mixing function (splitmix64's finaliser): seeds everything per frame without
/// shared state.
uint64_t mixBits(uint64_t x);

/// Area of the part of a convex quadrilateral inside [0, width] x [0, height].
double visibleQuadArea(const std::array<cv::Point2d, 4>& quad, double width, double height);

}  // namespace kwq::synthetic

#pragma once

// Finds regions of a gray picture that look like a PDF417 symbol at any in-plane angle: dense
// bar texture whose edges all run one way. zxing's PDF417 detector follows the picture's rows
// and loses a symbol turned by more than a few degrees; the code reader resamples each region
// found here upright and lets zxing read it there.

#include <vector>

#include <opencv2/core.hpp>

namespace kwq::platform {

/// A turned rectangle in picture pixels (pixel centres, y down) holding bar texture.
struct BarRegion {
  cv::Point2d centre;
  /// Direction across the bars (along a PDF417's rows), radians in (-pi/2, pi/2]: the symbol
  /// reads upright or upside down when this direction is turned onto the x axis.
  double angle = 0;
  /// Extent across the bars and along them, margins included.
  double length = 0, height = 0;
  /// Strength of the evidence: cells of the region weighted by their coherence.
  double score = 0;
};

/// Regions of `gray` (8-bit, one channel) with bar texture, best first, at most `maxRegions`.
/// Empty for pictures under 32 pixels on a side. Never throws on OpenCV's failures (empty).
/// Thread: any, also concurrently.
std::vector<BarRegion> locateBarRegions(const cv::Mat& gray, size_t maxRegions);

/// The affine map (2 x 3, CV_64F) that takes a pixel of an upright crop of `region` sampled
/// at `scale` crop pixels per picture pixel to its place in the picture; the crop is
/// ceil(length scale) x ceil(height scale) pixels.
cv::Mat cropToPicture(const BarRegion& region, double scale);

}  // namespace kwq::platform

#pragma once

// Finds regions of a gray picture that look like a PDF417 symbol at any in-plane angle: dense
// bar texture whose edges all run one way. zxing's PDF417 detector follows the picture's rows
// and loses a symbol turned by more than a few degrees; the code reader outlines the symbol in
// each region found here, warps it upright and lets zxing read it there.

#include <array>
#include <optional>
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

/// A PDF417 symbol's outline, measured on its start and stop patterns.
struct Pdf417Outline {
  /// Top left, top right, bottom right and bottom left of the symbol as printed (its start
  /// pattern runs down its left edge, whatever its turn in the picture), in picture pixels
  /// (pixel centres, y down): the outer edges of the start and stop patterns where the first
  /// and last rows end.
  std::array<cv::Point2d, 4> corners;
  /// Width of a module along the rows, picture pixels (the median over the patterns found).
  double module = 0;
};

/// The outline of the PDF417 symbol in `region` of `gray`, found by scanning across its bars
/// for the start pattern (bar and space widths 8 1 1 1 1 1 1 3 modules) and the stop pattern
/// (7 1 1 3 1 1 1 2 1), fitting a line to each edge's hits and taking the ends of those lines
/// where the hits end. Which of the two patterns lies at which end tells the symbol's left from
/// its right, and the two lines follow the symbol under perspective. None when either edge has
/// too few hits (no PDF417 there, or one cut by the frame or damaged along an edge). Cheap on
/// regions without a symbol: one sparse set of lines decides. `patternHits`, when given,
/// receives how many start and stop patterns that sparse set read (some where a symbol may be
/// that could not be outlined). Thread: any.
std::optional<Pdf417Outline> outlinePdf417(const cv::Mat& gray, const BarRegion& region,
                                           size_t* patternHits = nullptr);

}  // namespace kwq::platform

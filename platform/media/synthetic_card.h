#pragma once

// The printed face of the synthetic camera's ID card, drawn once per scene: light card stock
// with a faint guilloche, a header band, a drawn portrait, text lines and a PDF417 symbol.
// Card coordinates are millimetres from the card's top-left corner, x right, y down.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace kwq::platform {

inline constexpr double kCardWidthMm = 86.0;
inline constexpr double kCardHeightMm = 54.0;

/// The card texture at several resolutions, finest first. Every level is opaque BGRA and
/// covers the card exactly: a level of c x r texels maps millimetre (x, y) to texel position
/// (x c / 86, y r / 54), texel (i, j) covering [i, i + 1) x [j, j + 1).
struct CardTexture {
  std::vector<cv::Mat> levels;
  /// The symbol's outline without its quiet zone, in millimetres: top-left corner and size.
  /// Zero size when the card carries no code (empty text, or one the writer refuses).
  cv::Rect2d codeMm;
  bool hasCode() const { return codeMm.width > 0.0 && codeMm.height > 0.0; }
};

/// Where the PDF417 symbol carrying `codeText` sits on the card (what makeCardTexture puts in
/// codeMm), without drawing anything; zero size when the card would carry no code.
cv::Rect2d codeOutlineMm(const std::string& codeText);

/// Draws the card at `pixelsPerMm` (clamped to 4..24) with a PDF417 symbol carrying
/// `codeText`, and builds coarser levels down to about 64 texels wide.
/// Throws only what OpenCV's allocator throws; the writer's refusals leave the code out.
CardTexture makeCardTexture(const std::string& codeText, double pixelsPerMm);

}  // namespace kwq::platform

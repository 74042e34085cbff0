#pragma once

// Printed props, drawn once per scene: the ID card (light card stock with a faint guilloche, a
// header band, a drawn portrait, text lines and a PDF417 symbol) and the code sticker (a white
// label with one PDF417 or QR symbol). Card coordinates are millimetres from the card's
// top-left corner, sticker coordinates modules from the label's; x right, y down.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "kwqimage/SyntheticScene.h"

namespace kwq::synthetic {

inline constexpr double kCardWidthMm = 86.0;
inline constexpr double kCardHeightMm = 54.0;
/// A passport's data page (ID-3).
inline constexpr double kPassportWidthMm = 125.0;
inline constexpr double kPassportHeightMm = 88.0;

/// A prop's picture at several resolutions, finest first. Every level is opaque BGRA and
/// covers the prop exactly: a level of c x r texels maps prop unit (x, y) to texel position
/// (x c / units.width, y r / units.height), texel (i, j) covering [i, i + 1) x [j, j + 1).
struct Texture {
  std::vector<cv::Mat> levels;
  cv::Size2d units;
};

/// Adds halved levels to `texture` down to about `smallest` texels wide.
void addCoarserLevels(Texture& texture, int smallest);

/// Where a printed prop's code sits and its size, in the prop's units, without drawing:
/// `outline` is the symbol without its quiet zone (zero size when the prop carries no code:
/// empty text, or one the writer refuses), `units` the prop's whole size.
struct PrintedLayout {
  cv::Size2d units;
  cv::Rect2d outline;
  /// Documents: the machine-readable zone's text block (empty without one).
  cv::Rect2d mrz;
  bool hasCode() const { return outline.width > 0.0 && outline.height > 0.0; }
};

/// The card's layout (86 x 54 mm) with a PDF417 symbol carrying `codeText`.
PrintedLayout cardLayout(const std::string& codeText);
/// A sticker's layout: the symbol with a quiet zone of 2 (PDF417) or 4 (QR) modules all
/// round; a sticker whose text cannot be encoded is a blank label of 20 x 20 modules.
PrintedLayout stickerLayout(SyntheticCodeType type, const std::string& codeText);

/// A passport data page (125 x 88 mm) or an ID card's back (86 x 54 mm) printing `mrzText`
/// (lines separated by line feeds) in OCR-B along its lower edge.
PrintedLayout documentLayout(SyntheticPropKind kind, const std::string& mrzText);
/// The zone a document prints when its prop names none.
std::string defaultMRZText(SyntheticPropKind kind);
/// Draws a document at `pixelsPerMm` (clamped to 4..24), with coarser levels.
Texture makeDocumentTexture(SyntheticPropKind kind, const std::string& mrzText, double pixelsPerMm);

/// Draws the card at `pixelsPerMm` (clamped to 4..24) with a PDF417 symbol carrying
/// `codeText`, with coarser levels down to about 64 texels wide.
/// Throws only what OpenCV's allocator throws; the writer's refusals leave the code out.
Texture makeCardTexture(const std::string& codeText, double pixelsPerMm);
/// Draws a sticker at `texelsPerModule` (clamped to 2..16), with coarser levels.
Texture makeStickerTexture(SyntheticCodeType type, const std::string& codeText,
                           double texelsPerModule);

}  // namespace kwq::synthetic

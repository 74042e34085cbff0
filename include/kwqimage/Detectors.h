#pragma once

/// @file
/// Card outlines and codes in still images: the rectangle detector and the code reader the
/// capture engine runs on frames, for pictures a host already has (stored ID photos, scans).
/// Every function may run on any thread, also concurrently; none changes its image.

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "kwqimage/CaptureSession.h"
#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"

namespace kwq {

/// The card's width over its height: what the capture engine looks for.
inline constexpr double kCardAspectRatio = 1.592593;

/// How detectRectangles() looks.
struct RectangleSearch {
  /// Thorough search with corners refined on the full picture (the engine's); false: fast.
  bool highAccuracy = true;
  /// Width over height sought, either way up. A preference, never a filter: rectangles near
  /// it rank first. 0 or less: no preference.
  double aspectRatio = kCardAspectRatio;
  /// Camera focal length in pixels, to judge the shape of tilted rectangles by their true
  /// ratio; 0 or less judges the shape as it appears.
  double focalLength = 0.0;
  /// Most rectangles returned (at least 1).
  int maxCount = 1;
};

/// A quadrilateral in bitmap pixels, origin at the top left, y down. The corners go round
/// clockwise as seen, from the corner nearest the picture's top left.
struct DetectedRectangle {
  ///@{
  /// The corners.
  Point topLeft;
  Point topRight;
  Point bottomRight;
  Point bottomLeft;
  ///@}
  Rect bounds;  ///< box spanning the corners
};

/// The most prominent rectangles of the bitmap (its scale and orientation not applied), most
/// prominent first: each at least 0.8 % of the picture and wholly inside it. Empty for the null
/// image, an image without a bitmap, one under 16 pixels on a side, and on any failure.
KWQ_EXPORT std::vector<DetectedRectangle> detectRectangles(const Image& image,
                                                           const RectangleSearch& search = {});

/// A code found in a bitmap.
struct DetectedCode {
  /// AVMetadataObjectTypePDF417Code or AVMetadataObjectTypeQRCode.
  std::string type;
  /// The decoded text (UTF-8); none when the symbol holds binary data rather than text.
  std::optional<std::string> text;
  /// The symbol's corners in bitmap pixels (origin top left, y down), as a code object names
  /// them: the symbol's own bottom left, bottom right, top right, top left as printed.
  std::array<Point, 4> corners{};
};

/// The PDF417 and QR codes of `types` (other names are ignored) in the bitmap, in the order
/// the reader finds them. Gray, RGB, RGBA and BGRA bitmaps are read alike. Empty for the null
/// image, an image without a bitmap, one under 16 or over 65535 pixels on a side, and on any
/// failure.
KWQ_EXPORT std::vector<DetectedCode> readCodesInImage(
    const Image& image,
    const std::vector<std::string>& types = {std::string(AVMetadataObjectTypePDF417Code),
                                             std::string(AVMetadataObjectTypeQRCode)});

}  // namespace kwq

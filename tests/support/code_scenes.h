#pragma once

// Camera-like pictures holding barcodes, for the code reader's tests and measurements: symbols
// made by zxing-cpp's writer, printed into photographs under a pose (scale, rotation, mild
// perspective) with their true corners, and frames converted to the camera's pixel formats.
// Shared by tests/ and bench/, so it depends on OpenCV and zxing only (no GoogleTest).

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include <opencv2/core.hpp>

#include "kwqimage/SampleBuffer.h"

namespace kwq::test {

enum class CodeKind : uint8_t { PDF417, QR };

/// The symbol as zxing's writer makes it, one byte per module (0 black, 255 white), without a
/// quiet zone. `binary` encodes the text's bytes as raw 8-bit data (ISO 8859-1 code points
/// taken as bytes). Empty when the writer refuses the text.
cv::Mat writeSymbol(CodeKind kind, const std::string& text, bool binary = false);

/// A driving licence's record as AAMVA lays it out (header, subfile designator, one field a
/// line), with names, numbers and dates drawn from `seed`: 7-bit text with LF, RS and CR.
std::string aamvaRecord(uint64_t seed);

/// Where and how a symbol is printed.
struct CodePose {
  cv::Point2d centre;       ///< of the symbol, in picture pixels
  double modulePixels = 3;  ///< width of one module before perspective
  double rotationDeg = 0;   ///< clockwise as seen (y down)
  double keystone = 0;      ///< the symbol's top edge shortened by this fraction (0..0.5)
  /// Turned out of the picture's plane by this much about an axis in it (at tiltAxisDeg from
  /// the x axis), seen by a camera of 1000 pixels' focal length.
  double tiltDeg = 0, tiltAxisDeg = 0;
  /// Printed on a card (paper around the symbol, lines of text above it) instead of alone.
  bool card = false;
  /// A highlight over the symbol: its peak in gray levels added (washed out at 255).
  double glare = 0;
  double blurSigma = 0.6;   ///< lens softness after printing
  double noiseSigma = 2.0;  ///< sensor noise, gray levels
  uint64_t seed = 1;
};

/// A picture with a printed symbol and where its corners went (top left, top right, bottom
/// right, bottom left of the symbol as printed, excluding the quiet zone), in pixel-edge
/// coordinates: the picture spans [0, width] x [0, height].
struct PrintedCode {
  cv::Mat bgra;
  std::array<cv::Point2d, 4> corners;
};

/// Prints `symbol` (from writeSymbol) with a white quiet zone of 4 modules onto a copy of
/// `bgra` (opaque BGRA), ink at gray 30 on paper at gray 220, then softens and adds noise.
PrintedCode printSymbol(const cv::Mat& bgra, const cv::Mat& symbol, const CodePose& pose);

/// A photograph from opencv-doc's samples as opaque BGRA, scaled and cropped to fill
/// width x height; empty when the file is missing.
cv::Mat loadPhoto(const std::string& dir, const std::string& name, int width, int height);

/// A frame in `format` (420f or 420v: BT.601 luma of the matching range and chroma planes;
/// BGRA: the pixels as they are) with rows padded to `rowAlignment` bytes.
PixelBuffer frameFromBgra(const cv::Mat& bgra, uint32_t format, size_t rowAlignment = 64);

}  // namespace kwq::test

#pragma once

// The code reading service: finds and decodes PDF417 and QR symbols in camera frames and still
// images with zxing-cpp, and reports them as machine-readable code objects in normalised
// coordinates. Frames in 420f/420v are read on their luma plane where it lies (no copy, no
// conversion). This header is free of zxing so that library code can use the service.

#include <cstdint>
#include <string>
#include <vector>

#include "kwqimage/CaptureSession.h"
#include "kwqimage/Image.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq::platform {

/// How the reader turns gray levels into black and white.
enum class CodeBinarizer : uint8_t {
  /// Threshold from the mean of each 8 x 8 block's neighbourhood: copes with uneven light.
  LocalAverage,
  /// One threshold per picture (per row for linear searches) from its histogram.
  GlobalHistogram,
  /// Gray level 127.
  FixedThreshold,
};

/// A second search, made only when the first found nothing, so that frames with a readable
/// symbol pay for one search.
enum class CodeRetry : uint8_t {
  None,
  /// On a copy reduced by 2 (block means): blurred symbols and wide modules come out whole.
  ReducedByTwo,
  /// The same on a copy reduced by 3.
  ReducedByThree,
  /// At full size with the global-histogram binariser, which keeps fine modules that the
  /// local-average one breaks up on evenly lit pictures.
  GlobalHistogram,
};

/// How hard the reader looks; the defaults are what the capture engine uses, chosen by read
/// rate and cost on the synthetic camera's card and on photographs with printed codes.
struct CodeReaderSettings {
  /// Search more rows and finder-pattern candidates (finds small, skewed or damaged symbols).
  bool tryHarder = false;
  /// Also search the picture turned by 90, 180 and 270 degrees: PDF417 rows must run nearly
  /// along the picture's rows, so a card filmed by a phone held upright needs the quarter
  /// turn (it costs nothing on frames whose code is found unturned, a quarter more on others).
  bool tryRotate = true;
  /// zxing's own pyramid: also search copies reduced by 3 (and 9, ...) while their short side
  /// exceeds 500 pixels, always. Finds symbols whose modules are many pixels wide or blurred.
  bool tryDownscale = false;
  /// What to try when the search finds nothing.
  CodeRetry retry = CodeRetry::ReducedByTwo;
  CodeBinarizer binarizer = CodeBinarizer::LocalAverage;
  /// The picture holds nothing but one upright symbol (generated images only).
  bool isPure = false;
  /// Most symbols reported per picture (1 to 255).
  int maxNumberOfSymbols = 255;
  /// PDF417 at any turn: the regions of bar texture, best first, are outlined on the symbol's
  /// start and stop patterns, warped upright and read before the whole picture is searched
  /// (which then looks for PDF417 only when none of them held one). 0 leaves PDF417 to the
  /// whole-picture search alone (rows within a few degrees of level).
  int maxLocatedRegions = 4;
  /// Crop pixels per module when an outlined symbol is warped upright.
  double locatedModulePixels = 3.0;
};

/// The codes of the requested types in a camera frame.
///
/// `types` names what to look for: AVMetadataObjectTypePDF417Code and/or
/// AVMetadataObjectTypeQRCode; other names (faces, unknown types) are ignored, and when no code
/// type is requested nothing is read and the result is empty. Each object is a
/// MetadataMachineReadableCodeObject:
///  - `type`: the type string of the symbol's kind;
///  - `corners`: the symbol's four corners normalised to the frame as delivered (x / width,
///    y / height: 0..1, origin top left, y down), named as the symbol is printed (its top left
///    is where its first row begins, whatever its turn in the picture): bottom left, bottom
///    right, top right, top left. An upright symbol's rectangle from the fourth corner to the
///    third (width) and the first (height) is therefore positive;
///  - `bounds`: the box spanning those corners, clamped to 0..1 like the corners;
///  - `stringValue`: the decoded text as UTF-8, or none when the symbol was decoded but its
///    content is not text: zxing classes the content as binary (byte segments whose bytes
///    are no text in the symbol's character set), as mixed text and binary, or as an unknown
///    ECI character set. Plain text, GS1 and ISO 15434 data count as text;
///  - `time`, `duration`: the frame's presentation time stamp and duration.
/// PDF417 symbols are found at any turn in the picture and under moderate perspective (see
/// CodeReaderSettings::maxLocatedRegions). A symbol found twice is reported once. Objects
/// come in the order they are found: PDF417 from bar regions first, then zxing's own search.
///
/// Reads 420f and 420v frames on plane 0 (the luma plane) with its own row stride, and BGRA
/// frames through zxing's luminance conversion. Empty for the null sample, another pixel
/// format, a buffer that cannot be locked, a frame under 16 pixels on a side or over 65535, a
/// plane whose rows are shorter than its width or whose bytes exceed 2 GiB, and on any
/// internal failure; never throws.
/// Thread: any, also concurrently (nothing is shared between calls); the buffer is locked
/// read-only for the call.
MetadataObjects readCodes(const SampleBuffer& frame, const std::vector<std::string>& types);
/// The same with other reader settings (for measuring them).
MetadataObjects readCodes(const SampleBuffer& frame, const std::vector<std::string>& types,
                          const CodeReaderSettings& settings);

/// The codes of the requested types in an image's bitmap (gray, RGB, RGBA or BGRA; its scale
/// and orientation are not applied), normalised to the bitmap's width and height. `time` and
/// `duration` are invalid. Empty for the null image, an image without a bitmap and the cases
/// above. Thread: any, also concurrently.
MetadataObjects readCodes(const Image& image, const std::vector<std::string>& types);
/// The same with other reader settings.
MetadataObjects readCodes(const Image& image, const std::vector<std::string>& types,
                          const CodeReaderSettings& settings);

}  // namespace kwq::platform

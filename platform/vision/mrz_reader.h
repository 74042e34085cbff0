#pragma once

// Finding and reading machine-readable zones in pictures: the zone's lines are found as chains
// of evenly spaced, like-sized blobs of ink (at any turn), the block of two or three such lines
// is mapped to its printed geometry by a homography (so moderate perspective is undone), and
// each character cell is matched against templates of the 37 OCR-B symbols rendered from the
// installed font (fonts-ocr-b) once per process. This header is free of OpenCV.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kwqimage/CaptureSession.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/MRZ.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq::platform {

/// A zone's characters as read, before parsing.
struct MRZLinesRead {
  std::vector<std::string> lines;
  /// Places where the best and second-best symbols were a letter and the digit it resembles,
  /// nearly tied.
  std::vector<MRZPlace> uncertain;
  /// Top left, top right, bottom right, bottom left of the text block as printed.
  std::array<Point, 4> corners{};
  /// Mean capital height in pixels.
  double characterHeight = 0.0;
  /// Mean template agreement of the chosen symbols (normalised correlation, -1..1).
  double meanScore = 0.0;
  /// Per character, line by line: how far the chosen symbol's agreement stands above the
  /// runner-up's (0..2), and the agreement itself.
  std::vector<float> margins, scores;
  /// Per character, line by line: the agreement with each of the 37 symbols in the order
  /// 0-9, A-Z, '<' (37 floats a character).
  std::vector<float> symbolScores;
};

/// True when every character agrees well with its template and every character that no check
/// digit guards (names, states, document code, sex,
/// a visa's optional data) was read clearly: the symbol `record` holds there beats every
/// other symbol its field allows by a margin; and every character that a check digit guards
/// beats by that margin the symbols the digit cannot tell from it (values a multiple of ten
/// apart: F and P, O and E, G and Q, 0 and A). A zone read from a picture is reported valid only
/// when this holds as well as its check digits. Thread: any.
bool unguardedCharactersClear(const MRZLinesRead& read, const MRZRecord& record);

/// Where the zone's lines were found, without reading them (cheap): the block's corners as
/// above, its line count and characters per line.
struct MRZBand {
  std::array<Point, 4> corners{};
  int lines = 0;
  int characters = 0;
};

/// Reads the zone from 8-bit gray pixels (`bytesPerRow` at least `width`). None when no block
/// of 2 lines of 36 or 44 or 3 lines of 30 characters is found. Thread: any.
std::optional<MRZLinesRead> readMRZLines(const uint8_t* gray, size_t width, size_t height,
                                         size_t bytesPerRow);

/// Only the band search of readMRZLines. Thread: any.
std::vector<MRZBand> findMRZBands(const uint8_t* gray, size_t width, size_t height,
                                  size_t bytesPerRow);

/// A zone read from a camera frame (420f/420v on its luma plane, BGRA converted): the code
/// object of type KWQMetadataObjectTypeMRZ (text: the lines; corners normalised to the frame,
/// bottom left, bottom right, top right, top left of the block as printed, like a code's) and
/// whether the zone is valid (its check digits and its unguarded characters clear).
struct LiveMRZ {
  std::shared_ptr<MetadataMachineReadableCodeObject> object;
  bool valid = false;
};
std::optional<LiveMRZ> readMRZ(const SampleBuffer& frame);

/// The recogniser's templates could be made (the OCR-B font is installed). Thread: any.
bool mrzRecogniserReady();

}  // namespace kwq::platform

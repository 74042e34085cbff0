#pragma once

// What the engine holds after each frame of a `kwq capture` run, and the --events line that
// records it.

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <kwqimage/KWQVideoHelper.h>
#include <kwqimage/SyntheticCamera.h>

#include "kwq/json.h"

namespace kwq::tool {

/// A code as the metadata output reported it.
struct CodeSeen {
  std::string type;  // "PDF417", "QR", else the output's type name
  std::optional<std::string> text;
  friend auto operator<=>(const CodeSeen&, const CodeSeen&) = default;
};

/// The short name of a metadata code type.
std::string codeTypeName(std::string_view type);

/// The engine's results right after one frame's step.
struct FrameResults {
  bool hasFace = false, hasYaw = false, hasRoll = false;
  double yaw = 0.0, roll = 0.0;
  bool centred = false;  // a face, and the head centred in the view's box
  /// The face in the frame's pixels (top-left origin); none without a face or a shown video.
  std::optional<Rect> facePixels;
  Rect card;  // zero without a card
};

/// Reads the results for `sample` from the engine, on its frame queue.
FrameResults readFrameResults(const KWQVideoHelper& engine, const SampleBuffer& sample);

/// [x, y, width, height]
Json rectJson(Rect r);

/// One line of --events for the `frame`th delivered frame: its numbers and time, the results,
/// the newest codes and the time of the frame they were found in (invalid: none), and what a
/// synthetic camera's frame shows (`truth`; null for other cameras).
void writeFrameEvent(std::ostream& out, uint64_t frame, const SampleBuffer& sample,
                     const FrameResults& results, const std::vector<CodeSeen>& codes,
                     MediaTime found, const SyntheticFrameTruth* truth);

}  // namespace kwq::tool

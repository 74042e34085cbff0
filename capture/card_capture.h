#pragma once

// The card capture's rules: from the detector's quad and the engine's stability verdict to a
// CardCapture with its guidance, and the best capture of a short window.

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "kwqimage/KWQCardCapture.h"
#include "kwqimage/SampleBuffer.h"
#include "platform/vision/rectangle_detector.h"

namespace kwq {

/// The detector's corners (y up) as the card capture states them: top left, top right,
/// bottom right, bottom left in a frame `frameHeight` pixels high, y down. Thread: any.
std::array<Point, 4> cardCornersTopDown(const platform::RectangleFeature& feature,
                                        double frameHeight);

/// One frame's analysis. `feature` is the rectangle the detector found on this frame (null when
/// none), `stable` whether the card rule accepted it and the engine holds a stable card,
/// `codeText` the engine's latest code text. An unstable rectangle of about a card's shape asks
/// to hold still, one of another shape counts as no card. The card is flattened and measured
/// only when it is stable and large enough. Never throws. Thread: any.
CardCapture analyseCard(const SampleBuffer& frame, const platform::RectangleFeature* feature,
                        bool stable, const std::optional<std::string>& codeText,
                        const CardCaptureSettings& settings);

/// Keeps the best capture over a window of frames: glare-free before glared, well lit before
/// dark, then the sharpest; a capture older than the window gives way to any later one with a
/// card picture. Reads the code on the flattened card when a new best has no text. Not
/// thread-safe: the engine's video queue owns it.
class CardCaptureKeeper {
 public:
  /// Offers frame `frameNumber`'s analysis; fills in `live`'s code text and AAMVA fields from
  /// the best when they show the same card. Returns the best.
  const CardCapture& offer(CardCapture& live, uint64_t frameNumber,
                           const CardCaptureSettings& settings);
  const CardCapture& best() const { return best_; }
  /// Forgets the best (a new card, or the host switched modes).
  void reset();

 private:
  CardCapture best_;
  uint64_t bestFrame_ = 0;
  bool hasBest_ = false;
};

/// Sets `capture.aamva` from `capture.codeText` when the text is an AAMVA record.
void parseCardCode(CardCapture& capture);

}  // namespace kwq

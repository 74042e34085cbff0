#pragma once

// The capture engine's card detection: which rectangle features of a frame count as an ID
// card (width over height near 1.592593), and when a card has held still long enough (six
// consecutive accepted frames) to publish the stable-card marker.
//
// The arithmetic keeps the engine's exact precisions: single-precision bounding box and corner
// angles, double-precision centre and ratio. Hosts compare `cardRect` with the marker and read
// `cardCenter`, so these numbers must not drift between builds; the library is compiled
// without fused multiply-adds for that reason.

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "kwqimage/Geometry.h"
#include "kwqimage/SampleBuffer.h"
#include "platform/vision/rectangle_detector.h"

namespace kwq {

/// Width over height of an ID-1 card (85.60 x 53.98 mm), the detector's hint and the target
/// of the acceptance test.
inline constexpr double kCardAspectRatio = 1.592593;
/// The threshold put in place of a threshold of exactly 0.0.
inline constexpr double kDefaultCardDetectionThreshold = 0.1;
/// Accepted frames before the one that publishes: the sixth consecutive accepted frame does.
inline constexpr int32_t kStableCardFrames = 5;
/// What `cardRect` holds once a card is stable: a flag, not the card's geometry.
inline constexpr Rect kStableCardMarker{0.0, 0.0, 11.0, 11.0};

/// The engine's card fields. A plain value; the engine keeps one and only its video queue
/// writes it (the main queue may read it, stale reads are accepted).
struct CardDetectionState {
  /// Largest accepted |ratio - kCardAspectRatio|; 0.0 is replaced by 0.1 on the next detection.
  double cardDetectionThreshold = 0.0;
  /// Consecutive accepted frames; wraps like the engine's 32-bit counter at its limit.
  int32_t consecutiveDetectionFrames = 0;
  /// Rect::zero() while no card is stable, kStableCardMarker once one is.
  Rect cardRect;
  /// Centre of the stable card's corners' bounding box (frame pixels, y up); zero otherwise.
  Point cardCenter;
};

/// How the engine measures one feature.
struct CardMeasurement {
  /// The corners in ascending corner angle: for an upright card (y up) bottom left, bottom
  /// right, top right, top left.
  std::array<Point, 4> sorted;
  /// Centre of the corners' single-precision bounding box.
  Point centre;
  /// ((S2.x - S3.x) + (S1.x - S0.x)) / 2 over ((S3.y - S0.y) + (S2.y - S1.y)) / 2 on the
  /// sorted corners; infinite or NaN for a flat quad.
  double ratio = 0.0;
};

/// The angle by which the engine orders a corner `p` about `centre`: atan2f of the float
/// differences, plus three quarters of pi, modulo a single-precision full turn. Lies in
/// [-pi/4, 7pi/4): fmodf keeps the sign and the result is deliberately left so.
/// Thread: any.
double cardCornerAngle(Point p, Point centre);

/// Orders the corners topLeft, topRight, bottomLeft, bottomRight of `feature` by ascending
/// cardCornerAngle (a stable sort: equal angles keep that order) and measures the ratio.
/// Thread: any.
CardMeasurement measureCard(const platform::RectangleFeature& feature);

/// One frame's detection step on the frame's rectangle features, in the detector's order:
/// replaces a 0.0 threshold by 0.1; leaves everything as it is for an empty list; otherwise
/// the first feature whose ratio is within the threshold of kCardAspectRatio counts the frame
/// (publishing the marker and the centre from the sixth consecutive accepted frame on) and
/// ends the step, and every feature rejected before it resets the count and the published
/// card. Thread: the engine's video queue (the caller's; nothing is dispatched).
void performRectangleDetection(CardDetectionState& state,
                               const std::vector<platform::RectangleFeature>& features);

/// The same on the features `detector` finds in `frame` (420f, 420v or BGRA pixels). A frame
/// the detector cannot read yields no features and so changes only a 0.0 threshold.
/// Thread: the engine's video queue.
void performRectangleDetection(CardDetectionState& state,
                               const platform::RectangleDetector& detector,
                               const PixelBuffer& frame);

/// Withdraws a published card: `cardRect` and `cardCenter` to zero. The count is kept, so
/// the next accepted frame of an unbroken run publishes again at once. Thread: any that owns
/// the state (the engine calls it from the host's thread; stale reads are accepted).
void clearCardRectData(CardDetectionState& state);

/// The engine's detector settings: high accuracy, aspect ratio kCardAspectRatio, focal
/// length 0.0 (shapes compared as they appear), one feature per frame. The ratio ranks and
/// does not filter: the frame's most prominent rectangle is reported whatever its shape, so a
/// square or a long strip in view reaches the acceptance test, is rejected there and
/// withdraws a published card.
platform::RectangleDetectorOptions cardRectangleDetectorOptions();

/// A detector made with cardRectangleDetectorOptions(); the engine makes it once, on the
/// first card-mode frame, and reuses it. Thread: any.
std::shared_ptr<const platform::RectangleDetector> makeCardRectangleDetector();

}  // namespace kwq

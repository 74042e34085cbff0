#include "capture/card_detection.h"

#include <math.h>

#include <cmath>

namespace kwq {
namespace {

// Three quarters of pi: turns the corner angles so that the bottom-left corner of an upright
// card comes first.
constexpr double kAngleOffset = 2.356194490192345;
constexpr float kFullTurn = 6.2831855f;

}  // namespace

double cardCornerAngle(Point p, Point centre) {
  const float dy = static_cast<float>(p.y - centre.y);
  const float dx = static_cast<float>(p.x - centre.x);
  const double turned = static_cast<double>(atan2f(dy, dx)) + kAngleOffset;
  return static_cast<double>(fmodf(static_cast<float>(turned), kFullTurn));
}

CardMeasurement measureCard(const platform::RectangleFeature& feature) {
  CardMeasurement m;
  std::array<Point, 4> corners = {feature.topLeft, feature.topRight, feature.bottomLeft,
                                  feature.bottomRight};
  // The bounding box in single precision, each result widened back.
  Point lo = corners[0], hi = corners[0];
  for (const Point& p : corners) {
    lo.x = fminf(static_cast<float>(p.x), static_cast<float>(lo.x));
    lo.y = fminf(static_cast<float>(p.y), static_cast<float>(lo.y));
    hi.x = fmaxf(static_cast<float>(p.x), static_cast<float>(hi.x));
    hi.y = fmaxf(static_cast<float>(p.y), static_cast<float>(hi.y));
  }
  m.centre = Point{(hi.x + lo.x) * 0.5, (hi.y + lo.y) * 0.5};

  // A stable insertion sort on "compares ascending": a corner moves before another only when
  // its angle is strictly smaller, so equal angles (and NaN, which compares as neither) keep
  // the corner list's order, as the comparator-based sort of the engine's platform does.
  std::array<double, 4> angle;
  for (size_t i = 0; i < 4; ++i) angle[i] = cardCornerAngle(corners[i], m.centre);
  for (size_t i = 1; i < 4; ++i)
    for (size_t j = i; j > 0 && angle[j] < angle[j - 1]; --j) {
      std::swap(angle[j], angle[j - 1]);
      std::swap(corners[j], corners[j - 1]);
    }
  m.sorted = corners;

  const Point &s0 = corners[0], &s1 = corners[1], &s2 = corners[2], &s3 = corners[3];
  const double width = ((s2.x - s3.x) + (s1.x - s0.x)) * 0.5;
  const double height = ((s3.y - s0.y) + (s2.y - s1.y)) * 0.5;
  m.ratio = width / height;
  return m;
}

void performRectangleDetection(CardDetectionState& state,
                               const std::vector<platform::RectangleFeature>& features) {
  if (state.cardDetectionThreshold == 0.0)
    state.cardDetectionThreshold = kDefaultCardDetectionThreshold;
  for (const platform::RectangleFeature& feature : features) {
    const CardMeasurement m = measureCard(feature);
    // NaN fails the comparison and so is rejected.
    if (std::fabs(m.ratio - kCardAspectRatio) <= state.cardDetectionThreshold) {
      const int32_t earlier = state.consecutiveDetectionFrames;
      // The count wraps at its 32-bit limit instead of overflowing.
      state.consecutiveDetectionFrames = static_cast<int32_t>(static_cast<uint32_t>(earlier) + 1u);
      if (earlier >= kStableCardFrames) {
        state.cardRect = kStableCardMarker;
        state.cardCenter = m.centre;
      } else {
        state.cardRect = Rect::zero();
        state.cardCenter = Point::zero();
      }
      return;
    }
    state.consecutiveDetectionFrames = 0;
    state.cardRect = Rect::zero();
    state.cardCenter = Point::zero();
  }
}

void performRectangleDetection(CardDetectionState& state,
                               const platform::RectangleDetector& detector,
                               const PixelBuffer& frame) {
  if (state.cardDetectionThreshold == 0.0)
    state.cardDetectionThreshold = kDefaultCardDetectionThreshold;
  performRectangleDetection(state, detector.featuresInImage(frame));
}

void clearCardRectData(CardDetectionState& state) {
  state.cardRect = Rect::zero();
  state.cardCenter = Point::zero();
}

platform::RectangleDetectorOptions cardRectangleDetectorOptions() {
  platform::RectangleDetectorOptions options;
  options.accuracy = platform::RectangleAccuracy::High;
  options.aspectRatio = kCardAspectRatio;
  options.focalLength = 0.0;
  options.maxFeatureCount = 1;
  return options;
}

std::shared_ptr<const platform::RectangleDetector> makeCardRectangleDetector() {
  return platform::createRectangleDetector(cardRectangleDetectorOptions());
}

}  // namespace kwq

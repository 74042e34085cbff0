#include "capture/card_detection.h"

#include <math.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include <gtest/gtest.h>

namespace kwq {
namespace {

using platform::RectangleFeature;

RectangleFeature quad(Point tl, Point tr, Point bl, Point br) {
  return {tl, tr, bl, br, {}};
}

// An upright w x h rectangle with its bottom-left corner at (x, y), y up.
RectangleFeature upright(double x, double y, double w, double h) {
  return quad({x, y + h}, {x + w, y + h}, {x, y}, {x + w, y});
}

const RectangleFeature kCard = upright(0, 0, 86, 54);
const RectangleFeature kSquare = upright(10, 10, 50, 50);

// The same rectangle turned by `radians` about its centre.
RectangleFeature turned(const RectangleFeature& f, double radians) {
  const double cx = (f.topRight.x + f.bottomLeft.x) / 2, cy = (f.topRight.y + f.bottomLeft.y) / 2;
  auto t = [&](Point p) {
    const double dx = p.x - cx, dy = p.y - cy, c = std::cos(radians), s = std::sin(radians);
    return Point{cx + c * dx - s * dy, cy + s * dx + c * dy};
  };
  return quad(t(f.topLeft), t(f.topRight), t(f.bottomLeft), t(f.bottomRight));
}

TEST(CardCornerOrder, AscendingAngleFromBottomLeftWhateverTheLabels) {
  // Upright, and turned by up to 30 degrees either way: S0..S3 are the bottom left,
  // bottom right, top right and top left of the card as it was upright (past 32 degrees the
  // top-left corner crosses the start direction and sorts first).
  for (double degrees : {0.0, 20.0, 30.0, -30.0}) {
    const RectangleFeature f = turned(kCard, degrees * M_PI / 180);
    const auto s = measureCard(f).sorted;
    EXPECT_EQ(s[0], f.bottomLeft) << degrees;
    EXPECT_EQ(s[1], f.bottomRight) << degrees;
    EXPECT_EQ(s[2], f.topRight) << degrees;
    EXPECT_EQ(s[3], f.topLeft) << degrees;
  }
  EXPECT_EQ(measureCard(kCard).ratio, 86.0 / 54.0);
  // Mirrored or shuffled labels give the same order and ratio: only positions count.
  const RectangleFeature mirrored =
      quad(kCard.topRight, kCard.topLeft, kCard.bottomRight, kCard.bottomLeft);
  EXPECT_EQ(measureCard(mirrored).sorted, measureCard(kCard).sorted);
  // A card on its side (turned a quarter) measures about 54 / 86 and is no card.
  EXPECT_NEAR(measureCard(turned(kCard, M_PI / 2)).ratio, 54.0 / 86.0, 1e-9);
}

TEST(CardCornerOrder, AnglesBelowTheStartAreNotWrapped) {
  // Seen from the centre, a corner at -170 degrees lies just clockwise of the bottom-left
  // direction (-135): fmodf keeps its angle negative (about -0.61), so it sorts first instead
  // of last.
  const Point centre{0, 0};
  const Point beyond{std::cos(-170 * M_PI / 180), std::sin(-170 * M_PI / 180)};
  EXPECT_LT(cardCornerAngle(beyond, centre), -0.6);
  EXPECT_GT(cardCornerAngle({-1, 1e-3}, centre), 5.4);  // just below +180 degrees: last
  const RectangleFeature f = quad({-1, 1}, {1, 1}, beyond, {1, -1});
  EXPECT_EQ(measureCard(f).sorted[0], beyond);
}

TEST(CardCornerOrder, MatchesAStableSortOnTheAngles) {
  // Random quads, many with repeated corners (equal angles keep their list order).
  std::mt19937 rng(5);
  std::uniform_int_distribution<int> coord(-4, 4);
  for (int n = 0; n < 2000; ++n) {
    Point p[4];
    for (Point& q : p) q = {coord(rng) * 0.75, coord(rng) * 1.25};
    const RectangleFeature f = quad(p[0], p[1], p[2], p[3]);
    const CardMeasurement m = measureCard(f);
    std::vector<Point> expected{p[0], p[1], p[2], p[3]};
    std::stable_sort(expected.begin(), expected.end(), [&](Point a, Point b) {
      return cardCornerAngle(a, m.centre) < cardCornerAngle(b, m.centre);
    });
    ASSERT_TRUE(std::equal(expected.begin(), expected.end(), m.sorted.begin())) << n;
  }
}

TEST(CardCornerOrder, BoundingBoxInSinglePrecision) {
  // 0.1 and 86.3 are not floats: the centre uses their float roundings.
  const RectangleFeature f = upright(0.1, 0.1, 86.2, 53.9);
  const double lo = static_cast<float>(0.1), hi = static_cast<float>(0.1 + 86.2);
  EXPECT_EQ(measureCard(f).centre.x, (hi + lo) * 0.5);
  EXPECT_NE(measureCard(f).centre.x, (0.1 + (0.1 + 86.2)) * 0.5);
}

TEST(CardDetection, ThresholdDefaultAndBoundary) {
  CardDetectionState s;
  performRectangleDetection(s, {});  // also on a frame without features
  EXPECT_EQ(s.cardDetectionThreshold, 0.1);
  const double off = std::fabs(86.0 / 54.0 - kCardAspectRatio);
  s.cardDetectionThreshold = off;  // "within" includes equality
  performRectangleDetection(s, {kCard});
  EXPECT_EQ(s.consecutiveDetectionFrames, 1);
  s.cardDetectionThreshold = std::nextafter(off, 0.0);
  performRectangleDetection(s, {kCard});
  EXPECT_EQ(s.consecutiveDetectionFrames, 0);
}

// Nothing published: zero rectangle and zero centre.
bool cleared(const CardDetectionState& s) {
  return s.cardRect == Rect::zero() && s.cardCenter == Point::zero();
}

TEST(CardDetection, SixConsecutiveCardsPublishTheMarkerAndCentre) {
  CardDetectionState s;
  for (int frame = 1; frame <= 5; ++frame) {
    performRectangleDetection(s, {kCard, kSquare});  // the card decides, the square is not seen
    EXPECT_EQ(s.consecutiveDetectionFrames, frame);
    EXPECT_TRUE(cleared(s));
  }
  performRectangleDetection(s, {kCard});
  EXPECT_EQ(s.cardRect, Rect(0, 0, 11, 11));
  EXPECT_EQ(s.cardCenter, (Point{43, 27}));
  performRectangleDetection(s, {upright(100, 200, 86, 54)});  // keeps publishing, new centre
  EXPECT_EQ(s.consecutiveDetectionFrames, 7);
  EXPECT_EQ(s.cardCenter, (Point{143, 227}));

  performRectangleDetection(s, {});  // nothing found: everything stays
  EXPECT_EQ(s.consecutiveDetectionFrames, 7);
  EXPECT_EQ(s.cardRect, kStableCardMarker);
  performRectangleDetection(s, {kSquare, kSquare});  // only rejects: all reset
  EXPECT_EQ(s.consecutiveDetectionFrames, 0);
  EXPECT_TRUE(cleared(s));
}

TEST(CardDetection, RejectsResetAndClearKeepsTheCount) {
  CardDetectionState s{0.1, 9, kStableCardMarker, {1, 2}};
  performRectangleDetection(s, {kSquare, kCard});  // the square resets, the card counts one
  EXPECT_EQ(s.consecutiveDetectionFrames, 1);
  EXPECT_TRUE(cleared(s));

  for (int i = 0; i < 4; ++i) performRectangleDetection(s, {kCard});
  clearCardRectData(s);
  EXPECT_EQ(s.consecutiveDetectionFrames, 5);
  performRectangleDetection(s, {kCard});  // the sixth publishes despite the clear
  EXPECT_EQ(s.cardRect, kStableCardMarker);
  clearCardRectData(s);
  EXPECT_TRUE(cleared(s));
  EXPECT_EQ(s.consecutiveDetectionFrames, 6);
}

TEST(CardDetection, DegenerateAndBrokenQuadsAreRejected) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const RectangleFeature flat = upright(0, 5, 86, 0);  // height 0: ratio infinite
  const RectangleFeature point = upright(3, 3, 0, 0);  // 0 / 0
  const RectangleFeature broken = quad({nan, 54}, {86, 54}, {0, 0}, {86, 0});
  for (const RectangleFeature& f : {flat, point, broken}) {
    CardDetectionState s{1e9, 3, Rect::zero(), {}};  // even a huge threshold
    performRectangleDetection(s, {f});
    EXPECT_EQ(s.consecutiveDetectionFrames, 0);
  }
}

}  // namespace
}  // namespace kwq

#include "kwqimage/KWQProgressCircleView.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <future>
#include <numbers>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../platform/ui/render_test_support.h"
#include "kwqimage/DispatchQueue.h"
#include "kwqimage/Render.h"
#include "support/main_loop.h"
#include "views/progress_circle_step.h"

namespace kwq {
namespace {

using test::near;
using test::Pixel;
using test::pixelAt;

constexpr Pixel kTrack{255, 0, 0, 255}, kBorder{0, 0, 255, 255}, kTint{255, 255, 255, 255},
    kClear{0, 0, 0, 0};
using namespace std::chrono_literals;

constexpr double kStep = 100.0 / 360.0;

TEST(ProgressCircleStepTest, MovesOneStepAndSnapsWithinAStep) {
  // Up in steps of maximum / 360 until less than a step is left, then onto the value.
  auto s = views::progressCircleStep(1.0, 0.0, 100.0, false, false);
  EXPECT_DOUBLE_EQ(s.counterValue, kStep);
  EXPECT_FALSE(s.finished);
  s = views::progressCircleStep(1.0, 3 * kStep, 100.0, false, false);
  EXPECT_EQ(s.counterValue, 1.0);  // 0.167 left: snapped, not stepped past
  // Down the same way.
  s = views::progressCircleStep(0.0, 1.0, 100.0, false, false);
  EXPECT_DOUBLE_EQ(s.counterValue, 1.0 - kStep);
  s = views::progressCircleStep(0.5, 0.6, 100.0, false, false);
  EXPECT_EQ(s.counterValue, 0.5);
  // The step follows the maximum.
  EXPECT_DOUBLE_EQ(views::progressCircleStep(50, 0, 3600, false, false).counterValue, 10.0);
  // At the value: the loop ends, the counter and invert untouched.
  s = views::progressCircleStep(7.0, 7.0, 100.0, false, true);
  EXPECT_TRUE(s.finished);
  EXPECT_EQ(s.counterValue, 7.0);
  EXPECT_TRUE(s.invert);
}

TEST(ProgressCircleStepTest, ContinuousModeStartsANewSweepWithInvertFlipped) {
  auto s = views::progressCircleStep(100.0, 100.0, 100.0, true, false);
  EXPECT_FALSE(s.finished);
  EXPECT_EQ(s.counterValue, 0.0);
  EXPECT_TRUE(s.invert);
  s = views::progressCircleStep(100.0, 100.0, 100.0, true, true);
  EXPECT_FALSE(s.invert);
  // A whole sweep from 0 takes 360 steps (361 where the sum of the steps falls a rounding
  // error short and the last step is a snap), never passing the maximum.
  double counter = 0.0;
  int steps = 0;
  for (; counter != 100.0 && steps < 1000; ++steps) {
    counter = views::progressCircleStep(100.0, counter, 100.0, true, false).counterValue;
    ASSERT_LE(counter, 100.0);
  }
  EXPECT_GE(steps, 360);
  EXPECT_LE(steps, 361);
}

TEST(ProgressCircleViewTest, SettersClampAsTheInterfaceSays) {
  auto view = KWQProgressCircleView::create({0, 0, 100, 100});
  EXPECT_EQ(view->maximumValue(), 100.0);
  EXPECT_EQ(view->centerSize(), 0.0);
  view->setMaximumValue(0.5);
  EXPECT_EQ(view->maximumValue(), 1.0);
  view->setMaximumValue(0.1);  // stored in single precision
  view->setMaximumValue(1234.567);
  EXPECT_EQ(view->maximumValue(), static_cast<double>(1234.567f));
  view->setMaximumValue(100.0);

  view->setValue(150, false);
  EXPECT_EQ(view->value(), 100.0);
  EXPECT_EQ(view->counterValue(), 100.0);
  view->setValue(-5, false);
  EXPECT_EQ(view->value(), 0.0);
  view->setValue(33.3, false);
  EXPECT_EQ(view->value(), static_cast<double>(33.3f));
  // A lower maximum re-targets the value.
  view->setMaximumValue(20.0);
  EXPECT_EQ(view->value(), 20.0);
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return !view->animating(); }));
  EXPECT_EQ(view->counterValue(), 20.0);

  view->setBorderSize(-1);
  EXPECT_EQ(view->borderSize(), 0.0);
  view->setBorderOffsetMargin(-2);
  EXPECT_EQ(view->borderOffsetMargin(), 0.0);
  view->setInterierOffsetMargin(4);
  view->setCenterSize(10);
  EXPECT_EQ(view->centerSize(), 4.0);
  view->setInterierOffsetMargin(20);
  view->setCenterSize(10);
  EXPECT_EQ(view->centerSize(), 10.0);
  view->setCenterSize(-3);
  EXPECT_EQ(view->centerSize(), -3.0);

  // No colour means the default one.
  view->setTrackColor(Color::redColor());
  view->setTrackColor(std::nullopt);
  view->setBorderColor(std::nullopt);
  view->setTintColor(std::nullopt);
  EXPECT_EQ(view->trackColor(), Color::greenColor());
  EXPECT_EQ(view->borderColor(), Color::greenColor());
  EXPECT_EQ(view->tintColor(), Color::clearColor());
}

TEST(ProgressCircleViewTest, AnglesAndCircleRectangle) {
  auto view = KWQProgressCircleView::create({0, 0, 100, 100});
  view->setMaximumValue(80);
  EXPECT_DOUBLE_EQ(view->convertToAngle(0), -std::numbers::pi / 2);
  EXPECT_DOUBLE_EQ(view->convertToAngle(80), 3 * std::numbers::pi / 2);
  EXPECT_DOUBLE_EQ(view->convertToAngle(40), std::numbers::pi / 2);
  EXPECT_EQ(KWQProgressCircleView::calculateDrawRectFromRect({0, 0, 100, 100}, 2),
            (Rect{2, 2, 96, 96}));
  // Squared about the centre, then inset by the whole width.
  EXPECT_EQ(KWQProgressCircleView::calculateDrawRectFromRect({10, 0, 200, 100}, 5),
            (Rect{65, 5, 90, 90}));
  EXPECT_EQ(KWQProgressCircleView::calculateDrawRectFromRect({0, 0, 60, 100}, 0),
            (Rect{0, 20, 60, 60}));
}

// The example geometry: 100 x 100, border 2, margin 3 -> circle (2, 2, 96, 96), t = 5,
// R = 45; the outline covers radii 47..49 about (50, 50).
class ProgressCircleRenderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    view_->setBorderSize(2);
    view_->setBorderOffsetMargin(3);
    view_->setInterierOffsetMargin(20);
    view_->setTrackColor(Color::redColor());
    view_->setBorderColor(Color::blueColor());
    view_->setTintColor(Color::whiteColor());
  }
  Image draw(const std::string& name) {
    view_->setNeedsDisplay();
    view_->displayIfNeeded();
    const Image image = renderView(*view_, {100, 100}, 0.0);
    test::savePng(image, name);
    return image;
  }
  // Compares every pixel whose centre lies at least a pixel away from every edge of the
  // drawing with what the rules give: `inSegment` says whether the angle (clockwise from the
  // top, 0..2pi) belongs to the filled segment.
  void expectRing(const Image& image, double inner, double sweepFrom, double sweepTo) {
    int checked = 0;
    for (int y = 0; y < 100; ++y)
      for (int x = 0; x < 100; ++x) {
        const double dx = x + 0.5 - 50, dy = y + 0.5 - 50, d = std::hypot(dx, dy);
        double phi = std::atan2(dx, -dy);
        if (phi < 0) phi += 2 * std::numbers::pi;
        auto nearRadius = [&](double r) { return std::abs(d - r) < 1.0; };
        auto nearRay = [&](double angle) {
          const double delta = phi - angle;
          return std::abs(d * std::sin(delta)) < 1.0 && std::cos(delta) > -0.1;
        };
        if (nearRadius(inner) || nearRadius(45) || nearRadius(47) || nearRadius(48) ||
            nearRadius(49) || nearRay(sweepFrom) || nearRay(sweepTo))
          continue;
        Pixel want = kClear;
        if (d < 47)
          want = (d > inner && d < 45 && phi > sweepFrom && phi < sweepTo) ? kTrack : kTint;
        else if (d < 49)
          want = kBorder;
        const Pixel got = pixelAt(image, x, y);
        ASSERT_TRUE(near(got, want)) << "(" << x << ", " << y << ") " << got << " want " << want;
        ++checked;
      }
    EXPECT_GT(checked, 7000);
  }
  int countTrack(const Image& image) {
    int n = 0;
    for (size_t y = 0; y < 100; ++y)
      for (size_t x = 0; x < 100; ++x) {
        const Pixel p = pixelAt(image, x, y);
        n += p.r > p.g + 20 && p.r > p.b + 20;
      }
    return n;
  }
  std::shared_ptr<KWQProgressCircleView> view_ = KWQProgressCircleView::create({0, 0, 100, 100});
};

TEST_F(ProgressCircleRenderTest, SegmentRunsClockwiseFromTheTopAndInvertFillsTheRest) {
  constexpr double pi = std::numbers::pi;
  const struct {
    double value;
    bool invert;
    double from, to;  // the filled sweep, clockwise from the top
    const char* name;
  } cases[] = {{25, false, 0, pi / 2, "progress_circle_25"},
               {62.5, false, 0, 1.25 * pi, "progress_circle_62_5"},
               {100, false, 0, 2 * pi, "progress_circle_100"},
               {62.5, true, 1.25 * pi, 2 * pi, "progress_circle_62_5_inverted"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    view_->setValue(c.value, false);
    view_->setInvert(c.invert);
    expectRing(draw(c.name), 20, c.from, c.to);
  }
}

TEST_F(ProgressCircleRenderTest, InnerRadiusIsClampedOnDrawAndStaysSo) {
  view_->setInterierOffsetMargin(50);
  view_->setValue(25, false);
  const Image image = draw("progress_circle_inner_clamped");
  EXPECT_EQ(view_->interierOffsetMargin(), 44.0);
  expectRing(image, 44, 0, std::numbers::pi / 2);
  // A one-point ring between radii 44 and 45, at 3 o'clock well inside the quarter.
  EXPECT_GT(countTrack(image), 0);
}

TEST_F(ProgressCircleRenderTest, ZeroDrawsOnlyTheOneWideTick) {
  view_->setValue(0, false);
  const Image image = draw("progress_circle_0");
  // A 1.0-wide line at x = 50 from y = 5 to y = 30 covers half of columns 49 and 50.
  const Pixel half{255, 128, 128, 255};
  for (int y : {8, 15, 27}) {
    EXPECT_TRUE(near(pixelAt(image, 49, y), half, 3)) << pixelAt(image, 49, y);
    EXPECT_TRUE(near(pixelAt(image, 50, y), half, 3));
    EXPECT_EQ(pixelAt(image, 48, y), kTint);
    EXPECT_EQ(pixelAt(image, 51, y), kTint);
  }
  EXPECT_EQ(pixelAt(image, 49, 35), kTint);  // stops at the inner radius
  EXPECT_EQ(countTrack(image), 2 * 25);
  expectRing(image, 20, 0, 0);
}

TEST_F(ProgressCircleRenderTest, ZeroCounterWithAValueDrawsAnEmptySweep) {
  view_->setValue(0, false);
  view_->setValue(50);  // the loop is about to move the counter; draw before it does
  view_->setStopAnimationCalled(true);
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return !view_->animating(); }));
  view_->setCounterValue(0);
  EXPECT_EQ(countTrack(draw("progress_circle_zero_sweep")), 0);
}

TEST_F(ProgressCircleRenderTest, CenterDotInTheTrackColour) {
  view_->setCenterSize(10);
  view_->setValue(25, false);
  const Image image = draw("progress_circle_center_dot");
  EXPECT_EQ(pixelAt(image, 50, 50), kTrack);
  EXPECT_EQ(pixelAt(image, 57, 50), kTrack);
  EXPECT_EQ(pixelAt(image, 50, 65), kTint);  // radius 15: between the dot and the ring
  EXPECT_EQ(pixelAt(image, 50, 80), kTint);  // the ring's unfilled part
}

TEST(ProgressCircleAnimationTest, LoopStepsToTheValueAndEnds) {
  auto view = KWQProgressCircleView::create({0, 0, 100, 100});
  view->setValue(1.0);
  EXPECT_EQ(view->value(), 1.0);
  // Every counter seen on the way is a whole number of steps or the value itself.
  bool onSteps = true;
  ASSERT_TRUE(test::pumpMainContextUntil([&] {
    const double c = view->counterValue();
    const double k = std::round(c / kStep);
    onSteps = onSteps && (c == 1.0 || std::abs(c - k * kStep) < 1e-9);
    return !view->animating();
  }));
  EXPECT_TRUE(onSteps);
  EXPECT_EQ(view->counterValue(), 1.0);
  EXPECT_FALSE(view->stopAnimationCalled());
  // A new target while a loop runs steers that loop.
  view->setValue(10.0);
  view->setValue(2.0);
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return !view->animating(); }));
  EXPECT_EQ(view->counterValue(), 2.0);
}

TEST(ProgressCircleAnimationTest, ContinuousSweepAlternatesUntilStopped) {
  auto view = KWQProgressCircleView::create({0, 0, 100, 100});
  view->setHideWhenAnimationStops(1);
  view->setHidden(true);
  view->startAnimating();
  EXPECT_FALSE(view->isHidden());
  EXPECT_TRUE(view->continousAnimation());
  EXPECT_EQ(view->value(), 100.0);
  view->setValue(30);  // ignored while sweeping
  EXPECT_EQ(view->value(), 100.0);
  // Filling, then emptying (inverted), then filling again.
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return view->invert(); }));
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return !view->invert(); }));
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return view->counterValue() > 50; }));
  EXPECT_TRUE(view->animating());

  view->stopAnimating();
  EXPECT_TRUE(view->isHidden());
  EXPECT_FALSE(view->continousAnimation());
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return !view->animating(); }));
  // The loop may finish the step it was in, no more.
  const double frozen = view->counterValue();
  EXPECT_LE(std::abs(frozen - view->value()), kStep + 1e-9);
  test::drainMainContext();
  EXPECT_EQ(view->counterValue(), frozen);
  EXPECT_FALSE(view->animating());

  // startAnimating while a loop runs ends that loop first, and only one loop follows.
  view->setValue(90);
  view->startAnimating();
  EXPECT_TRUE(view->animating());
  view->stopAnimating();
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return !view->animating(); }));
}

TEST(ProgressCircleAnimationTest, SweepingCirclesLeaveTheGlobalPoolFreeAndRestartWithoutWaiting) {
  // More sweeping circles than the global pool has threads on any machine.
  std::vector<std::shared_ptr<KWQProgressCircleView>> views;
  for (int i = 0; i < 12; ++i) views.push_back(KWQProgressCircleView::create({0, 0, 40, 40}));
  for (auto& view : views) view->startAnimating();
  EXPECT_TRUE(test::pumpMainContextUntil(
      [&] {
        return std::all_of(views.begin(), views.end(),
                           [](const auto& v) { return v->counterValue() > 0.0; });
      },
      30s))
      << "some circles never swept";
  std::atomic<bool> ran{false};
  DispatchQueue::global().async([&] { ran = true; });
  EXPECT_TRUE(test::pumpMainContextUntil([&] { return ran.load(); }, 30s))
      << "a block on the global queue waited behind the sweeping circles";

  // Restarting a sweeping circle must not wait on its loop. Done on a helper thread so that a
  // hang fails the test instead of stalling it: stopping the circles below frees the helper.
  // The last circle first: the one whose loop was queued last.
  auto restarted = std::async(std::launch::async, [&] {
    for (auto it = views.rbegin(); it != views.rend(); ++it) (*it)->startAnimating();
  });
  EXPECT_EQ(restarted.wait_for(30s), std::future_status::ready);
  do {
    for (auto& view : views) view->stopAnimating();
  } while (restarted.wait_for(10ms) != std::future_status::ready);
  for (auto& view : views) view->stopAnimating();
  EXPECT_TRUE(test::pumpMainContextUntil(
      [&] {
        return std::none_of(views.begin(), views.end(),
                            [](const auto& v) { return v->animating(); });
      },
      30s));
}

}  // namespace
}  // namespace kwq

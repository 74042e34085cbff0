#include "kwqimage/Render.h"

#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "kwqimage/CaptureDevice.h"
#include "kwqimage/CaptureSession.h"
#include "kwqimage/View.h"
#include "platform/image/frame_image.h"
#include "platform/ui/renderer.h"
#include "render_test_support.h"
#include "support/main_loop.h"

namespace kwq {
namespace {

using test::near;
using test::Pixel;
using test::pixelAt;
using test::savePng;

constexpr Pixel kWhite{255, 255, 255, 255}, kRed{255, 0, 0, 255}, kGreen{0, 255, 0, 255},
    kBlue{0, 0, 255, 255}, kYellow{255, 255, 0, 255}, kClear{0, 0, 0, 0};

// The colours the quadrants convert to, from the frame conversion itself.
struct Quadrants {
  Pixel tl, tr, bl, br;
};
Quadrants quadrantColors(const PixelBuffer& frame) {
  const Image rgb = platform::imageFromPixelBuffer(frame);
  auto at = [&](size_t x, size_t y) {
    const uint8_t* p = rgb.bytes().data() + y * rgb.bytesPerRow() + x * 3;
    return Pixel{p[0], p[1], p[2], 255};
  };
  const size_t w = frame.width(), h = frame.height();
  return {at(0, 0), at(w - 1, 0), at(0, h - 1), at(w - 1, h - 1)};
}

std::shared_ptr<CaptureSession> sessionOn(int64_t position) {
  SyntheticCameraOptions options;
  options.position = position;
  auto session = CaptureSession::create();
  session->addInput(
      CaptureDeviceInput::deviceInputWithDevice(CaptureDevice::syntheticCamera(options)));
  return session;
}

class PreviewRenderTest : public ::testing::Test {
 protected:
  // A 64 x 48 frame shown by a preview layer of `size` with a blue background.
  Image render(std::string_view gravity, Size size,
               int64_t position = AVCaptureDevicePositionBack) {
    auto preview = PreviewLayer::layerWithSession(sessionOn(position));
    preview->setVideoGravity(gravity);
    preview->setFrame({0, 0, size.width, size.height});
    preview->setBackgroundColor(Color::blueColor());
    const SampleBuffer sample(frame_);
    return platform::renderLayerTree(*preview, size, 0.0,
                                     [&](const PreviewLayer&) { return sample; });
  }
  const PixelBuffer frame_ = test::quadrantFrame(64, 48);
  const Quadrants q_ = quadrantColors(frame_);
};

TEST_F(PreviewRenderTest, GravityLetterboxesCropsOrStretches) {
  // 64 x 48 into 200 x 60: fitted the frame is 80 x 60 at x 60, with bars at the sides.
  const Image aspect = render(AVLayerVideoGravityResizeAspect, {200, 60});
  savePng(aspect, "render_gravity_aspect");
  for (int y : {0, 30, 59}) {
    EXPECT_EQ(pixelAt(aspect, 0, y), kBlue);
    EXPECT_EQ(pixelAt(aspect, 58, y), kBlue);
    EXPECT_EQ(pixelAt(aspect, 141, y), kBlue);
    EXPECT_EQ(pixelAt(aspect, 199, y), kBlue);
  }
  EXPECT_TRUE(near(pixelAt(aspect, 62, 2), q_.tl)) << pixelAt(aspect, 62, 2);
  EXPECT_TRUE(near(pixelAt(aspect, 137, 2), q_.tr));
  EXPECT_TRUE(near(pixelAt(aspect, 62, 57), q_.bl));
  EXPECT_TRUE(near(pixelAt(aspect, 137, 57), q_.br));

  // Filled it is 200 x 150, centred: 45 rows cut off above and below, no bars.
  const Image fill = render(AVLayerVideoGravityResizeAspectFill, {200, 60});
  savePng(fill, "render_gravity_aspect_fill");
  EXPECT_TRUE(near(pixelAt(fill, 2, 2), q_.tl)) << pixelAt(fill, 2, 2);
  EXPECT_TRUE(near(pixelAt(fill, 197, 2), q_.tr));
  EXPECT_TRUE(near(pixelAt(fill, 2, 57), q_.bl));
  EXPECT_TRUE(near(pixelAt(fill, 197, 57), q_.br));
  // The quadrant edge sits at the frame's middle row, the render's row 30: rows 27 and 33
  // (0.96 source rows from it) are already flat.
  EXPECT_TRUE(near(pixelAt(fill, 50, 27), q_.tl));
  EXPECT_TRUE(near(pixelAt(fill, 50, 33), q_.bl));

  // Stretched the frame fills 200 x 60: the vertical edge at x 100 as with fill, but the
  // horizontal one keeps its full 48 rows within 60.
  const Image stretched = render(AVLayerVideoGravityResize, {200, 60});
  savePng(stretched, "render_gravity_resize");
  EXPECT_TRUE(near(pixelAt(stretched, 2, 2), q_.tl));
  EXPECT_TRUE(near(pixelAt(stretched, 197, 57), q_.br));
  EXPECT_TRUE(near(pixelAt(stretched, 97, 28), q_.tl));
  EXPECT_TRUE(near(pixelAt(stretched, 103, 31), q_.br));
  for (int x = 0; x < 200; x += 7)
    for (int y : {0, 59}) ASSERT_NE(pixelAt(stretched, x, y), kBlue) << x << "," << y;
}

TEST_F(PreviewRenderTest, FrontCameraIsShownMirrored) {
  // 1:1, straight into the canvas: the frame's top-left quadrant shows at the top right. (The
  // resampled path's mirroring: the clipped test below.)
  const Image direct =
      render(AVLayerVideoGravityResizeAspect, {64, 48}, AVCaptureDevicePositionFront);
  const Image back = render(AVLayerVideoGravityResizeAspect, {64, 48});
  EXPECT_EQ(pixelAt(direct, 63, 0), q_.tl);
  EXPECT_EQ(pixelAt(direct, 0, 0), q_.tr);
  EXPECT_EQ(pixelAt(direct, 63, 47), q_.bl);
  EXPECT_EQ(pixelAt(direct, 0, 47), q_.br);
  // Every pixel of the direct render is the mirror of the unmirrored one.
  for (size_t y = 0; y < 48; y += 5)
    for (size_t x = 0; x < 64; ++x) ASSERT_EQ(pixelAt(direct, x, y), pixelAt(back, 63 - x, y));
}

TEST_F(PreviewRenderTest, DirectAndResampledPathsAgreeUnderClipsAndOffsets) {
  // The preview at a whole-pixel offset inside a clipping parent (the direct path) against the
  // same tree nudged by a hundredth of a pixel (Cairo's path): the same picture.
  auto build = [&](double nudge) {
    auto root = Layer::layer();
    root->setFrame({0, 0, 100, 80});
    root->setBackgroundColor(Color::whiteColor());
    auto clip = Layer::layer();
    clip->setFrame({10, 10, 50, 40});
    clip->setMasksToBounds(true);
    root->addSublayer(clip);
    auto preview = PreviewLayer::layerWithSession(sessionOn(AVCaptureDevicePositionFront));
    preview->setFrame({-20 + nudge, 5, 64, 48});
    clip->addSublayer(preview);
    const SampleBuffer sample(frame_);
    return platform::renderLayerTree(*root, {100, 80}, 0.0,
                                     [&](const PreviewLayer&) { return sample; });
  };
  const Image direct = build(0.0), resampled = build(0.01);
  savePng(direct, "render_preview_clipped");
  EXPECT_EQ(pixelAt(direct, 9, 20), kWhite);   // left of the clip
  EXPECT_EQ(pixelAt(direct, 60, 20), kWhite);  // right of it
  EXPECT_EQ(pixelAt(direct, 20, 14), kWhite);  // above the preview, inside the clip
  EXPECT_EQ(pixelAt(direct, 10, 15), q_.tr);   // mirrored: the right half first
  EXPECT_EQ(pixelAt(direct, 50, 45), q_.bl);
  EXPECT_EQ(pixelAt(direct, 56, 45), kWhite);  // right of the preview
  for (size_t y = 0; y < 80; ++y)
    for (size_t x = 0; x < 100; ++x)
      ASSERT_TRUE(near(pixelAt(direct, x, y), pixelAt(resampled, x, y), 6)) << x << "," << y;
}

TEST(RenderTest, BordersLieInsideBoundsAndSublayersStackInOrder) {
  auto root = Layer::layer();
  root->setFrame({0, 0, 100, 100});
  root->setBackgroundColor(Color::whiteColor());
  auto boxed = Layer::layer();
  boxed->setFrame({10, 10, 40, 40});
  boxed->setBorderWidth(4);
  boxed->setBorderColor(Color::redColor());
  root->addSublayer(boxed);
  auto below = Layer::layer(), above = Layer::layer();
  below->setFrame({60, 10, 30, 30});
  below->setBackgroundColor(Color::greenColor());
  above->setFrame({70, 20, 25, 25});
  above->setBackgroundColor(Color::blueColor());
  root->addSublayer(below);
  root->addSublayer(above);
  // A border covers the layer's own sublayers.
  auto child = Layer::layer();
  child->setFrame({0, 0, 40, 40});
  child->setBackgroundColor(Color::yellowColor());
  boxed->addSublayer(child);

  const Image image = renderLayer(*root, {100, 100}, 0.0);
  savePng(image, "render_borders_order");
  EXPECT_EQ(pixelAt(image, 9, 9), kWhite);     // outside the bounds
  EXPECT_EQ(pixelAt(image, 10, 10), kRed);     // the border's first pixel is the bounds' first
  EXPECT_EQ(pixelAt(image, 13, 30), kRed);     // four pixels wide
  EXPECT_EQ(pixelAt(image, 14, 30), kYellow);  // then the sublayer
  EXPECT_EQ(pixelAt(image, 49, 49), kRed);
  EXPECT_EQ(pixelAt(image, 50, 50), kWhite);
  EXPECT_EQ(pixelAt(image, 75, 25), kBlue);  // the later sublayer on top
  EXPECT_EQ(pixelAt(image, 65, 15), kGreen);

  root->insertSublayer(above, 0);  // now under everything else
  const Image reordered = renderLayer(*root, {100, 100}, 0.0);
  EXPECT_EQ(pixelAt(reordered, 75, 25), kGreen);
  EXPECT_EQ(pixelAt(reordered, 92, 42), kBlue);  // where only the lower one reaches
  above->removeFromSuperlayer();
  EXPECT_EQ(pixelAt(renderLayer(*root, {100, 100}, 0.0), 92, 42), kWhite);

  // Rendering at twice the size doubles everything, borders included.
  const Image doubled = renderLayer(*root, {200, 200}, 0.0);
  EXPECT_EQ(pixelAt(doubled, 27, 60), kRed);
  EXPECT_EQ(pixelAt(doubled, 28, 60), kYellow);
}

TEST(RenderTest, MasksClipSublayersAndHiddenLayersVanishWithTheirSublayers) {
  auto root = Layer::layer();
  root->setFrame({0, 0, 100, 60});
  root->setBackgroundColor(Color::whiteColor());
  auto parent = Layer::layer();
  parent->setFrame({10, 10, 30, 30});
  parent->setBackgroundColor(Color::greenColor());
  auto overhang = Layer::layer();
  overhang->setFrame({20, 20, 30, 30});  // reaches 20 past the parent's corner
  overhang->setBackgroundColor(Color::redColor());
  parent->addSublayer(overhang);
  root->addSublayer(parent);

  const Image open = renderLayer(*root, {100, 60}, 0.0);
  EXPECT_EQ(pixelAt(open, 45, 45), kRed);
  parent->setMasksToBounds(true);
  const Image masked = renderLayer(*root, {100, 60}, 0.0);
  savePng(masked, "render_masks");
  EXPECT_EQ(pixelAt(masked, 45, 45), kWhite);
  EXPECT_EQ(pixelAt(masked, 39, 39), kRed);
  EXPECT_EQ(pixelAt(masked, 40, 40), kWhite);
  EXPECT_EQ(pixelAt(masked, 29, 29), kGreen);

  overhang->setHidden(true);
  EXPECT_EQ(pixelAt(renderLayer(*root, {100, 60}, 0.0), 35, 35), kGreen);
  overhang->setHidden(false);
  parent->setHidden(true);
  const Image hidden = renderLayer(*root, {100, 60}, 0.0);
  EXPECT_EQ(pixelAt(hidden, 35, 35), kWhite);
  EXPECT_EQ(pixelAt(hidden, 20, 20), kWhite);
  root->setHidden(true);
  EXPECT_EQ(pixelAt(renderLayer(*root, {100, 60}, 0.0), 50, 30), kClear);
}

TEST(RenderTest, ShapeLayersStrokeLinesAndArcs) {
  auto root = Layer::layer();
  root->setFrame({0, 0, 100, 100});
  root->setBackgroundColor(Color::whiteColor());
  auto shape = ShapeLayer::layer();  // zero frame: the path is in the parent's points
  Path path;
  path.moveTo({10, 20});
  path.addLineTo({90, 20});
  path.addArc({50, 60}, 25, 0, M_PI, false);  // the lower half, clockwise on screen
  shape->setPath(path);
  shape->setFillColor(std::nullopt);
  shape->setStrokeColor(Color::blueColor());
  shape->setLineWidth(4);
  root->addSublayer(shape);

  const Image image = renderLayer(*root, {100, 100}, 0.0);
  savePng(image, "render_shape");
  EXPECT_EQ(pixelAt(image, 50, 20), kBlue);  // the line, 4 wide about y 20
  EXPECT_EQ(pixelAt(image, 50, 18), kBlue);
  EXPECT_EQ(pixelAt(image, 50, 23), kWhite);
  EXPECT_EQ(pixelAt(image, 50, 85), kBlue);   // the arc's lowest point
  EXPECT_EQ(pixelAt(image, 50, 35), kWhite);  // the upper half is not drawn
  EXPECT_EQ(pixelAt(image, 50, 60), kWhite);  // unfilled
  // The joining line from (90, 20) to the arc's start (75, 60) is drawn too.
  EXPECT_EQ(pixelAt(image, 82, 40), kBlue);

  shape->setFillColor(Color::redColor());
  shape->setStrokeColor(std::nullopt);
  EXPECT_EQ(pixelAt(renderLayer(*root, {100, 100}, 0.0), 50, 70), kRed);
  // The other way round the arc takes the upper half.
  Path upper;
  upper.addArc({50, 60}, 25, 0, M_PI, true);
  shape->setPath(upper);
  shape->setFillColor(std::nullopt);
  shape->setStrokeColor(Color::blueColor());
  const Image flipped = renderLayer(*root, {100, 100}, 0.0);
  EXPECT_EQ(pixelAt(flipped, 50, 35), kBlue);
  EXPECT_EQ(pixelAt(flipped, 50, 85), kWhite);
}

// Columns of row `y` that are green.
int greenWidth(const Image& image, size_t y) {
  int n = 0;
  for (size_t x = 0; x < image.width(); ++x) n += pixelAt(image, x, y).g > 128;
  return n;
}

TEST(RenderTest, FlipAnimationTurnsTheLayerEdgeOnAndBack) {
  auto root = Layer::layer();
  root->setFrame({0, 0, 100, 60});
  auto card = Layer::layer();
  card->setFrame({20, 10, 60, 40});
  card->setBackgroundColor(Color::greenColor());
  root->addSublayer(card);
  auto flip = BasicAnimation::animationWithKeyPath("transform");
  flip.toValue = Transform3D::makeRotation(M_PI / 2, 0, 1, 0);
  flip.duration = 0.1;
  flip.autoreverses = true;
  card->addAnimation(flip, "transform");
  const double begin = std::chrono::duration<double>(
                           card->animationForKey("transform")->beginTime.time_since_epoch())
                           .count();

  EXPECT_EQ(greenWidth(renderLayer(*root, {100, 60}, begin - 0.01), 30), 60);  // not begun
  const Image quarter = renderLayer(*root, {100, 60}, begin + 0.05);
  const Image edgeOn = renderLayer(*root, {100, 60}, begin + 0.1);
  const Image back = renderLayer(*root, {100, 60}, begin + 0.15);
  savePng(quarter, "render_flip_quarter");
  savePng(edgeOn, "render_flip_edge_on");
  // Half way out the layer has turned an eighth: cos(pi/4) of its width, about its centre.
  EXPECT_NEAR(greenWidth(quarter, 30), 60 * std::cos(M_PI / 4), 1.5);
  EXPECT_GT(pixelAt(quarter, 50, 30).g, 128);
  EXPECT_EQ(pixelAt(quarter, 22, 30), kClear);
  EXPECT_EQ(greenWidth(edgeOn, 30), 0);  // edge-on: nothing left to see
  EXPECT_EQ(greenWidth(back, 30), greenWidth(quarter, 30));
  EXPECT_EQ(greenWidth(renderLayer(*root, {100, 60}, begin + 0.2001), 30), 60);  // over
  EXPECT_TRUE(card->transform().isIdentity());  // the model value never changed
}

class DiscView : public View {
 public:
  static std::shared_ptr<DiscView> create(Rect frame) {
    return std::shared_ptr<DiscView>(new DiscView(frame));
  }
  int draws = 0;

 protected:
  explicit DiscView(Rect frame) : View(frame) {}
  void draw(Rect rect, GraphicsContext& context) override {
    ++draws;
    context.setFillColor(Color::redColor());
    context.fillEllipseInRect(rect);
    context.setStrokeColor(Color::blueColor());
    context.setLineWidth(2);
    context.strokeRect(rect.insetBy(1, 1));
  }
};

TEST(ViewRenderTest, ViewsDrawOnTheMainQueueAndNestTheirLayers) {
  auto window = View::create({0, 0, 120, 80});
  window->layer()->setBackgroundColor(Color::whiteColor());
  auto disc = DiscView::create({10, 10, 40, 40});
  auto cover = View::create({40, 10, 40, 40});
  cover->layer()->setBackgroundColor(Color::greenColor());
  window->addSubview(cover);
  window->insertSubview(disc, 0);  // below the cover
  ASSERT_EQ(window->layer()->sublayers().size(), 2u);
  EXPECT_EQ(window->layer()->sublayers()[0], disc->layer());
  EXPECT_EQ(disc->superview(), window);

  disc->setNeedsDisplay();
  disc->setNeedsDisplay();
  EXPECT_EQ(disc->draws, 0);  // not inside the call
  ASSERT_TRUE(test::pumpMainContextUntil([&] { return !disc->needsDisplay(); }));
  test::drainMainContext();
  EXPECT_EQ(disc->draws, 1);  // two requests, one draw

  const Image image = renderView(*window, {120, 80}, currentMediaTime());
  savePng(image, "render_views");
  EXPECT_EQ(pixelAt(image, 30, 30), kRed);    // the disc's middle
  EXPECT_EQ(pixelAt(image, 12, 12), kWhite);  // its corner, outside the ellipse
  EXPECT_EQ(pixelAt(image, 10, 30), kBlue);   // its frame line
  EXPECT_EQ(pixelAt(image, 45, 30), kGreen);  // the cover above it

  disc->removeFromSuperview();
  EXPECT_EQ(disc->superview(), nullptr);
  EXPECT_EQ(window->layer()->sublayers().size(), 1u);
  EXPECT_EQ(pixelAt(renderView(*window, {120, 80}, 0.0), 30, 30), kWhite);
  cover->setHidden(true);
  EXPECT_EQ(pixelAt(renderView(*window, {120, 80}, 0.0), 45, 30), kWhite);
  window->addSubview(window);  // refused: no cycles
  EXPECT_EQ(window->subviews().size(), 1u);
}

TEST(RenderTest, BadInputDrawsNothingAndNeverCrashes) {
  auto root = Layer::layer();
  root->setFrame({0, 0, 50, 50});
  EXPECT_TRUE(renderLayer(*root, {0, 10}, 0.0).isNull());
  EXPECT_TRUE(renderLayer(*root, {NAN, 10}, 0.0).isNull());
  EXPECT_TRUE(renderLayer(*root, {1e9, 10}, 0.0).isNull());

  const double nan = std::nan("");
  auto odd = ShapeLayer::layer();
  odd->setFrame({nan, 0, 10, 10});
  root->addSublayer(odd);
  auto huge = Layer::layer();
  huge->setFrame({-1e300, -1e300, 1e300, 1e300});
  huge->setBorderWidth(1e300);
  huge->setBackgroundColor(Color{nan, 2, -1, nan});
  root->addSublayer(huge);
  auto over = ShapeLayer::layer();
  Path wild;
  wild.moveTo({nan, 1});
  wild.addLineTo({1e200, 3});
  wild.addArc({10, 10}, -5, 0, 1, false);
  wild.addArc({10, 10}, 1e-9, 0, 1e9, false);
  over->setPath(wild);
  over->setLineWidth(nan);
  over->setStrokeColor(Color::redColor());
  root->addSublayer(over);
  auto singular = Layer::layer();
  singular->setFrame({0, 0, 10, 10});
  Transform3D t;
  t.m[0][0] = nan;
  singular->setTransform(t);
  root->addSublayer(singular);
  // Deeply nested layers are cut off rather than exhausting the stack.
  auto chain = Layer::layer();
  root->addSublayer(chain);
  for (int i = 0; i < 5000; ++i) {
    auto next = Layer::layer();
    chain->addSublayer(next);
    chain = next;
  }
  const Image image = renderLayer(*root, {50, 50}, 0.0);
  ASSERT_FALSE(image.isNull());
  EXPECT_EQ(image.width(), 50u);

  GraphicsContext invalid({-1, 5});
  EXPECT_FALSE(invalid.isValid());
  invalid.fillRect({0, 0, 1, 1});
  EXPECT_TRUE(invalid.takeImage().isNull());
}

}  // namespace
}  // namespace kwq

// The engine's metadata step with scripted faces and codes: which face is chosen, the angles it
// passes on, the centre box's verdict and when its colour lands, the face box's life, and the
// code text, outline and rectangle. Objects go through the real preview-layer transform: a back
// camera (not mirrored) under gravity Resize on a 1024 x 512 preview, so a normalised x maps
// to 1024 x and y to 512 y exactly.

#include <gtest/gtest.h>

#include "../platform/ui/render_test_support.h"
#include "kwqimage/KWQVideoHelper.h"
#include "kwqimage/Render.h"
#include "support/main_loop.h"

namespace kwq {
namespace {

using test::drainMainContext;

std::shared_ptr<MetadataFaceObject> face(Rect bounds, int64_t id = 1, bool hasYaw = true,
                                         double yaw = 0.0, double roll = 0.0) {
  auto f = std::make_shared<MetadataFaceObject>();
  f->type = AVMetadataObjectTypeFace;
  f->bounds = bounds;
  f->faceID = id;
  f->hasYawAngle = hasYaw;
  f->yawAngle = yaw;
  f->hasRollAngle = true;
  f->rollAngle = roll;
  return f;
}

// A code with corners given in preview points (converted to normalised frame coordinates).
std::shared_ptr<MetadataMachineReadableCodeObject> code(std::optional<std::string> text,
                                                        std::vector<Point> pointCorners = {}) {
  auto c = std::make_shared<MetadataMachineReadableCodeObject>();
  c->type = AVMetadataObjectTypePDF417Code;
  c->stringValue = std::move(text);
  for (Point p : pointCorners) c->corners.push_back({p.x / 1024.0, p.y / 512.0});
  c->bounds = {0.1, 0.1, 0.2, 0.1};
  return c;
}

class MetadataCallbackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CaptureDevice::setDevices({CaptureDevice::syntheticCamera({})});  // a back camera, 1280x720
    engine = KWQVideoHelper::create(AVCaptureSessionPresetHigh, AVCaptureDevicePositionBack,
                                    AVLayerVideoGravityResize, kPixelFormat420f);
    ASSERT_NE(engine, nullptr);
    engine->previewLayer()->setFrame({0, 0, 1024, 512});
    output = engine->metaOutput();
    ASSERT_NE(output, nullptr);
    connection = output->connectionWithMediaType(AVMediaTypeMetadata);
    ASSERT_NE(connection, nullptr);
    drainMainContext();
  }
  void TearDown() override {
    drainMainContext();
    CaptureDevice::resetDevices();
  }
  void deliver(MetadataObjects objects) { engine->captureOutput(*output, objects, *connection); }
  Color centerColor() const { return engine->centerLayer()->borderColor(); }

  std::shared_ptr<KWQVideoHelper> engine;
  std::shared_ptr<MetadataOutput> output;
  std::shared_ptr<CaptureConnection> connection;
};

TEST_F(MetadataCallbackTest, WidestFaceWinsFirstAmongEqualsNeverZeroWidth) {
  deliver({face({0.125, 0.125, 0.25, 0.25}, 1), face({0.5, 0.125, 0.375, 0.25}, 2)});
  EXPECT_EQ(engine->faceRect(), (Rect{512, 64, 384, 128}));
  deliver({face({0.5, 0.125, 0.375, 0.25}, 2), face({0.125, 0.125, 0.25, 0.25}, 1)});
  EXPECT_EQ(engine->faceRect(), (Rect{512, 64, 384, 128}));

  deliver({face({0.25, 0.5, 0.25, 0.25}, 1), face({0.5, 0.25, 0.25, 0.25}, 2)});
  EXPECT_EQ(engine->faceRect(), (Rect{256, 256, 256, 128}));

  // Zero width is never chosen: the callback counts as one without a face.
  engine->setYawAngle(45.0);
  deliver({face({0.5, 0.5, 0.0, 0.2}, 3)});
  EXPECT_EQ(engine->faceRect(), Rect::zero());
  EXPECT_EQ(engine->yawAngle(), 45.0);
}

TEST_F(MetadataCallbackTest, NoFaceQueuesRedAndTouchesNothingElse) {
  engine->setShowCenterBox(true);
  engine->setMinHeadSize(10, 1000);
  deliver({face({0.25, 0.25, 0.25, 0.25}, 7, true, 0.0, 0.0)});
  drainMainContext();
  ASSERT_TRUE(engine->isHeadCentered());
  ASSERT_EQ(centerColor(), Color::greenColor());
  const auto box = engine->primaryLayer();
  ASSERT_NE(box, nullptr);

  // Only codes: no face.
  deliver({code("A")});
  EXPECT_EQ(engine->faceRect(), Rect::zero());
  EXPECT_EQ(centerColor(), Color::greenColor()) << "the red is queued, not immediate";
  drainMainContext();
  EXPECT_EQ(centerColor(), Color::redColor());
  EXPECT_TRUE(engine->isHeadCentered());
  EXPECT_TRUE(engine->hasYawAngle());
  EXPECT_EQ(engine->primaryLayer(), box);

  // The no-face path does not consult showCenterBox.
  engine->setShowCenterBox(false);
  engine->centerLayer()->setBorderColor(Color::blueColor());
  deliver({});
  drainMainContext();
  EXPECT_EQ(centerColor(), Color::redColor());
}

TEST_F(MetadataCallbackTest, CentringBoxBoundsAreExclusiveAndMustContainTheFace) {
  engine->setShowCenterBox(true);
  // R = (256, 128, 256, 128); the box is (30, 50, 964, 412).
  const Rect bounds{0.25, 0.25, 0.25, 0.25};
  struct Case {
    double min, max;
    Color expected;
  } cases[] = {{255.9, 256.1, Color::greenColor()},
               {256.0, 300.0, Color::redColor()},
               {200.0, 256.0, Color::redColor()}};
  for (const Case& c : cases) {
    engine->setMinHeadSize(c.min, c.max);
    deliver({face(bounds)});
    drainMainContext();
    EXPECT_EQ(engine->centerLayer()->frame(), (Rect{30, 50, 964, 412}));
    EXPECT_EQ(centerColor(), c.expected) << c.min << " " << c.max;
    EXPECT_EQ(engine->isHeadCentered(), c.expected == Color::greenColor());
  }

  // A face reaching past the box's edge by a point is not inside it; one on the edge is.
  engine->setMinHeadSize(1, 1000);
  deliver({face({29.0 / 1024, 0.25, 0.25, 0.25})});
  drainMainContext();
  EXPECT_EQ(centerColor(), Color::redColor());
  deliver({face({30.0 / 1024, 0.25, 0.25, 0.25})});
  drainMainContext();
  EXPECT_EQ(centerColor(), Color::greenColor());

  // Off: the box is neither moved nor coloured by faces, and the verdict keeps its value.
  engine->setShowCenterBox(false);
  engine->centerLayer()->setFrame({1, 2, 3, 4});
  engine->setMinHeadSize(1000, 2000);
  deliver({face(bounds)});
  drainMainContext();
  EXPECT_EQ(engine->centerLayer()->frame(), (Rect{1, 2, 3, 4}));
  EXPECT_EQ(centerColor(), Color::greenColor());
  EXPECT_TRUE(engine->isHeadCentered());
}

TEST_F(MetadataCallbackTest, AnglesCopiedWithRollFlagMirroringYawAndFailingAtOnce) {
  engine->setShowCenterBox(true);
  engine->setMinHeadSize(10, 1000);
  const Rect bounds{0.25, 0.25, 0.25, 0.25};

  // Green is queued; a rolled face in the next callback turns the box red at once, and the
  // queued green from before then overwrites it.
  deliver({face(bounds)});
  deliver({face(bounds, 1, true, 0.0, 30.0)});
  EXPECT_EQ(centerColor(), Color::redColor());
  EXPECT_FALSE(engine->isHeadCentered());
  EXPECT_TRUE(engine->hasRollAngle());
  EXPECT_EQ(engine->rollAngle(), 30.0);
  drainMainContext();
  EXPECT_EQ(centerColor(), Color::greenColor());

  // Without a yaw angle the roll is carried but never tested: both flags read false.
  engine->centerLayer()->setBorderColor(Color::blueColor());
  deliver({face(bounds, 1, false, 0.0, 30.0)});
  EXPECT_FALSE(engine->hasRollAngle());
  EXPECT_FALSE(engine->hasYawAngle());
  EXPECT_EQ(engine->rollAngle(), 30.0);
  EXPECT_TRUE(engine->isHeadCentered());
  drainMainContext();
  EXPECT_EQ(centerColor(), Color::greenColor());

  // A turned head fails at once too.
  deliver({face(bounds, 1, true, 315.0, 0.0)});
  EXPECT_EQ(centerColor(), Color::redColor());
  EXPECT_EQ(engine->yawAngle(), 315.0);

  // clearFaceData forgets only the rectangle.
  engine->clearFaceData();
  EXPECT_EQ(engine->faceRect(), Rect::zero());
  EXPECT_EQ(engine->yawAngle(), 315.0);
  EXPECT_TRUE(engine->hasYawAngle());
}

TEST_F(MetadataCallbackTest, FaceBoxMadeOnceAttachedThenPlacedAndOnlyDetachedWhenOff) {
  ASSERT_TRUE(engine->showFaceBoundingBox());
  deliver({face({0.25, 0.25, 0.25, 0.25}, 4)});
  const auto box = engine->primaryLayer();
  ASSERT_NE(box, nullptr);
  EXPECT_EQ(box->borderWidth(), 1.0);
  EXPECT_EQ(box->borderColor().red, 0.8823529481887817);
  EXPECT_EQ(box->borderColor().green, 0.7882353067398071);
  EXPECT_EQ(box->borderColor().blue, 0.054901961237192154);
  EXPECT_EQ(box->superlayer(), nullptr) << "attached on the main queue";
  drainMainContext();
  EXPECT_EQ(box->superlayer(), engine->previewLayer());
  EXPECT_EQ(box->frame(), (Rect{256, 128, 256, 128}));

  // Another face moves the same box; the map keeps the box under the first face's number.
  deliver({face({0.5, 0.5, 0.25, 0.25}, 9)});
  drainMainContext();
  EXPECT_EQ(engine->primaryLayer(), box);
  EXPECT_EQ(box->frame(), (Rect{512, 256, 256, 128}));
  EXPECT_EQ(engine->avfFaceLayers().size(), 1u);
  EXPECT_EQ(engine->avfFaceLayers().at(4), box);

  // Off: detached, kept. On again while kept: not re-attached.
  engine->setShowFaceBoundingBox(false);
  deliver({face({0.5, 0.5, 0.25, 0.25}, 9)});
  drainMainContext();
  EXPECT_EQ(box->superlayer(), nullptr);
  EXPECT_EQ(engine->primaryLayer(), box);
  engine->setShowFaceBoundingBox(true);
  deliver({face({0.5, 0.5, 0.25, 0.25}, 9)});
  drainMainContext();
  EXPECT_EQ(box->superlayer(), nullptr);

  // Once the box is dropped, the next face gets a fresh one, stored under its number.
  engine->setPrimaryLayer(nullptr);
  deliver({face({0.5, 0.5, 0.25, 0.25}, 9)});
  drainMainContext();
  ASSERT_NE(engine->primaryLayer(), nullptr);
  EXPECT_NE(engine->primaryLayer(), box);
  EXPECT_EQ(engine->primaryLayer()->superlayer(), engine->previewLayer());
  EXPECT_EQ(engine->avfFaceLayers().size(), 2u);
  EXPECT_EQ(engine->avfFaceLayers().at(9), engine->primaryLayer());
}

TEST_F(MetadataCallbackTest, NoTransformGivesZeroRectangleAndNoAngles) {
  engine->setShowCenterBox(true);
  engine->setMinHeadSize(10, 1000);
  engine->previewLayer()->setSession(nullptr);
  deliver({face({0.25, 0.25, 0.25, 0.25}, 1, true, 45.0, 30.0)});
  EXPECT_EQ(engine->faceRect(), Rect::zero());
  EXPECT_EQ(engine->yawAngle(), 0.0);
  EXPECT_EQ(engine->rollAngle(), 0.0);
  EXPECT_FALSE(engine->hasYawAngle());
  EXPECT_FALSE(engine->hasRollAngle());
  EXPECT_FALSE(engine->isHeadCentered());
}

TEST_F(MetadataCallbackTest, CodeTextOutlineAndRectangleFromCornersAsTheyStand) {
  auto line = ShapeLayer::layer();
  engine->previewLayer()->addSublayer(line);
  engine->setBarcodeLineLayer(line);
  const std::vector<Point> corners{{10, 40}, {60, 40}, {60, 10}, {10, 10}};

  deliver({code("first", corners)});
  EXPECT_EQ(engine->parsedData(), "first");
  EXPECT_EQ(engine->barcodeRect(), (Rect{10, 10, 50, 30}));
  // Four separate segments: P3-P2, P3-P0, P0-P1, P2-P1.
  const std::vector<std::vector<Point>> expected{
      {{10, 10}, {60, 10}}, {{10, 10}, {10, 40}}, {{10, 40}, {60, 40}}, {{60, 10}, {60, 40}}};
  EXPECT_EQ(line->path().subpaths, expected);

  // A code turned half round gives negative sizes, kept as they fall.
  deliver({code("turned", {{60, 10}, {10, 10}, {10, 40}, {60, 40}})});
  EXPECT_EQ(engine->barcodeRect(), (Rect{60, 40, -50, -30}));

  // Two codes: the last wins. Undecodable text is none. Three corners: text only.
  deliver({code("a", corners), code(std::nullopt, corners)});
  EXPECT_EQ(engine->parsedData(), std::nullopt);
  deliver({code("three", {{1, 1}, {2, 2}, {3, 3}})});
  EXPECT_EQ(engine->parsedData(), "three");
  EXPECT_EQ(engine->barcodeRect(), Rect::zero());
  EXPECT_EQ(line->path().subpaths, expected) << "outline left as it was";

  // A callback without a code keeps the text but not the rectangle.
  deliver({code("b", corners)});
  deliver({face({0.25, 0.25, 0.25, 0.25})});
  EXPECT_EQ(engine->parsedData(), "b");
  EXPECT_EQ(engine->barcodeRect(), Rect::zero());

  // Outline off: text only.
  engine->setShowBarcodeBoundingBox(false);
  deliver({code("c", corners)});
  EXPECT_EQ(engine->parsedData(), "c");
  EXPECT_EQ(engine->barcodeRect(), Rect::zero());
  engine->setShowBarcodeBoundingBox(true);

  // The host's clear: empty text (not none), the layer gone; later codes are not outlined.
  engine->clearBarcodeData();
  EXPECT_EQ(engine->parsedData(), std::string());
  EXPECT_EQ(engine->barcodeLineLayer(), nullptr);
  EXPECT_EQ(line->superlayer(), nullptr);
  const Path before = line->path();
  deliver({code("d", {{0, 0}, {5, 0}, {5, 5}, {0, 5}})});
  EXPECT_EQ(engine->parsedData(), "d");
  EXPECT_EQ(engine->barcodeRect(), (Rect{0, 5, 5, -5}));
  EXPECT_EQ(line->path(), before);
}

TEST_F(MetadataCallbackTest, OverlaysRenderWhereTheMetadataPutsThem) {
  // A host's view of the preview at the preview's own size, with the centre box and an
  // outline layer of its own.
  const auto view = engine->getPreviewView({0, 0, 1024, 512}, true);
  auto line = ShapeLayer::layer();
  line->setFillColor(std::nullopt);
  line->setStrokeColor(Color::blueColor());
  line->setLineWidth(2.0);
  engine->previewLayer()->addSublayer(line);
  engine->setBarcodeLineLayer(line);
  engine->setMinHeadSize(10, 1000);
  deliver({face({0.25, 0.25, 0.25, 0.25}),
           code("c", {{600, 400}, {900, 400}, {900, 300}, {600, 300}})});
  drainMainContext();
  const Image picture = renderView(*view, {1024, 512}, currentMediaTime());
  ASSERT_FALSE(picture.isNull());
  test::savePng(picture, "metadata_overlays");
  using test::Pixel;
  const Pixel yellow{225, 201, 14, 255}, green{0, 255, 0, 255}, blue{0, 0, 255, 255};
  // The face box: a one-point border inside R = (256, 128, 256, 128).
  EXPECT_TRUE(test::near(test::pixelAt(picture, 384, 128), yellow))
      << test::pixelAt(picture, 384, 128);
  EXPECT_TRUE(test::near(test::pixelAt(picture, 256, 192), yellow));
  EXPECT_TRUE(test::near(test::pixelAt(picture, 511, 192), yellow));
  EXPECT_FALSE(test::near(test::pixelAt(picture, 384, 192), yellow)) << "only the border";
  // The centre box: three points of green inside (30, 50, 964, 412).
  EXPECT_TRUE(test::near(test::pixelAt(picture, 31, 300), green));
  EXPECT_TRUE(test::near(test::pixelAt(picture, 500, 461), green));
  EXPECT_FALSE(test::near(test::pixelAt(picture, 34, 300), green));
  // The code's outline along its corners.
  EXPECT_TRUE(test::near(test::pixelAt(picture, 750, 300), blue))
      << test::pixelAt(picture, 750, 300);
  EXPECT_TRUE(test::near(test::pixelAt(picture, 600, 350), blue));
  EXPECT_TRUE(test::near(test::pixelAt(picture, 900, 350), blue));
  EXPECT_FALSE(test::near(test::pixelAt(picture, 750, 350), blue));
}

TEST(PointFromArray, ReadsTheEntryOrZeroPastTheEnd) {
  const std::vector<Point> points{{1, 2}, {3, 4}};
  EXPECT_EQ(KWQVideoHelper::pointFromArray(points, 1), (Point{3, 4}));
  EXPECT_EQ(KWQVideoHelper::pointFromArray(points, 2), Point::zero());
  EXPECT_EQ(KWQVideoHelper::pointFromArray({}, 0), Point::zero());
}

}  // namespace
}  // namespace kwq

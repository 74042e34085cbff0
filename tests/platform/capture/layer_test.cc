#include "kwqimage/Layer.h"

#include <cmath>

#include <gtest/gtest.h>

#include "capture_test_support.h"
#include "kwqimage/CaptureSession.h"

namespace kwq {
namespace {

TEST(LayerTest, TreeKeepsOneParentAndNoCycles) {
  auto root = Layer::layer(), a = Layer::layer(), b = Layer::layer();
  root->addSublayer(a);
  root->addSublayer(b);
  root->addSublayer(a);  // moves to the top
  ASSERT_EQ(root->sublayers().size(), 2u);
  EXPECT_EQ(root->sublayers()[1], a);
  b->addSublayer(a);  // taken from root
  EXPECT_EQ(a->superlayer(), b);
  EXPECT_EQ(root->sublayers().size(), 1u);
  a->addSublayer(root);  // root is a's ancestor: refused
  a->addSublayer(a);
  a->addSublayer(nullptr);
  EXPECT_TRUE(a->sublayers().empty());
  root->insertSublayer(a, 0);
  EXPECT_EQ(root->sublayers()[0], a);
  a->removeFromSuperlayer();
  a->removeFromSuperlayer();
  EXPECT_EQ(a->superlayer(), nullptr);
  b.reset();  // never held elsewhere: gone with its parent link
  auto child = Layer::layer();
  {
    auto parent = Layer::layer();
    parent->addSublayer(child);
  }
  EXPECT_EQ(child->superlayer(), nullptr);

  // A quarter turn about the vertical axis takes x into -z (the flip's direction).
  const auto r = Transform3D::makeRotation(M_PI / 2, 0, 1, 0);
  EXPECT_NEAR(r.m[0][2], -1.0, 1e-12);
  EXPECT_NEAR(r.m[2][0], 1.0, 1e-12);
  EXPECT_TRUE(Transform3D::makeRotation(1.0, 0, 0, 0).isIdentity());

  Path path;
  path.addLineTo({3, 4});
  path.moveTo({-1, 2});
  Path other;
  other.moveTo({5, -6});
  path.addPath(other);
  EXPECT_EQ(path.subpaths.size(), 3u);
  EXPECT_EQ(path.boundingBox(), (Rect{-1, -6, 6, 10}));
  EXPECT_TRUE(Path().boundingBox().isNull());
}

std::shared_ptr<MetadataFaceObject> face(Rect bounds, double roll, double yaw) {
  auto f = std::make_shared<MetadataFaceObject>();
  f->type = AVMetadataObjectTypeFace;
  f->bounds = bounds;
  f->hasRollAngle = f->hasYawAngle = true;
  f->rollAngle = roll;
  f->yawAngle = yaw;
  return f;
}

TEST(PreviewLayerTest, MetadataObjectsMoveIntoLayerPointsByGravity) {
  // A 640 x 480 video shown in a 320 x 480 layer.
  auto session = CaptureSession::create();
  session->setSessionPreset(AVCaptureSessionPreset640x480);
  auto preview = PreviewLayer::layerWithSession(session);
  preview->setFrame({0, 0, 320, 480});
  const auto f = face({0.5, 0.5, 0.25, 0.25}, 30, 45);
  EXPECT_EQ(preview->transformedMetadataObjectForMetadataObject(*f), nullptr);  // no camera
  session->addInput(CaptureDeviceInput::deviceInputWithDevice(test::syntheticCamera()));

  preview->setVideoGravity("no such gravity");
  EXPECT_EQ(preview->videoGravity(), AVLayerVideoGravityResizeAspect);
  auto aspect = preview->transformedMetadataObjectForMetadataObject(*f);
  ASSERT_NE(aspect, nullptr);
  EXPECT_EQ(aspect->bounds, (Rect{160, 240, 80, 60}));  // letterboxed at y 120
  preview->setVideoGravity(AVLayerVideoGravityResizeAspectFill);
  EXPECT_EQ(preview->transformedMetadataObjectForMetadataObject(*f)->bounds,
            (Rect{160, 240, 160, 120}));  // cropped at x -160
  preview->setVideoGravity(AVLayerVideoGravityResize);
  auto stretched = preview->transformedMetadataObjectForMetadataObject(*f);
  EXPECT_EQ(stretched->bounds, (Rect{160, 240, 80, 120}));
  // The back camera is not mirrored: angles as found.
  auto back = std::dynamic_pointer_cast<MetadataFaceObject>(stretched);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->rollAngle, 30);
  EXPECT_EQ(back->yawAngle, 45);

  MetadataMachineReadableCodeObject code;
  code.type = AVMetadataObjectTypePDF417Code;
  code.stringValue = "text";
  code.bounds = {0.25, 0.5, 0.5, 0.25};
  code.corners = {{0.25, 0.5}, {0.75, 0.5}, {0.75, 0.75}, {0.25, 0.75}};
  auto moved = std::dynamic_pointer_cast<MetadataMachineReadableCodeObject>(
      preview->transformedMetadataObjectForMetadataObject(code));
  ASSERT_NE(moved, nullptr);
  EXPECT_EQ(moved->stringValue, "text");
  EXPECT_EQ(moved->corners[2], (Point{240, 360}));

  // The front camera's picture is mirrored: boxes flip left to right, angles turn back.
  session->removeInput(session->inputs()[0]);
  session->addInput(CaptureDeviceInput::deviceInputWithDevice(
      test::syntheticCamera(AVCaptureDevicePositionFront)));
  EXPECT_TRUE(preview->isMirrored());
  auto mirrored = std::dynamic_pointer_cast<MetadataFaceObject>(
      preview->transformedMetadataObjectForMetadataObject(*face({0.1, 0.2, 0.3, 0.4}, 30, 0)));
  ASSERT_NE(mirrored, nullptr);
  EXPECT_NEAR(mirrored->bounds.origin.x, 0.6 * 320, 1e-9);
  EXPECT_NEAR(mirrored->bounds.size.width, 0.3 * 320, 1e-9);
  EXPECT_EQ(mirrored->rollAngle, 330);
  EXPECT_EQ(mirrored->yawAngle, 0);
}

}  // namespace
}  // namespace kwq

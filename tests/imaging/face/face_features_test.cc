#include "imaging/face/face_features.h"

#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "kwqimage/KWQImagingHelper.h"

namespace kwq {
namespace {

using platform::FaceAccuracy;
using platform::FaceDetectionOptions;
using platform::FaceFeature;

// Hands out scripted faces and remembers what it was asked.
class ScriptedDetector : public platform::FaceDetector {
 public:
  explicit ScriptedDetector(std::vector<FaceFeature> faces) : faces_(std::move(faces)) {}
  std::vector<FaceFeature> featuresInImage(const Image&,
                                           const FaceDetectionOptions& options) const override {
    ++calls;
    asked = options;
    if (throws) throw std::runtime_error("detector failed");
    return faces_;
  }
  mutable int calls = 0;
  mutable FaceDetectionOptions asked;
  bool throws = false;

 private:
  std::vector<FaceFeature> faces_;
};

// A square face in the detector's bottom-left coordinates.
FaceFeature face(double x, double y, double width, float angle = 0.0f) {
  FaceFeature f;
  f.bounds = Rect(x, y, width, width);
  f.faceAngle = angle;
  return f;
}

Image blank(size_t width = 640, size_t height = 480) {
  const uint8_t gray = 90;
  return Image::filled(PixelLayout::Gray8, width, height, &gray);
}

void expectEmpty(const KWQFaceFeatures& r) {
  EXPECT_EQ(r.faceRect, Rect::zero());
  EXPECT_EQ(r.leftEye, Point::zero());
  EXPECT_EQ(r.rightEye, Point::zero());
  EXPECT_EQ(r.mouth, Point::zero());
  EXPECT_EQ(r.featuresFound, 0);
  EXPECT_FALSE(r.hasSmile || r.leftEyeClosed || r.rightEyeClosed);
}

TEST(FaceFeatures, NoFaceNoBitmapOrAFailingDetectorGiveTheEmptyRecord) {
  ScriptedDetector none({});
  expectEmpty(face::faceFeatures(blank(), 1, none));
  // Without a bitmap there is nothing to look at: the detector is never asked.
  ScriptedDetector some({face(10, 10, 50)});
  expectEmpty(face::faceFeatures(Image(), 0, some));
  expectEmpty(face::faceFeatures(Image::withoutBitmap({100, 100}), 0, some));
  EXPECT_EQ(some.calls, 0);
  some.throws = true;
  expectEmpty(face::faceFeatures(blank(), 0, some));
  // The shared detector on images too small or without pixels, at any accuracy.
  for (const Image& image : {Image(), Image::withoutBitmap({50, 50}), blank(1, 1), blank(19, 300)})
    for (const int64_t accuracy : {int64_t{0}, INT64_MAX})
      expectEmpty(getKWQFaceFeaturesWithAccuracy(image, accuracy, true));
}

TEST(FaceFeatures, WidestFaceWinsButTheAngleIsTheLastEnumerated) {
  const FaceFeature narrow = face(0, 0, 80, 11.0f), wide = face(300, 0, 120, 22.0f);
  ScriptedDetector narrowFirst({narrow, wide}), wideFirst({wide, narrow});
  const KWQFaceFeatures a = face::faceFeatures(blank(), 0, narrowFirst);
  EXPECT_EQ(a.faceRect.size.width, 120);
  EXPECT_EQ(a.faceAngle, 22.0f);
  const KWQFaceFeatures b = face::faceFeatures(blank(), 0, wideFirst);
  EXPECT_EQ(b.faceRect.origin.x, 300);
  EXPECT_EQ(b.faceAngle, 11.0f);
  // Equal widths: the first face stays.
  ScriptedDetector tie({face(5, 0, 100), face(400, 0, 100)});
  EXPECT_EQ(face::faceFeatures(blank(), 0, tie).faceRect.origin.x, 5);
  // A face without features leaves featuresFound at 0.
  EXPECT_EQ(b.featuresFound, 0);
}

TEST(FaceFeatures, LargerFaceOverwritesOnlyWhatItHasInTopLeftCoordinates) {
  FaceFeature small = face(0, 0, 60);
  small.hasMouthPosition = small.hasSmile = true;
  small.mouthPosition = {30, 10};
  small.hasLeftEyePosition = small.leftEyeClosed = true;
  small.leftEyePosition = {20, 420};
  FaceFeature large = face(200, 100, 150);
  large.hasLeftEyePosition = true;
  large.leftEyePosition = {240, 262.5};
  large.rightEyeClosed = true;  // without a right eye: never read
  ScriptedDetector detector({small, large});
  const KWQFaceFeatures r = face::faceFeatures(blank(640, 480), 0, detector);
  // (x, y) becomes (x, 480 - y); the box's top edge is 480 - (100 + 150).
  EXPECT_EQ(r.faceRect, Rect(200, 230, 150, 150));
  EXPECT_EQ(r.leftEye, (Point{240, 217.5}));
  EXPECT_FALSE(r.leftEyeClosed);
  EXPECT_EQ(r.mouth, (Point{30, 470}));  // the small face's mouth and smile stay
  EXPECT_TRUE(r.hasSmile);
  EXPECT_EQ(r.rightEye, Point::zero());
  EXPECT_FALSE(r.rightEyeClosed);
  EXPECT_EQ(r.featuresFound, 1);
}

TEST(FaceFeatures, AccuracyZeroIsLowAnyOtherIsHighWithSmileAndBlink) {
  ScriptedDetector detector({});
  for (const int64_t accuracy : {int64_t{0}, int64_t{1}, int64_t{2}, int64_t{-1}, INT64_MIN}) {
    face::faceFeatures(blank(), accuracy, detector);
    EXPECT_EQ(detector.asked.accuracy, accuracy == 0 ? FaceAccuracy::Low : FaceAccuracy::High);
    EXPECT_TRUE(detector.asked.detectSmile && detector.asked.detectEyeBlink);
    EXPECT_FALSE(detector.asked.estimateAngles);
  }
}

}  // namespace
}  // namespace kwq

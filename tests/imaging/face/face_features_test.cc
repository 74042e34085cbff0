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

// A face in the detector's bottom-left coordinates.
FaceFeature face(double x, double y, double width, float angle) {
  FaceFeature f;
  f.bounds = Rect(x, y, width, width);
  f.faceAngle = angle;
  return f;
}

Image blank(size_t width = 640, size_t height = 480) {
  const uint8_t gray = 90;
  return Image::filled(PixelLayout::Gray8, width, height, &gray);
}

TEST(FaceFeatures, WithoutFacesOrBitmapTheRecordIsEmpty) {
  ScriptedDetector none({});
  const KWQFaceFeatures empty = face::faceFeatures(blank(), 1, none);
  EXPECT_EQ(empty.faceRect, Rect::zero());
  EXPECT_EQ(empty.leftEye, Point::zero());
  EXPECT_EQ(empty.rightEye, Point::zero());
  EXPECT_EQ(empty.mouth, Point::zero());
  EXPECT_EQ(empty.featuresFound, 0);
  EXPECT_FALSE(empty.hasSmile || empty.leftEyeClosed || empty.rightEyeClosed);

  // No bitmap means nothing to detect in: the detector is never asked.
  ScriptedDetector some({face(10, 10, 50, 3.0f)});
  for (const Image& image : {Image(), Image::withoutBitmap({100, 100})}) {
    const KWQFaceFeatures r = face::faceFeatures(image, 0, some);
    EXPECT_EQ(r.faceRect, Rect::zero());
    EXPECT_EQ(r.featuresFound, 0);
  }
  EXPECT_EQ(some.calls, 0);

  // A failing detector gives the empty record instead of an exception.
  some.throws = true;
  EXPECT_EQ(face::faceFeatures(blank(), 0, some).faceRect, Rect::zero());
}

TEST(FaceFeatures, DetectorCoordinatesAreFlippedToTopLeft) {
  FaceFeature f = face(100, 200, 80, 0.0f);
  f.hasLeftEyePosition = true;
  f.leftEyePosition = {120, 10};
  f.hasRightEyePosition = true;
  f.rightEyePosition = {160, 262.5};
  f.hasMouthPosition = true;
  f.mouthPosition = {140, 480};
  ScriptedDetector detector({f});
  const KWQFaceFeatures r = face::faceFeatures(blank(640, 480), 0, detector);
  // The box's top edge y = 480 - (200 + 80).
  EXPECT_EQ(r.faceRect, Rect(100, 200, 80, 80));
  EXPECT_EQ(r.leftEye, (Point{120, 470}));
  EXPECT_EQ(r.rightEye, (Point{160, 217.5}));
  EXPECT_EQ(r.mouth, (Point{140, 0}));
  EXPECT_EQ(r.featuresFound, 1);
}

TEST(FaceFeatures, WidestFaceWinsButTheAngleIsTheLastEnumerated) {
  const FaceFeature narrow = face(0, 0, 80, 11.0f), wide = face(300, 0, 120, 22.0f);
  ScriptedDetector narrowFirst({narrow, wide}), wideFirst({wide, narrow});
  const KWQFaceFeatures a = face::faceFeatures(blank(), 0, narrowFirst);
  EXPECT_EQ(a.faceRect.size.width, 120);
  EXPECT_EQ(a.faceAngle, 22.0f);
  const KWQFaceFeatures b = face::faceFeatures(blank(), 0, wideFirst);
  EXPECT_EQ(b.faceRect.size.width, 120);
  EXPECT_EQ(b.faceRect.origin.x, 300);
  EXPECT_EQ(b.faceAngle, 11.0f);

  // Equal widths: the first face stays.
  ScriptedDetector tie({face(5, 0, 100, 1.0f), face(400, 0, 100, 2.0f)});
  EXPECT_EQ(face::faceFeatures(blank(), 0, tie).faceRect.origin.x, 5);
}

TEST(FaceFeatures, LargerFaceOverwritesOnlyWhatItHas) {
  FaceFeature small = face(0, 0, 60, 0.0f);
  small.hasMouthPosition = true;
  small.mouthPosition = {30, 400};
  small.hasSmile = true;
  small.hasLeftEyePosition = true;
  small.leftEyePosition = {20, 420};
  small.leftEyeClosed = true;
  FaceFeature large = face(200, 100, 150, 0.0f);
  large.hasLeftEyePosition = true;
  large.leftEyePosition = {240, 200};
  large.leftEyeClosed = false;
  large.hasSmile = false;       // no mouth position: never read
  large.rightEyeClosed = true;  // no right eye: never read

  ScriptedDetector detector({small, large});
  const KWQFaceFeatures r = face::faceFeatures(blank(), 0, detector);
  EXPECT_EQ(r.faceRect, Rect(200, 480 - 250, 150, 150));
  EXPECT_EQ(r.leftEye, (Point{240, 280}));
  EXPECT_FALSE(r.leftEyeClosed);
  EXPECT_EQ(r.mouth, (Point{30, 80}));  // the small face's mouth is kept
  EXPECT_TRUE(r.hasSmile);
  EXPECT_EQ(r.rightEye, Point::zero());
  EXPECT_FALSE(r.rightEyeClosed);
  EXPECT_EQ(r.featuresFound, 1);

  // A face without any feature leaves featuresFound at 0.
  ScriptedDetector bare({face(0, 0, 60, 0.0f)});
  EXPECT_EQ(face::faceFeatures(blank(), 0, bare).featuresFound, 0);
}

TEST(FaceFeatures, AccuracyZeroIsLowAnyOtherIsHighWithSmileAndBlink) {
  ScriptedDetector detector({});
  for (const int64_t accuracy :
       {int64_t{0}, int64_t{1}, int64_t{2}, int64_t{-1}, INT64_MAX, INT64_MIN}) {
    face::faceFeatures(blank(), accuracy, detector);
    EXPECT_EQ(detector.asked.accuracy, accuracy == 0 ? FaceAccuracy::Low : FaceAccuracy::High)
        << accuracy;
    EXPECT_TRUE(detector.asked.detectSmile);
    EXPECT_TRUE(detector.asked.detectEyeBlink);
    EXPECT_FALSE(detector.asked.estimateAngles);
  }
}

TEST(FaceFeatures, PublicCallsSurviveBadImages) {
  for (const Image& image :
       {Image(), Image::withoutBitmap({50, 50}), blank(1, 1), blank(19, 300), blank(3000, 2)}) {
    for (const int64_t accuracy : {int64_t{0}, INT64_MAX}) {
      const KWQFaceFeatures r = getKWQFaceFeaturesWithAccuracy(image, accuracy, true);
      EXPECT_EQ(r.faceRect, Rect::zero());
      EXPECT_EQ(r.featuresFound, 0);
    }
  }
}

}  // namespace
}  // namespace kwq

#include "platform/vision/face_detector.h"

#include <cmath>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "support/face_video.h"
#include "support/test_support.h"

namespace kwq::platform {
namespace {

// A face with its box in top-left coordinates, as the tests reason about pictures.
struct Seen {
  cv::Rect2d box;
  FaceFeature raw;
  cv::Point2d centre() const { return {box.x + box.width / 2, box.y + box.height / 2}; }
};

std::vector<Seen> detect(const Image& image, FaceAccuracy accuracy, bool angles = false) {
  FaceDetectionOptions options{accuracy, true, true, angles};
  std::vector<Seen> out;
  const double h = static_cast<double>(image.height());
  for (const FaceFeature& f : sharedFaceDetector()->featuresInImage(image, options)) {
    const Rect& b = f.bounds;
    out.push_back({{b.origin.x, h - b.maxY(), b.size.width, b.size.height}, f});
  }
  return out;
}

const Seen* faceAt(const std::vector<Seen>& faces, cv::Point2d where) {
  for (const Seen& s : faces)
    if (s.box.contains(where)) return &s;
  return nullptr;
}

Image fromBGR(const cv::Mat& bgr) {
  cv::Mat rgb;
  cv::cvtColor(bgr, rgb, cv::COLOR_BGR2RGB);
  return Image::copyFromBytes(PixelLayout::RGB24, static_cast<size_t>(rgb.cols),
                              static_cast<size_t>(rgb.rows), rgb.step[0], rgb.data);
}

const std::vector<cv::Mat>& megamind() {
  return test::megamindFrames(test::samplePath("Megamind.avi"));
}

Image frame(size_t index) {
  EXPECT_GT(megamind().size(), index) << "Megamind.avi missing (Debian package opencv-doc)";
  return index < megamind().size() ? fromBGR(megamind()[index]) : Image();
}

TEST(FaceDetector, FindsFacesWhereTheyAreWithFeaturesInPlace) {
  // Face centres and widths read off the pictures: the player in messi5.jpg (548 x 342), the
  // close-up in frame 200, the man in glasses in frame 100, the woman in frame 10 (720 x 528).
  const struct {
    Image image;
    FaceAccuracy accuracy;
    cv::Point2d centre;
    double minWidth, maxWidth;
  } cases[] = {{test::loadSample("messi5.jpg"), FaceAccuracy::Low, {245, 112}, 25, 80},
               {test::loadSample("messi5.jpg"), FaceAccuracy::High, {245, 112}, 25, 80},
               {frame(200), FaceAccuracy::High, {395, 240}, 200, 420},
               {frame(100), FaceAccuracy::High, {480, 200}, 100, 230},
               {frame(10), FaceAccuracy::High, {340, 270}, 100, 230}};
  for (const auto& c : cases) {
    const std::vector<Seen> faces = detect(c.image, c.accuracy);
    const Seen* face = faceAt(faces, c.centre);
    ASSERT_NE(face, nullptr) << c.centre;
    EXPECT_GT(face->box.width, c.minWidth);
    EXPECT_LT(face->box.width, c.maxWidth);
    const FaceFeature& f = face->raw;
    ASSERT_TRUE(f.hasLeftEyePosition && f.hasRightEyePosition) << c.centre;
    EXPECT_LT(f.leftEyePosition.x, f.rightEyePosition.x);
    EXPECT_LT(std::abs(f.faceAngle), 25.0f);
    // Eyes inside the upper half of the box (y up: above its middle), mouth below it.
    const double h = static_cast<double>(c.image.height()), mid = h - face->centre().y;
    for (const Point& eye : {f.leftEyePosition, f.rightEyePosition}) {
      EXPECT_TRUE(face->box.contains({eye.x, h - eye.y})) << c.centre;
      EXPECT_GT(eye.y, mid);
    }
    if (f.hasMouthPosition) EXPECT_LT(f.mouthPosition.y, mid);
    EXPECT_FALSE(f.hasYawAngle || f.hasRollAngle);  // only when asked
  }
}

TEST(FaceDetector, FindsNoFaceWhereThereIsNone) {
  for (const char* name : {"building.jpg", "home.jpg", "fruits.jpg", "board.jpg", "baboon.jpg"}) {
    const Image image = test::loadSample(name);
    EXPECT_TRUE(detect(image, FaceAccuracy::Low).empty()) << name;
    EXPECT_TRUE(detect(image, FaceAccuracy::High).empty()) << name;
  }
  EXPECT_TRUE(detect(frame(0), FaceAccuracy::High).empty());  // a black frame
  const uint8_t gray[3] = {100, 100, 100};
  for (const Image& bad :
       {Image(), Image::withoutBitmap({640, 480}), Image::filled(PixelLayout::Gray8, 19, 19, gray),
        Image::filled(PixelLayout::RGB24, 20, 5000, gray),
        Image::filled(PixelLayout::Gray8, 100000, 21, gray)})
    EXPECT_TRUE(detect(bad, FaceAccuracy::High, true).empty());
}

TEST(FaceDetector, HighAccuracyFindsWhatLowFinds) {
  std::vector<Image> images{test::loadSample("messi5.jpg")};
  for (size_t i = 10; i < megamind().size(); i += 30) images.push_back(frame(i));
  size_t lowFaces = 0;
  for (const Image& image : images) {
    const std::vector<Seen> high = detect(image, FaceAccuracy::High);
    for (const Seen& low : detect(image, FaceAccuracy::Low)) {
      ++lowFaces;
      EXPECT_NE(faceAt(high, low.centre()), nullptr) << "low face " << low.box << " missing";
    }
  }
  EXPECT_GE(lowFaces, 5u);
}

TEST(FaceDetector, EveryPixelLayoutAndManyThreadsGiveTheSameFace) {
  const Image photo = test::loadSample("messi5.jpg");
  const std::vector<Seen> rgb = detect(photo, FaceAccuracy::High);
  ASSERT_EQ(rgb.size(), 1u);
  for (const PixelLayout layout :
       {PixelLayout::Gray8, PixelLayout::RGBA32, PixelLayout::BGRA32Premultiplied}) {
    const std::vector<Seen> other = detect(photo.converted(layout), FaceAccuracy::High);
    ASSERT_EQ(other.size(), 1u) << static_cast<int>(layout);
    EXPECT_NEAR(other[0].box.x, rgb[0].box.x, 3);
    EXPECT_NEAR(other[0].box.width, rgb[0].box.width, 3);
  }
  std::vector<std::vector<Seen>> results(4);
  std::vector<std::thread> threads;
  for (auto& r : results)
    threads.emplace_back([&photo, &r] { r = detect(photo, FaceAccuracy::High); });
  for (auto& t : threads) t.join();
  for (const auto& r : results) {
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].box, rgb[0].box);
  }
}

TEST(FaceDetector, EstimatesRollInThirtyDegreeStepsAndFrontalYaw) {
  for (const size_t index : {200, 240}) {
    for (const double tilt : {0.0, 30.0, -30.0}) {
      // Turn the frame clockwise as seen by `tilt`; the close-ups are centred near (395, 240).
      const cv::Mat m = cv::getRotationMatrix2D(cv::Point2f(360, 264), -tilt, 1.0);
      const cv::Matx23d t(m);
      const cv::Point2d centre(t(0, 0) * 395 + t(0, 1) * 240 + t(0, 2),
                               t(1, 0) * 395 + t(1, 1) * 240 + t(1, 2));
      cv::Mat turned;
      cv::warpAffine(megamind().at(index), turned, m, {720, 528}, cv::INTER_LINEAR,
                     cv::BORDER_REPLICATE);
      const std::vector<Seen> faces = detect(fromBGR(turned), FaceAccuracy::Low, true);
      const Seen* face = faceAt(faces, centre);
      ASSERT_NE(face, nullptr) << "frame " << index << " turned " << tilt;
      EXPECT_TRUE(face->raw.hasRollAngle && face->raw.hasYawAngle);
      EXPECT_EQ(face->raw.rollAngle, std::fmod(tilt + 360.0, 360.0)) << index;
      EXPECT_EQ(face->raw.yawAngle, 0.0);
    }
  }
}

// Reports given boxes (bottom-left origin) to the tracker.
class Boxes : public FaceDetector {
 public:
  std::vector<FaceFeature> featuresInImage(const Image&,
                                           const FaceDetectionOptions&) const override {
    std::vector<FaceFeature> out;
    for (const Rect& r : boxes) out.emplace_back().bounds = r;
    return out;
  }
  std::vector<Rect> boxes;
};

TEST(FaceTracker, KeepsIdentifiersWhileFacesOverlap) {
  auto detector = std::make_shared<Boxes>();
  FaceTracker tracker(detector);
  const uint8_t black = 0;
  const Image picture = Image::filled(PixelLayout::Gray8, 200, 100, &black);

  detector->boxes = {{10, 10, 40, 40}, {120, 50, 40, 40}};
  const std::vector<TrackedFace> first = tracker.track(picture);
  ASSERT_EQ(first.size(), 2u);
  EXPECT_NE(first[0].faceID, first[1].faceID);
  // Normalised with the origin at the top left: y 10 + 40 of 100 from the bottom is 0.5.
  EXPECT_EQ(first[0].bounds, Rect(0.05, 0.5, 0.2, 0.4));

  // Both move a little and swap places in the list; a new face appears between them.
  detector->boxes = {{125, 52, 40, 40}, {170, 0, 20, 20}, {14, 12, 40, 40}};
  const std::vector<TrackedFace> second = tracker.track(picture);
  ASSERT_EQ(second.size(), 3u);
  EXPECT_EQ(second[0].faceID, first[1].faceID);
  EXPECT_EQ(second[2].faceID, first[0].faceID);
  EXPECT_GT(second[1].faceID, std::max(first[0].faceID, first[1].faceID));

  // A frame without faces forgets them all.
  detector->boxes = {};
  EXPECT_TRUE(tracker.track(picture).empty());
  detector->boxes = {{14, 12, 40, 40}};
  EXPECT_GT(tracker.track(picture).at(0).faceID, second[1].faceID);

  // Real frames: the close-up keeps its number from frame to frame.
  FaceTracker real;
  std::vector<int64_t> ids;
  for (size_t i = 200; i < 204; ++i) {
    const std::vector<TrackedFace> faces = real.track(frame(i));
    ASSERT_EQ(faces.size(), 1u) << "frame " << i;
    EXPECT_TRUE(faces[0].bounds.contains(Point{395.0 / 720, 240.0 / 528}));
    ids.push_back(faces[0].faceID);
  }
  EXPECT_EQ(ids, std::vector<int64_t>(4, ids[0]));
}

}  // namespace
}  // namespace kwq::platform

#include "platform/vision/face_detector.h"

#include <cmath>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "support/test_support.h"

namespace kwq::platform {
namespace {

// Face and feature positions in top-left coordinates, as the tests reason about pictures.
struct Seen {
  cv::Rect2d box;
  FaceFeature raw;
};

std::vector<Seen> detect(const Image& image, FaceAccuracy accuracy, bool angles = false) {
  FaceDetectionOptions options;
  options.accuracy = accuracy;
  options.detectSmile = options.detectEyeBlink = true;
  options.estimateAngles = angles;
  std::vector<Seen> out;
  const double h = static_cast<double>(image.height());
  for (const FaceFeature& f : sharedFaceDetector()->featuresInImage(image, options)) {
    const Rect& b = f.bounds;
    out.push_back(
        {cv::Rect2d(b.origin.x, h - b.origin.y - b.size.height, b.size.width, b.size.height), f});
  }
  return out;
}

cv::Point2d topLeft(const Image& image, Point p) {
  return {p.x, static_cast<double>(image.height()) - p.y};
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

// Frames of Megamind.avi by index, read once.
const std::vector<cv::Mat>& megamind() {
  static const std::vector<cv::Mat> frames = [] {
    std::vector<cv::Mat> all;
    cv::VideoCapture video(test::samplePath("Megamind.avi"));
    for (cv::Mat frame; video.read(frame);) all.push_back(frame.clone());
    return all;
  }();
  return frames;
}

// Every found eye lies in the upper half of its face, the left one further left, and the
// mouth in the lower half.
void expectFeaturesInPlace(const Image& image, const Seen& face) {
  const FaceFeature& f = face.raw;
  const double midY = face.box.y + face.box.height / 2;
  for (const auto& [has, p] : {std::pair{f.hasLeftEyePosition, f.leftEyePosition},
                               std::pair{f.hasRightEyePosition, f.rightEyePosition}}) {
    if (!has) continue;
    const cv::Point2d e = topLeft(image, p);
    EXPECT_TRUE(face.box.contains(e)) << e;
    EXPECT_LT(e.y, midY);
  }
  if (f.hasLeftEyePosition && f.hasRightEyePosition) {
    EXPECT_LT(f.leftEyePosition.x, f.rightEyePosition.x);
    EXPECT_TRUE(f.hasFaceAngle);
    EXPECT_LT(std::abs(f.faceAngle), 25.0f);
  }
  if (f.hasMouthPosition) EXPECT_GT(topLeft(image, f.mouthPosition).y, midY);
}

TEST(FaceDetector, FindsTheFaceInAPhotograph) {
  const Image photo = test::loadSample("messi5.jpg");
  // By eye: the player's face (below the hair) is centred near (245, 112), about 40 wide.
  for (const FaceAccuracy accuracy : {FaceAccuracy::Low, FaceAccuracy::High}) {
    const std::vector<Seen> faces = detect(photo, accuracy);
    ASSERT_EQ(faces.size(), 1u) << "accuracy " << static_cast<int>(accuracy);
    const Seen* face = faceAt(faces, {245, 112});
    ASSERT_NE(face, nullptr);
    EXPECT_GT(face->box.width, 25);
    EXPECT_LT(face->box.width, 80);
    EXPECT_TRUE(face->raw.hasLeftEyePosition || face->raw.hasRightEyePosition);
    expectFeaturesInPlace(photo, *face);
    EXPECT_FALSE(face->raw.hasYawAngle);  // angles only when asked
  }
}

TEST(FaceDetector, FindsFacesInVideoFrames) {
  ASSERT_GT(megamind().size(), 260u);
  // Centres read off the frames (720 x 528): the close-up in frame 200, the man in glasses in
  // frame 100, the woman in frame 10.
  const struct {
    int frame;
    cv::Point2d centre;
    double minWidth, maxWidth;
  } cases[] = {
      {200, {395, 240}, 200, 420}, {100, {480, 200}, 100, 230}, {10, {340, 270}, 100, 230}};
  for (const auto& c : cases) {
    const Image frame = fromBGR(megamind()[static_cast<size_t>(c.frame)]);
    const std::vector<Seen> faces = detect(frame, FaceAccuracy::High);
    const Seen* face = faceAt(faces, c.centre);
    ASSERT_NE(face, nullptr) << "frame " << c.frame;
    EXPECT_GT(face->box.width, c.minWidth);
    EXPECT_LT(face->box.width, c.maxWidth);
    EXPECT_TRUE(face->raw.hasLeftEyePosition && face->raw.hasRightEyePosition);
    expectFeaturesInPlace(frame, *face);
  }
}

TEST(FaceDetector, FindsNoFaceWhereThereIsNone) {
  for (const char* name : {"building.jpg", "home.jpg", "fruits.jpg", "board.jpg", "baboon.jpg"}) {
    const Image image = test::loadSample(name);
    EXPECT_TRUE(detect(image, FaceAccuracy::Low).empty()) << name;
    EXPECT_TRUE(detect(image, FaceAccuracy::High).empty()) << name;
  }
  EXPECT_TRUE(detect(fromBGR(megamind()[0]), FaceAccuracy::High).empty());  // a black frame
}

TEST(FaceDetector, HighAccuracyFindsWhatLowFinds) {
  std::vector<Image> images{test::loadSample("messi5.jpg")};
  for (size_t i = 10; i < megamind().size(); i += 30) images.push_back(fromBGR(megamind()[i]));
  size_t lowFaces = 0;
  for (const Image& image : images) {
    const std::vector<Seen> high = detect(image, FaceAccuracy::High);
    for (const Seen& low : detect(image, FaceAccuracy::Low)) {
      ++lowFaces;
      const cv::Point2d centre(low.box.x + low.box.width / 2, low.box.y + low.box.height / 2);
      EXPECT_NE(faceAt(high, centre), nullptr) << "low face " << low.box << " missing";
    }
  }
  EXPECT_GE(lowFaces, 5u);
}

TEST(FaceDetector, LayoutsOfOnePhotoGiveOneFace) {
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
}

// Turns the frame clockwise as seen by `degrees` about its centre; also maps a point.
cv::Mat turned(const cv::Mat& frame, double degrees, cv::Point2d& point) {
  const cv::Point2f centre(frame.cols / 2.0f, frame.rows / 2.0f);
  const cv::Mat m = cv::getRotationMatrix2D(centre, -degrees, 1.0);
  cv::Mat out;
  cv::warpAffine(frame, out, m, frame.size(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
  const cv::Matx23d t(m);
  point = {t(0, 0) * point.x + t(0, 1) * point.y + t(0, 2),
           t(1, 0) * point.x + t(1, 1) * point.y + t(1, 2)};
  return out;
}

TEST(FaceDetector, EstimatesRollInThirtyDegreeSteps) {
  for (const int index : {200, 240}) {
    for (const double tilt : {0.0, 30.0, -30.0}) {
      cv::Point2d centre(395, 240);  // both close-ups are centred here
      const Image frame = fromBGR(turned(megamind()[static_cast<size_t>(index)], tilt, centre));
      const std::vector<Seen> faces = detect(frame, FaceAccuracy::Low, true);
      const Seen* face = faceAt(faces, centre);
      ASSERT_NE(face, nullptr) << "frame " << index << " turned " << tilt;
      EXPECT_TRUE(face->raw.hasRollAngle);
      EXPECT_EQ(face->raw.rollAngle, std::fmod(tilt + 360.0, 360.0)) << index;
      EXPECT_TRUE(face->raw.hasYawAngle);
      EXPECT_EQ(face->raw.yawAngle, 0.0);  // frontal
    }
  }
}

TEST(FaceDetector, SafeFromManyThreadsAtOnce) {
  const Image photo = test::loadSample("messi5.jpg");
  const std::vector<Seen> expected = detect(photo, FaceAccuracy::High);
  ASSERT_FALSE(expected.empty());
  std::vector<std::vector<Seen>> results(4);
  std::vector<std::thread> threads;
  for (auto& r : results)
    threads.emplace_back([&photo, &r] { r = detect(photo, FaceAccuracy::High); });
  for (auto& t : threads) t.join();
  for (const auto& r : results) {
    ASSERT_EQ(r.size(), expected.size());
    EXPECT_EQ(r[0].box, expected[0].box);
  }
}

TEST(FaceDetector, BadImagesGiveNoFaces) {
  const uint8_t gray = 100;
  for (const Image& image :
       {Image(), Image::withoutBitmap({640, 480}), Image::filled(PixelLayout::Gray8, 19, 19, &gray),
        Image::filled(PixelLayout::RGB24, 20, 5000, &gray),
        Image::filled(PixelLayout::Gray8, 100000, 21, &gray)}) {
    EXPECT_TRUE(detect(image, FaceAccuracy::High, true).empty());
    EXPECT_TRUE(detect(image, FaceAccuracy::Low).empty());
  }
}

// A detector that reports given boxes (bottom-left origin) for the tracker.
class Boxes : public FaceDetector {
 public:
  std::vector<FaceFeature> featuresInImage(const Image&,
                                           const FaceDetectionOptions&) const override {
    return faces;
  }
  std::vector<FaceFeature> faces;
};

FaceFeature box(double x, double y, double side) {
  FaceFeature f;
  f.bounds = Rect(x, y, side, side);
  return f;
}

TEST(FaceTracker, KeepsIdentifiersWhileFacesOverlap) {
  auto boxes = std::make_shared<Boxes>();
  FaceTracker tracker(boxes);
  const uint8_t gray = 0;
  const Image frame = Image::filled(PixelLayout::Gray8, 200, 100, &gray);

  boxes->faces = {box(10, 10, 40), box(120, 50, 40)};
  const std::vector<TrackedFace> first = tracker.track(frame);
  ASSERT_EQ(first.size(), 2u);
  EXPECT_NE(first[0].faceID, first[1].faceID);
  // Normalised, top-left origin: bottom-left y 10 + 40 high in 100 gives top 0.5.
  EXPECT_EQ(first[0].bounds, Rect(0.05, 0.5, 0.2, 0.4));

  // Both move a little and swap places in the list; a third face appears.
  boxes->faces = {box(125, 52, 40), box(300, 0, 1), box(14, 12, 40)};
  boxes->faces[1] = box(170, 0, 20);
  const std::vector<TrackedFace> second = tracker.track(frame);
  ASSERT_EQ(second.size(), 3u);
  EXPECT_EQ(second[0].faceID, first[1].faceID);
  EXPECT_EQ(second[2].faceID, first[0].faceID);
  EXPECT_NE(second[1].faceID, first[0].faceID);
  EXPECT_NE(second[1].faceID, first[1].faceID);

  // A frame without faces forgets them: they come back with new numbers.
  boxes->faces = {};
  EXPECT_TRUE(tracker.track(frame).empty());
  boxes->faces = {box(14, 12, 40)};
  const std::vector<TrackedFace> third = tracker.track(frame);
  ASSERT_EQ(third.size(), 1u);
  EXPECT_GT(third[0].faceID, second[1].faceID);
}

TEST(FaceTracker, FollowsARealFaceThroughConsecutiveFrames) {
  FaceTracker tracker;
  int64_t id = 0;
  for (size_t i = 200; i < 206; ++i) {
    const std::vector<TrackedFace> faces = tracker.track(fromBGR(megamind()[i]));
    ASSERT_EQ(faces.size(), 1u) << "frame " << i;
    const Rect& b = faces[0].bounds;
    EXPECT_TRUE(Rect(0, 0, 1, 1).contains(b)) << "frame " << i;
    EXPECT_TRUE(b.contains(Point{395.0 / 720, 240.0 / 528}));
    if (id == 0) id = faces[0].faceID;
    EXPECT_EQ(faces[0].faceID, id);
    EXPECT_TRUE(faces[0].hasYawAngle && faces[0].hasRollAngle);
  }
}

}  // namespace
}  // namespace kwq::platform

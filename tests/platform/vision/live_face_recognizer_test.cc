#include "platform/vision/live_face_recognizer.h"

#include <cmath>
#include <cstdio>
#include <map>
#include <set>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "support/face_video.h"
#include "support/test_support.h"

namespace kwq::platform {
namespace {

using Faces = std::vector<std::shared_ptr<const MetadataFaceObject>>;

const std::vector<cv::Mat>& megamind() {
  return test::megamindFrames(test::samplePath("Megamind.avi"));
}

const std::vector<test::TruthFace>& truth() {
  static const std::vector<test::TruthFace> t =
      test::loadFaceTruth(KWQ_TEST_DATA_DIR "/megamind_faces.txt");
  return t;
}

cv::Rect2d pixels(const MetadataFaceObject& face, cv::Size frame) {
  return {face.bounds.minX() * frame.width, face.bounds.minY() * frame.height,
          face.bounds.width() * frame.width, face.bounds.height() * frame.height};
}

void expectPlatformAngles(const MetadataFaceObject& face) {
  EXPECT_EQ(face.hasYawAngle, face.hasRollAngle);
  if (face.hasYawAngle) {
    EXPECT_TRUE(std::set<double>({0, 45, 90, 270, 315}).count(face.yawAngle)) << face.yawAngle;
    EXPECT_GE(face.rollAngle, 0.0);
    EXPECT_LT(face.rollAngle, 360.0);
    EXPECT_EQ(std::fmod(face.rollAngle, 30.0), 0.0) << face.rollAngle;
  } else {
    EXPECT_EQ(face.yawAngle, 0.0);
    EXPECT_EQ(face.rollAngle, 0.0);
  }
}

// The same still shown for a few frames, as a camera held still delivers it.
Faces steady(LiveFaceRecognizer& recognizer, const cv::Mat& bgr, int frames = 6) {
  Faces faces;
  for (int i = 0; i < frames; ++i) faces = recognizer.recognize(test::sample420f(bgr, i));
  return faces;
}

cv::Mat rotated(const cv::Mat& bgr, double counterClockwise) {
  const cv::Mat turn =
      cv::getRotationMatrix2D(cv::Point2f(bgr.cols / 2.0f, bgr.rows / 2.0f), counterClockwise, 1);
  cv::Mat out;
  cv::warpAffine(bgr, out, turn, bgr.size(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
  return out;
}

TEST(LiveFaceRecognizerTest, FindsTheHandCheckedFacesOfMegamindFrameAfterFrame) {
  ASSERT_FALSE(megamind().empty()) << "Megamind.avi missing (Debian package opencv-doc)";
  ASSERT_FALSE(truth().empty());
  LiveFaceRecognizer recognizer;
  test::FaceScore score;
  std::vector<cv::Mat> sheet;
  for (size_t i = 0; i < megamind().size(); ++i) {
    const cv::Mat& frame = megamind()[i];
    const SampleBuffer sample = test::sample420f(frame, static_cast<int64_t>(i));
    const Faces faces = recognizer.recognize(sample);
    std::vector<cv::Rect2d> boxes;
    for (const auto& face : faces) {
      EXPECT_EQ(face->type, AVMetadataObjectTypeFace);
      EXPECT_EQ(face->time, sample.presentationTimeStamp());
      EXPECT_EQ(face->duration, sample.duration());
      EXPECT_GE(face->bounds.minX(), 0.0);
      EXPECT_LE(face->bounds.maxX(), 1.0);
      EXPECT_GE(face->bounds.minY(), 0.0);
      EXPECT_LE(face->bounds.maxY(), 1.0);
      expectPlatformAngles(*face);
      boxes.push_back(pixels(*face, frame.size()));
    }
    if (i % 10 != 0) continue;
    score.add(truth(), static_cast<int>(i), boxes);
    cv::Mat shown = frame.clone();
    for (const test::TruthFace& t : truth())
      if (t.frame == static_cast<int>(i) && t.kind != test::TruthFace::Kind::None)
        cv::rectangle(shown, t.box, {255, 255, 255}, 1);
    for (size_t k = 0; k < faces.size(); ++k) {
      cv::rectangle(shown, boxes[k], {0, 255, 0}, 3);
      char label[64];
      std::snprintf(label, sizeof label, "#%lld yaw %.0f roll %.0f",
                    static_cast<long long>(faces[k]->faceID), faces[k]->yawAngle,
                    faces[k]->rollAngle);
      cv::putText(shown, label, boxes[k].tl() + cv::Point2d(0, -6), cv::FONT_HERSHEY_SIMPLEX, 0.6,
                  {0, 255, 0}, 2);
    }
    cv::putText(shown, std::to_string(i), {8, 30}, cv::FONT_HERSHEY_SIMPLEX, 1, {0, 255, 255}, 2);
    cv::resize(shown, shown, cv::Size(), 0.5, 0.5, cv::INTER_AREA);
    sheet.push_back(shown);
  }
  // Contact sheet of the labelled frames: white the truth, green what was delivered.
  while (sheet.size() % 4) sheet.push_back(cv::Mat::zeros(sheet[0].size(), sheet[0].type()));
  std::vector<cv::Mat> rows;
  for (size_t i = 0; i < sheet.size(); i += 4) {
    cv::Mat row;
    cv::hconcat(std::vector<cv::Mat>(sheet.begin() + i, sheet.begin() + i + 4), row);
    rows.push_back(row);
  }
  cv::Mat all;
  cv::vconcat(rows, all);
  cv::imwrite(test::outputDir() + "/live_faces_megamind.png", all);

  std::printf("recall %d/%d, false faces %d\n", score.found, score.faces, score.falseFaces);
  EXPECT_GE(score.recall(), 0.9);
  EXPECT_LE(score.falseFaces, 2);
}

// One shot of one face (frames 200 to 269): the face is delivered in every frame under one
// identifier; the cuts before it bring new faces with new identifiers, never reused.
TEST(LiveFaceRecognizerTest, KeepsOneIdentifierWhileTheFaceIsFollowedAndNewOnesAfterCuts) {
  ASSERT_GE(megamind().size(), 270u);
  LiveFaceRecognizer recognizer;
  std::map<size_t, int64_t> idAt;
  std::set<int64_t> shotIDs;
  for (size_t i = 0; i < 270; ++i) {
    const Faces faces = recognizer.recognize(test::sample420f(megamind()[i], i));
    if (i >= 200) {
      ASSERT_FALSE(faces.empty()) << "frame " << i;
      shotIDs.insert(faces[0]->faceID);
    }
    if (!faces.empty()) idAt[i] = faces[0]->faceID;
  }
  EXPECT_EQ(shotIDs.size(), 1u);
  // The woman (up to 99), the man (100 to 159), the woman again from another side (160 to
  // 199), the man close up (200 on): four faces, four identifiers.
  ASSERT_TRUE(idAt.count(90) && idAt.count(130) && idAt.count(180) && idAt.count(230));
  EXPECT_EQ(std::set<int64_t>({idAt[90], idAt[130], idAt[180], idAt[230]}).size(), 4u);
  EXPECT_LT(idAt[90], idAt[130]);
  EXPECT_LT(idAt[180], idAt[230]);
}

// Roll is the clockwise tilt as seen, in steps of 30; yaw says which way the head turns.
// Frame 130 shows the man turned towards the frame's left edge, frame 40 the woman turned
// towards its right edge.
TEST(LiveFaceRecognizerTest, ReportsRollOfTiltedFacesAndYawOfTurnedOnes) {
  ASSERT_GE(megamind().size(), 131u);
  ASSERT_TRUE(LiveFaceRecognizer::landmarksAvailable()) << "Debian package libdlib-data";
  struct Case {
    size_t frame;
    double yaw;
  };
  for (const Case c : {Case{130, 315}, Case{40, 45}}) {
    // cv::getRotationMatrix2D turns counter-clockwise for positive angles.
    for (const auto& [counterClockwise, roll] :
         std::vector<std::pair<double, double>>{{0, 0}, {-30, 30}, {30, 330}}) {
      SCOPED_TRACE("frame " + std::to_string(c.frame) + " turned " +
                   std::to_string(counterClockwise));
      const cv::Mat picture = rotated(megamind()[c.frame], counterClockwise);
      LiveFaceRecognizer recognizer;
      const Faces faces = steady(recognizer, picture);
      ASSERT_EQ(faces.size(), 1u);
      ASSERT_TRUE(faces[0]->hasRollAngle && faces[0]->hasYawAngle);
      EXPECT_EQ(faces[0]->rollAngle, roll);
      EXPECT_EQ(faces[0]->yawAngle, c.yaw);

      // The mirror image turns and tilts the other way.
      cv::Mat mirror;
      cv::flip(picture, mirror, 1);
      LiveFaceRecognizer mirrored;
      const Faces seen = steady(mirrored, mirror);
      ASSERT_EQ(seen.size(), 1u);
      EXPECT_EQ(seen[0]->rollAngle, roll == 0 ? 0 : 360 - roll);
      EXPECT_EQ(seen[0]->yawAngle, 360 - c.yaw);
    }
  }
}

// Photographs of things, not people, from opencv-doc, shown as a steady 720p camera would
// show them (BGRA), for a few searches each.
TEST(LiveFaceRecognizerTest, FindsNoFacesInFaceFreePhotographs) {
  for (const char* name : {"building.jpg", "fruits.jpg", "board.jpg", "home.jpg", "leuvenA.jpg",
                           "stuff.jpg", "orange.jpg", "sudoku.png", "smarties.png", "butterfly.jpg",
                           "apple.jpg", "aero1.jpg", "starry_night.jpg", "notes.png", "blox.jpg"}) {
    const cv::Mat photo = cv::imread(test::samplePath(name));
    ASSERT_FALSE(photo.empty()) << name;
    const cv::Mat frame = test::letterbox720(photo);
    LiveFaceRecognizer recognizer;
    size_t faces = 0;
    for (int i = 0; i < 12; ++i) faces += recognizer.recognize(test::sampleBGRA(frame, i)).size();
    EXPECT_EQ(faces, 0u) << name;
  }
}

// 420f, 420v and BGRA frames of one picture give the same face.
TEST(LiveFaceRecognizerTest, ReadsEveryCameraFormatAlike) {
  ASSERT_GE(megamind().size(), 131u);
  const cv::Mat& picture = megamind()[130];
  LiveFaceRecognizer fromLuma, fromBGRA;
  const Faces luma = fromLuma.recognize(test::sample420f(picture));
  const Faces bgra = fromBGRA.recognize(test::sampleBGRA(picture));
  ASSERT_EQ(luma.size(), 1u);
  ASSERT_EQ(bgra.size(), 1u);
  EXPECT_TRUE(test::sameFace(pixels(*luma[0], picture.size()), pixels(*bgra[0], picture.size())));
  EXPECT_NEAR(luma[0]->bounds.minX(), bgra[0]->bounds.minX(), 0.01);
  EXPECT_NEAR(luma[0]->bounds.width(), bgra[0]->bounds.width(), 0.01);
}

// Bad frames give no faces and leave the recogniser able to go on.
TEST(LiveFaceRecognizerTest, BadFramesGiveNoFaces) {
  LiveFaceRecognizer recognizer;
  EXPECT_TRUE(recognizer.recognize(SampleBuffer()).empty());
  for (const auto& [format, w, h] :
       std::vector<std::tuple<uint32_t, size_t, size_t>>{{kPixelFormat420f, 1, 1},
                                                         {kPixelFormatBGRA, 1, 1},
                                                         {kPixelFormat420v, 79, 79},
                                                         {kPixelFormatBGRA, 4000, 2},
                                                         {kPixelFormat420f, 2, 4000}}) {
    const PixelBuffer buffer = PixelBuffer::allocate(format, w, h);
    ASSERT_FALSE(buffer.isNull());
    EXPECT_TRUE(recognizer.recognize(SampleBuffer(buffer)).empty()) << w << " x " << h;
  }
  // A format the recogniser does not read, wrapped around real memory.
  std::vector<uint8_t> bytes(640 * 480 * 2, 128);
  const PixelBuffer yuvs =
      PixelBuffer::wrap(fourCharCode("yuvs"), 640, 480, {{bytes.data(), 1280, 640, 480}}, [] {});
  ASSERT_FALSE(yuvs.isNull());
  EXPECT_TRUE(recognizer.recognize(SampleBuffer(yuvs)).empty());
  // Random noise at camera size: no crash, and not a crowd.
  cv::Mat noise(720, 1280, CV_8UC3);
  cv::randu(noise, 0, 256);
  EXPECT_LE(recognizer.recognize(test::sample420f(noise)).size(), 1u);

  ASSERT_GE(megamind().size(), 131u);
  EXPECT_EQ(steady(recognizer, megamind()[130]).size(), 1u);
}

}  // namespace
}  // namespace kwq::platform

#include "platform/vision/live_face_recognizer.h"

#include <cmath>
#include <cstdio>
#include <map>
#include <set>
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
  static const std::vector<cv::Mat> frames = [] {
    std::vector<cv::Mat> all;
    cv::VideoCapture video(test::samplePath("Megamind.avi"));
    for (cv::Mat frame; video.read(frame);) all.push_back(frame.clone());
    return all;
  }();
  return frames;
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

}  // namespace
}  // namespace kwq::platform

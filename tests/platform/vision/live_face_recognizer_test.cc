#include "platform/vision/live_face_recognizer.h"

#include <cmath>
#include <cstdio>
#include <map>
#include <set>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "support/face_video.h"
#include "support/test_support.h"
#include "tests/support/face_set.h"

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

// The same still shown for a few frames, as a camera held still delivers it: long enough for
// one whole search and a confirmation.
Faces steady(LiveFaceRecognizer& recognizer, const cv::Mat& bgr, int frames = 12) {
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
    if (i % 10 == 0) score.add(truth(), static_cast<int>(i), boxes);
  }
  std::printf("recall %d/%d, false faces %d\n", score.found, score.faces, score.falseFaces);
  EXPECT_GE(score.recall(), 0.9);
  EXPECT_LE(score.falseFaces, 2);
}

// One shot of one face (frames 200 to 269): the face is delivered under one identifier in
// every frame from a fifth of a second after the cut; the cuts before it bring new faces with
// new identifiers, never reused.
TEST(LiveFaceRecognizerTest, KeepsOneIdentifierWhileTheFaceIsFollowedAndNewOnesAfterCuts) {
  ASSERT_GE(megamind().size(), 270u);
  LiveFaceRecognizer recognizer;
  std::map<size_t, int64_t> idAt;
  std::set<int64_t> shotIDs;
  for (size_t i = 0; i < 270; ++i) {
    const Faces faces = recognizer.recognize(test::sample420f(megamind()[i], i));
    if (i >= 206) {
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
      // Frame 40 also shows a man in the background: the woman, the widest, comes first.
      const Faces faces = steady(recognizer, picture);
      ASSERT_FALSE(faces.empty());
      ASSERT_TRUE(faces[0]->hasRollAngle && faces[0]->hasYawAngle);
      EXPECT_EQ(faces[0]->rollAngle, roll);
      EXPECT_EQ(faces[0]->yawAngle, c.yaw);

      // The mirror image turns and tilts the other way.
      cv::Mat mirror;
      cv::flip(picture, mirror, 1);
      LiveFaceRecognizer mirrored;
      const Faces seen = steady(mirrored, mirror);
      ASSERT_FALSE(seen.empty());
      EXPECT_EQ(seen[0]->rollAngle, roll == 0 ? 0 : 360 - roll);
      EXPECT_EQ(seen[0]->yawAngle, 360 - c.yaw);
    }
  }
}

// Photographs of things, not people, from opencv-doc, shown as a steady 720p camera would
// show them (BGRA), for two whole searches each.
TEST(LiveFaceRecognizerTest, FindsNoFacesInFaceFreePhotographs) {
  for (const std::string& name : test::faceFreePhotoNames()) {
    const cv::Mat photo = test::loadFaceFreePhoto(name);
    ASSERT_FALSE(photo.empty()) << name << " (Debian package opencv-doc)";
    const cv::Mat frame = test::letterbox720(photo);
    LiveFaceRecognizer recognizer;
    size_t faces = 0;
    for (int i = 0; i < 18; ++i) faces += recognizer.recognize(test::sampleBGRA(frame, i)).size();
    EXPECT_EQ(faces, 0u) << name;
  }
}

const std::vector<test::FacePhoto>& facePhotos() {
  static const std::vector<test::FacePhoto> photos =
      test::loadFacePhotos(KWQ_TEST_DATA_DIR "/face_set_labels.txt");
  return photos;
}

// Every photograph of the face set panning on a wall in 1280 x 720 frames, its widest face
// from the narrowest searched (80 px) to large: after the first half second the widest face is
// delivered on nearly every frame, first in the list, under one identifier, and nothing that is
// not a face is delivered.
TEST(LiveFaceRecognizerTest, FollowsTheWidestFaceOfRealPhotographsFrom80PixelsWide) {
  ASSERT_FALSE(facePhotos().empty()) << "face set photographs missing (opencv-doc, skimage)";
  constexpr int kFrames = 36, kSettle = 15;
  for (const double width : {80.0, 140.0, 320.0}) {
    int scored = 0, found = 0;
    for (const test::FacePhoto& photo : facePhotos()) {
      SCOPED_TRACE(photo.source + " at " + std::to_string(width) + " px");
      const test::FaceClip clip(photo, width, test::Motion::Pan, test::Wall::Textured);
      LiveFaceRecognizer recognizer;
      std::set<int64_t> ids;
      for (int i = 0; i < kFrames; ++i) {
        const test::ClipFrame frame = clip.frame(i);
        const Faces faces = recognizer.recognize(test::sample420f(frame.bgr, i));
        bool widestFound = false;
        for (size_t k = 0; k < faces.size(); ++k) {
          const cv::Rect2d box = pixels(*faces[k], frame.bgr.size());
          const bool widest = test::sameFace(frame.faces[0], box);
          bool known = widest;
          for (const cv::Rect2d& extra : frame.extras) known = known || test::sameFace(extra, box);
          EXPECT_TRUE(known) << "frame " << i << ": a face where there is none";
          if (widest) {
            EXPECT_EQ(k, 0u) << "frame " << i << ": the widest face is not first";
            widestFound = true;
            if (i >= kSettle) ids.insert(faces[k]->faceID);
          }
          expectPlatformAngles(*faces[k]);
        }
        if (i < kSettle) continue;
        ++scored;
        found += widestFound ? 1 : 0;
      }
      EXPECT_LE(ids.size(), 1u) << "the followed face changed its identifier";
    }
    EXPECT_GE(found, 0.9 * scored) << width << " px: found on " << found << " of " << scored;
  }
}

// Faces narrower than the narrowest searched (80 px here) are not guessed at, and a face that
// shrinks below it (the person steps back) is let go; identifiers are kept while it is
// followed. The detector's window takes faces up to about a fifth narrower than itself, and
// frames a face up to 15% wider or narrower than its label: the floor holds within that.
TEST(LiveFaceRecognizerTest, LetsGoOfFacesBelowTheNarrowestSearched) {
  ASSERT_FALSE(facePhotos().empty());
  const test::FacePhoto& astronaut = facePhotos()[1];
  {
    const test::FaceClip clip(astronaut, 50, test::Motion::Still, test::Wall::Plain);
    LiveFaceRecognizer recognizer;
    size_t faces = 0;
    for (int i = 0; i < 18; ++i)
      faces += recognizer.recognize(test::sample420f(clip.frame(i).bgr, i)).size();
    EXPECT_EQ(faces, 0u) << "a 50 px face in a 1280 px frame was reported";
  }
  // From 130 px down to 50 over two seconds.
  LiveFaceRecognizer recognizer;
  std::set<int64_t> ids;
  int lastFound = -1;
  double widthWhenLast = 0;
  for (int i = 0; i < 60; ++i) {
    const double width = 130 - 80 * i / 59.0;
    const test::FaceClip clip(astronaut, width, test::Motion::Still, test::Wall::Plain, 9);
    const Faces faces = recognizer.recognize(test::sample420f(clip.frame(i).bgr, i));
    if (faces.empty()) continue;
    lastFound = i;
    widthWhenLast = width;
    ids.insert(faces[0]->faceID);
    EXPECT_GE(faces[0]->bounds.width() * 1280, 0.8 * 80) << "delivered narrower at frame " << i;
  }
  ASSERT_GE(lastFound, 0) << "the face was never found";
  EXPECT_GE(widthWhenLast, 56.0) << "still followed at " << widthWhenLast << " px";
  EXPECT_LE(widthWhenLast, 100.0) << "let go already at " << widthWhenLast << " px";
  EXPECT_EQ(ids.size(), 1u);
}

// 420f, 420v and BGRA frames of one picture give the same face.
TEST(LiveFaceRecognizerTest, ReadsEveryCameraFormatAlike) {
  ASSERT_GE(megamind().size(), 131u);
  const cv::Mat& picture = megamind()[130];
  LiveFaceRecognizer fromLuma, fromBGRA;
  Faces luma, bgra;
  for (int i = 0; i < 12; ++i) {
    luma = fromLuma.recognize(test::sample420f(picture, i));
    bgra = fromBGRA.recognize(test::sampleBGRA(picture, i));
  }
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

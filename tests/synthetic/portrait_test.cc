// The synthetic camera's portrait scene: the face in the pixels is the photograph's face where
// the truth puts it, the path's ranges and its trip out of the picture, determinism, the scene
// without its photograph, and sizes it must survive.

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "support/test_support.h"
#include "synthetic/motion.h"
#include "synthetic/renderer.h"

namespace kwq::synthetic {
namespace {

constexpr double kPi = 3.14159265358979323846;

bool havePhoto() {
  return ::access(kSyntheticPortraitPhotoPath, R_OK) == 0;
}

#define REQUIRE_PHOTO()                                                     \
  if (!havePhoto())                                                         \
  GTEST_SKIP() << "the portrait photograph " << kSyntheticPortraitPhotoPath \
               << " is missing (Debian package python3-skimage; scripts/setup.sh installs it)"

// The astronaut photograph's face: a 98-pixel square centred at (224, 114), its head leaning
// 2.7 degrees clockwise (the portrait prop's defaults).
constexpr double kFaceCentreX = 224.0, kFaceCentreY = 114.0, kFaceSide = 98.0, kPhotoRoll = 2.7;

SceneRenderer portraitScene(size_t w = 1280, size_t h = 720,
                            std::string photo = kSyntheticPortraitPhotoPath) {
  SyntheticScene scene = SyntheticScene::portrait();
  scene.props[0].photoPath = std::move(photo);
  return SceneRenderer(scene, w, h);
}

// The face in a frame's truth; a face with no box where there is none.
SyntheticFaceTruth faceOf(const SyntheticFrameTruth& t) {
  return t.face() ? *t.face() : SyntheticFaceTruth{};
}

cv::Mat render(SceneRenderer& scene, uint64_t index, SyntheticFrameTruth* truth = nullptr) {
  cv::Mat bgra(static_cast<int>(scene.height()), static_cast<int>(scene.width()), CV_8UC4,
               cv::Scalar::all(7));
  const SyntheticFrameTruth t = scene.render(index, {}, bgra.data, bgra.step);
  if (truth) *truth = t;
  return bgra;
}

std::vector<cv::Point2f> quadOf(const std::array<Point, 4>& corners) {
  std::vector<cv::Point2f> q;
  for (const Point& p : corners) q.emplace_back(static_cast<float>(p.x), static_cast<float>(p.y));
  return q;
}

// The photograph's face square, turned by the head's own lean, as the truth's corners name it:
// top left, top right, bottom right, bottom left of the upright face.
std::vector<cv::Point2f> photoFaceCorners() {
  const double a = kPhotoRoll * kPi / 180.0, half = kFaceSide / 2.0;
  const cv::Point2d across(std::cos(a), std::sin(a)), down(-std::sin(a), std::cos(a));
  const cv::Point2d c(kFaceCentreX, kFaceCentreY);
  std::vector<cv::Point2f> q;
  for (const auto& [u, v] : {std::pair{-1, -1}, {1, -1}, {1, 1}, {-1, 1}})
    q.push_back(c + u * half * across + v * half * down);
  return q;
}

// Mean absolute luma difference between the rendered frame and the photograph placed by the
// truth's face corners, over the inner 80 % of the face box.
double faceMismatch(const cv::Mat& frame, const cv::Mat& photo, const SyntheticFrameTruth& t) {
  const std::vector<cv::Point2f> frameQuad = quadOf(faceOf(t).corners);
  const std::vector<cv::Point2f> photoQuad = photoFaceCorners();
  // Pixel indices are centres at i + 0.5 in both coordinate systems.
  std::vector<cv::Point2f> src(photoQuad.begin(), photoQuad.begin() + 3);
  std::vector<cv::Point2f> dst(frameQuad.begin(), frameQuad.begin() + 3);
  for (auto& p : src) p -= cv::Point2f(0.5f, 0.5f);
  for (auto& p : dst) p -= cv::Point2f(0.5f, 0.5f);
  cv::Mat placed;
  cv::warpAffine(photo, placed, cv::getAffineTransform(src, dst), frame.size(), cv::INTER_AREA);
  cv::Mat a, b;
  cv::cvtColor(frame, a, cv::COLOR_BGRA2GRAY);
  cv::cvtColor(placed, b, cv::COLOR_BGR2GRAY);
  // Both resampled differently: compare what survives a light blur.
  cv::GaussianBlur(a, a, cv::Size(), 1.5);
  cv::GaussianBlur(b, b, cv::Size(), 1.5);
  const cv::Point2f centre = (frameQuad[0] + frameQuad[2]) * 0.5f;
  std::vector<cv::Point> inner;
  for (const cv::Point2f& p : frameQuad) inner.emplace_back(centre + 0.8f * (p - centre));
  cv::Mat mask = cv::Mat::zeros(frame.size(), CV_8U);
  cv::fillConvexPoly(mask, inner, cv::Scalar(255));
  cv::Mat diff;
  cv::absdiff(a, b, diff);
  return cv::mean(diff, mask)[0];
}

TEST(PortraitScene, FaceInThePictureIsThePhotographsFaceWhereTheTruthPutsIt) {
  REQUIRE_PHOTO();
  const cv::Mat photo = cv::imread(kSyntheticPortraitPhotoPath, cv::IMREAD_COLOR);
  ASSERT_FALSE(photo.empty());
  SceneRenderer scene = portraitScene();
  // Far and near, level and rolled both ways, and half out of the picture at the right.
  const std::vector<uint64_t> frames = {0, 75, 140, 225, 300, 420, 500, 640};
  std::vector<cv::Mat> strip;
  for (const uint64_t i : frames) {
    SyntheticFrameTruth t;
    const cv::Mat frame = render(scene, i, &t);
    ASSERT_TRUE(t.face()) << i;
    EXPECT_EQ(t.frameIndex, i);
    // Drawn straight from the photograph, the face matches to rounding; a half-pixel slip
    // would show as a couple of gray levels.
    EXPECT_LT(faceMismatch(frame, photo, t), 0.5) << "frame " << i;
    // The check can tell: a box a few frames off does not match.
    const SyntheticFrameTruth later = scene.truth(i + 12);
    EXPECT_GT(faceMismatch(frame, photo, later), 14.0) << "frame " << i;

    cv::Mat shown = frame.clone();
    std::vector<cv::Point> box;
    for (const cv::Point2f& p : quadOf(faceOf(t).corners)) box.emplace_back(p * 16.0f);
    cv::polylines(shown, box, true, cv::Scalar(0, 255, 255, 255), 3, cv::LINE_AA, 4);
    cv::line(shown, box[0], box[1], cv::Scalar(0, 0, 255, 255), 5, cv::LINE_AA, 4);  // top
    cv::putText(
        shown,
        "#" + std::to_string(i) + " roll " + std::to_string(std::lround(faceOf(t).rollDegrees)),
        {20, 60}, cv::FONT_HERSHEY_SIMPLEX, 1.8, cv::Scalar(255, 255, 255, 255), 3);
    cv::resize(shown, shown, cv::Size(), 0.25, 0.25, cv::INTER_AREA);
    strip.push_back(shown);
  }
  cv::Mat top, bottom, sheet;
  cv::hconcat(std::vector<cv::Mat>(strip.begin(), strip.begin() + 4), top);
  cv::hconcat(std::vector<cv::Mat>(strip.begin() + 4, strip.end()), bottom);
  cv::vconcat(top, bottom, sheet);
  cv::imwrite(test::outputDir() + "/synthetic-portrait-truth.png", sheet);

  // On a small picture the face is drawn from reduced copies of the photograph, which only
  // soften it.
  SceneRenderer small = portraitScene(320, 180);
  for (const uint64_t i : {uint64_t{0}, uint64_t{75}, uint64_t{300}}) {
    SyntheticFrameTruth t;
    const cv::Mat frame = render(small, i, &t);
    EXPECT_LT(faceMismatch(frame, photo, t), 4.0) << "frame " << i;
    EXPECT_GT(faceMismatch(frame, photo, small.truth(i + 12)), 10.0) << "frame " << i;
  }
}

TEST(PortraitScene, PathSweepsSizeAndRollAndLeavesThePictureWhole) {
  REQUIRE_PHOTO();
  const size_t w = 1280, h = 720;
  SceneRenderer scene = portraitScene(w, h);
  SceneRenderer background = portraitScene(w, h, "/no/such/portrait.png");
  const cv::Mat empty = render(background, 0);

  double minSide = 1e9, maxSide = 0.0, minRoll = 1e9, maxRoll = -1e9;
  int level = 0, plus30 = 0, minus30 = 0, gone = 0, partial = 0, full = 0;
  cv::Point2d last;
  for (uint64_t i = 0; i < kSwayPeriodFrames; ++i) {
    const SyntheticFrameTruth t = scene.truth(i);
    const SyntheticFaceTruth face = faceOf(t);
    const double side = face.box.size.width;
    ASSERT_EQ(face.box.size.height, side);
    if (t.face()) minSide = std::min(minSide, side);
    maxSide = std::max(maxSide, side);
    gone += !t.face();
    partial += t.face() && !face.fullyVisible;
    full += t.face() && face.fullyVisible;
    // The path repeats.
    const SyntheticFrameTruth again = scene.truth(i + 3 * kSwayPeriodFrames);
    ASSERT_EQ(faceOf(again).corners[2].x, face.corners[2].x);
    ASSERT_EQ(faceOf(again).rollDegrees, face.rollDegrees);
    ASSERT_FALSE(t.card());
    if (!t.face()) {
      last = {-1.0, -1.0};  // the face comes back at the edge it left by
      continue;
    }
    minRoll = std::min(minRoll, face.rollDegrees);
    maxRoll = std::max(maxRoll, face.rollDegrees);
    level += std::abs(face.rollDegrees) < 1.0;
    plus30 += std::abs(face.rollDegrees - 30.0) < 1.0;
    minus30 += std::abs(face.rollDegrees + 30.0) < 1.0;
    // Smooth: the face never jumps.
    const cv::Point2d centre(face.box.origin.x + side / 2, face.box.origin.y + side / 2);
    if (i > 0 && last.x > 0) EXPECT_LT(cv::norm(centre - last), 0.05 * w) << i;
    last = centre;
  }
  EXPECT_LE(minSide, 80.0);  // faces from 80 pixels wide in a 720-line picture
  EXPECT_GE(maxSide, 0.49 * h);
  EXPECT_LE(minRoll, -39.5);
  EXPECT_GE(maxRoll, 39.5);
  EXPECT_GT(level, 10);
  EXPECT_GT(plus30, 5);
  EXPECT_GT(minus30, 5);
  EXPECT_GE(gone, 2 * kSyntheticFrameRate);     // some seconds wholly out
  EXPECT_GE(partial, kSyntheticFrameRate / 3);  // and some frames on the way
  EXPECT_GT(full, static_cast<int>(kSwayPeriodFrames) / 2);

  // From 23.5 s to 26.5 s the whole photograph is gone, not just the face: the frame is the
  // bare background.
  for (uint64_t i = 706; i < 795; i += 8) {
    ASSERT_TRUE(scene.truth(i).props.empty()) << i;
    cv::Mat diff;
    cv::absdiff(render(scene, i), empty, diff);
    EXPECT_EQ(cv::countNonZero(diff.reshape(1)), 0) << i;
  }
}

TEST(PortraitScene, DeterministicAndWithoutItsPhotographFilmsTheBackground) {
  REQUIRE_PHOTO();
  SceneRenderer a = portraitScene(640, 360), b = portraitScene(640, 360);
  cv::Mat first = render(a, 501);
  render(a, 77);  // other frames in between change nothing
  cv::Mat diff;
  cv::absdiff(first, render(a, 501), diff);
  EXPECT_EQ(cv::countNonZero(diff.reshape(1)), 0);
  cv::absdiff(first, render(b, 501), diff);
  EXPECT_EQ(cv::countNonZero(diff.reshape(1)), 0);

  // A missing or undecodable photograph: background only, no face in the truth.
  for (const std::string path :
       {std::string("/no/such/portrait.png"), std::string("/etc/hostname")}) {
    SceneRenderer bare = portraitScene(640, 360, path);
    SyntheticFrameTruth t;
    const cv::Mat frame = render(bare, 501, &t);
    EXPECT_EQ(t.frameIndex, 501u);
    EXPECT_TRUE(t.props.empty());
    cv::absdiff(frame, render(bare, 0), diff);
    EXPECT_EQ(cv::countNonZero(diff.reshape(1)), 0) << path;
    cv::absdiff(frame, first, diff);
    EXPECT_GT(cv::countNonZero(diff.reshape(1)), 1000) << path;
  }
}

TEST(PortraitScene, SizesItCannotDrawLeaveTheBufferAndTheTruthEmpty) {
  for (const auto& [w, h] : std::vector<std::pair<size_t, size_t>>{
           {0, 0}, {0, 720}, {1280, 0}, {9000, 10}, {SIZE_MAX, 2}}) {
    SceneRenderer scene = portraitScene(w, h);
    uint8_t canary[16] = {1, 2, 3};
    const SyntheticFrameTruth t = scene.render(40, {}, canary, 4);
    EXPECT_EQ(canary[0], 1);
    EXPECT_EQ(canary[3], 0);
    EXPECT_TRUE(t.props.empty()) << w << "x" << h;
  }
  // Tiny pictures are drawn whole, without reading outside them.
  for (const auto& [w, h] : std::vector<std::pair<size_t, size_t>>{{1, 1}, {3, 200}, {200, 3}}) {
    SceneRenderer scene = portraitScene(w, h);
    for (uint64_t i = 0; i < kSwayPeriodFrames; i += 37) render(scene, i);
  }
}

}  // namespace
}  // namespace kwq::synthetic

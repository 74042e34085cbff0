// Scenes as data: scene files and their errors, several props in one picture with the truth of
// each, the motions' paths, stickers read back with zxing-cpp, and frames that are the same
// bit for bit for the same scene.

#define ZX_USE_UTF8
#include <ZXing/ReadBarcode.h>

#include <cmath>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "kwqimage/SyntheticScene.h"
#include "support/test_support.h"
#include "synthetic/renderer.h"

namespace kwq::synthetic {
namespace {

constexpr const char* kTwoProps = R"({
  "background": "wall", "seed": 7, "noise": 2,
  "props": [
    {"kind": "card", "code": "KWQ STUDIO 0001", "at": [0.3, 0.55], "size": 0.36,
     "motion": [{"kind": "shake", "amount": 0.01}]},
    {"kind": "portrait", "at": [0.74, 0.42], "size": 0.12,
     "motion": [{"kind": "pan", "to": [0.7, 0.5], "period": 8}]},
    {"kind": "sticker", "code_type": "qr", "code": "https://example.invalid/kwq",
     "at": [0.78, 0.85], "size": 0.1, "roll": 20}]})";

uint64_t hashFrames(SceneRenderer& scene, std::initializer_list<uint64_t> frames) {
  cv::Mat bgra(static_cast<int>(scene.height()), static_cast<int>(scene.width()), CV_8UC4);
  uint64_t h = 1469598103934665603ull;  // FNV-1a over every byte of every frame
  for (uint64_t i : frames) {
    scene.render(i, {}, bgra.data, bgra.step);
    for (int y = 0; y < bgra.rows; ++y)
      for (const uint8_t* p = bgra.ptr(y); p != bgra.ptr(y) + 4 * bgra.cols; ++p)
        h = (h ^ *p) * 1099511628211ull;
  }
  return h;
}

TEST(SceneFiles, TwoPropsInViewWithTheTruthOfEachAndTheSameFramesForTheSameSeed) {
  std::string error;
  const auto scene = syntheticSceneFromJson(kTwoProps, &error);
  ASSERT_TRUE(scene) << error;
  ASSERT_EQ(scene->props.size(), 3u);
  SceneRenderer renderer(*scene, 1280, 720);
  cv::Mat frame(720, 1280, CV_8UC4);
  const SyntheticFrameTruth t = renderer.render(60, {}, frame.data, frame.step);
  ASSERT_EQ(t.props.size(), 3u);
  EXPECT_EQ(t.props[0].name, "card");
  EXPECT_EQ(t.props[1].name, "portrait");
  ASSERT_TRUE(t.card() && t.face());
  EXPECT_TRUE(t.card()->fullyVisible && t.face()->fullyVisible);
  ASSERT_EQ(t.card()->codes.size(), 1u);
  EXPECT_EQ(t.card()->codes[0].text, "KWQ STUDIO 0001");
  // Placed where the file says: the card's centre near 30 % across, the face about 0.12 of
  // the width wide.
  const Point c = t.card()->corners[0], d = t.card()->corners[2];
  EXPECT_NEAR((c.x + d.x) / 2, 0.3 * 1280, 0.02 * 1280);
  EXPECT_NEAR(t.face()->box.size.width, 0.12 * 1280, 3.0);

  // zxing reads both codes, each inside its truth's corners.
  const SyntheticPropTruth* sticker = t.find(SyntheticPropKind::CodeSticker);
  ASSERT_TRUE(sticker);
  ASSERT_EQ(sticker->codes.size(), 1u);
  EXPECT_EQ(sticker->codes[0].type, SyntheticCodeType::QR);
  EXPECT_NEAR(sticker->rollDegrees, 20.0, 1e-9);
  cv::Mat gray;
  cv::cvtColor(frame, gray, cv::COLOR_BGRA2GRAY);
  const auto results = ZXing::ReadBarcodes(
      {gray.data, gray.cols, gray.rows, ZXing::ImageFormat::Lum, int(gray.step)},
      ZXing::DecodeHints().setTryHarder(true));
  int read = 0;
  for (const SyntheticPropTruth* prop : {t.card(), sticker}) {
    std::vector<cv::Point2f> quad;
    for (const Point& p : prop->codes[0].corners) quad.emplace_back(p.x, p.y);
    for (const auto& r : results) {
      if (r.text() != prop->codes[0].text) continue;
      ++read;
      for (const auto& p : r.position())
        EXPECT_GE(cv::pointPolygonTest(quad, cv::Point2f(p.x, p.y), true), -3.0) << prop->name;
    }
  }
  EXPECT_EQ(read, 2);
  cv::imwrite(test::outputDir() + "/synthetic_two_props.png", frame);

  // The same scene films the same bytes; another seed films others.
  SceneRenderer again(*scene, 1280, 720);
  const uint64_t first = hashFrames(renderer, {0, 31, 450});
  EXPECT_EQ(first, hashFrames(again, {0, 31, 450}));
  SyntheticScene reseeded = *scene;
  reseeded.seed = 8;
  SceneRenderer other(reseeded, 1280, 720);
  EXPECT_NE(first, hashFrames(other, {0, 31, 450}));
}

TEST(SceneFiles, PresetsAndErrorsNameTheKey) {
  ASSERT_TRUE(syntheticSceneFromJson(R"({"preset": "portrait", "seed": 3})"));
  EXPECT_EQ(syntheticSceneFromJson(R"({"preset": "portrait", "seed": 3})")->props[0].kind,
            SyntheticPropKind::Portrait);
  EXPECT_TRUE(syntheticSceneFromJson(R"({"preset": "empty"})")->props.empty());
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"not json", "not JSON"},
      {"[1]", "scene: expected an object"},
      {R"({"colour": 1})", "scene.colour: unknown key"},
      {R"({"preset": "beach"})", "scene.preset"},
      {R"({"background": "sky"})", "scene.background: expected one of"},
      {R"({"seed": -1})", "scene.seed"},
      {R"({"light": {"glare": "lots"}})", "scene.light.glare: expected a number"},
      {R"({"props": {}})", "scene.props: expected a list"},
      {R"({"props": [{"code": "x"}]})", "scene.props[0].kind: missing"},
      {R"({"props": [{"kind": "hat"}]})", "scene.props[0].kind: expected one of"},
      {R"({"props": [{"kind": "card", "at": [1]}]})", "scene.props[0].at: expected [x, y]"},
      {R"({"props": [{"kind": "portrait", "photo_face": [1, 2]}]})", "photo_face"},
      {R"({"props": [{"kind": "card", "motion": [{"kind": "spin"}]}]})",
       "scene.props[0].motion[0].kind"},
      {R"({"props": [{"kind": "card", "motion": [{"kind": "leave", "side": "back"}]}]})",
       "motion[0].side"},
  };
  for (const auto& [text, expected] : bad) {
    std::string error;
    EXPECT_FALSE(syntheticSceneFromJson(text, &error)) << text;
    EXPECT_NE(error.find(expected), std::string::npos) << text << " -> " << error;
  }
  std::string error;
  EXPECT_FALSE(syntheticSceneFromFile("/no/such/scene.json", &error));
  EXPECT_NE(error.find("/no/such/scene.json"), std::string::npos);
}

// Each motion, read off the truth of a card placed in the middle at 30 % of the width.
TEST(SceneMotions, EachMotionMovesThePropAsDescribed) {
  auto cardWith = [](SyntheticMotion m) {
    SyntheticScene scene;
    SyntheticProp card;
    card.codeText = "M";
    card.size = 0.3;
    card.motion = {m};
    scene.props = {card};
    return SceneRenderer(scene, 1280, 720);
  };
  auto centre = [](const SyntheticPropTruth& p) {
    return Point{(p.corners[0].x + p.corners[2].x) / 2, (p.corners[0].y + p.corners[2].y) / 2};
  };
  auto width = [](const SyntheticPropTruth& p) {
    return std::hypot(p.corners[1].x - p.corners[0].x, p.corners[1].y - p.corners[0].y);
  };
  using K = SyntheticMotion::Kind;

  SceneRenderer pan = cardWith({.kind = K::Pan, .period = 4, .to = {0.2, 0.3}});
  EXPECT_NEAR(centre(*pan.truth(0).card()).x, 640, 1e-6);
  EXPECT_NEAR(centre(*pan.truth(60).card()).x, 0.2 * 1280, 1e-6);  // half a period: there
  EXPECT_NEAR(centre(*pan.truth(60).card()).y, 0.3 * 720, 1e-6);
  EXPECT_NEAR(centre(*pan.truth(120).card()).x, 640, 1e-6);  // and back

  SceneRenderer approach = cardWith({.kind = K::Approach, .period = 2, .amount = 2});
  EXPECT_NEAR(width(*approach.truth(30).card()) / width(*approach.truth(0).card()), 2.0, 1e-6);

  SceneRenderer spin = cardWith({.kind = K::Turn, .period = 0, .amount = 45});
  EXPECT_NEAR(spin.truth(60).card()->rollDegrees, 90.0, 1e-9);  // 45 degrees a second
  SceneRenderer rock = cardWith({.kind = K::Turn, .period = 4, .amount = 30});
  EXPECT_NEAR(rock.truth(30).card()->rollDegrees, 30.0, 1e-9);  // a quarter period

  SceneRenderer tilt = cardWith({.kind = K::Tilt, .period = 4, .amount = 25});
  EXPECT_NEAR(tilt.truth(30).card()->tiltDegrees, 25.0, 1e-6);
  EXPECT_NEAR(tilt.truth(0).card()->tiltDegrees, 0.0, 1e-6);

  SceneRenderer leave = cardWith({.kind = K::Leave,
                                  .period = 10,
                                  .start = 1,
                                  .duration = 2,
                                  .side = SyntheticMotion::Side::Up});
  EXPECT_TRUE(leave.truth(0).card() && leave.truth(0).card()->fullyVisible);
  EXPECT_TRUE(leave.truth(30 * 3).props.empty());   // gone from 2.5 s to 4.5 s
  EXPECT_TRUE(leave.truth(30 * 6).card());          // back from 6 s
  EXPECT_TRUE(leave.truth(30 * 13).props.empty());  // and again the next period

  SceneRenderer shake = cardWith({.kind = K::Shake, .amount = 0.02});
  double most = 0;
  for (uint64_t i = 0; i < 90; ++i) {
    const Point c = centre(*shake.truth(i).card());
    most = std::max(most, std::hypot(c.x - 640, c.y - 360));
    if (i > 0)
      EXPECT_LT(std::hypot(c.x - centre(*shake.truth(i - 1).card()).x,
                           c.y - centre(*shake.truth(i - 1).card()).y),
                0.3 * 0.02 * 0.3 * 1280 * 4)
          << i;  // smooth between frames
  }
  EXPECT_GT(most, 0.3 * 0.02 * 0.3 * 1280);
  EXPECT_LT(most, 1.5 * 0.02 * 0.3 * 1280);
}

// The turning licence: every slant from -45 to 45 degrees over a period, with the card and
// its code whole in the picture nearly all the time, so code readers can be measured at any
// angle against the code's truth.
TEST(ScenePresets, TurningCardSweepsItsSlantAndStaysInThePicture) {
  SceneRenderer scene(SyntheticScene::turningCard(), 1280, 720);
  double lowest = 0, highest = 0;
  int whole = 0;
  for (uint64_t i = 0; i < 360; ++i) {
    const SyntheticFrameTruth t = scene.truth(i);
    ASSERT_TRUE(t.card() && t.card()->codes.size() == 1) << i;
    lowest = std::min(lowest, t.card()->rollDegrees);
    highest = std::max(highest, t.card()->rollDegrees);
    bool inside = t.card()->fullyVisible;
    for (const Point& p : t.card()->codes[0].corners)
      inside = inside && p.x >= 0 && p.x <= 1280 && p.y >= 0 && p.y <= 720;
    whole += inside;
  }
  EXPECT_LT(lowest, -44.0);
  EXPECT_GT(highest, 44.0);
  EXPECT_GE(whole, 0.95 * 360);
}

}  // namespace
}  // namespace kwq::synthetic

// The card scene's renderer: its ground truth against the pixels, the PDF417 symbol read back
// with zxing-cpp, determinism and strides, effects, frames without or with partial cards, and
// sizes and options it must survive.

#define ZX_USE_UTF8
#include <ZXing/ReadBarcode.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "support/test_support.h"
#include "synthetic/renderer.h"

// Fontconfig keeps what it parses for the card's text for the life of the process.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libexpat.so\n";
}

namespace kwq::synthetic {
namespace {

constexpr double kCardAspect = 86.0 / 54.0;

cv::Mat render(SceneRenderer& scene, uint64_t index, CameraEffects effects = {},
               SyntheticFrameTruth* truth = nullptr) {
  cv::Mat bgra(static_cast<int>(scene.height()), static_cast<int>(scene.width()), CV_8UC4);
  const SyntheticFrameTruth t = scene.render(index, effects, bgra.data, bgra.step);
  if (truth) *truth = t;
  return bgra;
}

cv::Mat luma(const cv::Mat& bgra) {
  cv::Mat gray;
  cv::cvtColor(bgra, gray, cv::COLOR_BGRA2GRAY);
  return gray;
}

std::vector<cv::Point2f> quad(const std::array<Point, 4>& corners) {
  std::vector<cv::Point2f> q;
  for (const Point& p : corners) q.emplace_back(static_cast<float>(p.x), static_cast<float>(p.y));
  return q;
}

// The card's aspect measured as the card detector measures it: corners in y-up coordinates,
// sorted by angle about the bounding box's centre, mean top and bottom width over mean height.
double detectorAspect(const std::array<Point, 4>& corners, double height) {
  std::vector<cv::Point2d> p;
  for (const Point& c : corners) p.emplace_back(c.x, height - c.y);
  cv::Rect2d box = cv::boundingRect(quad(corners));
  const cv::Point2d m(box.x + box.width / 2, height - (box.y + box.height / 2));
  auto angle = [&](cv::Point2d q) {
    return std::fmod(std::atan2(q.y - m.y, q.x - m.x) + 2.356194490192345, 2 * M_PI);
  };
  std::sort(p.begin(), p.end(), [&](auto a, auto b) { return angle(a) < angle(b); });
  return ((p[2].x - p[3].x) + (p[1].x - p[0].x)) / ((p[3].y - p[0].y) + (p[2].y - p[1].y));
}

// Card stock sits at these millimetre points just inside the edge; these lie just outside.
const std::vector<cv::Point2f> kInsideMm = {{1.2f, 27},  {84.8f, 27},  {43, 1.2f},
                                            {43, 52.8f}, {1.2f, 1.2f}, {84.8f, 52.8f}};
const std::vector<cv::Point2f> kOutsideMm = {{-3, 27}, {89, 27}, {43, -3}, {43, 57}, {-2, -2}};

// The card's truth in a frame that shows it.
const SyntheticPropTruth& cardOf(const SyntheticFrameTruth& t) {
  static const SyntheticPropTruth none;
  return t.card() ? *t.card() : none;
}
std::array<Point, 4> codeCornersOf(const SyntheticFrameTruth& t) {
  return t.card() && !t.card()->codes.empty() ? t.card()->codes[0].corners : std::array<Point, 4>{};
}

TEST(CardSceneTruth, CardPixelsLieWhereTheTruthPutsThem) {
  SceneRenderer scene(SyntheticScene::card(), 1280, 720);
  int fullFrames = 0, partialFrames = 0;
  for (uint64_t i = 0; i < 1800; i += 25) {
    SyntheticFrameTruth t;
    const cv::Mat gray = luma(render(scene, i, {}, &t));
    ASSERT_TRUE(t.card()) << i;
    (cardOf(t).fullyVisible ? fullFrames : partialFrames)++;
    const cv::Mat h = cv::getPerspectiveTransform(
        std::vector<cv::Point2f>{{0, 0}, {86, 0}, {86, 54}, {0, 54}}, quad(cardOf(t).corners));
    auto check = [&](const std::vector<cv::Point2f>& mm, bool inside) {
      std::vector<cv::Point2f> px;
      cv::perspectiveTransform(mm, px, h);
      for (const cv::Point2f& p : px) {
        if (p.x < 1 || p.y < 1 || p.x > gray.cols - 1 || p.y > gray.rows - 1) continue;
        const int v = gray.at<uint8_t>(cv::Point(p));
        EXPECT_EQ(v > 150, inside) << "frame " << i << " at " << p << " luma " << v;
      }
    };
    check(kInsideMm, true);
    check(kOutsideMm, false);
    double brightest;
    cv::minMaxLoc(gray, nullptr, &brightest);
    EXPECT_LT(brightest, 200) << i;  // the two-pi focus measure skips blocks reaching 200
  }
  EXPECT_GT(fullFrames, 50);
  EXPECT_GT(partialFrames, 0);
}

// Where, along the normal towards `inside`, the picture passes halfway from its level outside
// the edge a-b to its level inside it, averaged over the edge's middle (pixels from the edge).
double edgeOffset(const cv::Mat& gray, cv::Point2f a, cv::Point2f b, cv::Point2f inside) {
  auto at = [&](cv::Point2f p) {  // bilinear, with pixel centres at + 0.5
    cv::Mat patch;
    cv::getRectSubPix(gray, {1, 1}, p - cv::Point2f(0.5f, 0.5f), patch);
    return patch.at<float>(0);
  };
  const cv::Point2f d = b - a;
  cv::Point2f n(-d.y, d.x);
  n *= 1.0f / std::hypot(n.x, n.y);
  if (n.dot(inside - a) < 0) n = -n;
  double sum = 0;
  for (float f : {0.3f, 0.4f, 0.5f, 0.6f, 0.7f}) {
    const cv::Point2f p = a + d * f;
    const float in = (at(p + n * 2.5f) + at(p + n * 3.5f)) / 2;
    const float out = (at(p - n * 2.5f) + at(p - n * 3.5f)) / 2;
    float s = -2.0f;
    while (s < 2.0f && (at(p + n * s) - out) / (in - out) < 0.5f) s += 0.02f;
    sum += s;
  }
  return sum / 5;
}

// Sub-pixel: the card's outline (antialiased by coverage) and its print (the warped texture)
// both sit where the truth says: the four card edges, the code's start bar, and the bottom of
// the photo (dark shoulders over card stock, 23.7 mm from the top, 4 to 16 mm across).
TEST(CardSceneTruth, EdgesAndPrintSitOnTheTruthToSubPixels) {
  SceneRenderer scene(SyntheticScene::card(), 1280, 720);
  for (uint64_t i : {0, 333, 610, 900, 1250, 1700}) {
    SyntheticFrameTruth t;
    cv::Mat gray;
    luma(render(scene, i, {}, &t)).convertTo(gray, CV_32F);
    ASSERT_TRUE(cardOf(t).fullyVisible) << i;
    const auto q = quad(cardOf(t).corners), code = quad(codeCornersOf(t));
    const cv::Point2f centre = (q[0] + q[1] + q[2] + q[3]) * 0.25f;
    for (int e = 0; e < 4; ++e)
      EXPECT_NEAR(edgeOffset(gray, q[e], q[(e + 1) % 4], centre), 0.0, 0.25) << i << " " << e;
    EXPECT_NEAR(edgeOffset(gray, code[0], code[3], code[1]), 0.0, 0.25) << i;
    const cv::Mat h = cv::getPerspectiveTransform(
        std::vector<cv::Point2f>{{0, 0}, {86, 0}, {86, 54}, {0, 54}}, q);
    std::vector<cv::Point2f> photo;
    cv::perspectiveTransform(std::vector<cv::Point2f>{{4, 23.7f}, {16, 23.7f}, {10, 16}}, photo, h);
    EXPECT_NEAR(edgeOffset(gray, photo[0], photo[1], photo[2]), 0.0, 0.25) << i;
  }
}

TEST(CardSceneTruth, AspectIsTheCardsWhenSquareOnAndDepartsWhenTilted) {
  SceneRenderer scene(SyntheticScene::card(), 1280, 720);
  std::vector<double> square, tilted;
  for (uint64_t i = 0; i < 1800; ++i) {
    const SyntheticFrameTruth t = scene.truth(i);
    const double off = std::abs(detectorAspect(cardOf(t).corners, 720) - kCardAspect);
    if (cardOf(t).tiltDegrees < 1.0) square.push_back(off);
    if (cardOf(t).tiltDegrees > 18.0) tilted.push_back(off);
    EXPECT_LT(cardOf(t).tiltDegrees, 25.0);
  }
  ASSERT_GE(square.size(), 2u);
  ASSERT_GE(tilted.size(), 20u);
  for (double off : square) EXPECT_LT(off, 0.01);
  EXPECT_GT(*std::max_element(tilted.begin(), tilted.end()), 0.12);
}

TEST(CardSceneCode, ZXingReadsTheCodeInsideItsTruthCorners) {
  const std::string text = "DOE<<JANE 1988-03-12 K47Q0193552";
  SceneRenderer scene(SyntheticScene::card(text), 1280, 720);
  const auto hints = ZXing::DecodeHints().setFormats(ZXing::BarcodeFormat::PDF417);
  int candidates = 0, decoded = 0;
  // About a hundred frames spread over the whole path: every size and pose it takes.
  for (uint64_t i = 0; i < 1800; i += 17) {
    SyntheticFrameTruth t;
    const cv::Mat gray = luma(render(scene, i, {}, &t));
    const auto code = quad(codeCornersOf(t));
    const bool inFrame = std::all_of(code.begin(), code.end(), [&](auto p) {
      return p.x >= 0 && p.y >= 0 && p.x <= gray.cols && p.y <= gray.rows;
    });
    if (!inFrame || cardOf(t).tiltDegrees > 20.0) continue;
    ++candidates;
    const auto results = ZXing::ReadBarcodes(
        {gray.data, gray.cols, gray.rows, ZXing::ImageFormat::Lum, int(gray.step)}, hints);
    for (const auto& r : results) {
      if (r.text() != text) continue;
      ++decoded;
      for (const auto& p : r.position())
        EXPECT_GE(cv::pointPolygonTest(code, cv::Point2f(p.x, p.y), true), -3.0) << i;
      break;
    }
  }
  EXPECT_GE(candidates, 80);
  EXPECT_GE(decoded, candidates * 9 / 10) << decoded << " of " << candidates;
}

TEST(CardSceneFrames, DeterministicPerIndexAndStrideRespected) {
  SyntheticScene options = SyntheticScene::card();
  options.noiseSigma = 3.0;
  const size_t width = 320, height = 240;
  SceneRenderer a(options, width, height), b(options, width, height);
  const cv::Mat first = render(a, 77);
  render(a, 12);
  EXPECT_EQ(cv::norm(first, render(a, 77), cv::NORM_INF), 0.0);
  EXPECT_EQ(cv::norm(first, render(b, 77), cv::NORM_INF), 0.0);
  EXPECT_GT(cv::norm(first, render(a, 78), cv::NORM_L1), 0.0);  // fresh noise, moved card

  // Padded rows: the padding is left alone and the pixels are the packed render's.
  const size_t stride = 4 * width + 13;
  std::vector<uint8_t> padded(stride * height, 0xAB);
  const SyntheticFrameTruth t = a.render(77, {}, padded.data(), stride);
  const cv::Mat view(240, 320, CV_8UC4, padded.data(), stride);
  EXPECT_EQ(cv::norm(first, view, cv::NORM_INF), 0.0);
  for (size_t y = 0; y < height; ++y)
    for (size_t x = 4 * width; x < stride; ++x) ASSERT_EQ(padded[y * stride + x], 0xAB);
  std::vector<cv::Mat> channels;
  cv::split(first, channels);
  EXPECT_EQ(cv::countNonZero(channels[3] != 255), 0);

  const SyntheticFrameTruth u = a.truth(77);
  EXPECT_EQ(cardOf(t).corners, cardOf(u).corners);
  EXPECT_EQ(codeCornersOf(t), codeCornersOf(u));
  EXPECT_EQ(t.props.size(), u.props.size());
  EXPECT_EQ(t.frameIndex, 77u);
}

TEST(CardSceneFrames, EffectsBlurBrightenAndAddNoise) {
  SyntheticScene options = SyntheticScene::card();
  SceneRenderer sharp(options, 640, 480);
  auto highFrequency = [](const cv::Mat& bgra) {
    cv::Mat lap;
    cv::Laplacian(luma(bgra), lap, CV_64F);
    return cv::norm(lap, cv::NORM_L2SQR);
  };
  const cv::Mat base = render(sharp, 40);
  const double energy = highFrequency(base);
  EXPECT_LT(highFrequency(render(sharp, 40, {.defocusSigma = 2.0})), energy * 0.3);
  options.blurSigma = 1.5;
  SceneRenderer blurred(options, 640, 480);
  EXPECT_LT(highFrequency(render(blurred, 40)), energy * 0.5);

  const double mean = cv::mean(luma(base))[0];
  const double brighter = cv::mean(luma(render(sharp, 40, {.lightGain = 1.5})))[0];
  EXPECT_NEAR(brighter / mean, 1.5, 0.1);

  options.blurSigma = 0.0;
  options.light.exposureDrift = 0.3;
  SceneRenderer drifting(options, 640, 480);
  double lowest = 10, highest = 0;
  for (uint64_t i = 0; i < 225; i += 15) {
    const double ratio =
        cv::mean(luma(render(drifting, i)))[0] / cv::mean(luma(render(sharp, i)))[0];
    lowest = std::min(lowest, ratio);
    highest = std::max(highest, ratio);
  }
  EXPECT_LT(lowest, 0.8);
  EXPECT_GT(highest, 1.2);

  // Drift and dim seconds together, as the truth tells them: each frame's light over the
  // steady scene's is its truth's exposure; dim seconds come whole, and about as often as asked.
  options.light.dimProbability = 0.4;
  SceneRenderer dimming(options, 640, 480);
  int dimSeconds = 0;
  for (uint64_t second = 0; second < 60; ++second) {
    const SyntheticFrameTruth first = dimming.truth(second * 30);
    EXPECT_EQ(dimming.truth(second * 30 + 29).exposure < 0.5, first.exposure < 0.5) << second;
    dimSeconds += first.exposure < 0.5;
    if (second % 6 == 0) {
      const double ratio = cv::mean(luma(render(dimming, second * 30)))[0] /
                           cv::mean(luma(render(sharp, second * 30)))[0];
      EXPECT_NEAR(ratio, first.exposure, 0.02) << second;
    }
  }
  EXPECT_GE(dimSeconds, 14);
  EXPECT_LE(dimSeconds, 34);
  options.light.dimProbability = 0.0;

  options.light.exposureDrift = 0.0;
  options.noiseSigma = 6.0;
  SceneRenderer noisy(options, 640, 480);
  cv::Mat diff;
  luma(render(noisy, 40)).convertTo(diff, CV_64F);
  diff -= luma(base);  // luma averages three independent channels' noise
  cv::Scalar m, sd;
  cv::meanStdDev(diff, m, sd);
  EXPECT_NEAR(sd[0], 6.0 * std::sqrt(0.299 * 0.299 + 0.587 * 0.587 + 0.114 * 0.114), 0.7);
  EXPECT_NEAR(m[0], 0.0, 0.3);
}

TEST(CardSceneFrames, WithoutCardOnlyTheStillBackground) {
  SceneRenderer empty(SyntheticScene{}, 400, 300);
  SceneRenderer withCard(SyntheticScene::card(), 400, 300);
  SyntheticFrameTruth t;
  const cv::Mat a = render(empty, 5, {}, &t);
  EXPECT_TRUE(t.props.empty());
  EXPECT_EQ(cv::norm(a, render(empty, 1234), cv::NORM_INF), 0.0);
  // The card scene differs from the empty one only over the card.
  SyntheticFrameTruth c;
  const cv::Mat b = render(withCard, 5, {}, &c);
  cv::Mat outside(b.size(), CV_8U, cv::Scalar(255));
  std::vector<cv::Point> poly;
  for (const auto& p : quad(cardOf(c).corners)) poly.emplace_back(cv::Point(p));
  cv::fillConvexPoly(outside, poly, 0);
  cv::dilate(~outside, outside, cv::Mat(), {-1, -1}, 2);
  outside = ~outside;
  EXPECT_EQ(cv::norm(a, b, cv::NORM_INF, outside), 0.0);
  EXPECT_GT(cv::norm(a, b, cv::NORM_L1), 0.0);
}

TEST(CardSceneFrames, PartialCardsAreShownAndFlaggedAFewSecondsAMinute) {
  SceneRenderer scene(SyntheticScene::card(), 1280, 720);
  int partial = 0;
  for (uint64_t i = 0; i < 1800; ++i) {
    const SyntheticFrameTruth t = scene.truth(i);
    const bool allInside =
        std::all_of(cardOf(t).corners.begin(), cardOf(t).corners.end(),
                    [](Point p) { return p.x >= 0 && p.x <= 1280 && p.y >= 0 && p.y <= 720; });
    EXPECT_EQ(cardOf(t).fullyVisible, allInside);
    EXPECT_TRUE(t.card());
    partial += !cardOf(t).fullyVisible;
  }
  EXPECT_GE(partial, 3 * 30);  // a few seconds a minute
  EXPECT_LE(partial, 12 * 30);
}

TEST(CardSceneRobustness, OddSizesAndOptions) {
  for (auto [w, h] : {std::pair<size_t, size_t>{16, 16}, {1, 1}, {3, 700}, {900, 2}}) {
    SyntheticScene wild = SyntheticScene::card();
    wild.noiseSigma = 300;
    wild.light.exposureDrift = -5;
    SceneRenderer scene(wild, w, h);
    const cv::Mat frame =
        render(scene, ~uint64_t{0}, {.defocusSigma = 1e9, .lightGain = std::nan("")});
    std::vector<cv::Mat> channels;
    cv::split(frame, channels);
    EXPECT_EQ(cv::countNonZero(channels[3] != 255), 0) << w << "x" << h;
  }
  uint8_t canary[64];
  std::memset(canary, 0x5A, sizeof canary);
  for (auto [w, h] : {std::pair<size_t, size_t>{0, 10}, {10, 0}, {100000, 4}, {9000, 9000}}) {
    SceneRenderer scene(SyntheticScene::card(), w, h);
    const SyntheticFrameTruth t = scene.render(3, {}, canary, 4);
    EXPECT_EQ(t.card() != nullptr, w > 0 && h > 0) << w << "x" << h;
    EXPECT_EQ(t.frameIndex, 3u);
  }
  SceneRenderer small(SyntheticScene::card(), 8, 8);
  small.render(3, {}, canary, 31);  // a row needs 32 bytes
  small.render(3, {}, nullptr, 32);
  for (uint8_t b : canary) ASSERT_EQ(b, 0x5A);

  SceneRenderer noCode(SyntheticScene::card(""), 64, 48);
  ASSERT_TRUE(noCode.truth(0).card());
  EXPECT_TRUE(noCode.truth(0).card()->codes.empty());
  SceneRenderer tooLong(SyntheticScene::card(std::string(5000, 'x')), 64, 48);
  ASSERT_TRUE(tooLong.truth(0).card());
  EXPECT_TRUE(tooLong.truth(0).card()->codes.empty());
}

// A few frames with their truth drawn, for a person to look at.
TEST(CardSceneContactSheet, WritesFramesWithTruth) {
  SceneRenderer scene(SyntheticScene::card(), 1280, 720);
  std::vector<cv::Mat> tiles;
  for (uint64_t i : {0, 200, 450, 640, 900, 1400}) {
    SyntheticFrameTruth t;
    cv::Mat frame = render(scene, i, {}, &t);
    for (auto [corners, colour] : {std::pair{cardOf(t).corners, cv::Scalar(0, 255, 0, 255)},
                                   std::pair{codeCornersOf(t), cv::Scalar(0, 0, 255, 255)}}) {
      std::vector<cv::Point> poly;
      for (const auto& p : quad(corners)) poly.emplace_back(cv::Point(p));
      cv::polylines(frame, poly, true, colour, 2, cv::LINE_AA);
    }
    cv::putText(frame, std::to_string(i) + (cardOf(t).fullyVisible ? "" : " partial"), {20, 50},
                cv::FONT_HERSHEY_SIMPLEX, 1.5, {255, 255, 255, 255}, 3);
    cv::resize(frame, frame, {}, 0.5, 0.5, cv::INTER_AREA);
    tiles.push_back(frame);
  }
  cv::Mat top, bottom, sheet;
  cv::hconcat(std::vector(tiles.begin(), tiles.begin() + 3), top);
  cv::hconcat(std::vector(tiles.begin() + 3, tiles.end()), bottom);
  cv::vconcat(top, bottom, sheet);
  EXPECT_TRUE(cv::imwrite(kwq::test::outputDir() + "/synthetic_scene_sheet.png", sheet));
}

}  // namespace
}  // namespace kwq::synthetic

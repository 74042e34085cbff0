#include "capture/card_capture.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "capture/KWQVideoHelperState.h"
#include "capture/card_detection.h"
#include "kwqimage/CaptureSession.h"
#include "platform/vision/code_reader.h"
#include "support/code_scenes.h"
#include "support/main_loop.h"
#include "support/test_support.h"
#include "synthetic/printed.h"
#include "synthetic/renderer.h"

namespace kwq {
namespace {

using synthetic::SceneRenderer;

// What a frame shows of its card (the first card in the synthetic truth).
struct CardSeen {
  bool cardFullyVisible = false;
  std::array<Point, 4> cardCorners{};
  std::string codeText;
  double exposure = 1.0;
  bool glareVisible = false;
  Point glareCentre;
  double glareRadius = 0.0;
};

CardSeen seen(const SyntheticFrameTruth& t) {
  CardSeen s;
  s.exposure = t.exposure;
  if (const SyntheticPropTruth* card = t.card()) {
    s.cardFullyVisible = card->fullyVisible;
    s.cardCorners = card->corners;
    if (!card->codes.empty()) s.codeText = card->codes[0].text;
    s.glareVisible = card->glareVisible;
    s.glareCentre = card->glareCentre;
    s.glareRadius = card->glareRadius;
  }
  return s;
}

struct Shot {
  SampleBuffer frame;
  CardSeen truth;
};

Shot shoot(SceneRenderer& scene, uint64_t index, uint32_t format = kPixelFormat420f) {
  cv::Mat bgra(static_cast<int>(scene.height()), static_cast<int>(scene.width()), CV_8UC4);
  Shot s;
  s.truth = seen(scene.render(index, {}, bgra.data, bgra.step[0]));
  s.frame =
      SampleBuffer(test::frameFromBgra(bgra, format), MediaTime{static_cast<int64_t>(index), 30});
  return s;
}

double cornerError(const std::array<Point, 4>& a, const std::array<Point, 4>& b) {
  double sum = 0;
  for (size_t i = 0; i < 4; ++i) sum += std::hypot(a[i].x - b[i].x, a[i].y - b[i].y);
  return sum / 4;
}

TEST(CardCapture, FlattenedCardMatchesTheTruthAndReadsItsCode) {
  // Frames over the card's whole path at 1280 x 720, square-on and tilted, in 420f and BGRA.
  SceneRenderer scene(SyntheticScene::card(), 1280, 720);
  const auto detector = makeCardRectangleDetector();
  const std::vector<std::string> pdf417{std::string(AVMetadataObjectTypePDF417Code)};
  double errorSum = 0;
  int measured = 0, read = 0;
  for (uint64_t index = 0; index < 1800; index += 45) {
    const uint32_t format = index % 90 == 0 ? kPixelFormat420f : kPixelFormatBGRA;
    const Shot s = shoot(scene, index, format);
    if (!s.truth.cardFullyVisible) continue;
    const auto features = detector->featuresInImage(s.frame);
    ASSERT_FALSE(features.empty()) << index;
    CardCapture c = analyseCard(s.frame, &features[0], true, std::nullopt, {});
    ASSERT_FALSE(c.card.isNull()) << index;
    const double error = cornerError(c.corners, s.truth.cardCorners);
    EXPECT_LT(error, 2.0) << index;
    errorSum += error;
    ++measured;
    EXPECT_EQ(c.card.width(), 1000u);
    EXPECT_NEAR(static_cast<double>(c.card.width()) / c.card.height(), 86.0 / 54.0,
                0.01 * 86.0 / 54.0);
    // The flattened card alone carries a readable code, with the scene's text.
    const auto codes = platform::readCodes(c.card, pdf417);
    if (!codes.empty()) {
      const auto* code = dynamic_cast<const MetadataMachineReadableCodeObject*>(codes[0].get());
      ASSERT_NE(code, nullptr);
      EXPECT_EQ(code->stringValue, s.truth.codeText);
      ++read;
    }
    if (index == 0 || index == 495)
      c.card.writePNG(test::outputDir() + "/card_capture_" + std::to_string(index) + ".png");
  }
  ASSERT_GE(measured, 25);
  const double mean = errorSum / measured;
  EXPECT_LE(mean, 1.0);
  EXPECT_EQ(read, measured);
  RecordProperty("mean_corner_error_px", std::to_string(mean));
  std::printf("corner error over %d frames: mean %.3f px; code read on %d\n", measured, mean, read);
}

// The card square-on, `widthShare` of a 1280 x 960 frame wide, sampled from a fine drawing
// the way a sensor would (area averaging), over the desk, then blurred by `blur` pixels.
Shot placedCard(const synthetic::Texture& texture, double widthShare, double blur) {
  static SceneRenderer desk(SyntheticScene{}, 1280, 960);
  Shot s = shoot(desk, 0, kPixelFormatBGRA);
  cv::Mat bgra(960, 1280, CV_8UC4);
  desk.render(0, {}, bgra.data, bgra.step[0]);
  const int w = static_cast<int>(std::lround(1280 * widthShare));
  const int h = static_cast<int>(std::lround(w * 54.0 / 86.0));
  cv::Mat card;
  cv::resize(texture.levels.front(), card, cv::Size(w, h), 0, 0, cv::INTER_AREA);
  const int x = (1280 - w) / 2, y = (960 - h) / 2;
  card.copyTo(bgra(cv::Rect(x, y, w, h)));
  if (blur > 0) cv::GaussianBlur(bgra, bgra, cv::Size(), blur);
  s.frame = SampleBuffer(test::frameFromBgra(bgra, kPixelFormat420f), MediaTime{0, 30});
  s.truth.cardCorners = {Point{1.0 * x, 1.0 * y}, Point{1.0 * x + w, 1.0 * y},
                         Point{1.0 * x + w, 1.0 * y + h}, Point{1.0 * x, 1.0 * y + h}};
  return s;
}

platform::RectangleFeature featureOf(const std::array<Point, 4>& c, double height) {
  auto up = [height](Point p) { return Point{p.x, height - p.y}; };
  return {up(c[0]), up(c[1]), up(c[3]), up(c[2]), {}};
}

TEST(CardCapture, SharpnessFallsWithBlurAndKeepsAcrossCardSizes) {
  const synthetic::Texture texture =
      synthetic::makeCardTexture(std::string(kSyntheticCardAAMVAText), 24.0);
  std::vector<double> bySize;
  for (double share : {0.3, 0.45, 0.6, 0.75, 0.9}) {
    const Shot s = placedCard(texture, share, 0.0);
    const auto f = featureOf(s.truth.cardCorners, 960);
    const CardCapture c = analyseCard(s.frame, &f, true, std::nullopt, {});
    bySize.push_back(c.sharpness);
  }
  for (double v : bySize) {
    EXPECT_NEAR(v, bySize[2], 0.05 * bySize[2]) << ::testing::PrintToString(bySize);
    std::printf("sharpness %.2f\n", v);
  }

  double previous = INFINITY;
  for (double blur : {0.0, 0.5, 1.0, 1.5, 2.0, 3.0, 4.0, 6.0}) {
    const Shot s = placedCard(texture, 0.45, blur);
    const auto f = featureOf(s.truth.cardCorners, 960);
    const CardCapture c = analyseCard(s.frame, &f, true, std::nullopt, {});
    EXPECT_LT(c.sharpness, previous) << blur;
    std::printf("blur %.1f sharpness %.2f guidance %s\n", blur, c.sharpness,
                cardGuidanceName(c.guidance));
    previous = c.sharpness;
  }
}

TEST(CardCapture, SyntheticAAMVARecordParsesAndItsReadRateIsMeasured) {
  // The card's record is one the parser takes without a warning (its fields are the
  // fixture's own; the tool's card.json shows them read back).
  const AAMVAParseResult record = parseAAMVA(kSyntheticCardAAMVAText);
  ASSERT_TRUE(record.ok()) << record.message;
  EXPECT_TRUE(record.record->warnings.empty());

  // How often the engine's reader reads each text on the synthetic camera's frames (every
  // 30th frame of the 60 s path where the code is in the picture), and from the flattened
  // card. A short text reads on every frame; the record, the card's default, reads on some
  // frames and on every flattened card, so a stable card always brings its record.
  const std::vector<std::string> pdf417{std::string(AVMetadataObjectTypePDF417Code)};
  const auto detector = makeCardRectangleDetector();
  for (const std::string text :
       {std::string("KWQIMAGE SYNTHETIC CARD 0001"), std::string(kSyntheticCardAAMVAText)}) {
    SceneRenderer scene(SyntheticScene::card(text), 1280, 720);
    auto reads = [&](const auto& picture) {
      for (const auto& o : platform::readCodes(picture, pdf417)) {
        const auto* c = dynamic_cast<const MetadataMachineReadableCodeObject*>(o.get());
        if (c && c->stringValue == text) return true;
      }
      return false;
    };
    int frames = 0, readFrame = 0, cards = 0, readCard = 0;
    for (uint64_t i = 0; i < 1800; i += 30) {
      const Shot s = shoot(scene, i);
      if (!s.truth.cardFullyVisible) continue;
      ++frames;
      readFrame += reads(s.frame);
      const auto f = detector->featuresInImage(s.frame);
      if (f.empty()) continue;
      const CardCapture capture = analyseCard(s.frame, &f[0], true, std::nullopt, {});
      ++cards;
      readCard += reads(capture.card);
    }
    std::printf("%s: read on %d of %d frames, on %d of %d flattened cards\n",
                text.size() > 40 ? "AAMVA record" : text.c_str(), readFrame, frames, readCard,
                cards);
    EXPECT_EQ(readCard, cards);
    if (text.size() < 40)
      EXPECT_EQ(readFrame, frames);
    else
      EXPECT_GE(readFrame * 5, frames);
  }
}

// Precision and recall of a yes/no verdict against the truth.
struct Tally {
  int truePositive = 0, falsePositive = 0, falseNegative = 0, trueNegative = 0;
  void add(bool said, bool truth) {
    truePositive += said && truth;
    falsePositive += said && !truth;
    falseNegative += !said && truth;
    trueNegative += !said && !truth;
  }
  double precision() const {
    return truePositive / std::max(1.0, 1.0 * (truePositive + falsePositive));
  }
  double recall() const {
    return truePositive / std::max(1.0, 1.0 * (truePositive + falseNegative));
  }
  void expectGood(const char* what) const {
    std::printf(
        "%s: %d true, %d false positives, %d missed, %d true negatives; precision %.3f "
        "recall %.3f\n",
        what, truePositive, falsePositive, falseNegative, trueNegative, precision(), recall());
    EXPECT_GE(truePositive, 20) << what;
    EXPECT_GE(trueNegative, 20) << what;
    EXPECT_GE(precision(), 0.95) << what;
    EXPECT_GE(recall(), 0.95) << what;
  }
};

TEST(CardCapture, GlareAndDarkVerdictsMatchTheSyntheticTruth) {
  // Half the frames carry a hotspot and a third of the seconds are dim; exposure drifts by a
  // quarter either way besides, so bright card stock must not pass for glare, nor the
  // drift's low point for darkness.
  SyntheticScene lit = SyntheticScene::card();
  lit.light = {.exposureDrift = 0.25, .dimProbability = 0.4, .glareProbability = 0.5};
  lit.seed = 3;
  SceneRenderer scene(lit, 1280, 720);
  const auto detector = makeCardRectangleDetector();
  Tally glare, dark;
  bool savedGlare = false, savedDark = false;
  for (uint64_t i = 0; i < 1800; i += 10) {
    const Shot s = shoot(scene, i);
    if (!s.truth.cardFullyVisible) continue;
    const auto f = detector->featuresInImage(s.frame);
    if (f.empty()) continue;
    const CardCapture c = analyseCard(s.frame, &f[0], true, std::nullopt, {});
    // Darkness speaks first; a hotspot is measured whatever the light (it saturates).
    const bool saidDark = c.guidance == CardGuidance::TooDark;
    const bool saidGlare = c.glare.areaFraction > CardCaptureSettings{}.maxGlareFraction;
    EXPECT_EQ(saidGlare && !saidDark, c.guidance == CardGuidance::Glare) << i;
    dark.add(saidDark, s.truth.exposure < 0.5);
    glare.add(saidGlare, s.truth.glareVisible);
    if (saidGlare && s.truth.glareVisible) {
      // The highlight's centre, taken back into the frame, lies on the hotspot.
      const double u = c.glare.centre.x / c.card.width(), v = c.glare.centre.y / c.card.height();
      const auto& k = c.corners;
      const double x =
          (1 - v) * ((1 - u) * k[0].x + u * k[1].x) + v * ((1 - u) * k[3].x + u * k[2].x);
      const double y =
          (1 - v) * ((1 - u) * k[0].y + u * k[1].y) + v * ((1 - u) * k[3].y + u * k[2].y);
      EXPECT_LT(std::hypot(x - s.truth.glareCentre.x, y - s.truth.glareCentre.y),
                s.truth.glareRadius)
          << i;
      if (!savedGlare) savedGlare = c.card.writePNG(test::outputDir() + "/card_capture_glare.png");
    }
    if (saidDark && !savedDark)
      savedDark = c.card.writePNG(test::outputDir() + "/card_capture_dark.png");
  }
  glare.expectGood("glare");
  dark.expectGood("too dark");
}

TEST(CardCapture, BestIsGlareFreeThenLitThenSharpestWithinItsWindow) {
  // Captures as the analysis makes them; only what the ranking reads is set.
  auto capture = [](double sharpness, double glare, double brightness, double x = 100) {
    CardCapture c;
    c.card = Image::withoutBitmap({8, 5});
    c.guidance = CardGuidance::Ok;
    c.sharpness = sharpness;
    c.glare.areaFraction = glare;
    c.brightness = brightness;
    c.corners = {Point{x, 100}, Point{x + 500, 100}, Point{x + 500, 414}, Point{x, 414}};
    return c;
  };
  CardCaptureSettings settings;
  settings.readCode = false;
  CardCaptureKeeper keeper;
  uint64_t frame = 0;
  auto offer = [&](CardCapture c) { return keeper.offer(c, frame++, settings).sharpness; };

  CardCapture first = capture(150, 0, 120);
  first.codeText = "CODE 1";
  EXPECT_EQ(offer(first), 150);
  EXPECT_EQ(offer(capture(400, 0.01, 120)), 150);  // sharper, but with glare
  EXPECT_EQ(offer(capture(400, 0, 40)), 150);      // sharper, but too dark
  CardCapture nothing;                             // no card on this frame
  EXPECT_EQ(offer(nothing), 150);
  CardCapture sharper = capture(160, 0, 120);
  EXPECT_EQ(offer(sharper), 160);
  // The same card keeps the text read from an earlier best.
  EXPECT_EQ(keeper.best().codeText, "CODE 1");
  // Past the window any flattened card replaces the best, and a card elsewhere in the
  // picture does not inherit the text.
  frame += settings.bestWindowFrames;
  EXPECT_EQ(offer(capture(90, 0.01, 120, 600)), 90);
  EXPECT_EQ(keeper.best().codeText, std::nullopt);
  // A glare-free capture beats the glare one whatever its sharpness.
  EXPECT_EQ(offer(capture(50, 0, 120, 600)), 50);
  keeper.reset();
  EXPECT_TRUE(keeper.best().card.isNull());
}

// A host that takes card captures, and optionally the frame call too.
class CardHost : public KWQCardCaptureDelegate {
 public:
  void cardCaptureDidUpdate(const CardCapture& live, const CardCapture& best) override {
    lives.push_back(live);
    bests.push_back(best);
  }
  std::vector<CardCapture> lives, bests;
};
class CardAndFrameHost : public CardHost, public KWQFrameDelegate {
 public:
  void getLastSampleBuffer(const SampleBuffer&, Rect rect, double, double,
                           const std::optional<std::string>&) override {
    frameCalls.push_back(rect);
  }
  std::vector<Rect> frameCalls;
};

class CardCaptureEngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CaptureDevice::setDevices({CaptureDevice::syntheticCamera({})});
    engine = KWQVideoHelper::create();
    engine->setShouldDetectCardRect(true);
  }
  void TearDown() override {
    test::drainMainContext();
    CaptureDevice::resetDevices();
  }
  void feed(const SampleBuffer& sample) {
    engine->captureOutput(*engine->videoDataOutput(), sample, *engine->state().captureConnection);
  }
  std::shared_ptr<KWQVideoHelper> engine;
};

TEST_F(CardCaptureEngineTest, GuidanceFollowsTheCardAndTheBestCaptureCarriesItsData) {
  auto host = std::make_shared<CardAndFrameHost>();
  engine->setDelegate(host);
  SceneRenderer empty(SyntheticScene{}, 1280, 720);
  feed(shoot(empty, 0).frame);
  SceneRenderer scene(SyntheticScene::card(), 1280, 720);
  std::vector<CardSeen> truths;
  for (uint64_t i = 1; i <= 12; ++i) {
    const Shot s = shoot(scene, i);
    truths.push_back(s.truth);
    feed(s.frame);
  }
  ASSERT_EQ(host->lives.size(), 13u);
  EXPECT_EQ(host->lives[0].guidance, CardGuidance::NoCard);
  EXPECT_TRUE(host->lives[0].card.isNull());
  EXPECT_EQ(host->bests[0].guidance, CardGuidance::NoCard);
  // Five accepted frames before the stable one: hold still, and no flattening yet.
  for (size_t i = 1; i <= 5; ++i) {
    EXPECT_EQ(host->lives[i].guidance, CardGuidance::HoldStill) << i;
    EXPECT_TRUE(host->lives[i].card.isNull()) << i;
    EXPECT_LT(cornerError(host->lives[i].corners, truths[i - 1].cardCorners), 1.0) << i;
  }
  for (size_t i = 6; i <= 12; ++i) {
    const CardCapture& live = host->lives[i];
    EXPECT_EQ(live.guidance, CardGuidance::Ok)
        << i << ": " << ::testing::PrintToString(live.reasons);
    EXPECT_FALSE(live.card.isNull()) << i;
    EXPECT_EQ(live.codeText, truths[i - 1].codeText) << i;
    EXPECT_EQ(live.time, static_cast<double>(i) / 30) << i;
    const CardCapture& best = host->bests[i];
    EXPECT_FALSE(best.card.isNull());
    EXPECT_EQ(best.codeText, truths[i - 1].codeText);
    // The best is the sharpest so far.
    for (size_t j = 6; j <= i; ++j) EXPECT_GE(best.sharpness, host->lives[j].sharpness);
  }
  // The frame call is unchanged: the stable-card marker on the stable frames only.
  EXPECT_EQ(host->frameCalls, std::vector<Rect>(7, kStableCardMarker));
}

TEST_F(CardCaptureEngineTest, HostsWithoutTheInterfacePayNothingAndFaceModeHasNoCaptures) {
  // A frame-only host: no card is flattened (the keeper stays empty).
  class FrameOnly : public KWQFrameDelegate {
   public:
    void getLastSampleBuffer(const SampleBuffer&, Rect, double, double,
                             const std::optional<std::string>&) override {}
  };
  const auto frameOnly = std::make_shared<FrameOnly>();  // the engine holds it weakly
  engine->setDelegate(frameOnly);
  SceneRenderer scene(SyntheticScene::card(), 1280, 720);
  for (uint64_t i = 0; i < 8; ++i) feed(shoot(scene, i).frame);
  EXPECT_EQ(engine->consecutiveDetectionFrames(), 8);
  EXPECT_EQ(engine->state().cardCaptureFrames, 0u);
  EXPECT_TRUE(engine->state().cardKeeper.best().card.isNull());

  // A card host in face mode hears nothing; in card mode it is called on every frame.
  auto host = std::make_shared<CardHost>();
  engine->setDelegate(host);
  engine->setShouldDetectCardRect(false);
  feed(shoot(scene, 8).frame);
  EXPECT_TRUE(host->lives.empty());
  engine->setShouldDetectCardRect(true);
  feed(shoot(scene, 9).frame);
  ASSERT_EQ(host->lives.size(), 1u);
  EXPECT_EQ(host->lives[0].guidance, CardGuidance::Ok)  // the run of accepted frames went on
      << ::testing::PrintToString(host->lives[0].reasons);
}

}  // namespace
}  // namespace kwq

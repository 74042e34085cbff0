// Machine-readable zones on the synthetic studio's passport page and ID card back: the truth
// the studio gives, zones read at many turns and sizes with their corners, and pictures that
// must not give a valid zone (none at all, garbage in OCR-B, a zone cut by the edge).

#include "platform/vision/mrz_reader.h"

#include <cmath>
#include <random>
#include <string>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "kwqimage/Image.h"
#include "kwqimage/MRZ.h"
#include "kwqimage/SyntheticScene.h"
#include "support/code_scenes.h"
#include "synthetic/renderer.h"

namespace kwq {
namespace {

constexpr int kW = 1280, kH = 720;

struct Shot {
  cv::Mat gray;
  SyntheticFrameTruth truth;
};

Shot film(const SyntheticScene& scene, uint64_t frame = 0) {
  synthetic::SceneRenderer r(scene, kW, kH);
  cv::Mat bgra(kH, kW, CV_8UC4);
  Shot s;
  s.truth = r.render(frame, {}, bgra.data, bgra.step[0]);
  cv::cvtColor(bgra, s.gray, cv::COLOR_BGRA2GRAY);
  return s;
}

SyntheticProp document(bool passport, double capPx, double roll, const std::string& mrz = "") {
  SyntheticProp p;
  p.kind = passport ? SyntheticPropKind::Passport : SyntheticPropKind::IdCardBack;
  p.codeText.clear();
  p.mrzText = mrz;
  p.size = capPx * (passport ? 125.0 : 86.0) / 2.4 / kW;
  p.rollDegrees = roll;
  return p;
}

SyntheticScene sceneOf(std::vector<SyntheticProp> props, double blur = 0.5, double noise = 2) {
  SyntheticScene s;
  s.seed = 11;
  s.blurSigma = blur;
  s.noiseSigma = noise;
  s.props = std::move(props);
  return s;
}

std::optional<platform::MRZLinesRead> read(const Shot& s) {
  return platform::readMRZLines(s.gray.data, kW, kH, s.gray.step[0]);
}

std::string joined(const std::vector<std::string>& lines) {
  std::string out;
  for (size_t i = 0; i < lines.size(); ++i) out += (i ? "\n" : "") + lines[i];
  return out;
}

TEST(SyntheticDocuments, PrintValidZonesAndTellWhereTheyStand) {
  for (const bool passport : {true, false}) {
    const std::string want(passport ? kSyntheticPassportMRZ : kSyntheticIdCardMRZ);
    const MRZParseResult p = parseMRZ(want, MRZDate{2026, 11, 25});
    ASSERT_TRUE(p.ok());
    EXPECT_TRUE(p.record->valid);
    EXPECT_EQ(p.record->issuingState, "UTO");
    EXPECT_EQ(p.record->surname, "LINDQVIST");

    const auto preset = SyntheticScene::preset(passport ? "passport" : "idcard");
    ASSERT_TRUE(preset);
    ASSERT_EQ(preset->props.size(), 1u);
    const Shot s = film(sceneOf({document(passport, 12, 10)}));
    ASSERT_EQ(s.truth.props.size(), 1u);
    const SyntheticPropTruth& t = s.truth.props[0];
    EXPECT_STREQ(syntheticPropKindName(t.kind), passport ? "passport" : "idcard");
    ASSERT_TRUE(t.mrz);
    EXPECT_EQ(t.mrz->text, want);
    EXPECT_TRUE(t.mrz->fullyVisible);
    EXPECT_NEAR(t.mrz->characterHeight, 12.0, 0.5);
    // The zone lies in the document's lower part, across most of its width.
    const double docWidth =
        std::hypot(t.corners[1].x - t.corners[0].x, t.corners[1].y - t.corners[0].y);
    const double zoneWidth = std::hypot(t.mrz->corners[1].x - t.mrz->corners[0].x,
                                        t.mrz->corners[1].y - t.mrz->corners[0].y);
    EXPECT_NEAR(zoneWidth / docWidth, passport ? 111.76 / 125.0 : 76.2 / 86.0, 0.01);
  }
  std::string error;
  const auto fromJson = syntheticSceneFromJson(
      R"({"props": [{"kind": "idcard", "mrz": "I<UTO\nX\nY", "size": 0.3}]})", &error);
  ASSERT_TRUE(fromJson) << error;
  EXPECT_EQ(fromJson->props[0].kind, SyntheticPropKind::IdCardBack);
  EXPECT_EQ(fromJson->props[0].mrzText, "I<UTO\nX\nY");
}

// Any turn, capitals 9 to 20 pixels, both layouts, the document tilted a little: the zone read
// whole and valid, its corners where it is printed.
TEST(MRZReader, ReadsZonesAtAnyTurnAndSizeWithTheirCorners) {
  const struct {
    bool passport;
    double cap, roll, yaw;
  } cases[] = {{true, 10, 0, 0},     {true, 14, 90, 10},   {true, 18, 183, -12},
               {true, 12, 271, 0},   {true, 9, 37, 8},     {false, 12, 0, 0},
               {false, 16, 135, 10}, {false, 17, 300, -8}, {false, 10, 200, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << (c.passport ? "passport" : "card") << " cap " << c.cap << " roll " << c.roll);
    SyntheticProp doc = document(c.passport, c.cap, c.roll);
    doc.yawDegrees = c.yaw;
    const Shot s = film(sceneOf({doc}));
    const SyntheticMRZTruth& truth = *s.truth.props.at(0).mrz;
    ASSERT_TRUE(truth.fullyVisible);
    const auto r = read(s);
    ASSERT_TRUE(r);
    EXPECT_EQ(joined(r->lines), truth.text);
    for (size_t i = 0; i < 4; ++i)
      EXPECT_LT(
          std::hypot(r->corners[i].x - truth.corners[i].x, r->corners[i].y - truth.corners[i].y),
          0.5 * truth.characterHeight)
          << "corner " << i;
    EXPECT_NEAR(r->characterHeight, truth.characterHeight, 0.15 * truth.characterHeight);
  }
}

TEST(MRZReader, GivesNothingValidWhereThereIsNoWholeZone) {
  std::mt19937 rng(5);
  const std::string symbols = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789<";
  std::string garbage;
  for (int l = 0; l < 2; ++l) {
    for (int i = 0; i < 44; ++i) garbage += symbols[rng() % symbols.size()];
    garbage += l == 0 ? "\n" : "";
  }
  SyntheticProp cut = document(true, 14, 0);
  cut.at = {0.5, 0.08};  // the zone half out of the picture's top... with the page upside down
  cut.rollDegrees = 180;
  SyntheticProp card;
  card.size = 0.5;
  const struct {
    const char* what;
    SyntheticScene scene;
  } cases[] = {
      {"empty desk", sceneOf({})},
      {"licence front with its code", sceneOf({card})},
      {"garbage in OCR-B", sceneOf({document(true, 14, 20, garbage)})},
      {"zone cut by the edge", sceneOf({cut})},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Shot s = film(c.scene);
    const auto r = read(s);
    if (!r) continue;
    const MRZParseResult p = parseMRZ(joined(r->lines), MRZDate{2026, 11, 25}, r->uncertain);
    EXPECT_FALSE(p.ok() && p.record->valid) << joined(r->lines);
  }
  // Pictures too small or null: nothing, no crash.
  const uint8_t px[4] = {0, 0, 0, 0};
  EXPECT_FALSE(platform::readMRZLines(nullptr, 100, 100, 100));
  EXPECT_FALSE(platform::readMRZLines(px, 2, 2, 2));
  EXPECT_FALSE(platform::readMRZLines(px, 2, 2, 1));
  EXPECT_FALSE(readMRZ(Image()));
}

TEST(MRZReader, TwoDocumentsInViewGiveOneWholeZone) {
  SyntheticProp a = document(true, 11, 10), b = document(false, 11, -15);
  a.at = {0.3, 0.5};
  b.at = {0.78, 0.5};
  const Shot s = film(sceneOf({a, b}));
  const auto r = read(s);
  ASSERT_TRUE(r);
  const std::string text = joined(r->lines);
  EXPECT_TRUE(text == kSyntheticPassportMRZ || text == kSyntheticIdCardMRZ) << text;

  // Through the public entry on a BGRA image: parsed, valid, and with the record's fields.
  cv::Mat bgra;
  cv::cvtColor(s.gray, bgra, cv::COLOR_GRAY2BGRA);
  const Image image =
      Image::copyFromBytes(PixelLayout::BGRA32Premultiplied, kW, kH, bgra.step[0], bgra.data);
  const auto m = readMRZ(image);
  ASSERT_TRUE(m);
  EXPECT_TRUE(m->record.valid);
  EXPECT_EQ(m->record.surname, "LINDQVIST");
}

// Camera frames as the metadata output reads them: the zone as a code object of its own type,
// its text the lines, its corners normalised and ordered like a code's (bottom left first).
TEST(MRZReader, ReadsCameraFramesAsCodeObjects) {
  const Shot s = film(sceneOf({document(true, 12, 0)}));
  const SyntheticMRZTruth& truth = *s.truth.props.at(0).mrz;
  cv::Mat bgra;
  cv::cvtColor(s.gray, bgra, cv::COLOR_GRAY2BGRA);
  for (const uint32_t format : {kPixelFormat420f, kPixelFormatBGRA}) {
    const SampleBuffer frame(test::frameFromBgra(bgra, format, 64), {1001, 30000}, {1000, 30000});
    const auto zone = platform::readMRZ(frame);
    ASSERT_TRUE(zone);
    EXPECT_TRUE(zone->valid);
    EXPECT_EQ(zone->object->type, KWQMetadataObjectTypeMRZ);
    EXPECT_EQ(zone->object->stringValue, truth.text);
    ASSERT_EQ(zone->object->corners.size(), 4u);
    const Point& bottomLeft = zone->object->corners[0];
    EXPECT_NEAR(bottomLeft.x * kW, truth.corners[3].x, 0.5 * truth.characterHeight);
    EXPECT_NEAR(bottomLeft.y * kH, truth.corners[3].y, 0.5 * truth.characterHeight);
  }
  EXPECT_FALSE(platform::readMRZ(SampleBuffer()));
}

}  // namespace
}  // namespace kwq

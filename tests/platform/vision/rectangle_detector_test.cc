#include "platform/vision/rectangle_detector.h"

#include <array>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "capture/card_detection.h"
#include "support/test_support.h"
#include "synthetic/motion.h"
#include "synthetic/renderer.h"

// Fontconfig keeps what it parses for the synthetic card's text for the life of the process.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libexpat.so\n";
}

namespace kwq::platform {
namespace {

using Quad = std::array<cv::Point2d, 4>;  // top left, top right, bottom right, bottom left

// A feature's corners as one reads them off the picture (top-left origin, y down).
Quad seen(const RectangleFeature& f, double height) {
  auto down = [&](Point p) { return cv::Point2d(p.x, height - p.y); };
  return {down(f.topLeft), down(f.topRight), down(f.bottomRight), down(f.bottomLeft)};
}

double cornerError(const RectangleFeature& f, double height, const Quad& expected) {
  const Quad q = seen(f, height);
  double worst = 0;
  for (size_t i = 0; i < 4; ++i) worst = std::max(worst, cv::norm(q[i] - expected[i]));
  return worst;
}

// True when some feature has the expected corners, label for label, within `tolerance`.
bool finds(const std::vector<RectangleFeature>& features, double height, const Quad& expected,
           double tolerance) {
  for (const RectangleFeature& f : features)
    if (cornerError(f, height, expected) <= tolerance) return true;
  return false;
}

RectangleDetectorOptions plain(RectangleAccuracy accuracy = RectangleAccuracy::High) {
  return {accuracy, 0.0, -1.0, 8};
}

Image imageOf(const cv::Mat& bgra) {
  return Image::copyFromBytes(PixelLayout::BGRA32Premultiplied, bgra.cols, bgra.rows, bgra.step[0],
                              bgra.data);
}

PixelBuffer bgraBuffer(const cv::Mat& bgra) {
  PixelBuffer b = PixelBuffer::allocate(kPixelFormatBGRA, bgra.cols, bgra.rows);
  b.lockBaseAddress();
  for (int y = 0; y < bgra.rows; ++y)
    std::copy_n(bgra.ptr(y), bgra.cols * 4, b.baseAddressOfPlane(0) + y * b.bytesPerRowOfPlane(0));
  b.unlockBaseAddress();
  return b;
}

// Bi-planar 4:2:0 with full-range BT.601 luma worked out here, grey chroma, padded rows.
PixelBuffer nv12Buffer(const cv::Mat& bgra, uint32_t format, size_t rowAlignment) {
  PixelBuffer b = PixelBuffer::allocate(format, bgra.cols, bgra.rows, rowAlignment);
  b.lockBaseAddress();
  for (int y = 0; y < bgra.rows; ++y) {
    uint8_t* luma = b.baseAddressOfPlane(0) + y * b.bytesPerRowOfPlane(0);
    for (int x = 0; x < bgra.cols; ++x) {
      const cv::Vec4b p = bgra.at<cv::Vec4b>(y, x);
      luma[x] = static_cast<uint8_t>(std::lround(0.114 * p[0] + 0.587 * p[1] + 0.299 * p[2]));
    }
  }
  for (size_t y = 0; y < b.heightOfPlane(1); ++y)
    std::fill_n(b.baseAddressOfPlane(1) + y * b.bytesPerRowOfPlane(1), 2 * b.widthOfPlane(1), 128);
  b.unlockBaseAddress();
  return b;
}

using synthetic::SceneRenderer;

cv::Mat sceneFrame(SceneRenderer& scene, uint64_t index, SyntheticFrameTruth* truth = nullptr) {
  cv::Mat bgra(static_cast<int>(scene.height()), static_cast<int>(scene.width()), CV_8UC4);
  const SyntheticFrameTruth t = scene.render(index, {}, bgra.data, bgra.step[0]);
  if (truth) *truth = t;
  return bgra;
}

TEST(RectangleDetector, FindsTheOutlinesInPhotographs) {
  // Corners read off the pictures (top left, top right, bottom right, bottom left). The
  // cards' outlines are hairlines: either side of one is an edge.
  const Image cards = test::loadSample("cards.png");
  const auto inCards = createRectangleDetector(plain())->featuresInImage(cards);
  EXPECT_TRUE(finds(inCards, 480, {{{172, 78}, {257, 78}, {257, 204}, {172, 203}}}, 3));
  EXPECT_TRUE(finds(inCards, 480, {{{334, 125}, {419, 125}, {419, 251}, {334, 251}}}, 3));

  // The box fills the photograph; its outline beats the printed frame inside it.
  const auto inBox = createRectangleDetector(plain())->featuresInImage(test::loadSample("box.png"));
  ASSERT_FALSE(inBox.empty());
  EXPECT_LE(cornerError(inBox[0], 223, {{{3, 3}, {321, 6}, {320, 220}, {2, 220}}}), 3);

  // Three black rectangles, one turned (its top-left label goes to the corner nearest the
  // picture's top left); the triangle, the head and the question mark are no rectangles.
  for (RectangleAccuracy accuracy : {RectangleAccuracy::High, RectangleAccuracy::Low}) {
    const auto f =
        createRectangleDetector(plain(accuracy))->featuresInImage(test::loadSample("pic1.png"));
    const double tolerance = accuracy == RectangleAccuracy::High ? 1.5 : 4;
    EXPECT_EQ(f.size(), 3u);
    EXPECT_TRUE(finds(f, 300, {{{43, 25}, {232, 25}, {232, 129}, {43, 129}}}, tolerance));
    EXPECT_TRUE(finds(f, 300, {{{251, 87}, {324, 40}, {387, 137}, {314, 185}}}, tolerance));
  }
}

TEST(RectangleDetector, NothingInPhotographsWithoutRectangles) {
  // Faces, fruit, sweets, fur, a butterfly: curved or textured, nothing four-sided.
  // The card settings too: their aspect-ratio hint ranks and hides nothing, so they must not
  // make rectangles of these either.
  for (const auto& detector :
       {createRectangleDetector(plain(RectangleAccuracy::High)),
        createRectangleDetector(plain(RectangleAccuracy::Low)), makeCardRectangleDetector()})
    for (const char* name : {"messi5.jpg", "baboon.jpg", "fruits.jpg", "orange.jpg", "smarties.png",
                             "butterfly.jpg", "HappyFish.jpg", "apple.jpg"})
      EXPECT_TRUE(detector->featuresInImage(test::loadSample(name)).empty()) << name;
}

TEST(RectangleDetector, SyntheticCardIsAcceptedOnItsFrames) {
  const auto detector = makeCardRectangleDetector();
  struct Run {
    SyntheticScene options;
    uint64_t step;
  };
  SyntheticScene rough = SyntheticScene::card();
  rough.seed = 2;
  rough.blurSigma = 1.2;
  rough.noiseSigma = 4;
  rough.light.exposureDrift = 0.2;
  for (const Run& run : {Run{SyntheticScene::card(), 12}, Run{rough, 24}}) {
    SceneRenderer scene(run.options, 1280, 720);
    int eligible = 0, accepted = 0, exact = 0;
    for (uint64_t i = 0; i < synthetic::kHandheldPeriodFrames; i += run.step) {
      SyntheticFrameTruth truth;
      const cv::Mat frame = sceneFrame(scene, i, &truth);
      RectangleFeature real;  // the true corners, y up
      Point* corner[4] = {&real.topLeft, &real.topRight, &real.bottomRight, &real.bottomLeft};
      for (size_t c = 0; c < 4; ++c)
        *corner[c] = {truth.card()->corners[c].x, 720 - truth.card()->corners[c].y};
      if (!truth.card()->fullyVisible ||
          !(std::abs(measureCard(real).ratio - kCardAspectRatio) <= kDefaultCardDetectionThreshold))
        continue;
      ++eligible;
      const auto features = detector->featuresInImage(bgraBuffer(frame));
      CardDetectionState state;
      performRectangleDetection(state, features);
      accepted += state.consecutiveDetectionFrames == 1;
      exact += !features.empty() && cornerError(features[0], 720, seen(real, 720)) <= 1.0;
    }
    EXPECT_GT(eligible, 50);
    EXPECT_GE(accepted, 0.95 * eligible) << "seed " << run.options.seed;
    EXPECT_GE(exact, 0.95 * eligible) << "seed " << run.options.seed;

    SyntheticScene empty = run.options;
    empty.props.clear();
    SceneRenderer desk(empty, 1280, 720);
    for (uint64_t i = 0; i < synthetic::kHandheldPeriodFrames; i += 60) {
      CardDetectionState state;
      performRectangleDetection(state, *detector, bgraBuffer(sceneFrame(desk, i)));
      EXPECT_EQ(state.consecutiveDetectionFrames, 0) << "frame " << i;
    }
  }
}

TEST(RectangleDetector, NV12FramesFindTheSameQuadAsBGRA) {
  const auto detector = makeCardRectangleDetector();
  SceneRenderer scene(SyntheticScene::card(), 1280, 720);
  for (uint64_t i : {0, 400, 1000}) {
    const cv::Mat full = sceneFrame(scene, i);
    // An odd size too: the chroma plane rounds up, the luma plane must not.
    for (const cv::Mat& frame : {full, full(cv::Rect(0, 0, 1279, 719)).clone()}) {
      const auto expected = detector->featuresInImage(bgraBuffer(frame));
      ASSERT_EQ(expected.size(), 1u) << i;
      for (auto [format, align] : {std::pair{kPixelFormat420f, 64}, {kPixelFormat420v, 256}}) {
        const auto got = detector->featuresInImage(nv12Buffer(frame, format, align));
        ASSERT_EQ(got.size(), 1u) << i;
        EXPECT_LE(cornerError(got[0], frame.rows, seen(expected[0], frame.rows)), 0.5) << i;
      }
    }
  }
}

TEST(RectangleDetector, BadInputGivesNothing) {
  const auto detector = createRectangleDetector(plain());
  EXPECT_TRUE(detector->featuresInImage(PixelBuffer()).empty());
  EXPECT_TRUE(detector->featuresInImage(SampleBuffer()).empty());
  EXPECT_TRUE(detector->featuresInImage(Image()).empty());
  EXPECT_TRUE(detector->featuresInImage(Image::withoutBitmap({640, 480})).empty());
  std::vector<uint8_t> bytes(640 * 480 * 2, 90);
  const PixelBuffer yuyv = PixelBuffer::wrap(fourCharCode("2vuy"), 640, 480,
                                             {PixelPlane{bytes.data(), 1280, 640, 480}}, {});
  ASSERT_FALSE(yuyv.isNull());
  EXPECT_TRUE(detector->featuresInImage(yuyv).empty());
  // Frames too small or too thin to hold anything, and one thin after reduction.
  for (auto [w, h] : {std::pair<size_t, size_t>{1, 1}, {15, 400}, {400, 15}, {20000, 16}})
    EXPECT_TRUE(detector->featuresInImage(PixelBuffer::allocate(kPixelFormat420f, w, h)).empty());
  const uint8_t gray = 128;
  EXPECT_TRUE(
      detector->featuresInImage(Image::filled(PixelLayout::Gray8, 1280, 720, &gray)).empty());
  // Every layout of a picture with a rectangle in it works.
  cv::Mat canvas(300, 400, CV_8UC4, cv::Scalar(40, 40, 40, 255));
  cv::rectangle(canvas, cv::Rect(100, 80, 160, 100), cv::Scalar(220, 220, 220, 255), cv::FILLED);
  for (PixelLayout layout : {PixelLayout::Gray8, PixelLayout::RGB24, PixelLayout::RGBA32})
    EXPECT_EQ(detector->featuresInImage(imageOf(canvas).converted(layout)).size(), 1u);
}

TEST(RectangleDetector, AspectRatioHintRanksButNeverHides) {
  // A card-shaped light rectangle and a larger square on a dark ground.
  cv::Mat canvas(720, 1280, CV_8UC4, cv::Scalar(40, 40, 40, 255));
  cv::rectangle(canvas, cv::Rect(100, 100, 430, 270), cv::Scalar(200, 200, 200, 255), cv::FILLED);
  cv::rectangle(canvas, cv::Rect(700, 200, 400, 400), cv::Scalar(200, 200, 200, 255), cv::FILLED);
  const Quad card = {{{100, 100}, {530, 100}, {530, 370}, {100, 370}}};
  const Quad square = {{{700, 200}, {1100, 200}, {1100, 600}, {700, 600}}};
  auto run = [&](const cv::Mat& picture, double ratio, double focal, int count = 4) {
    return createRectangleDetector({RectangleAccuracy::High, ratio, focal, count})
        ->featuresInImage(imageOf(picture));
  };
  // Without a hint the larger square leads; with one the card does, both ways of measuring
  // the shape, and the square follows instead of vanishing.
  const auto unhinted = run(canvas, 0.0, -1.0);
  ASSERT_EQ(unhinted.size(), 2u);
  EXPECT_LE(cornerError(unhinted[0], 720, square), 1);
  for (double focal : {-1.0, 0.0, 900.0}) {
    const auto hinted = run(canvas, kCardAspectRatio, focal);
    ASSERT_EQ(hinted.size(), 2u) << focal;
    EXPECT_LE(cornerError(hinted[0], 720, card), 1) << focal;
    EXPECT_LE(cornerError(hinted[1], 720, square), 1) << focal;
  }

  // The card tilted back by 60 degrees in front of a camera of focal length 900 looks more
  // than three times as wide as high; beside it lies a flat 2.2 : 1 strip of about its area.
  // Measured as they appear the strip is nearer the hint; measured with the focal length the
  // tilted card gives its true shape back and leads.
  cv::Mat tilted(720, 1280, CV_8UC4, cv::Scalar(40, 40, 40, 255));
  std::vector<cv::Point> outline;
  for (auto [x, y] : {std::pair{-43.0, -27.0}, {43.0, -27.0}, {43.0, 27.0}, {-43.0, 27.0}}) {
    const double t = 60 * CV_PI / 180, z = 1500 + 6 * y * std::sin(t);
    outline.emplace_back(cvRound(640 + 900 * 6 * x / z),
                         cvRound(360 + 900 * 6 * y * std::cos(t) / z));
  }
  cv::fillConvexPoly(tilted, outline, cv::Scalar(200, 200, 200, 255), cv::LINE_AA);
  cv::rectangle(tilted, cv::Rect(100, 500, 264, 120), cv::Scalar(200, 200, 200, 255), cv::FILLED);
  const Quad strip = {{{100, 500}, {364, 500}, {364, 620}, {100, 620}}};
  const auto flat = run(tilted, kCardAspectRatio, 0.0);
  ASSERT_EQ(flat.size(), 2u);
  EXPECT_LE(cornerError(flat[0], 720, strip), 1);
  const auto perspective = run(tilted, kCardAspectRatio, 900.0);
  ASSERT_EQ(perspective.size(), 2u);
  EXPECT_LE(cornerError(perspective[1], 720, strip), 1);
  EXPECT_GT(cornerError(perspective[0], 720, strip), 100);
}

// The engine's card rule after a published card, on one picture through the card detector.
CardDetectionState ruleAfterPublishedCard(const RectangleDetector& detector, const Image& picture) {
  CardDetectionState state{0.1, 9, kStableCardMarker, {320, 240}};
  performRectangleDetection(state, detector.featuresInImage(picture));
  return state;
}

bool withdrawn(const CardDetectionState& s) {
  return s.consecutiveDetectionFrames == 0 && s.cardRect == Rect::zero() &&
         s.cardCenter == Point::zero();
}

TEST(RectangleDetector, CardSettingsReportSquaresAndStripsAlone) {
  // One light shape at a time on a dark ground: each is the frame's rectangle, and the card
  // rule rejects it, withdrawing a published card.
  const auto detector = makeCardRectangleDetector();
  const Quad square = {{{440, 160}, {840, 160}, {840, 560}, {440, 560}}};
  const Quad wide = {{{200, 250}, {1080, 250}, {1080, 650}, {200, 650}}};   // 2.2 : 1
  const Quad tall = {{{500, 50}, {800, 50}, {800, 710}, {500, 710}}};       // 1 : 2.2
  const Quad strip = {{{100, 300}, {1170, 300}, {1170, 657}, {100, 657}}};  // 3 : 1
  // A square turned by 30 degrees: its top-left label goes to the corner nearest the
  // picture's top left.
  Quad turned;
  for (size_t i = 0; i < 4; ++i) {
    const double a = (30 + 90 * static_cast<double>(i) - 135) * CV_PI / 180;
    turned[i] = {640 + 220 * std::cos(a), 360 + 220 * std::sin(a)};
  }
  for (const Quad& q : {square, wide, tall, strip, turned}) {
    cv::Mat canvas(720, 1280, CV_8UC4, cv::Scalar(40, 40, 40, 255));
    // Corners are pixel edges (pixel i spans i to i + 1); the fill takes pixel centres, in
    // sixteenths of a pixel.
    std::vector<cv::Point> outline;
    for (const cv::Point2d& p : q)
      outline.emplace_back(cvRound((p.x - 0.5) * 16), cvRound((p.y - 0.5) * 16));
    cv::fillConvexPoly(canvas, outline, cv::Scalar(200, 200, 200, 255), cv::LINE_AA, 4);
    const auto features = detector->featuresInImage(imageOf(canvas));
    ASSERT_EQ(features.size(), 1u) << q[0] << q[2];
    EXPECT_LE(cornerError(features[0], 720, q), 1.5) << q[0] << q[2];
    EXPECT_TRUE(withdrawn(ruleAfterPublishedCard(*detector, imageOf(canvas)))) << q[0] << q[2];
  }
}

// `photo` (BGRA) printed with a white margin of a twentieth of its width and laid on the
// synthetic desk, the print's outline at `at` (top left, top right, bottom right, bottom
// left). `inner` receives where the photograph's own edges lie.
cv::Mat printOnDesk(SceneRenderer& desk, const cv::Mat& photo, const Quad& at, Quad* inner) {
  cv::Mat frame = sceneFrame(desk, 0);
  const int margin = std::max(4, photo.cols / 20);
  cv::Mat print(photo.rows + 2 * margin, photo.cols + 2 * margin, CV_8UC4,
                cv::Scalar(240, 240, 240, 255));
  photo.copyTo(print(cv::Rect(margin, margin, photo.cols, photo.rows)));
  // Pixel-edge corners (a picture w pixels wide spans 0 to w) to pixel-centre coordinates.
  auto centres = [](std::array<cv::Point2d, 4> q) {
    std::vector<cv::Point2f> out;
    for (const cv::Point2d& p : q)
      out.emplace_back(static_cast<float>(p.x - 0.5), static_cast<float>(p.y - 0.5));
    return out;
  };
  const double w = print.cols, h = print.rows, m = margin;
  const cv::Mat warp =
      cv::getPerspectiveTransform(centres({{{0, 0}, {w, 0}, {w, h}, {0, h}}}), centres(at));
  cv::warpPerspective(print, frame, warp, frame.size(), cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
  std::vector<cv::Point2f> photoCorners;
  cv::perspectiveTransform(centres({{{m, m}, {w - m, m}, {w - m, h - m}, {m, h - m}}}),
                           photoCorners, warp);
  for (size_t i = 0; i < 4; ++i) (*inner)[i] = {photoCorners[i].x + 0.5, photoCorners[i].y + 0.5};
  return frame;
}

double cross2(cv::Point2d a, cv::Point2d b) {
  return a.x * b.y - a.y * b.x;
}

cv::Mat bgraOf(const Image& image) {
  const Image bgra = image.converted(PixelLayout::BGRA32Premultiplied);
  return cv::Mat(static_cast<int>(bgra.height()), static_cast<int>(bgra.width()), CV_8UC4,
                 const_cast<uint8_t*>(bgra.bytes().data()), bgra.bytesPerRow())
      .clone();
}

TEST(RectangleDetector, CardSettingsReportSquaresAndStripsInPhotographs) {
  const auto detector = makeCardRectangleDetector();
  // A newspaper's sudoku grid, photographed at a slant (corners read off the picture).
  const Image sudoku = test::loadSample("sudoku.png");
  const auto inSudoku = detector->featuresInImage(sudoku);
  ASSERT_EQ(inSudoku.size(), 1u);
  EXPECT_LE(cornerError(inSudoku[0], 563, {{{75, 92}, {489, 85}, {517, 518}, {39, 513}}}), 4);
  EXPECT_TRUE(withdrawn(ruleAfterPublishedCard(*detector, sudoku)));

  // Photographs printed square (the baboon) and as 2.2 : 1 and 3 : 1 strips (the building,
  // squeezed), lying on the desk a little turned and tilted, a cable running over the desk
  // behind them.
  SceneRenderer desk(SyntheticScene{}, 1280, 720);
  const cv::Mat baboon = bgraOf(test::loadSample("baboon.jpg"));
  cv::Mat building = bgraOf(test::loadSample("building.jpg")), wide, strip;
  cv::resize(building, wide, cv::Size(858, 378), 0, 0, cv::INTER_AREA);
  cv::resize(building, strip, cv::Size(876, 280), 0, 0, cv::INTER_AREA);
  struct Print {
    const cv::Mat* photo;
    Quad at;
  };
  for (const Print& p : {Print{&baboon, {{{420, 110}, {860, 140}, {840, 590}, {395, 570}}}},
                         Print{&wide, {{{180, 170}, {1090, 120}, {1110, 520}, {190, 560}}}},
                         Print{&strip, {{{200, 250}, {1110, 230}, {1100, 540}, {210, 530}}}}}) {
    Quad inner;
    const cv::Mat frame = printOnDesk(desk, *p.photo, p.at, &inner);
    const auto features = detector->featuresInImage(bgraBuffer(frame));
    ASSERT_EQ(features.size(), 1u) << p.photo->cols;
    // Each side on the print's edge or on the photograph's, whichever shows more clearly
    // there (the white margin has both).
    const Quad q = seen(features[0], 720);
    for (size_t i = 0; i < 4; ++i) {
      auto off = [&](const Quad& edges) {
        const cv::Point2d a = edges[i],
                          d = (edges[(i + 1) % 4] - a) / cv::norm(edges[(i + 1) % 4] - a);
        return std::max(std::abs(cross2(d, q[i] - a)), std::abs(cross2(d, q[(i + 1) % 4] - a)));
      };
      EXPECT_LE(std::min(off(p.at), off(inner)), 1.5) << p.photo->cols << " side " << i;
    }
    EXPECT_TRUE(withdrawn(ruleAfterPublishedCard(*detector, imageOf(frame)))) << p.photo->cols;
  }

  // Drawings: a hand-drawn square among a circle and a triangle, and a black square and a
  // white near-square on a patterned ground.
  for (const char* name : {"pic3.png", "pic4.png"}) {
    const Image picture = test::loadSample(name);
    const auto features = detector->featuresInImage(picture);
    ASSERT_EQ(features.size(), 1u) << name;
    EXPECT_LT(std::abs(measureCard(features[0]).ratio - 1.0), 0.25) << name;
    EXPECT_TRUE(withdrawn(ruleAfterPublishedCard(*detector, picture))) << name;
  }
}

TEST(RectangleDetector, CardLeadsSquaresAndStripsBesideIt) {
  // The synthetic card on its desk with a light square (about as large as the card where the
  // room allows) or a strip drawn in the free part of the frame: the card is still the one
  // rectangle reported, on its true corners.
  const auto detector = makeCardRectangleDetector();
  SceneRenderer scene(SyntheticScene::card(), 1280, 720);
  int tried = 0;
  for (uint64_t i = 0; i < synthetic::kHandheldPeriodFrames; i += 50) {
    SyntheticFrameTruth truth;
    cv::Mat frame = sceneFrame(scene, i, &truth);
    if (!truth.card() || !truth.card()->fullyVisible) continue;
    double left = 1280, right = 0, cardArea = 0;
    for (size_t c = 0; c < 4; ++c) {
      const Point a = truth.card()->corners[c], b = truth.card()->corners[(c + 1) % 4];
      left = std::min(left, a.x);
      right = std::max(right, a.x);
      cardArea += 0.5 * (a.x * b.y - b.x * a.y);
    }
    // The wider free side, less a margin, holds a square above a strip.
    const bool onLeft = left > 1280 - right;
    const int room = static_cast<int>(onLeft ? left : 1280 - right) - 40;
    const int side = std::min(room, 440);
    if (side < 200) continue;
    // A square on even frames, a 2.2 : 1 strip of the same width on odd ones (drawn together,
    // their outer sides would outline one taller rectangle).
    const int x = onLeft ? 20 : 1260 - side;
    const int height = (i / 50) % 2 ? side * 10 / 22 : side;
    cv::rectangle(frame, cv::Rect(x, 20, side, height), cv::Scalar(235, 235, 235, 255), cv::FILLED);
    ++tried;
    Quad card;
    for (size_t c = 0; c < 4; ++c)
      card[c] = {truth.card()->corners[c].x, truth.card()->corners[c].y};
    const auto features = detector->featuresInImage(bgraBuffer(frame));
    ASSERT_EQ(features.size(), 1u) << "frame " << i;
    EXPECT_LE(cornerError(features[0], 720, card), 1.0)
        << "frame " << i << ", square " << side << " px, card " << std::abs(cardArea) << " px2";
  }
  EXPECT_GE(tried, 10);
}

TEST(RectangleDetector, OneDetectorServesManyThreads) {
  const auto detector = makeCardRectangleDetector();
  SceneRenderer scene(SyntheticScene::card(), 1280, 720);
  std::vector<PixelBuffer> frames;
  for (uint64_t i : {0, 200, 500, 700})
    frames.push_back(nv12Buffer(sceneFrame(scene, i), kPixelFormat420f, 64));
  std::vector<std::vector<RectangleFeature>> alone, together(frames.size());
  for (const PixelBuffer& frame : frames) alone.push_back(detector->featuresInImage(frame));
  std::vector<std::thread> threads;
  for (size_t t = 0; t < frames.size(); ++t)
    threads.emplace_back([&, t] { together[t] = detector->featuresInImage(frames[t]); });
  for (std::thread& t : threads) t.join();
  for (size_t t = 0; t < frames.size(); ++t) {
    ASSERT_EQ(together[t].size(), 1u);
    EXPECT_EQ(seen(together[t][0], 720), seen(alone[t][0], 720));
  }
}

TEST(RectangleDetector, DrawsFoundQuadsOverAFrame) {
  SceneRenderer scene(SyntheticScene::card(), 1280, 720);
  cv::Mat frame = sceneFrame(scene, 0);
  const auto features = makeCardRectangleDetector()->featuresInImage(imageOf(frame));
  ASSERT_EQ(features.size(), 1u);
  const Quad q = seen(features[0], frame.rows);
  for (size_t i = 0; i < 4; ++i)
    cv::line(frame, q[i], q[(i + 1) % 4], cv::Scalar(0, 255, 0, 255), 3, cv::LINE_AA);
  const std::string path = test::outputDir() + "/rectangle_detector_quads.png";
  ASSERT_TRUE(cv::imwrite(path, frame));

  const Image back = Image::loadFile(path);
  ASSERT_EQ(back.width(), 1280u);
  ASSERT_EQ(back.layout(), PixelLayout::RGBA32);
  auto pixel = [&](cv::Point2d p) {  // RGBA, straight alpha
    const uint8_t* px = back.bytes().data() + cvRound(p.y) * back.bytesPerRow() + cvRound(p.x) * 4;
    return cv::Vec3b(px[0], px[1], px[2]);
  };
  for (size_t i = 0; i < 4; ++i)  // the middle of every side is drawn green
    EXPECT_EQ(pixel((q[i] + q[(i + 1) % 4]) * 0.5), cv::Vec3b(0, 255, 0)) << i;
  EXPECT_NE(pixel((q[0] + q[2]) * 0.5), cv::Vec3b(0, 255, 0));  // the card's middle is not
}

}  // namespace
}  // namespace kwq::platform

// The engine's per-frame step: frames go through the real captureOutput entry, with a scripted
// rectangle detector put in the engine's place where the test decides what a frame shows.

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>
#include <filesystem>
#include <stdexcept>

#include <gtest/gtest.h>

#include "capture/KWQVideoHelperState.h"
#include "kwqimage/KWQCameraRollHelper.h"
#include "kwqimage/KWQImageDictionary.h"
#include "kwqimage/KWQVideoHelper.h"
#include "support/main_loop.h"
#include "support/test_support.h"
#include "synthetic/renderer.h"

namespace kwq {
namespace {

using namespace std::chrono_literals;
using platform::RectangleFeature;
namespace fs = std::filesystem;

// An upright w x h quad with its bottom-left corner at (x, y), y up.
RectangleFeature upright(double x, double y, double w, double h) {
  return {{x, y + h}, {x + w, y + h}, {x, y}, {x + w, y}, {x, y, w, h}};
}
const RectangleFeature kCard = upright(100, 50, 172, 108);  // 172 / 108 = 1.5926
const RectangleFeature kSquare = upright(10, 10, 50, 50);

// Answers each call with the next scripted list (then with none) and counts the calls.
class ScriptedDetector : public platform::RectangleDetector {
 public:
  std::vector<RectangleFeature> featuresInImage(const PixelBuffer&) const override {
    std::lock_guard lock(mutex);
    ++calls;
    if (script.empty()) return {};
    auto next = script.front();
    script.pop_front();
    return next;
  }
  std::vector<RectangleFeature> featuresInImage(const Image&) const override { return {}; }
  mutable std::mutex mutex;
  mutable std::deque<std::vector<RectangleFeature>> script;
  mutable int calls = 0;
};

struct Call {
  SampleBuffer sample;
  Rect rect;
  double yaw, roll;
  std::optional<std::string> barcode;
  int32_t count;  // the engine's consecutive detections at the call
  Point centre;
};

class FrameRecorder : public KWQFrameDelegate {
 public:
  std::weak_ptr<KWQVideoHelper> engine;
  std::function<void()> onCall;
  void getLastSampleBuffer(const SampleBuffer& sample, Rect rect, double yaw, double roll,
                           const std::optional<std::string>& barcode) override {
    auto e = engine.lock();
    std::lock_guard lock(mutex);
    calls.push_back({sample, rect, yaw, roll, barcode, e ? e->consecutiveDetectionFrames() : -1,
                     e ? e->cardCenter() : Point{}});
    if (onCall) onCall();
  }
  std::vector<Call> taken() {
    std::lock_guard lock(mutex);
    return std::exchange(calls, {});
  }
  std::mutex mutex;
  std::vector<Call> calls;
};

class StillOnly : public KWQStillImageDelegate {
 public:
  void getNewStillImage(const Image&) override {}
};

SampleBuffer frame420f(int64_t n, size_t width = 64, size_t height = 48) {
  return SampleBuffer(PixelBuffer::allocate(kPixelFormat420f, width, height), MediaTime{n, 30},
                      MediaTime{1, 30});
}

class FramePipelineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SyntheticCameraOptions back, front;
    front.position = AVCaptureDevicePositionFront;
    CaptureDevice::setDevices(
        {CaptureDevice::syntheticCamera(back), CaptureDevice::syntheticCamera(front)});
    engine = KWQVideoHelper::create();
    recorder->engine = engine;
    engine->setDelegate(recorder);
  }
  void TearDown() override {
    test::drainMainContext();
    CaptureDevice::resetDevices();
  }
  void feed(const SampleBuffer& sample) {
    engine->captureOutput(*engine->videoDataOutput(), sample, *engine->state().captureConnection);
  }
  std::shared_ptr<ScriptedDetector> scriptDetector() {
    auto detector = std::make_shared<ScriptedDetector>();
    engine->state().set(&KWQVideoHelper::State::rectDetector,
                        std::shared_ptr<const platform::RectangleDetector>(detector));
    return detector;
  }
  // A face box and a barcode outline on the preview, and a green centre box.
  void showOverlays() {
    auto face = Layer::layer();
    engine->previewLayer()->addSublayer(face);
    engine->setPrimaryLayer(face);
    auto outline = ShapeLayer::layer();
    engine->previewLayer()->addSublayer(outline);
    engine->setBarcodeLineLayer(outline);
    engine->centerLayer()->setBorderColor(Color::greenColor());
  }

  std::shared_ptr<KWQVideoHelper> engine;
  std::shared_ptr<FrameRecorder> recorder = std::make_shared<FrameRecorder>();
};

TEST_F(FramePipelineTest, FaceModeCallsEveryFrameAndClearsOverlaysOnTheMainQueue) {
  // No face, no code: stale angles travel with the zero rectangle, the text is cleared before
  // the call, and the overlays go only when the main queue runs.
  engine->setYawAngle(45.0);
  engine->setRollAngle(30.0);
  engine->setParsedData("OLD");
  showOverlays();
  auto face = engine->primaryLayer();
  auto outline = engine->barcodeLineLayer();
  const SampleBuffer frame = frame420f(1);
  feed(frame);
  auto calls = recorder->taken();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_TRUE(calls[0].sample.imageBuffer().isSameBuffer(frame.imageBuffer()));
  EXPECT_EQ(calls[0].rect, Rect::zero());
  EXPECT_EQ(calls[0].yaw, 45.0);
  EXPECT_EQ(calls[0].roll, 30.0);
  EXPECT_EQ(calls[0].barcode, std::optional<std::string>(""));
  EXPECT_EQ(engine->primaryLayer(), face);  // posted, not yet run
  EXPECT_EQ(outline->superlayer(), engine->previewLayer());
  test::drainMainContext();
  EXPECT_EQ(engine->primaryLayer(), nullptr);
  EXPECT_EQ(face->superlayer(), nullptr);
  EXPECT_EQ(engine->barcodeLineLayer(), nullptr);
  EXPECT_EQ(outline->superlayer(), nullptr);
  EXPECT_EQ(engine->centerLayer()->borderColor(), Color::redColor());

  // A tracked face and an outlined code: both are passed on and nothing is cleared.
  showOverlays();
  const Rect faceRect{10, 20, 30, 40};
  engine->setFaceRect(faceRect);
  engine->setBarcodeRect({1, 2, 3, 4});
  engine->setParsedData("CODE");
  feed(frame420f(2));
  feed(SampleBuffer());  // a null frame goes the same way
  test::drainMainContext();
  calls = recorder->taken();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].rect, faceRect);
  EXPECT_EQ(calls[0].barcode, std::optional<std::string>("CODE"));
  EXPECT_TRUE(calls[1].sample.isNull());
  EXPECT_NE(engine->primaryLayer(), nullptr);
  EXPECT_NE(engine->barcodeLineLayer(), nullptr);
  EXPECT_EQ(engine->centerLayer()->borderColor(), Color::greenColor());
}

TEST_F(FramePipelineTest, CardModeCallsOnlyWithAStableCardAndKeepsTheText) {
  auto detector = scriptDetector();
  engine->setShouldDetectCardRect(true);
  engine->setFaceRect({1, 1, 1, 1});  // card mode tracks the card, not the face
  engine->setParsedData("KEEP");
  for (int i = 0; i < 7; ++i) detector->script.push_back({kCard});
  detector->script.push_back({});         // nothing found: the card stays published
  detector->script.push_back({kSquare});  // only a non-card: withdrawn

  for (int n = 1; n <= 5; ++n) feed(frame420f(n));
  EXPECT_TRUE(recorder->taken().empty());
  EXPECT_EQ(engine->consecutiveDetectionFrames(), 5);
  EXPECT_EQ(engine->cardDetectionThreshold(), 0.1);

  // The sixth frame publishes; its clearing still happens, as the card was zero before its
  // detection. The seventh starts from the marker and clears nothing.
  showOverlays();
  feed(frame420f(6));
  test::drainMainContext();
  EXPECT_EQ(engine->primaryLayer(), nullptr);
  EXPECT_NE(engine->barcodeLineLayer(), nullptr);  // card mode leaves the code alone
  showOverlays();
  feed(frame420f(7));
  test::drainMainContext();
  EXPECT_NE(engine->primaryLayer(), nullptr);
  auto calls = recorder->taken();
  ASSERT_EQ(calls.size(), 2u);
  for (const Call& call : calls) {
    EXPECT_EQ(call.rect, kStableCardMarker);
    EXPECT_EQ(call.barcode, std::optional<std::string>("KEEP"));
    EXPECT_EQ(call.centre, (Point{186, 104}));
  }

  feed(frame420f(8));
  EXPECT_EQ(recorder->taken().size(), 1u);
  feed(frame420f(9));
  EXPECT_TRUE(recorder->taken().empty());
  EXPECT_EQ(engine->cardRect(), Rect::zero());
  EXPECT_EQ(engine->consecutiveDetectionFrames(), 0);
  EXPECT_EQ(detector->calls, 9);
  EXPECT_EQ(engine->parsedData(), std::optional<std::string>("KEEP"));

  // A host's clear withdraws the card but keeps the count.
  engine->setCardRect(kStableCardMarker);
  engine->setConsecutiveDetectionFrames(7);
  engine->clearCardRectData();
  EXPECT_EQ(engine->cardRect(), Rect::zero());
  EXPECT_EQ(engine->cardCenter(), Point::zero());
  EXPECT_EQ(engine->consecutiveDetectionFrames(), 7);
}

TEST_F(FramePipelineTest, WithoutAFrameDelegateNoDetectionRuns) {
  auto still = std::make_shared<StillOnly>();
  engine->setShouldDetectCardRect(true);
  // The detector is made on the first frame that needs it, and only then.
  engine->setDelegate(still);
  feed(frame420f(1));
  EXPECT_EQ(engine->state().get(&KWQVideoHelper::State::rectDetector), nullptr);
  engine->setDelegate(recorder);
  feed(frame420f(2));
  const auto made = engine->state().get(&KWQVideoHelper::State::rectDetector);
  ASSERT_NE(made, nullptr);
  feed(frame420f(3));
  EXPECT_EQ(engine->state().get(&KWQVideoHelper::State::rectDetector), made);

  auto detector = scriptDetector();
  for (int i = 0; i < 8; ++i) detector->script.push_back({kCard});
  engine->setDelegate(still);
  for (int n = 4; n < 12; ++n) feed(frame420f(n));
  EXPECT_EQ(detector->calls, 0);
  EXPECT_EQ(engine->consecutiveDetectionFrames(), 0);
  // The clearing steps do not depend on the delegate.
  engine->setShouldDetectCardRect(false);
  engine->setParsedData("OLD");
  feed(frame420f(12));
  EXPECT_EQ(engine->parsedData(), std::optional<std::string>(""));

  // A delegate that has gone, or one that throws, costs the frame and nothing else.
  still.reset();
  EXPECT_NO_THROW(feed(frame420f(13)));
  test::LogCapture log;
  recorder->onCall = [] { throw std::runtime_error("host failure"); };
  engine->setDelegate(recorder);
  EXPECT_NO_THROW(feed(frame420f(14)));
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.lines()[0].find("host failure"), std::string::npos);
}

TEST_F(FramePipelineTest, TheRecorderTakesTheFrameBeforeAnythingElse) {
  const fs::path root = fs::path(test::outputDir()) / "frame-step-recording";
  fs::remove_all(root);
  fs::create_directories(root / "Documents");
  fs::create_directories(root / "Pictures");
  KWQImageDictionary::setDocumentsDirectory((root / "Documents").string());
  KWQCameraRollHelper::setPhotoLibraryDirectory((root / "Pictures").string());
  auto& cameraRoll = KWQCameraRollHelper::getInstance();
  engine->setRecordCameraData(true);
  auto movies = [&] {
    EXPECT_TRUE(cameraRoll.waitForPendingSaves(60s));
    return std::distance(fs::directory_iterator(root / "Pictures"), fs::directory_iterator());
  };

  // No delegate: every frame still reaches the movie.
  engine->setDelegate(std::weak_ptr<KWQVideoHelperDelegate>());
  ASSERT_TRUE(cameraRoll.startSavingCameraData());
  for (int n = 0; n < 3; ++n) feed(frame420f(n));
  cameraRoll.stopSavingCameraData();
  EXPECT_EQ(movies(), 1);

  // A delegate that stops the recorder on its first frame: the frame was already appended, so
  // the stop finds a movie being written and saves it (a stop before any frame would not).
  engine->setDelegate(recorder);
  recorder->onCall = [&] {
    if (cameraRoll.isRecording()) cameraRoll.stopSavingCameraData();
  };
  ASSERT_TRUE(cameraRoll.startSavingCameraData());
  feed(frame420f(100));
  EXPECT_EQ(movies(), 2);
  EXPECT_FALSE(cameraRoll.isRecording());
  KWQImageDictionary::setDocumentsDirectory("");
  KWQCameraRollHelper::setPhotoLibraryDirectory("");
}

TEST(ExifOrientation, MapsTheEightImageOrientationsAndDefaultsToUp) {
  std::vector<int32_t> codes;
  for (int64_t o = -1; o <= 8; ++o)
    codes.push_back(KWQVideoHelper::exifOrientationFromUIImageOrientation(o));
  EXPECT_EQ(codes, (std::vector<int32_t>{1, 1, 3, 8, 6, 2, 4, 5, 7, 1}));
}

// A 1280 x 720 420f frame of `scene` (full-range luma, gray chroma) with light upright boxes
// (left, top, width, height in pixels, y down) laid over it.
SampleBuffer sceneFrame420f(synthetic::SceneRenderer& scene, int64_t n,
                            const std::vector<std::array<int, 4>>& boxes = {}) {
  constexpr size_t kWidth = 1280, kHeight = 720;
  std::vector<uint8_t> bgra(kWidth * kHeight * 4);
  scene.render(static_cast<uint64_t>(n), {}, bgra.data(), kWidth * 4);
  PixelBuffer frame = PixelBuffer::allocate(kPixelFormat420f, kWidth, kHeight);
  frame.lockBaseAddress();
  for (size_t y = 0; y < kHeight; ++y) {
    uint8_t* luma = frame.baseAddressOfPlane(0) + y * frame.bytesPerRowOfPlane(0);
    for (size_t x = 0; x < kWidth; ++x) {
      const uint8_t* p = &bgra[(y * kWidth + x) * 4];
      luma[x] = static_cast<uint8_t>(std::lround(0.114 * p[0] + 0.587 * p[1] + 0.299 * p[2]));
    }
    for (const auto& [left, top, width, height] : boxes)
      if (static_cast<int>(y) >= top && static_cast<int>(y) < top + height)
        std::fill_n(luma + left, width, 235);
  }
  for (size_t y = 0; y < frame.heightOfPlane(1); ++y)
    std::fill_n(frame.baseAddressOfPlane(1) + y * frame.bytesPerRowOfPlane(1),
                2 * frame.widthOfPlane(1), 128);
  frame.unlockBaseAddress();
  return SampleBuffer(frame, MediaTime{n, 30}, MediaTime{1, 30});
}

// The engine's own detector: a published card is withdrawn by the next frame that shows only a
// square or a wide strip, while a square beside the card does not break the card's run.
TEST_F(FramePipelineTest, SquaresAndStripsWithdrawAPublishedCard) {
  engine->setShouldDetectCardRect(true);
  synthetic::SceneRenderer cardScene(SyntheticScene::card(), 1280, 720);
  synthetic::SceneRenderer desk(SyntheticScene{}, 1280, 720);
  int64_t n = 0;
  auto publish = [&] {
    for (int i = 0; i < 6; ++i, ++n) feed(sceneFrame420f(cardScene, n));
    const auto calls = recorder->taken();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.back().rect, kStableCardMarker);
    EXPECT_EQ(engine->cardRect(), kStableCardMarker);
    EXPECT_NE(engine->cardCenter(), Point::zero());
  };
  const std::array<int, 4> square{440, 160, 400, 400}, strip{200, 250, 880, 400};  // 2.2 : 1
  for (const auto& box : {square, strip}) {
    publish();
    feed(sceneFrame420f(desk, n++, {box}));
    EXPECT_TRUE(recorder->taken().empty()) << box[2];
    EXPECT_EQ(engine->consecutiveDetectionFrames(), 0) << box[2];
    EXPECT_EQ(engine->cardRect(), Rect::zero()) << box[2];
    EXPECT_EQ(engine->cardCenter(), Point::zero()) << box[2];
  }

  // The bare desk holds no rectangle: nothing is found, so the published card stays.
  publish();
  const int32_t count = engine->consecutiveDetectionFrames();
  feed(sceneFrame420f(desk, n++));
  EXPECT_EQ(engine->cardRect(), kStableCardMarker);
  EXPECT_EQ(engine->consecutiveDetectionFrames(), count);
  recorder->taken();

  // A square as large as the room beside the card allows: the card keeps counting.
  const auto truth = cardScene.truth(static_cast<uint64_t>(n));
  ASSERT_TRUE(truth.card() && truth.card()->fullyVisible);
  double left = 1280, right = 0;
  for (const Point& c : truth.card()->corners) {
    left = std::min(left, c.x);
    right = std::max(right, c.x);
  }
  const bool onLeft = left > 1280 - right;
  const int side = std::min(static_cast<int>(onLeft ? left : 1280 - right) - 40, 440);
  ASSERT_GE(side, 150);
  feed(sceneFrame420f(cardScene, n++, {{onLeft ? 20 : 1260 - side, 20, side, side}}));
  EXPECT_EQ(engine->consecutiveDetectionFrames(), count + 1);
  const auto calls = recorder->taken();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].rect, kStableCardMarker);
}

// The real detector through the running engine on the synthetic camera: the marker comes
// only after six accepted frames, and the centre lies on the card the frame shows.
TEST_F(FramePipelineTest, SyntheticCameraCardIsPublishedWithItsCentre) {
  engine = KWQVideoHelper::create(AVCaptureSessionPreset640x480, AVCaptureDevicePositionBack,
                                  AVLayerVideoGravityResizeAspect, kPixelFormat420f);
  recorder->engine = engine;
  engine->setDelegate(recorder);
  engine->setShouldDetectCardRect(true);
  engine->startVideoCapture();
  std::vector<Call> calls;
  ASSERT_TRUE(test::pumpMainContextUntil([&] {
    for (Call& c : recorder->taken()) calls.push_back(std::move(c));
    return calls.size() >= 10;
  }));
  engine->stopVideoCapture();
  EXPECT_GT(engine->videoDataOutput()->deliveredFrameCount(), calls.size());

  for (const Call& call : calls) {
    EXPECT_EQ(call.rect, kStableCardMarker);
    EXPECT_GE(call.count, 6);
    const auto truth = syntheticFrameTruth(*engine->device(), call.sample);
    ASSERT_TRUE(truth && truth->card());
    // Truth is y down; the centre is y up.
    const Point c{call.centre.x,
                  static_cast<double>(call.sample.imageBuffer().height()) - call.centre.y};
    const auto& q = truth->card()->corners;
    for (size_t i = 0; i < 4; ++i) {
      const Point a = q[i], b = q[(i + 1) % 4];
      // Corners go clockwise on screen (y down), so the inside is on the right of each side.
      EXPECT_GE((b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x), 0.0)
          << "centre " << c.x << ", " << c.y << " outside the card";
    }
  }
}

}  // namespace
}  // namespace kwq

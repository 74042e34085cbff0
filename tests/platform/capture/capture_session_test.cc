#include <cmath>
#include <cstring>
#include <fstream>
#include <thread>

#include <gst/gst.h>
#include <gtest/gtest.h>

#include "capture_test_support.h"
#include "kwqimage/CaptureSession.h"
#include "kwqimage/SyntheticCamera.h"
#include "platform/media/capture_internal.h"
#include "platform/media/capture_pipeline.h"
#include "platform/media/gst_init.h"
#include "support/main_loop.h"
#include "support/test_support.h"
#include "synthetic/camera.h"
#include "synthetic/renderer.h"

namespace kwq {
namespace {

using namespace std::chrono_literals;
using test::CaptureRig;
using test::pumpMainContextUntil;

// Reads a frame's bytes while locked.
struct Locked {
  explicit Locked(const PixelBuffer& b) : buffer(b) {
    ok = buffer.lockBaseAddress(kPixelBufferLockReadOnly);
  }
  ~Locked() {
    if (ok) buffer.unlockBaseAddress(kPixelBufferLockReadOnly);
  }
  const uint8_t* row(size_t plane, size_t y) const {
    return buffer.baseAddressOfPlane(plane) + y * buffer.bytesPerRowOfPlane(plane);
  }
  PixelBuffer buffer;
  bool ok = false;
};

// The picture the camera's scene gives for a delivered frame, rendered here independently.
std::vector<uint8_t> renderExpected(const CaptureDevice& camera, const SampleBuffer& frame,
                                    size_t width, size_t height) {
  synthetic::SceneRenderer scene(SyntheticScene::card(), width, height);
  std::vector<uint8_t> bgra(width * height * 4);
  const auto effects = synthetic::syntheticFrameEffects(camera, frame);
  EXPECT_TRUE(effects.has_value());
  scene.render(*syntheticFrameIndex(frame), effects.value_or(synthetic::CameraEffects{}),
               bgra.data(), width * 4);
  return bgra;
}

TEST(CaptureSessionTest, SyntheticFramesArriveOnTheQueueInTheRequestedFormat) {
  for (uint32_t format : {kPixelFormatBGRA, kPixelFormat420f}) {
    SCOPED_TRACE(format == kPixelFormatBGRA ? "BGRA" : "420f");
    CaptureRig rig(test::syntheticCamera(), AVCaptureSessionPreset640x480, format);
    rig.log->keepFrames(20);
    rig.session->startRunning();
    ASSERT_TRUE(rig.session->isRunning());
    ASSERT_TRUE(pumpMainContextUntil([&] { return rig.log->count >= 20; }));
    rig.session->stopRunning();
    EXPECT_FALSE(rig.session->isRunning());
    EXPECT_EQ(rig.log->offQueue, 0);

    const auto frames = rig.log->frames();
    ASSERT_GE(frames.size(), 2u);
    int64_t last = -1;
    for (const auto& f : frames) {
      EXPECT_EQ(f.imageBuffer().pixelFormat(), format);
      EXPECT_EQ(f.imageBuffer().width(), 640u);
      EXPECT_EQ(f.imageBuffer().height(), 480u);
      ASSERT_TRUE(f.presentationTimeStamp().isValid());
      const auto index = static_cast<int64_t>(*syntheticFrameIndex(f));
      EXPECT_GT(index, last);
      last = index;
    }
    // The delivered pixels are the scene's: BGRA exactly, 420f as full-range BT.601 luma.
    const SampleBuffer& f = frames.back();
    const auto expected = renderExpected(*rig.camera, f, 640, 480);
    Locked pixels(f.imageBuffer());
    ASSERT_TRUE(pixels.ok);
    double diff = 0;
    int brightest = 0;
    for (size_t y = 0; y < 480; y += 7) {
      for (size_t x = 0; x < 640; x += 5) {
        const uint8_t* e = &expected[(y * 640 + x) * 4];
        if (format == kPixelFormatBGRA) {
          const uint8_t* p = pixels.row(0, y) + x * 4;
          diff = std::max(diff, double(std::abs(p[0] - e[0]) + std::abs(p[1] - e[1]) +
                                       std::abs(p[2] - e[2]) + std::abs(p[3] - e[3])));
        } else {
          const double luma = 0.299 * e[2] + 0.587 * e[1] + 0.114 * e[0];
          const int got = pixels.row(0, y)[x];
          brightest = std::max(brightest, got);
          diff = std::max(diff, std::abs(got - luma));
        }
      }
    }
    EXPECT_LE(diff, format == kPixelFormatBGRA ? 0.0 : 3.0);
    // Truth for the same frame: a card in the picture.
    const auto truth = syntheticFrameTruth(*rig.camera, f);
    ASSERT_TRUE(truth.has_value());
    EXPECT_EQ(truth->frameIndex, *syntheticFrameIndex(f));
    EXPECT_TRUE(truth->card());
  }
}

TEST(CaptureSessionTest, SlowDelegateGetsFewerFramesNotOlderOnes) {
  CaptureRig rig(test::syntheticCamera(), AVCaptureSessionPreset640x480, kPixelFormat420f);
  std::atomic<int64_t> worstLag{0};
  rig.log->onFrame = [&](const SampleBuffer& frame) {
    // How far the camera is ahead of the frame being handled.
    const SampleBuffer newest = platform::sessionLatestFrame(*rig.session);
    if (!newest.isNull()) {
      const int64_t lag = static_cast<int64_t>(*syntheticFrameIndex(newest)) -
                          static_cast<int64_t>(*syntheticFrameIndex(frame));
      if (lag > worstLag) worstLag = lag;
    }
    std::this_thread::sleep_for(100ms);  // the delegate's slow work
  };
  rig.session->startRunning();
  ASSERT_TRUE(pumpMainContextUntil([&] { return rig.log->count >= 15; }, 20s));
  rig.session->stopRunning();
  const int atStop = rig.log->count;
  rig.queue->sync([] {});  // whatever was queued has run
  // Frames waiting at the stop are dropped, not drained.
  EXPECT_LE(rig.log->count - atStop, 1);
  EXPECT_GT(rig.output->droppedFrameCount(), rig.output->deliveredFrameCount());
  // Each handled frame was at most a few frames old: one delegate call (3 frame times) plus
  // one frame waiting.
  EXPECT_LE(worstLag.load(), 6);
}

TEST(CaptureSessionTest, ConfigurationRules) {
  auto session = CaptureSession::create();
  EXPECT_EQ(session->sessionPreset(), AVCaptureSessionPresetHigh);
  EXPECT_FALSE(session->canSetSessionPreset("AVCaptureSessionPreset9999x1"));
  session->setSessionPreset("nonsense");
  EXPECT_EQ(session->sessionPreset(), AVCaptureSessionPresetHigh);
  session->setSessionPreset(AVCaptureSessionPreset1280x720);
  EXPECT_EQ(session->sessionPreset(), AVCaptureSessionPreset1280x720);

  // One camera at a time; the same input never twice; null refused.
  auto back = CaptureDeviceInput::deviceInputWithDevice(test::syntheticCamera());
  auto front = CaptureDeviceInput::deviceInputWithDevice(
      test::syntheticCamera(AVCaptureDevicePositionFront));
  EXPECT_EQ(CaptureDeviceInput::deviceInputWithDevice(nullptr), nullptr);
  EXPECT_FALSE(session->canAddInput(nullptr));
  session->addInput(back);
  EXPECT_FALSE(session->canAddInput(back));
  EXPECT_FALSE(session->canAddInput(front));
  session->addInput(front);
  ASSERT_EQ(session->inputs().size(), 1u);
  session->beginConfiguration();
  session->removeInput(back);
  session->addInput(front);
  session->commitConfiguration();
  ASSERT_EQ(session->inputs().size(), 1u);
  EXPECT_EQ(session->inputs()[0], front);

  // One output of a kind; an output belongs to one session; metadata types appear with it.
  auto video = VideoDataOutput::create();
  auto metadata = MetadataOutput::create();
  EXPECT_TRUE(metadata->availableMetadataObjectTypes().empty());
  metadata->setMetadataObjectTypes({std::string(AVMetadataObjectTypeFace)});
  EXPECT_TRUE(metadata->metadataObjectTypes().empty());
  session->addOutput(video);
  session->addOutput(metadata);
  EXPECT_FALSE(session->canAddOutput(VideoDataOutput::create()));
  EXPECT_TRUE(session->canAddOutput(StillImageOutput::create()));
  auto other = CaptureSession::create();
  EXPECT_FALSE(other->canAddOutput(video));
  EXPECT_EQ(metadata->availableMetadataObjectTypes().size(),
            4u);  // faces, PDF417, QR and machine-readable zones
  metadata->setMetadataObjectTypes({"org.iso.QRCode", "bogus", "face", "face"});
  EXPECT_EQ(metadata->metadataObjectTypes(), (std::vector<std::string>{"org.iso.QRCode", "face"}));
  session->removeOutput(metadata);
  EXPECT_TRUE(metadata->availableMetadataObjectTypes().empty());
  EXPECT_TRUE(other->canAddOutput(metadata));

  // Connections by media type; settings limited to the supported formats.
  EXPECT_NE(video->connectionWithMediaType(AVMediaTypeVideo), nullptr);
  EXPECT_EQ(video->connectionWithMediaType(AVMediaTypeMetadata), nullptr);
  EXPECT_NE(metadata->connectionWithMediaType(AVMediaTypeMetadata), nullptr);
  video->setVideoSettings(fourCharCode("yuvs"));
  EXPECT_EQ(video->pixelFormatType(), kPixelFormat420f);
  auto connection = video->connectionWithMediaType(AVMediaTypeVideo);
  connection->setVideoScaleAndCropFactor(2.0);
  EXPECT_EQ(connection->videoScaleAndCropFactor(), 1.0);

  // A session without a camera runs and films nothing; stopping twice is harmless.
  auto empty = CaptureSession::create();
  empty->startRunning();
  EXPECT_TRUE(empty->isRunning());
  empty->stopRunning();
  empty->stopRunning();
  EXPECT_FALSE(empty->isRunning());
}

TEST(CaptureSessionTest, CameraSwitchAndFormatChangeWhileRunning) {
  // A file camera films at its own size under the High preset, the synthetic one at 1280 x 720.
  const std::string movie = test::makeTestMovie("switch.avi", 30, 160, 120, 30);
  auto file = CaptureDevice::fileCamera(movie);
  ASSERT_NE(file, nullptr);
  CaptureRig rig(file, AVCaptureSessionPresetHigh, kPixelFormat420f);
  std::atomic<size_t> width{0};
  std::atomic<uint32_t> format{0};
  rig.log->onFrame = [&](const SampleBuffer& f) {
    width = f.imageBuffer().width();
    format = f.imageBuffer().pixelFormat();
  };
  rig.session->startRunning();
  ASSERT_TRUE(pumpMainContextUntil([&] { return width == 160; }));
  rig.session->beginConfiguration();
  rig.session->removeInput(rig.session->inputs()[0]);
  rig.session->addInput(CaptureDeviceInput::deviceInputWithDevice(test::syntheticCamera()));
  rig.session->commitConfiguration();
  ASSERT_TRUE(pumpMainContextUntil([&] { return width == 1280; }));
  rig.output->setVideoSettings(kPixelFormatBGRA);
  EXPECT_TRUE(pumpMainContextUntil([&] { return format == kPixelFormatBGRA; }));
}

class ObjectLog : public CaptureMetadataOutputObjectsDelegate {
 public:
  void captureOutput(MetadataOutput&, const MetadataObjects& objects,
                     CaptureConnection& connection) override {
    calls.push_back(objects);
    onMain = onMain && DispatchQueue::main().isCurrent();
    mediaType = connection.mediaType();
  }
  std::vector<MetadataObjects> calls;  // main thread only
  bool onMain = true;
  std::string mediaType;
};

TEST(CaptureSessionTest, MetadataObjectsReachTheirDelegateOnTheMainQueue) {
  CaptureRig rig(test::syntheticCamera(), AVCaptureSessionPreset640x480, kPixelFormat420f);
  auto metadata = MetadataOutput::create();
  rig.session->addOutput(metadata);
  metadata->setMetadataObjectTypes({std::string(AVMetadataObjectTypeFace)});
  auto log = std::make_shared<ObjectLog>();
  metadata->setMetadataObjectsDelegate(
      log, std::shared_ptr<DispatchQueue>(&DispatchQueue::main(), [](DispatchQueue*) {}));
  // Frames 0..2 of each run of the recogniser show a face and a QR code; later ones nothing.
  std::atomic<int> seen{0};
  platform::setMetadataRecognizer(*metadata, [&](const SampleBuffer&, const auto&) {
    MetadataObjects objects;
    if (seen++ < 3) {
      auto face = std::make_shared<MetadataFaceObject>();
      face->type = AVMetadataObjectTypeFace;
      face->bounds = {0.25, 0.25, 0.5, 0.5};
      auto code = std::make_shared<MetadataMachineReadableCodeObject>();
      code->type = AVMetadataObjectTypeQRCode;  // not requested: filtered out
      objects = {face, code};
    }
    return objects;
  });
  rig.session->startRunning();
  ASSERT_TRUE(pumpMainContextUntil([&] { return log->calls.size() >= 4 && seen > 10; }));
  rig.session->stopRunning();
  // Three calls with the face, one empty call when it went, then silence.
  ASSERT_EQ(log->calls.size(), 4u);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(log->calls[i].size(), 1u);
    EXPECT_EQ(log->calls[i][0]->type, AVMetadataObjectTypeFace);
  }
  EXPECT_TRUE(log->calls[3].empty());
  EXPECT_TRUE(log->onMain);
  EXPECT_EQ(log->mediaType, AVMediaTypeMetadata);

  const MetadataOutputStatistics stats = metadata->statistics();
  EXPECT_EQ(stats.callbacks, 4u);
  EXPECT_EQ(stats.callbacksWithFaces, 3u);
  EXPECT_EQ(stats.callbacksWithCodes, 0u) << "the unrequested QR code never counts";
  EXPECT_EQ(stats.framesExamined, static_cast<uint64_t>(seen.load()));
  EXPECT_GT(stats.latencyP50Milliseconds, 0.0);
  EXPECT_GE(stats.latencyP95Milliseconds, stats.latencyP50Milliseconds);
}

TEST(CaptureSessionTest, SlowRecognitionSkipsFramesWithoutHoldingUpVideo) {
  CaptureRig rig(test::syntheticCamera(), AVCaptureSessionPreset640x480, kPixelFormat420f);
  auto metadata = MetadataOutput::create();
  rig.session->addOutput(metadata);
  metadata->setMetadataObjectTypes({std::string(AVMetadataObjectTypeFace)});
  auto log = std::make_shared<ObjectLog>();
  metadata->setMetadataObjectsDelegate(
      log, std::shared_ptr<DispatchQueue>(&DispatchQueue::main(), [](DispatchQueue*) {}));
  // Each pass takes as long as six frames of the camera. The count is shared with the pass:
  // stopping the session does not wait for a pass under way, which may end after this test.
  auto passes = std::make_shared<std::atomic<int>>(0);
  platform::setMetadataRecognizer(*metadata, [passes](const SampleBuffer&, const auto&) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ++*passes;
    return MetadataObjects{};
  });
  rig.session->startRunning();
  ASSERT_TRUE(pumpMainContextUntil([&] { return *passes >= 4; }));
  rig.session->stopRunning();
  const MetadataOutputStatistics stats = metadata->statistics();
  // Recognition took the newest frame each time and let the others go; the video output got
  // its frames meanwhile.
  EXPECT_GT(stats.framesSkipped, stats.framesExamined);
  EXPECT_GT(rig.output->deliveredFrameCount(), 2 * stats.framesExamined);
}

TEST(CaptureSessionTest, StillsInBGRAWithFlashAndErrors) {
  auto camera = test::syntheticCamera();
  CaptureRig rig(camera, AVCaptureSessionPreset640x480, kPixelFormat420f);
  auto still = StillImageOutput::create();
  rig.session->addOutput(still);
  auto connection = still->connectionWithMediaType(AVMediaTypeVideo);
  struct Result {
    std::atomic<bool> done{false};
    SampleBuffer sample;
    std::optional<std::string> error;
  };
  auto capture = [&](const std::shared_ptr<CaptureConnection>& c) {
    auto result = std::make_shared<Result>();
    still->captureStillImageAsynchronouslyFromConnection(
        c, [result](const SampleBuffer& s, const std::optional<std::string>& e) {
          result->sample = s;
          result->error = e;
          result->done = true;
        });
    EXPECT_TRUE(pumpMainContextUntil([&] { return result->done.load(); }));
    return result;
  };
  EXPECT_TRUE(capture(connection)->error.has_value());  // not running
  rig.session->startRunning();
  EXPECT_TRUE(capture(rig.output->connectionWithMediaType(AVMediaTypeVideo))->error.has_value());
  connection->setEnabled(false);
  EXPECT_TRUE(capture(connection)->error.has_value());
  connection->setEnabled(true);

  auto plain = capture(connection);
  ASSERT_FALSE(plain->error.has_value()) << *plain->error;
  EXPECT_EQ(plain->sample.imageBuffer().pixelFormat(), kPixelFormatBGRA);
  // The frame drawn again at the still size: 1920 wide at the stream's 4:3, the very picture
  // the scene gives for that frame number and its effects.
  ASSERT_EQ(plain->sample.imageBuffer().width(), 1920u);
  ASSERT_EQ(plain->sample.imageBuffer().height(), 1440u);
  EXPECT_EQ(synthetic::syntheticFrameEffects(*camera, plain->sample).value().lightGain, 1.0);
  const auto expected = renderExpected(*camera, plain->sample, 1920, 1440);
  Locked pixels(plain->sample.imageBuffer());
  ASSERT_TRUE(pixels.ok);
  size_t differing = 0;
  for (size_t y = 0; y < 1440; ++y)
    differing += std::memcmp(pixels.row(0, y), expected.data() + y * 1920 * 4, 1920 * 4) != 0;
  EXPECT_EQ(differing, 0u);

  ASSERT_TRUE(camera->lockForConfiguration());
  camera->setFlashMode(AVCaptureFlashModeOn);
  camera->unlockForConfiguration();
  auto flashed = capture(connection);
  ASSERT_FALSE(flashed->error.has_value());
  EXPECT_DOUBLE_EQ(synthetic::syntheticFrameEffects(*camera, flashed->sample)->lightGain, 1.8);
}

TEST(CaptureSessionTest, FileCamerasPlayLoopAndRefuseWhatTheyCannotPlay) {
  // A half-second movie, played for longer: it loops with rising time stamps.
  const std::string movie = test::makeTestMovie("loop.avi", 15, 320, 240, 30);
  auto camera = CaptureDevice::fileCamera(movie, AVCaptureDevicePositionFront);
  ASSERT_NE(camera, nullptr);
  EXPECT_EQ(camera->position(), AVCaptureDevicePositionFront);
  EXPECT_FALSE(camera->hasTorch());
  EXPECT_FALSE(camera->isFocusModeSupported(AVCaptureFocusModeAutoFocus));
  {
    CaptureRig rig(camera, AVCaptureSessionPreset640x480, kPixelFormat420f);
    rig.log->keepFrames(100);
    rig.session->startRunning();
    ASSERT_TRUE(pumpMainContextUntil([&] { return rig.log->count >= 40; }));
    rig.session->stopRunning();
    int64_t last = -1;
    for (const auto& f : rig.log->frames()) {
      EXPECT_EQ(f.imageBuffer().width(), 640u);  // scaled to the preset, with borders
      const int64_t t = f.presentationTimeStamp().value;
      EXPECT_GT(t, last);
      last = t;
    }
    // Paced at the file's rate: 40 frames take more than a second.
    EXPECT_GT(MediaTime::fromNanoseconds(last).seconds(), 1.0);
  }

  // Nothing to play: no camera.
  EXPECT_EQ(CaptureDevice::fileCamera("/nonexistent/movie.avi"), nullptr);
  EXPECT_EQ(CaptureDevice::fileCamera(""), nullptr);
  const std::string junk = test::outputDir() + "/junk.avi";
  std::ofstream(junk) << "this is not a movie, just some text that looks nothing like one";
  EXPECT_EQ(CaptureDevice::fileCamera(junk), nullptr);
}

TEST(CaptureSessionTest, FileCameraPlaysARealVideo) {
  const std::string path = test::samplePath("vtest.avi");
  auto camera = CaptureDevice::fileCamera(path);
  if (!camera) GTEST_SKIP() << path << " is missing or its decoder is (gstreamer1.0-libav)";
  CaptureRig rig(camera, AVCaptureSessionPresetHigh, kPixelFormat420f);
  rig.log->keepFrames(1);
  rig.session->startRunning();
  ASSERT_TRUE(pumpMainContextUntil([&] { return rig.log->count >= 10; }));
  const auto frame = rig.log->frames().at(0);
  EXPECT_EQ(frame.imageBuffer().width(), 768u);
  EXPECT_EQ(frame.imageBuffer().height(), 576u);
  // A street scene, not a blank frame: the luma varies.
  Locked pixels(frame.imageBuffer());
  int lo = 255, hi = 0;
  for (size_t y = 0; y < 576; y += 8)
    for (size_t x = 0; x < 768; x += 8) {
      lo = std::min<int>(lo, pixels.row(0, y)[x]);
      hi = std::max<int>(hi, pixels.row(0, y)[x]);
    }
  EXPECT_GT(hi - lo, 100);
}

TEST(CaptureSessionTest, StartStopHundredTimesWithFramesInFlight) {
  CaptureRig rig(test::syntheticCamera(), AVCaptureSessionPreset640x480, kPixelFormat420f);
  rig.log->onFrame = [](const SampleBuffer&) { std::this_thread::sleep_for(2ms); };
  int threadsWarm = 0;
  for (int i = 0; i < 100; ++i) {
    rig.session->startRunning();  // returns once the first frame is on its way
    if (i % 10 == 0) pumpMainContextUntil([&] { return rig.log->count > i / 10; });
    rig.session->stopRunning();
    // GStreamer's thread pools keep a few idle threads once they have grown.
    if (i == 9) threadsWarm = test::threadCount();
  }
  rig.queue->sync([] {});
  EXPECT_FALSE(rig.session->isRunning());
  EXPECT_GT(rig.log->count, 0);
  // No run leaves its threads behind: 90 more runs add at most the pools' spares.
  EXPECT_LE(test::threadCount(), threadsWarm + 2);
}

// A video-range YUV camera (most webcams) and a full-range one (MJPEG decodes to it) give 420f
// frames in full range and 420v frames in video range: black and white land on the ends of
// the format's range, not on the camera's.
namespace range {

class TestSource final : public platform::CameraSource {
 public:
  // RGB test colours turned into YUYV of the given colorimetry (RGB to YUV conversions honour
  // the range).
  TestSource(const char* pattern, const char* colorimetry) {
    const std::string description = std::string("videotestsrc is-live=true pattern=") + pattern +
                                    " ! video/x-raw,format=RGB,width=64,height=48 ! videoconvert"
                                    " ! video/x-raw,format=YUY2,colorimetry=" +
                                    colorimetry;
    GstElement* src = gst_parse_bin_from_description(description.c_str(), TRUE, nullptr);
    bin_ = platform::makeDecodingSourceBin(src, nullptr);
  }
  GstElement* element() override { return bin_; }
  bool isLive() const override { return true; }

 private:
  GstElement* bin_ = nullptr;
};

}  // namespace range

TEST(CapturePipelineTest, YuvCamerasComeOutInTheRangeTheFormatPromises) {
  ASSERT_TRUE(platform::ensureGStreamer(nullptr));
  const struct {
    const char* pattern;
    const char* camera;  // colorimetry: range:matrix:transfer:primaries
    uint32_t format;
    int luma, chroma;
  } cases[] = {
      {"black", "2:4:5:4", kPixelFormat420f, 0, 128},
      {"white", "2:4:5:4", kPixelFormat420f, 255, 128},
      {"black", "1:4:5:4", kPixelFormat420f, 0, 128},
      {"white", "1:4:5:4", kPixelFormat420f, 255, 128},
      {"black", "2:4:5:4", kPixelFormat420v, 16, 128},
      {"white", "2:4:5:4", kPixelFormat420v, 235, 128},
      {"black", "1:4:5:4", kPixelFormat420v, 16, 128},
      {"white", "1:4:5:4", kPixelFormat420v, 235, 128},
      {"red", "2:4:5:4", kPixelFormat420f, 76, 255},  // Cr of pure red: the top of full range
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.pattern) + " from " + c.camera +
                 (c.format == kPixelFormat420f ? " to 420f" : " to 420v"));
    std::mutex mutex;
    SampleBuffer got;
    std::string error;
    auto pipeline = platform::CapturePipeline::create(
        std::make_unique<range::TestSource>(c.pattern, c.camera), "test", 64, 48, c.format,
        [&](const SampleBuffer& s) {
          std::lock_guard lock(mutex);
          got = s;
        },
        &error);
    ASSERT_TRUE(pipeline) << error;
    ASSERT_TRUE(pipeline->start(&error)) << error;
    ASSERT_TRUE(pumpMainContextUntil([&] {
      std::lock_guard lock(mutex);
      return !got.isNull();
    }));
    pipeline->stop();
    Locked px(got.imageBuffer());
    ASSERT_TRUE(px.ok);
    EXPECT_NEAR(px.row(0, 20)[30], c.luma, 2);
    EXPECT_NEAR(px.row(1, 10)[31], c.chroma, 2);  // Cr of the pair at x 30
  }
}

}  // namespace
}  // namespace kwq

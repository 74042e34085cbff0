// The camera data recorder end to end: real movies written through GStreamer and read back as
// stored, the numbered files and their folder, the photo library's copies, refused frames and
// the log lines.

#include <stdlib.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <random>

#include <gtest/gtest.h>

#include "kwqimage/KWQCameraRollHelper.h"
#include "kwqimage/KWQImageDictionary.h"
#include "platform/foundation/file_url.h"
#include "platform/media/photo_library.h"
#include "recording/recording_support.h"
#include "support/test_support.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace kwq {
namespace {

// One documents and one pictures folder per test process: the recorder caches its folder for
// the life of the process, so every test of a process shares them.
class Folders : public ::testing::Environment {
 public:
  static inline fs::path root;
  void SetUp() override {
    char name[] = "/tmp/kwq-recorder-XXXXXX";
    ASSERT_NE(::mkdtemp(name), nullptr);
    root = name;
    fs::create_directories(root / "Documents");
    fs::create_directories(root / "Pictures");
    KWQImageDictionary::setDocumentsDirectory((root / "Documents").string());
    KWQCameraRollHelper::setPhotoLibraryDirectory((root / "Pictures").string());
  }
  void TearDown() override { fs::remove_all(root); }
};
[[maybe_unused]] const auto* const kFolders = ::testing::AddGlobalTestEnvironment(new Folders);

// Frame i's time: a 90 kHz clock with uneven steps, starting far from zero.
constexpr int32_t kTimescale = 90000;
constexpr int64_t kSteps[] = {3003, 2970, 3003, 4500};
constexpr int64_t kBase = 123456789;
int64_t ticks(int i) {
  int64_t t = 0;
  for (int k = 0; k < i; ++k) t += kSteps[k % 4];
  return t;
}
int64_t nsToTicks(int64_t ns) {
  return std::llround(static_cast<double>(ns) * kTimescale / 1e9);
}

SampleBuffer frame(uint32_t format, size_t width, size_t height, int i, size_t rowAlignment = 64) {
  return SampleBuffer(test::patternFrame(format, width, height, i, rowAlignment),
                      {kBase + ticks(i), kTimescale}, {kSteps[i % 4], kTimescale});
}

std::vector<std::string> names(const fs::path& folder) {
  std::vector<std::string> out;
  for (const auto& entry : fs::directory_iterator(folder)) out.push_back(entry.path().filename());
  std::sort(out.begin(), out.end());
  return out;
}

size_t countContaining(const std::vector<std::string>& lines, const std::string& text) {
  return std::count_if(lines.begin(), lines.end(),
                       [&](const std::string& l) { return l.find(text) != std::string::npos; });
}

class Recorder : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(rec.waitForPendingSaves(60s));
    rec.setIsRecording(false);
    rec.setCameraDataCounter(0);
    for (const auto& entry : fs::directory_iterator(pictures())) fs::remove_all(entry);
  }
  void TearDown() override {
    EXPECT_TRUE(rec.waitForPendingSaves(60s));
    rec.setIsRecording(false);
  }

  static fs::path pictures() { return Folders::root / "Pictures"; }
  static std::string folder() {
    return (Folders::root / "Documents").string() + "//SavedCameraData";
  }

  // Records pattern frames 0..frames-1 and waits for the photo library's copy.
  void record(uint32_t format, size_t width, size_t height, int frames) {
    ASSERT_TRUE(rec.startSavingCameraData());
    for (int i = 0; i < frames; ++i)
      ASSERT_TRUE(rec.appendCameraData(frame(format, width, height, i)));
    ASSERT_TRUE(rec.stopSavingCameraData());
    ASSERT_TRUE(rec.waitForPendingSaves(120s));
  }

  KWQCameraRollHelper& rec = KWQCameraRollHelper::getInstance();
};

struct Format {
  uint32_t pixelFormat;
  size_t width, height;
};

void PrintTo(const Format& f, std::ostream* os) {
  *os << (f.pixelFormat == kPixelFormatBGRA ? "BGRA " : "420f ") << f.width << "x" << f.height;
}

class RecordedMovie : public Recorder, public ::testing::WithParamInterface<Format> {};

TEST_P(RecordedMovie, HoldsEveryFrameAsDeliveredWithItsTimeStamps) {
  const Format f = GetParam();
  constexpr int kFrames = 90;
  record(f.pixelFormat, f.width, f.height, kFrames);
  EXPECT_FALSE(rec.isRecording());
  EXPECT_EQ(rec.cameraDataCounter(), 1u);
  EXPECT_TRUE(fs::is_empty(folder()));  // emptied once the photo library had its copy
  ASSERT_EQ(names(pictures()), std::vector<std::string>{"FrontCardData0.mov"});

  int n = 0, worst = 0;
  const auto movie = test::readMovie(pictures() / "FrontCardData0.mov", [&](const auto& stored) {
    EXPECT_EQ(stored.width, static_cast<int>(f.width));
    EXPECT_EQ(stored.height, static_cast<int>(f.height));
    // Times in the frames' own clock, rebased on the first frame; the last frame lasts its
    // sample's duration.
    EXPECT_EQ(nsToTicks(stored.ptsNs), ticks(n)) << n;
    EXPECT_EQ(nsToTicks(stored.durationNs), kSteps[n % 4]) << n;
    worst = std::max(worst, test::patternDifference(stored, f.pixelFormat, n));
    ++n;
  });
  ASSERT_TRUE(movie.opened) << movie.error;
  EXPECT_EQ(movie.frames, size_t{kFrames});
  EXPECT_EQ(movie.firstPtsNs, 0);
  EXPECT_EQ(worst, 0);  // repacking only: the stored samples are the delivered ones
}

// One size a format: the stored size follows the frames (padded rows: the refusal test below).
INSTANTIATE_TEST_SUITE_P(Formats, RecordedMovie,
                         ::testing::Values(Format{kPixelFormat420f, 1280, 720},
                                           Format{kPixelFormatBGRA, 640, 480}),
                         [](const auto& info) {
                           return std::string(info.param.pixelFormat == kPixelFormatBGRA ? "BGRA"
                                                                                         : "NV12") +
                                  std::to_string(info.param.width);
                         });

TEST_F(Recorder, SecondRecordingWritesTheNextNumberIntoAFreshlyEmptiedFolder) {
  test::LogCapture log;
  fs::remove_all(folder());
  EXPECT_EQ(rec.getCameraDataFolderPath(), folder());
  record(kPixelFormat420f, 64, 48, 3);
  // Only the first start's removal of a folder that did not exist is worth a line.
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].rfind(
                "Record Camera Data: Error removing folder at path: " + folder() + ", ", 0),
            0u);

  std::ofstream(folder() + "/leftover.bin") << "x";
  ASSERT_TRUE(rec.startSavingCameraData());
  EXPECT_EQ(rec.videoFilePath(), platform::fileURLWithPath(folder() + "/FrontCardData1.mov"));
  EXPECT_EQ(rec.getCameraDataFilePath(), rec.videoFilePath());
  EXPECT_TRUE(fs::is_empty(folder()));
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(rec.appendCameraData(frame(kPixelFormat420f, 64, 48, i)));
  ASSERT_TRUE(rec.stopSavingCameraData());
  ASSERT_TRUE(rec.waitForPendingSaves(60s));

  EXPECT_EQ(rec.cameraDataCounter(), 2u);
  ASSERT_EQ(names(pictures()),
            (std::vector<std::string>{"FrontCardData0.mov", "FrontCardData1.mov"}));
  for (const char* name : {"FrontCardData0.mov", "FrontCardData1.mov"})
    EXPECT_EQ(test::readMovie(pictures() / name).frames, 3u) << name;
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(Recorder, ARestartBeforeThePhotoLibrarysSaveLosesNoMovie) {
  // Holds the photo library's thread: saves queued behind this one wait until it is released.
  std::mutex mutex;
  std::condition_variable cv;
  bool released = false;
  platform::saveVideoToPhotoLibrary("/nonexistent/kwq-hold.mov",
                                    [&](const std::optional<std::string>&, const std::string&) {
                                      std::unique_lock lock(mutex);
                                      cv.wait(lock, [&] { return released; });
                                    });
  auto release = [&] {
    {
      std::lock_guard lock(mutex);
      released = true;
    }
    cv.notify_all();
  };
  struct Release {
    std::function<void()> f;
    ~Release() { f(); }
  } releaseOnExit{release};

  ASSERT_TRUE(rec.startSavingCameraData());
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(rec.appendCameraData(frame(kPixelFormat420f, 64, 48, i)));
  ASSERT_TRUE(rec.stopSavingCameraData());
  // The movie is finished before the photo library has it: recording is over already.
  ASSERT_TRUE(test::waitUntil([&] { return !rec.isRecording(); }));
  EXPECT_TRUE(fs::is_empty(pictures()));
  EXPECT_EQ(rec.cameraDataCounter(), 0u);
  ASSERT_TRUE(rec.startSavingCameraData());
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(rec.appendCameraData(frame(kPixelFormat420f, 64, 48, i)));
  ASSERT_TRUE(rec.stopSavingCameraData());
  release();
  ASSERT_TRUE(rec.waitForPendingSaves(60s));
  EXPECT_EQ(rec.cameraDataCounter(), 2u);
  ASSERT_EQ(names(pictures()),
            (std::vector<std::string>{"FrontCardData0.mov", "FrontCardData1.mov"}));
  EXPECT_EQ(test::readMovie(pictures() / "FrontCardData0.mov").frames, 3u);
  EXPECT_EQ(test::readMovie(pictures() / "FrontCardData1.mov").frames, 5u);
  EXPECT_TRUE(fs::is_empty(folder()));
}

TEST_F(Recorder, FiftyBackToBackRecordingsLeaveFiftyPlayableMovies) {
  constexpr int kCycles = 50, kFrames = 4;
  int appended = 0;
  for (int c = 0; c < kCycles; ++c) {
    // Started again as soon as the recorder takes it.
    ASSERT_TRUE(test::waitUntil([&] { return rec.startSavingCameraData(); })) << c;
    for (int i = 0; i < kFrames; ++i)
      appended += rec.appendCameraData(frame(kPixelFormat420f, 64, 48, i));
    ASSERT_TRUE(rec.stopSavingCameraData());
  }
  EXPECT_EQ(appended, kCycles * kFrames);
  ASSERT_TRUE(rec.waitForPendingSaves(120s));
  const auto saved = names(pictures());
  EXPECT_EQ(saved.size(), size_t{kCycles});
  int playable = 0;
  for (const auto& name : saved) {
    const auto movie = test::readMovie(pictures() / name);
    playable += movie.opened && movie.frames == size_t{kFrames};
  }
  EXPECT_EQ(playable, kCycles);
  EXPECT_EQ(rec.cameraDataCounter(), uint32_t{kCycles});
  EXPECT_TRUE(fs::is_empty(folder()));
}

TEST_F(Recorder, StartsOnceRefusesUnreadyFramesAndStaysRecordingAfterAStopBeforeTheFirstFrame) {
  fs::create_directories(folder());  // so that the start has nothing to log
  test::LogCapture log;
  EXPECT_FALSE(rec.stopSavingCameraData());  // idle
  ASSERT_TRUE(rec.startSavingCameraData());
  EXPECT_FALSE(rec.startSavingCameraData());

  const PixelBuffer pixels = test::patternFrame(kPixelFormat420f, 64, 48, 0);
  EXPECT_FALSE(rec.appendCameraData(SampleBuffer(pixels, {1, 600}, {20, 600}, false)));
  EXPECT_FALSE(rec.appendCameraData(SampleBuffer()));
  EXPECT_FALSE(rec.appendCameraData(SampleBuffer(pixels, MediaTime::invalid())));
  EXPECT_TRUE(fs::is_empty(folder()));  // the writer never started: no movie file

  // Nothing was written, so nothing is finished: the recorder keeps recording.
  EXPECT_TRUE(rec.stopSavingCameraData());
  EXPECT_TRUE(rec.isRecording());
  EXPECT_FALSE(rec.startSavingCameraData());
  EXPECT_TRUE(rec.waitForPendingSaves(0ms));
  EXPECT_TRUE(fs::is_empty(pictures()));
  EXPECT_EQ(rec.cameraDataCounter(), 0u);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Recorder, RefusesFramesTheMovieCannotHoldAndKeepsRecordingTheRest) {
  test::LogCapture log;
  ASSERT_TRUE(rec.startSavingCameraData());
  // The first frame starts the movie's session; a format the writer cannot store is refused.
  uint8_t bytes[64 * 48 * 2] = {};
  const PixelBuffer yuvs =
      PixelBuffer::wrap(fourCharCode("yuvs"), 64, 48, {{bytes, 128, 64, 48}}, [] {});
  ASSERT_FALSE(yuvs.isNull());
  EXPECT_FALSE(rec.appendCameraData(SampleBuffer(yuvs, {kBase - 900, kTimescale})));
  EXPECT_FALSE(rec.appendCameraData(frame(kPixelFormat420f, 8, 8, 0)));  // below 16 pixels

  // Padded rows (stride 256) must not leak into the movie.
  const size_t w = 96, h = 64, align = 256;
  for (int i = 0; i < 5; ++i)
    ASSERT_TRUE(rec.appendCameraData(frame(kPixelFormat420f, w, h, i, align)));
  EXPECT_FALSE(rec.appendCameraData(frame(kPixelFormat420f, 64, 48, 5)));  // size changed
  EXPECT_FALSE(rec.appendCameraData(frame(kPixelFormatBGRA, w, h, 5)));    // format changed
  EXPECT_FALSE(rec.appendCameraData(frame(kPixelFormat420f, w, h, 4)));    // time repeats
  for (int i = 5; i < 10; ++i)
    ASSERT_TRUE(rec.appendCameraData(frame(kPixelFormat420f, w, h, i, align)));
  ASSERT_TRUE(rec.stopSavingCameraData());
  ASSERT_TRUE(rec.waitForPendingSaves(60s));

  EXPECT_EQ(countContaining(log.lines(),
                            "Record Camera Data: Unable to append video sample to writer: 1, "),
            5u);
  EXPECT_EQ(countContaining(log.lines(), "not supported"), 1u);
  int n = 0, worst = 0;
  const auto movie = test::readMovie(pictures() / "FrontCardData0.mov", [&](const auto& stored) {
    EXPECT_EQ(nsToTicks(stored.ptsNs), ticks(n));  // the first accepted frame is time 0
    worst = std::max(worst, test::patternDifference(stored, kPixelFormat420f, n++));
  });
  ASSERT_TRUE(movie.opened) << movie.error;
  EXPECT_EQ(movie.frames, 10u);
  EXPECT_EQ(worst, 0);
}

TEST_F(Recorder, AFolderThatCannotBeCreatedFailsTheMovieAndReturnsToIdle) {
  // A file where the documents folder should be: the folder lookup cannot create it either.
  const fs::path documents = Folders::root / "Documents", away = Folders::root / "Away";
  fs::rename(documents, away);
  std::ofstream(documents) << "not a folder";
  struct Restore {
    fs::path from, to;
    ~Restore() {
      std::error_code ec;
      fs::remove(to, ec);
      fs::rename(from, to, ec);
    }
  } restore{away, documents};

  test::LogCapture log;
  ASSERT_TRUE(rec.startSavingCameraData());
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[1], "Record Camera Data: Error creating folder at path: " + folder() +
                                ", \"SavedCameraData\" couldn't be created: Not a directory");
  EXPECT_FALSE(rec.appendCameraData(frame(kPixelFormat420f, 64, 48, 0)));
  EXPECT_FALSE(rec.appendCameraData(frame(kPixelFormat420f, 64, 48, 1)));
  ASSERT_GE(log.lines().size(), 4u);
  EXPECT_EQ(
      log.lines()[2].rfind("Record Camera Data: Unable to append video sample to writer: 3, ", 0),
      0u);
  EXPECT_EQ(
      log.lines()[3].rfind("Record Camera Data: An error has occured recording the camera. ", 0),
      0u);
  EXPECT_NE(log.lines()[3].find("FrontCardData0.mov"), std::string::npos) << log.lines()[3];

  // A failed movie is still finished and handed on, so the recorder does not get stuck.
  EXPECT_TRUE(rec.stopSavingCameraData());
  ASSERT_TRUE(rec.waitForPendingSaves(60s));
  EXPECT_FALSE(rec.isRecording());
  EXPECT_EQ(rec.cameraDataCounter(), 1u);
  EXPECT_TRUE(fs::is_empty(pictures()));
}

TEST_F(Recorder, SavesImagesToThePhotoLibraryWithoutReplacingEarlierOnes) {
  rec.saveImageToCameraRoll(Image(), "nothing");  // a null image does nothing
  std::mt19937 rng(7);
  const Image image = test::randomImage(rng, PixelLayout::RGB24, 40, 30);
  rec.saveImageToCameraRoll(image, "card");
  rec.saveImageToCameraRoll(image, "card");
  ASSERT_TRUE(rec.waitForPendingSaves(60s));
  const auto saved = names(pictures());
  ASSERT_EQ(saved.size(), 2u);
  for (const auto& name : saved) {
    const Image back = Image::loadFile(pictures() / name);
    ASSERT_FALSE(back.isNull()) << name;
    EXPECT_TRUE(std::equal(back.bytes().begin(), back.bytes().end(), image.bytes().begin(),
                           image.bytes().end()))
        << name;
  }
}

}  // namespace
}  // namespace kwq

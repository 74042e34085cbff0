// The movie writer on its own: file URLs, what it refuses and why, back-pressure on its queue,
// finishing on its own thread, and the movie it leaves.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "platform/foundation/file_url.h"
#include "platform/media/movie_writer.h"
#include "recording/recording_support.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace kwq::platform {
namespace {

class MovieWriterTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(root_.empty()); }

  std::string url(const std::string& name) const {
    return fileURLWithPath((root_ / name).string());
  }

  // Finishes the writer and returns the id of the thread the handler ran on.
  static std::thread::id finish(MovieWriter& writer) {
    std::promise<std::thread::id> ran;
    auto done = ran.get_future();
    writer.finishWriting([&] { ran.set_value(std::this_thread::get_id()); });
    EXPECT_EQ(done.wait_for(30s), std::future_status::ready);
    return done.get();
  }

  const test::TempDir dir_{"kwq-writer"};
  const fs::path root_ = dir_.path;
};

TEST(FileURL, RoundTripsAnyPathAndRefusesWhatIsNotALocalFile) {
  for (const std::string path : {"/a/b c/%41/\u00fc.mov", "/docs//SavedCameraData/x.mov"}) {
    const std::string url = fileURLWithPath(path);
    EXPECT_EQ(url.find(' '), std::string::npos) << url;
    EXPECT_EQ(pathFromFileURL(url), path) << url;
  }
  EXPECT_EQ(pathFromFileURL("FILE://localhost/x%20y"), "/x y");
  for (const char* bad :
       {"http://host/x.mov", "file://host/x.mov", "file:x.mov", "file:///a%2", "file:///a%00b"})
    EXPECT_FALSE(pathFromFileURL(bad).has_value()) << bad;
}

TEST_F(MovieWriterTest, FailsWithAReadableReasonAndNeverReplacesAFile) {
  std::string error;
  EXPECT_EQ(MovieWriter::create("http://host/x.mov", MovieFileType::QuickTimeMovie, &error),
            nullptr);
  EXPECT_NE(error.find("not the URL of a local file"), std::string::npos) << error;

  std::ofstream(root_ / "taken.mov") << "keep";
  auto taken = MovieWriter::create(url("taken.mov"), MovieFileType::QuickTimeMovie);
  auto input = MovieWriterInput::videoInput();
  ASSERT_TRUE(taken->addInput(input));
  EXPECT_FALSE(taken->addInput(MovieWriterInput::videoInput()));  // one input per writer
  EXPECT_FALSE(taken->startWriting());
  EXPECT_EQ(taken->status(), MovieWriterStatus::Failed);
  EXPECT_NE(taken->error().find("already exists"), std::string::npos) << taken->error();
  EXPECT_EQ(fs::file_size(root_ / "taken.mov"), 4u);
  EXPECT_TRUE(input->isReadyForMoreMediaData());  // nobody may wait on a failed writer
  EXPECT_NE(finish(*taken), std::this_thread::get_id());
  EXPECT_EQ(taken->status(), MovieWriterStatus::Failed);
}

TEST_F(MovieWriterTest, QueueFillsDrainsAndRefusesWhatIgnoresIt) {
  auto writer = MovieWriter::create(url("m.mov"), MovieFileType::QuickTimeMovie);
  auto input = MovieWriterInput::videoInput();
  input->setExpectsMediaDataInRealTime(true);
  ASSERT_TRUE(writer->addInput(input));
  ASSERT_TRUE(writer->startWriting());
  writer->startSessionAtSourceTime({1000, 600});
  std::vector<PixelBuffer> frames;
  for (int i = 0; i < 4; ++i) frames.push_back(test::patternFrame(kPixelFormat420f, 1280, 720, i));
  const auto sample = [&](int i, int64_t t) { return SampleBuffer(frames[i % 4], {t, 600}); };
  EXPECT_FALSE(input->appendSampleBuffer(sample(0, 990)));  // before the session
  EXPECT_NE(writer->error().find("before the session"), std::string::npos);

  // Copying a frame in is far quicker than converting and writing it, so appending without
  // waiting fills the queue, and ignoring that is refused soon after.
  int accepted = 0;
  bool sawFull = false, refused = false;
  for (int i = 0; i < 400 && !refused; ++i) {
    sawFull = sawFull || !input->isReadyForMoreMediaData();
    if (input->appendSampleBuffer(sample(i, 1000 + 10 * accepted)))
      ++accepted;
    else
      refused = true;
  }
  EXPECT_TRUE(sawFull);
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
  // Under AddressSanitizer the writer was seen to drain 1280x720 frames as fast as this loop
  // copies them in, so the queue never reaches the refusal mark; the plain build checks it.
  if (!refused) GTEST_SKIP() << "the queue kept up with " << accepted << " appends under ASan";
#endif
#endif
  ASSERT_TRUE(refused);
  EXPECT_EQ(writer->error(), "The writer's queue is full.");
  EXPECT_TRUE(test::waitUntil([&] { return input->isReadyForMoreMediaData(); }));
  EXPECT_FALSE(input->appendSampleBuffer(sample(0, 1000 + 10 * (accepted - 1))));  // not later
  ASSERT_TRUE(input->appendSampleBuffer(sample(accepted, 1000 + 10 * accepted)));
  ++accepted;
  EXPECT_EQ(writer->status(), MovieWriterStatus::Writing);

  input->markAsFinished();
  EXPECT_FALSE(input->appendSampleBuffer(sample(0, 99999)));
  EXPECT_EQ(writer->error(), "The input was marked as finished.");
  EXPECT_NE(finish(*writer), std::this_thread::get_id());
  EXPECT_EQ(writer->status(), MovieWriterStatus::Completed);

  int n = 0;
  const auto movie = test::readMovie((root_ / "m.mov").string(), [&](const auto& stored) {
    EXPECT_EQ(stored.ptsNs, n * 1000000000LL / 60) << n;
    ++n;
  });
  ASSERT_TRUE(movie.opened) << movie.error;
  EXPECT_EQ(movie.frames, static_cast<size_t>(accepted));
}

// The index room a movie keeps free for its updates is sized to the movie: a few frames make a
// file about as large as their pixels, not one with megabytes of reserved index.
TEST_F(MovieWriterTest, AShortMovieIsAboutAsLargeAsItsFrames) {
  auto writer = MovieWriter::create(url("short.mov"), MovieFileType::QuickTimeMovie);
  auto input = MovieWriterInput::videoInput();
  input->setExpectsMediaDataInRealTime(true);
  ASSERT_TRUE(writer->addInput(input));
  ASSERT_TRUE(writer->startWriting());
  writer->startSessionAtSourceTime({0, 90000});
  constexpr int kFrames = 9;
  for (int i = 0; i < kFrames; ++i) {
    ASSERT_TRUE(test::waitUntil([&] { return input->isReadyForMoreMediaData(); }));
    ASSERT_TRUE(input->appendSampleBuffer(SampleBuffer(
        test::patternFrame(kPixelFormat420f, 320, 240, i), {i * 3000, 90000}, {3000, 90000})))
        << writer->error();
  }
  input->markAsFinished();
  finish(*writer);
  ASSERT_EQ(writer->status(), MovieWriterStatus::Completed) << writer->error();
  const auto movie = test::readMovie((root_ / "short.mov").string());
  ASSERT_TRUE(movie.opened) << movie.error;
  EXPECT_EQ(movie.frames, static_cast<size_t>(kFrames));
  const uintmax_t pixels = kFrames * 320 * 240 * 2;  // stored as 4:2:2, two bytes a pixel
  const uintmax_t size = fs::file_size(root_ / "short.mov");
  std::printf("9-frame 320x240 movie: %ju bytes (%ju of them frames)\n", size, pixels);
  EXPECT_LE(size, pixels + 64 * 1024) << "bytes beyond the frames: " << size - pixels;
}

}  // namespace
}  // namespace kwq::platform

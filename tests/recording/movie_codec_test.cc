// Encoded movies: frames coded with lossless H.264, read back through
// GStreamer's decoders and compared with the frames that were appended. (That
// the encoded movie is far smaller than the raw one: the fresh-account test,
// through `kwq capture --codec`.)

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/file_url.h"
#include "platform/media/movie_writer.h"
#include "recording/recording_support.h"

namespace fs = std::filesystem;

namespace kwq {
namespace {

using platform::MovieVideoCodec;
using platform::MovieWriter;
using platform::MovieWriterInput;
using platform::MovieWriterStatus;

constexpr int32_t kTimescale = 90000;
constexpr int64_t kStep = 3000;  // 30 frames a second

// Writes `frames` into `path` with `codec`; true when the movie was completed.
bool writeMovie(const fs::path& path, MovieVideoCodec codec,
                const std::vector<PixelBuffer>& frames) {
  auto writer = MovieWriter::create(platform::fileURLWithPath(path.string()),
                                    platform::MovieFileType::QuickTimeMovie);
  auto input = MovieWriterInput::videoInput(codec);
  if (!writer || !writer->addInput(input) || !writer->startWriting()) return false;
  writer->startSessionAtSourceTime({0, kTimescale});
  for (int64_t i = 0; i < static_cast<int64_t>(frames.size()); ++i) {
    if (!test::waitUntil([&] { return input->isReadyForMoreMediaData(); })) return false;
    if (!input->appendSampleBuffer(
            SampleBuffer(frames[i], {i * kStep, kTimescale}, {kStep, kTimescale}))) {
      ADD_FAILURE() << "frame " << i << ": " << writer->error();
      return false;
    }
  }
  input->markAsFinished();
  std::atomic<bool> done{false};
  writer->finishWriting([&] { done = true; });
  return test::waitUntil([&] { return done.load(); }, std::chrono::seconds(120)) &&
         writer->status() == MovieWriterStatus::Completed;
}

// The planes of a decoded 4:2:0 frame (I420 or NV12): sample (x, y) of plane 0,
// 1 (Cb), 2 (Cr).
int sampleAt(const test::StoredFrame& f, int component, int x, int y) {
  if (component == 0) return f.plane[0][y * f.planeStride[0] + x];
  if (f.format == "NV12") return f.plane[1][y * f.planeStride[1] + 2 * x + (component - 1)];
  return f.plane[component][y * f.planeStride[component] + x];
}

// Largest difference between a decoded 4:2:0 frame and the 420f frame that was
// appended; 256 when the decoded frame is not 4:2:0 of the same size.
int difference(const test::StoredFrame& f, const PixelBuffer& pb) {
  if ((f.format != "I420" && f.format != "NV12") || f.width != static_cast<int>(pb.width()) ||
      f.height != static_cast<int>(pb.height()))
    return 256;
  if (!pb.lockBaseAddress(kPixelBufferLockReadOnly)) return 256;
  int worst = 0;
  for (int y = 0; y < f.height; ++y)
    for (int x = 0; x < f.width; ++x)
      worst = std::max(worst, std::abs(sampleAt(f, 0, x, y) -
                                       pb.baseAddressOfPlane(0)[y * pb.bytesPerRowOfPlane(0) + x]));
  for (int y = 0; y < f.height / 2; ++y)
    for (int x = 0; x < f.width / 2; ++x)
      for (int c = 1; c <= 2; ++c)
        worst = std::max(
            worst,
            std::abs(sampleAt(f, c, x, y) -
                     pb.baseAddressOfPlane(1)[y * pb.bytesPerRowOfPlane(1) + 2 * x + c - 1]));
  pb.unlockBaseAddress(kPixelBufferLockReadOnly);
  return worst;
}

TEST(MovieCodecs, LosslessH264DecodesToTheAppendedFramesAtTheirTimes) {
  const test::TempDir dir("kwq-codec");
  ASSERT_FALSE(dir.path.empty());
  std::vector<PixelBuffer> frames;
  for (int i = 0; i < 12; ++i)
    frames.push_back(test::patternFrame(kPixelFormat420f, 320, 240, i, /*rowAlignment=*/64));
  const fs::path path = dir.path / "lossless.mov";
  ASSERT_TRUE(writeMovie(path, MovieVideoCodec::H264Lossless, frames));

  std::vector<int64_t> times;
  std::vector<int> worst;
  const auto movie = test::readMovie(
      path.string(),
      [&](const test::StoredFrame& f) {
        const size_t i = times.size();
        times.push_back(f.ptsNs);
        worst.push_back(i < frames.size() ? difference(f, frames[i]) : 256);
      },
      /*decode=*/true);
  ASSERT_TRUE(movie.opened) << movie.error;
  ASSERT_EQ(times.size(), 12u);
  for (size_t i = 0; i < times.size(); ++i) {
    EXPECT_EQ(worst[i], 0) << "frame " << i;
    EXPECT_NEAR(static_cast<double>(times[i]), i * kStep * 1e9 / kTimescale, 1e3) << "frame " << i;
  }
  EXPECT_NEAR(static_cast<double>(movie.endNs), 12 * kStep * 1e9 / kTimescale, 1e3);
}

}  // namespace
}  // namespace kwq

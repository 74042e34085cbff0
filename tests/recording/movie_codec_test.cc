// Encoded movies: frames coded with lossless H.264, read back through
// GStreamer's decoders and compared with the frames that were appended; sizes compared with
// the raw movie of the same frames.
//
// KWQ_CODEC_FRAMES=<n> sets how many frames of the synthetic card scene the size comparison
// records (60 unless set); it prints bytes a second, encoding CPU a frame and PSNR per codec.

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/file_url.h"
#include "platform/media/movie_writer.h"
#include "recording/recording_support.h"
#include "synthetic/renderer.h"

namespace fs = std::filesystem;

namespace kwq {
namespace {

using platform::MovieVideoCodec;
using platform::MovieWriter;
using platform::MovieWriterInput;
using platform::MovieWriterStatus;

constexpr int32_t kTimescale = 90000;
constexpr int64_t kStep = 3000;  // 30 frames a second

struct TempDir {
  fs::path path;
  TempDir() {
    char name[] = "/tmp/kwq-codec-XXXXXX";
    if (::mkdtemp(name)) path = name;
  }
  ~TempDir() {
    if (!path.empty()) fs::remove_all(path);
  }
};

double cpuSeconds(clockid_t clock) {
  timespec t{};
  ::clock_gettime(clock, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// Writes frames 0..count-1 from `frameAt` into `path` with `codec`; true when the movie was
// completed. `excludedCpu` collects the CPU time frameAt spent on this thread.
template <class FrameAt>
bool writeMovie(const fs::path& path, MovieVideoCodec codec, int count, FrameAt frameAt,
                double* excludedCpu = nullptr) {
  auto writer = MovieWriter::create(platform::fileURLWithPath(path.string()),
                                    platform::MovieFileType::QuickTimeMovie);
  auto input = MovieWriterInput::videoInput(codec);
  if (!writer || !writer->addInput(input) || !writer->startWriting()) return false;
  writer->startSessionAtSourceTime({0, kTimescale});
  for (int i = 0; i < count; ++i) {
    const double before = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    PixelBuffer pb = frameAt(i);
    if (excludedCpu) *excludedCpu += cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - before;
    if (!test::waitUntil([&] { return input->isReadyForMoreMediaData(); })) return false;
    if (!input->appendSampleBuffer(
            SampleBuffer(pb, {i * kStep, kTimescale}, {kStep, kTimescale}))) {
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

// The planes of a decoded 4:2:0 frame (I420 or NV12): sample (x, y) of plane 0, 1 (Cb), 2 (Cr).
int sampleAt(const test::StoredFrame& f, int component, int x, int y) {
  if (component == 0) return f.plane[0][y * f.planeStride[0] + x];
  if (f.format == "NV12") return f.plane[1][y * f.planeStride[1] + 2 * x + (component - 1)];
  return f.plane[component][y * f.planeStride[component] + x];
}

// Largest difference between a decoded 4:2:0 frame and the 420f frame that was appended; 256
// when the decoded frame is not 4:2:0 of the same size.
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

// Squared error of the luma plane of a stored or decoded frame against a 420f frame, summed.
double lumaSquaredError(const test::StoredFrame& f, const PixelBuffer& pb) {
  if (!pb.lockBaseAddress(kPixelBufferLockReadOnly)) return 1e30;
  const bool uyvy = f.format == "UYVY";
  double sum = 0;
  for (int y = 0; y < f.height; ++y)
    for (int x = 0; x < f.width; ++x) {
      const int stored = uyvy ? f.data[y * f.stride + 2 * x + 1] : sampleAt(f, 0, x, y);
      const int d = stored - pb.baseAddressOfPlane(0)[y * pb.bytesPerRowOfPlane(0) + x];
      sum += d * d;
    }
  pb.unlockBaseAddress(kPixelBufferLockReadOnly);
  return sum;
}

// Full-range BT.601 4:2:0 from opaque BGRA, as a camera delivering 420f would give it.
PixelBuffer to420f(const std::vector<uint8_t>& bgra, size_t width, size_t height) {
  PixelBuffer pb = PixelBuffer::allocate(kPixelFormat420f, width, height);
  pb.lockBaseAddress();
  auto clamp = [](double v) {
    return static_cast<uint8_t>(std::lround(std::clamp(v, 0.0, 255.0)));
  };
  for (size_t y = 0; y < height; ++y)
    for (size_t x = 0; x < width; ++x) {
      const uint8_t* p = &bgra[(y * width + x) * 4];
      pb.baseAddressOfPlane(0)[y * pb.bytesPerRowOfPlane(0) + x] =
          clamp(0.299 * p[2] + 0.587 * p[1] + 0.114 * p[0]);
    }
  for (size_t y = 0; y < height / 2; ++y)
    for (size_t x = 0; x < width / 2; ++x) {
      double b = 0, g = 0, r = 0;
      for (size_t k = 0; k < 4; ++k) {
        const uint8_t* p = &bgra[((2 * y + k / 2) * width + 2 * x + k % 2) * 4];
        b += p[0] / 4.0;
        g += p[1] / 4.0;
        r += p[2] / 4.0;
      }
      uint8_t* c = pb.baseAddressOfPlane(1) + y * pb.bytesPerRowOfPlane(1) + 2 * x;
      c[0] = clamp(128 - 0.168736 * r - 0.331264 * g + 0.5 * b);
      c[1] = clamp(128 + 0.5 * r - 0.418688 * g - 0.081312 * b);
    }
  pb.unlockBaseAddress();
  return pb;
}

TEST(MovieCodecs, LosslessH264DecodesToTheAppendedFramesAtTheirTimes) {
  TempDir dir;
  ASSERT_FALSE(dir.path.empty());
  std::vector<PixelBuffer> frames;
  for (int i = 0; i < 12; ++i)
    frames.push_back(test::patternFrame(kPixelFormat420f, 320, 240, i, /*rowAlignment=*/64));
  const fs::path path = dir.path / "lossless.mov";
  ASSERT_TRUE(
      writeMovie(path, MovieVideoCodec::H264Lossless, 12, [&](int i) { return frames[i]; }));

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

TEST(MovieCodecs, EncodedMoviesOfTheCardSceneAreSmallerAndFaithful) {
  const char* env = std::getenv("KWQ_CODEC_FRAMES");
  const int count = env ? std::clamp(std::atoi(env), 10, 3000) : 60;
  constexpr size_t kWidth = 1280, kHeight = 720;
  synthetic::SceneRenderer scene(SyntheticScene::card(), kWidth, kHeight);
  std::vector<uint8_t> bgra(kWidth * kHeight * 4);
  auto frameAt = [&](int i) {
    scene.render(static_cast<uint64_t>(i), {}, bgra.data(), kWidth * 4);
    return to420f(bgra, kWidth, kHeight);
  };
  TempDir dir;
  ASSERT_FALSE(dir.path.empty());
  struct Row {
    const char* name;
    MovieVideoCodec codec;
    uintmax_t bytes = 0;
    double cpuPerFrameMs = 0;
    double psnr = 0;
    int worst = 0;
    size_t frames = 0;
  };
  Row rows[] = {{"raw", MovieVideoCodec::Raw}, {"h264 lossless", MovieVideoCodec::H264Lossless}};
  for (Row& row : rows) {
    const fs::path path = dir.path / (std::string(row.name) + ".mov");
    double renderCpu = 0;
    const double before = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
    ASSERT_TRUE(writeMovie(path, row.codec, count, frameAt, &renderCpu)) << row.name;
    row.cpuPerFrameMs = (cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - before - renderCpu) * 1000 / count;
    row.bytes = fs::file_size(path);
    double squared = 0;
    int64_t pixels = 0;
    const auto movie = test::readMovie(
        path.string(),
        [&](const test::StoredFrame& f) {
          const PixelBuffer original = frameAt(static_cast<int>(row.frames++));
          squared += lumaSquaredError(f, original);
          pixels += static_cast<int64_t>(f.width) * f.height;
          if (row.codec != MovieVideoCodec::Raw)
            row.worst = std::max(row.worst, difference(f, original));
        },
        /*decode=*/row.codec != MovieVideoCodec::Raw);
    ASSERT_TRUE(movie.opened) << row.name << ": " << movie.error;
    row.psnr = squared == 0 ? INFINITY : 10 * std::log10(255.0 * 255.0 * pixels / squared);
    std::printf(
        "%-14s %4zu frames  %7.2f MB/s  %6.2f ms CPU/frame  PSNR(Y) %6.2f dB  max diff %d\n",
        row.name, row.frames, row.bytes / 1e6 * 30 / count, row.cpuPerFrameMs, row.psnr, row.worst);
    EXPECT_EQ(row.frames, static_cast<size_t>(count)) << row.name;
  }
  EXPECT_TRUE(std::isinf(rows[0].psnr));
  EXPECT_EQ(rows[1].worst, 0);
  EXPECT_TRUE(std::isinf(rows[1].psnr));
  EXPECT_LT(rows[1].bytes * 4, rows[0].bytes);
}

}  // namespace
}  // namespace kwq

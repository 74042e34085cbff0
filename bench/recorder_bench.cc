// Camera data recording speed: 1280 x 720 420f frames appended as fast as the movie writer takes
// them, into a real QuickTime file in a temporary folder.
//
//   cmake -S . -B build-recorder -G Ninja && ninja -C build-recorder recorder_bench
//   ./build-recorder/bench/recorder_bench
//
// Prints Google Benchmark's own lines, then one table:
//   path | frames | seconds | fps | MB/s | target
// MB/s counts the 420f bytes handed in (1.38 MB a frame). Each time runs from the first append
// to the finished movie (final index written, pipeline stopped). Paths:
//  - writer:    the movie writer fed directly, readiness polled every 0.2 ms. Target: at least
//               60 fps, twice a camera's real time.
//  - recorder:  KWQCameraRollHelper::appendCameraData, which sleeps 0.1 s whenever the
//               writer's real-time queue (4 frames) is full: bursts are capped near 40 fps by
//               design; a 30 fps camera leaves the queue time to drain between frames.
//  - peer:      the same frames' stored bytes (UYVY, 1.84 MB a frame) written with write(2),
//               the disk's ceiling for any raw movie.

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "kwqimage/KWQCameraRollHelper.h"
#include "kwqimage/KWQImageDictionary.h"
#include "kwqimage/Log.h"
#include "platform/foundation/file_url.h"
#include "platform/media/movie_writer.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr size_t kW = 1280, kH = 720;
constexpr int kFrames = 240;
constexpr double kFrameMB = kW * kH * 3 / 2 / 1e6;

struct Row {
  int frames = 0;
  double seconds = 0;
};
std::map<std::string, Row>& rows() {
  static std::map<std::string, Row> r;
  return r;
}

const fs::path& scratch() {
  static const fs::path dir = [] {
    char name[] = "/tmp/kwq-recorder-bench-XXXXXX";
    return fs::path(::mkdtemp(name) ? name : "/tmp");
  }();
  return dir;
}

// Eight different frames with a camera-like gradient, cycled.
const std::vector<kwq::PixelBuffer>& frames() {
  static const std::vector<kwq::PixelBuffer> f = [] {
    std::vector<kwq::PixelBuffer> out;
    for (int i = 0; i < 8; ++i) {
      kwq::PixelBuffer pb = kwq::PixelBuffer::allocate(kwq::kPixelFormat420f, kW, kH);
      pb.lockBaseAddress();
      for (size_t p = 0; p < pb.planeCount(); ++p)
        for (size_t y = 0; y < pb.heightOfPlane(p); ++y)
          for (size_t x = 0; x < pb.bytesPerRowOfPlane(p); ++x)
            pb.baseAddressOfPlane(p)[y * pb.bytesPerRowOfPlane(p) + x] =
                static_cast<uint8_t>((x + 2 * y + 9 * i) / 3);
      pb.unlockBaseAddress();
      out.push_back(pb);
    }
    return out;
  }();
  return f;
}

kwq::SampleBuffer sample(int i) {
  return kwq::SampleBuffer(frames()[i % 8], {i * 3000LL, 90000}, {3000, 90000});
}

void report(benchmark::State& state, const char* path, int appended, double seconds) {
  state.SetIterationTime(seconds);
  state.counters["fps"] = appended / seconds;
  state.counters["MB/s"] = appended * kFrameMB / seconds;
  rows()[path] = {appended, seconds};
}

void BM_Writer(benchmark::State& state) {
  for (auto _ : state) {
    const fs::path file = scratch() / "writer.mov";
    fs::remove(file);
    auto writer = kwq::platform::MovieWriter::create(kwq::platform::fileURLWithPath(file.string()),
                                                     kwq::platform::MovieFileType::QuickTimeMovie);
    auto input = kwq::platform::MovieWriterInput::videoInput();
    input->setExpectsMediaDataInRealTime(true);
    if (!writer || !writer->addInput(input) || !writer->startWriting()) {
      state.SkipWithError("the writer did not start");
      return;
    }
    writer->startSessionAtSourceTime({0, 90000});
    int appended = 0;
    const auto t0 = Clock::now();
    for (int i = 0; i < kFrames; ++i) {
      while (!input->isReadyForMoreMediaData())
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      appended += input->appendSampleBuffer(sample(i));
    }
    input->markAsFinished();
    std::promise<void> done;
    writer->finishWriting([&] { done.set_value(); });
    done.get_future().wait();
    report(state, "writer", appended, std::chrono::duration<double>(Clock::now() - t0).count());
  }
}

void BM_Recorder(benchmark::State& state) {
  kwq::KWQImageDictionary::setDocumentsDirectory((scratch() / "Documents").string());
  kwq::KWQCameraRollHelper::setPhotoLibraryDirectory((scratch() / "Pictures").string());
  fs::create_directories(scratch() / "Documents");
  auto& recorder = kwq::KWQCameraRollHelper::getInstance();
  for (auto _ : state) {
    if (!recorder.startSavingCameraData()) {
      state.SkipWithError("the recorder did not start");
      return;
    }
    int appended = 0;
    const auto t0 = Clock::now();
    for (int i = 0; i < kFrames; ++i) appended += recorder.appendCameraData(sample(i));
    recorder.stopSavingCameraData();
    while (recorder.isRecording()) std::this_thread::sleep_for(std::chrono::microseconds(200));
    report(state, "recorder", appended, std::chrono::duration<double>(Clock::now() - t0).count());
    recorder.waitForPendingSaves(std::chrono::minutes(2));  // the photo library's copy: untimed
    fs::remove_all(scratch() / "Pictures");
  }
}

void BM_PeerRawWrite(benchmark::State& state) {
  const std::vector<uint8_t> stored(kW * kH * 2, 0x80);  // one UYVY frame
  for (auto _ : state) {
    const fs::path file = scratch() / "peer.raw";
    const auto t0 = Clock::now();
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int written = 0;
    for (int i = 0; i < kFrames && fd >= 0; ++i)
      written += ::write(fd, stored.data(), stored.size()) == static_cast<ssize_t>(stored.size());
    if (fd >= 0) ::close(fd);
    report(state, "peer", written, std::chrono::duration<double>(Clock::now() - t0).count());
  }
}

BENCHMARK(BM_Writer)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Recorder)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PeerRawWrite)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  frames();                                  // generated before any timing
  kwq::setLogSink([](std::string_view) {});  // the first start's "no folder yet" line
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::printf("\n%-9s | %6s | %7s | %7s | %7s | %s\n", "path", "frames", "seconds", "fps", "MB/s",
              "target");
  for (const char* path : {"writer", "recorder", "peer"}) {
    const auto it = rows().find(path);
    if (it == rows().end()) continue;
    const Row& r = it->second;
    const double fps = r.frames / r.seconds;
    const bool isWriter = std::string(path) == "writer";
    std::printf("%-9s | %6d | %7.3f | %7.1f | %7.1f | %s\n", path, r.frames, r.seconds, fps,
                r.frames * kFrameMB / r.seconds,
                isWriter ? (fps >= 60 ? ">= 60 fps: met" : ">= 60 fps: MISSED") : "-");
  }
  fs::remove_all(scratch());
  return 0;
}

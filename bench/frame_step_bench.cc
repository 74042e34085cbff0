// Speed of the capture engine's per-frame step in card mode (recorder check, overlay clearing,
// card detection with the engine's own detector, the delegate's call) on 1280 x 720 420f
// frames of the synthetic camera's scene, against the plain OpenCV recipe a host would
// otherwise run on each frame (cvtColor NV12 to gray, Canny 50/150, findContours,
// approxPolyDP at 2 % keeping convex quads) on the same frames in the same run; and the
// engine's frame delivery on the synthetic camera at 1280 x 720, 30 fps, for 300 frames.
//
//   cmake -S . -B build-pipeline -G Ninja && ninja -C build-pipeline frame_step_bench &&
//   ./build-pipeline/bench/frame_step_bench
//
// The frames are every 20th of the scene's 60-second path (square-on, tilted, partly out of
// the picture), rendered once before timing. Step times are per call, in thread CPU time and
// in wall time (the CPU figure leaves out moments another process held the core on a shared
// machine). Delivered = frames that reached the engine / frames of the camera's 30 fps
// timeline between the first and the last (a frame the source skipped counts as lost).
// Prints Google Benchmark's report, then one table: measure | ours | peer | ratio | target.

#include <glib.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>
#include <optional>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/bench_report.h"
#include "bench/opencv_peer.h"
#include "capture/KWQVideoHelperState.h"
#include "kwqimage/KWQVideoHelper.h"
#include "synthetic/camera.h"
#include "synthetic/renderer.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kWidth = 1280, kHeight = 720;
constexpr int kFrames = 90, kFrameStride = 20;
constexpr uint64_t kDeliveryFrames = 300;

double threadCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

struct Frame {
  kwq::SampleBuffer sample;  // 420f, the engine's input
  cv::Mat nv12;              // the same bytes packed as OpenCV's NV12, the peer's input
};

std::vector<Frame> renderFrames() {
  kwq::synthetic::SceneRenderer scene(kwq::SyntheticScene::card(), kWidth, kHeight);
  std::vector<Frame> frames;
  cv::Mat bgra(kHeight, kWidth, CV_8UC4), bgr, yuv;
  for (int i = 0; i < kFrames; ++i) {
    const uint64_t index = static_cast<uint64_t>(i) * kFrameStride;
    scene.render(index, {}, bgra.data, bgra.step[0]);
    cv::cvtColor(bgra, bgr, cv::COLOR_BGRA2BGR);
    cv::cvtColor(bgr, yuv, cv::COLOR_BGR2YUV_I420);  // Y, then U and V planes
    Frame f;
    f.nv12.create(kHeight * 3 / 2, kWidth, CV_8UC1);
    std::memcpy(f.nv12.data, yuv.data, size_t{kWidth} * kHeight);
    const uint8_t* u = yuv.data + kWidth * kHeight;
    const uint8_t* v = u + kWidth * kHeight / 4;
    uint8_t* uv = f.nv12.data + kWidth * kHeight;
    for (int k = 0; k < kWidth * kHeight / 4; ++k) {
      uv[2 * k] = u[k];
      uv[2 * k + 1] = v[k];
    }
    kwq::PixelBuffer buffer = kwq::PixelBuffer::allocate(kwq::kPixelFormat420f, kWidth, kHeight);
    buffer.lockBaseAddress();
    for (size_t plane = 0; plane < 2; ++plane) {
      const uint8_t* src = f.nv12.data + (plane ? kWidth * kHeight : 0);
      for (size_t y = 0; y < buffer.heightOfPlane(plane); ++y)
        std::memcpy(buffer.baseAddressOfPlane(plane) + y * buffer.bytesPerRowOfPlane(plane),
                    src + y * kWidth, kWidth);
    }
    buffer.unlockBaseAddress();
    f.sample = kwq::SampleBuffer(buffer, kwq::MediaTime{static_cast<int64_t>(index), 30},
                                 kwq::MediaTime{1, 30});
    frames.push_back(std::move(f));
  }
  return frames;
}

const std::vector<Frame>& frames() {
  static const std::vector<Frame> f = renderFrames();
  return f;
}

class CountingDelegate : public kwq::KWQFrameDelegate {
 public:
  void getLastSampleBuffer(const kwq::SampleBuffer&, kwq::Rect, double, double,
                           const std::optional<std::string>&) override {
    ++calls;
  }
  std::atomic<uint64_t> calls{0};
};

struct StepTimes {
  std::vector<double> cpu, wall;
};
StepTimes oursTimes, peerTimes;

void drainMainContext() {
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

// An engine in card mode on a synthetic camera at 1280 x 720, with `delegate`.
std::shared_ptr<kwq::KWQVideoHelper> cardEngine(std::shared_ptr<kwq::KWQFrameDelegate> delegate) {
  kwq::CaptureDevice::setDevices({kwq::CaptureDevice::syntheticCamera()});
  auto engine = kwq::KWQVideoHelper::create(
      kwq::AVCaptureSessionPreset1280x720, kwq::AVCaptureDevicePositionBack,
      kwq::AVLayerVideoGravityResizeAspect, kwq::kPixelFormat420f);
  engine->setShouldDetectCardRect(true);
  engine->setDelegate(delegate);
  return engine;
}

void oursFrameStep(benchmark::State& state) {
  auto delegate = std::make_shared<CountingDelegate>();
  auto engine = cardEngine(delegate);
  auto& output = *engine->videoDataOutput();
  auto& connection = *engine->state().captureConnection;
  size_t i = 0;
  for (auto _ : state) {
    const kwq::SampleBuffer& sample = frames()[i++ % frames().size()].sample;
    const double cpu0 = threadCpuMs();
    const auto wall0 = Clock::now();
    engine->captureOutput(output, sample, connection);
    const double wall = std::chrono::duration<double, std::milli>(Clock::now() - wall0).count();
    oursTimes.cpu.push_back(threadCpuMs() - cpu0);
    oursTimes.wall.push_back(wall);
    state.SetIterationTime(wall / 1e3);
    drainMainContext();  // the clearing blocks the step queued
  }
  state.counters["delegate_calls"] = static_cast<double>(delegate->calls);
}

void peerRecipe(benchmark::State& state) {
  kwq::bench::QuadRecipeScratch scratch;
  size_t i = 0;
  for (auto _ : state) {
    const cv::Mat& nv12 = frames()[i++ % frames().size()].nv12;
    const double cpu0 = threadCpuMs();
    const auto wall0 = Clock::now();
    benchmark::DoNotOptimize(kwq::bench::findQuadsPeer(nv12, scratch));
    const double wall = std::chrono::duration<double, std::milli>(Clock::now() - wall0).count();
    peerTimes.cpu.push_back(threadCpuMs() - cpu0);
    peerTimes.wall.push_back(wall);
    state.SetIterationTime(wall / 1e3);
  }
}

// Sits between the video output and the engine, as a host's own tap would: counts the frames
// that reach the engine and notes their frame numbers.
class DeliveryTap : public kwq::CaptureVideoDataOutputSampleBufferDelegate {
 public:
  explicit DeliveryTap(std::shared_ptr<kwq::KWQVideoHelper> engine) : engine_(std::move(engine)) {}
  void captureOutput(kwq::VideoDataOutput& output, const kwq::SampleBuffer& sample,
                     kwq::CaptureConnection& connection) override {
    if (delivered >= kDeliveryFrames) return;
    engine_->captureOutput(output, sample, connection);
    if (const auto index = kwq::syntheticFrameIndex(sample)) {
      std::lock_guard lock(mutex);
      first = std::min(first.value_or(*index), *index);
      last = std::max(last.value_or(*index), *index);
    }
    ++delivered;
  }
  std::atomic<uint64_t> delivered{0};
  std::mutex mutex;
  std::optional<uint64_t> first, last;

 private:
  std::shared_ptr<kwq::KWQVideoHelper> engine_;
};

double deliveredPercent = -1.0;

void engineDelivery(benchmark::State& state) {
  for (auto _ : state) {
    auto delegate = std::make_shared<CountingDelegate>();
    auto engine = cardEngine(delegate);
    auto tap = std::make_shared<DeliveryTap>(engine);
    auto output = engine->videoDataOutput();
    output->setSampleBufferDelegate(tap, output->sampleBufferCallbackQueue());
    engine->startVideoCapture();
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    while (tap->delivered < kDeliveryFrames && Clock::now() < deadline) {
      if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(2000);
    }
    engine->stopVideoCapture();
    output->sampleBufferCallbackQueue()->sync([] {});
    drainMainContext();
    std::lock_guard lock(tap->mutex);
    const double timeline = tap->first ? double(*tap->last - *tap->first + 1) : 0.0;
    deliveredPercent = timeline > 0 ? 100.0 * tap->delivered / timeline : 0.0;
    state.counters["delivered_pct"] = deliveredPercent;
    state.counters["stable_calls"] = static_cast<double>(delegate->calls);
  }
}

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return -1.0;
  std::sort(v.begin(), v.end());
  const size_t rank = static_cast<size_t>(std::max(1.0, std::ceil(p * v.size())));
  return v[std::min(rank, v.size()) - 1];
}

void printTable() {
  std::printf("\nmeasure | ours | peer | ratio | target\n");
  const struct {
    const char* name;
    std::vector<double> StepTimes::*times;
    double p;
    const char* target;
  } rows[] = {
      {"frame step p50 ms, CPU (card mode, 1280x720 420f)", &StepTimes::cpu, 0.50, "-"},
      {"frame step p95 ms, CPU (card mode, 1280x720 420f)", &StepTimes::cpu, 0.95, "<= 8"},
      {"frame step p50 ms, wall", &StepTimes::wall, 0.50, "-"},
      {"frame step p95 ms, wall", &StepTimes::wall, 0.95, "<= 8"},
  };
  for (const auto& row : rows) {
    const double ours = percentile(oursTimes.*row.times, row.p);
    const double peer = percentile(peerTimes.*row.times, row.p);
    if (ours < 0) continue;
    kwq::bench::printRatioRow(row.name, ours, peer, row.target, 2, 2);
  }
  if (deliveredPercent >= 0)
    std::printf(
        "engine delivered %%, synthetic camera 1280x720/30 fps, 300 frames, card mode | "
        "%.1f | - | - | >= 98\n",
        deliveredPercent);
}

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);  // both sides single-threaded
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  frames();  // rendered before timing
  benchmark::RegisterBenchmark("ours/frame_step", oursFrameStep)
      ->Unit(benchmark::kMillisecond)
      ->UseManualTime()
      ->Iterations(900);
  benchmark::RegisterBenchmark("peer/opencv_quads", peerRecipe)
      ->Unit(benchmark::kMillisecond)
      ->UseManualTime()
      ->Iterations(900);
  benchmark::RegisterBenchmark("ours/engine_delivery", engineDelivery)
      ->Unit(benchmark::kSecond)
      ->UseRealTime()
      ->Iterations(1);
  benchmark::RunSpecifiedBenchmarks();
  printTable();
  benchmark::Shutdown();
  return 0;
}

// Frame delivery of the capture layer: a synthetic camera (30 fps) through a session to a
// delegate on a serial queue, against a bare GStreamer peer (live videotestsrc converted to the
// same format and pulled from an appsink on a thread).
//
//   cmake -S . -B build-capture -G Ninja && ninja -C build-capture capture_bench
//   ./build-capture/bench/capture_bench
//
// Each run films for 3 seconds. Counters: fps (frames the delegate got per second), dropped
// (frames replaced while the delegate was busy), lag (worst distance in frames between the
// newest frame and the one being handled), cpu (process CPU seconds per filmed second).
// "slow" delegates spend 100 ms a frame: the target is some 9 fps with a lag of at most a few
// frames (no backlog).

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>

#include "kwqimage/CaptureSession.h"
#include "platform/media/capture_internal.h"
#include "platform/media/gst_init.h"
#include "synthetic/camera.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
constexpr auto kFilm = 3s;

double cpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

class Counter : public kwq::CaptureVideoDataOutputSampleBufferDelegate {
 public:
  void captureOutput(kwq::VideoDataOutput&, const kwq::SampleBuffer& frame,
                     kwq::CaptureConnection&) override {
    if (session) {
      const auto newest = kwq::platform::sessionLatestFrame(*session);
      if (!newest.isNull()) {
        const int64_t lag =
            int64_t(*kwq::syntheticFrameIndex(newest)) - int64_t(*kwq::syntheticFrameIndex(frame));
        if (lag > worstLag) worstLag = lag;
      }
    }
    if (work.count() > 0) std::this_thread::sleep_for(work);
    ++frames;
  }
  std::shared_ptr<kwq::CaptureSession> session;
  std::chrono::milliseconds work{0};
  std::atomic<int> frames{0};
  std::atomic<int64_t> worstLag{0};
};

void BM_SessionDelivery(benchmark::State& state, std::string_view preset, uint32_t format,
                        int workMs) {
  for (auto _ : state) {
    auto session = kwq::CaptureSession::create();
    session->setSessionPreset(preset);
    session->addInput(
        kwq::CaptureDeviceInput::deviceInputWithDevice(kwq::CaptureDevice::syntheticCamera()));
    auto output = kwq::VideoDataOutput::create();
    output->setVideoSettings(format);
    auto counter = std::make_shared<Counter>();
    counter->session = session;
    counter->work = std::chrono::milliseconds(workMs);
    auto queue = kwq::DispatchQueue::createSerial("VideoDataOutputQueue");
    output->setSampleBufferDelegate(counter, queue);
    session->addOutput(output);
    session->startRunning();
    const double cpu0 = cpuSeconds();
    const auto t0 = Clock::now();
    const int f0 = counter->frames;
    std::this_thread::sleep_for(kFilm);
    const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    const int delivered = counter->frames - f0;
    const double cpu = cpuSeconds() - cpu0;
    session->stopRunning();
    queue->sync([] {});
    state.SetIterationTime(seconds);
    state.counters["fps"] = delivered / seconds;
    state.counters["dropped"] = double(output->droppedFrameCount());
    state.counters["lag"] = double(counter->worstLag.load());
    state.counters["cpu"] = cpu / seconds;
  }
}

// The peer: live videotestsrc at the same size and rate, converted, pulled on a thread.
void BM_GStreamerPeer(benchmark::State& state, int width, int height, const char* format) {
  kwq::platform::ensureGStreamer();
  for (auto _ : state) {
    const std::string description =
        "videotestsrc is-live=true pattern=ball ! video/x-raw,format=BGRA,width=" +
        std::to_string(width) + ",height=" + std::to_string(height) +
        ",framerate=30/1 ! videoconvert ! video/x-raw,format=" + format +
        " ! appsink name=sink drop=true max-buffers=1 sync=false";
    GstElement* pipeline = gst_parse_launch(description.c_str(), nullptr);
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    std::atomic<bool> stop{false};
    std::atomic<int> frames{0};
    std::thread puller([&] {
      while (!stop) {
        GstSample* s = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), GST_SECOND / 10);
        if (s) {
          ++frames;
          gst_sample_unref(s);
        }
      }
    });
    const double cpu0 = cpuSeconds();
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(kFilm);
    const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    const int delivered = frames;
    const double cpu = cpuSeconds() - cpu0;
    stop = true;
    puller.join();
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    state.SetIterationTime(seconds);
    state.counters["fps"] = delivered / seconds;
    state.counters["cpu"] = cpu / seconds;
  }
}

BENCHMARK_CAPTURE(BM_SessionDelivery, 640x480_420f, kwq::AVCaptureSessionPreset640x480,
                  kwq::kPixelFormat420f, 0)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(BM_SessionDelivery, 1280x720_420f, kwq::AVCaptureSessionPreset1280x720,
                  kwq::kPixelFormat420f, 0)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(BM_SessionDelivery, 1280x720_BGRA, kwq::AVCaptureSessionPreset1280x720,
                  kwq::kPixelFormatBGRA, 0)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(BM_SessionDelivery, 1280x720_420f_slow, kwq::AVCaptureSessionPreset1280x720,
                  kwq::kPixelFormat420f, 100)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(BM_GStreamerPeer, 1280x720_NV12, 1280, 720, "NV12")
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();

#include "capture_test_support.h"

#include <gst/gst.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "platform/media/gst_init.h"
#include "support/test_support.h"

namespace kwq::test {

void FrameLog::captureOutput(VideoDataOutput&, const SampleBuffer& sample, CaptureConnection&) {
  if (!queue || !queue->isCurrent()) ++offQueue;
  {
    std::lock_guard lock(mutex_);
    if (frames_.size() < keep_) frames_.push_back(sample);
  }
  if (onFrame) onFrame(sample);
  ++count;
}

std::vector<SampleBuffer> FrameLog::frames() const {
  std::lock_guard lock(mutex_);
  return frames_;
}

CaptureRig::CaptureRig(std::shared_ptr<CaptureDevice> cam, std::string_view preset,
                       uint32_t pixelFormat)
    : camera(std::move(cam)),
      session(CaptureSession::create()),
      output(VideoDataOutput::create()),
      queue(DispatchQueue::createSerial("VideoDataOutputQueue")),
      log(std::make_shared<FrameLog>()) {
  log->queue = queue;
  session->setSessionPreset(preset);
  auto input = CaptureDeviceInput::deviceInputWithDevice(camera);
  EXPECT_TRUE(session->canAddInput(input));
  session->addInput(input);
  output->setVideoSettings(pixelFormat);
  output->setSampleBufferDelegate(log, queue);
  EXPECT_TRUE(session->canAddOutput(output));
  session->addOutput(output);
}

CaptureRig::~CaptureRig() {
  session->stopRunning();
  queue->sync([] {});
}

std::shared_ptr<CaptureDevice> syntheticCamera(int64_t position) {
  SyntheticCameraOptions options;
  options.position = position;
  return CaptureDevice::syntheticCamera(options);
}

std::string makeTestMovie(const std::string& name, int frames, int width, int height, int fps) {
  platform::ensureGStreamer();
  const std::string path = outputDir() + "/" + name;
  std::filesystem::remove(path);
  const std::string description = "videotestsrc num-buffers=" + std::to_string(frames) +
                                  " pattern=ball ! video/x-raw,width=" + std::to_string(width) +
                                  ",height=" + std::to_string(height) +
                                  ",framerate=" + std::to_string(fps) +
                                  "/1 ! jpegenc ! avimux ! filesink location=" + path;
  GError* error = nullptr;
  GstElement* pipeline = gst_parse_launch(description.c_str(), &error);
  if (!pipeline) {
    ADD_FAILURE() << "cannot make " << path << ": " << (error ? error->message : "?");
    if (error) g_error_free(error);
    return path;
  }
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* done = gst_bus_timed_pop_filtered(
      bus, 20 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  EXPECT_TRUE(done && GST_MESSAGE_TYPE(done) == GST_MESSAGE_EOS) << "writing " << path;
  if (done) gst_message_unref(done);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
  return path;
}

int threadCount() {
  int n = 0;
  for ([[maybe_unused]] auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++n;
  return n;
}

}  // namespace kwq::test

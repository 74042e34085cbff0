// Records camera frames until it is killed: the child of the crash-safety test.
//
//   recorder_crash_helper <documents folder> <pictures folder> [raw|h264]
//
// Appends 320 x 240 420f frames at a camera's pace, 30 a second, and writes each appended frame's
// time in nanoseconds as one line to standard output, so the parent knows how far the recording had
// come when it killed this process.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "kwqimage/KWQCameraRollHelper.h"
#include "kwqimage/KWQImageDictionary.h"

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) return 2;
  const std::string codec = argc == 4 ? argv[3] : "raw";
  if (codec != "raw" && codec != "h264") return 2;
  kwq::KWQImageDictionary::setDocumentsDirectory(argv[1]);
  kwq::KWQCameraRollHelper::setPhotoLibraryDirectory(argv[2]);
  auto& recorder = kwq::KWQCameraRollHelper::getInstance();
  if (codec == "h264") recorder.setVideoCodec(kwq::MovieCodec::H264Lossless);
  if (!recorder.startSavingCameraData()) return 3;
  std::vector<kwq::PixelBuffer> frames;
  for (int i = 0; i < 4; ++i) {
    kwq::PixelBuffer pb = kwq::PixelBuffer::allocate(kwq::kPixelFormat420f, 320, 240);
    pb.lockBaseAddress();
    for (size_t p = 0; p < pb.planeCount(); ++p)
      for (size_t b = 0; b < pb.bytesPerRowOfPlane(p) * pb.heightOfPlane(p); ++b)
        pb.baseAddressOfPlane(p)[b] = static_cast<uint8_t>(b * (i + 3));
    pb.unlockBaseAddress();
    frames.push_back(pb);
  }
  // Stops by itself after ten minutes, should no one kill it. Paced like a camera: appending
  // faster than real time only measures how far the writer's queue lets the caller run ahead.
  const auto start = std::chrono::steady_clock::now();
  for (int64_t i = 0; i < 30 * 600; ++i) {
    std::this_thread::sleep_until(start + std::chrono::microseconds(i * 1000000 / 30));
    const kwq::MediaTime pts{i * 3000, 90000};
    if (!recorder.appendCameraData(kwq::SampleBuffer(frames[i % 4], pts, {3000, 90000}))) return 4;
    const std::string line = std::to_string(i * 3000 * 1000000000LL / 90000) + "\n";
    if (::write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
      return 5;
  }
  recorder.stopSavingCameraData();
  recorder.waitForPendingSaves(std::chrono::seconds(60));
  return 0;
}

// Records camera frames into folders the parent prepared for a fault: the child of the fault
// tests, run under LD_PRELOAD or on a small file system as the case needs.
//
//   recorder_fault_helper <documents> <pictures> <frames> [<freeze after>]
//
// Appends <frames> 320 x 240 420f frames (30 a second in movie time, as fast as the writer
// takes them); with <freeze after>, the recorder's folder is made read-only after that many
// frames (a read-only bind mount of the folder onto itself when running as root, else mode
// 0555), and a second recording is tried in the read-only folder. Then stops, waits for the
// photo library and prints, one a line: "appended <n>", "stopped", "saved <bool>",
// "lines <count>", "distinct <count>", and the distinct log lines as "log <line>".
// "stopped" is printed (and flushed) as soon as the movie is finished, so a parent can kill the
// child while the photo library saves it.

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kwqimage/KWQCameraRollHelper.h"
#include "kwqimage/KWQImageDictionary.h"
#include "kwqimage/Log.h"

namespace {

kwq::PixelBuffer pattern(int i) {
  kwq::PixelBuffer pb = kwq::PixelBuffer::allocate(kwq::kPixelFormat420f, 320, 240);
  pb.lockBaseAddress();
  for (size_t p = 0; p < pb.planeCount(); ++p)
    for (size_t b = 0; b < pb.bytesPerRowOfPlane(p) * pb.heightOfPlane(p); ++b)
      pb.baseAddressOfPlane(p)[b] = static_cast<uint8_t>(b * (i + 3));
  pb.unlockBaseAddress();
  return pb;
}

bool makeReadOnly(const std::string& folder) {
  if (::geteuid() != 0) return ::chmod(folder.c_str(), 0555) == 0;
  return ::mount(folder.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
         ::mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
}

int record(kwq::KWQCameraRollHelper& recorder, const std::vector<kwq::PixelBuffer>& frames,
           int count, int freezeAfter) {
  if (!recorder.startSavingCameraData()) return -1;
  int appended = 0;
  for (int i = 0; i < count; ++i) {
    if (i == freezeAfter && !makeReadOnly(recorder.getCameraDataFolderPath())) return -2;
    const kwq::MediaTime pts{int64_t{i} * 3000, 90000};
    appended += recorder.appendCameraData(kwq::SampleBuffer(frames[i % 4], pts, {3000, 90000}));
  }
  recorder.stopSavingCameraData();
  return appended;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4 && argc != 5) return 2;
  const int count = std::atoi(argv[3]);
  const int freezeAfter = argc == 5 ? std::atoi(argv[4]) : -1;
  std::mutex mutex;
  std::map<std::string, int> lines;
  kwq::setLogSink([&](std::string_view line) {
    std::lock_guard lock(mutex);
    ++lines[std::string(line)];
  });
  kwq::KWQImageDictionary::setDocumentsDirectory(argv[1]);
  kwq::KWQCameraRollHelper::setPhotoLibraryDirectory(argv[2]);
  auto& recorder = kwq::KWQCameraRollHelper::getInstance();
  std::vector<kwq::PixelBuffer> frames;
  for (int i = 0; i < 4; ++i) frames.push_back(pattern(i));

  int appended = record(recorder, frames, count, freezeAfter);
  if (appended < 0) return 3;
  // The movie is finished when recording turns off; the photo library's save is then under way.
  while (recorder.isRecording()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::printf("appended %d\nstopped\n", appended);
  std::fflush(stdout);
  bool saved = recorder.waitForPendingSaves(std::chrono::seconds(60));
  if (freezeAfter >= 0) {  // a second recording into the read-only folder
    appended = record(recorder, frames, 10, -1);
    std::printf("again %d\n", appended);
    saved = recorder.waitForPendingSaves(std::chrono::seconds(60)) && saved;
  }
  std::printf("saved %s\n", saved ? "true" : "false");
  std::lock_guard lock(mutex);
  int total = 0;
  for (const auto& [line, n] : lines) total += n;
  std::printf("lines %d\ndistinct %zu\n", total, lines.size());
  for (const auto& [line, n] : lines) std::printf("log %d %s\n", n, line.c_str());
  return 0;
}

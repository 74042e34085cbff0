#include "kwq/capture_files.h"

#include <glib.h>

#include <filesystem>

#include <kwqimage/DeviceOrientation.h>
#include <kwqimage/KWQCameraRollHelper.h>
#include <kwqimage/Render.h>

#include "kwq/table.h"

namespace kwq::tool {
namespace {

namespace fs = std::filesystem;

std::set<std::string> moviesIn(const std::string& folder) {
  std::set<std::string> movies;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
    if (it->path().extension() == ".mov") movies.insert(it->path().string());
  return movies;
}

}  // namespace

bool saveStill(KWQVideoHelper& engine, const CaptureMonitor& monitor, const std::string& path,
               std::ostream& err) {
  // A desktop camera is fixed in landscape: stills come out as filmed (a front camera's
  // picture is turned half round for a device held the other way up).
  const auto current = engine.device();
  DeviceOrientation::setCurrent(current && current->position() == AVCaptureDevicePositionFront
                                    ? DeviceOrientation::LandscapeRight
                                    : DeviceOrientation::LandscapeLeft);
  engine.takeStillPicture();
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(5);
  while (!monitor.still() && Clock::now() < deadline)
    if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(2000);
  const std::optional<Image> still = monitor.still();
  const bool saved = still && !still->isNull() && still->writePNG(path);
  if (!saved) err << "kwq capture: no still could be saved to " << path << '\n';
  return saved;
}

bool savePreview(const View& view, Size size, const std::string& path, std::ostream& err) {
  while (g_main_context_iteration(nullptr, FALSE)) {
  }  // layer changes queued for the main thread land first
  const bool saved = renderView(view, size, currentMediaTime()).writePNG(path);
  if (!saved) err << "kwq capture: cannot write the preview " << path << '\n';
  return saved;
}

RecordedMovie::RecordedMovie()
    : folder_(KWQCameraRollHelper::photoLibraryDirectory()), before_(moviesIn(folder_)) {}

bool RecordedMovie::addTo(CaptureResults& results, const CardOutput* card,
                          std::ostream& err) const {
  std::string saved;
  if (KWQCameraRollHelper::getInstance().waitForPendingSaves(std::chrono::minutes(2))) {
    for (const std::string& movie : moviesIn(folder_))
      if (!before_.count(movie)) saved = movie;
  }
  if (saved.empty()) {
    // A movie the photo library could not take stays in the recorder's folder: say where.
    std::string left;
    for (const std::string& movie :
         moviesIn(KWQCameraRollHelper::getInstance().getCameraDataFolderPath()))
      left = movie;
    results.addFile("movie", "movie", left, false);
    err << "kwq capture: no movie was saved to " << folder_;
    if (!left.empty()) err << "; the recording is at " << left;
    err << '\n';
    return false;
  }
  results.addFile("movie", "movie", saved, true);
  std::error_code ec;
  const auto bytes = fs::file_size(saved, ec);
  if (!ec)
    results.add("movie_bytes", "movie bytes", static_cast<double>(bytes),
                formatNumber("%.1f MB", bytes / 1e6));
  if (card) {
    const std::string sidecar = fs::path(saved).replace_extension(".frames.jsonl").string();
    if (card->writeFrames(sidecar, err))
      results.add("frame_analysis", "frame analysis", sidecar, sidecar);
  }
  return true;
}

bool addSnapshot(CaptureResults& results, const SampleBuffer& firstStable, const std::string& path,
                 std::ostream& err) {
  bool written = false;
  if (!firstStable.isNull()) {
    written = Image::fromPixelBuffer(firstStable.imageBuffer()).writePNG(path);
    if (!written) err << "kwq capture: cannot write the snapshot " << path << '\n';
  } else {
    err << "kwq capture: the card never became stable; no snapshot written\n";
  }
  results.addFile("snapshot", "snapshot", path, written);
  return written;
}

}  // namespace kwq::tool

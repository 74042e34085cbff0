#include "kwqimage/KWQCameraRollHelper.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/foundation/file_url.h"
#include "platform/foundation/log_format.h"
#include "platform/foundation/user_dirs.h"
#include "platform/media/movie_writer.h"
#include "platform/media/photo_library.h"

namespace kwq {

using platform::MovieWriter;
using platform::MovieWriterInput;
using platform::MovieWriterStatus;

struct KWQCameraRollHelper::Impl {
  // Guards the fields below it; never held while waiting, writing or logging.
  mutable std::mutex mutex;
  std::string savedCameraDataFolderPath;
  std::shared_ptr<MovieWriterInput> inputWriterBuffer;
  std::shared_ptr<MovieWriter> outputWriter;
  std::string videoFilePath;
  bool finishRequested = false;  // the current writer was asked to finish
  // Finished movies handed to the photo library whose save has not completed; and movies the
  // photo library could not take, kept for the process's life. The folder's emptying spares
  // both, and the next movie's number counts the pending ones as saved already.
  std::vector<std::string> pendingMovies;
  std::vector<std::string> keptMovies;
  // Movies another (killed) process left in the folder, on their way to the photo library.
  std::vector<std::string> recoveringMovies;
  // Movies the photo library has copied whose source could not be removed (a read-only
  // folder): not to be saved a second time.
  std::vector<std::string> savedMovies;

  // Serialises what decides about the folder's files: a start (name, emptying, new writer), a
  // finished movie's hand-over and a save's completion. Taken before `mutex`.
  std::recursive_mutex folderMutex;

  // Flags read on every frame: atomics, so a read on the frame queue never races a write.
  std::atomic<bool> isRecording{false};
  std::atomic<uint32_t> cameraDataCounter{0};
  std::atomic<MovieCodec> codec{MovieCodec::Raw};

  // Finishes and saves on their way, for waitForPendingSaves().
  std::mutex pendingMutex;
  std::condition_variable pendingDone;
  int pending = 0;

  void addPending(int n) {
    std::lock_guard lock(pendingMutex);
    pending += n;
  }
  void donePending() {
    std::lock_guard lock(pendingMutex);
    if (--pending == 0) pendingDone.notify_all();
  }

  struct Snapshot {
    std::shared_ptr<MovieWriterInput> input;
    std::shared_ptr<MovieWriter> writer;
    std::string videoFilePath;
  };
  Snapshot snapshot() const {
    std::lock_guard lock(mutex);
    return {inputWriterBuffer, outputWriter, videoFilePath};
  }
};

namespace {

using namespace std::chrono_literals;

// The status of a writer that may be absent: an absent writer reports 0 (unknown).
MovieWriterStatus statusOf(const std::shared_ptr<MovieWriter>& writer) {
  return writer ? writer->status() : MovieWriterStatus::Unknown;
}

// The writer's error as the log lines print it: "(null)" when there is none.
std::string errorOf(const std::shared_ptr<MovieWriter>& writer) {
  const std::string error = writer ? writer->error() : std::string();
  return error.empty() ? "(null)" : error;
}

platform::MovieVideoCodec platformCodec(MovieCodec codec) {
  return codec == MovieCodec::H264Lossless ? platform::MovieVideoCodec::H264Lossless
                                           : platform::MovieVideoCodec::Raw;
}

std::string lastComponent(const std::string& path) {
  return std::filesystem::path(path).filename().string();
}

// Runs `body`, turning any exception into `fallback`: nothing may leave the public methods.
template <class R, class F>
R guarded(R fallback, F&& body) {
  try {
    return body();
  } catch (...) {
    return fallback;
  }
}

}  // namespace

KWQCameraRollHelper& KWQCameraRollHelper::getInstance() {
  // Never destroyed: finishes and saves may still call it while the process exits.
  static KWQCameraRollHelper* const instance = new KWQCameraRollHelper;
  return *instance;
}

KWQCameraRollHelper::KWQCameraRollHelper() : d_(std::make_unique<Impl>()) {}

KWQCameraRollHelper::~KWQCameraRollHelper() = default;

bool KWQCameraRollHelper::startSavingCameraData() {
  bool expected = false;
  if (!d_->isRecording.compare_exchange_strong(expected, true)) return false;
  guarded(0, [&] {
    std::lock_guard folderLock(d_->folderMutex);
    auto input = MovieWriterInput::videoInput(platformCodec(d_->codec.load()));
    input->setExpectsMediaDataInRealTime(true);
    // The file's name is taken before the folder is recreated, from the current counter.
    const std::string url = getCameraDataFilePath();
    recoverLeftoverMovies();
    deleteAndRecreateCameraDataFolder();
    // A writer that cannot be created stays absent; later calls then do nothing.
    auto writer = MovieWriter::create(url, platform::MovieFileType::QuickTimeMovie);
    if (writer) writer->addInput(input);
    std::lock_guard lock(d_->mutex);
    d_->inputWriterBuffer = std::move(input);
    d_->outputWriter = std::move(writer);
    d_->videoFilePath = url;
    d_->finishRequested = false;
    return 0;
  });
  return true;
}

bool KWQCameraRollHelper::appendCameraData(const SampleBuffer& sampleBuffer) {
  return guarded(false, [&] {
    if (!d_->isRecording.load() || sampleBuffer.isNull() || !sampleBuffer.dataIsReady() ||
        !sampleBuffer.presentationTimeStamp().isValid())
      return false;
    const MediaTime pts = sampleBuffer.presentationTimeStamp();
    const Impl::Snapshot s = d_->snapshot();
    const MovieWriterStatus status = statusOf(s.writer);
    if (status == MovieWriterStatus::Failed) {
      logf("Record Camera Data: An error has occured recording the camera. %s",
           errorOf(s.writer).c_str());
      return false;
    }
    if (status == MovieWriterStatus::Unknown && s.writer) {
      s.writer->startWriting();
      s.writer->startSessionAtSourceTime(pts);
    }
    while (s.input && !s.input->isReadyForMoreMediaData()) std::this_thread::sleep_for(100ms);
    const bool appended = s.input && s.input->appendSampleBuffer(sampleBuffer);
    if (!appended)
      logf("Record Camera Data: Unable to append video sample to writer: %ld, %s",
           static_cast<long>(statusOf(s.writer)), errorOf(s.writer).c_str());
    return appended;
  });
}

bool KWQCameraRollHelper::stopSavingCameraData() {
  if (!d_->isRecording.load()) return false;
  guarded(0, [&] {
    Impl::Snapshot s;
    {
      std::lock_guard lock(d_->mutex);
      // A second stop while the movie is finishing must not finish and save it twice.
      if (d_->finishRequested) return 0;
      s = {d_->inputWriterBuffer, d_->outputWriter, d_->videoFilePath};
      if (statusOf(s.writer) == MovieWriterStatus::Unknown) return 0;
      d_->finishRequested = true;
    }
    if (statusOf(s.writer) == MovieWriterStatus::Writing && s.input) s.input->markAsFinished();
    // Two completions to wait for: the finish handler's and the photo library's.
    d_->addPending(2);
    s.writer->finishWriting([this, url = s.videoFilePath] {
      const bool posted = guarded(false, [&] {
        const std::string path = platform::pathFromFileURL(url).value_or(std::string());
        // From here the movie belongs to the photo library: a start that comes before the
        // save has completed spares it and takes the next number. The movie is moved, not
        // copied, so a full disk keeps it, and a failed writer's movie goes as far as written.
        std::lock_guard folderLock(d_->folderMutex);
        {
          std::lock_guard lock(d_->mutex);
          d_->pendingMovies.push_back(path);
        }
        platform::moveVideoToPhotoLibrary(
            path, [this, path](const std::optional<std::string>& error, const std::string&) {
              guarded(0, [&] {
                videoDidFinishSaving(path, error, std::string());
                return 0;
              });
              d_->donePending();
            });
        return true;
      });
      if (!posted) d_->donePending();  // the save's completion will never come
      d_->isRecording.store(false);
      d_->donePending();
    });
    return 0;
  });
  return true;
}

void KWQCameraRollHelper::saveImageToCameraRoll(const Image& image, std::string imageDescription) {
  if (image.isNull()) return;
  d_->addPending(1);
  const bool posted = guarded(false, [&] {
    platform::saveImageToPhotoLibrary(
        image, [this, image, description = std::move(imageDescription)](
                   const std::optional<std::string>& error, const std::string&) {
          guarded(0, [&] {
            imageDidFinishSaving(image, error, description);
            return 0;
          });
          d_->donePending();
        });
    return true;
  });
  if (!posted) d_->donePending();
}

std::string KWQCameraRollHelper::getCameraDataFolderPath() {
  return guarded(std::string(), [&] {
    std::lock_guard lock(d_->mutex);
    if (d_->savedCameraDataFolderPath.empty()) {
      const std::string documents = platform::documentsDirectory();
      // "/%@" with "/SavedCameraData": the doubled slash is part of the path.
      if (!documents.empty())
        d_->savedCameraDataFolderPath = documents + formatString("/%s", "/SavedCameraData");
    }
    return d_->savedCameraDataFolderPath;
  });
}

std::string KWQCameraRollHelper::getCameraDataFilePath() {
  return guarded(std::string(), [&] {
    size_t pending = 0;
    {
      std::lock_guard lock(d_->mutex);
      pending = d_->pendingMovies.size();
    }
    const std::string name = formatString("FrontCardData%d.mov",
                                          static_cast<int>(d_->cameraDataCounter.load() + pending));
    const std::string folder = getCameraDataFolderPath();
    if (folder.empty()) return std::string();
    return platform::fileURLWithPath(folder + formatString("/%s", name.c_str()));
  });
}

void KWQCameraRollHelper::deleteAndRecreateCameraDataFolder() {
  guarded(0, [&] {
    std::lock_guard folderLock(d_->folderMutex);
    const std::string folder = getCameraDataFolderPath();
    const std::string name = lastComponent(folder);
    // Movies on their way to the photo library, movies it could not take and the recording
    // being written stay; everything else goes.
    std::vector<std::string> spared;
    {
      std::lock_guard lock(d_->mutex);
      spared = d_->pendingMovies;
      spared.insert(spared.end(), d_->keptMovies.begin(), d_->keptMovies.end());
      spared.insert(spared.end(), d_->recoveringMovies.begin(), d_->recoveringMovies.end());
      if (d_->isRecording.load() && !d_->videoFilePath.empty())
        spared.push_back(platform::pathFromFileURL(d_->videoFilePath).value_or(std::string()));
    }
    auto isSpared = [&](const std::filesystem::path& entry) {
      std::error_code ec;
      for (const std::string& path : spared)
        if (std::filesystem::equivalent(entry, path, ec)) return true;
      return false;
    };
    std::erase(spared, std::string());
    // With a movie to spare the folder itself stays: a recording whose file is not created yet
    // must find its folder whenever its first frame comes.
    const bool keepFolder = !spared.empty();
    std::error_code ec;
    std::string removeError;
    struct stat st;
    if (::lstat(folder.c_str(), &st) != 0) {
      removeError = "\"" + name + "\" couldn't be removed because it doesn't exist.";
    } else {
      std::vector<std::filesystem::path> doomed;
      for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end;
           it.increment(ec)) {
        if (!isSpared(it->path())) doomed.push_back(it->path());
      }
      if (!keepFolder) {
        ec.clear();
        if (std::filesystem::remove_all(folder, ec) == static_cast<std::uintmax_t>(-1) || ec)
          removeError = "\"" + name + "\" couldn't be removed: " + ec.message();
      } else {
        for (const auto& entry : doomed) {
          std::error_code entryError;
          std::filesystem::remove_all(entry, entryError);
          if (entryError && removeError.empty())
            removeError = "\"" + name + "\" couldn't be emptied: " + entryError.message();
        }
      }
    }
    if (!removeError.empty())
      logf("Record Camera Data: Error removing folder at path: %s, %s", folder.c_str(),
           removeError.c_str());
    if ((!keepFolder || removeError.find("doesn't exist") != std::string::npos) &&
        ::mkdir(folder.c_str(), 0777) != 0) {
      const std::string reason = "\"" + name + "\" couldn't be created: " + std::strerror(errno);
      logf("Record Camera Data: Error creating folder at path: %s, %s", folder.c_str(),
           reason.c_str());
    }
    return 0;
  });
}

void KWQCameraRollHelper::recoverLeftoverMovies() {
  guarded(0, [&] {
    std::lock_guard folderLock(d_->folderMutex);
    const std::filesystem::path folder = getCameraDataFolderPath();
    std::vector<std::string> known;
    {
      std::lock_guard lock(d_->mutex);
      known = d_->pendingMovies;
      known.insert(known.end(), d_->keptMovies.begin(), d_->keptMovies.end());
      known.insert(known.end(), d_->recoveringMovies.begin(), d_->recoveringMovies.end());
      known.insert(known.end(), d_->savedMovies.begin(), d_->savedMovies.end());
    }
    std::vector<std::filesystem::path> leftovers;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end;
         it.increment(ec)) {
      std::error_code typeError;
      if (it->path().extension() != ".mov" || !it->is_regular_file(typeError)) continue;
      if (std::find(known.begin(), known.end(), it->path().string()) == known.end())
        leftovers.push_back(it->path());
    }
    for (std::filesystem::path movie : leftovers) {
      // Renamed so that it never meets a name this process records under.
      const std::string name = movie.filename().string();
      if (!name.starts_with("Recovered-")) {
        const std::filesystem::path renamed = folder / ("Recovered-" + name);
        if (::renameat2(AT_FDCWD, movie.c_str(), AT_FDCWD, renamed.c_str(), RENAME_NOREPLACE) == 0)
          movie = renamed;
      }
      const std::string path = movie.string();
      {
        std::lock_guard lock(d_->mutex);
        d_->recoveringMovies.push_back(path);
      }
      d_->addPending(1);
      platform::moveVideoToPhotoLibrary(
          path, [this, path](const std::optional<std::string>& error, const std::string&) {
            guarded(0, [&] {
              std::lock_guard lock(d_->mutex);
              auto& recovering = d_->recoveringMovies;
              const auto it = std::find(recovering.begin(), recovering.end(), path);
              if (it != recovering.end()) recovering.erase(it);
              struct stat st;
              if (::lstat(path.c_str(), &st) == 0)
                (error ? d_->keptMovies : d_->savedMovies).push_back(path);
              return 0;
            });
            d_->donePending();
          });
    }
    return 0;
  });
}

void KWQCameraRollHelper::videoDidFinishSaving(const std::string& videoPath,
                                               const std::optional<std::string>& error,
                                               const std::string&) {
  guarded(0, [&] {
    std::lock_guard folderLock(d_->folderMutex);
    {
      std::lock_guard lock(d_->mutex);
      auto& pending = d_->pendingMovies;
      const auto it = std::find(pending.begin(), pending.end(), videoPath);
      if (it != pending.end()) pending.erase(it);
      // A movie the photo library could not take stays where it is.
      struct stat st;
      if (!videoPath.empty() && ::lstat(videoPath.c_str(), &st) == 0)
        (error ? d_->keptMovies : d_->savedMovies).push_back(videoPath);
    }
    deleteAndRecreateCameraDataFolder();
    d_->cameraDataCounter.fetch_add(1);
    return 0;
  });
}

void KWQCameraRollHelper::imageDidFinishSaving(const Image&, const std::optional<std::string>&,
                                               const std::string&) {}

void KWQCameraRollHelper::setVideoCodec(MovieCodec codec) {
  d_->codec.store(codec);
}

MovieCodec KWQCameraRollHelper::videoCodec() const {
  return d_->codec.load();
}

bool KWQCameraRollHelper::isRecording() const {
  return d_->isRecording.load();
}

void KWQCameraRollHelper::setIsRecording(bool isRecording) {
  d_->isRecording.store(isRecording);
}

uint32_t KWQCameraRollHelper::cameraDataCounter() const {
  return d_->cameraDataCounter.load();
}

void KWQCameraRollHelper::setCameraDataCounter(uint32_t cameraDataCounter) {
  d_->cameraDataCounter.store(cameraDataCounter);
}

std::string KWQCameraRollHelper::videoFilePath() const {
  return guarded(std::string(), [&] {
    std::lock_guard lock(d_->mutex);
    return d_->videoFilePath;
  });
}

void KWQCameraRollHelper::setVideoFilePath(std::string videoFilePath) {
  std::lock_guard lock(d_->mutex);
  d_->videoFilePath = std::move(videoFilePath);
}

bool KWQCameraRollHelper::waitForPendingSaves(std::chrono::milliseconds timeout) {
  return guarded(false, [&] {
    std::unique_lock lock(d_->pendingMutex);
    return d_->pendingDone.wait_for(lock, timeout, [&] { return d_->pending == 0; });
  });
}

std::string KWQCameraRollHelper::photoLibraryDirectory() {
  return guarded(std::string(), [] { return platform::picturesDirectory(); });
}

void KWQCameraRollHelper::setPhotoLibraryDirectory(const std::string& path) {
  guarded(0, [&] {
    platform::setUserFolderOverride(platform::UserFolder::Pictures, path);
    return 0;
  });
}

}  // namespace kwq

#include "platform/media/photo_library.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <mutex>
#include <thread>

#include "platform/foundation/user_dirs.h"
#include "platform/image/png_codec.h"

namespace kwq::platform {
namespace {

// The photo library's background thread: saves run one after another, in the order asked.
class SaveQueue {
 public:
  // Never destroyed: its thread may still run while the process exits.
  static SaveQueue& shared() {
    static SaveQueue* queue = new SaveQueue;
    return *queue;
  }

  void post(std::function<void()> task) {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    wake_.notify_one();
  }

 private:
  SaveQueue() {
    std::thread([this] { run(); }).detach();
  }

  void run() {
    for (;;) {
      std::function<void()> task;
      {
        std::unique_lock lock(mutex_);
        wake_.wait(lock, [this] { return !tasks_.empty(); });
        task = std::move(tasks_.front());
        tasks_.pop_front();
      }
      try {
        task();
      } catch (...) {
        // A completion's exception must not end the queue's thread.
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;
};

std::string systemError(const std::string& what, int err) {
  return what + ": " + std::strerror(err);
}

// A file system that cannot sync at all (some network and FUSE file systems answer EINVAL or
// ENOTSUP) still holds what was written; only a failing sync (EIO, ENOSPC) loses data.
bool syncFile(int fd) {
  if (::fsync(fd) == 0) return true;
  return errno == EINVAL || errno == ENOTSUP || errno == EOPNOTSUPP || errno == EROFS;
}

// Makes a new name durable; a failure here loses nothing written.
void syncFolder(const std::string& folder) {
  const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) return;
  ::fsync(dir);
  ::close(dir);
}

// Closes a descriptor and removes the temporary file unless it was given its name.
struct TempFile {
  std::string path;
  int fd = -1;
  bool placed = false;
  ~TempFile() {
    if (fd >= 0) ::close(fd);
    if (!placed && !path.empty()) ::unlink(path.c_str());
  }
};

bool writeAll(int fd, const uint8_t* p, size_t n) {
  while (n > 0) {
    const ssize_t w = ::write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

// Copies everything from `in` to `out`, in the kernel where it can.
bool copyAll(int in, int out) {
  for (;;) {
    const ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
    if (n == 0) return true;
    if (n > 0) continue;
    if (errno == EINTR) continue;
    if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP) break;
    return false;
  }
  uint8_t chunk[1 << 16];
  for (;;) {
    const ssize_t n = ::read(in, chunk, sizeof chunk);
    if (n == 0) return true;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || !writeAll(out, chunk, static_cast<size_t>(n))) return false;
  }
}

// Gives the temporary file the first free name of "<stem><ext>", "<stem> (1)<ext>", ...,
// never replacing a file; the path of the new file, or empty with `error` set.
std::string placeWithoutReplacing(TempFile& temp, const std::string& folder,
                                  const std::string& stem, const std::string& ext,
                                  std::string* error) {
  for (int n = 0; n < 100000; ++n) {
    const std::string name = n == 0 ? stem + ext : stem + " (" + std::to_string(n) + ")" + ext;
    const std::string target = folder + "/" + name;
    if (::renameat2(AT_FDCWD, temp.path.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) {
      temp.placed = true;
      return target;
    }
    if (errno == EEXIST) continue;
    if (errno != EINVAL && errno != ENOSYS) {
      *error = systemError("The file could not be named \"" + name + "\"", errno);
      return {};
    }
    // A file system without exclusive renames: a hard link fails just as well on a taken name.
    if (::link(temp.path.c_str(), target.c_str()) == 0) {
      ::unlink(temp.path.c_str());
      temp.placed = true;
      return target;
    }
    if (errno == EEXIST) continue;
    *error = systemError("The file could not be named \"" + name + "\"", errno);
    return {};
  }
  *error = "Every name for \"" + stem + ext + "\" is taken.";
  return {};
}

// Writes a new file in the pictures folder with `fill` and names it; the new file's path, or
// empty with `error` set.
std::string saveNewFile(const std::string& stem, const std::string& ext,
                        const std::function<bool(int fd, std::string* error)>& fill,
                        std::string* error) {
  std::string problem;
  const std::string folder = userFolder(UserFolder::Pictures, &problem);
  if (!problem.empty()) {
    *error = "The pictures folder \"" + folder + "\" could not be created: " + problem;
    return {};
  }
  TempFile temp;
  temp.path = folder + "/.kwq-save-XXXXXX";
  temp.fd = ::mkostemp(temp.path.data(), O_CLOEXEC);
  if (temp.fd < 0) {
    const int err = errno;
    temp.path.clear();
    *error = systemError("A file could not be created in \"" + folder + "\"", err);
    return {};
  }
  if (!fill(temp.fd, error)) return {};
  if (::fchmod(temp.fd, 0644) != 0 || !syncFile(temp.fd)) {
    *error = systemError("The file could not be written", errno);
    return {};
  }
  const std::string path = placeWithoutReplacing(temp, folder, stem, ext, error);
  if (!path.empty()) syncFolder(folder);
  return path;
}

struct MovieName {
  std::string name, stem, ext;
};

MovieName movieName(const std::string& videoPath) {
  MovieName m;
  const size_t slash = videoPath.rfind('/');
  m.name = slash == std::string::npos ? videoPath : videoPath.substr(slash + 1);
  const size_t dot = m.name.rfind('.');
  const bool hasExt = dot != std::string::npos && dot > 0;
  m.stem = hasExt ? m.name.substr(0, dot) : m.name;
  m.ext = hasExt ? m.name.substr(dot) : std::string();
  return m;
}

// Renames `source` to the first free name in `folder` without replacing a file: the new
// path, or empty when the rename cannot be done there (another file system, a refusal).
std::string renameWithoutReplacing(const std::string& source, const std::string& folder,
                                   const MovieName& m) {
  for (int n = 0; n < 100000; ++n) {
    const std::string target =
        folder + "/" + (n == 0 ? m.stem + m.ext : m.stem + " (" + std::to_string(n) + ")" + m.ext);
    if (::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0)
      return target;
    if (errno == EEXIST) continue;
    if (errno != EINVAL && errno != ENOSYS) return {};
    // A file system without exclusive renames: a hard link fails just as well on a taken name.
    if (::link(source.c_str(), target.c_str()) == 0) {
      ::unlink(source.c_str());
      return target;
    }
    if (errno != EEXIST) return {};
  }
  return {};
}

void report(const PhotoLibraryCompletion& completion, const std::string& path,
            const std::string& error) {
  if (!completion) return;
  if (path.empty())
    completion(error.empty() ? std::string("The file could not be saved.") : error, {});
  else
    completion(std::nullopt, path);
}

// Copies the movie at `videoPath` into the pictures folder: the new path, or empty with
// `error` set.
std::string copyMovie(const std::string& videoPath, std::string* error) {
  const MovieName m = movieName(videoPath);
  const int in = ::open(videoPath.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st;
  std::string path;
  if (in < 0) {
    *error = systemError("The movie \"" + videoPath + "\" could not be opened", errno);
  } else if (::fstat(in, &st) != 0 || !S_ISREG(st.st_mode) || m.name.empty()) {
    *error = "\"" + videoPath + "\" is not a movie file.";
  } else {
    path = saveNewFile(
        m.stem, m.ext,
        [in, &videoPath](int fd, std::string* err) {
          if (copyAll(in, fd)) return true;
          *err = systemError("The movie \"" + videoPath + "\" could not be copied", errno);
          return false;
        },
        error);
  }
  if (in >= 0) ::close(in);
  return path;
}

}  // namespace

void saveVideoToPhotoLibrary(const std::string& videoPath, PhotoLibraryCompletion completion) {
  SaveQueue::shared().post([videoPath, completion = std::move(completion)] {
    std::string error;
    const std::string path = copyMovie(videoPath, &error);
    report(completion, path, error);
  });
}

void moveVideoToPhotoLibrary(const std::string& videoPath, PhotoLibraryCompletion completion) {
  SaveQueue::shared().post([videoPath, completion = std::move(completion)] {
    std::string error, path;
    const MovieName m = movieName(videoPath);
    struct stat st;
    std::string problem;
    const std::string folder = userFolder(UserFolder::Pictures, &problem);
    if (::lstat(videoPath.c_str(), &st) == 0 && S_ISREG(st.st_mode) && !m.name.empty() &&
        problem.empty()) {
      path = renameWithoutReplacing(videoPath, folder, m);
      if (!path.empty()) syncFolder(folder);
    }
    if (path.empty()) {
      path = copyMovie(videoPath, &error);
      if (!path.empty()) ::unlink(videoPath.c_str());  // a leftover source costs only space
    }
    report(completion, path, error);
  });
}

void saveImageToPhotoLibrary(const Image& image, PhotoLibraryCompletion completion) {
  SaveQueue::shared().post([image, completion = std::move(completion)] {
    std::string error, path;
    const std::vector<uint8_t> png = encodePNG(image);
    if (png.empty()) {
      error = "The image has no bitmap that can be saved as PNG.";
    } else {
      const std::time_t now = std::time(nullptr);
      std::tm local{};
      localtime_r(&now, &local);
      char stem[32];
      std::strftime(stem, sizeof stem, "IMG_%Y%m%d_%H%M%S", &local);
      path = saveNewFile(
          stem, ".png",
          [&png](int fd, std::string* err) {
            if (writeAll(fd, png.data(), png.size())) return true;
            *err = systemError("The image could not be written", errno);
            return false;
          },
          &error);
    }
    report(completion, path, error);
  });
}

}  // namespace kwq::platform

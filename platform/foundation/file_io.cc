#include "platform/foundation/file_io.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace kwq::platform {
namespace {

// The process umask without changing it: umask() can only be read by setting it, which would
// race with other threads creating files.
mode_t currentUmask() {
  static const mode_t mask = [] {
    mode_t m = 022;
    if (FILE* f = std::fopen("/proc/self/status", "re")) {
      char line[256];
      while (std::fgets(line, sizeof line, f)) {
        unsigned value = 0;
        if (std::sscanf(line, "Umask: %o", &value) == 1) {
          m = static_cast<mode_t>(value & 0777);
          break;
        }
      }
      std::fclose(f);
    }
    return m;
  }();
  return mask;
}

bool writeAll(int fd, const uint8_t* p, size_t n) {
  while (n > 0) {
    const ssize_t w = ::write(fd, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

bool syncFolder(const std::string& folder) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = ::fsync(fd) == 0;
  ::close(fd);
  return ok;
}

bool isFolder(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string withoutTrailingSlashes(std::string p) {
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

// Creates `path` owner-only, its missing parents first; 0 when it is a folder afterwards, else
// the errno that stopped it. Recursion only descends through missing folders.
int makeFolder(const std::string& path) {
  if (path.empty()) return ENOENT;
  if (::mkdir(path.c_str(), 0700) == 0) return 0;
  int err = errno;
  if (err == EEXIST) return isFolder(path) ? 0 : EEXIST;
  if (err != ENOENT) return err;
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return err;  // no parent left to create
  const std::string parent = withoutTrailingSlashes(path.substr(0, slash));
  if (parent == path) return err;
  if (const int e = makeFolder(parent)) return e;
  if (::mkdir(path.c_str(), 0700) == 0) return 0;
  err = errno;
  return err == EEXIST && isFolder(path) ? 0 : err;
}

}  // namespace

bool writeFileAtomically(const std::string& path, std::span<const uint8_t> data) {
  if (path.empty() || path.back() == '/') return false;
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string temp = (slash == std::string::npos ? "" : folder) + "." + name + ".XXXXXX";
  const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = writeAll(fd, data.data(), data.size()) && ::fsync(fd) == 0 &&
            ::fchmod(fd, 0666 & ~currentUmask()) == 0;
  ok = (::close(fd) == 0) && ok;
  if (ok) ok = ::rename(temp.c_str(), path.c_str()) == 0;
  if (!ok) {
    ::unlink(temp.c_str());
    return false;
  }
  // The rename is durable only once the folder's entry is on disk.
  return syncFolder(folder);
}

std::optional<std::vector<uint8_t>> readFile(const std::string& path, size_t maxBytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  std::optional<std::vector<uint8_t>> result;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= 0 &&
      static_cast<uint64_t>(st.st_size) <= maxBytes) {
    std::vector<uint8_t> bytes(static_cast<size_t>(st.st_size));
    size_t got = 0;
    bool ok = true;
    while (got < bytes.size()) {
      const ssize_t r = ::read(fd, bytes.data() + got, bytes.size() - got);
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) {
        ok = false;  // the file shrank or failed under us
        break;
      }
      got += static_cast<size_t>(r);
    }
    if (ok) result = std::move(bytes);
  }
  ::close(fd);
  return result;
}

std::vector<std::string> listDirectory(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(path.c_str());
  if (!dir) return names;
  while (const dirent* entry = ::readdir(dir)) {
    const char* n = entry->d_name;
    if (std::strcmp(n, ".") == 0 || std::strcmp(n, "..") == 0) continue;
    names.emplace_back(n);
  }
  ::closedir(dir);
  return names;
}

void removeItem(const std::string& path) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
}

bool createDirectories(const std::string& path, std::string* reason) {
  const int err = makeFolder(withoutTrailingSlashes(path));
  if (err != 0 && reason) *reason = std::strerror(err);
  return err == 0;
}

}  // namespace kwq::platform

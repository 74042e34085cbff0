#include "platform/foundation/pictures_dir.h"

#include <glib.h>

#include <mutex>

#include "platform/foundation/user_dirs.h"

namespace kwq::platform {
namespace {

std::mutex& overrideMutex() {
  static std::mutex m;
  return m;
}

std::string& picturesOverride() {
  static std::string path;
  return path;
}

}  // namespace

std::string picturesDirectory() {
  {
    std::lock_guard lock(overrideMutex());
    if (!picturesOverride().empty()) return picturesOverride();
  }
  return resolveUserDirectory(g_get_user_special_dir(G_USER_DIRECTORY_PICTURES), g_get_home_dir(),
                              "Pictures");
}

void setPicturesDirectoryOverride(const std::string& path) {
  std::lock_guard lock(overrideMutex());
  picturesOverride() = path;
}

}  // namespace kwq::platform

#include "platform/foundation/user_dirs.h"

#include <glib.h>

#include <mutex>

namespace kwq::platform {
namespace {

std::mutex& overrideMutex() {
  static std::mutex m;
  return m;
}

std::string& documentsOverride() {
  static std::string path;
  return path;
}

std::string withoutTrailingSlashes(std::string p) {
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

}  // namespace

std::string resolveUserDirectory(const char* xdg, const std::string& home,
                                 const std::string& fallback) {
  const std::string h = withoutTrailingSlashes(home);
  if (xdg && *xdg && withoutTrailingSlashes(xdg) != h) return xdg;
  return (h == "/" ? "" : h) + "/" + fallback;
}

std::string documentsDirectory() {
  {
    std::lock_guard lock(overrideMutex());
    if (!documentsOverride().empty()) return documentsOverride();
  }
  // GLib reads $HOME first and falls back to the password database.
  return resolveUserDirectory(g_get_user_special_dir(G_USER_DIRECTORY_DOCUMENTS), g_get_home_dir(),
                              "Documents");
}

void setDocumentsDirectoryOverride(const std::string& path) {
  std::lock_guard lock(overrideMutex());
  documentsOverride() = path;
}

}  // namespace kwq::platform

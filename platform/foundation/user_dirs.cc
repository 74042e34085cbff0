#include "platform/foundation/user_dirs.h"

#include <glib.h>

#include <mutex>

#include "platform/foundation/file_io.h"

namespace kwq::platform {
namespace {

std::mutex& overrideMutex() {
  static std::mutex m;
  return m;
}

std::string& overrideFor(UserFolder folder) {
  static std::string documents, pictures;
  return folder == UserFolder::Documents ? documents : pictures;
}

std::string withoutTrailingSlashes(std::string p) {
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

std::string lookUp(UserFolder folder) {
  {
    std::lock_guard lock(overrideMutex());
    if (!overrideFor(folder).empty()) return overrideFor(folder);
  }
  // GLib reads $HOME first and falls back to the password database; it reads the XDG
  // configuration once per process.
  const bool documents = folder == UserFolder::Documents;
  return resolveUserDirectory(
      g_get_user_special_dir(documents ? G_USER_DIRECTORY_DOCUMENTS : G_USER_DIRECTORY_PICTURES),
      g_get_home_dir(), documents ? "Documents" : "Pictures");
}

}  // namespace

std::string resolveUserDirectory(const char* xdg, const std::string& home,
                                 const std::string& fallback) {
  const std::string h = withoutTrailingSlashes(home);
  if (xdg && *xdg && withoutTrailingSlashes(xdg) != h) return xdg;
  return (h == "/" ? "" : h) + "/" + fallback;
}

std::string userFolder(UserFolder folder, std::string* problem) {
  const std::string path = lookUp(folder);
  std::string reason;
  if (createDirectories(path, &reason)) {
    if (problem) problem->clear();
  } else if (problem) {
    *problem = reason;
  }
  return path;
}

void setUserFolderOverride(UserFolder folder, const std::string& path) {
  std::lock_guard lock(overrideMutex());
  overrideFor(folder) = path;
}

std::string documentsDirectory() {
  return userFolder(UserFolder::Documents);
}

std::string picturesDirectory() {
  return userFolder(UserFolder::Pictures);
}

}  // namespace kwq::platform

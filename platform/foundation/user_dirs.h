#pragma once

// Where the user's folders are: the XDG user directories, with a host override.

#include <string>

namespace kwq::platform {

/// The documents folder: the override when one is set, else the XDG documents directory, else
/// "<home>/Documents". Thread: any.
std::string documentsDirectory();

/// Sets (or, with an empty path, clears) the documents folder override. Thread: any.
void setDocumentsDirectoryOverride(const std::string& path);

/// The rule behind documentsDirectory(): `xdg` when set and not the home folder itself (XDG
/// names the home folder for a directory the user has disabled), else "<home>/<fallback>".
std::string resolveUserDirectory(const char* xdg, const std::string& home,
                                 const std::string& fallback);

}  // namespace kwq::platform

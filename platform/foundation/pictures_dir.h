#pragma once

// Where the user's pictures go: the XDG pictures directory, with a host override. The photo
// library of this platform is that folder.

#include <string>

namespace kwq::platform {

/// The pictures folder: the override when one is set, else the XDG pictures directory, else
/// "<home>/Pictures". Thread: any.
std::string picturesDirectory();

/// Sets (or, with an empty path, clears) the pictures folder override. Thread: any; saves
/// already running keep the folder they started with.
void setPicturesDirectoryOverride(const std::string& path);

}  // namespace kwq::platform

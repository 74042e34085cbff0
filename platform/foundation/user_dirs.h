#pragma once

// The user's folders the library keeps files in: the documents folder (the PNG store, the
// recorder's movies) and the pictures folder (the photo library). Each is the host's override
// when one is set, else the XDG user directory, else "<home>/Documents" or "<home>/Pictures".
//
// A lookup always gives a folder that exists, as the interface's platform guarantees for its
// documents folder: new accounts, containers and kiosks often have neither folder, and callers
// such as the recorder create only their own subfolder inside. A missing folder is created on
// lookup, with any missing parents, owner-only (0700, less the umask); a folder that exists is
// used as it is.

#include <string>

namespace kwq::platform {

/// The folders a lookup can name.
enum class UserFolder { Documents, Pictures };

/// The folder's path, created first when it is missing. When it cannot be created (a file in
/// the way, no permission) the path is returned all the same, so that the operation using it
/// fails and reports there, and `problem`, when given, is set to the reason; it is cleared when
/// the folder exists. Thread: any.
std::string userFolder(UserFolder folder, std::string* problem = nullptr);

/// Sets (or, with an empty path, clears) the folder's override. Thread: any; operations
/// already running keep the folder they looked up.
void setUserFolderOverride(UserFolder folder, const std::string& path);

/// userFolder(UserFolder::Documents). Thread: any.
std::string documentsDirectory();

/// userFolder(UserFolder::Pictures). Thread: any.
std::string picturesDirectory();

/// The rule behind a lookup without override: `xdg` when set and not the home folder itself
/// (XDG names the home folder for a directory the user has disabled), else
/// "<home>/<fallback>".
std::string resolveUserDirectory(const char* xdg, const std::string& home,
                                 const std::string& fallback);

}  // namespace kwq::platform

#pragma once

// The photo library of this platform: the user's pictures folder (the XDG pictures directory,
// or the host's override, platform/foundation/user_dirs.h). Saving copies a movie or an
// image into it and never replaces a file that is already there.

#include <functional>
#include <optional>
#include <string>

#include "kwqimage/Image.h"

namespace kwq::platform {

/// How a save ends: no error and the path of the new file, or a readable error and an empty
/// path. This is the platform's completion target: the caller binds whatever it wants told.
using PhotoLibraryCompletion =
    std::function<void(const std::optional<std::string>& error, const std::string& savedPath)>;

/// Copies the movie file at `videoPath` into the pictures folder under its own name, or, when
/// that is taken, "<name> (1).<ext>", "<name> (2).<ext>", ... The copy is written to a hidden
/// temporary file, flushed and then given its name in one step that fails rather than replace
/// an existing file, so the folder never shows a partial movie. The folder is created when it
/// is missing. A file system that cannot sync (fsync answers EINVAL, ENOTSUP or EROFS) is
/// written all the same; any other sync failure fails the save. Returns at once; the copy and
/// `completion` run on the photo library's own background thread, one save after another. Errors:
/// the source is not a readable regular file, the folder cannot be created or written. Thread: any.
void saveVideoToPhotoLibrary(const std::string& videoPath, PhotoLibraryCompletion completion);

/// Moves the movie file at `videoPath` into the pictures folder, named as
/// saveVideoToPhotoLibrary() names it. On the same file system the file is renamed: no space is
/// needed, so a movie recorded onto a full disk is kept. Across file systems (or where the
/// rename is refused) the movie is copied as saveVideoToPhotoLibrary() copies it and the source
/// is removed once the copy has its name. On failure the source is left where it was. Returns at
/// once; runs on the photo library's thread like the other saves. Thread: any.
void moveVideoToPhotoLibrary(const std::string& videoPath, PhotoLibraryCompletion completion);

/// Saves the image as PNG ("IMG_<yyyyMMdd>_<HHmmss>.png", local time, numbered like movies when
/// taken) in the same way. Errors: the image has no bitmap, encoding fails, the folder cannot be
/// created or written. Thread: any; the image is shared, not copied, until the save runs.
void saveImageToPhotoLibrary(const Image& image, PhotoLibraryCompletion completion);

}  // namespace kwq::platform

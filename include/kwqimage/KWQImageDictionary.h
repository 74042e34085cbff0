#pragma once

/// @file
/// A small store of PNG files in the user's documents folder, addressed by bare names.

#include <string>

#include "kwqimage/Export.h"
#include "kwqimage/Image.h"

namespace kwq {

/// Keeps images as "<name>.png" files directly in the documents folder.
///
/// Names are used unchanged: no escaping and no check for path separators. A name with a "/"
/// therefore addresses a file in a subfolder (which must already exist) and ".." climbs out of
/// the folder; hosts must never pass names they did not make themselves.
///
/// Every function may run on any thread. Saving is atomic and durable: the data goes to a
/// hidden temporary file beside the target, is flushed to disk, renamed over the target and the
/// folder is flushed, so readers and crashes see the old file or the new one, never a part.
/// A process killed mid-save may leave such a hidden temporary file (".<name>.png.XXXXXX")
/// behind; it never matches the extension "png".
class KWQ_EXPORT KWQImageDictionary {
 public:
  KWQImageDictionary() = delete;

  /// Encodes the bitmap (scale and orientation ignored) as PNG and writes it as
  /// "<name>.png". Gray stays 8-bit gray,
  /// RGB stays RGB, RGBA keeps its straight alpha, premultiplied BGRA is un-premultiplied into
  /// RGBA. False when there is no bitmap, encoding fails or the file cannot be written.
  static bool saveImageAsPNG(const Image& image, const std::string& fileName);

  /// Reads and decodes "<name>.png" (any format the decoder reads, in fact); the null image when
  /// the file is missing, unreadable or undecodable.
  static Image loadImageWithFileName(const std::string& fileName);

  /// With the name "*": removes every entry of the folder (files and subfolders) whose
  /// extension — the text after the last "." of a name not starting with it — equals
  /// `fileExtension` exactly (case-sensitive), or every entry when the extension is "*".
  /// Otherwise removes the one entry "<name>.<extension>", taking "*" in the extension
  /// literally. Failures are ignored.
  static void deleteImageWithFileName(const std::string& fileName,
                                      const std::string& fileExtension);

  /// The folder in use: the override if set, else the XDG documents folder, else (when XDG
  /// has none or names the home folder itself) "$HOME/Documents". Every use of the folder,
  /// this call included, first creates it when it is missing, with any missing parents,
  /// owner-only (0700), as new accounts often have no documents folder.
  static std::string documentsDirectory();
  /// Makes the store (and anything else that uses the documents folder) use `path`; an empty
  /// path returns to the XDG folder. Thread: any; saves already running keep their folder.
  static void setDocumentsDirectory(const std::string& path);
};

}  // namespace kwq

// The PNG store: images as "<name>.png" files in the documents folder.

#include <string>

#include "kwqimage/KWQImageDictionary.h"
#include "platform/foundation/file_io.h"
#include "platform/foundation/user_dirs.h"
#include "platform/image/png_codec.h"

namespace kwq {
namespace {

// Larger files cannot be decoded anyway (the decoder takes 32-bit lengths).
constexpr size_t kMaxPNGBytes = size_t{1} << 31;

std::string pathInStore(const std::string& folder, const std::string& fileName) {
  return folder + "/" + fileName;
}

// The text after the last "." of a name that does not start with it; "" otherwise.
std::string pathExtension(const std::string& name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return {};
  return name.substr(dot + 1);
}

}  // namespace

bool KWQImageDictionary::saveImageAsPNG(const Image& image, const std::string& fileName) {
  const std::vector<uint8_t> png = platform::encodePNG(image);
  if (png.empty()) return false;  // no data, no write
  // The lookup creates a missing folder; a folder that cannot be made fails the write.
  return platform::writeFileAtomically(
      pathInStore(platform::documentsDirectory(), fileName + ".png"), png);
}

Image KWQImageDictionary::loadImageWithFileName(const std::string& fileName) {
  const auto bytes = platform::readFile(
      pathInStore(platform::documentsDirectory(), fileName + ".png"), kMaxPNGBytes);
  if (!bytes) return {};
  return Image::decode(bytes->data(), bytes->size());
}

void KWQImageDictionary::deleteImageWithFileName(const std::string& fileName,
                                                 const std::string& fileExtension) {
  const std::string folder = platform::documentsDirectory();
  if (fileName != "*") {
    // "*" in the extension is literal here: the wildcard works only with the name "*".
    platform::removeItem(pathInStore(folder, fileName + "." + fileExtension));
    return;
  }
  for (const std::string& entry : platform::listDirectory(folder)) {
    if (fileExtension == "*" || pathExtension(entry) == fileExtension)
      platform::removeItem(pathInStore(folder, entry));
  }
}

std::string KWQImageDictionary::documentsDirectory() {
  return platform::documentsDirectory();
}

void KWQImageDictionary::setDocumentsDirectory(const std::string& path) {
  platform::setUserFolderOverride(platform::UserFolder::Documents, path);
}

}  // namespace kwq

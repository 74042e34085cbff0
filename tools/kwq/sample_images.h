#pragma once

#include <string>
#include <vector>

#include <kwqimage/Image.h>

namespace kwq::tool {

/// An image the tool scores when it is given no files.
struct SampleImage {
  std::string name;
  Image image;
};

/// Two images the tool draws itself (a sharp test card and a soft version of it, so the
/// scores show the difference) and, where Debian's opencv-doc is installed, a few of its
/// photographs.
std::vector<SampleImage> builtInSamples();

}  // namespace kwq::tool

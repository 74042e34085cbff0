#include "platform/image/png_codec.h"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "platform/foundation/file_io.h"
#include "platform/image/image_data.h"
#include "platform/image/opencv_view.h"

namespace kwq::platform {

std::vector<uint8_t> encodePNG(const Image& image) {
  const Bitmap* b = ImageAccess::bitmap(image);
  if (!b) return {};
  try {
    const cv::Mat in = matView(*b);
    cv::Mat ordered;  // the encoder takes gray, BGR or BGRA with straight alpha
    switch (b->layout) {
      case PixelLayout::Gray8:
        ordered = in;
        break;
      case PixelLayout::RGB24:
        cv::cvtColor(in, ordered, cv::COLOR_RGB2BGR);
        break;
      case PixelLayout::RGBA32:
        cv::cvtColor(in, ordered, cv::COLOR_RGBA2BGRA);
        break;
      case PixelLayout::BGRA32Premultiplied:
        // The un-premultiplying conversion ignores channel order: B, G, R are all divided by
        // the fourth byte.
        cv::cvtColor(in, ordered, cv::COLOR_mRGBA2RGBA);
        break;
    }
    std::vector<uint8_t> png;
    if (!cv::imencode(".png", ordered, png)) return {};
    return png;
  } catch (const cv::Exception&) {
    return {};
  }
}

}  // namespace kwq::platform

namespace kwq {

std::vector<uint8_t> Image::pngData() const {
  return platform::encodePNG(*this);
}

bool Image::writePNG(const std::string& path) const {
  const std::vector<uint8_t> png = pngData();
  return !png.empty() && platform::writeFileAtomically(path, png);
}

}  // namespace kwq

#pragma once

// Internal view of kwq::Image for the platform layer and the library: how images are built
// from owned pixel storage and how their state is laid out.

#include <memory>
#include <vector>

#include "kwqimage/Image.h"

namespace kwq {

/// The pixels of a bitmap, shared by every image that wraps it.
struct Bitmap {
  PixelLayout layout = PixelLayout::Gray8;
  size_t width = 0;
  size_t height = 0;
  size_t bytesPerRow = 0;
  std::vector<uint8_t> bytes;  // exactly bytesPerRow * height
};

struct Image::Data {
  std::shared_ptr<const Bitmap> bitmap;  // null for an image without a bitmap
  Size pointSize;                        // used only when bitmap is null
  double scale = 1.0;
  ImageOrientation orientation = ImageOrientation::Up;
};

/// Builds images from bitmaps; the only way library code makes an Image besides the public API.
struct ImageAccess {
  static Image make(std::shared_ptr<const Bitmap> bitmap, double scale = 1.0,
                    ImageOrientation orientation = ImageOrientation::Up);
  static Image makeWithoutBitmap(Size pointSize);
  /// The shared bitmap of an image, or null.
  static const Bitmap* bitmap(const Image& image);
};

/// Allocates a bitmap of the given geometry with zeroed bytes; null when the sizes are zero,
/// the row is shorter than width pixels, or the byte count does not fit.
std::shared_ptr<Bitmap> allocateBitmap(PixelLayout layout, size_t width, size_t height,
                                       size_t bytesPerRow);

/// width * height * bytesPerPixel-style products without overflow; false when it overflows.
bool checkedMul(size_t a, size_t b, size_t* out);

}  // namespace kwq

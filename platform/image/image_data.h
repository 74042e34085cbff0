#pragma once

// Internal view of kwq::Image for the platform layer and the library: how images are built
// from owned pixel storage and how their state is laid out.

#include <functional>
#include <memory>
#include <vector>

#include "kwqimage/Image.h"

namespace kwq {

/// The byte storage of a bitmap: a vector of its own, or memory lent by the host (a NumPy
/// array, a mapped file) that stays in place and unchanged while the bitmap lives and is given
/// back when the storage goes. Reads like a vector; library code writes only into storage it
/// allocated itself.
class BitmapBytes {
 public:
  BitmapBytes() = default;
  BitmapBytes(std::vector<uint8_t> owned) : owned_(std::move(owned)) {}  // NOLINT: like a vector
  BitmapBytes& operator=(std::vector<uint8_t> owned) {
    owned_ = std::move(owned);
    lent_ = nullptr;
    lentSize_ = 0;
    keeper_.reset();
    return *this;
  }
  /// Lends `size` bytes at `data`; `release` runs once, when the last copy of this storage goes.
  static BitmapBytes lend(const uint8_t* data, size_t size, std::function<void()> release);

  bool isLent() const { return lent_ != nullptr; }
  const uint8_t* data() const { return lent_ ? lent_ : owned_.data(); }
  // Lent memory is never written: images are immutable, and only fresh bitmaps are filled.
  uint8_t* data() { return lent_ ? const_cast<uint8_t*>(lent_) : owned_.data(); }
  size_t size() const { return lent_ ? lentSize_ : owned_.size(); }
  bool empty() const { return size() == 0; }
  const uint8_t* begin() const { return data(); }
  const uint8_t* end() const { return data() + size(); }
  uint8_t operator[](size_t i) const { return data()[i]; }
  /// Makes the storage its own, of `size` zero bytes.
  void resize(size_t size) {
    *this = std::vector<uint8_t>();
    owned_.resize(size);
  }

 private:
  std::vector<uint8_t> owned_;
  const uint8_t* lent_ = nullptr;
  size_t lentSize_ = 0;
  std::shared_ptr<void> keeper_;  // runs the lender's release when the last copy goes
};

/// The pixels of a bitmap, shared by every image that wraps it.
struct Bitmap {
  PixelLayout layout = PixelLayout::Gray8;
  size_t width = 0;
  size_t height = 0;
  size_t bytesPerRow = 0;
  BitmapBytes bytes;  // exactly bytesPerRow * height
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

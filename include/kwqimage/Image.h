#pragma once

/// @file
/// Images: immutable bitmaps with a scale and an orientation.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"

namespace kwq {

class PixelBuffer;

/// Byte layouts a bitmap can have; every layout has 8 bits per component.
enum class PixelLayout : uint8_t {
  Gray8,                ///< one luminance byte; device gray, bitmap info 0
  RGB24,                ///< R, G, B; device RGB, bitmap info 0
  RGBA32,               ///< R, G, B, A with straight alpha; device RGB, bitmap info 3
  BGRA32Premultiplied,  ///< B, G, R, A, colour premultiplied by A; device RGB, bitmap info 8194
};

///@{
/// Bitmap-info values of the layouts above, as the platform numbers them.
inline constexpr uint32_t kBitmapInfoNone = 0;
inline constexpr uint32_t kBitmapInfoAlphaLast = 3;
inline constexpr uint32_t kBitmapInfoBGRAPremultiplied = 8194;  // 0x2002

/// Colour-space model of a bitmap's colour space.
enum class ColorSpaceModel : int32_t { Unknown = -1, Monochrome = 0, RGB = 1 };
///@}

/// Image orientation, numbered as the platform numbers it.
enum class ImageOrientation : int64_t {
  Up = 0,
  Down = 1,
  Left = 2,
  Right = 3,
  UpMirrored = 4,
  DownMirrored = 5,
  LeftMirrored = 6,
  RightMirrored = 7,
};

/// Bytes one pixel of `layout` takes (1, 3 or 4).
KWQ_EXPORT size_t bytesPerPixel(PixelLayout layout);
/// Bitmap info of `layout` (0, 3 or 8194).
KWQ_EXPORT uint32_t bitmapInfo(PixelLayout layout);

/// An immutable image: a bitmap (or none) with a scale and an orientation.
///
/// Copies are cheap and share the bitmap; nothing can change an image after it is made, so
/// images may be used from any thread. Three kinds exist:
///  - the null image (default-constructed), what failed operations return;
///  - an image without a backing bitmap, which has a point size but no pixels;
///  - a bitmap image, whose bytes are `bytesPerRow() * height()` bytes, rows top to bottom.
class KWQ_EXPORT Image {
 public:
  /// The null image.
  Image() = default;

  /// Copies `height * bytesPerRow` bytes from `bytes`. Returns the null image for a null
  /// pointer, a zero size, a `bytesPerRow` shorter than one row, or sizes whose product does
  /// not fit in memory.
  static Image copyFromBytes(PixelLayout layout, size_t width, size_t height, size_t bytesPerRow,
                             const uint8_t* bytes);
  /// Takes ownership of `bytes`, which must hold exactly `height * bytesPerRow` bytes;
  /// otherwise returns the null image.
  static Image fromBuffer(PixelLayout layout, size_t width, size_t height, size_t bytesPerRow,
                          std::vector<uint8_t> bytes);
  /// Wraps `height * bytesPerRow` bytes owned elsewhere (a NumPy array, a mapped file) without
  /// copying them. The memory must stay readable and unchanged while any image of it lives:
  /// `release` runs once, when the last such image goes, on the thread that drops it. Returns
  /// the null image for a null pointer, a zero size, a `bytesPerRow` shorter than one row or
  /// sizes whose product overflows; `release` is then not called and the caller keeps the
  /// memory. Images made from this image by any operation own their own bytes.
  static Image wrapBytes(PixelLayout layout, size_t width, size_t height, size_t bytesPerRow,
                         const uint8_t* bytes, std::function<void()> release);
  /// A solid image: every pixel holds `pixel`, which has `bytesPerPixel(layout)` bytes.
  static Image filled(PixelLayout layout, size_t width, size_t height, const uint8_t* pixel);
  /// An image that has a point size but no backing bitmap.
  static Image withoutBitmap(Size pointSize);

  /// Decodes PNG, JPEG or any other format the platform codec reads. Gray files give Gray8,
  /// colour files RGB24, files with alpha RGBA32 (straight alpha). Null on undecodable data.
  static Image decode(const uint8_t* data, size_t length);
  /// Reads and decodes a file; null when it cannot be read or decoded.
  static Image loadFile(const std::string& path);
  /// A copy of a camera frame's pixels as the sensor delivered them (not turned upright; scale
  /// 1, orientation up): 420f and 420v frames as RGB24 (BT.601 colours, each chroma pair shared
  /// by its 2 x 2 luma block), BGRA frames as premultiplied BGRA. Null for the null buffer,
  /// another pixel format, or planes smaller than the frame. The buffer is locked read-only for
  /// the copy. Thread: any.
  static Image fromPixelBuffer(const PixelBuffer& frame);

  /// True for the null image.
  bool isNull() const { return !d_; }
  /// True unless null.
  explicit operator bool() const { return d_ != nullptr; }
  /// True when the image holds pixels.
  bool hasBitmap() const;

  ///@{
  /// Pixel width and height of the bitmap; 0 without one.
  size_t width() const;
  size_t height() const;
  ///@}
  /// Size in points: pixels divided by the scale, width and height swapped for the left and
  /// right orientations (mirrored or not). An image without a bitmap has the size it was made with.
  Size size() const;
  /// Pixels per point.
  double scale() const;
  /// How the bitmap is to be turned for display.
  ImageOrientation orientation() const;

  ///@{
  /// The bitmap's format, as the platform describes it; 0 without a bitmap.
  size_t bitsPerComponent() const;
  size_t bitsPerPixel() const;
  size_t bytesPerRow() const;
  uint32_t bitmapInfo() const;
  ///@}
  /// The layout of the bitmap; Gray8 when there is none (check hasBitmap()).
  PixelLayout layout() const;
  /// Monochrome or RGB, after the layout; Unknown without a bitmap.
  ColorSpaceModel colorSpaceModel() const;

  /// The bitmap's bytes, `bytesPerRow() * height()` of them; empty without a bitmap.
  std::span<const uint8_t> bytes() const;
  /// A copy of the bitmap's bytes (the data provider's copy).
  std::vector<uint8_t> copyData() const;

  /// The same bitmap with another scale and orientation.
  Image withScale(double scale, ImageOrientation orientation) const;
  /// The bitmap converted to `layout` (alpha is premultiplied or divided out as the layouts
  /// require; colour to gray uses the ITU-R BT.601 weights). Null without a bitmap.
  Image converted(PixelLayout layout) const;
  /// True when both images are backed by the very same bitmap.
  bool sharesBitmapWith(const Image& other) const;

  /// PNG data of the bitmap as stored (scale and orientation ignored), in its own layout: gray
  /// as gray, RGB as RGB, RGBA and premultiplied BGRA as RGBA with straight alpha. Empty without
  /// a bitmap or when encoding fails. Thread: any.
  std::vector<uint8_t> pngData() const;
  /// Writes pngData() to `path` so that readers see either the old file or the whole new one
  /// (a temporary file beside it, renamed over it). False, leaving no partial file, without a
  /// bitmap or when the file cannot be written. Thread: any.
  bool writePNG(const std::string& path) const;

  /// A short description, as the log lines print it: "<KWQImage 0x... {w, h}>" or "(null)".
  std::string description() const;

  struct Data;  ///< shared, immutable state; defined by the platform layer

 private:
  explicit Image(std::shared_ptr<const Data> d) : d_(std::move(d)) {}
  std::shared_ptr<const Data> d_;
  friend struct ImageAccess;
};

}  // namespace kwq

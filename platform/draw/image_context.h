#pragma once

// The image drawing context: a 32-bit premultiplied BGRA canvas (bitmap info 8194) at scale 1
// with its origin at the top left and the y axis pointing down. Everything the library draws
// for a host (resized and scaled images, rotations, solid colours, annotations) goes through
// it. No Cairo type appears here, so library code can use it.

#include <cstddef>
#include <memory>

#include "kwqimage/Color.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"

namespace kwq::platform {

/// One drawing session: open with a size, draw, take the image. Not copyable; use it on one
/// thread at a time (different contexts may be used on different threads at once).
class ImageContext {
 public:
  /// Largest canvas side in pixels.
  static constexpr size_t kMaxSide = 32767;

  /// Opens a transparent canvas of `size` points (= pixels) rounded up to whole pixels, values
  /// within 1e-6 of an integer taken as that integer. The context is invalid (and every call a
  /// no-op) when the size rounds to no pixel, is not finite or exceeds kMaxSide.
  explicit ImageContext(Size size);
  ~ImageContext();
  ImageContext(const ImageContext&) = delete;
  ImageContext& operator=(const ImageContext&) = delete;

  /// Pixel count of a side for a size value, or 0 when it gives no canvas.
  static size_t pixelExtent(double value);

  bool isValid() const;
  size_t pixelWidth() const;
  size_t pixelHeight() const;

  // Current transform, applied to everything drawn afterwards (each step acts first on what is
  // drawn, as the platform's concat order has it).
  void translate(double tx, double ty);
  void rotate(double radians);
  void scale(double sx, double sy);
  AffineTransform transform() const;
  /// Pushes and pops the transform, colours and line width.
  void saveState();
  void restoreState();

  /// Draws `image` upright in the current coordinate system, filling `rect`, with its
  /// orientation applied (the platform's drawInRect:). Bilinear resampling with the edges
  /// held; the rectangle's border is antialiased. An image without a bitmap draws nothing.
  void drawImage(const Image& image, const Rect& rect);
  /// Draws the bitmap as stored with its first row at the rectangle's maximum y (the
  /// platform's CGContextDrawImage, made for y-up spaces): upside down unless the transform
  /// flips y. Orientation ignored.
  void drawBitmap(const Image& image, const Rect& rect);

  void setFillColor(const Color& color);
  void setStrokeColor(const Color& color);
  /// Fills `rect` with the fill colour (source over).
  void fillRect(const Rect& rect);
  /// Strokes the outline of `rect` with the stroke colour, the line centred on the edges,
  /// mitred corners.
  void strokeRect(const Rect& rect, double lineWidth);

  /// Ends drawing and returns the canvas: BGRA32Premultiplied, rows packed, scale 1,
  /// orientation up. Null when invalid or already taken; the context stays unusable after.
  Image takeImage();

 private:
  struct Impl;
  std::unique_ptr<Impl> d_;
};

}  // namespace kwq::platform

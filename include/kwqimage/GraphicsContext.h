#pragma once

/// @file
/// A canvas that views draw their own content into: 32-bit premultiplied BGRA, origin at the
/// top left, y down, in points (a scale maps points to pixels).

#include <memory>

#include "kwqimage/Color.h"
#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"
#include "kwqimage/Layer.h"

namespace kwq {

/// One drawing: open with a size, draw, take the image. Use it on one thread at a time.
/// Colours are black and the line width 1.0 until set. An invalid canvas (a size that gives no
/// pixel, or a side over 32767 pixels) ignores every call and gives the null image.
class KWQ_EXPORT GraphicsContext {
 public:
  /// A transparent canvas of `size` points at `scale` pixels per point.
  explicit GraphicsContext(Size size, double scale = 1.0);
  ~GraphicsContext();
  GraphicsContext(const GraphicsContext&) = delete;
  GraphicsContext& operator=(const GraphicsContext&) = delete;

  /// False when the canvas could not be made (size too large, not finite) or was taken.
  bool isValid() const;
  /// The canvas in points.
  Size size() const;

  ///@{
  /// The colours of later fills and strokes.
  void setFillColor(const Color& color);
  void setStrokeColor(const Color& color);
  ///@}
  /// Widths that are negative or not finite are ignored.
  void setLineWidth(double width);

  ///@{
  /// Fill or stroke a rectangle, or the ellipse inside one.
  void fillRect(const Rect& rect);
  void strokeRect(const Rect& rect);
  void fillEllipseInRect(const Rect& rect);
  void strokeEllipseInRect(const Rect& rect);
  ///@}
  /// Fills with the non-zero rule; open subpaths are closed for the fill.
  void fillPath(const Path& path);
  /// Strokes every subpath with the line width.
  void strokePath(const Path& path);

  /// The canvas as an image (BGRA32Premultiplied, scale `scale`); null when invalid or taken.
  Image takeImage();

 private:
  struct Impl;
  std::unique_ptr<Impl> d_;
};

}  // namespace kwq

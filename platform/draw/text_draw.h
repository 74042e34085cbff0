#pragma once

// Text for the image context: Pango lays out and Cairo renders a text in the bold system font
// ("Sans Bold" through fontconfig) onto a transparent layer that the caller draws over its
// canvas. Drawn alone and composited "over", the layer gives the same pixels as drawing the
// text straight onto the canvas would.

#include <cstddef>
#include <string_view>

#include "kwqimage/Color.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"

namespace kwq::platform {

/// Largest font size drawn, in pixels; larger sizes are drawn at this size.
inline constexpr double kMaxTextSize = 4096.0;

/// A transparent BGRA32Premultiplied layer of width x height pixels (top-left origin, y down)
/// holding `text` in "Sans Bold" of `fontSize` pixels and `color`, laid out from the top-left
/// corner of `box`, wrapped at its width and clipped to it, the baseline raised by
/// `baselineOffset` pixels. Invalid UTF-8 is drawn as replacement characters. An empty text,
/// a font size that is not a positive finite number, or an empty box give a fully transparent
/// layer; a size of 0 or one above ImageContext::kMaxSide gives the null image.
/// Thread: any (Pango's font map is per thread).
Image renderTextLayer(size_t width, size_t height, std::string_view text, const Rect& box,
                      const Color& color, double fontSize, double baselineOffset);

}  // namespace kwq::platform

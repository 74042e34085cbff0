#pragma once

// Pixel access and small synthetic images for the imaging tests.

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include "kwqimage/Image.h"

namespace kwq::test {

using Px = std::array<uint8_t, 4>;

/// The bytes of pixel (x, y), unused components 0.
inline Px pixelAt(const Image& image, size_t x, size_t y) {
  Px p{};
  const size_t bpp = bytesPerPixel(image.layout());
  std::memcpy(p.data(), image.bytes().data() + y * image.bytesPerRow() + x * bpp, bpp);
  return p;
}

/// A packed image whose pixel (x, y) holds the first bytesPerPixel bytes of f(x, y).
inline Image makeImage(PixelLayout layout, size_t w, size_t h,
                       const std::function<Px(size_t, size_t)>& f) {
  const size_t bpp = bytesPerPixel(layout);
  std::vector<uint8_t> bytes(w * h * bpp);
  for (size_t y = 0; y < h; ++y)
    for (size_t x = 0; x < w; ++x) std::memcpy(&bytes[(y * w + x) * bpp], f(x, y).data(), bpp);
  return Image::fromBuffer(layout, w, h, w * bpp, std::move(bytes));
}

/// Opaque pixels that differ everywhere: B = 10 + 40 x, G = 10 + 40 y, R = 200, A = 255.
inline Image distinctBGRA(size_t w, size_t h) {
  return makeImage(PixelLayout::BGRA32Premultiplied, w, h, [](size_t x, size_t y) {
    return Px{static_cast<uint8_t>(10 + 40 * x), static_cast<uint8_t>(10 + 40 * y), 200, 255};
  });
}

/// Largest difference of any byte of two images of the same geometry; 256 when they differ in
/// geometry or layout.
inline int maxDifference(const Image& a, const Image& b) {
  if (a.width() != b.width() || a.height() != b.height() || a.layout() != b.layout()) return 256;
  const size_t row = a.width() * bytesPerPixel(a.layout());
  int worst = 0;
  for (size_t y = 0; y < a.height(); ++y)
    for (size_t i = 0; i < row; ++i) {
      const int d = a.bytes()[y * a.bytesPerRow() + i] - b.bytes()[y * b.bytesPerRow() + i];
      worst = std::max(worst, d < 0 ? -d : d);
    }
  return worst;
}

}  // namespace kwq::test

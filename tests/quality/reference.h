#pragma once

// Plain versions of the quality measures, written straight from their definitions with no
// optimisation, for comparison with the library over many inputs.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <optional>
#include <vector>

#include "kwqimage/Image.h"
#include "quality/simd_path.h"

namespace kwq::test::ref {

struct TwoPiScores {
  int32_t centerSurround, focus, rowAlternation;
};

inline int32_t saturating(uint32_t sum, int shift) {
  const int32_t k = static_cast<int32_t>(sum + (1u << (shift - 1))) >> shift;
  const auto s = static_cast<int32_t>(static_cast<uint32_t>(k) * static_cast<uint32_t>(k));
  const auto d = static_cast<int32_t>(static_cast<uint32_t>(s) + 2000000u);
  return static_cast<int32_t>(static_cast<float>(s) * 100.0f / static_cast<float>(d) + 0.5f);
}

struct TwoPiSums {
  uint32_t rowSum = 0, allSum = 0, cleanSum = 0, cleanCount = 1;
};

inline TwoPiSums twoPiSums(const uint8_t* raster) {
  TwoPiSums sums;
  auto& [rowSum, allSum, cleanSum, cleanCount] = sums;
  for (int y = 39; y < 440; y += 4) {
    for (int x = 39; x < 600; x += 4) {
      auto px = [&](int i, int j) { return int32_t{raster[(y + i) * 640 + x + j]}; };
      int32_t rows[8] = {}, inner = 0, outer = 0;
      for (int i = 0; i < 8; ++i) {
        for (int j = 0; j < 8; ++j) {
          rows[i] += px(i, j);
          (i >= 2 && i <= 5 && j >= 2 && j <= 5 ? inner : outer) += px(i, j);
        }
      }
      const int32_t a =
          rows[0] - rows[1] + rows[2] - rows[3] + rows[4] - rows[5] + rows[6] - rows[7];
      const int32_t q = 3 * inner - outer;
      rowSum += (static_cast<uint32_t>(a * a) + 128) >> 8;
      const uint32_t qTerm = (static_cast<uint32_t>(q * q) + 128) >> 8;
      allSum += qTerm;
      if (px(0, 0) < 200 && px(0, 7) < 200 && px(7, 0) < 200 && px(7, 7) < 200 && px(0, 4) < 200 &&
          px(3, 0) < 200 && px(4, 7) < 200 && px(7, 3) < 200) {
        cleanCount += 1;
        cleanSum += qTerm;
      }
    }
  }
  return sums;
}

inline TwoPiScores imageAssess(const uint8_t* raster) {
  const auto [rowSum, allSum, cleanSum, cleanCount] = twoPiSums(raster);
  float m = static_cast<float>(static_cast<int32_t>(cleanSum)) * 14000.0f * 256.0f /
            static_cast<float>(static_cast<int32_t>(cleanCount)) * 1.52587890625e-05f;
  const auto focus = static_cast<int32_t>(std::floor(m * m * 100.0f / (m * m + 3311294.0f) + 0.5f));
  return {saturating(allSum, 10), focus, saturating(rowSum, 11)};
}

/// Partners past the end of the buffer are skipped, as the library does.
inline float focusQuality(const std::vector<uint8_t>& data, int width, int height, int bpp,
                          int distance, int step, int edge) {
  const int edgeY = edge * height / 100, edgeX = edge * width / 100, channel = bpp > 2 ? 1 : 0;
  float sum = 0.0f;
  int count = 0;
  for (int y = edgeY; y < height - edgeY; y += step) {
    for (int x = edgeX; x < width - edgeX; x += step) {
      const size_t a = (size_t(y) * width + x) * bpp + channel;
      const size_t b = (size_t(y) * width + x + distance) * bpp + channel;
      if (b >= data.size()) continue;
      const auto d = static_cast<float>(data[a] - data[b]);
      sum += d * d;
      count += 1;
    }
  }
  return count ? sum / static_cast<float>(count) : 0.0f;
}

/// Gray reduction by factor >= 2; pixels narrower than 4 bytes repeat their last byte.
inline std::vector<uint8_t> grayReduce(const Image& image, int factor) {
  const size_t f = factor, half = f / 2, bpp = bytesPerPixel(image.layout());
  const size_t w = image.width() / f, h = image.height() / f, stride = image.bytesPerRow();
  const auto bytes = image.bytes();
  auto at = [&](size_t row, size_t col, size_t k) {
    return uint32_t{bytes[row * stride + col * bpp + std::min(k, bpp - 1)]};
  };
  std::vector<uint8_t> out(w * h);
  for (size_t y = 0; y < h; ++y) {
    for (size_t x = 0; x < w; ++x) {
      const size_t r = y * f, c = x * f;
      const uint32_t g =
          at(r, c, 1) + at(r, c + half, 1) + at(r + half, c + half, 1) + at(r + half, c, 1);
      const uint32_t red =
          at(r, c, 2) + at(r, c + half, 2) + at(r + half, c + half, 2) + at(r + half, c, 2);
      out[y * w + x] = static_cast<uint8_t>((red + 4 * g) / 20);
    }
  }
  return out;
}

/// Brightness over the image less a border; edge < 0 means the fixed 20-pixel border.
inline int32_t brightness(const Image& image, int bpp, int edge) {
  const auto bytes = image.bytes();
  const size_t w = image.width(), h = image.height(), step = std::min<size_t>(w, 10);
  const size_t edgeX = edge < 0 ? std::min<size_t>(w, 20) : size_t(float(edge) * float(w) / 100.0f);
  const size_t edgeY = edge < 0 ? std::min<size_t>(h, 20) : size_t(float(edge) * float(h) / 100.0f);
  const size_t channel = bpp > 2 ? 1 : 0;
  float sum = 0.0f;
  for (size_t y = edgeY; y < h - edgeY; y += step) {
    for (size_t x = edgeX; x < w - edgeX; x += step) sum += bytes[w * bpp * y + x * bpp + channel];
  }
  const auto count = static_cast<int32_t>(((h - 2 * edgeY) * (w - 2 * edgeX) / step) / step);
  return count ? static_cast<int32_t>(sum / static_cast<float>(count)) : 0;
}

}  // namespace kwq::test::ref

namespace kwq::test {

/// Runs the body once per instruction-set path this machine has, forcing it for the library.
template <class F>
void forEachSimdPath(F&& body) {
  for (quality::SimdPath path : quality::availableSimdPaths()) {
    quality::forceSimdPath(path);
    body(path);
  }
  quality::forceSimdPath(std::nullopt);
}

}  // namespace kwq::test

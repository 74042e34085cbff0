// Brightness measures: the mean raw byte over a sparse grid of the bitmap, addressed as packed
// rows, divided by the grid's nominal size.

#include <algorithm>

#include "kwqimage/KWQImagingHelper.h"
#include "platform/foundation/log_format.h"
#include "platform/image/image_data.h"
#include "quality/quality_internal.h"

namespace kwq {
namespace {

constexpr const char* kPlainName = "-[UIImage(KWQImagingHelper) calculateBrightness]";
constexpr int kPlainLine = 590;
constexpr const char* kEdgeName =
    "-[UIImage(KWQImagingHelper) calculateBrightness:edgePercentSkip:]";
constexpr int kEdgeLine = 642;
constexpr const char* kRectName = "-[UIImage(KWQImagingHelper) calculateBrightness:]";
constexpr int kRectLine = 699;
constexpr int kRectOutsideLine = 709;

void logNoBitmap(const char* method, int line, const Image& image) {
  logf("%s [Line %d] *** error: image must be backed by a CGImage: %s", method, line,
       image.description().c_str());
}

// Every min(width, 10)-th row and column is sampled.
uint64_t samplingStep(uint64_t width) {
  return std::max<uint64_t>(std::min<uint64_t>(width, 10), 1);
}

// The mean from the nominal count: 0 when the count is 0.
int32_t meanOf(float sum, float count) {
  if (count == 0.0f) return 0;
  return quality::truncToInt32(sum / count);
}

// The count of the border-skipping measures: the unsigned area over step twice, which wraps
// when the borders overlap, read as a signed 32-bit value.
float borderCount(uint64_t width, uint64_t height, uint64_t edgeX, uint64_t edgeY, uint64_t step) {
  const uint64_t count = ((height - 2 * edgeY) * (width - 2 * edgeX) / step) / step;
  return static_cast<float>(static_cast<int32_t>(static_cast<uint32_t>(count)));
}

// Adds, in row-major order, the byte at offset(x, y) of each grid point with y in [y0, y1)
// and x in [x0, x1), stepping by `step`; offsets outside the bytes (-1 included) are skipped.
template <class Offset>
float sumGrid(std::span<const uint8_t> bytes, uint64_t x0, uint64_t x1, uint64_t y0, uint64_t y1,
              uint64_t step, Offset offset) {
  quality::OrderedFloatSum sum;
  const auto inside = [&](int64_t i) { return i >= 0 && static_cast<uint64_t>(i) < bytes.size(); };
  for (uint64_t y = y0; y < y1; y += step) {
    uint64_t rowTotal = 0;
    if (!sum.rounding()) {
      for (uint64_t x = x0; x < x1; x += step) {
        const int64_t i = offset(x, y);
        if (inside(i)) rowTotal += bytes[static_cast<size_t>(i)];
      }
      if (sum.tryAddRun(rowTotal)) continue;
    }
    for (uint64_t x = x0; x < x1; x += step) {
      const int64_t i = offset(x, y);
      if (inside(i)) sum.addTerm(bytes[static_cast<size_t>(i)]);
    }
  }
  return sum.value();
}

// a x b + c in 64 bits, or -1 when it overflows.
int64_t mulAdd(int64_t a, int64_t b, int64_t c) {
  int64_t r = 0;
  if (__builtin_mul_overflow(a, b, &r) || __builtin_add_overflow(r, c, &r)) return -1;
  return r;
}

int32_t plainBrightness(const Image& image) {
  const Bitmap* bitmap = ImageAccess::bitmap(image);
  if (!bitmap) {
    logNoBitmap(kPlainName, kPlainLine, image);
    return 0;
  }
  const uint64_t w = bitmap->width, h = bitmap->height;
  const uint64_t edgeX = std::min<uint64_t>(w, 20), edgeY = std::min<uint64_t>(h, 20);
  const uint64_t step = samplingStep(w);
  // Read as 8-bit gray rows packed at the width: every offset is inside the bitmap's bytes.
  const float sum =
      sumGrid(image.bytes(), edgeX, w - edgeX, edgeY, h - edgeY, step,
              [w](uint64_t x, uint64_t y) { return static_cast<int64_t>(y * w + x); });
  return meanOf(sum, borderCount(w, h, edgeX, edgeY, step));
}

int32_t edgeBrightness(const Image& image, int32_t bytesPerPixel, int32_t edgePercent) {
  const Bitmap* bitmap = ImageAccess::bitmap(image);
  if (!bitmap) {
    logNoBitmap(kEdgeName, kEdgeLine, image);
    return 0;
  }
  // Negative percentages are above 99 when read unsigned.
  if (static_cast<uint32_t>(edgePercent) > 99) edgePercent = 0;
  const uint64_t w = bitmap->width, h = bitmap->height;
  const auto percent = static_cast<float>(edgePercent);
  const uint64_t edgeX =
      std::min(quality::truncToUint64(percent * static_cast<float>(w) / 100.0f), w);
  const uint64_t edgeY =
      std::min(quality::truncToUint64(percent * static_cast<float>(h) / 100.0f), h);
  const int64_t channel = bytesPerPixel > 2 ? 1 : 0;
  const int64_t rowBytes = mulAdd(static_cast<int64_t>(w), bytesPerPixel, 0);
  const uint64_t step = samplingStep(w);
  const float sum =
      sumGrid(image.bytes(), edgeX, w - edgeX, edgeY, h - edgeY, step, [&](uint64_t x, uint64_t y) {
        const int64_t column = mulAdd(static_cast<int64_t>(x), bytesPerPixel, channel);
        if (rowBytes < 0 || column < 0) return int64_t{-1};
        const int64_t row = mulAdd(static_cast<int64_t>(y), rowBytes, 0);
        return row < 0 ? -1 : mulAdd(1, row, column);
      });
  return meanOf(sum, borderCount(w, h, edgeX, edgeY, step));
}

int32_t rectBrightness(const Image& image, const Rect& rect) {
  const Bitmap* bitmap = ImageAccess::bitmap(image);
  if (!bitmap) {
    logNoBitmap(kRectName, kRectLine, image);
    return 0;
  }
  const uint64_t w = bitmap->width, h = bitmap->height;
  // The image's height stands as the container's width and its width as its height.
  const Rect container(0, 0, static_cast<double>(h), static_cast<double>(w));
  if (!container.contains(rect)) {
    logf("%s [Line %d] *** error: rect is outside of image", kRectName, kRectOutsideLine);
    return 0;
  }
  const uint64_t x0 = quality::truncToUint64(rect.origin.x);
  const uint64_t y0 = quality::truncToUint64(rect.origin.y);
  const uint64_t xEnd = quality::truncToUint64(rect.size.width + static_cast<double>(x0));
  const uint64_t yEnd = quality::truncToUint64(rect.size.height + static_cast<double>(y0));
  const uint64_t step = samplingStep(w);
  // Both ends are inclusive. Rows that start past the end of the bytes (the swapped test lets
  // a rectangle reach them) add nothing and are not visited, which also keeps y x w + x far
  // from overflow: the containment test bounds x by the height.
  const std::span<const uint8_t> bytes = image.bytes();
  const uint64_t rowLimit = std::min(yEnd + 1, bytes.size() / w + 1);
  const float sum = sumGrid(bytes, x0, xEnd + 1, y0, rowLimit, step, [w](uint64_t x, uint64_t y) {
    return static_cast<int64_t>(y * w + x);
  });
  // The divisor squares the rectangle's height; its width plays no part.
  const uint64_t count = quality::truncToUint64(
      rect.size.height * rect.size.height / static_cast<double>(step) / static_cast<double>(step));
  return meanOf(sum, static_cast<float>(count));
}

}  // namespace

int32_t calculateBrightness(const Image& image) {
  return quality::orOnException(int32_t{0}, [&] { return plainBrightness(image); });
}

int32_t calculateBrightness(const Image& image, int32_t bytesPerPixel, int32_t edgePercent) {
  return quality::orOnException(int32_t{0},
                                [&] { return edgeBrightness(image, bytesPerPixel, edgePercent); });
}

int32_t calculateBrightness(const Image& image, const Rect& rect) {
  return quality::orOnException(int32_t{0}, [&] { return rectBrightness(image, rect); });
}

}  // namespace kwq

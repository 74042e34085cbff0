// The focus quality score: mean squared difference between gray pixels a fixed distance apart
// along rows, over the image less a border.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/kwq_quality.h"
#include "platform/image/image_data.h"
#include "quality/quality_internal.h"

namespace kwq::quality {
namespace {

// Dimensions whose byte count passes this cannot describe a buffer in memory.
constexpr uint64_t kMaxBufferBytes = uint64_t{1} << 56;

// First value of start, start + step, ... that is >= 0 (start itself when it already is).
int64_t firstNonNegative(int64_t start, int64_t step) {
  if (start >= 0) return start;
  return start + (-start + step - 1) / step * step;
}

struct FocusSampler {
  const uint8_t* data;
  int64_t width;
  int64_t pixels;  // width x height
  int64_t bytesPerPixel;
  int64_t channel;
  int64_t distance;
  int64_t step;
  int64_t x0, x1;  // sampled columns: x0, x0 + step, ... below x1, all inside the row

  // Calls f(d), d = pixel - partner, for the samples of row y whose partner is in the buffer.
  template <class F>
  void forRow(int64_t y, F&& f) const {
    const int64_t rowStart = y * width;
    for (int64_t x = x0; x < x1; x += step) {
      const int64_t i = rowStart + x;
      const int64_t partner = i + distance;
      if (partner < 0 || partner >= pixels) continue;
      const int d = data[i * bytesPerPixel + channel] - data[partner * bytesPerPixel + channel];
      f(d);
    }
  }
};

}  // namespace
}  // namespace kwq::quality

extern "C" float CalculateFocusQuality(const uint8_t* data, uint32_t width, uint32_t height,
                                       int32_t bytesPerPixel, int32_t distance, int32_t step,
                                       int32_t edgePercent) {
  using namespace kwq::quality;
  const uint64_t pixels = uint64_t{width} * height;
  uint64_t bufferBytes = 0;
  if (!data || step < 1 || bytesPerPixel < 1 || pixels == 0 ||
      __builtin_mul_overflow(pixels, static_cast<uint64_t>(bytesPerPixel), &bufferBytes) ||
      bufferBytes > kMaxBufferBytes) {
    return 0.0f;
  }
  // Border widths: a signed 32-bit product (wrapping on overflow) divided toward zero.
  const int64_t edgeY =
      static_cast<int32_t>(static_cast<uint32_t>(edgePercent) * static_cast<uint32_t>(height)) /
      100;
  const int64_t edgeX =
      static_cast<int32_t>(static_cast<uint32_t>(edgePercent) * static_cast<uint32_t>(width)) / 100;
  FocusSampler s{data,
                 width,
                 static_cast<int64_t>(pixels),
                 bytesPerPixel,
                 bytesPerPixel > 2 ? 1 : 0,
                 distance,
                 step,
                 firstNonNegative(edgeX, step),
                 std::min<int64_t>(int64_t{width} - edgeX, width)};
  const int64_t yEnd = std::min<int64_t>(int64_t{height} - edgeY, height);
  OrderedFloatSum sum;
  int64_t count = 0;
  for (int64_t y = firstNonNegative(edgeY, step); y < yEnd; y += step) {
    const auto addSquare = [&](int d) {
      const auto fd = static_cast<float>(d);
      sum.addTerm(fd * fd);
    };
    if (sum.rounding()) {
      s.forRow(y, [&](int d) {
        addSquare(d);
        ++count;
      });
      continue;
    }
    uint64_t rowTotal = 0;
    s.forRow(y, [&](int d) {
      rowTotal += static_cast<uint64_t>(d * d);
      ++count;
    });
    if (!sum.tryAddRun(rowTotal)) s.forRow(y, addSquare);
  }
  return count != 0 ? sum.value() / static_cast<float>(count) : 0.0f;
}

namespace kwq {

uint8_t* makeDataArray(const Image& image) {
  const std::span<const uint8_t> bytes = image.bytes();
  if (bytes.empty()) return nullptr;
  auto* copy = static_cast<uint8_t*>(std::malloc(bytes.size()));
  if (copy) std::memcpy(copy, bytes.data(), bytes.size());
  return copy;
}

int32_t calculateFocusScore(const Image& image, int32_t distance, int32_t step,
                            int32_t edgePercent) {
  return quality::orOnException(int32_t{0}, [&] {
    const Image gray = makeGrayScaleAndScale(image, 1);
    // The gray image is packed, one byte a pixel, so its own bytes are what a copy would hold.
    const float q =
        CalculateFocusQuality(gray.bytes().data(), static_cast<uint32_t>(gray.width()),
                              static_cast<uint32_t>(gray.height()), 1, distance, step, edgePercent);
    const int32_t score = quality::truncToInt32(std::sqrt(static_cast<double>(q)) * 3.0);
    return std::min(score, 100);
  });
}

}  // namespace kwq

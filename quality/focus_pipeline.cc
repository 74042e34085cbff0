// The focus measure of whole images: fit or halve the image to gray, centre it on the 640 x 480
// assessment raster, and run the two-pi assessment.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/kwq_quality.h"
#include "platform/draw/bitmap_draw.h"
#include "quality/grayscale.h"
#include "quality/quality_internal.h"
#include "quality/two_pi_focus.h"

namespace kwq {
namespace {

constexpr int64_t kRasterWidth = KWQ_ASSESSMENT_RASTER_WIDTH;
constexpr int64_t kRasterHeight = KWQ_ASSESSMENT_RASTER_HEIGHT;
constexpr size_t kRasterBytes = KWQ_ASSESSMENT_RASTER_BYTES;
constexpr uint8_t kMidGray = 128;

// Where an image of width x height lands on the raster: offsets (negative when it overhangs,
// halved with truncation toward zero) and the raster rectangle it covers.
struct Placement {
  int64_t dx, dy;
  int64_t x0, y0, x1, y1;  // covered raster columns [x0, x1) and rows [y0, y1)
  bool empty() const { return x0 >= x1 || y0 >= y1; }
};

Placement centred(int64_t width, int64_t height) {
  Placement p;
  p.dx = (kRasterWidth - width) / 2;
  p.dy = (kRasterHeight - height) / 2;
  p.x0 = std::max<int64_t>(0, p.dx);
  p.y0 = std::max<int64_t>(0, p.dy);
  p.x1 = std::min(kRasterWidth, p.dx + std::max<int64_t>(0, width));
  p.y1 = std::min(kRasterHeight, p.dy + std::max<int64_t>(0, height));
  return p;
}

// Copies the covered part of a packed 8-bit image of `width` columns; bytes the image does not
// have (a short bitmap, or none) leave the canvas as it is.
void placeBytes(std::span<const uint8_t> bytes, int64_t width, const Placement& p,
                uint8_t* raster) {
  if (p.empty()) return;
  const auto available = static_cast<int64_t>(bytes.size());
  for (int64_t ty = p.y0; ty < p.y1; ++ty) {
    const int64_t start = (ty - p.dy) * width + (p.x0 - p.dx);
    if (start >= available) break;
    const int64_t n = std::min(p.x1 - p.x0, available - start);
    std::memcpy(raster + ty * kRasterWidth + p.x0, bytes.data() + start, static_cast<size_t>(n));
  }
}

int32_t assess(const uint8_t* raster) {
  using namespace quality::two_pi;
  return scoresFromSums(assessSums(raster, quality::activeSimdPath())).focus;
}

struct FreeDeleter {
  void operator()(uint8_t* p) const { std::free(p); }
};
using RasterPtr = std::unique_ptr<uint8_t, FreeDeleter>;

// The colour branch of calculateFocus. Halving to gray and then centring on the raster is
// done in one step, and only for the raster window the assessment reads (rows and columns 39
// up to the last block's end); the rest of the raster cannot change the score.
int32_t focusOfHalvedColour(const Image& image) {
  const Bitmap* source = ImageAccess::bitmap(image);
  if (!source) return 0;  // nothing to halve: the raster would be uniform mid-gray
  const auto width = static_cast<int64_t>(source->width / 2);
  const auto height = static_cast<int64_t>(source->height / 2);
  if (width == 0 || height == 0) return 0;
  RasterPtr raster(static_cast<uint8_t*>(std::malloc(kRasterBytes)));
  if (!raster) return 0;
  std::memset(raster.get(), kMidGray, kRasterBytes);
  Placement p = centred(width, height);
  using namespace quality::two_pi;
  p.x0 = std::max<int64_t>(p.x0, kOrigin);
  p.y0 = std::max<int64_t>(p.y0, kOrigin);
  p.x1 = std::min<int64_t>(p.x1, kOrigin + 4 * (kBlockCols + 1));
  p.y1 = std::min<int64_t>(p.y1, kOrigin + 4 * (kBlockRows + 1));
  if (!p.empty()) {
    quality::reduceToGray(
        *source, 2, static_cast<size_t>(p.x0 - p.dx), static_cast<size_t>(p.y0 - p.dy),
        static_cast<size_t>(p.x1 - p.x0), static_cast<size_t>(p.y1 - p.y0),
        raster.get() + p.y0 * kRasterWidth + p.x0, kRasterWidth, quality::activeSimdPath());
  }
  return assess(raster.get());
}

}  // namespace

Image scaleImage(const Image& image) {
  return quality::orOnException(Image{}, [&] {
    const Size size = image.size();
    const int32_t w = quality::truncToInt32(size.width);
    const int32_t h = quality::truncToInt32(size.height);
    if (w <= 0 || h <= 0 || !image.hasBitmap()) return Image{};
    const float rx = static_cast<float>(w) / 640.0f;
    const float ry = static_cast<float>(h) / 480.0f;
    const float r = rx < ry ? ry : rx;
    // Multiplying by the reciprocal (not dividing by r) decides the last pixel when the
    // product falls just below a whole number.
    const float inv = 1.0f / r;
    const float newWidth = static_cast<float>(w) * inv;
    const float newHeight = static_cast<float>(h) * inv;
    if (!(newWidth >= 1.0f) || !(newHeight >= 1.0f)) return Image{};
    return platform::redrawResampled(image, static_cast<size_t>(newWidth),
                                     static_cast<size_t>(newHeight));
  });
}

uint8_t* padImage(const Image& image) {
  auto* raster = static_cast<uint8_t*>(std::calloc(kRasterBytes, 1));
  if (!raster) return nullptr;
  const std::span<const uint8_t> bytes = image.bytes();
  const Size size = image.size();
  const int64_t w = quality::truncToInt32(size.width);
  const int64_t h = quality::truncToInt32(size.height);
  if (w == kRasterWidth && h == kRasterHeight && bytes.size() >= kRasterBytes) {
    std::memcpy(raster, bytes.data(), kRasterBytes);
    return raster;
  }
  std::memset(raster, kMidGray, kRasterBytes);
  placeBytes(bytes, w, centred(w, h), raster);
  return raster;
}

int32_t calculateFocus(const Image& image) {
  return quality::orOnException(int32_t{0}, [&] {
    // Gray images are fitted to 640 x 480; colour images are only halved, and what overhangs
    // the raster after halving is cut off.
    if (!isGrayScale(image)) return focusOfHalvedColour(image);
    const RasterPtr raster(padImage(scaleImage(image)));
    return raster ? assess(raster.get()) : 0;
  });
}

}  // namespace kwq

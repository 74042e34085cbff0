#include "quality/grayscale.h"

#include <algorithm>

#include "kwqimage/KWQImagingHelper.h"
#include "platform/draw/bitmap_draw.h"
#include "quality/quality_internal.h"
#include "quality/simd_ops.h"

namespace kwq::quality {

#if KWQ_QUALITY_X86
namespace sse2 {
#include "quality/gray_halve_simd_body.h"
}  // namespace sse2
KWQ_AVX2_REGION_BEGIN
namespace avx2 {
#include "quality/gray_halve_simd_body.h"
}  // namespace avx2
KWQ_AVX2_REGION_END
#endif

namespace {

constexpr bool multiplyMatchesDivision() {
  for (uint32_t x = 0; x <= 5100; ++x) {
    if (divideBy20(x) != x / 20) return false;
  }
  return true;
}
static_assert(multiplyMatchesDivision(), "x / 20 as (x * 52429) >> 20 must hold up to 5100");

using HalveRow = size_t (*)(const uint8_t*, const uint8_t*, uint8_t*, size_t);

HalveRow vectorHalver(SimdPath path) {
  switch (path) {
#if KWQ_QUALITY_X86
    case SimdPath::Avx2:
      return avx2::halveRowPacked4;
    case SimdPath::Sse2:
      return sse2::halveRowPacked4;
#endif
    default:
      return nullptr;
  }
}

// Reads byte `k` of every pixel; pixels narrower than k + 1 bytes give their last byte.
struct PixelBytes {
  size_t bytesPerPixel;
  size_t green;  // offset of "byte 1"
  size_t red;    // offset of "byte 2"
  explicit PixelBytes(size_t bpp)
      : bytesPerPixel(bpp),
        green(std::min<size_t>(1, bpp - 1)),
        red(std::min<size_t>(2, bpp - 1)) {}
};

uint8_t grayOfCorners(const uint8_t* top, const uint8_t* bottom, size_t left, size_t right,
                      const PixelBytes& px) {
  const uint32_t g = top[left + px.green] + top[right + px.green] + bottom[right + px.green] +
                     bottom[left + px.green];
  const uint32_t r =
      top[left + px.red] + top[right + px.red] + bottom[right + px.red] + bottom[left + px.red];
  return static_cast<uint8_t>((r + 4 * g) / 20);
}

}  // namespace

void reduceToGray(const Bitmap& source, uint32_t factor, size_t x0, size_t y0, size_t width,
                  size_t height, uint8_t* out, size_t outStride, SimdPath path) {
  const PixelBytes px(bytesPerPixel(source.layout));
  const size_t half = factor >> 1;
  const HalveRow halver = (factor == 2 && px.bytesPerPixel == 4) ? vectorHalver(path) : nullptr;
  for (size_t y = 0; y < height; ++y) {
    const uint8_t* top = source.bytes.data() + (y0 + y) * factor * source.bytesPerRow;
    const uint8_t* bottom = top + half * source.bytesPerRow;
    uint8_t* dst = out + y * outStride;
    size_t x = 0;
    if (halver) x = halver(top + 8 * x0, bottom + 8 * x0, dst, width);
    for (; x < width; ++x) {
      const size_t left = (x0 + x) * factor * px.bytesPerPixel;
      dst[x] = grayOfCorners(top, bottom, left, left + half * px.bytesPerPixel, px);
    }
  }
}

}  // namespace kwq::quality

namespace kwq {

bool isGrayScale(const Image& image) {
  return image.colorSpaceModel() == ColorSpaceModel::Monochrome;
}

Image makeGrayScale(const Image& image) {
  return quality::orOnException(Image{}, [&] {
    const Size size = image.size();
    if (!(size.width >= 1.0) || !(size.height >= 1.0)) return Image{};
    return platform::drawIntoGray(image, quality::truncToUint64(size.width),
                                  quality::truncToUint64(size.height), size);
  });
}

Image makeGrayScaleAndScale(const Image& image, int32_t factor) {
  if (factor < 2) return makeGrayScale(image);
  return quality::orOnException(Image{}, [&] {
    const Bitmap* source = ImageAccess::bitmap(image);
    if (!source) return Image{};
    const auto f = static_cast<uint32_t>(factor);
    const size_t width = source->width / f, height = source->height / f;
    auto out = allocateBitmap(PixelLayout::Gray8, width, height, width);
    if (!out) return Image{};  // empty result
    quality::reduceToGray(*source, f, 0, 0, width, height, out->bytes.data(), width,
                          quality::activeSimdPath());
    return ImageAccess::make(std::move(out));
  });
}

}  // namespace kwq

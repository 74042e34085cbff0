// Fuzzes the byte-array constructors with arbitrary sizes, then the geometry and the PNG codec
// on whatever image comes out.
//
// Input: a layout selector, a mode, width, height and bytes per row, an angle, a padding, a
// rectangle, a view size and a target size; the rest are the pixel bytes. In raw mode the
// sizes are any 32-bit signed values, otherwise small plausible ones (so that most inputs make
// an image). Sizes are used as given whenever they are invalid (the constructor must refuse
// them without reading) or fit the bytes; valid sizes that need more bytes than there are would
// describe a buffer the caller does not have, and are skipped.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/KWQImagingHelperClass.h"
#include "kwqimage/Log.h"
#include "platform/image/png_codec.h"

namespace {

using kwq::Image;
using kwq::KWQImagingHelper;

Image (*const kMakers[])(const uint8_t*, int32_t, int32_t, int32_t) = {
    KWQImagingHelper::makeUIImageFromGrayScaleData, KWQImagingHelper::makeUIImageFromRGBData,
    KWQImagingHelper::makeUIImageFromRGBAData, KWQImagingHelper::makeUIImageFromBGRAData};
const int64_t kBytesPerPixel[] = {1, 3, 4, 4};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    kwq::setLogSink([](std::string_view) {});
    return true;
  }();
  (void)quiet;
  FuzzedDataProvider in(data, size);
  const int layout = in.ConsumeIntegralInRange<int>(0, 3);
  int32_t w, h, bpr;
  if (in.ConsumeBool()) {
    w = in.ConsumeIntegral<int32_t>();
    h = in.ConsumeIntegral<int32_t>();
    bpr = in.ConsumeIntegral<int32_t>();
  } else {
    w = in.ConsumeIntegralInRange<int32_t>(1, 40);
    h = in.ConsumeIntegralInRange<int32_t>(1, 40);
    bpr = w * static_cast<int32_t>(kBytesPerPixel[layout]) +
          in.ConsumeIntegralInRange<int32_t>(-1, 6);
  }
  const double angle = in.ConsumeFloatingPoint<double>();
  const float padding = in.ConsumeFloatingPoint<float>();
  const kwq::Rect rect(in.ConsumeFloatingPoint<double>(), in.ConsumeFloatingPoint<double>(),
                       in.ConsumeFloatingPoint<double>(), in.ConsumeFloatingPoint<double>());
  const kwq::Size view{in.ConsumeFloatingPoint<double>(), in.ConsumeFloatingPoint<double>()};
  // Targets stay small so each input runs quickly; the geometry's own limits are fuzzed above.
  const kwq::Size target{in.ConsumeFloatingPointInRange<double>(-2.0, 64.0),
                         in.ConsumeFloatingPointInRange<double>(-2.0, 64.0)};
  const std::vector<uint8_t> pixels = in.ConsumeRemainingBytes<uint8_t>();

  const int64_t need = static_cast<int64_t>(h) * bpr;
  const bool valid = w > 0 && h > 0 && bpr > 0 && bpr >= w * kBytesPerPixel[layout] &&
                     need <= std::numeric_limits<int32_t>::max();
  if (valid && need > static_cast<int64_t>(pixels.size())) return 0;
  const Image image = kMakers[layout](pixels.empty() ? nullptr : pixels.data(), w, h, bpr);
  if (!valid && !image.isNull()) __builtin_trap();  // invalid sizes must be refused
  if (image.isNull()) return 0;

  (void)kwq::rotatedByAngle(image, angle);
  (void)kwq::imageRotatedByDegrees(image, angle);
  (void)kwq::cropImageAtCoordinates(image, rect, padding);
  (void)kwq::cropImageAtCoordinates(image, rect, padding, view);
  (void)kwq::imageAtRect(image, rect);
  (void)kwq::imageByScalingProportionallyToMinimumSize(image, target);
  (void)kwq::imageByScalingProportionallyToSize(image, target);
  const std::vector<uint8_t> png = kwq::platform::encodePNG(image);
  const Image back = Image::decode(png.data(), png.size());
  if (back.width() != image.width() || back.height() != image.height()) __builtin_trap();
  return 0;
}

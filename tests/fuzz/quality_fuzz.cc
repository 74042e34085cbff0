// Fuzzes the quality measures: the raw-buffer entry points with fuzzed geometry over buffers of
// exactly the size they describe, and the image functions over images of fuzzed geometry.
// The first byte picks the entry point. The two-pi assessment is also checked across every
// instruction-set path: any disagreement aborts.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <vector>

#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/Log.h"
#include "kwqimage/kwq_quality.h"
#include "quality/simd_path.h"
#include "quality/two_pi_focus.h"

namespace {

constexpr size_t kMaxBufferBytes = size_t{1} << 20;

// `size` bytes cycled from the fuzzer's remaining input (zeros when none is left).
std::vector<uint8_t> fill(FuzzedDataProvider& in, size_t size) {
  const std::vector<uint8_t> seed =
      in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 4096));
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size && !seed.empty(); ++i) bytes[i] = seed[i % seed.size()];
  return bytes;
}

void focusQuality(FuzzedDataProvider& in) {
  const auto width = in.ConsumeIntegralInRange<uint32_t>(0, 2000);
  const auto height = in.ConsumeIntegralInRange<uint32_t>(0, 2000);
  const auto bpp = in.ConsumeIntegral<int32_t>();
  const auto distance = in.ConsumeIntegral<int32_t>();
  const auto step = in.ConsumeIntegral<int32_t>();
  const auto edge = in.ConsumeIntegral<int32_t>();
  const uint64_t bytes = uint64_t{width} * height * static_cast<uint64_t>(bpp > 0 ? bpp : 0);
  if (bytes > kMaxBufferBytes) return;
  // Exactly the size the arguments describe, on the heap, so any read past it is caught.
  const std::vector<uint8_t> data = fill(in, bytes);
  auto* exact = static_cast<uint8_t*>(std::malloc(bytes ? bytes : 1));
  std::copy(data.begin(), data.end(), exact);
  CalculateFocusQuality(exact, width, height, bpp, distance, step, edge);
  std::free(exact);
}

void assess(FuzzedDataProvider& in) {
  const std::vector<uint8_t> raster = fill(in, KWQ_ASSESSMENT_RASTER_BYTES);
  const ImageAssessSource source{raster.data()};
  ImageAssessResult result;
  ImageAssess(&source, &result);
  using namespace kwq::quality;
  const two_pi::Sums scalar = two_pi::assessSums(raster.data(), SimdPath::Scalar);
  for (SimdPath path : availableSimdPaths()) {
    const two_pi::Sums s = two_pi::assessSums(raster.data(), path);
    if (s.rowSum != scalar.rowSum || s.allSum != scalar.allSum || s.cleanSum != scalar.cleanSum ||
        s.cleanCount != scalar.cleanCount) {
      std::abort();
    }
  }
}

void imageFunctions(FuzzedDataProvider& in) {
  const auto layout = static_cast<kwq::PixelLayout>(in.ConsumeIntegralInRange<int>(0, 3));
  const auto width = in.ConsumeIntegralInRange<size_t>(1, 1400);
  const auto height = in.ConsumeIntegralInRange<size_t>(1, 1100);
  const size_t bytesPerRow =
      width * kwq::bytesPerPixel(layout) + in.ConsumeIntegralInRange<size_t>(0, 9);
  if (bytesPerRow * height > 4 * kMaxBufferBytes) return;
  const std::vector<uint8_t> bytes = fill(in, bytesPerRow * height);
  kwq::Image image = kwq::Image::copyFromBytes(layout, width, height, bytesPerRow, bytes.data());
  if (in.ConsumeBool()) {
    image =
        image.withScale(in.ConsumeFloatingPoint<double>(),
                        static_cast<kwq::ImageOrientation>(in.ConsumeIntegralInRange<int>(0, 7)));
  }
  const int32_t a = in.ConsumeIntegral<int32_t>(), b = in.ConsumeIntegral<int32_t>(),
                c = in.ConsumeIntegral<int32_t>();
  const kwq::Rect rect(in.ConsumeFloatingPoint<double>(), in.ConsumeFloatingPoint<double>(),
                       in.ConsumeFloatingPoint<double>(), in.ConsumeFloatingPoint<double>());
  kwq::calculateFocus(image);
  kwq::calculateFocusScore(image, a, b, c);
  kwq::calculateBrightness(image);
  kwq::calculateBrightness(image, a, b);
  kwq::calculateBrightness(image, rect);
  kwq::makeGrayScaleAndScale(image, a % 16);
  std::free(kwq::padImage(image));
  std::free(kwq::padImage(kwq::scaleImage(image)));
  std::free(kwq::makeDataArray(image));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  kwq::setLogSink([](std::string_view) {});  // the bad-input log lines are expected
  switch (in.ConsumeIntegralInRange<int>(0, 2)) {
    case 0:
      focusQuality(in);
      break;
    case 1:
      assess(in);
      break;
    default:
      imageFunctions(in);
      break;
  }
  return 0;
}

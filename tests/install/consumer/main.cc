// Uses the installed headers and library the way a host does; exits non-zero on any surprise.
#include <kwqimage/KWQImage.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main() {
  // A 64 x 48 gray ramp: not uniform, so its focus measures are positive.
  std::vector<uint8_t> pixels(64 * 48);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<uint8_t>((i * 37) % 251);
  const kwq::Image image =
      kwq::Image::copyFromBytes(kwq::PixelLayout::Gray8, 64, 48, 64, pixels.data());
  if (image.isNull() || !kwq::isGrayScale(image)) return 1;
  const int32_t focus = kwq::calculateFocusScore(image, 1, 1, 10);
  uint8_t* raster = kwq::padImage(image);
  if (!raster) return 2;
  const int32_t twoPi = TwoPiFocusAssess(raster);
  std::free(raster);
  if (KWQImageVersionNumber != 1.0) return 3;
  if (std::strncmp(reinterpret_cast<const char*>(KWQImageVersionString), "@(#)PROGRAM:KWQImage",
                   20))
    return 4;
  // Exported beyond the measures: PNG encoding and the synthetic camera's frame numbers.
  if (image.pngData().size() < 8) return 6;
  if (kwq::syntheticFrameIndex(kwq::SampleBuffer(kwq::PixelBuffer(), {90, 30})) != 90) return 7;
  std::printf("focusScore %d twoPi %d\n", focus, twoPi);
  return focus > 0 ? 0 : 5;
}

#include "kwq/sample_images.h"

#include <cmath>
#include <filesystem>

namespace kwq::tool {
namespace {

// A 1280 x 720 BGRA test card: a printed-text-like pattern of fine bars and blocks on paper
// white, lit a little unevenly. `soft` replaces every hard edge by a smooth ramp of about
// eight pixels, the way an out-of-focus lens renders it.
Image testCard(bool soft) {
  constexpr size_t kWidth = 1280, kHeight = 720;
  std::vector<uint8_t> bytes(kWidth * kHeight * 4);
  auto edge = [soft](double distance) {  // 0 outside the ink, 1 inside
    if (!soft) return distance >= 0 ? 1.0 : 0.0;
    return 1.0 / (1.0 + std::exp(-distance / 2.0));
  };
  for (size_t y = 0; y < kHeight; ++y) {
    for (size_t x = 0; x < kWidth; ++x) {
      // "Lines of text": rows of glyph-sized bars with gaps.
      const double line = std::fmod(static_cast<double>(y), 48.0) - 8.0;  // 0..28 ink band
      const double glyph = std::fmod(static_cast<double>(x) * 1.0 + (y / 48) * 13.0, 22.0);
      const double inBand = std::min(line, 28.0 - line);
      const double inGlyph = std::min(glyph - 3.0, 15.0 - glyph);
      const double stroke = std::fmod(static_cast<double>(x + y / 3), 6.0) < 3.0 ? 1.0 : -1.0;
      const double ink = edge(std::min(inBand, inGlyph)) * (stroke > 0 ? 1.0 : 0.35);
      const double light = 200.0 + 40.0 * static_cast<double>(x) / kWidth;
      const double value = light * (1.0 - 0.8 * ink);
      const auto v = static_cast<uint8_t>(std::clamp(value, 0.0, 255.0));
      uint8_t* p = &bytes[(y * kWidth + x) * 4];
      p[0] = static_cast<uint8_t>(v * 0.95);
      p[1] = v;
      p[2] = static_cast<uint8_t>(std::min(255.0, v * 1.02));
      p[3] = 255;
    }
  }
  return Image::fromBuffer(PixelLayout::BGRA32Premultiplied, kWidth, kHeight, kWidth * 4,
                           std::move(bytes));
}

}  // namespace

std::vector<SampleImage> builtInSamples() {
  std::vector<SampleImage> samples{{"test card (sharp)", testCard(false)},
                                   {"test card (soft)", testCard(true)}};
  const std::filesystem::path dir = KWQ_SAMPLE_DATA_DIR;
  for (const char* name : {"building.jpg", "text_defocus.jpg", "messi5.jpg"}) {
    Image image = Image::loadFile((dir / name).string());
    if (image.isNull()) continue;
    if (image.layout() != PixelLayout::Gray8)
      image = image.converted(PixelLayout::BGRA32Premultiplied);
    samples.push_back({name, image});
  }
  return samples;
}

}  // namespace kwq::tool

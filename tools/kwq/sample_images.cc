#include "kwq/sample_images.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

namespace kwq::tool {
namespace {

constexpr size_t kWidth = 1280, kHeight = 720;

// A 1280 x 720 BGRA test card: rows of glyph-sized blocks of fine strokes on light gray paper
// (kept under the two-pi measure's bright-pixel cut-off of 200, like a well-exposed card),
// lit a little unevenly.
std::vector<uint8_t> testCard() {
  std::vector<uint8_t> bytes(kWidth * kHeight * 4);
  for (size_t y = 0; y < kHeight; ++y) {
    for (size_t x = 0; x < kWidth; ++x) {
      const size_t line = y % 48, glyph = (x + (y / 48) * 13) % 22;
      const bool inGlyph = line >= 8 && line < 36 && glyph >= 3 && glyph < 18;
      const bool heavyStroke = (x + y / 3) % 6 < 3;
      const double ink = inGlyph ? (heavyStroke ? 1.0 : 0.35) : 0.0;
      const double light = 150.0 + 40.0 * static_cast<double>(x) / kWidth;
      const auto v = static_cast<uint8_t>(light * (1.0 - 0.8 * ink));
      uint8_t* p = &bytes[(y * kWidth + x) * 4];
      p[0] = static_cast<uint8_t>(v * 0.95);
      p[1] = v;
      p[2] = static_cast<uint8_t>(std::min(255.0, v * 1.02));
      p[3] = 255;
    }
  }
  return bytes;
}

// Box blur of the colour channels along one axis; three passes over both axes approximate the
// Gaussian blur of an out-of-focus lens.
void boxBlur(std::vector<uint8_t>& bytes, size_t radius, bool alongRows) {
  const size_t count = alongRows ? kWidth : kHeight, lines = alongRows ? kHeight : kWidth;
  const size_t step = alongRows ? 4 : kWidth * 4, lineStep = alongRows ? kWidth * 4 : 4;
  std::vector<uint8_t> line(count);
  for (size_t l = 0; l < lines; ++l) {
    for (size_t c = 0; c < 3; ++c) {
      uint8_t* base = &bytes[l * lineStep + c];
      for (size_t i = 0; i < count; ++i) line[i] = base[i * step];
      for (size_t i = 0; i < count; ++i) {
        const size_t lo = i >= radius ? i - radius : 0, hi = std::min(count - 1, i + radius);
        unsigned sum = 0;
        for (size_t j = lo; j <= hi; ++j) sum += line[j];
        base[i * step] = static_cast<uint8_t>(sum / (hi - lo + 1));
      }
    }
  }
}

Image bgra(std::vector<uint8_t> bytes) {
  return Image::fromBuffer(PixelLayout::BGRA32Premultiplied, kWidth, kHeight, kWidth * 4,
                           std::move(bytes));
}

}  // namespace

std::vector<SampleImage> builtInSamples() {
  std::vector<uint8_t> sharp = testCard(), soft = sharp;
  for (int pass = 0; pass < 3; ++pass) {
    boxBlur(soft, 8, true);
    boxBlur(soft, 8, false);
  }
  std::vector<SampleImage> samples{{"test card (sharp)", bgra(std::move(sharp))},
                                   {"test card (soft)", bgra(std::move(soft))}};
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

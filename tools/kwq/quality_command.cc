#include "kwq/quality_command.h"

#include <chrono>
#include <filesystem>

#include <kwqimage/KWQImagingHelper.h>
#include "kwq/sample_images.h"
#include "kwq/table.h"

namespace kwq::tool {
namespace {

std::vector<std::string> scoreRow(const std::string& name, const Image& image) {
  const auto start = std::chrono::steady_clock::now();
  const int32_t focus = calculateFocus(image);
  const int32_t focusScore = calculateFocusScore(image, 1, 1, 10);
  const int32_t brightness = calculateBrightness(image);
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  const char* layout = image.layout() == PixelLayout::Gray8 ? "gray" : "BGRA";
  return {name,
          std::to_string(image.width()),
          std::to_string(image.height()),
          layout,
          std::to_string(focus),
          std::to_string(focusScore),
          std::to_string(brightness),
          formatNumber("%.1f", ms)};
}

}  // namespace

int runQuality(const std::vector<std::string>& files, std::ostream& out, std::ostream& err) {
  Table table({"image", "width", "height", "layout", "focus", "focusScore", "brightness", "ms"});
  int status = 0;
  if (files.empty()) {
    for (const SampleImage& sample : builtInSamples())
      table.addRow(scoreRow(sample.name, sample.image));
  }
  for (const std::string& file : files) {
    Image image = Image::loadFile(file);
    if (image.isNull()) {
      err << "kwq quality: " << file
          << (std::filesystem::exists(file) ? ": not an image this tool can decode"
                                            : ": no such file")
          << '\n';
      status = 1;
      continue;
    }
    if (image.layout() != PixelLayout::Gray8)
      image = image.converted(PixelLayout::BGRA32Premultiplied);
    table.addRow(scoreRow(std::filesystem::path(file).filename().string(), image));
  }
  table.print(out);
  return status;
}

}  // namespace kwq::tool

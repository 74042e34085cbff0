#include "support/test_support.h"

#include <filesystem>

#include <gtest/gtest.h>

namespace kwq::test {

LogCapture::LogCapture() {
  previous_ = setLogSink([this](std::string_view line) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  });
}

LogCapture::~LogCapture() {
  setLogSink(std::move(previous_));
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::string samplePath(const std::string& name) {
  return std::string(KWQ_SAMPLE_DATA_DIR) + "/" + name;
}

Image loadSample(const std::string& name) {
  Image image = Image::loadFile(samplePath(name));
  EXPECT_FALSE(image.isNull()) << "missing sample image " << samplePath(name)
                               << " (Debian package opencv-doc)";
  return image;
}

std::string outputDir() {
  const std::string dir = KWQ_TEST_OUTPUT_DIR;
  std::filesystem::create_directories(dir);
  return dir;
}

Image randomImage(std::mt19937& rng, PixelLayout layout, size_t width, size_t height,
                  size_t rowPadding) {
  const size_t bpr = width * bytesPerPixel(layout) + rowPadding;
  std::vector<uint8_t> bytes(bpr * height);
  std::uniform_int_distribution<int> byte(0, 255);
  for (auto& b : bytes) b = static_cast<uint8_t>(byte(rng));
  return Image::fromBuffer(layout, width, height, bpr, std::move(bytes));
}

}  // namespace kwq::test

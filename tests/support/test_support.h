#pragma once

// Helpers shared by the tests: log capture, sample photographs, random images.

#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "kwqimage/Image.h"
#include "kwqimage/Log.h"

namespace kwq::test {

/// Collects every log line while alive; restores the previous sink afterwards.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::vector<std::string> lines() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  LogSink previous_;
};

/// Full path of an opencv-doc sample image such as "building.jpg".
std::string samplePath(const std::string& name);
/// Loads an opencv-doc sample image; fails the calling test when it is missing.
Image loadSample(const std::string& name);
/// Folder for pictures and files the tests write (created on demand).
std::string outputDir();

/// An image of the layout and size with uniformly random bytes (padding included).
Image randomImage(std::mt19937& rng, PixelLayout layout, size_t width, size_t height,
                  size_t rowPadding = 0);

}  // namespace kwq::test

#include "synthetic/portrait.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace kwq::synthetic {

Texture loadPhotoTexture(const std::string& path, const Rect& crop, Rect* shown) {
  Texture texture;
  try {
    const cv::Mat photo = cv::imread(path, cv::IMREAD_COLOR);
    if (photo.empty()) return texture;
    const cv::Rect whole(0, 0, photo.cols, photo.rows);
    cv::Rect part = whole;
    const bool finite = std::isfinite(crop.origin.x) && std::isfinite(crop.origin.y) &&
                        std::isfinite(crop.size.width) && std::isfinite(crop.size.height);
    if (finite && crop.size.width >= 1.0 && crop.size.height >= 1.0) {
      const auto clampInt = [](double v, int hi) {
        return static_cast<int>(std::clamp(std::round(v), 0.0, static_cast<double>(hi)));
      };
      const int x0 = clampInt(crop.origin.x, photo.cols), y0 = clampInt(crop.origin.y, photo.rows);
      const int x1 = clampInt(crop.origin.x + crop.size.width, photo.cols);
      const int y1 = clampInt(crop.origin.y + crop.size.height, photo.rows);
      part = cv::Rect(x0, y0, x1 - x0, y1 - y0) & whole;
    }
    if (part.empty()) return texture;
    cv::Mat level;
    cv::cvtColor(photo(part), level, cv::COLOR_BGR2BGRA);
    texture.units = {static_cast<double>(part.width), static_cast<double>(part.height)};
    texture.levels.push_back(level);
    addCoarserLevels(texture, 8);
    if (shown) *shown = {{1.0 * part.x, 1.0 * part.y}, {1.0 * part.width, 1.0 * part.height}};
  } catch (const cv::Exception&) {
    texture = {};
  }
  return texture;
}

}  // namespace kwq::synthetic

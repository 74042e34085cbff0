#include "kwqimage/Detectors.h"

#include <algorithm>

#include "platform/vision/code_reader.h"
#include "platform/vision/rectangle_detector.h"

namespace kwq {

std::vector<DetectedRectangle> detectRectangles(const Image& image, const RectangleSearch& search) {
  if (!image.hasBitmap()) return {};
  platform::RectangleDetectorOptions options;
  options.accuracy =
      search.highAccuracy ? platform::RectangleAccuracy::High : platform::RectangleAccuracy::Low;
  options.aspectRatio = search.aspectRatio;
  options.focalLength = search.focalLength;
  options.maxFeatureCount = std::max(1, search.maxCount);
  const auto detector = platform::createRectangleDetector(options);
  if (!detector) return {};
  // The detector answers with y up; hosts of still pictures think in rows from the top.
  const double height = static_cast<double>(image.height());
  const auto flip = [height](Point p) { return Point{p.x, height - p.y}; };
  std::vector<DetectedRectangle> found;
  for (const platform::RectangleFeature& f : detector->featuresInImage(image)) {
    DetectedRectangle r;
    r.topLeft = flip(f.topLeft);
    r.topRight = flip(f.topRight);
    r.bottomRight = flip(f.bottomRight);
    r.bottomLeft = flip(f.bottomLeft);
    const double minX = std::min({r.topLeft.x, r.topRight.x, r.bottomRight.x, r.bottomLeft.x});
    const double maxX = std::max({r.topLeft.x, r.topRight.x, r.bottomRight.x, r.bottomLeft.x});
    const double minY = std::min({r.topLeft.y, r.topRight.y, r.bottomRight.y, r.bottomLeft.y});
    const double maxY = std::max({r.topLeft.y, r.topRight.y, r.bottomRight.y, r.bottomLeft.y});
    r.bounds = Rect{{minX, minY}, {maxX - minX, maxY - minY}};
    found.push_back(r);
  }
  return found;
}

std::vector<DetectedCode> readCodesInImage(const Image& image,
                                           const std::vector<std::string>& types) {
  if (!image.hasBitmap()) return {};
  const double width = static_cast<double>(image.width());
  const double height = static_cast<double>(image.height());
  std::vector<DetectedCode> codes;
  for (const auto& object : platform::readCodes(image, types)) {
    const auto* code = dynamic_cast<const MetadataMachineReadableCodeObject*>(object.get());
    if (!code) continue;
    DetectedCode c;
    c.type = code->type;
    c.text = code->stringValue;
    for (size_t i = 0; i < c.corners.size() && i < code->corners.size(); ++i)
      c.corners[i] = Point{code->corners[i].x * width, code->corners[i].y * height};
    codes.push_back(std::move(c));
  }
  return codes;
}

}  // namespace kwq

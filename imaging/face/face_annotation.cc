// Drawing on images for visual checks: feature markers and text.

#include <algorithm>
#include <string>

#include "kwqimage/KWQImagingHelperFaces.h"
#include "platform/draw/image_context.h"
#include "platform/draw/text_draw.h"

namespace kwq {

namespace {

constexpr double kLineWidth = 3.0;
constexpr double kMarkerSide = 30.0;

Rect marker(Point centre) {
  return {centre.x - kMarkerSide / 2, centre.y - kMarkerSide / 2, kMarkerSide, kMarkerSide};
}

}  // namespace

Image drawFacialLocationsLeftEye(const Image& image, Point leftEye, Point rightEye, Point mouth,
                                 const Rect& faceBox) {
  if (image.isNull()) return {};
  const Size size = image.size();
  platform::ImageContext context(size);
  context.drawImage(image, {0.0, 0.0, size.width, size.height});
  const struct {
    Rect rect;
    Color color;
  } outlines[] = {{marker(leftEye), Color::redColor()},
                  {marker(rightEye), Color::blueColor()},
                  {marker(mouth), Color::greenColor()},
                  {faceBox, Color::yellowColor()}};
  for (const auto& o : outlines) {
    context.setStrokeColor(o.color);
    context.strokeRect(o.rect, kLineWidth);
  }
  return context.takeImage();
}

Image drawText(const Image& image, const std::string& text, Point point, Color color,
               int32_t fontSize) {
  if (image.isNull()) return {};
  const Size size = image.size();
  platform::ImageContext context(size);
  if (!context.isValid()) return {};
  context.drawImage(image, {0.0, 0.0, size.width, size.height});
  // The text box starts at the point and is as large as the whole image.
  const Rect box = Rect(point.x, point.y, size.width, size.height).integral();
  const Image layer =
      platform::renderTextLayer(context.pixelWidth(), context.pixelHeight(), text, box, color,
                                static_cast<double>(fontSize), /*baselineOffset=*/1.0);
  context.drawImage(layer, {0.0, 0.0, static_cast<double>(context.pixelWidth()),
                            static_cast<double>(context.pixelHeight())});
  return context.takeImage();
}

}  // namespace kwq

// Prints what the C++ library gives for image files, one JSON object a line, so the Python
// tests can check that the module returns the very same values. A host program: public
// headers and the shared library only.
//
//   kwq_py_reference FILE...

#include <cstdint>
#include <cstdio>
#include <string>

#include <kwqimage/KWQImage.h>

namespace {

// The image's shape and the sum of every pixel byte (row padding left out) times a weight
// that depends on the byte's position, modulo 2^64.
std::string digest(const kwq::Image& image) {
  if (image.isNull() || !image.hasBitmap()) return "null";
  uint64_t h = 0, i = 0;
  const size_t row = image.width() * kwq::bytesPerPixel(image.layout());
  const auto bytes = image.bytes();
  for (size_t y = 0; y < image.height(); ++y)
    for (size_t x = 0; x < row; ++x)
      h += bytes[y * image.bytesPerRow() + x] * ((++i * 2654435761ull) & 0xFFFFFFFFull);
  char text[96];
  std::snprintf(text, sizeof text, "%zux%zux%zu:%016llx", image.height(), image.width(),
                kwq::bytesPerPixel(image.layout()), static_cast<unsigned long long>(h));
  return text;
}

std::string quoted(const std::string& s) {
  std::string out = "\"";
  for (const char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    if (static_cast<unsigned char>(c) < 0x20) {
      char esc[8];
      std::snprintf(esc, sizeof esc, "\\u%04x", c);
      out += esc;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string numbers(std::initializer_list<double> values) {
  std::string out = "[";
  for (const double v : values) {
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", v);
    // Appended piece by piece: GCC 12 at -O3 warns (-Wrestrict, a false positive) on
    // `const char* + std::string&&`, which inserts at the front of the temporary.
    if (out.size() > 1) out += ',';
    out += text;
  }
  return out + "]";
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    kwq::Image image = kwq::Image::loadFile(argv[i]);
    if (image.isNull()) {
      std::printf("{\"path\": %s, \"error\": \"undecodable\"}\n", quoted(argv[i]).c_str());
      continue;
    }
    // As the kwq tool and the Python module's load_image do: colour files measured as BGRA.
    if (image.layout() != kwq::PixelLayout::Gray8)
      image = image.converted(kwq::PixelLayout::BGRA32Premultiplied);
    const int32_t bpp = static_cast<int32_t>(kwq::bytesPerPixel(image.layout()));
    const kwq::Rect box(10, 10, 200, 150);
    const kwq::KWQFaceFeatures face = kwq::getKWQFaceFeaturesWithAccuracy(image, 1);
    const auto rects = kwq::detectRectangles(image);
    const auto codes = kwq::readCodesInImage(image);
    std::string rect = "null";
    if (!rects.empty()) {
      const auto& r = rects[0];
      rect = numbers({r.topLeft.x, r.topLeft.y, r.topRight.x, r.topRight.y, r.bottomRight.x,
                      r.bottomRight.y, r.bottomLeft.x, r.bottomLeft.y});
    }
    std::string code = "null";
    if (!codes.empty() && codes[0].text) code = quoted(*codes[0].text);
    std::printf(
        "{\"path\": %s, \"focus\": %d, \"focus_score\": %d, \"focus_score_2_4_5\": %d, "
        "\"brightness\": %d, \"brightness_edge\": %d, \"brightness_rect\": %d, "
        "\"gray\": \"%s\", \"gray_halved\": \"%s\", \"scaled\": \"%s\", \"padded\": \"%s\", "
        "\"rotated_30\": \"%s\", \"rotated_degrees_30\": \"%s\", \"crop\": \"%s\", "
        "\"crop_view\": \"%s\", \"fit_200x100\": \"%s\", \"fill_200x100\": \"%s\", "
        "\"face_rect\": %s, \"face_features_found\": %d, \"rect\": %s, \"code\": %s}\n",
        quoted(argv[i]).c_str(), kwq::calculateFocus(image),
        kwq::calculateFocusScore(image, 1, 1, 10), kwq::calculateFocusScore(image, 2, 4, 5),
        kwq::calculateBrightness(image), kwq::calculateBrightness(image, bpp, 10),
        kwq::calculateBrightness(image, box), digest(kwq::makeGrayScale(image)).c_str(),
        digest(kwq::makeGrayScaleAndScale(image, 2)).c_str(),
        digest(kwq::scaleImage(image)).c_str(),
        [&] {
          uint8_t* raster = kwq::padImage(kwq::makeGrayScaleAndScale(image, 2));
          const std::string d =
              digest(kwq::Image::copyFromBytes(kwq::PixelLayout::Gray8, 640, 480, 640, raster));
          std::free(raster);
          return d;
        }()
            .c_str(),
        digest(kwq::rotatedByAngle(image, 30.0)).c_str(),
        digest(kwq::imageRotatedByDegrees(image, 30.0)).c_str(),
        digest(kwq::cropImageAtCoordinates(image, box, 20.0f)).c_str(),
        digest(kwq::cropImageAtCoordinates(image, box, 0.0f, kwq::Size{400, 300})).c_str(),
        digest(kwq::imageByScalingProportionallyToSize(image, kwq::Size{200, 100})).c_str(),
        digest(kwq::imageByScalingProportionallyToMinimumSize(image, kwq::Size{200, 100})).c_str(),
        numbers({face.faceRect.origin.x, face.faceRect.origin.y, face.faceRect.size.width,
                 face.faceRect.size.height})
            .c_str(),
        face.featuresFound, rect.c_str(), code.c_str());
  }
  return 0;
}

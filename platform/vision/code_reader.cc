// The code reader over zxing-cpp.
//
// zxing reads gray pictures through a strided view; a 420f/420v luma plane is exactly such a
// picture, so frames are handed over where they lie. Only the requested symbologies are
// searched: each reader zxing runs costs a pass over the binarised picture, and the linear
// readers it runs by default scan every row.

#define ZX_USE_UTF8

#include "platform/vision/code_reader.h"

#include <ZXing/ReadBarcode.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "platform/foundation/fault_fence.h"
#include "platform/foundation/log_format.h"
#include "platform/image/image_data.h"
#include "platform/vision/code_locator.h"

namespace kwq::platform {
namespace {

// Nothing smaller holds a readable QR (21 modules) or PDF417 symbol with its quiet zone.
constexpr size_t kMinSide = 16;
// zxing's linear pattern rows use 16-bit run lengths.
constexpr size_t kMaxSide = 65535;
// Reduced copies are searched for pictures whose short side is at least this; smaller ones
// would lose the modules of any symbol that fits them.
constexpr size_t kMinReducedSide = 480;
// A located region is resampled into at most this many pixels (a region larger than that has
// modules wide enough to lose some resolution).
constexpr double kMaxCropPixels = 0.6e6;
// The zxing formats among the requested type strings.
ZXing::BarcodeFormats requestedFormats(const std::vector<std::string>& types) {
  ZXing::BarcodeFormats formats;
  for (const std::string& type : types) {
    if (type == AVMetadataObjectTypePDF417Code) formats |= ZXing::BarcodeFormat::PDF417;
    if (type == AVMetadataObjectTypeQRCode) formats |= ZXing::BarcodeFormat::QRCode;
  }
  return formats;
}

ZXing::DecodeHints hintsFor(ZXing::BarcodeFormats formats, const CodeReaderSettings& s) {
  ZXing::DecodeHints hints;
  hints.setFormats(formats)
      .setTryHarder(s.tryHarder)
      .setTryRotate(s.tryRotate)
      .setTryDownscale(s.tryDownscale)
      .setIsPure(s.isPure)
      .setMaxNumberOfSymbols(static_cast<uint8_t>(std::clamp(s.maxNumberOfSymbols, 1, 255)))
      .setBinarizer(
          s.binarizer == CodeBinarizer::GlobalHistogram  ? ZXing::Binarizer::GlobalHistogram
          : s.binarizer == CodeBinarizer::FixedThreshold ? ZXing::Binarizer::FixedThreshold
                                                         : ZXing::Binarizer::LocalAverage);
  return hints;
}

// The symbol's text; none when it holds data that no string represents. zxing calls content
// with control characters other than tab, LF and CR binary, but the records on driving
// licences (AAMVA: LF, RS and CR between fields) and ISO 15434 messages (GS, RS, EOT) are text
// a host wants as a string. So 7-bit content without NUL is text whatever zxing calls it; it
// reads the same in UTF-8.
std::optional<std::string> textOf(const ZXing::Result& r) {
  switch (r.contentType()) {
    case ZXing::ContentType::Text:
    case ZXing::ContentType::GS1:
    case ZXing::ContentType::ISO15434:
      return r.text();
    case ZXing::ContentType::Binary:
    case ZXing::ContentType::Mixed: {
      const ZXing::ByteArray& bytes = r.bytes();
      if (std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b != 0 && b < 0x80; }))
        return std::string(bytes.begin(), bytes.end());
      break;
    }
    case ZXing::ContentType::UnknownECI:
      break;
  }
  return std::nullopt;
}

double unit(double v) {
  return std::clamp(v, 0.0, 1.0);
}

// A decoded symbol: its format, zxing's result and its corners in picture pixels (pixel
// centres), as zxing gives them: the symbol's own top left, top right, bottom right, bottom
// left.
struct Decoded {
  ZXing::Result result;
  std::array<cv::Point2d, 4> corners;
};

Decoded decoded(ZXing::Result r, const cv::Mat& toPicture = {}) {
  Decoded d{std::move(r), {}};
  for (size_t i = 0; i < 4; ++i) {
    const ZXing::PointI p = d.result.position()[i];
    cv::Point2d q(p.x, p.y);
    if (!toPicture.empty())
      q = {toPicture.at<double>(0, 0) * p.x + toPicture.at<double>(0, 1) * p.y +
               toPicture.at<double>(0, 2),
           toPicture.at<double>(1, 0) * p.x + toPicture.at<double>(1, 1) * p.y +
               toPicture.at<double>(1, 2)};
    d.corners[i] = q;
  }
  return d;
}

cv::Point2d middle(const Decoded& d) {
  return 0.25 * (d.corners[0] + d.corners[1] + d.corners[2] + d.corners[3]);
}

// Whether `p` lies inside the quadrilateral of `d`'s corners (either winding).
bool covers(const Decoded& d, cv::Point2d p) {
  int sign = 0;
  for (size_t i = 0; i < 4; ++i) {
    const cv::Point2d a = d.corners[i], b = d.corners[(i + 1) % 4];
    const double cross = (b.x - a.x) * (p.y - a.y) - (b.y - a.y) * (p.x - a.x);
    const int s = cross > 0 ? 1 : cross < 0 ? -1 : 0;
    if (s != 0 && sign != 0 && s != sign) return false;
    if (s != 0) sign = s;
  }
  return true;
}

// The same symbol found twice (by two searches or two overlapping regions).
bool sameSymbol(const Decoded& a, const Decoded& b) {
  return a.result.format() == b.result.format() && a.result.bytes() == b.result.bytes() &&
         (covers(a, middle(b)) || covers(b, middle(a)));
}

MetadataObjects toObjects(const std::vector<Decoded>& found, size_t width, size_t height,
                          MediaTime time, MediaTime duration) {
  MetadataObjects out;
  const double w = static_cast<double>(width), h = static_cast<double>(height);
  for (const Decoded& d : found) {
    const ZXing::Result& r = d.result;
    auto code = std::make_shared<MetadataMachineReadableCodeObject>();
    code->type = r.format() == ZXing::BarcodeFormat::QRCode ? AVMetadataObjectTypeQRCode
                                                            : AVMetadataObjectTypePDF417Code;
    // A code object's corners go bottom left, bottom right, top right, top left of the symbol
    // as printed, so that an upright symbol's rectangle from its third corner to its second
    // and first has a positive width and height.
    double minX = 1, minY = 1, maxX = 0, maxY = 0;
    for (size_t i : {3, 2, 1, 0}) {
      // Pixel centres to the frame's edges: pixel 0 spans 0 to 1 / width.
      const Point n{unit((d.corners[i].x + 0.5) / w), unit((d.corners[i].y + 0.5) / h)};
      code->corners.push_back(n);
      minX = std::min(minX, n.x);
      minY = std::min(minY, n.y);
      maxX = std::max(maxX, n.x);
      maxY = std::max(maxY, n.y);
    }
    code->bounds = Rect(minX, minY, maxX - minX, maxY - minY);
    code->stringValue = textOf(r);
    code->time = time;
    code->duration = duration;
    out.push_back(std::move(code));
  }
  return out;
}

// zxing addresses pixels with int arithmetic (row times row stride), so the whole plane must
// stay within INT32_MAX bytes.
bool sizeFits(size_t width, size_t height, size_t bytesPerRow) {
  return width >= kMinSide && height >= kMinSide && width <= kMaxSide && height <= kMaxSide &&
         bytesPerRow <= static_cast<size_t>(INT32_MAX) / height;
}

// The picture as gray: the view itself when it is gray, a converted copy otherwise.
cv::Mat grayOf(const ZXing::ImageView& view) {
  const int type = view.format() == ZXing::ImageFormat::Lum   ? CV_8UC1
                   : view.format() == ZXing::ImageFormat::RGB ? CV_8UC3
                                                              : CV_8UC4;
  const cv::Mat full(view.height(), view.width(), type, const_cast<uint8_t*>(view.data(0, 0)),
                     static_cast<size_t>(view.rowStride()));
  if (type == CV_8UC1) return full;
  cv::Mat gray;
  cv::cvtColor(full, gray,
               view.format() == ZXing::ImageFormat::RGB    ? cv::COLOR_RGB2GRAY
               : view.format() == ZXing::ImageFormat::RGBX ? cv::COLOR_RGBA2GRAY
                                                           : cv::COLOR_BGRA2GRAY);
  return gray;
}

// zxing's search, fenced (see fault_fence.h): a symbol that makes the decoder fault gives
// nothing, like one it cannot read.
ZXing::Results readFenced(const ZXing::ImageView& view, const ZXing::DecodeHints& hints) {
  ZXing::Results results;
  std::exception_ptr error;
  const bool finished = runFenced([&] {
    try {
      ZXing::Results found = ZXing::ReadBarcodes(view, hints);
      results = std::move(found);
    } catch (...) {
      error = std::current_exception();
    }
  });
  if (!finished) {
    logf("The code reader skipped a frame on which the PDF417 or QR decoder failed (%llu so far)",
         static_cast<unsigned long long>(fencedFaultCount()));
    return {};
  }
  if (error) std::rethrow_exception(error);
  return results;
}

ZXing::ImageView viewOf(const cv::Mat& gray) {
  return {gray.data, gray.cols, gray.rows, ZXing::ImageFormat::Lum, static_cast<int>(gray.step[0])};
}

// The region a decoded symbol covers, as the locator would give it, with room for its
// corners to be a few modules off.
BarRegion regionOf(const Decoded& d) {
  const auto& c = d.corners;
  const cv::Point2d across = 0.5 * (c[1] - c[0] + c[2] - c[3]);
  const cv::Point2d down = 0.5 * (c[3] - c[0] + c[2] - c[1]);
  BarRegion r;
  r.centre = middle(d);
  r.angle = std::atan2(across.y, across.x);
  // Folded into (-pi/2, pi/2]: a region's direction has no sign.
  if (r.angle > CV_PI / 2) r.angle -= CV_PI;
  if (r.angle <= -CV_PI / 2) r.angle += CV_PI;
  r.length = 1.1 * cv::norm(across);
  r.height = 1.1 * cv::norm(down);
  r.score = 1;
  return r;
}

// The crop of an outlined symbol holds this many modules of the picture around it as quiet
// zone.
constexpr double kCropQuietModules = 3.0;

// The symbol inside `outline` warped upright and read; its corners are the outline's.
std::optional<Decoded> readOutline(const cv::Mat& gray, const Pdf417Outline& outline,
                                   double modulePixels, const ZXing::DecodeHints& hints) {
  const auto& c = outline.corners;
  const double modulesAcross =
      0.5 * (cv::norm(c[1] - c[0]) + cv::norm(c[2] - c[3])) / outline.module;
  const double modulesDown = 0.5 * (cv::norm(c[3] - c[0]) + cv::norm(c[2] - c[1])) / outline.module;
  double scale = std::clamp(modulePixels, 1.0, 8.0);
  const double q = kCropQuietModules;
  if ((modulesAcross + 2 * q) * (modulesDown + 2 * q) * scale * scale > kMaxCropPixels)
    scale = std::sqrt(kMaxCropPixels / ((modulesAcross + 2 * q) * (modulesDown + 2 * q)));
  const cv::Size size(static_cast<int>(std::ceil((modulesAcross + 2 * q) * scale)),
                      static_cast<int>(std::ceil((modulesDown + 2 * q) * scale)));
  if (size.width < static_cast<int>(kMinSide) || size.height < static_cast<int>(kMinSide))
    return std::nullopt;
  // Crop pixel centres; the symbol's edges lie q modules in from the crop's edges.
  const double x0 = q * scale - 0.5, y0 = q * scale - 0.5;
  const double x1 = x0 + modulesAcross * scale, y1 = y0 + modulesDown * scale;
  const cv::Point2f cropCorners[4] = {{float(x0), float(y0)},
                                      {float(x1), float(y0)},
                                      {float(x1), float(y1)},
                                      {float(x0), float(y1)}};
  cv::Point2f pictureCorners[4];
  for (int i = 0; i < 4; ++i) pictureCorners[i] = cv::Point2f(c[static_cast<size_t>(i)]);
  const cv::Mat toPicture = cv::getPerspectiveTransform(cropCorners, pictureCorners);
  cv::Mat crop;
  cv::warpPerspective(gray, crop, toPicture, size, cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                      cv::BORDER_REPLICATE);
  for (ZXing::Result& r : readFenced(viewOf(crop), hints)) {
    if (!r.isValid()) continue;
    Decoded d{std::move(r), c};
    return d;
  }
  return std::nullopt;
}

// PDF417 symbols in the regions of bar texture: each region's symbol outlined on its start
// and stop patterns, warped upright and read on its own. A region without both patterns
// costs a few dozen sampled lines and no read. `patternsSeen` tells whether any region showed
// start or stop patterns at all.
std::vector<Decoded> readBarRegions(const cv::Mat& gray, const CodeReaderSettings& settings,
                                    bool& patternsSeen) {
  patternsSeen = false;
  std::vector<Decoded> found;
  ZXing::DecodeHints hints;
  hints.setFormats(ZXing::BarcodeFormat::PDF417).setTryHarder(false).setTryRotate(false);
  for (const BarRegion& region :
       locateBarRegions(gray, static_cast<size_t>(std::max(0, settings.maxLocatedRegions)))) {
    const cv::Point2d centre = region.centre;
    if (std::any_of(found.begin(), found.end(),
                    [&](const Decoded& d) { return covers(d, centre); }))
      continue;
    size_t hits = 0;
    const std::optional<Pdf417Outline> outline = outlinePdf417(gray, region, &hits);
    // Two: one line may read a pattern in print or a photograph by chance.
    patternsSeen = patternsSeen || hits >= 2;
    if (!outline) continue;
    std::optional<Decoded> d = readOutline(gray, *outline, settings.locatedModulePixels, hints);
    if (d && std::none_of(found.begin(), found.end(),
                          [&](const Decoded& e) { return sameSymbol(*d, e); }))
      found.push_back(std::move(*d));
  }
  return found;
}

// Reads `view`; no objects on any failure zxing reports by throwing (it rejects views it
// cannot use that way) and on OpenCV's failures.
MetadataObjects read(const ZXing::ImageView& view, ZXing::BarcodeFormats formats,
                     const CodeReaderSettings& settings, MediaTime time, MediaTime duration) {
  const size_t width = static_cast<size_t>(view.width()),
               height = static_cast<size_t>(view.height());
  try {
    std::vector<Decoded> found;
    cv::Mat gray;
    // PDF417 at any turn first: where that reads a symbol, the whole-picture search need not
    // look for PDF417 again, and the corners come from an upright read. Nor where no region
    // showed a start or stop pattern: zxing's search finds a PDF417 by those same patterns,
    // and on most frames (no code at all) it is the larger part of the cost.
    if (formats.testFlag(ZXing::BarcodeFormat::PDF417) && settings.maxLocatedRegions > 0) {
      gray = grayOf(view);
      bool patternsSeen = false;
      found = readBarRegions(gray, settings, patternsSeen);
      if (!found.empty() || !patternsSeen)
        formats = formats.testFlag(ZXing::BarcodeFormat::QRCode) ? ZXing::BarcodeFormat::QRCode
                                                                 : ZXing::BarcodeFormats{};
    }
    if (formats.empty()) return toObjects(found, width, height, time, duration);

    const ZXing::DecodeHints hints = hintsFor(formats, settings);
    ZXing::Results results = readFenced(view, hints);
    cv::Mat toPicture;
    // The retry is for frames where nothing was read at all.
    const bool retry = results.empty() && found.empty();
    if (retry && settings.retry == CodeRetry::GlobalHistogram) {
      results = readFenced(
          view, ZXing::DecodeHints(hints).setBinarizer(ZXing::Binarizer::GlobalHistogram));
    } else if (retry && settings.retry != CodeRetry::None &&
               std::min(width, height) >= kMinReducedSide) {
      const int k = settings.retry == CodeRetry::ReducedByThree ? 3 : 2;
      if (gray.empty()) gray = grayOf(view);
      cv::Mat small;
      cv::resize(gray, small, cv::Size(gray.cols / k, gray.rows / k), 0, 0, cv::INTER_AREA);
      results = readFenced(viewOf(small), ZXing::DecodeHints(hints).setTryDownscale(false));
      // A reduced pixel i covers full pixels k i to k i + k - 1: its middle is at k i + k / 2.
      toPicture = (cv::Mat_<double>(2, 3) << k, 0, 0.5 * (k - 1), 0, k, 0.5 * (k - 1));
    }
    for (ZXing::Result& r : results) {
      if (!r.isValid()) continue;
      Decoded d = decoded(std::move(r), toPicture);
      // zxing's PDF417 detector puts a turned symbol's top right corner on its top left's
      // row; the other three it measures. A turned symbol is near enough a parallelogram,
      // and where its start and stop patterns can be followed, its outline is better still.
      if (d.result.format() == ZXing::BarcodeFormat::PDF417) {
        d.corners[1] = d.corners[0] + d.corners[2] - d.corners[3];
        if (gray.empty()) gray = grayOf(view);
        // The same symbol: the outline's middle near zxing's (whose corners may be far off).
        const BarRegion region = regionOf(d);
        if (const auto outline = outlinePdf417(gray, region); outline)
          if (cv::norm(0.25 * (outline->corners[0] + outline->corners[1] + outline->corners[2] +
                               outline->corners[3]) -
                       region.centre) < 0.25 * region.length)
            d.corners = outline->corners;
      }
      if (std::none_of(found.begin(), found.end(),
                       [&](const Decoded& e) { return sameSymbol(d, e); }))
        found.push_back(std::move(d));
    }
    return toObjects(found, width, height, time, duration);
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace

MetadataObjects readCodes(const SampleBuffer& frame, const std::vector<std::string>& types) {
  return readCodes(frame, types, CodeReaderSettings{});
}

MetadataObjects readCodes(const SampleBuffer& frame, const std::vector<std::string>& types,
                          const CodeReaderSettings& settings) {
  const ZXing::BarcodeFormats formats = requestedFormats(types);
  if (formats.empty()) return {};
  const PixelBuffer& buffer = frame.imageBuffer();
  const uint32_t format = buffer.pixelFormat();
  const bool biPlanar = format == kPixelFormat420f || format == kPixelFormat420v;
  if (!biPlanar && format != kPixelFormatBGRA) return {};
  const size_t width = buffer.widthOfPlane(0), height = buffer.heightOfPlane(0);
  const size_t bytesPerRow = buffer.bytesPerRowOfPlane(0);
  const size_t pixelBytes = biPlanar ? 1 : 4;
  if (!sizeFits(width, height, bytesPerRow) || bytesPerRow / pixelBytes < width) return {};
  if (!buffer.lockBaseAddress(kPixelBufferLockReadOnly)) return {};
  MetadataObjects out;
  if (const uint8_t* base = buffer.baseAddressOfPlane(0)) {
    const ZXing::ImageView view(base, static_cast<int>(width), static_cast<int>(height),
                                biPlanar ? ZXing::ImageFormat::Lum : ZXing::ImageFormat::BGRX,
                                static_cast<int>(bytesPerRow));
    out = read(view, formats, settings, frame.presentationTimeStamp(), frame.duration());
  }
  buffer.unlockBaseAddress(kPixelBufferLockReadOnly);
  return out;
}

MetadataObjects readCodes(const Image& image, const std::vector<std::string>& types) {
  return readCodes(image, types, CodeReaderSettings{});
}

MetadataObjects readCodes(const Image& image, const std::vector<std::string>& types,
                          const CodeReaderSettings& settings) {
  const ZXing::BarcodeFormats formats = requestedFormats(types);
  if (formats.empty()) return {};
  const Bitmap* bitmap = ImageAccess::bitmap(image);
  if (!bitmap || !sizeFits(bitmap->width, bitmap->height, bitmap->bytesPerRow)) return {};
  ZXing::ImageFormat pixels = ZXing::ImageFormat::Lum;
  switch (bitmap->layout) {
    case PixelLayout::Gray8:
      break;
    case PixelLayout::RGB24:
      pixels = ZXing::ImageFormat::RGB;
      break;
    case PixelLayout::RGBA32:
      pixels = ZXing::ImageFormat::RGBX;
      break;
    case PixelLayout::BGRA32Premultiplied:
      pixels = ZXing::ImageFormat::BGRX;
      break;
  }
  const ZXing::ImageView view(bitmap->bytes.data(), static_cast<int>(bitmap->width),
                              static_cast<int>(bitmap->height), pixels,
                              static_cast<int>(bitmap->bytesPerRow));
  return read(view, formats, settings, MediaTime::invalid(), MediaTime::invalid());
}

}  // namespace kwq::platform

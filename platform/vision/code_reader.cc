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
// Nor longer than this across the bars: zxing's time grows with the crop, and a symbol that
// long has modules wide enough without enlarging.
constexpr double kMaxCropLength = 900;
// The lean measured in an upright crop: steps of half a degree up to four degrees either way.
constexpr double kSkewStepRadians = 0.5 * 3.14159265358979 / 180;
constexpr int kSkewSteps = 8;

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
      const Point n{unit(d.corners[i].x / w), unit(d.corners[i].y / h)};
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

// How far the bars of an upright crop still lean, in radians (positive: they lean left going
// down, so the region's direction must turn clockwise by that much). Found as the shear
// under which the columns' mean gray levels vary most: aligned bars make deep, narrow
// columns; leaning ones smear into each other.
double residualSkew(const cv::Mat& crop) {
  const int w = crop.cols, h = crop.rows;
  const int step = std::max(1, h / 32);  // rows sampled
  double bestScore = -1, best = 0;
  std::vector<double> sum(static_cast<size_t>(w) * 2), count(sum.size());
  for (int k = -kSkewSteps; k <= kSkewSteps; ++k) {
    const double t = std::tan(k * kSkewStepRadians);
    std::fill(sum.begin(), sum.end(), 0.0);
    std::fill(count.begin(), count.end(), 0.0);
    const double offset = t < 0 ? -t * (h - 1) : 0;  // keeps bins non-negative
    for (int y = 0; y < h; y += step) {
      const uint8_t* row = crop.ptr<uint8_t>(y);
      const double shift = offset + t * y;
      for (int x = 0; x < w; ++x) {
        const size_t bin = static_cast<size_t>(x + shift + 0.5);
        if (bin >= sum.size()) continue;
        sum[bin] += row[x];
        count[bin] += 1;
      }
    }
    double n = 0, m = 0, m2 = 0;
    const double rows = static_cast<double>((h + step - 1) / step);
    for (size_t i = 0; i < sum.size(); ++i) {
      if (count[i] < 0.6 * rows) continue;
      const double mean = sum[i] / count[i];
      n += 1, m += mean, m2 += mean * mean;
    }
    if (n < 8) continue;
    const double score = m2 / n - (m / n) * (m / n);
    if (score > bestScore) bestScore = score, best = k * kSkewStepRadians;
  }
  return best;
}

// PDF417 symbols in the regions of bar texture, each region resampled upright (or upside
// down, which zxing's detector reads as well) and read on its own.
std::vector<Decoded> readBarRegions(const cv::Mat& gray, const CodeReaderSettings& settings) {
  std::vector<Decoded> found;
  ZXing::DecodeHints hints;
  hints.setFormats(ZXing::BarcodeFormat::PDF417).setTryHarder(false).setTryRotate(false);
  for (const BarRegion& region :
       locateBarRegions(gray, static_cast<size_t>(std::max(0, settings.maxLocatedRegions)))) {
    const cv::Point2d centre = region.centre;
    if (std::any_of(found.begin(), found.end(),
                    [&](const Decoded& d) { return covers(d, centre); }))
      continue;
    BarRegion upright = region;
    cv::Mat toPicture, crop;
    // Twice: the region's direction is the mean of its cells', which the card's print, the
    // perspective and the cells at its edges pull by a degree or two; zxing's detector wants
    // the bars within about one degree of upright. The first crop measures what is left.
    for (int pass = 0; pass < 2; ++pass) {
      // The lean is measured at the picture's own resolution, the read made finer.
      const double scale =
          std::min({pass == 0 ? 1.0 : settings.locatedScale, kMaxCropLength / upright.length,
                    std::sqrt(kMaxCropPixels / (upright.length * upright.height))});
      toPicture = cropToPicture(upright, scale);
      const cv::Size size(static_cast<int>(std::ceil(upright.length * scale)),
                          static_cast<int>(std::ceil(upright.height * scale)));
      if (size.width < static_cast<int>(kMinSide) || size.height < static_cast<int>(kMinSide))
        break;
      cv::warpAffine(gray, crop, toPicture, size, cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                     cv::BORDER_REPLICATE);
      if (pass == 1) break;
      upright.angle += residualSkew(crop);
    }
    if (crop.empty()) continue;
    // The region's direction does not say which end is up: upside down, the crop is read
    // again turned half round (zxing's own turns would also try the quarter turns).
    ZXing::Results results = readFenced(viewOf(crop), hints);
    if (results.empty()) {
      cv::Mat turned;
      cv::rotate(crop, turned, cv::ROTATE_180);
      results = readFenced(viewOf(turned), hints);
      // Turned pixel (x, y) is crop pixel (w - 1 - x, h - 1 - y).
      const cv::Mat half =
          (cv::Mat_<double>(3, 3) << -1, 0, crop.cols - 1, 0, -1, crop.rows - 1, 0, 0, 1);
      cv::Mat full = cv::Mat::eye(3, 3, CV_64F);
      toPicture.copyTo(full(cv::Rect(0, 0, 3, 2)));
      const cv::Mat product = full * half;
      toPicture = product(cv::Rect(0, 0, 3, 2)).clone();
    }
    for (ZXing::Result& r : results) {
      if (!r.isValid()) continue;
      // Without its stop pattern in the crop zxing still decodes a symbol from its row
      // indicators, but leaves the right-hand corners unset: such a read is left to the
      // whole-picture search, which sees the whole symbol.
      const ZXing::Position& p = r.position();
      if (p[1] == p[2] || p[0] == p[3] || p[0] == p[1] || p[2] == p[3]) continue;
      Decoded d = decoded(std::move(r), toPicture);
      if (std::none_of(found.begin(), found.end(),
                       [&](const Decoded& e) { return sameSymbol(d, e); }))
        found.push_back(std::move(d));
    }
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
    // look for PDF417 again, and the corners come from an upright read.
    if (formats.testFlag(ZXing::BarcodeFormat::PDF417) && settings.maxLocatedRegions > 0) {
      gray = grayOf(view);
      found = readBarRegions(gray, settings);
      if (!found.empty())
        formats = formats.testFlag(ZXing::BarcodeFormat::QRCode) ? ZXing::BarcodeFormat::QRCode
                                                                 : ZXing::BarcodeFormats{};
    }
    if (formats.empty()) return toObjects(found, width, height, time, duration);

    const ZXing::DecodeHints hints = hintsFor(formats, settings);
    ZXing::Results results = readFenced(view, hints);
    cv::Mat toPicture;
    if (results.empty() && settings.retry == CodeRetry::GlobalHistogram) {
      results = readFenced(
          view, ZXing::DecodeHints(hints).setBinarizer(ZXing::Binarizer::GlobalHistogram));
    } else if (results.empty() && settings.retry != CodeRetry::None &&
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
      // row; the other three it measures. A turned symbol is near enough a parallelogram.
      if (d.result.format() == ZXing::BarcodeFormat::PDF417)
        d.corners[1] = d.corners[0] + d.corners[2] - d.corners[3];
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

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

namespace kwq::platform {
namespace {

// Nothing smaller holds a readable QR (21 modules) or PDF417 symbol with its quiet zone.
constexpr size_t kMinSide = 16;
// zxing's linear pattern rows use 16-bit run lengths.
constexpr size_t kMaxSide = 65535;
// Reduced copies are searched for pictures whose short side is at least this; smaller ones
// would lose the modules of any symbol that fits them.
constexpr size_t kMinReducedSide = 480;

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

MetadataObjects toObjects(const ZXing::Results& results, size_t width, size_t height,
                          MediaTime time, MediaTime duration) {
  MetadataObjects out;
  const double w = static_cast<double>(width), h = static_cast<double>(height);
  for (const ZXing::Result& r : results) {
    if (!r.isValid()) continue;
    auto code = std::make_shared<MetadataMachineReadableCodeObject>();
    code->type = r.format() == ZXing::BarcodeFormat::QRCode ? AVMetadataObjectTypeQRCode
                                                            : AVMetadataObjectTypePDF417Code;
    // zxing's position starts at the symbol's own top left and goes round clockwise.
    double minX = 1, minY = 1, maxX = 0, maxY = 0;
    for (const ZXing::PointI& p : r.position()) {
      const Point n{unit(p.x / w), unit(p.y / h)};
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

// The picture reduced by `factor` in block means, as gray.
cv::Mat reducedGray(const ZXing::ImageView& view, int factor) {
  const int type = view.format() == ZXing::ImageFormat::Lum   ? CV_8UC1
                   : view.format() == ZXing::ImageFormat::RGB ? CV_8UC3
                                                              : CV_8UC4;
  const cv::Mat full(view.height(), view.width(), type, const_cast<uint8_t*>(view.data(0, 0)),
                     static_cast<size_t>(view.rowStride()));
  cv::Mat gray = full;
  if (type != CV_8UC1)
    cv::cvtColor(full, gray,
                 view.format() == ZXing::ImageFormat::RGB    ? cv::COLOR_RGB2GRAY
                 : view.format() == ZXing::ImageFormat::RGBX ? cv::COLOR_RGBA2GRAY
                                                             : cv::COLOR_BGRA2GRAY);
  cv::Mat small;
  cv::resize(gray, small, cv::Size(view.width() / factor, view.height() / factor), 0, 0,
             cv::INTER_AREA);
  return small;
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

// Reads `view`; no objects on any failure zxing reports by throwing (it rejects views it
// cannot use that way) and on OpenCV's failures.
MetadataObjects read(const ZXing::ImageView& view, ZXing::BarcodeFormats formats,
                     const CodeReaderSettings& settings, MediaTime time, MediaTime duration) {
  const size_t width = static_cast<size_t>(view.width()),
               height = static_cast<size_t>(view.height());
  try {
    const ZXing::DecodeHints hints = hintsFor(formats, settings);
    ZXing::Results results = readFenced(view, hints);
    if (results.empty() && settings.retry == CodeRetry::GlobalHistogram) {
      results = readFenced(
          view, ZXing::DecodeHints(hints).setBinarizer(ZXing::Binarizer::GlobalHistogram));
    } else if (results.empty() && settings.retry != CodeRetry::None &&
               std::min(width, height) >= kMinReducedSide) {
      const int k = settings.retry == CodeRetry::ReducedByThree ? 3 : 2;
      const cv::Mat small = reducedGray(view, k);
      results = readFenced(
          {small.data, small.cols, small.rows, ZXing::ImageFormat::Lum, int(small.step[0])},
          ZXing::DecodeHints(hints).setTryDownscale(false));
      // A reduced pixel i covers full pixels k i to k i + k - 1: its middle is at k i + k / 2.
      for (ZXing::Result& r : results) {
        ZXing::Position p = r.position();
        for (ZXing::PointI& c : p) c = {c.x * k + k / 2, c.y * k + k / 2};
        r.setPosition(p);
      }
    }
    return toObjects(results, width, height, time, duration);
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

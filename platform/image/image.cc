#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "platform/image/image_data.h"
#include "platform/image/opencv_view.h"

namespace kwq {

size_t bytesPerPixel(PixelLayout layout) {
  switch (layout) {
    case PixelLayout::Gray8:
      return 1;
    case PixelLayout::RGB24:
      return 3;
    case PixelLayout::RGBA32:
    case PixelLayout::BGRA32Premultiplied:
      return 4;
  }
  return 1;
}

uint32_t bitmapInfo(PixelLayout layout) {
  switch (layout) {
    case PixelLayout::RGBA32:
      return kBitmapInfoAlphaLast;
    case PixelLayout::BGRA32Premultiplied:
      return kBitmapInfoBGRAPremultiplied;
    default:
      return kBitmapInfoNone;
  }
}

bool checkedMul(size_t a, size_t b, size_t* out) {
  return !__builtin_mul_overflow(a, b, out);
}

// Keeps a single allocation below this, so a corrupt size cannot exhaust memory.
static constexpr size_t kMaxBitmapBytes = size_t{1} << 34;

std::shared_ptr<Bitmap> allocateBitmap(PixelLayout layout, size_t width, size_t height,
                                       size_t bytesPerRow) {
  size_t row = 0, total = 0;
  if (width == 0 || height == 0) return nullptr;
  if (!checkedMul(width, bytesPerPixel(layout), &row) || bytesPerRow < row) return nullptr;
  if (!checkedMul(bytesPerRow, height, &total) || total > kMaxBitmapBytes) return nullptr;
  auto bitmap = std::make_shared<Bitmap>();
  bitmap->layout = layout;
  bitmap->width = width;
  bitmap->height = height;
  bitmap->bytesPerRow = bytesPerRow;
  bitmap->bytes.resize(total);
  return bitmap;
}

Image ImageAccess::make(std::shared_ptr<const Bitmap> bitmap, double scale,
                        ImageOrientation orientation) {
  if (!bitmap) return {};
  auto d = std::make_shared<Image::Data>();
  d->bitmap = std::move(bitmap);
  d->scale = scale;
  d->orientation = orientation;
  return Image(std::move(d));
}

Image ImageAccess::makeWithoutBitmap(Size pointSize) {
  auto d = std::make_shared<Image::Data>();
  d->pointSize = pointSize;
  return Image(std::move(d));
}

const Bitmap* ImageAccess::bitmap(const Image& image) {
  return image.d_ ? image.d_->bitmap.get() : nullptr;
}

Image Image::copyFromBytes(PixelLayout layout, size_t width, size_t height, size_t bytesPerRow,
                           const uint8_t* bytes) {
  if (!bytes) return {};
  auto bitmap = allocateBitmap(layout, width, height, bytesPerRow);
  if (!bitmap) return {};
  std::memcpy(bitmap->bytes.data(), bytes, bitmap->bytes.size());
  return ImageAccess::make(std::move(bitmap));
}

Image Image::fromBuffer(PixelLayout layout, size_t width, size_t height, size_t bytesPerRow,
                        std::vector<uint8_t> bytes) {
  size_t row = 0, total = 0;
  if (width == 0 || height == 0) return {};
  if (!checkedMul(width, bytesPerPixel(layout), &row) || bytesPerRow < row) return {};
  if (!checkedMul(bytesPerRow, height, &total) || bytes.size() != total) return {};
  auto bitmap = std::make_shared<Bitmap>();
  bitmap->layout = layout;
  bitmap->width = width;
  bitmap->height = height;
  bitmap->bytesPerRow = bytesPerRow;
  bitmap->bytes = std::move(bytes);
  return ImageAccess::make(std::move(bitmap));
}

BitmapBytes BitmapBytes::lend(const uint8_t* data, size_t size, std::function<void()> release) {
  BitmapBytes storage;
  storage.lent_ = data;
  storage.lentSize_ = size;
  storage.keeper_ = std::shared_ptr<void>(nullptr, [release = std::move(release)](void*) {
    if (release) release();
  });
  return storage;
}

Image Image::wrapBytes(PixelLayout layout, size_t width, size_t height, size_t bytesPerRow,
                       const uint8_t* bytes, std::function<void()> release) {
  size_t row = 0, total = 0;
  if (!bytes || width == 0 || height == 0) return {};
  if (!checkedMul(width, bytesPerPixel(layout), &row) || bytesPerRow < row) return {};
  if (!checkedMul(bytesPerRow, height, &total)) return {};
  try {
    auto bitmap = std::make_shared<Bitmap>();
    bitmap->layout = layout;
    bitmap->width = width;
    bitmap->height = height;
    bitmap->bytesPerRow = bytesPerRow;
    bitmap->bytes = BitmapBytes::lend(bytes, total, std::move(release));
    return ImageAccess::make(std::move(bitmap));
  } catch (const std::bad_alloc&) {
    return {};
  }
}

Image Image::filled(PixelLayout layout, size_t width, size_t height, const uint8_t* pixel) {
  const size_t bpp = bytesPerPixel(layout);
  size_t row = 0;
  if (!pixel || !checkedMul(width, bpp, &row)) return {};
  auto bitmap = allocateBitmap(layout, width, height, row);
  if (!bitmap) return {};
  uint8_t* out = bitmap->bytes.data();
  for (size_t i = 0, n = width * height; i < n; ++i, out += bpp) std::memcpy(out, pixel, bpp);
  return ImageAccess::make(std::move(bitmap));
}

Image Image::withoutBitmap(Size pointSize) {
  return ImageAccess::makeWithoutBitmap(pointSize);
}

static Image imageFromMat(const cv::Mat& decoded) {
  cv::Mat m;
  PixelLayout layout;
  switch (decoded.channels()) {
    case 1:
      layout = PixelLayout::Gray8;
      m = decoded;
      break;
    case 3:
      layout = PixelLayout::RGB24;
      cv::cvtColor(decoded, m, cv::COLOR_BGR2RGB);
      break;
    case 4:
      layout = PixelLayout::RGBA32;
      cv::cvtColor(decoded, m, cv::COLOR_BGRA2RGBA);
      break;
    default:
      return {};
  }
  if (m.depth() != CV_8U) return {};
  return Image::copyFromBytes(layout, static_cast<size_t>(m.cols), static_cast<size_t>(m.rows),
                              m.step[0], m.data);
}

Image Image::decode(const uint8_t* data, size_t length) {
  if (!data || length == 0 || length > static_cast<size_t>(INT32_MAX)) return {};
  try {
    const cv::Mat raw(1, static_cast<int>(length), CV_8U, const_cast<uint8_t*>(data));
    cv::Mat decoded = cv::imdecode(raw, cv::IMREAD_UNCHANGED);
    if (decoded.empty()) return {};
    if (decoded.depth() == CV_16U) decoded.convertTo(decoded, CV_8U, 1.0 / 257.0);
    if (decoded.channels() == 2) cv::cvtColor(decoded, decoded, cv::COLOR_GRAY2BGR);
    return imageFromMat(decoded);
  } catch (const cv::Exception&) {
    return {};
  }
}

Image Image::loadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return {};
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                   std::istreambuf_iterator<char>());
  return decode(bytes.data(), bytes.size());
}

bool Image::hasBitmap() const {
  return d_ && d_->bitmap;
}
size_t Image::width() const {
  return hasBitmap() ? d_->bitmap->width : 0;
}
size_t Image::height() const {
  return hasBitmap() ? d_->bitmap->height : 0;
}

Size Image::size() const {
  if (!d_) return {};
  if (!d_->bitmap) return d_->pointSize;
  const double s = d_->scale > 0 ? d_->scale : 1.0;
  const double w = static_cast<double>(d_->bitmap->width) / s;
  const double h = static_cast<double>(d_->bitmap->height) / s;
  switch (d_->orientation) {
    case ImageOrientation::Left:
    case ImageOrientation::Right:
    case ImageOrientation::LeftMirrored:
    case ImageOrientation::RightMirrored:
      return {h, w};
    default:
      return {w, h};
  }
}

double Image::scale() const {
  return d_ ? d_->scale : 1.0;
}
ImageOrientation Image::orientation() const {
  return d_ ? d_->orientation : ImageOrientation::Up;
}
size_t Image::bitsPerComponent() const {
  return hasBitmap() ? 8 : 0;
}
size_t Image::bitsPerPixel() const {
  return hasBitmap() ? 8 * bytesPerPixel(d_->bitmap->layout) : 0;
}
size_t Image::bytesPerRow() const {
  return hasBitmap() ? d_->bitmap->bytesPerRow : 0;
}
uint32_t Image::bitmapInfo() const {
  return hasBitmap() ? kwq::bitmapInfo(d_->bitmap->layout) : kBitmapInfoNone;
}
PixelLayout Image::layout() const {
  return hasBitmap() ? d_->bitmap->layout : PixelLayout::Gray8;
}

ColorSpaceModel Image::colorSpaceModel() const {
  if (!hasBitmap()) return ColorSpaceModel::Unknown;
  return d_->bitmap->layout == PixelLayout::Gray8 ? ColorSpaceModel::Monochrome
                                                  : ColorSpaceModel::RGB;
}

std::span<const uint8_t> Image::bytes() const {
  if (!hasBitmap()) return {};
  return {d_->bitmap->bytes.data(), d_->bitmap->bytes.size()};
}

std::vector<uint8_t> Image::copyData() const {
  const auto b = bytes();
  return {b.begin(), b.end()};
}

Image Image::withScale(double scale, ImageOrientation orientation) const {
  if (!d_) return {};
  auto d = std::make_shared<Data>(*d_);
  d->scale = scale;
  d->orientation = orientation;
  return Image(std::move(d));
}

Image Image::converted(PixelLayout target) const {
  const Bitmap* src = ImageAccess::bitmap(*this);
  if (!src) return {};
  if (src->layout == target) return *this;
  try {
    const cv::Mat in = platform::matView(*src);
    cv::Mat out;
    platform::convertLayout(in, src->layout, out, target);
    auto bitmap =
        allocateBitmap(target, src->width, src->height, src->width * bytesPerPixel(target));
    if (!bitmap) return {};
    cv::Mat dst = platform::matView(*bitmap);
    out.copyTo(dst);
    return ImageAccess::make(std::move(bitmap), d_->scale, d_->orientation);
  } catch (const cv::Exception&) {
    return {};
  }
}

bool Image::sharesBitmapWith(const Image& other) const {
  return hasBitmap() && other.hasBitmap() && d_->bitmap == other.d_->bitmap;
}

std::string Image::description() const {
  if (!d_) return "(null)";
  char buf[96];
  const Size s = size();
  std::snprintf(buf, sizeof buf, "<KWQImage %p {%g, %g}>", static_cast<const void*>(d_.get()),
                s.width, s.height);
  return buf;
}

}  // namespace kwq

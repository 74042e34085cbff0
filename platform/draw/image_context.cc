#include "platform/draw/image_context.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "platform/draw/exact_paths.h"
#include "platform/image/image_data.h"
#include "platform/image/opencv_view.h"

namespace kwq::platform {
namespace {

struct GState {
  AffineTransform ctm;
  Color fill = Color::blackColor();
  Color stroke = Color::blackColor();
};

double unit(double v) {
  return std::isnan(v) ? 0.0 : std::clamp(v, 0.0, 1.0);
}

bool finite(const Rect& r) {
  return std::isfinite(r.origin.x) && std::isfinite(r.origin.y) && std::isfinite(r.size.width) &&
         std::isfinite(r.size.height);
}

// A transform Cairo accepts: finite and invertible. Anything else would put the Cairo context
// into a permanent error state, where the platform's context merely draws nothing.
bool usable(const AffineTransform& t) {
  const double det = t.a * t.d - t.b * t.c;
  return std::isfinite(t.a) && std::isfinite(t.b) && std::isfinite(t.c) && std::isfinite(t.d) &&
         std::isfinite(t.tx) && std::isfinite(t.ty) && std::isfinite(det) && det != 0.0;
}

cairo_matrix_t toCairo(const AffineTransform& t) {
  cairo_matrix_t m;
  cairo_matrix_init(&m, t.a, t.b, t.c, t.d, t.tx, t.ty);
  return m;
}

// Maps a point of the upright (displayed) picture, `w` x `h` displayed pixels, to the stored
// bitmap of W x H pixels, for each platform orientation.
AffineTransform displayedToStored(ImageOrientation o, double W, double H) {
  using O = ImageOrientation;
  switch (o) {
    case O::Up:
      return {1, 0, 0, 1, 0, 0};
    case O::Down:
      return {-1, 0, 0, -1, W, H};
    case O::Left:  // stored a quarter-turn clockwise from upright: x = W - v, y = u
      return {0, 1, -1, 0, W, 0};
    case O::Right:  // x = v, y = H - u
      return {0, -1, 1, 0, 0, H};
    case O::UpMirrored:
      return {-1, 0, 0, 1, W, 0};
    case O::DownMirrored:
      return {1, 0, 0, -1, 0, H};
    case O::LeftMirrored:  // transposed
      return {0, 1, 1, 0, 0, 0};
    case O::RightMirrored:
      return {0, -1, -1, 0, W, H};
  }
  return {};
}

bool swapsSides(ImageOrientation o) {
  return o == ImageOrientation::Left || o == ImageOrientation::Right ||
         o == ImageOrientation::LeftMirrored || o == ImageOrientation::RightMirrored;
}

bool isInteger(double v) {
  return std::floor(v) == v;
}

// The bitmap as premultiplied BGRA with a row stride Cairo accepts; null without a bitmap.
Image asCairoSource(const Image& image) {
  Image bgra = image.converted(PixelLayout::BGRA32Premultiplied);
  if (bgra.isNull() || bgra.bytesPerRow() % 4 == 0) return bgra;
  const Bitmap* b = ImageAccess::bitmap(bgra);
  auto packed = allocateBitmap(b->layout, b->width, b->height, b->width * 4);
  if (!packed) return {};
  for (size_t y = 0; y < b->height; ++y)
    std::memcpy(packed->bytes.data() + y * b->width * 4, b->bytes.data() + y * b->bytesPerRow,
                b->width * 4);
  return ImageAccess::make(std::move(packed));
}

}  // namespace

struct ImageContext::Impl {
  std::shared_ptr<Bitmap> bitmap;
  cairo_surface_t* surface = nullptr;
  cairo_t* cr = nullptr;
  GState state;
  std::vector<GState> stack;
  bool pristine = true;  // nothing drawn yet: the whole canvas is transparent

  ~Impl() { release(); }
  void release() {
    if (cr) cairo_destroy(cr);
    if (surface) {
      cairo_surface_finish(surface);
      cairo_surface_destroy(surface);
    }
    cr = nullptr;
    surface = nullptr;
  }

  // Applies the current transform to Cairo; false when nothing can be drawn under it.
  bool applyTransform() {
    if (!usable(state.ctm)) return false;
    const cairo_matrix_t m = toCairo(state.ctm);
    cairo_set_matrix(cr, &m);
    return true;
  }

  void paint(const Image& image, const Rect& rect, const AffineTransform& userToBitmap);
  bool exactResize(const Image& image, const Rect& rect);
};

size_t ImageContext::pixelExtent(double value) {
  if (!std::isfinite(value) || value <= 0.0) return 0;
  const double nearest = std::round(value);
  const double n = std::abs(value - nearest) <= 1e-6 ? nearest : std::ceil(value);
  if (n < 1.0 || n > static_cast<double>(kMaxSide)) return 0;
  return static_cast<size_t>(n);
}

ImageContext::ImageContext(Size size) : d_(std::make_unique<Impl>()) {
  const size_t w = pixelExtent(size.width), h = pixelExtent(size.height);
  if (w == 0 || h == 0) return;
  auto bitmap = allocateBitmap(PixelLayout::BGRA32Premultiplied, w, h, w * 4);
  if (!bitmap) return;
  // Cairo's ARGB32 is premultiplied and native-endian: B, G, R, A bytes on this machine.
  const int stride = cairo_format_stride_for_width(CAIRO_FORMAT_ARGB32, static_cast<int>(w));
  if (stride != static_cast<int>(w * 4)) return;
  cairo_surface_t* surface = cairo_image_surface_create_for_data(
      bitmap->bytes.data(), CAIRO_FORMAT_ARGB32, static_cast<int>(w), static_cast<int>(h), stride);
  if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) {
    cairo_surface_destroy(surface);
    return;
  }
  cairo_t* cr = cairo_create(surface);
  if (cairo_status(cr) != CAIRO_STATUS_SUCCESS) {
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
    return;
  }
  d_->bitmap = std::move(bitmap);
  d_->surface = surface;
  d_->cr = cr;
}

ImageContext::~ImageContext() = default;

bool ImageContext::isValid() const {
  return d_->cr != nullptr;
}
size_t ImageContext::pixelWidth() const {
  return isValid() ? d_->bitmap->width : 0;
}
size_t ImageContext::pixelHeight() const {
  return isValid() ? d_->bitmap->height : 0;
}

void ImageContext::translate(double tx, double ty) {
  d_->state.ctm = d_->state.ctm.translated(tx, ty);
}
void ImageContext::rotate(double radians) {
  d_->state.ctm = d_->state.ctm.rotated(radians);
}
void ImageContext::scale(double sx, double sy) {
  d_->state.ctm = d_->state.ctm.scaled(sx, sy);
}
AffineTransform ImageContext::transform() const {
  return d_->state.ctm;
}
void ImageContext::saveState() {
  d_->stack.push_back(d_->state);
}
void ImageContext::restoreState() {
  if (d_->stack.empty()) return;
  d_->state = d_->stack.back();
  d_->stack.pop_back();
}

void ImageContext::setFillColor(const Color& color) {
  d_->state.fill = color;
}
void ImageContext::setStrokeColor(const Color& color) {
  d_->state.stroke = color;
}

void ImageContext::Impl::paint(const Image& image, const Rect& rect,
                               const AffineTransform& userToBitmap) {
  if (!usable(userToBitmap) || !applyTransform()) return;
  const Image source = asCairoSource(image);
  if (source.isNull()) return;
  const Bitmap* b = ImageAccess::bitmap(source);
  // Cairo only reads a source surface; the const_cast never leads to a write.
  cairo_surface_t* s = cairo_image_surface_create_for_data(
      const_cast<uint8_t*>(b->bytes.data()), CAIRO_FORMAT_ARGB32, static_cast<int>(b->width),
      static_cast<int>(b->height), static_cast<int>(b->bytesPerRow));
  if (cairo_surface_status(s) == CAIRO_STATUS_SUCCESS) {
    cairo_pattern_t* pattern = cairo_pattern_create_for_surface(s);
    const cairo_matrix_t m = toCairo(userToBitmap);
    cairo_pattern_set_matrix(pattern, &m);
    cairo_pattern_set_extend(pattern, CAIRO_EXTEND_PAD);
    cairo_pattern_set_filter(pattern, CAIRO_FILTER_BILINEAR);
    cairo_set_source(cr, pattern);
    cairo_new_path(cr);
    cairo_rectangle(cr, rect.origin.x, rect.origin.y, rect.size.width, rect.size.height);
    cairo_fill(cr);
    cairo_set_source_rgba(cr, 0, 0, 0, 1);  // drops Cairo's reference to the pattern
    cairo_pattern_destroy(pattern);
    pristine = false;
  }
  // Finishing detaches the surface from our bytes before `source` goes away.
  cairo_surface_finish(s);
  cairo_surface_destroy(s);
}

// Onto an untouched canvas, without transform, into whole pixels, an upright bitmap resamples
// to what bilinear drawing gives (the same sample positions and edge handling), so OpenCV can
// write the pixels directly.
bool ImageContext::Impl::exactResize(const Image& image, const Rect& rect) {
  if (!exactShortcutsEnabled() || !pristine || !(state.ctm == AffineTransform::identity()))
    return false;
  if (image.orientation() != ImageOrientation::Up) return false;
  const double x = rect.origin.x, y = rect.origin.y, w = rect.size.width, h = rect.size.height;
  if (!isInteger(x) || !isInteger(y) || !isInteger(w) || !isInteger(h)) return false;
  if (x < 0 || y < 0 || w < 1 || h < 1 || x + w > static_cast<double>(bitmap->width) ||
      y + h > static_cast<double>(bitmap->height))
    return false;
  const Image source = image.converted(PixelLayout::BGRA32Premultiplied);
  if (source.isNull()) return false;
  try {
    const cv::Mat in = matView(*ImageAccess::bitmap(source));
    cairo_surface_flush(surface);
    cv::Mat canvas = matView(*bitmap);
    cv::Mat roi = canvas(cv::Rect(static_cast<int>(x), static_cast<int>(y), static_cast<int>(w),
                                  static_cast<int>(h)));
    if (roi.size() == in.size())
      in.copyTo(roi);
    else
      cv::resize(in, roi, roi.size(), 0, 0, cv::INTER_LINEAR);
    cairo_surface_mark_dirty(surface);
  } catch (const cv::Exception&) {
    return false;
  }
  pristine = false;
  return true;
}

void ImageContext::drawImage(const Image& image, const Rect& rect) {
  if (!isValid() || !image.hasBitmap() || !finite(rect)) return;
  if (rect.size.width == 0.0 || rect.size.height == 0.0) return;
  if (d_->exactResize(image, rect)) return;
  const double W = static_cast<double>(image.width()), H = static_cast<double>(image.height());
  const ImageOrientation o = image.orientation();
  const double dw = swapsSides(o) ? H : W, dh = swapsSides(o) ? W : H;
  // user point -> displayed picture -> stored bitmap
  const AffineTransform toDisplayed{dw / rect.size.width,
                                    0,
                                    0,
                                    dh / rect.size.height,
                                    -rect.origin.x * dw / rect.size.width,
                                    -rect.origin.y * dh / rect.size.height};
  d_->paint(image, rect, toDisplayed.concat(displayedToStored(o, W, H)));
}

void ImageContext::drawBitmap(const Image& image, const Rect& rect) {
  if (!isValid() || !image.hasBitmap() || !finite(rect)) return;
  if (rect.size.width == 0.0 || rect.size.height == 0.0) return;
  const double W = static_cast<double>(image.width()), H = static_cast<double>(image.height());
  // x = (px - rx) W / rw; y = (ry + rh - py) H / rh
  const AffineTransform toBitmap{W / rect.size.width,
                                 0,
                                 0,
                                 -H / rect.size.height,
                                 -rect.origin.x * W / rect.size.width,
                                 (rect.origin.y + rect.size.height) * H / rect.size.height};
  d_->paint(image, rect, toBitmap);
}

void ImageContext::fillRect(const Rect& rect) {
  if (!isValid() || !finite(rect) || !d_->applyTransform()) return;
  const Color& c = d_->state.fill;
  cairo_set_source_rgba(d_->cr, unit(c.red), unit(c.green), unit(c.blue), unit(c.alpha));
  cairo_new_path(d_->cr);
  cairo_rectangle(d_->cr, rect.origin.x, rect.origin.y, rect.size.width, rect.size.height);
  cairo_fill(d_->cr);
  d_->pristine = false;
}

void ImageContext::strokeRect(const Rect& rect, double lineWidth) {
  if (!isValid() || !finite(rect) || !std::isfinite(lineWidth) || lineWidth <= 0.0 ||
      !d_->applyTransform())
    return;
  const Color& c = d_->state.stroke;
  cairo_set_source_rgba(d_->cr, unit(c.red), unit(c.green), unit(c.blue), unit(c.alpha));
  cairo_set_line_width(d_->cr, lineWidth);
  cairo_set_line_join(d_->cr, CAIRO_LINE_JOIN_MITER);
  cairo_new_path(d_->cr);
  cairo_rectangle(d_->cr, rect.origin.x, rect.origin.y, rect.size.width, rect.size.height);
  cairo_stroke(d_->cr);
  d_->pristine = false;
}

Image ImageContext::takeImage() {
  if (!isValid()) return {};
  cairo_surface_flush(d_->surface);
  d_->release();
  return ImageAccess::make(std::move(d_->bitmap));
}

}  // namespace kwq::platform

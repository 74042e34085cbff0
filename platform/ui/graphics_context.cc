#include "kwqimage/GraphicsContext.h"

#include <cairo.h>

#include <cmath>
#include <new>
#include <vector>

#include "platform/draw/image_context.h"
#include "platform/ui/renderer.h"

namespace kwq {

struct GraphicsContext::Impl {
  Size size;
  double scale = 1.0;
  size_t width = 0, height = 0;
  std::vector<uint8_t> bytes;
  cairo_surface_t* surface = nullptr;
  cairo_t* cr = nullptr;
  Color fill = Color::blackColor();
  Color stroke = Color::blackColor();
  double lineWidth = 1.0;

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
  void fillCurrent() {
    platform::setSourceColor(cr, fill);
    cairo_set_fill_rule(cr, CAIRO_FILL_RULE_WINDING);
    cairo_fill(cr);
  }
  void strokeCurrent() {
    platform::setSourceColor(cr, stroke);
    cairo_set_line_width(cr, lineWidth);
    cairo_stroke(cr);
  }
  // Adds an ellipse inscribed in `r`; false when `r` cannot give one.
  bool ellipse(const Rect& r) {
    if (r.isNull() || !std::isfinite(r.width()) || !std::isfinite(r.height()) ||
        !std::isfinite(r.minX()) || !std::isfinite(r.minY()) || r.width() <= 0 || r.height() <= 0)
      return false;
    cairo_save(cr);
    cairo_translate(cr, r.midX(), r.midY());
    cairo_scale(cr, r.width() / 2, r.height() / 2);
    cairo_new_sub_path(cr);
    cairo_arc(cr, 0, 0, 1, 0, 2 * M_PI);
    cairo_close_path(cr);
    cairo_restore(cr);  // the path keeps its shape; the line width is not squashed
    return true;
  }
  bool rect(const Rect& r) {
    if (r.isNull() || !std::isfinite(r.minX()) || !std::isfinite(r.minY()) ||
        !std::isfinite(r.width()) || !std::isfinite(r.height()))
      return false;
    cairo_rectangle(cr, r.minX(), r.minY(), r.width(), r.height());
    return true;
  }
};

GraphicsContext::GraphicsContext(Size size, double scale) : d_(std::make_unique<Impl>()) {
  if (!(scale > 0.0) || !std::isfinite(scale)) return;
  const size_t w = platform::ImageContext::pixelExtent(size.width * scale);
  const size_t h = platform::ImageContext::pixelExtent(size.height * scale);
  if (w == 0 || h == 0) return;
  try {
    d_->bytes.resize(w * h * 4);
  } catch (const std::bad_alloc&) {
    return;
  }
  d_->surface = cairo_image_surface_create_for_data(d_->bytes.data(), CAIRO_FORMAT_ARGB32,
                                                    static_cast<int>(w), static_cast<int>(h),
                                                    static_cast<int>(w * 4));
  d_->cr = cairo_create(d_->surface);
  if (cairo_status(d_->cr) != CAIRO_STATUS_SUCCESS) {
    d_->release();
    return;
  }
  cairo_scale(d_->cr, scale, scale);
  d_->size = size;
  d_->scale = scale;
  d_->width = w;
  d_->height = h;
}

GraphicsContext::~GraphicsContext() = default;

bool GraphicsContext::isValid() const {
  return d_->cr != nullptr;
}

Size GraphicsContext::size() const {
  return d_->size;
}

void GraphicsContext::setFillColor(const Color& color) {
  d_->fill = color;
}

void GraphicsContext::setStrokeColor(const Color& color) {
  d_->stroke = color;
}

void GraphicsContext::setLineWidth(double width) {
  if (width >= 0.0 && std::isfinite(width)) d_->lineWidth = width;
}

void GraphicsContext::fillRect(const Rect& rect) {
  if (d_->cr && d_->rect(rect)) d_->fillCurrent();
}

void GraphicsContext::strokeRect(const Rect& rect) {
  if (d_->cr && d_->rect(rect)) d_->strokeCurrent();
}

void GraphicsContext::fillEllipseInRect(const Rect& rect) {
  if (d_->cr && d_->ellipse(rect)) d_->fillCurrent();
}

void GraphicsContext::strokeEllipseInRect(const Rect& rect) {
  if (d_->cr && d_->ellipse(rect)) d_->strokeCurrent();
}

void GraphicsContext::fillPath(const Path& path) {
  if (!d_->cr) return;
  platform::appendPath(d_->cr, path);
  d_->fillCurrent();
}

void GraphicsContext::strokePath(const Path& path) {
  if (!d_->cr) return;
  platform::appendPath(d_->cr, path);
  d_->strokeCurrent();
}

Image GraphicsContext::takeImage() {
  if (!d_->cr) return {};
  d_->release();
  Image image = Image::fromBuffer(PixelLayout::BGRA32Premultiplied, d_->width, d_->height,
                                  d_->width * 4, std::move(d_->bytes));
  return d_->scale == 1.0 ? image : image.withScale(d_->scale, ImageOrientation::Up);
}

}  // namespace kwq

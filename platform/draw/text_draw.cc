#include "platform/draw/text_draw.h"

#include <cairo.h>
#include <glib.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "platform/draw/cairo_handles.h"
#include "platform/draw/image_context.h"
#include "platform/image/image_data.h"

namespace kwq::platform {
namespace {

double unit(double v) {
  return std::isnan(v) ? 0.0 : std::clamp(v, 0.0, 1.0);
}

// Pango measures in 1/1024 pixel in an int; keep every length well inside that range.
int pangoUnits(double pixels) {
  const double limit = static_cast<double>(ImageContext::kMaxSide) * 4.0;
  return static_cast<int>(std::lround(std::clamp(pixels, -limit, limit) * PANGO_SCALE));
}

using Surface = platform::CairoSurface;
using Cairo = platform::CairoContext;
using Font = platform::PangoFont;
using Attributes = platform::PangoAttributes;
using Layout = platform::PangoLayoutHandle;

}  // namespace

Image renderTextLayer(size_t width, size_t height, std::string_view text, const Rect& box,
                      const Color& color, double fontSize, double baselineOffset) {
  if (width == 0 || height == 0 || width > ImageContext::kMaxSide ||
      height > ImageContext::kMaxSide)
    return {};
  auto bitmap = allocateBitmap(PixelLayout::BGRA32Premultiplied, width, height, width * 4);
  if (!bitmap) return {};
  const bool drawable = !text.empty() && std::isfinite(fontSize) && fontSize > 0.0 &&
                        !box.isEmpty() && std::isfinite(box.origin.x) &&
                        std::isfinite(box.origin.y) && std::isfinite(box.size.width) &&
                        std::isfinite(box.size.height);
  // A box starting this far outside the canvas cannot bring any text onto it.
  const double far = static_cast<double>(ImageContext::kMaxSide) * 4.0;
  const Rect r = box.standardized();
  if (!drawable || std::abs(r.origin.x) > far || std::abs(r.origin.y) > far)
    return ImageAccess::make(std::move(bitmap));

  const int stride = cairo_format_stride_for_width(CAIRO_FORMAT_ARGB32, static_cast<int>(width));
  if (stride != static_cast<int>(width * 4)) return {};
  {
    Surface surface(cairo_image_surface_create_for_data(bitmap->bytes.data(), CAIRO_FORMAT_ARGB32,
                                                        static_cast<int>(width),
                                                        static_cast<int>(height), stride));
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return {};
    Cairo cr(cairo_create(surface.get()));
    if (cairo_status(cr.get()) != CAIRO_STATUS_SUCCESS) return {};

    // Gray antialiasing: subpixel fringes would colour a text of one colour.
    cairo_font_options_t* options = cairo_font_options_create();
    cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY);
    cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_OFF);

    Layout layout(pango_cairo_create_layout(cr.get()));
    pango_cairo_context_set_font_options(pango_layout_get_context(layout.get()), options);
    pango_layout_context_changed(layout.get());
    cairo_font_options_destroy(options);

    Font font(pango_font_description_from_string("Sans Bold"));
    pango_font_description_set_absolute_size(font.get(),
                                             std::min(fontSize, kMaxTextSize) * PANGO_SCALE);
    pango_layout_set_font_description(layout.get(), font.get());
    pango_layout_set_width(layout.get(), pangoUnits(box.width()));
    pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);

    // Pango takes only valid UTF-8 and stops at a NUL byte; repair what it would refuse.
    gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    pango_layout_set_text(layout.get(), valid, -1);
    g_free(valid);

    Attributes attributes(pango_attr_list_new());
    pango_attr_list_insert(attributes.get(), pango_attr_rise_new(pangoUnits(baselineOffset)));
    pango_layout_set_attributes(layout.get(), attributes.get());

    cairo_rectangle(cr.get(), r.origin.x, r.origin.y, r.size.width, r.size.height);
    cairo_clip(cr.get());
    cairo_set_source_rgba(cr.get(), unit(color.red), unit(color.green), unit(color.blue),
                          unit(color.alpha));
    cairo_move_to(cr.get(), r.origin.x, r.origin.y);
    pango_cairo_show_layout(cr.get(), layout.get());
    cairo_surface_flush(surface.get());
    cairo_surface_finish(surface.get());
  }
  return ImageAccess::make(std::move(bitmap));
}

}  // namespace kwq::platform

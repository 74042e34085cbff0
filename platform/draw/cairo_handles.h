#pragma once

// Owning handles for the Cairo and Pango objects the drawing code makes, so every early return
// releases them.

#include <cairo.h>
#include <glib-object.h>
#include <pango/pangocairo.h>

#include <memory>

namespace kwq::platform {

template <typename T, void (*Free)(T*)>
struct CairoDeleter {
  void operator()(T* p) const { Free(p); }
};
inline void unrefPangoLayout(PangoLayout* layout) {
  g_object_unref(layout);
}

using CairoSurface =
    std::unique_ptr<cairo_surface_t, CairoDeleter<cairo_surface_t, cairo_surface_destroy>>;
using CairoContext = std::unique_ptr<cairo_t, CairoDeleter<cairo_t, cairo_destroy>>;
using PangoFont = std::unique_ptr<PangoFontDescription,
                                  CairoDeleter<PangoFontDescription, pango_font_description_free>>;
using PangoAttributes =
    std::unique_ptr<PangoAttrList, CairoDeleter<PangoAttrList, pango_attr_list_unref>>;
using PangoLayoutHandle = std::unique_ptr<PangoLayout, CairoDeleter<PangoLayout, unrefPangoLayout>>;

}  // namespace kwq::platform

#include "platform/ui/renderer.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <new>
#include <vector>

#include "kwqimage/CaptureSession.h"
#include "kwqimage/Render.h"
#include "platform/draw/image_context.h"
#include "platform/image/frame_blit.h"
#include "platform/media/capture_internal.h"
#include "platform/ui/video_gravity.h"

namespace kwq::platform {
namespace {

// Deeper trees are cut off there rather than risking the stack.
constexpr int kMaxDepth = 256;

double unit(double v) {
  return std::isnan(v) ? 0.0 : std::clamp(v, 0.0, 1.0);
}

bool finite(const Rect& r) {
  return std::isfinite(r.origin.x) && std::isfinite(r.origin.y) && std::isfinite(r.size.width) &&
         std::isfinite(r.size.height);
}

bool near(double a, double b) {
  return std::abs(a - b) <= 1e-6;
}

bool isIntegral(double v) {
  return near(v, std::round(v));
}

// A rectangle, with its corners rounded by `radius` (at most half the shorter side).
void addRoundedRect(cairo_t* cr, const Rect& r, double radius) {
  radius = std::min({radius, r.width() / 2, r.height() / 2});
  if (!(radius > 0.0)) {
    cairo_rectangle(cr, r.minX(), r.minY(), r.width(), r.height());
    return;
  }
  const double x0 = r.minX(), y0 = r.minY(), x1 = r.maxX(), y1 = r.maxY();
  cairo_new_sub_path(cr);
  cairo_arc(cr, x1 - radius, y0 + radius, radius, -M_PI / 2, 0);
  cairo_arc(cr, x1 - radius, y1 - radius, radius, 0, M_PI / 2);
  cairo_arc(cr, x0 + radius, y1 - radius, radius, M_PI / 2, M_PI);
  cairo_arc(cr, x0 + radius, y0 + radius, radius, M_PI, 3 * M_PI / 2);
  cairo_close_path(cr);
}

// Paints a premultiplied BGRA bitmap (rows `stride` bytes apart) into `dst`, stretched, and
// flipped left to right when `mirrored`. Edges are held rather than faded to transparent.
void paintBitmap(cairo_t* cr, const uint8_t* bytes, int width, int height, int stride,
                 const Rect& dst, bool mirrored) {
  if (!(dst.width() > 0 && dst.height() > 0)) return;
  // Cairo only reads a source surface; the const_cast does not lead to writes.
  cairo_surface_t* source = cairo_image_surface_create_for_data(
      const_cast<uint8_t*>(bytes), CAIRO_FORMAT_ARGB32, width, height, stride);
  if (cairo_surface_status(source) == CAIRO_STATUS_SUCCESS) {
    cairo_save(cr);
    cairo_translate(cr, dst.minX(), dst.minY());
    const double sx = dst.width() / width, sy = dst.height() / height;
    cairo_scale(cr, sx, sy);
    if (mirrored) {
      cairo_translate(cr, width, 0);
      cairo_scale(cr, -1, 1);
    }
    cairo_set_source_surface(cr, source, 0, 0);
    cairo_pattern_t* pattern = cairo_get_source(cr);
    cairo_pattern_set_extend(pattern, CAIRO_EXTEND_PAD);
    // Bilinear is enough near 1:1; strong reductions need the box filter against aliasing.
    double dx = 1, dy = 1;
    cairo_user_to_device_distance(cr, &dx, &dy);
    const bool reduces = std::abs(dx) < 0.75 || std::abs(dy) < 0.75;
    cairo_pattern_set_filter(pattern, reduces ? CAIRO_FILTER_GOOD : CAIRO_FILTER_BILINEAR);
    cairo_rectangle(cr, 0, 0, width, height);
    cairo_fill(cr);
    cairo_restore(cr);
  }
  cairo_surface_destroy(source);
}

class Renderer {
 public:
  Renderer(cairo_t* cr, cairo_surface_t* canvas, double time, const PreviewFrameSource& frames)
      : cr_(cr), canvas_(canvas), time_(time), frames_(frames) {
    clip_ = {0, 0, static_cast<double>(cairo_image_surface_get_width(canvas)),
             static_cast<double>(cairo_image_surface_get_height(canvas))};
  }

  void draw(const Layer& layer, int depth) {
    if (layer.isHidden() || depth > kMaxDepth) return;
    const double opacity = layer.opacity();
    if (!(opacity > 0.0)) return;
    const Rect frame = layer.frame().standardized(), bounds = layer.bounds().standardized();
    if (!finite(frame) || !finite(bounds)) return;
    const AffineTransform t = layer.presentationTransform(time_).affineProjection();
    const double det = t.a * t.d - t.b * t.c;
    // Turned edge-on (or to something unusable) the layer covers no area: nothing shows.
    if (!std::isfinite(det) || std::abs(det) < 1e-9 || !std::isfinite(t.tx) || !std::isfinite(t.ty))
      return;

    cairo_save(cr_);
    const Rect savedClip = clip_;
    const bool savedClipIsRect = clipIsRect_;
    cairo_translate(cr_, frame.midX(), frame.midY());
    cairo_matrix_t m;
    cairo_matrix_init(&m, t.a, t.b, t.c, t.d, t.tx, t.ty);
    cairo_transform(cr_, &m);
    cairo_translate(cr_, -bounds.midX(), -bounds.midY());

    const bool group = opacity < 1.0;
    if (group) {
      cairo_push_group(cr_);
      ++groups_;
    }
    if (auto background = layer.backgroundColor()) {
      setSourceColor(cr_, *background);
      addRoundedRect(cr_, bounds, layer.cornerRadius());
      cairo_fill(cr_);
    }
    if (layer.masksToBounds()) clipTo(bounds, layer.cornerRadius());
    drawContents(layer, bounds);
    for (const auto& sublayer : layer.sublayers())
      if (sublayer) draw(*sublayer, depth + 1);
    if (layer.masksToBounds()) {
      // Back to the ancestors' clip; the border lies inside the bounds anyway.
      cairo_restore(cr_);
      clip_ = savedClip;
      clipIsRect_ = savedClipIsRect;
    }
    drawBorder(layer, bounds);
    if (group) {
      cairo_pop_group_to_source(cr_);
      cairo_paint_with_alpha(cr_, std::min(opacity, 1.0));
      --groups_;
    }
    cairo_restore(cr_);
    clip_ = savedClip;
    clipIsRect_ = savedClipIsRect;
  }

 private:
  void clipTo(const Rect& bounds, double cornerRadius) {
    cairo_matrix_t m;
    cairo_get_matrix(cr_, &m);
    if (m.xy == 0.0 && m.yx == 0.0 && !(cornerRadius > 0.0)) {
      const Rect device = bounds.applying({m.xx, m.yx, m.xy, m.yy, m.x0, m.y0});
      const Rect common = clip_.intersection(device);
      clip_ = common.isNull() ? Rect{0, 0, 0, 0} : common;
    } else {
      clipIsRect_ = false;
    }
    // Saved so that draw() can drop this clip alone; the ancestors' clips stay in force.
    cairo_save(cr_);
    addRoundedRect(cr_, bounds, cornerRadius);
    cairo_clip(cr_);
  }

  void drawContents(const Layer& layer, const Rect& bounds) {
    const Image& contents = layer.contents();
    if (contents.hasBitmap()) {
      const Image bgra = contents.converted(PixelLayout::BGRA32Premultiplied);
      if (bgra.hasBitmap() && bgra.bytesPerRow() % 4 == 0)
        paintBitmap(cr_, bgra.bytes().data(), static_cast<int>(bgra.width()),
                    static_cast<int>(bgra.height()), static_cast<int>(bgra.bytesPerRow()), bounds,
                    false);
    }
    if (auto* preview = dynamic_cast<const PreviewLayer*>(&layer)) drawPreview(*preview, bounds);
    if (auto* shape = dynamic_cast<const ShapeLayer*>(&layer)) drawShape(*shape);
  }

  void drawShape(const ShapeLayer& shape) {
    if (shape.path().isEmpty()) return;
    if (auto fill = shape.fillColor()) {
      appendPath(cr_, shape.path());
      setSourceColor(cr_, *fill);
      cairo_set_fill_rule(cr_, CAIRO_FILL_RULE_WINDING);
      cairo_fill(cr_);
    }
    const double width = shape.lineWidth();
    if (auto stroke = shape.strokeColor(); stroke && width > 0.0 && std::isfinite(width)) {
      appendPath(cr_, shape.path());
      setSourceColor(cr_, *stroke);
      cairo_set_line_width(cr_, width);
      cairo_stroke(cr_);
    }
  }

  // The border lies inside the bounds: the ring between the bounds and the bounds inset by
  // the border width, on top of the layer's content and sublayers.
  void drawBorder(const Layer& layer, const Rect& bounds) {
    const double width = layer.borderWidth();
    if (!(width > 0.0) || !std::isfinite(width) || bounds.isEmpty()) return;
    const double radius = layer.cornerRadius();
    setSourceColor(cr_, layer.borderColor());
    addRoundedRect(cr_, bounds, radius);
    const Rect inner = bounds.insetBy(width, width);
    if (!inner.isNull() && !inner.isEmpty())
      addRoundedRect(cr_, inner, std::max(0.0, radius - width));
    cairo_set_fill_rule(cr_, CAIRO_FILL_RULE_EVEN_ODD);
    cairo_fill(cr_);
    cairo_set_fill_rule(cr_, CAIRO_FILL_RULE_WINDING);
  }

  void drawPreview(const PreviewLayer& preview, const Rect& bounds) {
    const SampleBuffer sample = frames_ ? frames_(preview) : SampleBuffer();
    const PixelBuffer& frame = sample.imageBuffer();
    const size_t fw = frame.width(), fh = frame.height();
    if (fw == 0 || fh == 0 || fw > ImageContext::kMaxSide || fh > ImageContext::kMaxSide) return;
    const Rect video = videoRectForGravity(
        bounds, {static_cast<double>(fw), static_cast<double>(fh)}, preview.videoGravity());
    if (video.isNull() || !finite(video)) return;
    const bool mirrored = preview.isMirrored();
    if (blitPreview(frame, video, mirrored)) return;

    // Anything but a 1:1 placement on whole pixels: convert once, then let Cairo resample.
    std::vector<uint8_t> pixels;
    try {
      pixels.resize(fw * fh * 4);
    } catch (const std::bad_alloc&) {
      return;
    }
    if (!blitFrame(frame, 0, 0, fw, fh, false, pixels.data(), fw * 4)) return;
    paintBitmap(cr_, pixels.data(), static_cast<int>(fw), static_cast<int>(fh),
                static_cast<int>(fw * 4), video, mirrored);
  }

  // The preview's common case: the video lands 1:1 on whole pixels of the canvas itself, so the
  // frame is converted straight into the canvas rows. False when that does not apply.
  bool blitPreview(const PixelBuffer& frame, const Rect& video, bool mirrored) {
    if (groups_ > 0 || !clipIsRect_) return false;
    cairo_matrix_t m;
    cairo_get_matrix(cr_, &m);
    if (!near(m.xx, 1.0) || !near(m.yy, 1.0) || m.xy != 0.0 || m.yx != 0.0) return false;
    const double vx = video.minX() + m.x0, vy = video.minY() + m.y0;
    const double fw = static_cast<double>(frame.width()), fh = static_cast<double>(frame.height());
    if (!isIntegral(vx) || !isIntegral(vy) || !near(video.width(), fw) || !near(video.height(), fh))
      return false;
    const double x0 = std::round(vx), y0 = std::round(vy);
    const Rect visible = clip_.intersection({x0, y0, fw, fh});
    if (visible.isNull() || visible.isEmpty()) return true;  // nothing of it shows
    // The clip rectangle can have fractional edges only from fractional layer frames; whole
    // pixels partly covered would need antialiasing, so leave those to Cairo.
    if (!isIntegral(visible.minX()) || !isIntegral(visible.minY()) || !isIntegral(visible.maxX()) ||
        !isIntegral(visible.maxY()))
      return false;
    const auto dx0 = static_cast<size_t>(std::round(visible.minX()));
    const auto dy0 = static_cast<size_t>(std::round(visible.minY()));
    const auto n = static_cast<size_t>(std::round(visible.width()));
    const auto rows = static_cast<size_t>(std::round(visible.height()));
    const auto sx0 = static_cast<size_t>(dx0 - x0);
    const size_t sx = mirrored ? frame.width() - sx0 - n : sx0;
    const auto sy = static_cast<size_t>(dy0 - y0);
    cairo_surface_flush(canvas_);
    uint8_t* data = cairo_image_surface_get_data(canvas_);
    const auto stride = static_cast<size_t>(cairo_image_surface_get_stride(canvas_));
    if (!blitFrame(frame, sx, sy, n, rows, mirrored, data + dy0 * stride + dx0 * 4, stride))
      return true;  // an unreadable frame shows nothing either way
    cairo_surface_mark_dirty_rectangle(canvas_, static_cast<int>(dx0), static_cast<int>(dy0),
                                       static_cast<int>(n), static_cast<int>(rows));
    return true;
  }

  cairo_t* cr_;
  cairo_surface_t* canvas_;
  double time_;
  const PreviewFrameSource& frames_;
  Rect clip_;               // the clip in canvas pixels, while it is one rectangle
  bool clipIsRect_ = true;  // false under a rotated or rounded clip
  int groups_ = 0;          // open opacity groups: the canvas is then not the drawing target
};

}  // namespace

void setSourceColor(cairo_t* cr, const Color& color) {
  cairo_set_source_rgba(cr, unit(color.red), unit(color.green), unit(color.blue),
                        unit(color.alpha));
}

void appendPath(cairo_t* cr, const Path& path) {
  constexpr double kLimit = 1e6;
  for (const auto& subpath : path.subpaths) {
    if (subpath.empty()) continue;
    const bool usable = std::all_of(subpath.begin(), subpath.end(), [](const Point& p) {
      return std::abs(p.x) <= kLimit && std::abs(p.y) <= kLimit;  // false for NaN too
    });
    if (!usable) continue;
    const bool closed = subpath.size() > 2 && subpath.front() == subpath.back();
    cairo_move_to(cr, subpath[0].x, subpath[0].y);
    for (size_t i = 1; i < subpath.size() - (closed ? 1 : 0); ++i)
      cairo_line_to(cr, subpath[i].x, subpath[i].y);
    if (closed) cairo_close_path(cr);
  }
}

SampleBuffer sessionPreviewFrame(const PreviewLayer& layer) {
  const auto session = layer.session();
  return session ? sessionLatestFrame(*session) : SampleBuffer();
}

Image renderLayerTree(const Layer& root, Size pixels, double time,
                      const PreviewFrameSource& frames) {
  const size_t w = ImageContext::pixelExtent(pixels.width);
  const size_t h = ImageContext::pixelExtent(pixels.height);
  if (w == 0 || h == 0) return {};
  std::vector<uint8_t> bytes;
  try {
    bytes.resize(w * h * 4);
  } catch (const std::bad_alloc&) {
    return {};
  }
  cairo_surface_t* canvas =
      cairo_image_surface_create_for_data(bytes.data(), CAIRO_FORMAT_ARGB32, static_cast<int>(w),
                                          static_cast<int>(h), static_cast<int>(w * 4));
  if (cairo_surface_status(canvas) != CAIRO_STATUS_SUCCESS) {
    cairo_surface_destroy(canvas);
    return {};
  }
  cairo_t* cr = cairo_create(canvas);
  const Rect frame = root.frame().standardized(), bounds = root.bounds().standardized();
  if (cairo_status(cr) == CAIRO_STATUS_SUCCESS && finite(frame) && bounds.width() > 0 &&
      bounds.height() > 0 && std::isfinite(bounds.width()) && std::isfinite(bounds.height())) {
    // The root's untransformed frame fills the canvas.
    cairo_scale(cr, static_cast<double>(w) / bounds.width(),
                static_cast<double>(h) / bounds.height());
    cairo_translate(cr, -frame.minX(), -frame.minY());
    Renderer(cr, canvas, time, frames).draw(root, 0);
  }
  cairo_destroy(cr);
  cairo_surface_finish(canvas);
  cairo_surface_destroy(canvas);
  return Image::fromBuffer(PixelLayout::BGRA32Premultiplied, w, h, w * 4, std::move(bytes));
}

}  // namespace kwq::platform

namespace kwq {

Image renderLayer(const Layer& layer, Size pixels, double time) {
  return platform::renderLayerTree(layer, pixels, time, platform::sessionPreviewFrame);
}

Image renderView(const View& view, Size pixels, double time) {
  return renderLayer(*view.layer(), pixels, time);
}

}  // namespace kwq

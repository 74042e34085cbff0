#include "platform/draw/bitmap_context.h"

#include <cmath>
#include <cstring>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "platform/draw/exact_paths.h"
#include "platform/image/image_data.h"
#include "platform/image/opencv_view.h"

namespace kwq::platform {
namespace {

// Within this distance of an integer, OpenCV's fixed-point warp coordinates (1/32 pixel,
// rounded) are that integer for any canvas up to kMaxBitmapContextSide.
constexpr double kIntegerTolerance = 1e-7;

bool nearInteger(double v, int64_t* out) {
  const double r = std::round(v);
  if (std::abs(v - r) > kIntegerTolerance) return false;
  *out = static_cast<int64_t>(r);
  return true;
}

// A warp that sends every canvas pixel exactly onto a source pixel: src = L * dst + t, with L a
// signed permutation (a turn by a multiple of 90 degrees, or a mirror) and t integral.
struct ExactMap {
  int64_t l00, l01, l10, l11, tx, ty;
};

bool exactMap(const cv::Matx23d& m, ExactMap* e) {
  if (!nearInteger(m(0, 0), &e->l00) || !nearInteger(m(0, 1), &e->l01) ||
      !nearInteger(m(1, 0), &e->l10) || !nearInteger(m(1, 1), &e->l11) ||
      !nearInteger(m(0, 2), &e->tx) || !nearInteger(m(1, 2), &e->ty))
    return false;
  const auto unitOrZero = [](int64_t v) { return v >= -1 && v <= 1; };
  if (!unitOrZero(e->l00) || !unitOrZero(e->l01) || !unitOrZero(e->l10) || !unitOrZero(e->l11))
    return false;
  const bool straight = e->l01 == 0 && e->l10 == 0 && e->l00 != 0 && e->l11 != 0;
  const bool swapped = e->l00 == 0 && e->l11 == 0 && e->l01 != 0 && e->l10 != 0;
  return straight || swapped;
}

// `in` turned or mirrored so that result(X, Y) = in(L (X, Y) + t0), with t0 the corner that
// keeps indices in range.
void orient(const cv::Mat& in, const ExactMap& e, cv::Mat& out) {
  if (e.l01 == 0) {
    if (e.l00 == 1 && e.l11 == 1)
      in.copyTo(out);
    else
      cv::flip(in, out, e.l00 == -1 && e.l11 == -1 ? -1 : (e.l00 == -1 ? 1 : 0));
    return;
  }
  if (e.l01 == 1 && e.l10 == 1) {
    cv::transpose(in, out);
  } else if (e.l01 == -1 && e.l10 == 1) {
    cv::rotate(in, out, cv::ROTATE_90_COUNTERCLOCKWISE);
  } else if (e.l01 == 1 && e.l10 == -1) {
    cv::rotate(in, out, cv::ROTATE_90_CLOCKWISE);
  } else {
    cv::transpose(in, out);
    cv::flip(out, out, -1);
  }
}

// Writes the exactly mapped `in` into the zeroed canvas `out`.
void copyExact(const cv::Mat& in, const ExactMap& e, cv::Mat& out) {
  const int64_t W = in.cols, H = in.rows;
  const int64_t t0x = (e.l00 < 0 || e.l01 < 0) ? W - 1 : 0;
  const int64_t t0y = (e.l10 < 0 || e.l11 < 0) ? H - 1 : 0;
  // dst(X, Y) = oriented(X - ox, Y - oy), with (ox, oy) = transpose(L) (t0 - t).
  const int64_t dx = t0x - e.tx, dy = t0y - e.ty;
  const int64_t ox = e.l00 * dx + e.l10 * dy, oy = e.l01 * dx + e.l11 * dy;
  const int64_t ow = e.l01 == 0 ? W : H, oh = e.l01 == 0 ? H : W;
  if (ox == 0 && oy == 0 && ow == out.cols && oh == out.rows) {
    orient(in, e, out);  // straight into the canvas
    return;
  }
  const int64_t x0 = std::max<int64_t>(ox, 0), y0 = std::max<int64_t>(oy, 0);
  const int64_t x1 = std::min<int64_t>(ox + ow, out.cols),
                y1 = std::min<int64_t>(oy + oh, out.rows);
  if (x1 <= x0 || y1 <= y0) return;
  cv::Mat oriented;
  orient(in, e, oriented);
  const cv::Rect from(static_cast<int>(x0 - ox), static_cast<int>(y0 - oy),
                      static_cast<int>(x1 - x0), static_cast<int>(y1 - y0));
  const cv::Rect to(static_cast<int>(x0), static_cast<int>(y0), from.width, from.height);
  oriented(from).copyTo(out(to));
}

void render(const cv::Mat& in, const cv::Matx23d& toSource, cv::Mat& out) {
  ExactMap e;
  if (exactShortcutsEnabled() && exactMap(toSource, &e)) {
    copyExact(in, e, out);
    return;
  }
  cv::warpAffine(in, out, toSource, out.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                 cv::BORDER_CONSTANT, cv::Scalar::all(0));
}

}  // namespace

Image rotateInBitmapContext(const Image& source, double radians, size_t width, size_t height) {
  const Bitmap* src = ImageAccess::bitmap(source);
  if (!src || !std::isfinite(radians) || width == 0 || height == 0) return {};
  if (width > kMaxBitmapContextSide || height > kMaxBitmapContextSide ||
      src->width > kMaxBitmapContextSide || src->height > kMaxBitmapContextSide)
    return {};
  auto canvas = allocateBitmap(src->layout, width, height, width * bytesPerPixel(src->layout));
  if (!canvas) return {};

  // Canvas pixel centre (X, Y), y down, to the source bitmap (x, y), y down: undo the
  // translation by (width >> 1, height >> 1) in the y-up space and the rotation, then place the
  // bitmap's rectangle (-W/2, -H/2, W, H) with its first row at the top:
  //   x = c (X - cx) + s (NH - cy - Y) + W/2
  //   y = H/2 + s (X - cx) - c (NH - cy - Y)
  // and the same in pixel indices (centres at index + 0.5).
  const double c = std::cos(radians), s = std::sin(radians);
  const double W = static_cast<double>(src->width), H = static_cast<double>(src->height);
  const double cx = static_cast<double>(width >> 1), cy = static_cast<double>(height >> 1);
  const double up = static_cast<double>(height) - cy;  // y-up distance of the origin from the top
  const cv::Matx23d toSource(c, -s, c * (0.5 - cx) + s * (up - 0.5) + W / 2 - 0.5,  //
                             s, c, H / 2 + s * (0.5 - cx) - c * (up - 0.5) - 0.5);
  try {
    const cv::Mat in = matView(*src);
    cv::Mat out = matView(*canvas);
    if (src->layout == PixelLayout::RGBA32) {
      // Resample premultiplied so transparent pixels do not bleed their colour.
      cv::Mat pre, drawn(out.size(), out.type(), cv::Scalar::all(0));
      cv::cvtColor(in, pre, cv::COLOR_RGBA2mRGBA);
      render(pre, toSource, drawn);
      cv::cvtColor(drawn, out, cv::COLOR_mRGBA2RGBA);
    } else {
      render(in, toSource, out);
    }
  } catch (const cv::Exception&) {
    return {};
  }
  return ImageAccess::make(std::move(canvas));
}

Image cropBitmap(const Image& source, const Rect& rect) {
  const Bitmap* src = ImageAccess::bitmap(source);
  if (!src) return {};
  if (std::isnan(rect.origin.x) || std::isnan(rect.origin.y) || std::isnan(rect.size.width) ||
      std::isnan(rect.size.height))
    return {};
  const Rect bounds(0, 0, static_cast<double>(src->width), static_cast<double>(src->height));
  const Rect r = rect.integral().intersection(bounds);
  if (r.isEmpty() || std::isnan(r.size.width) || std::isnan(r.size.height)) return {};
  const size_t x = static_cast<size_t>(r.minX()), y = static_cast<size_t>(r.minY());
  const size_t w = static_cast<size_t>(r.width()), h = static_cast<size_t>(r.height());
  const size_t bpp = bytesPerPixel(src->layout);
  auto out = allocateBitmap(src->layout, w, h, w * bpp);
  if (!out) return {};
  for (size_t row = 0; row < h; ++row)
    std::memcpy(out->bytes.data() + row * w * bpp,
                src->bytes.data() + (y + row) * src->bytesPerRow + x * bpp, w * bpp);
  return ImageAccess::make(std::move(out));
}

}  // namespace kwq::platform

// Resizing, cropping, rotation and scaling of images.

#include <cmath>
#include <cstdint>

#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/kwq_quality.h"
#include "platform/draw/bitmap_context.h"
#include "platform/draw/image_context.h"
#include "platform/foundation/log_format.h"
#include "platform/image/image_data.h"

extern "C" {

double DegreesToRadians(double degrees) {
  return degrees * 3.141592653589793 / 180.0;
}

double RadiansToDegrees(double radians) {
  return radians * 180.0 / 3.141592653589793;
}

}  // extern "C"

namespace kwq {
namespace {

// Source lines the error messages name; fixed so the messages stay stable.
constexpr int kLineCropWithPadding = 52;
constexpr int kLineCropInView = 104;
constexpr int kLineRotatedByAngle = 131;

// Logs that `image` has no bitmap for `method`; false then (and for the null image, silently,
// as a message to nothing does nothing).
bool hasBitmapOrLog(const Image& image, const char* method, int line) {
  if (image.isNull()) return false;
  if (image.hasBitmap()) return true;
  logf("%s [Line %d] *** error: image must be backed by a CGImage: %s", method, line,
       image.description().c_str());
  return false;
}

// Float to unsigned 64-bit, saturating as the reference hardware does: NaN and negative
// values give 0, values past the range the largest value.
uint64_t toUnsigned(double v) {
  if (!(v > 0.0)) return 0;
  if (v >= 18446744073709551616.0) return UINT64_MAX;
  return static_cast<uint64_t>(v);
}

Image drawScaled(const Image& image, Size canvas, const Rect& drawRect) {
  platform::ImageContext context(canvas);
  context.drawImage(image, drawRect);
  return context.takeImage();
}

Image scaledOrLog(const Image& image, Size canvas, const Rect& drawRect) {
  Image result = drawScaled(image, canvas, drawRect);
  if (result.isNull()) logf("could not scale image");
  return result;
}

// Shared by the two proportional scalings, which differ only in the factor they pick.
Image scaleProportionally(const Image& image, Size target, bool fill) {
  if (image.isNull()) return {};
  const Size s = image.size();
  Rect drawRect(0, 0, target.width, target.height);
  if (!(s == target)) {
    const double fw = target.width / s.width, fh = target.height / s.height;
    const double factor = fill ? (fw > fh ? fw : fh) : (fh <= fw ? fh : fw);
    const double sw = s.width * factor, sh = s.height * factor;
    double x = 0.0, y = 0.0;
    if (fill) {
      if (fw > fh)
        y = (target.height - sh) * 0.5;
      else if (fh > fw)
        x = (target.width - sw) * 0.5;
    } else {
      if (fh > fw)
        y = (target.height - sh) * 0.5;
      else if (fw > fh)
        x = (target.width - sw) * 0.5;
    }
    drawRect = Rect(x, y, sw, sh);
  }
  return scaledOrLog(image, target, drawRect);
}

}  // namespace

Image resizeToSize(const Image& image, Size size) {
  if (image.isNull()) return {};
  return drawScaled(image, size, Rect(0, 0, size.width, size.height));
}

Image cropImageAtCoordinates(const Image& image, const Rect& rect, float paddingPercent) {
  if (!hasBitmapOrLog(image,
                      "-[UIImage(KWQImagingHelper) cropImageAtCoordinates:withPaddingPercent:]",
                      kLineCropWithPadding))
    return {};
  const uint64_t W = image.width(), H = image.height();
  double x = rect.origin.x, y = rect.origin.y, w = rect.size.width, h = rect.size.height;
  if (paddingPercent > 0) {
    const float f = paddingPercent / 100.0f;
    const float pw = static_cast<float>(w + w * f), ph = static_cast<float>(h + h * f);
    float px = static_cast<float>(x - (pw - w) * 0.5);
    float py = static_cast<float>(y - (ph - h) * 0.5);
    if (px <= 1.0f) px = 1.0f;
    if (py <= 1.0f) py = 1.0f;
    x = px;
    y = py;
    w = pw;
    h = ph;
  }
  uint64_t X = toUnsigned(x), Y = toUnsigned(y), CW = toUnsigned(w), CH = toUnsigned(h);
  // The crop never starts in row or column 0.
  if (Y == 0) Y = 1;
  if (X == 0) X = 1;
  // A crop reaching the far edge gets the whole image's size less one; the cut at the edge
  // below then trims it to what is left. Sums wrap like the unsigned arithmetic they mirror.
  if (Y + CH >= H) CH = H - 1;
  if (X + CW >= W) CW = W - 1;
  const Rect cropRect(static_cast<int32_t>(X), static_cast<int32_t>(Y), static_cast<int32_t>(CW),
                      static_cast<int32_t>(CH));
  return platform::cropBitmap(image, cropRect);
}

Image cropImageAtCoordinates(const Image& image, const Rect& rect, float /*paddingPercent*/,
                             Size viewSize) {
  if (!hasBitmapOrLog(
          image, "-[UIImage(KWQImagingHelper) cropImageAtCoordinates:withPaddingPercent:viewSize:]",
          kLineCropInView))
    return {};
  const double sx = static_cast<double>(image.width()) / viewSize.width;
  const double sy = static_cast<double>(image.height()) / viewSize.height;
  const uint64_t CW = toUnsigned(rect.size.width * sx), CH = toUnsigned(rect.size.height * sy);
  const uint64_t CX = toUnsigned(rect.midX() * sx), CY = toUnsigned(rect.midY() * sy);
  // A negative origin wraps to a huge value, outside the bitmap: the crop then yields nothing.
  const uint64_t X = CX - (CW >> 1), Y = CY - (CH >> 1);
  return platform::cropBitmap(image, Rect(static_cast<double>(X), static_cast<double>(Y),
                                          static_cast<double>(CW), static_cast<double>(CH)));
}

Image rotatedByAngle(const Image& image, double degrees) {
  if (!hasBitmapOrLog(image, "-[UIImage(KWQImagingHelper) rotatedByAngle:]", kLineRotatedByAngle))
    return {};
  const double radians = degrees * 0.017453292519943295;
  const double W = static_cast<double>(image.width()), H = static_cast<double>(image.height());
  const Rect box = Rect(0, 0, W, H).applying(AffineTransform::rotation(radians));
  const double nw = box.size.width + 0.5, nh = box.size.height + 0.5;
  if (!std::isfinite(nw) || !std::isfinite(nh)) return {};
  // Sizes that cannot be drawn into make no context, hence no image, and no message.
  return platform::rotateInBitmapContext(image, radians, toUnsigned(nw), toUnsigned(nh));
}

Image imageAtRect(const Image& image, const Rect& rect) {
  return platform::cropBitmap(image, rect);
}

Image imageByScalingProportionallyToMinimumSize(const Image& image, Size targetSize) {
  return scaleProportionally(image, targetSize, /*fill=*/true);
}

Image imageByScalingProportionallyToSize(const Image& image, Size targetSize) {
  return scaleProportionally(image, targetSize, /*fill=*/false);
}

Image imageByScalingToSize(const Image& image, Size targetSize) {
  if (image.isNull()) return {};
  return scaledOrLog(image, targetSize, Rect(0, 0, targetSize.width, targetSize.height));
}

Image imageRotatedByRadians(const Image& image, double radians) {
  return imageRotatedByDegrees(image, RadiansToDegrees(radians));
}

Image imageRotatedByDegrees(const Image& image, double degrees) {
  if (image.isNull()) return {};
  const Size s = image.size();
  const double radians = DegreesToRadians(degrees);
  // The frame of a view of the image's size turned about its centre: the rotated bounds.
  const Size r = Rect(0, 0, s.width, s.height).applying(AffineTransform::rotation(radians)).size;
  platform::ImageContext context(r);
  context.translate(r.width * 0.5, r.height * 0.5);
  context.rotate(radians);
  context.scale(1.0, -1.0);
  context.drawBitmap(image, Rect(s.width * -0.5, s.height * -0.5, s.width, s.height));
  return context.takeImage();
}

}  // namespace kwq

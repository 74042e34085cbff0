#include "platform/draw/bitmap_draw.h"

#include <opencv2/imgproc.hpp>

#include "platform/image/opencv_view.h"

namespace kwq::platform {

static constexpr size_t kMaxSide = 1u << 20;

Image redrawResampled(const Image& source, size_t width, size_t height) {
  const Bitmap* src = ImageAccess::bitmap(source);
  if (!src || width == 0 || height == 0 || width > kMaxSide || height > kMaxSide) return {};
  auto out = allocateBitmap(src->layout, width, height, width * bytesPerPixel(src->layout));
  if (!out) return {};
  try {
    const cv::Mat in = matView(*src);
    cv::Mat dst = matView(*out);
    const bool shrinking = width <= src->width && height <= src->height;
    const int interpolation = shrinking ? cv::INTER_AREA : cv::INTER_LINEAR;
    const cv::Size size(static_cast<int>(width), static_cast<int>(height));
    if (src->layout == PixelLayout::RGBA32) {
      // Straight alpha would bleed the colour of transparent pixels into their neighbours.
      cv::Mat pre, scaled;
      cv::cvtColor(in, pre, cv::COLOR_RGBA2mRGBA);
      cv::resize(pre, scaled, size, 0, 0, interpolation);
      cv::cvtColor(scaled, dst, cv::COLOR_mRGBA2RGBA);
    } else {
      cv::resize(in, dst, size, 0, 0, interpolation);
    }
  } catch (const cv::Exception&) {
    return {};
  }
  return ImageAccess::make(std::move(out));
}

Image drawIntoGray(const Image& source, size_t width, size_t height, Size drawSize) {
  const Bitmap* src = ImageAccess::bitmap(source);
  if (!src || width == 0 || height == 0 || width > kMaxSide || height > kMaxSide) return {};
  auto out = allocateBitmap(PixelLayout::Gray8, width, height, width);
  if (!out) return {};
  try {
    const cv::Mat in = matView(*src);
    cv::Mat dst = matView(*out);
    cv::Mat gray;
    convertLayout(in, src->layout, gray, PixelLayout::Gray8);
    const double sw = static_cast<double>(src->width), sh = static_cast<double>(src->height);
    const double w = static_cast<double>(width), h = static_cast<double>(height);
    if (drawSize.width == sw && drawSize.height == sh && w == sw && h == sh) {
      gray.copyTo(dst);
    } else if (drawSize.width == w && drawSize.height == h) {
      const bool shrinking = width <= src->width && height <= src->height;
      cv::resize(gray, dst, dst.size(), 0, 0, shrinking ? cv::INTER_AREA : cv::INTER_LINEAR);
    } else {
      // The bitmap's top edge sits at drawSize.height above the bottom of the context, i.e. at
      // row (h - drawSize.height) counted from the top. The draw rectangle is never smaller
      // than the context, so edge pixels extend to the border rather than leaving it black.
      const double fx = drawSize.width / sw, fy = drawSize.height / sh;
      const double ty = h - drawSize.height;
      const cv::Matx23d toDestination(fx, 0, 0.5 * fx - 0.5, 0, fy, ty + 0.5 * fy - 0.5);
      cv::warpAffine(gray, dst, toDestination, dst.size(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    }
  } catch (const cv::Exception&) {
    return {};
  }
  return ImageAccess::make(std::move(out));
}

}  // namespace kwq::platform

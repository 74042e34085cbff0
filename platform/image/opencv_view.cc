#include "platform/image/opencv_view.h"

#include <opencv2/imgproc.hpp>

namespace kwq::platform {

int matType(PixelLayout layout) {
  return CV_8UC(static_cast<int>(bytesPerPixel(layout)));
}

cv::Mat matView(const Bitmap& bitmap) {
  return cv::Mat(static_cast<int>(bitmap.height), static_cast<int>(bitmap.width),
                 matType(bitmap.layout), const_cast<uint8_t*>(bitmap.bytes.data()),
                 bitmap.bytesPerRow);
}

// Straight RGBA to premultiplied RGBA, i.e. composited over black.
static cv::Mat premultiplied(const cv::Mat& rgba) {
  cv::Mat m;
  cv::cvtColor(rgba, m, cv::COLOR_RGBA2mRGBA);
  return m;
}

void convertLayout(const cv::Mat& in, PixelLayout from, cv::Mat& out, PixelLayout to) {
  using L = PixelLayout;
  if (from == to) {
    out = in.clone();
    return;
  }
  switch (to) {
    case L::Gray8:
      if (from == L::RGB24)
        cv::cvtColor(in, out, cv::COLOR_RGB2GRAY);
      else if (from == L::RGBA32)
        cv::cvtColor(premultiplied(in), out, cv::COLOR_RGBA2GRAY);
      else
        cv::cvtColor(in, out, cv::COLOR_BGRA2GRAY);
      return;
    case L::RGB24:
      if (from == L::Gray8)
        cv::cvtColor(in, out, cv::COLOR_GRAY2RGB);
      else if (from == L::RGBA32)
        cv::cvtColor(premultiplied(in), out, cv::COLOR_RGBA2RGB);
      else
        cv::cvtColor(in, out, cv::COLOR_BGRA2RGB);
      return;
    case L::RGBA32:
      if (from == L::Gray8)
        cv::cvtColor(in, out, cv::COLOR_GRAY2RGBA);
      else if (from == L::RGB24)
        cv::cvtColor(in, out, cv::COLOR_RGB2RGBA);
      else {
        cv::Mat rgba;
        cv::cvtColor(in, rgba, cv::COLOR_BGRA2RGBA);
        cv::cvtColor(rgba, out, cv::COLOR_mRGBA2RGBA);
      }
      return;
    case L::BGRA32Premultiplied:
      if (from == L::Gray8)
        cv::cvtColor(in, out, cv::COLOR_GRAY2BGRA);
      else if (from == L::RGB24)
        cv::cvtColor(in, out, cv::COLOR_RGB2BGRA);
      else
        cv::cvtColor(premultiplied(in), out, cv::COLOR_RGBA2BGRA);
      return;
  }
}

}  // namespace kwq::platform

#pragma once

// OpenCV views of our bitmaps: the one place where the platform layer's bitmaps meet cv::Mat.

#include <opencv2/core.hpp>

#include "platform/image/image_data.h"

namespace kwq::platform {

/// OpenCV type with the channel count of `layout`.
int matType(PixelLayout layout);

/// A cv::Mat header over the bitmap's bytes (no copy). Callers only read through views of
/// shared bitmaps; a freshly allocated bitmap may be written through its view.
cv::Mat matView(const Bitmap& bitmap);

/// Converts pixels between layouts, premultiplying or un-premultiplying alpha as needed;
/// colour to gray composites over black first, as drawing into an opaque gray context does.
void convertLayout(const cv::Mat& in, PixelLayout from, cv::Mat& out, PixelLayout to);

}  // namespace kwq::platform

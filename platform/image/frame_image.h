#pragma once

// Camera frames as images, in every pixel format the capture layer delivers.

#include "kwqimage/Image.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq::platform {

/// A copy of the frame's pixels as an image (scale 1, orientation up): 420f and 420v (NV12,
/// BT.601 colours, full and video range) as RGB24, each chroma pair shared by its 2 x 2 luma
/// block; BGRA as premultiplied BGRA. The null image for the null buffer, another format, a
/// buffer that cannot be locked, or planes smaller than the frame. Thread: any; the buffer is
/// locked read-only for the copy.
Image imageFromPixelBuffer(const PixelBuffer& frame);

}  // namespace kwq::platform

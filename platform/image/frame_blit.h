#pragma once

// Camera frames written straight into a premultiplied BGRA canvas, without an intermediate
// image: the preview's per-frame path.

#include <cstddef>
#include <cstdint>

#include "kwqimage/SampleBuffer.h"

namespace kwq::platform {

/// Writes a `width` x `height` block of `frame`, starting at source pixel (x, y), into `dst`
/// (rows `dstStride` bytes apart) as opaque BGRA. `mirrored` reverses each written row: the
/// block's last source column lands in the first destination column. 420f and 420v use the
/// same BT.601 arithmetic as imageFromPixelBuffer(), byte for byte; BGRA is copied. False
/// (nothing written) for another format, a block outside the frame, planes smaller than the
/// frame, or a buffer that cannot be locked. Thread: any.
bool blitFrame(const PixelBuffer& frame, size_t x, size_t y, size_t width, size_t height,
               bool mirrored, uint8_t* dst, size_t dstStride);

}  // namespace kwq::platform

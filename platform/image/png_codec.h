#pragma once

// PNG encoding of bitmaps (decoding is Image::decode).

#include <cstdint>
#include <vector>

#include "kwqimage/Image.h"

namespace kwq::platform {

/// PNG data of the bitmap as stored (scale and orientation ignored), keeping its layout: gray
/// as 8-bit gray, RGB as RGB, RGBA as RGBA with straight alpha, premultiplied BGRA
/// un-premultiplied into RGBA (each colour c * 255 / a rounded, 0 where a is 0). Empty without
/// a bitmap or when encoding fails. Thread: any.
std::vector<uint8_t> encodePNG(const Image& image);

}  // namespace kwq::platform

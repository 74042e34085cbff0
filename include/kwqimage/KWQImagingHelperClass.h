#pragma once

/// @file
/// Conversions of camera frames and caller-supplied pixel bytes to images.

#include <cstdint>

#include "kwqimage/Color.h"
#include "kwqimage/DeviceOrientation.h"
#include "kwqimage/Export.h"
#include "kwqimage/Image.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq {

/// Stateless conversions to images. Every function is re-entrant and may run on any thread.
class KWQ_EXPORT KWQImagingHelper {
 public:
  KWQImagingHelper() = delete;

  /// Image orientation for a device orientation: portrait → Right, portrait upside down →
  /// Left, landscape left → Up, landscape right → Down, every other value → Right.
  static ImageOrientation convertToImageOrientation(int64_t deviceOrientation);

  /// The upright image of a camera frame (a BGRA pixel buffer), turned by rotatedByAngle()
  /// with an angle chosen from DeviceOrientation::current() mapped by
  /// convertToImageOrientation() and the camera position (1 back, 2 front, 0 unspecified):
  /// Up → 0 (back) or 180 (other), Down → 180 (back) or 0 (other), Left and Right → -90.
  /// The frame is always redrawn, also at angle 0. When `rawImage` is not null it receives the
  /// unturned copy of the frame (scale 1, orientation up).
  ///
  /// The buffer is locked only while its pixels are copied. A null sample, a pixel format other
  /// than BGRA (420f frames included), or planes too small for the frame give the null image
  /// (and a null `*rawImage`); nothing is logged. The data-ready flag is not consulted.
  static Image makeUIImageFromCMSampleBuffer(const SampleBuffer& sampleBuffer, int64_t position,
                                             Image* rawImage = nullptr);

  // The byte-array constructors copy exactly height x bytesPerRow bytes from `data` (the
  // caller keeps its buffer and may free it at once); bytes after each row's pixels are kept in
  // the copy but never shown. Rows run top to bottom. A null pointer, a width or height below 1,
  // a bytesPerRow shorter than one row, or a height x bytesPerRow beyond the 32-bit signed range
  // give the null image without reading `data`. Images have scale 1 and orientation up.

  /// 8-bit gray (bitmap info 0).
  static Image makeUIImageFromGrayScaleData(const uint8_t* data, int32_t width, int32_t height,
                                            int32_t bytesPerRow);
  /// 24-bit R, G, B (bitmap info 0).
  static Image makeUIImageFromRGBData(const uint8_t* data, int32_t width, int32_t height,
                                      int32_t bytesPerRow);
  /// 32-bit R, G, B, A with straight alpha (bitmap info 3).
  static Image makeUIImageFromRGBAData(const uint8_t* data, int32_t width, int32_t height,
                                       int32_t bytesPerRow);
  /// 32-bit B, G, R, A with premultiplied alpha (bitmap info 8194).
  static Image makeUIImageFromBGRAData(const uint8_t* data, int32_t width, int32_t height,
                                       int32_t bytesPerRow);

  /// No conversion is available: always returns null and touches nothing.
  static uint8_t* convertBGRAtoRGB(const uint8_t* data, int32_t width, int32_t height,
                                   int32_t bytesPerRow);

  /// A 10 x 10 image (premultiplied BGRA, scale 1) filled with `color`.
  static Image imageFromColor(const Color& color);
};

}  // namespace kwq

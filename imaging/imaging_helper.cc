// Conversions of camera frames and caller-supplied pixel bytes to images.

#include <cstring>
#include <limits>
#include <vector>

#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/KWQImagingHelperClass.h"
#include "platform/draw/image_context.h"
#include "platform/image/image_data.h"

namespace kwq {
namespace {

// Copies height x bytesPerRow bytes (padding included) into a new image of `layout`, after
// checking everything that could make the copy read out of bounds.
Image imageFromBytes(PixelLayout layout, const uint8_t* data, int32_t width, int32_t height,
                     int32_t bytesPerRow) {
  if (!data || width <= 0 || height <= 0 || bytesPerRow <= 0) return {};
  const int64_t row = static_cast<int64_t>(width) * static_cast<int64_t>(bytesPerPixel(layout));
  if (bytesPerRow < row) return {};
  // The byte count is a 32-bit signed product; one that overflows names no real buffer.
  const int64_t total = static_cast<int64_t>(height) * bytesPerRow;
  if (total > std::numeric_limits<int32_t>::max()) return {};
  // Built straight from the caller's bytes: no zero-fill before the copy.
  std::vector<uint8_t> bytes(data, data + total);
  return Image::fromBuffer(layout, static_cast<size_t>(width), static_cast<size_t>(height),
                           static_cast<size_t>(bytesPerRow), std::move(bytes));
}

}  // namespace

ImageOrientation KWQImagingHelper::convertToImageOrientation(int64_t deviceOrientation) {
  switch (deviceOrientation) {
    case DeviceOrientation::Portrait:
      return ImageOrientation::Right;
    case DeviceOrientation::PortraitUpsideDown:
      return ImageOrientation::Left;
    case DeviceOrientation::LandscapeLeft:
      return ImageOrientation::Up;
    case DeviceOrientation::LandscapeRight:
      return ImageOrientation::Down;
    default:
      return ImageOrientation::Right;
  }
}

Image KWQImagingHelper::makeUIImageFromCMSampleBuffer(const SampleBuffer& sampleBuffer,
                                                      int64_t position, Image* rawImage) {
  // Snapshot the frame while its memory is locked; the lock is held only for the copy.
  Image frame;
  const PixelBuffer& pixels = sampleBuffer.imageBuffer();
  if (pixels.pixelFormat() == kPixelFormatBGRA && pixels.lockBaseAddress(0)) {
    const uint8_t* base = pixels.baseAddressOfPlane(0);
    // The buffer guarantees its plane holds height rows of bytesPerRow bytes.
    frame = Image::copyFromBytes(PixelLayout::BGRA32Premultiplied, pixels.widthOfPlane(0),
                                 pixels.heightOfPlane(0), pixels.bytesPerRowOfPlane(0), base);
    pixels.unlockBaseAddress(0);
  }
  if (rawImage) *rawImage = frame;
  if (frame.isNull()) return {};

  const ImageOrientation orientation = convertToImageOrientation(DeviceOrientation::current());
  const bool back = position == 1;
  double angle = -90.0;  // left and right alike: an upside-down device counts as upright
  if (orientation == ImageOrientation::Up)
    angle = back ? 0.0 : 180.0;
  else if (orientation == ImageOrientation::Down)
    angle = back ? 180.0 : 0.0;
  // Always redrawn, also at 0 degrees, so the result never shares the raw image's bitmap.
  return rotatedByAngle(frame, angle);
}

Image KWQImagingHelper::makeUIImageFromGrayScaleData(const uint8_t* data, int32_t width,
                                                     int32_t height, int32_t bytesPerRow) {
  return imageFromBytes(PixelLayout::Gray8, data, width, height, bytesPerRow);
}

Image KWQImagingHelper::makeUIImageFromRGBData(const uint8_t* data, int32_t width, int32_t height,
                                               int32_t bytesPerRow) {
  return imageFromBytes(PixelLayout::RGB24, data, width, height, bytesPerRow);
}

Image KWQImagingHelper::makeUIImageFromRGBAData(const uint8_t* data, int32_t width, int32_t height,
                                                int32_t bytesPerRow) {
  return imageFromBytes(PixelLayout::RGBA32, data, width, height, bytesPerRow);
}

Image KWQImagingHelper::makeUIImageFromBGRAData(const uint8_t* data, int32_t width, int32_t height,
                                                int32_t bytesPerRow) {
  return imageFromBytes(PixelLayout::BGRA32Premultiplied, data, width, height, bytesPerRow);
}

uint8_t* KWQImagingHelper::convertBGRAtoRGB(const uint8_t*, int32_t, int32_t, int32_t) {
  return nullptr;
}

Image KWQImagingHelper::imageFromColor(const Color& color) {
  platform::ImageContext context(Size{10.0, 10.0});
  context.setFillColor(color);
  context.fillRect(Rect(0, 0, 10.0, 10.0));
  return context.takeImage();
}

}  // namespace kwq

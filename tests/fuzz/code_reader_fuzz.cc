// Fuzzes the code reader over raw frame bytes: any pixel format, size, row padding and
// requested types, as a wrapped camera frame and as an image.
//
// Input: an 8-byte header, then the pixel bytes.
//   0     format: 420f, 420v, BGRA, an unknown code, or 0 (by value modulo 5)
//   1..2  width, 3..4 height (little-endian, modulo 300), 5 row padding (modulo 9)
//   6     requested types: bit 0 PDF417, bit 1 QR, bit 2 face
//   7     the image's layout (modulo 4)
// The planes are filled with the pixel bytes, repeated as often as needed (zeros without any),
// so that small inputs make whole frames; a seed holding a real symbol reaches the decoders.

#include <cstdint>
#include <string>
#include <vector>

#include "kwqimage/CaptureSession.h"
#include "kwqimage/Image.h"
#include "kwqimage/SampleBuffer.h"
#include "platform/vision/code_reader.h"

namespace {

std::vector<uint8_t> tiled(const uint8_t* data, size_t size, size_t count) {
  std::vector<uint8_t> out(count, 0);
  if (size > 0)
    for (size_t i = 0; i < count; ++i) out[i] = data[i % size];
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  constexpr uint32_t kFormats[] = {kwq::kPixelFormat420f, kwq::kPixelFormat420v,
                                   kwq::kPixelFormatBGRA, kwq::fourCharCode("abcd"), 0};
  const uint32_t format = kFormats[data[0] % 5];
  const size_t width = (data[1] | data[2] << 8) % 300;
  const size_t height = (data[3] | data[4] << 8) % 300;
  const size_t pad = data[5] % 9;
  std::vector<std::string> types;
  if (data[6] & 1) types.emplace_back(kwq::AVMetadataObjectTypePDF417Code);
  if (data[6] & 2) types.emplace_back(kwq::AVMetadataObjectTypeQRCode);
  if (data[6] & 4) types.emplace_back(kwq::AVMetadataObjectTypeFace);
  const auto layout = static_cast<kwq::PixelLayout>(data[7] % 4);
  const uint8_t* pixels = data + 8;
  const size_t count = size - 8;

  // The frame, its planes laid out as a camera would (wrap refuses planes that do not fit).
  const bool biPlanar = format == kwq::kPixelFormat420f || format == kwq::kPixelFormat420v;
  const size_t rowBytes = (format == kwq::kPixelFormatBGRA ? 4 : 1) * width + pad;
  std::vector<uint8_t> luma = tiled(pixels, count, rowBytes * height);
  const size_t chromaWidth = (width + 1) / 2, chromaHeight = (height + 1) / 2;
  const size_t chromaRow = 2 * chromaWidth + pad;
  std::vector<uint8_t> chroma = tiled(pixels, count, chromaRow * chromaHeight);
  std::vector<kwq::PixelPlane> planes{{luma.data(), rowBytes, width, height}};
  if (biPlanar) planes.push_back({chroma.data(), chromaRow, chromaWidth, chromaHeight});
  const kwq::PixelBuffer buffer =
      kwq::PixelBuffer::wrap(format, width, height, std::move(planes), nullptr);
  const kwq::SampleBuffer frame(buffer, {1, 30}, {1, 30});
  for (const auto& object : kwq::platform::readCodes(frame, types)) {
    const auto& code = dynamic_cast<const kwq::MetadataMachineReadableCodeObject&>(*object);
    for (const kwq::Point& p : code.corners)
      if (!(p.x >= 0 && p.x <= 1 && p.y >= 0 && p.y <= 1)) __builtin_trap();
  }

  // The same bytes as an image.
  const size_t imageRow = kwq::bytesPerPixel(layout) * width + pad;
  const std::vector<uint8_t> bytes = tiled(pixels, count, imageRow * height);
  kwq::platform::readCodes(kwq::Image::copyFromBytes(layout, width, height, imageRow, bytes.data()),
                           types);
  return 0;
}

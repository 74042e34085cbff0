#include <atomic>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "kwqimage/SampleBuffer.h"

namespace kwq {

struct PixelBuffer::State {
  uint32_t format = 0;
  size_t width = 0;
  size_t height = 0;
  std::vector<PixelPlane> planes;
  std::function<void()> release;
  mutable std::atomic<int> locks{0};

  ~State() {
    if (release) release();
  }
};

namespace {

// A frame larger than this is a corrupt size, not a picture; refusing it keeps a bad request
// from exhausting memory.
constexpr size_t kMaxAllocation = size_t{1} << 34;

bool mul(size_t a, size_t b, size_t* out) {
  return !__builtin_mul_overflow(a, b, out);
}

bool isBiPlanar420(uint32_t format) {
  return format == kPixelFormat420f || format == kPixelFormat420v;
}

// Bytes per sample of each plane of a known format; false for other formats.
bool sampleBytes(uint32_t format, size_t plane, size_t* bytes) {
  if (format == kPixelFormatBGRA && plane == 0) {
    *bytes = 4;
    return true;
  }
  if (isBiPlanar420(format) && plane < 2) {
    *bytes = plane == 0 ? 1 : 2;
    return true;
  }
  return false;
}

// The plane sizes a known format needs for width x height; empty for other formats.
std::vector<PixelPlane> planeShapes(uint32_t format, size_t width, size_t height) {
  if (format == kPixelFormatBGRA) return {PixelPlane{nullptr, 0, width, height}};
  if (isBiPlanar420(format))
    return {PixelPlane{nullptr, 0, width, height},
            PixelPlane{nullptr, 0, width / 2 + width % 2, height / 2 + height % 2}};
  return {};
}

}  // namespace

PixelBuffer PixelBuffer::allocate(uint32_t pixelFormat, size_t width, size_t height,
                                  size_t rowAlignment) {
  if (width == 0 || height == 0 || rowAlignment == 0 || (rowAlignment & (rowAlignment - 1)))
    return {};
  std::vector<PixelPlane> planes = planeShapes(pixelFormat, width, height);
  if (planes.empty()) return {};
  size_t total = 0;
  for (size_t i = 0; i < planes.size(); ++i) {
    size_t bpp = 0, row = 0, bytes = 0;
    sampleBytes(pixelFormat, i, &bpp);
    if (!mul(planes[i].width, bpp, &row) || row > SIZE_MAX - rowAlignment) return {};
    planes[i].bytesPerRow = (row + rowAlignment - 1) & ~(rowAlignment - 1);
    if (!mul(planes[i].bytesPerRow, planes[i].height, &bytes) || total > SIZE_MAX - bytes)
      return {};
    total += bytes;
  }
  if (total > kMaxAllocation) return {};
  uint8_t* memory = static_cast<uint8_t*>(std::calloc(total, 1));
  if (!memory) return {};
  size_t offset = 0;
  for (PixelPlane& p : planes) {
    p.baseAddress = memory + offset;
    offset += p.bytesPerRow * p.height;
  }
  PixelBuffer buffer =
      wrap(pixelFormat, width, height, std::move(planes), [memory] { std::free(memory); });
  if (buffer.isNull()) std::free(memory);
  return buffer;
}

PixelBuffer PixelBuffer::wrap(uint32_t pixelFormat, size_t width, size_t height,
                              std::vector<PixelPlane> planes, std::function<void()> release) {
  if (width == 0 || height == 0 || planes.empty()) return {};
  const std::vector<PixelPlane> shapes = planeShapes(pixelFormat, width, height);
  if (!shapes.empty() && planes.size() != shapes.size()) return {};
  for (size_t i = 0; i < planes.size(); ++i) {
    const PixelPlane& p = planes[i];
    size_t row = 0, bytes = 0;
    if (!p.baseAddress || p.width == 0 || p.height == 0 || p.bytesPerRow == 0) return {};
    if (!mul(p.bytesPerRow, p.height, &bytes)) return {};
    if (shapes.empty()) continue;
    size_t bpp = 0;
    sampleBytes(pixelFormat, i, &bpp);
    if (p.width != shapes[i].width || p.height != shapes[i].height) return {};
    if (!mul(p.width, bpp, &row) || p.bytesPerRow < row) return {};
  }
  PixelBuffer buffer;
  buffer.d_ = std::make_shared<State>();
  buffer.d_->format = pixelFormat;
  buffer.d_->width = width;
  buffer.d_->height = height;
  buffer.d_->planes = std::move(planes);
  buffer.d_->release = std::move(release);
  return buffer;
}

uint32_t PixelBuffer::pixelFormat() const {
  return d_ ? d_->format : 0;
}
size_t PixelBuffer::width() const {
  return d_ ? d_->width : 0;
}
size_t PixelBuffer::height() const {
  return d_ ? d_->height : 0;
}
size_t PixelBuffer::planeCount() const {
  return d_ ? d_->planes.size() : 0;
}
size_t PixelBuffer::bytesPerRowOfPlane(size_t plane) const {
  return d_ && plane < d_->planes.size() ? d_->planes[plane].bytesPerRow : 0;
}
size_t PixelBuffer::widthOfPlane(size_t plane) const {
  return d_ && plane < d_->planes.size() ? d_->planes[plane].width : 0;
}
size_t PixelBuffer::heightOfPlane(size_t plane) const {
  return d_ && plane < d_->planes.size() ? d_->planes[plane].height : 0;
}

bool PixelBuffer::lockBaseAddress(uint32_t) const {
  if (!d_) return false;
  d_->locks.fetch_add(1, std::memory_order_acq_rel);
  return true;
}

void PixelBuffer::unlockBaseAddress(uint32_t) const {
  if (!d_) return;
  int n = d_->locks.load(std::memory_order_acquire);
  while (n > 0 && !d_->locks.compare_exchange_weak(n, n - 1, std::memory_order_acq_rel)) {
  }
}

bool PixelBuffer::isLocked() const {
  return d_ && d_->locks.load(std::memory_order_acquire) > 0;
}

uint8_t* PixelBuffer::baseAddressOfPlane(size_t plane) const {
  if (!isLocked() || plane >= d_->planes.size()) return nullptr;
  return d_->planes[plane].baseAddress;
}

}  // namespace kwq

#include "platform/image/frame_blit.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kwq::platform {
namespace {

// The BT.601 16.16 fixed-point arithmetic of frame_image.cc, folded into tables: one lookup
// per sample instead of a multiply. Sums stay within int range for every byte value.
struct Tables {
  std::array<int32_t, 256> y, rv, gu, gv, bu;
};

Tables makeTables(bool fullRange) {
  const int yOffset = fullRange ? 0 : 16, yScale = fullRange ? 65536 : 76309;
  const int rv = fullRange ? 91881 : 104597, gu = fullRange ? -22554 : -25675;
  const int gv = fullRange ? -46802 : -53279, bu = fullRange ? 116130 : 132201;
  Tables t;
  for (int i = 0; i < 256; ++i) {
    t.y[i] = (i - yOffset) * yScale + 32768;
    t.rv[i] = rv * (i - 128);
    t.gu[i] = gu * (i - 128);
    t.gv[i] = gv * (i - 128);
    t.bu[i] = bu * (i - 128);
  }
  return t;
}

const Tables& tables(bool fullRange) {
  static const Tables full = makeTables(true), video = makeTables(false);
  return fullRange ? full : video;
}

inline uint32_t clampShift(int32_t v) {
  v >>= 16;
  return static_cast<uint32_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
}

inline uint32_t pixel(int32_t c, int32_t r, int32_t g, int32_t b) {
  return clampShift(c + b) | clampShift(c + g) << 8 | clampShift(c + r) << 16 | 0xFF000000u;
}

// One row: source columns x .. x + n - 1 into out[0 .. n-1], or reversed.
void nv12Row(const uint8_t* luma, const uint8_t* chroma, size_t x, size_t n, bool mirrored,
             const Tables& t, uint32_t* out) {
  ptrdiff_t step = 1;
  if (mirrored) {
    out += n - 1;
    step = -1;
  }
  size_t col = x;
  const size_t end = x + n;
  if (col < end && (col & 1)) {  // odd start: the second half of a chroma pair
    const uint8_t u = chroma[col - 1], v = chroma[col];
    *out = pixel(t.y[luma[col]], t.rv[v], t.gu[u] + t.gv[v], t.bu[u]);
    out += step;
    ++col;
  }
  for (; col + 1 < end; col += 2) {
    const uint8_t u = chroma[col], v = chroma[col + 1];
    const int32_t r = t.rv[v], g = t.gu[u] + t.gv[v], b = t.bu[u];
    out[0] = pixel(t.y[luma[col]], r, g, b);
    out[step] = pixel(t.y[luma[col + 1]], r, g, b);
    out += 2 * step;
  }
  if (col < end) {
    const uint8_t u = chroma[col], v = chroma[col + 1];
    *out = pixel(t.y[luma[col]], t.rv[v], t.gu[u] + t.gv[v], t.bu[u]);
  }
}

void bgraRow(const uint8_t* src, size_t x, size_t n, bool mirrored, uint32_t* out) {
  if (!mirrored) {
    std::memcpy(out, src + 4 * x, 4 * n);
    return;
  }
  for (size_t i = 0; i < n; ++i) std::memcpy(out + (n - 1 - i), src + 4 * (x + i), 4);
}

}  // namespace

bool blitFrame(const PixelBuffer& frame, size_t x, size_t y, size_t width, size_t height,
               bool mirrored, uint8_t* dst, size_t dstStride) {
  const uint32_t format = frame.pixelFormat();
  const bool nv12 = format == kPixelFormat420f || format == kPixelFormat420v;
  if (!nv12 && format != kPixelFormatBGRA) return false;
  const size_t fw = frame.width(), fh = frame.height();
  if (!dst || width == 0 || height == 0 || x > fw || width > fw - x || y > fh || height > fh - y ||
      dstStride < 4 * width)
    return false;
  if (nv12) {
    const size_t cw = (fw + 1) / 2, ch = (fh + 1) / 2;
    if (frame.planeCount() < 2 || frame.widthOfPlane(0) < fw || frame.heightOfPlane(0) < fh ||
        frame.bytesPerRowOfPlane(0) < fw || frame.widthOfPlane(1) < cw ||
        frame.heightOfPlane(1) < ch || frame.bytesPerRowOfPlane(1) < 2 * cw)
      return false;
  } else if (frame.bytesPerRowOfPlane(0) < 4 * fw || frame.heightOfPlane(0) < fh) {
    return false;
  }
  if (!frame.lockBaseAddress(kPixelBufferLockReadOnly)) return false;
  const uint8_t* plane0 = frame.baseAddressOfPlane(0);
  const uint8_t* plane1 = nv12 ? frame.baseAddressOfPlane(1) : nullptr;
  const bool ok = plane0 && (!nv12 || plane1);
  if (ok) {
    const size_t stride0 = frame.bytesPerRowOfPlane(0);
    const size_t stride1 = nv12 ? frame.bytesPerRowOfPlane(1) : 0;
    const Tables& t = tables(format == kPixelFormat420f);
    for (size_t row = 0; row < height; ++row) {
      const size_t sy = y + row;
      // Canvas rows are 4-byte aligned (Cairo strides are multiples of 4).
      auto* out = reinterpret_cast<uint32_t*>(dst + row * dstStride);
      if (nv12)
        nv12Row(plane0 + sy * stride0, plane1 + (sy / 2) * stride1, x, width, mirrored, t, out);
      else
        bgraRow(plane0 + sy * stride0, x, width, mirrored, out);
    }
  }
  frame.unlockBaseAddress(kPixelBufferLockReadOnly);
  return ok;
}

}  // namespace kwq::platform

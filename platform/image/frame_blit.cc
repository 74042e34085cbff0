#include "platform/image/frame_blit.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <vector>

// The hot loops are compiled twice, for AVX2 and for any x86-64, and the loader picks one. Not
// under ThreadSanitizer: it instruments the picking function, which the loader runs while it
// relocates the program, before the sanitizer's runtime is up (the program crashes at start).
#if defined(__SANITIZE_THREAD__)
#define KWQ_VECTOR_CLONES
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KWQ_VECTOR_CLONES
#endif
#endif
#ifndef KWQ_VECTOR_CLONES
#define KWQ_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#endif

namespace kwq::platform {
namespace {

// The BT.601 16.16 fixed-point arithmetic of frame_image.cc, in the same integer steps (so the
// bytes match), arranged so that the compiler can vectorise it: the chroma terms of a row are
// spread out to one entry per pixel first, then every pixel is plain element-wise arithmetic.
struct Coefficients {
  int32_t yOffset, yScale, rv, gu, gv, bu;
};
constexpr Coefficients kFullRange{0, 65536, 91881, -22554, -46802, 116130};
constexpr Coefficients kVideoRange{16, 76309, 104597, -25675, -53279, 132201};

// Per-row scratch: chroma terms per pixel, and a row for mirroring.
struct RowScratch {
  std::vector<int32_t> r, g, b;
  std::vector<uint32_t> row;
  explicit RowScratch(size_t n) : r(n + 2), g(n + 2), b(n + 2), row(n) {}
};

// Terms of the chroma pairs p0 .. p0 + pairs - 1, each written for both pixels of its pair.
KWQ_VECTOR_CLONES void chromaTerms(const uint8_t* chroma, size_t p0, size_t pairs, Coefficients k,
                                   int32_t* __restrict r, int32_t* __restrict g,
                                   int32_t* __restrict b) {
  for (size_t i = 0; i < pairs; ++i) {
    const int32_t u = chroma[2 * (p0 + i)] - 128, v = chroma[2 * (p0 + i) + 1] - 128;
    const int32_t rr = k.rv * v, gg = k.gu * u + k.gv * v, bb = k.bu * u;
    r[2 * i] = r[2 * i + 1] = rr;
    g[2 * i] = g[2 * i + 1] = gg;
    b[2 * i] = b[2 * i + 1] = bb;
  }
}

inline uint32_t clampShift(int32_t v) {
  v >>= 16;
  return static_cast<uint32_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
}

KWQ_VECTOR_CLONES void lumaPixels(const uint8_t* luma, size_t n, Coefficients k,
                                  const int32_t* __restrict r, const int32_t* __restrict g,
                                  const int32_t* __restrict b, uint32_t* __restrict out) {
  for (size_t i = 0; i < n; ++i) {
    const int32_t c = (luma[i] - k.yOffset) * k.yScale + 32768;
    out[i] =
        clampShift(c + b[i]) | clampShift(c + g[i]) << 8 | clampShift(c + r[i]) << 16 | 0xFF000000u;
  }
}

// One row: source columns x .. x + n - 1 into out[0 .. n-1], or reversed.
void nv12Row(const uint8_t* luma, const uint8_t* chroma, size_t x, size_t n, bool mirrored,
             Coefficients k, RowScratch& s, uint32_t* out) {
  const size_t p0 = x / 2, pairs = (x + n - 1) / 2 - p0 + 1;
  chromaTerms(chroma, p0, pairs, k, s.r.data(), s.g.data(), s.b.data());
  const size_t skip = x - 2 * p0;  // 1 when the block starts on a pair's second pixel
  uint32_t* target = mirrored ? s.row.data() : out;
  lumaPixels(luma + x, n, k, s.r.data() + skip, s.g.data() + skip, s.b.data() + skip, target);
  if (mirrored) std::reverse_copy(s.row.begin(), s.row.begin() + static_cast<ptrdiff_t>(n), out);
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
  std::optional<RowScratch> scratch;
  try {
    if (nv12) scratch.emplace(width);
  } catch (const std::bad_alloc&) {
    return false;
  }
  if (!frame.lockBaseAddress(kPixelBufferLockReadOnly)) return false;
  const uint8_t* plane0 = frame.baseAddressOfPlane(0);
  const uint8_t* plane1 = nv12 ? frame.baseAddressOfPlane(1) : nullptr;
  const bool ok = plane0 && (!nv12 || plane1);
  if (ok) {
    const size_t stride0 = frame.bytesPerRowOfPlane(0);
    const size_t stride1 = nv12 ? frame.bytesPerRowOfPlane(1) : 0;
    const Coefficients k = format == kPixelFormat420f ? kFullRange : kVideoRange;
    for (size_t row = 0; row < height; ++row) {
      const size_t sy = y + row;
      // Canvas rows are 4-byte aligned (Cairo strides are multiples of 4).
      auto* out = reinterpret_cast<uint32_t*>(dst + row * dstStride);
      if (nv12)
        nv12Row(plane0 + sy * stride0, plane1 + (sy / 2) * stride1, x, width, mirrored, k, *scratch,
                out);
      else
        bgraRow(plane0 + sy * stride0, x, width, mirrored, out);
    }
  }
  frame.unlockBaseAddress(kPixelBufferLockReadOnly);
  return ok;
}

}  // namespace kwq::platform

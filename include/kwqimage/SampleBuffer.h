#pragma once

/// @file
/// Camera samples: a pixel buffer (planes of pixel memory) with its timing. The capture layer
/// produces them, the recorder and the frame conversions consume them.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "kwqimage/Export.h"

namespace kwq {

/// The four-character code of a pixel format, first character in the highest byte.
constexpr uint32_t fourCharCode(const char (&code)[5]) {
  return static_cast<uint32_t>(static_cast<unsigned char>(code[0])) << 24 |
         static_cast<uint32_t>(static_cast<unsigned char>(code[1])) << 16 |
         static_cast<uint32_t>(static_cast<unsigned char>(code[2])) << 8 |
         static_cast<uint32_t>(static_cast<unsigned char>(code[3]));
}

/// Bi-planar 4:2:0, full range: a luma plane and an interleaved Cb, Cr plane (NV12).
inline constexpr uint32_t kPixelFormat420f = fourCharCode("420f");  // 875704422
/// The same layout as 420f with video-range values.
inline constexpr uint32_t kPixelFormat420v = fourCharCode("420v");  // 875704438
/// One plane of 32-bit B, G, R, A pixels (alpha premultiplied, bitmap info 8194).
inline constexpr uint32_t kPixelFormatBGRA = fourCharCode("BGRA");  // 1111970369

/// A time on a media timeline: value / timescale seconds; invalid while timescale is 0.
struct MediaTime {
  /// The time in units of 1 / timescale seconds.
  int64_t value = 0;
  /// Units per second; 0 (invalid) by default.
  int32_t timescale = 0;

  /// The invalid time.
  static constexpr MediaTime invalid() { return {}; }
  /// `ns` nanoseconds.
  static constexpr MediaTime fromNanoseconds(int64_t ns) { return {ns, 1000000000}; }
  /// True with a positive timescale.
  constexpr bool isValid() const { return timescale > 0; }
  /// value / timescale; 0.0 when invalid.
  constexpr double seconds() const {
    return isValid() ? static_cast<double>(value) / timescale : 0.0;
  }
  /// Equal value and timescale (1/2 and 2/4 differ).
  friend constexpr bool operator==(const MediaTime&, const MediaTime&) = default;
};

/// One plane of pixel memory: `height` rows of `bytesPerRow` bytes, `width` samples used in
/// each (a Cb, Cr pair counts as one sample of the chroma plane).
struct PixelPlane {
  /// The plane's first byte.
  uint8_t* baseAddress = nullptr;
  /// Bytes from one row to the next.
  size_t bytesPerRow = 0;
  ///@{
  /// Samples per row and rows.
  size_t width = 0;
  size_t height = 0;
  ///@}
};

/// Lock flag: the holder only reads the pixels.
inline constexpr uint32_t kPixelBufferLockReadOnly = 1;

/// Pixel memory of one frame: a shared handle, cheap to copy, null by default.
///
/// The memory lives as long as any copy of the handle. Pixels are reachable only between
/// lockBaseAddress() and the matching unlockBaseAddress(), so a producer can map memory on
/// demand later without changing callers. Handles may be copied and locked from any thread;
/// the pixel memory itself is not synchronised (writers and readers agree among themselves).
class KWQ_EXPORT PixelBuffer {
 public:
  /// The null buffer.
  PixelBuffer() = default;

  /// Allocates zeroed memory for `pixelFormat` (BGRA, 420f or 420v) of width x height, rows
  /// padded to a multiple of `rowAlignment` bytes (a power of two). 420f/420v chroma planes are
  /// ceil(width / 2) x ceil(height / 2) pairs. Null for another format, a zero size, a bad
  /// alignment, sizes whose byte count overflows or exceeds 16 GiB, or when memory runs out.
  static PixelBuffer allocate(uint32_t pixelFormat, size_t width, size_t height,
                              size_t rowAlignment = 64);

  /// Wraps memory owned elsewhere (a mapped GStreamer buffer, a driver's ring buffer).
  /// `release` runs once, on the thread that drops the last handle. The planes must suit the
  /// format: BGRA one plane of width x height with rows of at least 4 x width bytes; 420f/420v
  /// a luma plane of width x height and a chroma plane as allocate() makes it, rows of at least
  /// width and 2 x chroma width bytes; other formats at least one plane. Every plane needs a
  /// non-null address and non-zero sizes. When the planes do not fit, returns null and does not
  /// call `release`: the caller keeps the memory.
  static PixelBuffer wrap(uint32_t pixelFormat, size_t width, size_t height,
                          std::vector<PixelPlane> planes, std::function<void()> release);

  /// True for the null buffer.
  bool isNull() const { return !d_; }
  /// True unless null.
  explicit operator bool() const { return d_ != nullptr; }

  /// The four-character pixel format; 0 for the null buffer.
  uint32_t pixelFormat() const;
  ///@{
  /// Width and height in pixels (those of plane 0); 0 for the null buffer.
  size_t width() const;
  size_t height() const;
  ///@}
  /// Number of planes (1 for BGRA, 2 for 420f); 0 for the null buffer.
  size_t planeCount() const;
  ///@{
  /// Geometry of a plane; 0 for a plane that does not exist.
  size_t bytesPerRowOfPlane(size_t plane) const;
  size_t widthOfPlane(size_t plane) const;
  size_t heightOfPlane(size_t plane) const;
  ///@}

  /// Makes the pixels reachable; locks nest and must be balanced. False for the null buffer.
  bool lockBaseAddress(uint32_t flags = 0) const;
  /// Undoes one lockBaseAddress(); an unbalanced unlock is ignored.
  void unlockBaseAddress(uint32_t flags = 0) const;
  /// True while at least one lock is held.
  bool isLocked() const;
  /// First byte of a plane while the buffer is locked; null when unlocked or no such plane.
  uint8_t* baseAddressOfPlane(size_t plane) const;

  /// True when both handles refer to the same memory.
  bool isSameBuffer(const PixelBuffer& other) const { return d_ && d_ == other.d_; }

  struct State;

 private:
  std::shared_ptr<State> d_;
};

/// One camera sample: a pixel buffer with its presentation time stamp, duration and
/// data-ready flag. A plain value; copies share the pixel buffer.
class KWQ_EXPORT SampleBuffer {
 public:
  /// The null sample (no image buffer).
  SampleBuffer() = default;
  /// A sample of `imageBuffer` with its timing.
  explicit SampleBuffer(PixelBuffer imageBuffer,
                        MediaTime presentationTimeStamp = MediaTime::invalid(),
                        MediaTime duration = MediaTime::invalid(), bool dataReady = true)
      : imageBuffer_(std::move(imageBuffer)),
        presentationTimeStamp_(presentationTimeStamp),
        duration_(duration),
        dataReady_(dataReady) {}

  /// True for the null sample.
  bool isNull() const { return imageBuffer_.isNull(); }
  /// The pixel buffer; the null buffer for the null sample.
  const PixelBuffer& imageBuffer() const { return imageBuffer_; }
  /// When the frame was taken on the camera's clock; invalid when unknown.
  MediaTime presentationTimeStamp() const { return presentationTimeStamp_; }
  /// How long the frame lasts; invalid when unknown.
  MediaTime duration() const { return duration_; }
  /// False while the producer has not finished filling the buffer.
  bool dataIsReady() const { return dataReady_; }

 private:
  PixelBuffer imageBuffer_;
  MediaTime presentationTimeStamp_;
  MediaTime duration_;
  bool dataReady_ = false;
};

}  // namespace kwq

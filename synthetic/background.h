#pragma once

// What the synthetic camera sees behind the props: a wooden desk under uneven light with a few
// things lying on it, or a plain wall. Drawn once per scene.

#include <cstddef>
#include <cstdint>

#include <opencv2/core.hpp>

namespace kwq::synthetic {

/// An opaque BGRA picture of width x height (both at least 1). Its luma stays between about
/// 25 and 145, well below the card stock's, so the card's outline stands out; the clutter has
/// curved and short straight edges but nothing card-shaped.
cv::Mat makeBackground(size_t width, size_t height, uint64_t seed);

/// A grey wall (luma about 100 to 125) lit a little unevenly, with a faint plaster texture:
/// what stands behind a person at a kiosk.
cv::Mat makeWall(size_t width, size_t height, uint64_t seed);

}  // namespace kwq::synthetic

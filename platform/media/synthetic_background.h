#pragma once

// What the synthetic camera sees behind the card: a wooden desk under uneven light with a few
// things lying on it. Drawn once per scene.

#include <cstddef>
#include <cstdint>

#include <opencv2/core.hpp>

namespace kwq::platform {

/// An opaque BGRA picture of width x height (both at least 1). Its luma stays between about
/// 25 and 145, well below the card stock's, so the card's outline stands out; the clutter has
/// curved and short straight edges but nothing card-shaped.
cv::Mat makeBackground(size_t width, size_t height, uint64_t seed);

}  // namespace kwq::platform

#pragma once

// Small helpers shared by the quality measures: C-style truncation that cannot overflow, and an
// in-order single-precision sum that skips the float work while it is provably exact.

#include <cmath>
#include <cstdint>
#include <limits>

namespace kwq::quality {

/// Truncates toward zero like a C cast, but saturates values outside int32 and maps NaN to 0
/// (a plain cast of those is undefined behaviour).
inline int32_t truncToInt32(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483647.0) return std::numeric_limits<int32_t>::max();
  if (v <= -2147483648.0) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(v);
}

/// Truncates toward zero into an unsigned 64-bit value: negatives and NaN give 0, values too
/// large saturate.
inline uint64_t truncToUint64(double v) {
  if (!(v > 0.0)) return 0;
  if (v >= 18446744073709551616.0) return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(v);
}

/// Sums non-negative whole-number terms in single precision, strictly in order, giving exactly
/// what `float sum = 0; for (t : terms) sum += t;` gives. While every partial sum stays at or
/// below 2^24 each float addition is exact, so a run of terms can be added as one integer;
/// only once a run would pass 2^24 must the caller add term by term, in order.
class OrderedFloatSum {
 public:
  /// Adds a whole run given its exact total and returns true, or returns false (adding
  /// nothing) when the caller must add this run's terms one at a time with addTerm.
  bool tryAddRun(uint64_t runTotal) {
    if (!rounding_ && runTotal <= kExactLimit - exact_) {
      exact_ += runTotal;
      return true;
    }
    if (!rounding_) {
      rounding_ = true;
      sum_ = static_cast<float>(exact_);  // exact: at most 2^24
    }
    return false;
  }
  void addTerm(float term) { sum_ += term; }
  /// True once runs must be added term by term.
  bool rounding() const { return rounding_; }
  float value() const { return rounding_ ? sum_ : static_cast<float>(exact_); }

 private:
  static constexpr uint64_t kExactLimit = uint64_t{1} << 24;
  uint64_t exact_ = 0;
  float sum_ = 0.0f;
  bool rounding_ = false;
};

/// Runs `f` and returns its result, or `fallback` if it throws: no exception leaves the
/// library's public functions.
template <class R, class F>
R orOnException(R fallback, F&& f) noexcept {
  try {
    return f();
  } catch (...) {
    return fallback;
  }
}

}  // namespace kwq::quality

#pragma once

/// @file
/// Colours in device RGB.

#include "kwqimage/Export.h"

namespace kwq {

/// A colour in device RGB with straight (not premultiplied) alpha; each component 0.0 to 1.0.
///
/// Drawing clamps components to 0..1 and treats NaN as 0, as the platform's colour objects do.
struct Color {
  ///@{
  /// The components, 0..1.
  double red = 0.0;
  double green = 0.0;
  double blue = 0.0;
  double alpha = 1.0;
  ///@}

  // The platform's named colours.
  ///@{
  /// Named colours, opaque except clearColor() (transparent black).
  static constexpr Color blackColor() { return {0.0, 0.0, 0.0, 1.0}; }
  static constexpr Color whiteColor() { return {1.0, 1.0, 1.0, 1.0}; }
  static constexpr Color redColor() { return {1.0, 0.0, 0.0, 1.0}; }
  static constexpr Color greenColor() { return {0.0, 1.0, 0.0, 1.0}; }
  static constexpr Color blueColor() { return {0.0, 0.0, 1.0, 1.0}; }
  static constexpr Color yellowColor() { return {1.0, 1.0, 0.0, 1.0}; }
  static constexpr Color clearColor() { return {0.0, 0.0, 0.0, 0.0}; }
  ///@}

  /// Exact equality.
  friend constexpr bool operator==(const Color&, const Color&) = default;
};

}  // namespace kwq

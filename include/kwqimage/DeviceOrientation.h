#pragma once

/// @file
/// The device orientation the host reports.

#include <cstdint>

#include "kwqimage/Export.h"

namespace kwq {

/// The physical orientation of the device, as the host reports it.
///
/// A Linux machine has no orientation sensor the library could read, so the host tells the
/// library how its camera is held. Frame conversion (KWQImagingHelper) reads the current value
/// to turn camera frames upright.
///
/// The default is `Unknown` (0), what the platform reports while no sensor is delivering: the
/// conversion then treats frames like portrait ones and turns them a quarter-turn clockwise.
/// A host with a fixed landscape camera whose frames arrive upright sets `LandscapeLeft` and
/// passes the back-camera position (1), which leaves frames unturned.
class KWQ_EXPORT DeviceOrientation {
 public:
  /// Values numbered as the platform numbers them.
  enum Value : int64_t {
    Unknown = 0,
    Portrait = 1,
    PortraitUpsideDown = 2,
    LandscapeLeft = 3,
    LandscapeRight = 4,
    FaceUp = 5,
    FaceDown = 6,
  };

  /// The orientation last set (any value is kept, also ones outside the list). Thread: any.
  static int64_t current();
  /// Sets the orientation the library sees from now on. Thread: any.
  static void setCurrent(int64_t orientation);
};

}  // namespace kwq

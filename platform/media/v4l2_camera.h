#pragma once

// V4L2 webcams: v4l2src ! [size filter] ! decodebin (raw or MJPEG modes), controls through
// V4L2 ioctls on the device node (see v4l2_controls.h), found with GstDeviceMonitor.
//
// Position rule: a camera that reports its orientation (V4L2_CID_CAMERA_ORIENTATION front or
// back) has that position. Among the others, in device-path order, the first faces the user
// (front, 2) — a lone webcam on a laptop or monitor does — the second is taken as the back
// camera (1; a second camera is usually the one pointed at documents), later ones are
// unspecified (0).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kwqimage/CaptureDevice.h"
#include "kwqimage/Geometry.h"

namespace kwq::platform {

/// A device for the V4L2 capture node at `path`; null when it cannot be opened or does not
/// capture video. `position` none applies the orientation control, else front.
std::shared_ptr<CaptureDevice> makeV4l2Camera(const std::string& path,
                                              std::optional<int64_t> position);

/// Positions for cameras in device-path order, from the orientation each reports (none when it
/// does not): the rule above.
std::vector<int64_t> assignV4l2Positions(const std::vector<std::optional<int64_t>>& reported);

/// Orders device paths as people count them: "/dev/video2" before "/dev/video10".
bool devicePathLess(const std::string& a, const std::string& b);

/// The session preset sizes a camera can film, given the frame sizes it lists (empty: unknown,
/// every preset allowed, the pipeline scales): a fixed preset needs its exact size; High is the
/// largest listed size of at most 1920 x 1080 (1280 x 720 when none is known).
std::optional<Size> v4l2SizeForPreset(const std::vector<Size>& sizes, std::string_view preset);

}  // namespace kwq::platform

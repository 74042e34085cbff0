#pragma once

// Which camera `kwq capture` films with, and how it is made.

#include <memory>
#include <ostream>

#include <kwqimage/CaptureDevice.h>

#include "kwq/capture_options.h"

namespace kwq::tool {

/// The camera the options name, set up for the run: a synthetic camera films the portrait in
/// face mode and has the glare and dim light asked for. It is made the first device of its
/// position (the engine takes that one), with a synthetic partner of the other position when
/// the run switches cameras. Null after one line on `err` (exit 2): an unknown camera, a file
/// without video, or synthetic settings for a camera that is not synthetic.
std::shared_ptr<CaptureDevice> setUpCamera(const CaptureOptions& options, std::ostream& err);

}  // namespace kwq::tool

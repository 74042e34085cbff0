#pragma once

// The library's timers are public (kwqimage/Timer.h); the platform layer knows them by this
// name too.

#include "kwqimage/Timer.h"

namespace kwq::platform {

using Timer = kwq::Timer;

}  // namespace kwq::platform

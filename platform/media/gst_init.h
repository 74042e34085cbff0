#pragma once

// GStreamer is initialised once per process, by the first platform piece that needs it.

#include <string>

namespace kwq::platform {

/// Initialises GStreamer the first time it is called (thread-safe, once only) and reports
/// whether it is usable; when it is not, `error` (if given) receives the reason. Thread: any.
bool ensureGStreamer(std::string* error = nullptr);

}  // namespace kwq::platform

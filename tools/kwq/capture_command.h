#pragma once

#include <ostream>

#include "kwq/capture_options.h"

namespace kwq::tool {

/// `kwq capture`: runs the capture engine on a camera, shows progress (frames, fps, dropped
/// frames, stable-card frames or faces, decoded code text) and prints a summary table (or
/// JSON): frames, faces and their angles, codes read, metadata rates and latency. Runs and pumps
/// GLib's default main context on the calling thread; Ctrl-C ends the run early with the
/// summary. Returns the exit code: 0; 1 when the camera delivered nothing, the card never
/// became stable while a snapshot was asked for, or a snapshot, still, preview or movie could
/// not be saved, or the camera failed or could not start; 2 for options that cannot work (an
/// unknown camera, an unwritable path); 3 (kExitCameraDisconnected) when the camera was
/// unplugged during the run: it says so, naming the camera, and a recording is finished as a
/// playable movie.
inline constexpr int kExitCameraDisconnected = 3;
int runCapture(const CaptureOptions& options, std::ostream& out, std::ostream& err);

}  // namespace kwq::tool

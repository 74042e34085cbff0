#pragma once

#include <optional>
#include <ostream>
#include <string>

namespace kwq::tool {

/// What `kwq view` runs.
struct ViewOptions {
  /// Quit this many seconds after the window opened; none: until the window is closed.
  std::optional<double> seconds;
  /// Save the window's picture here (PNG) just before quitting; empty: no screenshot.
  std::string screenshot;
  /// Folder for the stills (kwq-still-N.png).
  std::string stillsDir = ".";
};

/// `kwq view`: a window with the simple capture view on the default camera, a progress circle
/// showing how close the card is to being stable, and buttons (keys) for a still (S), switching
/// camera (C), recording (R) and quitting (Q). Prints what it saved and a closing line with the
/// frames shown per second. Runs Qt's event loop on the calling thread, which must be the
/// process's first. Returns the exit code: 0; 1 when the screenshot could not be saved; 2 when
/// there is no display.
int runView(int argc, char** argv, const ViewOptions& options, std::ostream& out,
            std::ostream& err);

}  // namespace kwq::tool

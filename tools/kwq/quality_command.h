#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace kwq::tool {

/// `kwq quality [FILE...]`: one table row per image with its size, calculateFocus,
/// calculateFocusScore(1, 1, 10) and calculateBrightness. Colour files are measured in BGRA,
/// the layout of camera frames; gray files stay gray. With no files, the built-in samples are
/// scored. A file that cannot be read gets one line on `err` and the rest are still scored.
/// Returns the process exit code: 0, or 1 when any file could not be read.
int runQuality(const std::vector<std::string>& files, std::ostream& out, std::ostream& err);

}  // namespace kwq::tool

#pragma once

// Switch for the shortcuts of the drawing code: right-angle turns and plain copies that give
// the same bytes as the general path, and resizes that take the same samples with OpenCV's
// finer rounding. On by default; tests turn them off to compare both paths.

namespace kwq::platform {

/// Thread: any; takes effect for draws that start afterwards.
void setExactShortcutsEnabled(bool enabled);
bool exactShortcutsEnabled();

}  // namespace kwq::platform

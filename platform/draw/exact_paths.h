#pragma once

// Switch for the exact shortcuts of the drawing code (plain copies, resizes and right-angle
// turns that give the same pixels as the general path). On by default; tests turn them off to
// compare both paths.

namespace kwq::platform {

/// Thread: any; takes effect for draws that start afterwards.
void setExactShortcutsEnabled(bool enabled);
bool exactShortcutsEnabled();

}  // namespace kwq::platform

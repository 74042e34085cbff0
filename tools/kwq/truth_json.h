#pragma once

// A synthetic frame's ground truth as the tool writes it beside each frame's results.

#include <kwqimage/SyntheticCamera.h>

#include "kwq/json.h"

namespace kwq::tool {

/// {"props": [{"kind": "card", "name": "card", "corners": [[x, y] x4], "whole": true,
/// "tilt": 3.2, "roll": -1.5, "codes": [{"type": "PDF417", "text": "...", "corners": [...]}],
/// "face": {"box": [x, y, w, h], "roll": 30, "whole": true} or null, "glare": [x, y, r] or
/// null}, ...], "exposure": 1}: the props in view, in frame pixels with a top-left origin.
Json truthJson(const SyntheticFrameTruth& truth);

}  // namespace kwq::tool

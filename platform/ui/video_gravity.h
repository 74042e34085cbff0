#pragma once

// Where a preview's video lies in its layer, shared by the preview layer's metadata mapping and
// the renderer, so overlays land on the picture exactly.

#include <string_view>

#include "kwqimage/Geometry.h"

namespace kwq::platform {

/// The rectangle `video` takes in `bounds` under `gravity`: stretched to the bounds (Resize),
/// fitted whole and centred (ResizeAspect, any other name), or filling the bounds and centred,
/// extending past two sides (ResizeAspectFill). The null rectangle for an empty video size.
Rect videoRectForGravity(const Rect& bounds, Size video, std::string_view gravity);

}  // namespace kwq::platform

#pragma once

// The portrait prop's photograph: the part of it the scene shows, ready to draw at any size.

#include <string>

#include "kwqimage/Geometry.h"
#include "synthetic/printed.h"

namespace kwq::synthetic {

/// Reads the photograph and keeps `crop` of it (an empty crop: the whole photograph; a crop
/// reaching outside it: clipped to it) as opaque BGRA at halving levels, so a small face is
/// drawn from a level not much larger than it (no shimmer from skipped pixels). The texture's
/// units are the photograph's pixels, from the crop's top-left corner; `shown` gets the crop
/// used. An empty texture when the file is missing, undecodable or the crop is empty.
Texture loadPhotoTexture(const std::string& path, const Rect& crop, Rect* shown);

}  // namespace kwq::synthetic

#pragma once

/// @file
/// Drawing a layer or view tree into an image, for a host's window or a snapshot.

#include "kwqimage/Export.h"
#include "kwqimage/Geometry.h"
#include "kwqimage/Image.h"
#include "kwqimage/Layer.h"
#include "kwqimage/View.h"

namespace kwq {

/// Renders `layer` and its visible sublayers as they look at `time` (currentMediaTime()
/// seconds; running animations are sampled there) into a new BGRA32Premultiplied image of
/// `pixels` (rounded up to whole pixels), transparent where nothing is drawn. The layer's
/// bounds fill the image, each axis scaled on its own; its own transform turns it about its
/// centre. Per layer, bottom to top: background colour, contents (a preview layer's newest
/// frame placed by its gravity, mirrored for a front camera), a shape layer's path, the
/// sublayers in order (clipped to the bounds with masksToBounds), then the border, drawn
/// inside the bounds. Transforms are shown without perspective; a layer turned edge-on draws
/// nothing. The null image when `pixels` gives no pixel or a side over 32767.
/// Thread: the thread that changes the tree, normally the main thread.
KWQ_EXPORT Image renderLayer(const Layer& layer, Size pixels, double time);

/// renderLayer() of the view's layer.
KWQ_EXPORT Image renderView(const View& view, Size pixels, double time);

}  // namespace kwq

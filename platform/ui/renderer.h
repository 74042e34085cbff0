#pragma once

// The layer renderer's insides: the frame a preview layer shows can be supplied, so tests and
// benchmarks draw known frames without a running camera.

#include <functional>

#include "kwqimage/Image.h"
#include "kwqimage/Layer.h"
#include "kwqimage/SampleBuffer.h"

typedef struct _cairo cairo_t;

namespace kwq::platform {

/// The frame a preview layer shows; the null sample for none (the layer shows its background).
using PreviewFrameSource = std::function<SampleBuffer(const PreviewLayer&)>;

/// The newest frame of the preview layer's running session.
SampleBuffer sessionPreviewFrame(const PreviewLayer& layer);

/// renderLayer() with the preview frames taken from `frames`.
Image renderLayerTree(const Layer& root, Size pixels, double time,
                      const PreviewFrameSource& frames);

/// Adds `path`'s subpaths to Cairo's current path; subpaths whose last point repeats the first
/// are closed. Subpaths with points that are not finite or lie beyond a million points are
/// left out (Cairo's fixed-point coordinates would wrap).
void appendPath(cairo_t* cr, const Path& path);

/// Cairo's source colour: components clamped to 0..1, NaN as 0.
void setSourceColor(cairo_t* cr, const Color& color);

}  // namespace kwq::platform

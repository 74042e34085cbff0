// Where metadata enters the engine. The metadata step (widest face, barcode text and outline)
// is built on this entry point; until it is, the engine receives metadata and keeps nothing of
// it. Frames enter through the per-frame step (KWQVideoHelperFrames.cc).

#include "capture/KWQVideoHelperState.h"

namespace kwq {

void KWQVideoHelper::captureOutput(MetadataOutput&, const MetadataObjects&, CaptureConnection&) {}

}  // namespace kwq

// Where capture results enter the engine. The per-frame step (recording, overlay clearing,
// card detection, the delegate's frame call) and the metadata step (widest face, barcode text
// and outline) are built on these two entry points; until they are, the engine receives
// frames and metadata and keeps nothing of them.

#include "capture/KWQVideoHelperState.h"

namespace kwq {

void KWQVideoHelper::captureOutput(VideoDataOutput&, const SampleBuffer&, CaptureConnection&) {}

void KWQVideoHelper::captureOutput(MetadataOutput&, const MetadataObjects&, CaptureConnection&) {}

}  // namespace kwq

#pragma once

// What a metadata output finds in its frames: faces followed by a live face recogniser of its
// own, codes read by the code reader. Installed in every metadata output when it is made.

#include "platform/media/capture_internal.h"

namespace kwq::platform {

/// A recogniser for one metadata output. Faces are looked for only while "face" is requested,
/// codes only while a code type is; faces come first in the result, then codes. The face
/// recogniser is made when faces are first requested and dropped when they no longer are
/// (tracking starts afresh), or when a frame's time stamp goes backwards or jumps by more
/// than a second (a new run of the session, another camera). A PDF417 text is reported from its
/// second read: the same text read on an earlier frame within 2 s (frames without a valid time
/// stamp are not checked). A machine-readable zone (KWQMetadataObjectTypeMRZ) is reported when
/// read the same on an earlier frame within 2 s (never on frames without a time stamp). Runs on the
/// output's worker, one frame at a time.
MetadataOutput::Impl::Recognizer makeMetadataRecognizer();

}  // namespace kwq::platform

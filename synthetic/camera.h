#pragma once

// The synthetic camera: a live GStreamer source (appsrc) that films a synthetic scene at the
// session preset's size and 30 frames a second, and simulates focus, torch and flash.
//
// Frame n of a camera carries the time stamp n / 30 s (frame numbers go on across runs, and
// skip when rendering falls behind real time), so every delivered frame can be matched with
// its ground truth and with the effects its controls had.
//
// The simulated controls: the lens starts out of focus; an auto-focus pass (one-shot or
// continuous) takes 6 frames (0.2 s), during which the picture is blurred a little, and leaves
// the lens in focus unless the range is restricted to far subjects (the props are near), in
// which case it stays out of focus. Locked focus keeps the lens where it is. The torch
// multiplies the light by 1 + 0.5 x level; a flash fired for a still (flash mode on or auto)
// multiplies the next frame's light by 1.8. White balance and exposure modes are kept but
// change nothing.

#include <memory>
#include <optional>

#include "kwqimage/CaptureDevice.h"
#include "kwqimage/SampleBuffer.h"
#include "platform/media/camera_backend.h"
#include "synthetic/renderer.h"

namespace kwq::synthetic {

std::shared_ptr<platform::CameraBackend> makeSyntheticCameraBackend(SyntheticCameraOptions options);

/// The effects the simulated controls put on a frame `device` delivered; none for other
/// cameras and for frames older than the last 256.
std::optional<CameraEffects> syntheticFrameEffects(const CaptureDevice& device,
                                                   const SampleBuffer& frame);

}  // namespace kwq::synthetic

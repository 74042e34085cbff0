#pragma once

// Video files as cameras: filesrc ! decodebin, the first video stream, looped with segment
// seeks so that time stamps keep rising across loops, paced by the pipeline clock at the
// file's own frame rate.

#include <memory>
#include <string>

#include "platform/media/camera_backend.h"

namespace kwq::platform {

/// A backend for the video at `path`; null when the file is missing or has no video GStreamer
/// can decode (examined here, with a time limit of 5 seconds).
std::shared_ptr<CameraBackend> makeFileCameraBackend(const std::string& path);

}  // namespace kwq::platform

#pragma once

// What a kind of camera (synthetic, file, V4L2) gives the capture layer: its controls, the
// sizes it films, and a GStreamer source element for each run of a session.

#include <gst/gst.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kwqimage/Geometry.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq::platform {

/// The modes a camera supports.
struct CameraCapabilities {
  std::vector<int64_t> focusModes;
  bool autoFocusRangeRestriction = false;
  std::vector<int64_t> whiteBalanceModes;
  std::vector<int64_t> exposureModes;
  std::vector<int64_t> flashModes;  // empty: no flash
  std::vector<int64_t> torchModes;  // empty: no torch
  float maxAvailableTorchLevel = 0.0f;
};

/// A camera's control state, as the device holds it.
struct CameraControls {
  int64_t focusMode = 0;
  int64_t autoFocusRangeRestriction = 0;
  int64_t whiteBalanceMode = 0;
  int64_t exposureMode = 0;
  int64_t flashMode = 0;
  int64_t torchMode = 0;
  float torchLevel = 0.0f;
};

/// One run of a camera inside a capture pipeline. The pipeline calls the hooks from the thread
/// that starts and stops the session, and handleBusMessage() from whichever thread posts it.
class CameraSource {
 public:
  virtual ~CameraSource() = default;
  /// The source: an element (usually a bin) with one always-pad "src" giving raw video. The
  /// pipeline adds it to itself once, taking the floating reference.
  virtual GstElement* element() = 0;
  /// Live sources (cameras) pace themselves; others are paced by the pipeline's clock.
  virtual bool isLive() const = 0;
  /// The pipeline has prerolled (non-live sources) and is about to play.
  virtual void willPlay(GstElement* pipeline) {}
  /// The pipeline plays.
  virtual void didStart() {}
  /// The pipeline is about to stop; producer threads end here.
  virtual void willStop() {}
  /// Every message of the pipeline's bus, on the posting thread (never block).
  virtual void handleBusMessage(GstElement* pipeline, GstMessage* message) {}
};

/// A kind of camera. Methods may be called from any thread.
class CameraBackend {
 public:
  virtual ~CameraBackend() = default;
  virtual CameraCapabilities capabilities() const = 0;
  /// The control state the camera starts in.
  virtual CameraControls initialControls() const { return {}; }
  /// Frame size for a session preset; none when the camera cannot film it.
  virtual std::optional<Size> sizeForPreset(std::string_view preset) const = 0;
  /// A source filming at width x height (the camera may deliver another size; the pipeline
  /// scales). Null, with a reason, when the camera cannot run.
  virtual std::unique_ptr<CameraSource> makeSource(size_t width, size_t height,
                                                   std::string* error) = 0;
  /// Takes the device's new control state. `focusPassRequested`: a one-shot auto-focus pass
  /// was asked for with this change. Called with the device's state lock held: quick, and
  /// never calls back into the device.
  virtual void applyControls(const CameraControls& controls, bool focusPassRequested) {}
  /// A still is about to be taken: fire the flash if the controls ask for it. Returns the
  /// earliest time stamp (ns) of a frame that shows the flash, or -1 when any frame will do.
  virtual int64_t prepareStill(const CameraControls& controls) { return -1; }
  /// A camera whose largest picture is larger than the stream's: that size. The session then
  /// takes a still by stopping the stream for a moment and filming one frame at this size
  /// (a webcam can film one size at a time). None: stills come from the stream.
  virtual std::optional<Size> stillSize() const { return std::nullopt; }
  /// The still of `streamFrame` at the camera's full resolution, in BGRA with the stream
  /// frame's time stamps; the null sample when the camera takes stills at its stream size.
  virtual SampleBuffer fullResolutionStill(const SampleBuffer& streamFrame) { return {}; }

  /// False once the camera has gone from the machine (unplugged). Thread: any.
  virtual bool isConnected() const { return true; }

  /// Set by the device before any source runs: call when a one-shot auto-focus pass is over
  /// (the device then reads locked). Called without any backend lock held.
  std::function<void()> onFocusPassFinished;
};

/// The fixed sizes of the sized presets; none for High and for unknown presets.
std::optional<Size> fixedPresetSize(std::string_view preset);
/// True for the presets the capture layer knows.
bool isKnownPreset(std::string_view preset);

}  // namespace kwq::platform

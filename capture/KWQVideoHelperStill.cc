// Still pictures and camera switching: a still goes through the still output and the frame
// queue to the delegate; a switch swaps the session's camera between front and back inside one
// configuration transaction, optionally behind a quarter-turn flip of the preview.

#include <numbers>

#include "capture/KWQVideoHelperState.h"
#include "kwqimage/KWQImagingHelperClass.h"

namespace kwq {

void KWQVideoHelper::takeStillPicture() {
  State& d = *d_;
  if (!d.stillImageOutput) return;
  auto connection = d.stillImageOutput->connectionWithMediaType(AVMediaTypeVideo);
  if (connection) connection->setVideoScaleAndCropFactor(1.0);  // no digital zoom
  d.stillImageOutput->setOutputSettings(kPixelFormatBGRA);
  // The completion keeps the engine, and with it the running session, until the still is
  // delivered: a host may let go of the engine as soon as it has asked for a picture (the
  // simple capture view counts on a late still arriving). The engine goes when the completion
  // does, on the thread that ran it.
  d.stillImageOutput->captureStillImageAsynchronouslyFromConnection(
      connection, [self = shared_from_this()](const SampleBuffer& still,
                                              const std::optional<std::string>& error) {
        if (error) return;  // a failed still is not reported
        // On the frame queue, so a still never overlaps a frame step.
        self->d_->videoDataOutputQueue->sync([&] {
          const auto camera = self->device();
          // Converted even when nobody listens, as the conversion mirrors front stills.
          const Image image = KWQImagingHelper::makeUIImageFromCMSampleBuffer(
              still, camera ? camera->position() : 0);
          const auto delegate = self->delegate();
          if (auto* listener = dynamic_cast<KWQStillImageDelegate*>(delegate.get()))
            listener->getNewStillImage(image);
        });
      });
}

void KWQVideoHelper::toggleCameraWithAnimation(bool animate) {
  State& d = *d_;
  if (!d.session) return;
  const auto devices = CaptureDevice::devices();
  d.session->beginConfiguration();
  std::shared_ptr<CaptureDevice> back, front;
  for (const auto& device : devices) {
    if (!device || !device->hasMediaType(AVMediaTypeVideo)) continue;
    if (device->position() == AVCaptureDevicePositionBack)
      back = device;  // the last camera of a position counts
    else if (device->position() == AVCaptureDevicePositionFront)
      front = device;
  }
  const auto inputs = d.session->inputs();
  if (!inputs.empty()) d.session->removeInput(inputs.front());
  const auto frontInput = CaptureDeviceInput::deviceInputWithDevice(front);
  const auto backInput = CaptureDeviceInput::deviceInputWithDevice(back);

  // Anything but the front camera switches to the front one. A camera that cannot be added
  // leaves the session without one, and the device as it was.
  const auto current = device();
  const bool toFront = !current || current->position() != AVCaptureDevicePositionFront;
  const auto& input = toFront ? frontInput : backInput;
  if (d.session->canAddInput(input)) {
    d.session->addInput(input);
    setDevice(toFront ? front : back);
  }
  d.session->commitConfiguration();

  if (!animate) return;
  DispatchQueue::main().async([self = shared_from_this()] {
    auto preview = self->previewLayer();
    if (!preview) return;
    // A quarter turn about the vertical axis and back, 0.2 s in all: the layer shows edge-on
    // at the moment the picture changes.
    BasicAnimation flip = BasicAnimation::animationWithKeyPath("transform");
    flip.toValue = Transform3D::makeRotation(std::numbers::pi / 2, 0, 1, 0);
    flip.duration = 0.1;
    flip.autoreverses = true;
    preview->addAnimation(flip, "transform");
  });
}

}  // namespace kwq

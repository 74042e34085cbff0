// The per-frame step: the recorder's hand-off, the clearing of stale overlays, card detection
// and the delegate's frame call; and the EXIF orientation codes.

#include <exception>
#include <string>

#include "capture/KWQVideoHelperState.h"
#include "kwqimage/KWQCameraRollHelper.h"
#include "kwqimage/Log.h"

namespace kwq {

void KWQVideoHelper::captureOutput(VideoDataOutput&, const SampleBuffer& sampleBuffer,
                                   CaptureConnection&) {
  State& d = *d_;
  // A host callback that throws must not take the frame queue with it; the frame is lost.
  try {
    // 1. The recorder sees every frame first, whatever else the frame leads to (also with no
    // delegate). Its refusals are its own to log.
    if (d.recordCameraData) KWQCameraRollHelper::getInstance().appendCameraData(sampleBuffer);

    // The mode is read once, so one frame never mixes the two modes' rules.
    const bool cardMode = d.shouldDetectCardRect;

    // 2. The tracked rectangle as it stands before this frame's detection.
    Rect tracked, barcode;
    {
      std::lock_guard lock(d.mutex);
      tracked = cardMode ? d.card.cardRect : d.faceRect;
      barcode = d.barcodeRect;
    }

    // Queued layer work keeps the engine alive until it has run.
    const std::shared_ptr<KWQVideoHelper> self = weak_from_this().lock();

    // 3. Nothing tracked: the centre box turns red and the face box goes, so the next face
    // gets a fresh box.
    if (tracked == Rect::zero() && self) {
      DispatchQueue::main().async([self] {
        State& s = *self->d_;
        std::shared_ptr<Layer> center, primary;
        {
          std::lock_guard lock(s.mutex);
          center = s.centerLayer;
          primary = std::move(s.primaryLayer);
          s.primaryLayer = nullptr;
        }
        if (center) center->setBorderColor(Color::redColor());
        if (primary) primary->removeFromSuperlayer();
      });
    }

    // 4. No code outlined in face mode: the text is cleared at once, the outline on the main
    // queue. Card mode keeps the last text for the delegate.
    if (barcode == Rect::zero() && !cardMode) {
      d.set(&State::parsedData, std::string());
      if (self) {
        DispatchQueue::main().async([self] {
          std::shared_ptr<ShapeLayer> outline;
          {
            State& s = *self->d_;
            std::lock_guard lock(s.mutex);
            outline = std::move(s.barcodeLineLayer);
            s.barcodeLineLayer = nullptr;
          }
          if (outline) outline->removeFromSuperlayer();
        });
      }
    }

    // 5. The delegate's frame call and card capture, when it takes them. Detection lives
    // inside this branch: a host without either callback pays nothing for card mode, and only
    // a host that takes card captures pays for flattening and measuring the card.
    const std::shared_ptr<KWQVideoHelperDelegate> delegate = d.get(&State::delegate).lock();
    auto* frameDelegate = dynamic_cast<KWQFrameDelegate*>(delegate.get());
    auto* cardDelegate = cardMode ? dynamic_cast<KWQCardCaptureDelegate*>(delegate.get()) : nullptr;
    if (!frameDelegate && !cardDelegate) return;

    if (cardMode) {
      // Only this queue makes the detector, once; it is kept for the engine's life.
      std::shared_ptr<const platform::RectangleDetector> detector = d.get(&State::rectDetector);
      if (!detector) {
        detector = makeCardRectangleDetector();
        d.set(&State::rectDetector, detector);
      }
      // The detector reads the frame's own pixels (NV12 luma in place) without the lock; the
      // arithmetic then runs under it, so a host's clear or threshold change lands before or
      // after a frame, never inside one.
      const auto features = detector ? detector->featuresInImage(sampleBuffer)
                                     : std::vector<platform::RectangleFeature>{};
      Rect card;
      int32_t accepted = 0;
      {
        std::lock_guard lock(d.mutex);
        performRectangleDetection(d.card, features);
        card = d.card.cardRect;
        accepted = d.card.consecutiveDetectionFrames;
      }
      if (cardDelegate) {
        // The detector reports one feature; a positive count after this frame's step means it
        // was accepted as a card, and a published card rect that it is stable. A rejected one
        // (a tilted card, or a rectangle of another shape) is judged by its shape.
        const platform::RectangleFeature* seen = features.empty() ? nullptr : &features.front();
        const CardCaptureSettings settings = cardDelegate->cardCaptureSettings();
        CardCapture live = analyseCard(sampleBuffer, seen, accepted > 0 && card != Rect::zero(),
                                       d.get(&State::parsedData), settings);
        const CardCapture& best = d.cardKeeper.offer(live, d.cardCaptureFrames++, settings);
        cardDelegate->cardCaptureDidUpdate(live, best);
      }
      if (card == Rect::zero() || !frameDelegate) return;
      frameDelegate->getLastSampleBuffer(sampleBuffer, card, d.yawAngle, d.rollAngle,
                                         d.get(&State::parsedData));
    } else {
      frameDelegate->getLastSampleBuffer(sampleBuffer, d.get(&State::faceRect), d.yawAngle,
                                         d.rollAngle, d.get(&State::parsedData));
    }
  } catch (const std::exception& e) {
    log(std::string("KWQVideoHelper: frame dropped: ") + e.what());
  } catch (...) {
    log("KWQVideoHelper: frame dropped: unknown exception");
  }
}

void KWQVideoHelper::clearCardRectData() {
  std::lock_guard lock(d_->mutex);
  kwq::clearCardRectData(d_->card);
}

int32_t KWQVideoHelper::exifOrientationFromUIImageOrientation(int64_t orientation) {
  // Image orientations 0..7 (up, down, left, right, then the mirrored four) to EXIF codes;
  // left is 8 and right 6, not the other way round.
  static constexpr int32_t kExif[8] = {1, 3, 8, 6, 2, 4, 5, 7};
  if (orientation < 0 || orientation > 7) return 1;
  return kExif[orientation];
}

}  // namespace kwq

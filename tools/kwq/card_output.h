#pragma once

// `kwq capture --out DIR`: the engine's card captures, kept while the run goes on and written
// at its end as DIR/card.png (the best flattened card) and DIR/card.json; with --record, the
// per-frame analysis as JSON lines beside the movie.

#include <atomic>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include <kwqimage/KWQCardCapture.h>
#include <kwqimage/KWQVideoHelperDelegate.h>

namespace kwq::tool {

/// The engine's delegate when card captures are wanted: takes the card captures and passes
/// the frame call, and a still picture when `frames` takes one, on to `frames`.
class CardOutput final : public KWQFrameDelegate,
                         public KWQCardCaptureDelegate,
                         public KWQStillImageDelegate {
 public:
  /// `keepFrames`: also keep one JSON line per frame for the sidecar.
  CardOutput(std::shared_ptr<KWQFrameDelegate> frames, bool keepFrames);

  // Frame queue.
  void getLastSampleBuffer(const SampleBuffer& sample, Rect rect, double yaw, double roll,
                           const std::optional<std::string>& code) override;
  void cardCaptureDidUpdate(const CardCapture& live, const CardCapture& best) override;
  void getNewStillImage(const Image& image) override;

  /// The latest frame's guidance word ("-" before the first frame). Thread: any.
  std::string guidance() const;

  /// Writes DIR/card.png and DIR/card.json (creating DIR); false with a reason on `err` when
  /// no card was captured or a file cannot be written. Thread: any, after the run.
  bool write(const std::string& dir, std::ostream& err) const;
  /// Writes the kept per-frame lines to `path`. Thread: any, after the run.
  bool writeFrames(const std::string& path, std::ostream& err) const;

 private:
  std::shared_ptr<KWQFrameDelegate> frames_;
  bool keepFrames_;
  std::atomic<CardGuidance> guidance_{CardGuidance::NoCard};
  std::atomic<bool> started_{false};
  mutable std::mutex mutex_;
  CardCapture best_;
  std::vector<std::string> lines_;
};

/// The JSON object card.json holds for `capture`.
std::string cardCaptureJson(const CardCapture& capture);

}  // namespace kwq::tool

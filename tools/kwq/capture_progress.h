#pragma once

// The live line of a `kwq capture` run: frames, fps, dropped frames, stable cards or faces,
// the code read, and the card guidance when card captures are kept.

#include <cstddef>
#include <ostream>
#include <string>

#include <kwqimage/KWQVideoHelper.h>

#include "kwq/capture_monitor.h"
#include "kwq/capture_options.h"
#include "kwq/card_output.h"

namespace kwq::tool {

/// A code's text for a terminal line: a licence record by its number and holder, any other
/// text with control characters spelt out (\n, \x1e) and cut to `width` characters.
std::string printableCode(const std::string& text, size_t width);

/// Prints the progress line: rewritten in place on a terminal (options.liveProgress), else one
/// line a second; and always once more at the end.
class CaptureProgress {
 public:
  CaptureProgress(std::ostream& out, const CaptureOptions& options, bool synthetic,
                  Clock::time_point start);

  /// Main thread, on every tick of the run loop; `card`: the card captures, if kept.
  void update(const CaptureMonitor& monitor, const KWQVideoHelper& engine, const CardOutput* card,
              Clock::time_point now, bool done);

 private:
  std::string line(const CaptureMonitor& monitor, const KWQVideoHelper& engine,
                   Clock::time_point now) const;

  std::ostream& out_;
  const CaptureOptions& options_;
  const bool synthetic_;
  const Clock::time_point start_;
  Clock::time_point lastPrint_;
  size_t lastWidth_ = 0;
};

}  // namespace kwq::tool

#pragma once

// The files a `kwq capture` run writes at its end: a still, the preview, the recorded movie
// with its per-frame card analysis, and the snapshot of the first stable-card frame.

#include <ostream>
#include <set>
#include <string>

#include <kwqimage/KWQVideoHelper.h>
#include <kwqimage/View.h>

#include "kwq/capture_monitor.h"
#include "kwq/capture_results.h"
#include "kwq/card_output.h"

namespace kwq::tool {

/// Takes a still picture with the running camera, waits up to 5 s for it (pumping the main
/// context) and saves it as PNG; false after one line on `err`.
bool saveStill(KWQVideoHelper& engine, const CaptureMonitor& monitor, const std::string& path,
               std::ostream& err);

/// Renders `view` as it stands now (after the main thread's queued layer changes) to PNG;
/// false after one line on `err`.
bool savePreview(const View& view, Size size, const std::string& path, std::ostream& err);

/// The movie a recording run leaves in the photo library.
class RecordedMovie {
 public:
  /// Before the run: notes the movies already there.
  RecordedMovie();
  /// After the run: waits for the recorder's saves, then adds the new movie, its size and
  /// (with `card`) the per-frame analysis beside it to `results`. False after one line on
  /// `err` when no movie was saved.
  bool addTo(CaptureResults& results, const CardOutput* card, std::ostream& err) const;

 private:
  std::string folder_;
  std::set<std::string> before_;
};

/// Saves the first stable-card frame as PNG and adds it to `results`; false after one line on
/// `err` when the card never became stable or the file cannot be written.
bool addSnapshot(CaptureResults& results, const SampleBuffer& firstStable, const std::string& path,
                 std::ostream& err);

}  // namespace kwq::tool

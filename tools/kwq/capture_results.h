#pragma once

// The summary `kwq capture` prints at the end of a run: a table of measures, or the same as
// one JSON object.

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include <kwqimage/CaptureDevice.h>
#include <kwqimage/CaptureSession.h>

#include "kwq/capture_events.h"
#include "kwq/capture_monitor.h"
#include "kwq/capture_options.h"
#include "kwq/json.h"

namespace kwq::tool {

/// The summary, built a line at a time; lines keep the order they were added in.
class CaptureResults {
 public:
  /// A label and text for the table, a key and value for JSON.
  void add(std::string key, std::string label, Json value, std::string text);
  /// A file the run was asked to write: its path, or null and "-" when it was not written.
  void addFile(std::string key, std::string label, const std::string& path, bool written);
  /// The table (measure, value), or with `json` one JSON object on one line.
  void print(std::ostream& out, bool json) const;

 private:
  struct Entry {
    std::string key, label;
    Json value;
    std::string text;
  };
  std::vector<Entry> entries_;
};

/// The run's measures, from the camera's name to the frame step's time: frames, fps, drops,
/// stable cards (card mode) or faces by angle (face mode), metadata rates and latency, codes.
void addMeasures(CaptureResults& results, const CaptureDevice& camera,
                 const CaptureOptions& options, const CaptureMonitor::Summary& s, uint64_t dropped,
                 const MetadataOutputStatistics& meta, const std::map<CodeSeen, uint64_t>& codes);

}  // namespace kwq::tool

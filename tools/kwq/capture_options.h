#pragma once

// `kwq capture`'s options: what a run is asked to do, how the command line spells it, and
// which combinations cannot work.

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <kwqimage/KWQCameraRollHelper.h>

namespace CLI {
class App;
}

namespace kwq::tool {

/// What `kwq capture` runs.
struct CaptureOptions {
  /// Stop after this many frames have gone through the engine's frame step.
  std::optional<uint64_t> frames;
  /// Stop this many seconds after the start. With neither limit: run until Ctrl-C.
  std::optional<double> seconds;
  /// Card mode (card detection, the delegate called on stable-card frames) or face mode.
  bool cardMode = true;
  /// Empty: the default camera (the first webcam, else the synthetic back camera);
  /// "synthetic"; a camera's unique id; or a video file played as a camera. In face mode a
  /// synthetic camera films the portrait scene instead of the card.
  std::string camera;
  /// What a synthetic camera films: "card", "portrait", "empty" or a scene file (.json);
  /// empty: the card in card mode, the portrait in face mode.
  std::string scene;
  /// The code types to read, of "pdf417" and "qr"; none: what the engine reads by default
  /// (PDF417).
  std::optional<std::vector<std::string>> codes;
  /// Record the camera stream with the engine's recorder (recordCameraData).
  bool record = false;
  /// The recorder's codec for this run; raw (uncompressed) by default.
  MovieCodec codec = MovieCodec::Raw;
  /// Where to save the frame on which the card first became stable, as PNG; empty: nowhere.
  std::string snapshot;
  /// Card mode: write the best card capture here (card.png, card.json); empty: nowhere.
  std::string outDir;
  /// Rewrite the progress line in place (a terminal) instead of printing one a second.
  bool liveProgress = false;
  /// Print the summary as one JSON object instead of the table.
  bool json = false;
  /// Write one JSON line per delivered frame here; empty: nowhere.
  std::string events;
  /// At the end of the run, render the preview view (the host's view of the camera with the
  /// engine's overlays) to this PNG; empty: no render. The view is previewWidth x
  /// previewHeight points, also while the run goes (faces are measured in its points).
  std::string preview;
  int previewWidth = 640;
  int previewHeight = 480;
  /// At the end of the run, take a still picture and save it here as PNG; empty: no still.
  std::string still;
  /// Switch between the front and the back camera at this frame.
  std::optional<uint64_t> toggleAt;
  /// Synthetic cameras only: the share of frames with a glare hotspot on the card, and of
  /// seconds filmed in dim light (0..1), so that the glare and too-dark guidance can be seen.
  double glare = 0.0;
  double dim = 0.0;
};

/// The `capture` subcommand of an app: its options and their help. The app keeps pointers into
/// this object, so it stays where it was made until the app has parsed.
class CaptureCommandLine {
 public:
  explicit CaptureCommandLine(CLI::App& app);
  CaptureCommandLine(const CaptureCommandLine&) = delete;
  CaptureCommandLine& operator=(const CaptureCommandLine&) = delete;

  /// Whether the parsed command line named `capture`.
  bool chosen() const;
  /// After the app has parsed: the options given; none after one line on `err` when a value
  /// the parser does not check is malformed (exit 2).
  std::optional<CaptureOptions> options(std::ostream& err) const;

 private:
  CLI::App* command_ = nullptr;
  CaptureOptions options_;
  std::string mode_ = "card";
  std::string previewSize_ = "640x480";
};

/// Whether the options can work together and their output paths can be written; false after
/// one line on `err` (exit 2, before any camera is opened).
bool checkCaptureOptions(const CaptureOptions& options, std::ostream& err);

}  // namespace kwq::tool

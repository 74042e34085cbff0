#include "kwq/capture_options.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <utility>

#include <CLI/CLI.hpp>

namespace kwq::tool {
namespace {

namespace fs = std::filesystem;

// Why a file cannot be written to `path`; empty when it can be tried.
std::string outputPathProblem(const std::string& path) {
  std::error_code ec;
  if (fs::is_directory(path, ec)) return "it is a folder";
  const fs::path parent =
      fs::path(path).parent_path().empty() ? fs::path(".") : fs::path(path).parent_path();
  if (!fs::is_directory(parent, ec)) return "no folder " + parent.string();
  if (::access(parent.c_str(), W_OK) != 0) return "the folder is not writable";
  return {};
}

}  // namespace

CaptureCommandLine::CaptureCommandLine(CLI::App& app) {
  CLI::App* c = command_ = app.add_subcommand(
      "capture",
      "Run the capture engine on a camera (the synthetic one where no webcam is attached), "
      "show progress and print a summary");
  CaptureOptions& o = options_;
  CLI::Option* frames =
      c->add_option("--frames", o.frames, "Stop after N frames")->check(CLI::PositiveNumber);
  c->add_option("--seconds", o.seconds, "Stop after S seconds")
      ->check(CLI::PositiveNumber)
      ->excludes(frames);
  c->add_option("--mode", mode_, "card (card detection, default) or face")
      ->check(CLI::IsMember({"card", "face"}));
  c->add_option("--camera", o.camera, "A camera's unique id, a video file, or synthetic");
  c->add_option(
       "--codes", o.codes,
       "Code types to read: pdf417, qr, mrz (passport and ID card zones), both (pdf417,qr) "
       "or none (default: pdf417)")
      ->delimiter(',')
      ->check(CLI::IsMember({"pdf417", "qr", "mrz", "none"}));
  c->add_option(
      "--scene", o.scene,
      "Synthetic camera: card, turning, portrait, passport, idcard, empty or a scene file "
      "(FILE.json; see README)");
  c->add_flag("--record", o.record,
              "Record the stream with the engine's recorder (uncompressed movie, about 55 MB a "
              "second at 1280x720, unless --codec says otherwise)");
  const std::map<std::string, MovieCodec> codecs{{"raw", MovieCodec::Raw},
                                                 {"h264", MovieCodec::H264Lossless}};
  c->add_option("--codec", o.codec,
                "Recorder codec: raw (uncompressed, default) or h264 (lossless H.264, about a "
                "ninth of the size)")
      ->transform(CLI::CheckedTransformer(codecs, CLI::ignore_case));
  c->add_option("--snapshot", o.snapshot,
                "Save the frame on which the card first became stable (PNG)");
  c->add_flag("--json", o.json, "Print the summary as one JSON object instead of the table");
  c->add_option("--events", o.events, "Write one JSON line per delivered frame to FILE");
  c->add_option("--preview", o.preview,
                "At the end, render the preview view with its overlays (PNG)");
  c->add_option("--preview-size", previewSize_,
                "Size of the preview view in points, WxH (default 640x480)");
  c->add_option("--still", o.still, "At the end, take a still picture and save it (PNG)");
  c->add_option("--toggle-at", o.toggleAt,
                "Switch between the front and the back camera at frame N");
  c->add_option("--out", o.outDir,
                "Write the best captured card to DIR/card.png and DIR/card.json");
  c->add_option("--glare", o.glare,
                "Synthetic camera: share of frames with a glare hotspot on the card (0..1)")
      ->check(CLI::Range(0.0, 1.0));
  c->add_option("--dim", o.dim, "Synthetic camera: share of seconds filmed in dim light (0..1)")
      ->check(CLI::Range(0.0, 1.0));
}

bool CaptureCommandLine::chosen() const {
  return command_->parsed();
}

std::optional<CaptureOptions> CaptureCommandLine::options(std::ostream& err) const {
  CaptureOptions o = options_;
  o.cardMode = mode_ == "card";
  char x = 0, rest = 0;
  if (std::sscanf(previewSize_.c_str(), "%d%c%d%c", &o.previewWidth, &x, &o.previewHeight, &rest) !=
          3 ||
      (x != 'x' && x != 'X')) {
    err << "kwq capture: --preview-size must be WxH, as 640x480\n";
    return std::nullopt;
  }
  // A terminal sees the line rewritten in place; a pipe or file gets a line a second.
  o.liveProgress = ::isatty(STDOUT_FILENO) != 0;
  return o;
}

bool checkCaptureOptions(const CaptureOptions& o, std::ostream& err) {
  if (!o.snapshot.empty() && !o.cardMode) {
    err << "kwq capture: --snapshot saves the first stable-card frame; it needs card mode\n";
    return false;
  }
  if (o.previewWidth < 1 || o.previewHeight < 1 || o.previewWidth > 8192 ||
      o.previewHeight > 8192) {
    err << "kwq capture: --preview-size must be WxH with sides of 1 to 8192\n";
    return false;
  }
  const std::pair<const char*, const std::string*> paths[] = {{"a snapshot", &o.snapshot},
                                                              {"events", &o.events},
                                                              {"a preview", &o.preview},
                                                              {"a still", &o.still}};
  for (const auto& [what, path] : paths) {
    if (path->empty()) continue;
    if (const std::string problem = outputPathProblem(*path); !problem.empty()) {
      err << "kwq capture: cannot write " << what << " to '" << *path << "': " << problem << '\n';
      return false;
    }
  }
  if (!o.outDir.empty() && !o.cardMode) {
    err << "kwq capture: --out writes the captured card; it needs card mode\n";
    return false;
  }
  return true;
}

}  // namespace kwq::tool

// kwq: the command-line face of the library.

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <map>

#include <CLI/CLI.hpp>

#include <kwqimage/kwq_quality.h>
#include "kwq/capture_command.h"
#include "kwq/quality_command.h"
#include "kwq/read_command.h"
#include "kwq/view_command.h"

int main(int argc, char** argv) {
  CLI::App app{"kwq: camera capture and image quality for ID documents and portraits"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "kwq " + std::to_string(KWQImageVersionNumber).substr(0, 3));

  kwq::tool::CaptureOptions capture;
  std::string mode = "card";
  CLI::App* captureCommand = app.add_subcommand(
      "capture",
      "Run the capture engine on a camera (the synthetic one where no webcam is attached), "
      "show progress and print a summary");
  CLI::Option* frames =
      captureCommand->add_option("--frames", capture.frames, "Stop after N frames")
          ->check(CLI::PositiveNumber);
  captureCommand->add_option("--seconds", capture.seconds, "Stop after S seconds")
      ->check(CLI::PositiveNumber)
      ->excludes(frames);
  captureCommand->add_option("--mode", mode, "card (card detection, default) or face")
      ->check(CLI::IsMember({"card", "face"}));
  captureCommand->add_option("--camera", capture.camera,
                             "A camera's unique id, a video file, or synthetic");
  captureCommand->add_flag("--record", capture.record,
                           "Record the stream with the engine's recorder (uncompressed movie, "
                           "about 55 MB a second at 1280x720, unless --codec says otherwise)");
  const std::map<std::string, kwq::MovieCodec> codecs{{"raw", kwq::MovieCodec::Raw},
                                                      {"h264", kwq::MovieCodec::H264Lossless}};
  captureCommand
      ->add_option("--codec", capture.codec,
                   "Recorder codec: raw (uncompressed, default) or h264 (lossless H.264, about a "
                   "ninth of the size)")
      ->transform(CLI::CheckedTransformer(codecs, CLI::ignore_case));
  captureCommand->add_option("--snapshot", capture.snapshot,
                             "Save the frame on which the card first became stable (PNG)");
  captureCommand->add_flag("--json", capture.json,
                           "Print the summary as one JSON object instead of the table");
  captureCommand->add_option("--events", capture.events,
                             "Write one JSON line per delivered frame to FILE");
  captureCommand->add_option("--preview", capture.preview,
                             "At the end, render the preview view with its overlays (PNG)");
  std::string previewSize = "640x480";
  captureCommand->add_option("--preview-size", previewSize,
                             "Size of the preview view in points, WxH (default 640x480)");
  captureCommand->add_option("--still", capture.still,
                             "At the end, take a still picture and save it (PNG)");
  captureCommand->add_option("--toggle-at", capture.toggleAt,
                             "Switch between the front and the back camera at frame N");
  captureCommand->add_option("--out", capture.outDir,
                             "Write the best captured card to DIR/card.png and DIR/card.json");
  captureCommand
      ->add_option("--glare", capture.glare,
                   "Synthetic camera: share of frames with a glare hotspot on the card (0..1)")
      ->check(CLI::Range(0.0, 1.0));
  captureCommand
      ->add_option("--dim", capture.dim,
                   "Synthetic camera: share of seconds filmed in dim light (0..1)")
      ->check(CLI::Range(0.0, 1.0));

  std::vector<std::string> qualityFiles;
  CLI::App* quality = app.add_subcommand(
      "quality",
      "Score the focus and brightness of images (built-in samples when no file is given)");
  quality->add_option("files", qualityFiles, "Image files (PNG, JPEG, ...)");

  std::vector<std::string> readFiles;
  bool readJson = false;
  CLI::App* readCommand = app.add_subcommand(
      "read", "Read the PDF417 and QR codes in image files, at any turn of the symbol");
  readCommand->add_option("files", readFiles, "Image files (PNG, JPEG, ...)")->required();
  readCommand->add_flag("--json", readJson,
                        "One JSON line per file: file, codes (type, text, corners)");

  kwq::tool::ViewOptions view;
  CLI::App* viewCommand = app.add_subcommand(
      "view", "A window with the capture view, a card-stability circle and capture buttons");
  viewCommand->add_option("--seconds", view.seconds, "Quit after S seconds")
      ->check(CLI::PositiveNumber);
  viewCommand->add_option("--screenshot", view.screenshot, "Save the window (PNG) before quitting");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // Help and version exit 0; every usage error exits 2.
    const int code = app.exit(e);
    return code == 0 ? 0 : 2;
  }

  try {
    if (*captureCommand) {
      capture.cardMode = mode == "card";
      char x = 0, rest = 0;
      if (std::sscanf(previewSize.c_str(), "%d%c%d%c", &capture.previewWidth, &x,
                      &capture.previewHeight, &rest) != 3 ||
          (x != 'x' && x != 'X')) {
        std::cerr << "kwq capture: --preview-size must be WxH, as 640x480\n";
        return 2;
      }
      capture.liveProgress = ::isatty(STDOUT_FILENO) != 0;
      return kwq::tool::runCapture(capture, std::cout, std::cerr);
    }
    if (*viewCommand) return kwq::tool::runView(argc, argv, view, std::cout, std::cerr);
    if (*quality) return kwq::tool::runQuality(qualityFiles, std::cout, std::cerr);
    if (*readCommand) return kwq::tool::runRead(readFiles, readJson, std::cout, std::cerr);
  } catch (const std::exception& e) {  // out of memory and the like: one line, not a core
    std::cerr << "kwq: " << e.what() << '\n';
    return 1;
  }
  return 0;
}

// kwq: the command-line face of the library.

#include <iostream>
#include <optional>

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

  kwq::tool::CaptureCommandLine capture(app);

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
    if (capture.chosen()) {
      const std::optional<kwq::tool::CaptureOptions> options = capture.options(std::cerr);
      return options ? kwq::tool::runCapture(*options, std::cout, std::cerr) : 2;
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

// kwq: the command-line face of the library.

#include <iostream>

#include <CLI/CLI.hpp>

#include "kwq/quality_command.h"
#include "kwqimage/kwq_quality.h"

int main(int argc, char** argv) {
  CLI::App app{"kwq: camera capture and image quality for ID documents and portraits"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "kwq " + std::to_string(KWQImageVersionNumber).substr(0, 3));

  std::vector<std::string> qualityFiles;
  CLI::App* quality = app.add_subcommand(
      "quality",
      "Score the focus and brightness of images (built-in samples when no file is given)");
  quality->add_option("files", qualityFiles, "Image files (PNG, JPEG, ...)");

  CLI11_PARSE(app, argc, argv);

  if (*quality) return kwq::tool::runQuality(qualityFiles, std::cout, std::cerr);
  return 0;
}

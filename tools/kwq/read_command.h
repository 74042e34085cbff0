#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace kwq::tool {

/// `kwq read [--json] FILE...`: the PDF417 and QR codes in still image files, read by the same
/// reader as the live engine. As a table, one row per code (file, type, text with control
/// characters escaped, corners); with `json`, one JSON line per file: {"file", "codes": [{"type",
/// "text" (null for binary content), "corners": [[x, y] x 4]}]}, corners in pixels as a code
/// object names them (bottom left, bottom right, top right, top left of the symbol). A file
/// that cannot be read gets one line on `err` and the rest are still read. Returns the exit
/// code: 0, or 1 when any file could not be read.
int runRead(const std::vector<std::string>& files, bool json, std::ostream& out, std::ostream& err);

}  // namespace kwq::tool

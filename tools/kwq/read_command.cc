#include "kwq/read_command.h"

#include <cstdio>
#include <filesystem>

#include <kwqimage/Detectors.h>
#include <kwqimage/Image.h>
#include <kwqimage/MRZ.h>
#include "kwq/json.h"
#include "kwq/mrz_json.h"
#include "kwq/table.h"

namespace kwq::tool {
namespace {

// A text for one table cell: control characters (a licence record's LF, RS and CR) as \xNN.
std::string printable(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7f) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02X", c);
      out += buf;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

std::string number(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.0f", v);
  return buf;
}

const char* shortType(const std::string& type) {
  return type == AVMetadataObjectTypeQRCode ? "qr" : "pdf417";
}

}  // namespace

int runRead(const std::vector<std::string>& files, bool json, std::ostream& out,
            std::ostream& err) {
  Table table({"file", "type", "text", "corners"});
  int status = 0;
  for (const std::string& file : files) {
    const Image image = Image::loadFile(file);
    if (image.isNull()) {
      err << "kwq read: " << file
          << (std::filesystem::exists(file) ? ": not an image this tool can decode"
                                            : ": no such file")
          << '\n';
      status = 1;
      continue;
    }
    const std::vector<DetectedCode> codes = readCodesInImage(image);
    if (json) {
      Json list = Json::array();
      for (const DetectedCode& c : codes) {
        Json corners = Json::array();
        for (const Point& p : c.corners) corners.push(Json::numbers({p.x, p.y}));
        list.push(Json::object()
                      .set("type", shortType(c.type))
                      .set("text", c.text ? Json(*c.text) : Json())
                      .set("corners", std::move(corners)));
      }
      const auto mrz = readMRZ(image);
      Json::object()
          .set("file", file)
          .set("codes", std::move(list))
          .set("mrz", mrz ? mrzJson(*mrz) : Json())
          .write(out);
      out << '\n';
      continue;
    }
    const auto mrz = readMRZ(image);
    if (codes.empty() && !mrz) table.addRow({file, "-", "(no code)", ""});
    if (mrz) {
      std::string text, corners;
      for (const std::string& l : mrz->record.lines) text += (text.empty() ? "" : " / ") + l;
      for (const Point& p : mrz->corners)
        corners += (corners.empty() ? "" : " ") + number(p.x) + "," + number(p.y);
      table.addRow({file, mrz->record.valid ? "mrz" : "mrz (not valid)", text, corners});
    }
    for (const DetectedCode& c : codes) {
      std::string corners;
      for (const Point& p : c.corners) {
        // Not `const char* + std::string&&`: GCC 12 at -O3 raises a false -Wrestrict on it.
        if (!corners.empty()) corners += ' ';
        corners += number(p.x) + "," + number(p.y);
      }
      table.addRow({file, shortType(c.type), c.text ? printable(*c.text) : "(binary)", corners});
    }
  }
  if (!json) {
    table.alignLeft();
    table.print(out);
  }
  return status;
}

}  // namespace kwq::tool

#include "kwq/card_output.h"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>

namespace kwq::tool {
namespace {

namespace fs = std::filesystem;

std::string quoted(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char esc[8];
          std::snprintf(esc, sizeof esc, "\\u%04x", c);
          out += esc;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string num(double v) {
  if (!std::isfinite(v)) return "null";
  char s[32];
  std::snprintf(s, sizeof s, "%.6g", v);
  return s;
}

std::string point(Point p) {
  return "[" + num(p.x) + ", " + num(p.y) + "]";
}

std::string corners(const CardCapture& c) {
  if (c.guidance == CardGuidance::NoCard) return "null";
  std::string s = "[";
  for (size_t i = 0; i < 4; ++i) s += (i ? ", " : "") + point(c.corners[i]);
  return s + "]";
}

std::string aamvaJson(const AAMVARecord& a) {
  std::string s = "{";
  auto field = [&s](const char* name, const std::string& value) {
    if (value.empty()) return;
    if (s.size() > 1) s += ", ";
    s += quoted(name) + ": " + quoted(value);
  };
  field("iin", a.issuerIdentificationNumber);
  field("aamva_version", std::to_string(a.aamvaVersion));
  field("jurisdiction_version", std::to_string(a.jurisdictionVersion));
  field("document_type", a.documentType);
  field("family_name", a.familyName);
  field("given_name", a.givenName);
  field("middle_name", a.middleName);
  field("customer_id", a.customerId);
  field("document_discriminator", a.documentDiscriminator);
  field("street", a.street);
  field("city", a.city);
  field("jurisdiction", a.jurisdiction);
  field("postal_code", a.postalCode);
  field("country", a.country);
  field("vehicle_class", a.vehicleClass);
  field("height", a.height);
  field("eye_color", a.eyeColor);
  static const char* kSex[] = {"", "male", "female"};
  if (a.sex == AAMVASex::Male || a.sex == AAMVASex::Female)
    field("sex", kSex[static_cast<int>(a.sex)]);
  else if (a.sex == AAMVASex::NotSpecified)
    field("sex", "not_specified");
  if (a.dateOfBirth) field("date_of_birth", formatAAMVADate(*a.dateOfBirth));
  if (a.expirationDate) field("expiration_date", formatAAMVADate(*a.expirationDate));
  if (a.issueDate) field("issue_date", formatAAMVADate(*a.issueDate));
  return s + "}";
}

}  // namespace

std::string cardCaptureJson(const CardCapture& c) {
  std::string reasons = "[";
  for (size_t i = 0; i < c.reasons.size(); ++i) reasons += (i ? ", " : "") + quoted(c.reasons[i]);
  reasons += "]";
  std::string s = "{\n";
  s += "  \"guidance\": " + quoted(cardGuidanceName(c.guidance)) + ",\n";
  s += "  \"reasons\": " + reasons + ",\n";
  s += "  \"sharpness\": " + num(c.sharpness) + ",\n";
  s += "  \"brightness\": " + num(c.brightness) + ",\n";
  s += "  \"glare\": {\"area_fraction\": " + num(c.glare.areaFraction) +
       ", \"centre\": " + point(c.glare.centre) + ", \"box\": [" + num(c.glare.box.origin.x) +
       ", " + num(c.glare.box.origin.y) + ", " + num(c.glare.box.size.width) + ", " +
       num(c.glare.box.size.height) + "]},\n";
  s += "  \"code_text\": " + (c.codeText ? quoted(*c.codeText) : std::string("null")) + ",\n";
  s += "  \"aamva\": " + (c.aamva ? aamvaJson(*c.aamva) : std::string("null")) + ",\n";
  s += "  \"corners\": " + corners(c) + ",\n";
  s += "  \"frame_size\": [" + num(c.frameSize.width) + ", " + num(c.frameSize.height) + "],\n";
  s += "  \"card_size\": [" + std::to_string(c.card.width()) + ", " +
       std::to_string(c.card.height()) + "],\n";
  s += "  \"time\": " + num(c.time) + "\n}\n";
  return s;
}

CardOutput::CardOutput(std::shared_ptr<KWQFrameDelegate> frames, bool keepFrames)
    : frames_(std::move(frames)), keepFrames_(keepFrames) {}

void CardOutput::getLastSampleBuffer(const SampleBuffer& sample, Rect rect, double yaw, double roll,
                                     const std::optional<std::string>& code) {
  if (frames_) frames_->getLastSampleBuffer(sample, rect, yaw, roll, code);
}

void CardOutput::cardCaptureDidUpdate(const CardCapture& live, const CardCapture& best) {
  guidance_ = live.guidance;
  started_ = true;
  std::lock_guard lock(mutex_);
  best_ = best;
  if (keepFrames_) {
    lines_.push_back(
        "{\"time\": " + num(live.time) +
        ", \"guidance\": " + quoted(cardGuidanceName(live.guidance)) +
        ", \"sharpness\": " + num(live.sharpness) + ", \"brightness\": " + num(live.brightness) +
        ", \"glare\": " + num(live.glare.areaFraction) + ", \"corners\": " + corners(live) + "}");
  }
}

std::string CardOutput::guidance() const {
  return started_ ? cardGuidanceName(guidance_) : "-";
}

bool CardOutput::write(const std::string& dir, std::ostream& err) const {
  CardCapture best;
  {
    std::lock_guard lock(mutex_);
    best = best_;
  }
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) {
    err << "kwq capture: cannot create " << dir << ": " << ec.message() << '\n';
    return false;
  }
  if (best.card.isNull()) {
    err << "kwq capture: no card was captured; no card.png written\n";
  } else if (!best.card.writePNG((fs::path(dir) / "card.png").string())) {
    err << "kwq capture: cannot write " << (fs::path(dir) / "card.png").string() << '\n';
    return false;
  }
  std::ofstream json(fs::path(dir) / "card.json");
  json << cardCaptureJson(best);
  if (!json) {
    err << "kwq capture: cannot write " << (fs::path(dir) / "card.json").string() << '\n';
    return false;
  }
  return !best.card.isNull();
}

bool CardOutput::writeFrames(const std::string& path, std::ostream& err) const {
  std::ofstream out(path);
  std::lock_guard lock(mutex_);
  for (const std::string& line : lines_) out << line << '\n';
  if (!out) err << "kwq capture: cannot write " << path << '\n';
  return static_cast<bool>(out);
}

}  // namespace kwq::tool

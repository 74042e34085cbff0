#include "kwq/card_output.h"

#include <filesystem>
#include <fstream>

#include "kwq/json.h"

namespace kwq::tool {
namespace {

namespace fs = std::filesystem;

Json point(Point p) {
  return Json::numbers({p.x, p.y});
}

Json corners(const CardCapture& c) {
  if (c.guidance == CardGuidance::NoCard) return Json();
  Json all = Json::array();
  for (const Point& p : c.corners) all.push(point(p));
  return all;
}

Json aamvaJson(const AAMVARecord& a) {
  Json o = Json::object();
  auto text = [&o](const char* name, const std::string& value) {
    if (!value.empty()) o.set(name, value);
  };
  text("iin", a.issuerIdentificationNumber);
  o.set("aamva_version", a.aamvaVersion);
  o.set("jurisdiction_version", a.jurisdictionVersion);
  text("document_type", a.documentType);
  text("family_name", a.familyName);
  text("given_name", a.givenName);
  text("middle_name", a.middleName);
  text("customer_id", a.customerId);
  text("document_discriminator", a.documentDiscriminator);
  text("street", a.street);
  text("city", a.city);
  text("jurisdiction", a.jurisdiction);
  text("postal_code", a.postalCode);
  text("country", a.country);
  text("vehicle_class", a.vehicleClass);
  text("height", a.height);
  text("eye_color", a.eyeColor);
  if (a.sex == AAMVASex::Male) o.set("sex", "male");
  if (a.sex == AAMVASex::Female) o.set("sex", "female");
  if (a.sex == AAMVASex::NotSpecified) o.set("sex", "not_specified");
  if (a.dateOfBirth) o.set("date_of_birth", formatAAMVADate(*a.dateOfBirth));
  if (a.expirationDate) o.set("expiration_date", formatAAMVADate(*a.expirationDate));
  if (a.issueDate) o.set("issue_date", formatAAMVADate(*a.issueDate));
  return o;
}

}  // namespace

std::string cardCaptureJson(const CardCapture& c) {
  Json reasons = Json::array();
  for (const std::string& r : c.reasons) reasons.push(r);
  const Rect& box = c.glare.box;
  Json json = Json::object()
                  .set("guidance", cardGuidanceName(c.guidance))
                  .set("reasons", std::move(reasons))
                  .set("sharpness", c.sharpness)
                  .set("brightness", c.brightness)
                  .set("glare", Json::object()
                                    .set("area_fraction", c.glare.areaFraction)
                                    .set("centre", point(c.glare.centre))
                                    .set("box", Json::numbers({box.origin.x, box.origin.y,
                                                               box.size.width, box.size.height})))
                  .set("code_text", c.codeText ? Json(*c.codeText) : Json())
                  .set("aamva", c.aamva ? aamvaJson(*c.aamva) : Json())
                  .set("corners", corners(c))
                  .set("frame_size", Json::numbers({c.frameSize.width, c.frameSize.height}))
                  .set("card_size", Json::numbers({static_cast<double>(c.card.width()),
                                                   static_cast<double>(c.card.height())}))
                  .set("time", c.time);
  return json.dump(JsonLayout::Lines) + "\n";
}

CardOutput::CardOutput(std::shared_ptr<KWQFrameDelegate> frames, bool keepFrames)
    : frames_(std::move(frames)), keepFrames_(keepFrames) {}

void CardOutput::getLastSampleBuffer(const SampleBuffer& sample, Rect rect, double yaw, double roll,
                                     const std::optional<std::string>& code) {
  if (frames_) frames_->getLastSampleBuffer(sample, rect, yaw, roll, code);
}

void CardOutput::getNewStillImage(const Image& image) {
  // The engine hands stills to its one delegate; without this a run with card captures
  // would never see the still it asked for.
  if (auto* still = dynamic_cast<KWQStillImageDelegate*>(frames_.get()))
    still->getNewStillImage(image);
}

void CardOutput::cardCaptureDidUpdate(const CardCapture& live, const CardCapture& best) {
  guidance_ = live.guidance;
  started_ = true;
  std::lock_guard lock(mutex_);
  best_ = best;
  if (keepFrames_) {
    lines_.push_back(Json::object()
                         .set("time", live.time)
                         .set("guidance", cardGuidanceName(live.guidance))
                         .set("sharpness", live.sharpness)
                         .set("brightness", live.brightness)
                         .set("glare", live.glare.areaFraction)
                         .set("corners", corners(live))
                         .dump(JsonLayout::Spaced));
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

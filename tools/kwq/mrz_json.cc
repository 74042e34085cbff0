#include "kwq/mrz_json.h"

namespace kwq::tool {
namespace {

Json date(const std::optional<MRZDate>& d) {
  return d ? Json(formatMRZDate(*d)) : Json();
}

}  // namespace

Json mrzJson(const MRZReading& reading) {
  const MRZRecord& r = reading.record;
  Json lines = Json::array();
  for (const std::string& l : r.lines) lines.push(l);
  Json checks = Json::object();
  for (const MRZCheck& c : r.checks) checks.set(c.field, c.ok);
  Json corrected = Json::array();
  for (const MRZCorrection& c : r.corrected)
    corrected.push(Json::object()
                       .set("line", c.line)
                       .set("column", c.column)
                       .set("from", std::string(1, c.from))
                       .set("to", std::string(1, c.to))
                       .set("field", c.field));
  Json corners = Json::array();
  for (const Point& p : reading.corners) corners.push(Json::numbers({p.x, p.y}));
  std::string optional = r.optionalData;
  if (!r.optionalData2.empty()) optional += (optional.empty() ? "" : " ") + r.optionalData2;
  return Json::object()
      .set("valid", r.valid)
      .set("format", mrzFormatName(r.format))
      .set("lines", std::move(lines))
      .set("document_code", r.documentCode)
      .set("issuing_state", r.issuingState)
      .set("surname", r.surname)
      .set("given_names", r.givenNames)
      .set("document_number", r.documentNumber)
      .set("nationality", r.nationality)
      .set("birth_date", date(r.birthDate))
      .set("sex", std::string(1, r.sex))
      .set("expiry_date", date(r.expiryDate))
      .set("optional_data", optional)
      .set("checks", std::move(checks))
      .set("corrected", std::move(corrected))
      .set("corners", std::move(corners));
}

}  // namespace kwq::tool

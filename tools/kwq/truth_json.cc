#include "kwq/truth_json.h"

#include <cmath>

namespace kwq::tool {
namespace {

// Pixel positions to a hundredth: truth is sub-pixel, and more digits only lengthen the lines.
double round2(double v) {
  return std::round(v * 100.0) / 100.0;
}

Json corners(const std::array<Point, 4>& c) {
  Json list = Json::array();
  for (const Point& p : c) list.push(Json::numbers({round2(p.x), round2(p.y)}));
  return list;
}

}  // namespace

Json truthJson(const SyntheticFrameTruth& truth) {
  Json props = Json::array();
  for (const SyntheticPropTruth& p : truth.props) {
    Json codes = Json::array();
    for (const SyntheticCodeTruth& c : p.codes)
      codes.push(Json::object()
                     .set("type", syntheticCodeTypeName(c.type))
                     .set("text", c.text)
                     .set("corners", corners(c.corners)));
    Json face;
    if (p.face)
      face =
          Json::object()
              .set("box",
                   Json::numbers({round2(p.face->box.origin.x), round2(p.face->box.origin.y),
                                  round2(p.face->box.size.width), round2(p.face->box.size.height)}))
              .set("roll", round2(p.face->rollDegrees))
              .set("whole", p.face->fullyVisible);
    Json mrz;
    if (p.mrz)
      mrz = Json::object()
                .set("text", p.mrz->text)
                .set("corners", corners(p.mrz->corners))
                .set("whole", p.mrz->fullyVisible)
                .set("character_height", round2(p.mrz->characterHeight));
    props.push(Json::object()
                   .set("kind", syntheticPropKindName(p.kind))
                   .set("name", p.name)
                   .set("corners", corners(p.corners))
                   .set("whole", p.fullyVisible)
                   .set("tilt", round2(p.tiltDegrees))
                   .set("roll", round2(p.rollDegrees))
                   .set("codes", std::move(codes))
                   .set("face", std::move(face))
                   .set("mrz", std::move(mrz))
                   .set("glare", p.glareRadius > 0.0 ? Json::numbers({round2(p.glareCentre.x),
                                                                      round2(p.glareCentre.y),
                                                                      round2(p.glareRadius)})
                                                     : Json()));
  }
  return Json::object().set("props", std::move(props)).set("exposure", round2(truth.exposure));
}

}  // namespace kwq::tool

// Scene presets and the scene file format.

#include <nlohmann/json.hpp>

#include <fstream>
#include <iterator>
#include <sstream>

#include "kwqimage/SyntheticScene.h"

namespace kwq {
namespace {

using nlohmann::json;

// Reads JSON values into scene fields, naming the first key that does not fit.
class Reader {
 public:
  explicit Reader(std::string* error) : error_(error) {}
  bool ok() const { return ok_; }

  void fail(const std::string& where, const std::string& what) {
    if (ok_ && error_) *error_ = where + ": " + what;
    ok_ = false;
  }

  void number(const json& o, const char* key, const std::string& where, double& out) {
    const auto it = o.find(key);
    if (it == o.end()) return;
    if (!it->is_number()) return fail(where + "." + key, "expected a number");
    out = it->get<double>();
  }

  void point(const json& o, const char* key, const std::string& where, Point& out) {
    const auto it = o.find(key);
    if (it == o.end()) return;
    if (!it->is_array() || it->size() != 2 || !(*it)[0].is_number() || !(*it)[1].is_number())
      return fail(where + "." + key, "expected [x, y]");
    out = {(*it)[0].get<double>(), (*it)[1].get<double>()};
  }

  void rect(const json& o, const char* key, const std::string& where, Rect& out, bool square) {
    const auto it = o.find(key);
    if (it == o.end()) return;
    const size_t n = square ? 3 : 4;
    bool numbers = it->is_array() && it->size() == n;
    for (size_t i = 0; numbers && i < n; ++i) numbers = (*it)[i].is_number();
    if (!numbers)
      return fail(where + "." + key,
                  square ? "expected [x, y, side]" : "expected [x, y, width, height]");
    const double x = (*it)[0].get<double>(), y = (*it)[1].get<double>();
    const double w = (*it)[2].get<double>(), h = square ? w : (*it)[3].get<double>();
    out = {{x, y}, {w, h}};
  }

  void text(const json& o, const char* key, const std::string& where, std::string& out) {
    const auto it = o.find(key);
    if (it == o.end()) return;
    if (it->is_null()) {
      out.clear();
      return;
    }
    if (!it->is_string()) return fail(where + "." + key, "expected a string");
    out = it->get<std::string>();
  }

  // A string key that must be one of `names`; returns its index, or `fallback` when absent.
  template <size_t N>
  int choice(const json& o, const char* key, const std::string& where,
             const char* const (&names)[N], int fallback) {
    const auto it = o.find(key);
    if (it == o.end()) return fallback;
    if (it->is_string()) {
      const std::string v = it->get<std::string>();
      for (size_t i = 0; i < N; ++i)
        if (v == names[i]) return static_cast<int>(i);
    }
    std::string list;
    for (size_t i = 0; i < N; ++i) list += (i ? ", " : "") + std::string("\"") + names[i] + "\"";
    fail(where + "." + key, "expected one of " + list);
    return fallback;
  }

  void only(const json& o, const std::string& where, std::initializer_list<const char*> keys) {
    if (!o.is_object()) return fail(where, "expected an object");
    for (const auto& item : o.items()) {
      bool known = false;
      for (const char* k : keys) known = known || item.key() == k;
      if (!known) return fail(where + "." + item.key(), "unknown key");
    }
  }

 private:
  std::string* error_;
  bool ok_ = true;
};

const char* const kMotionKinds[] = {"handheld", "sway", "pan",   "approach",
                                    "turn",     "tilt", "shake", "leave"};
const char* const kSides[] = {"left", "right", "up", "down"};
const char* const kPropKinds[] = {"card", "portrait", "sticker", "passport", "idcard"};
const char* const kCodeTypes[] = {"pdf417", "qr"};
const char* const kBackgrounds[] = {"desk", "wall"};

SyntheticMotion readMotion(Reader& r, const json& o, const std::string& where) {
  SyntheticMotion m;
  r.only(o, where,
         {"kind", "period", "amount", "amount2", "to", "start", "duration", "side", "seed"});
  if (!r.ok()) return m;
  if (!o.contains("kind")) r.fail(where + ".kind", "missing");
  m.kind = static_cast<SyntheticMotion::Kind>(r.choice(o, "kind", where, kMotionKinds, 0));
  r.number(o, "period", where, m.period);
  r.number(o, "amount", where, m.amount);
  r.number(o, "amount2", where, m.amount2);
  r.point(o, "to", where, m.to);
  r.number(o, "start", where, m.start);
  r.number(o, "duration", where, m.duration);
  m.side = static_cast<SyntheticMotion::Side>(r.choice(o, "side", where, kSides, 1));
  if (const auto it = o.find("seed"); it != o.end()) {
    if (!it->is_number_unsigned()) return r.fail(where + ".seed", "expected a whole number"), m;
    m.seed = it->get<uint64_t>();
  }
  return m;
}

SyntheticProp readProp(Reader& r, const json& o, const std::string& where) {
  SyntheticProp p;
  r.only(o, where,
         {"kind", "name", "code", "code_type", "photo", "photo_face", "photo_roll", "photo_crop",
          "mrz", "at", "size", "roll", "yaw", "pitch", "motion"});
  if (!r.ok()) return p;
  if (!o.contains("kind")) r.fail(where + ".kind", "missing");
  p.kind = static_cast<SyntheticPropKind>(r.choice(o, "kind", where, kPropKinds, 0));
  if (p.kind == SyntheticPropKind::Portrait) p.size = 0.12;
  r.text(o, "name", where, p.name);
  r.text(o, "code", where, p.codeText);
  r.text(o, "mrz", where, p.mrzText);
  p.codeType = static_cast<SyntheticCodeType>(r.choice(o, "code_type", where, kCodeTypes, 0));
  r.text(o, "photo", where, p.photoPath);
  r.rect(o, "photo_face", where, p.photoFace, true);
  r.number(o, "photo_roll", where, p.photoRollDegrees);
  r.rect(o, "photo_crop", where, p.photoCrop, false);
  r.point(o, "at", where, p.at);
  r.number(o, "size", where, p.size);
  r.number(o, "roll", where, p.rollDegrees);
  r.number(o, "yaw", where, p.yawDegrees);
  r.number(o, "pitch", where, p.pitchDegrees);
  if (const auto it = o.find("motion"); it != o.end()) {
    if (!it->is_array()) return r.fail(where + ".motion", "expected a list"), p;
    for (size_t i = 0; i < it->size() && r.ok(); ++i)
      p.motion.push_back(readMotion(r, (*it)[i], where + ".motion[" + std::to_string(i) + "]"));
  }
  return p;
}

}  // namespace

const char* syntheticPropKindName(SyntheticPropKind kind) {
  const size_t k = static_cast<size_t>(kind);
  return k < std::size(kPropKinds) ? kPropKinds[k] : "prop";
}

const char* syntheticCodeTypeName(SyntheticCodeType type) {
  return type == SyntheticCodeType::QR ? "QR" : "PDF417";
}

SyntheticScene SyntheticScene::card(std::string codeText) {
  SyntheticScene scene;
  SyntheticProp card;
  card.codeText = std::move(codeText);
  card.motion.push_back({.kind = SyntheticMotion::Kind::Handheld});
  scene.props.push_back(std::move(card));
  return scene;
}

SyntheticScene SyntheticScene::portrait() {
  SyntheticScene scene;
  SyntheticProp person;
  person.kind = SyntheticPropKind::Portrait;
  person.motion.push_back({.kind = SyntheticMotion::Kind::Sway});
  scene.props.push_back(std::move(person));
  return scene;
}

SyntheticScene SyntheticScene::turningCard(std::string codeText) {
  using K = SyntheticMotion::Kind;
  SyntheticScene scene;
  SyntheticProp card;
  card.codeText = std::move(codeText);
  card.size = 0.42;
  card.motion = {{.kind = K::Turn, .period = 12.0, .amount = 45.0},
                 {.kind = K::Tilt, .period = 7.0, .amount = 12.0, .amount2 = 8.0},
                 {.kind = K::Pan, .period = 9.0, .to = {0.46, 0.54}},
                 {.kind = K::Shake, .amount = 0.004}};
  scene.props.push_back(std::move(card));
  return scene;
}

SyntheticScene SyntheticScene::document(bool idCard) {
  SyntheticScene scene;
  SyntheticProp doc;
  doc.kind = idCard ? SyntheticPropKind::IdCardBack : SyntheticPropKind::Passport;
  doc.codeText.clear();
  doc.motion.push_back({.kind = SyntheticMotion::Kind::Handheld});
  scene.props.push_back(std::move(doc));
  scene.light = {.exposureDrift = 0.1, .dimProbability = 0.1, .glareProbability = 0.1};
  scene.blurSigma = 0.5;
  scene.noiseSigma = 2.0;
  return scene;
}

std::optional<SyntheticScene> SyntheticScene::preset(std::string_view name) {
  if (name == "passport") return document(false);
  if (name == "idcard") return document(true);
  if (name == "card") return card();
  if (name == "turning") return turningCard();
  if (name == "portrait") return portrait();
  if (name == "empty") return SyntheticScene{};
  return std::nullopt;
}

std::optional<SyntheticScene> syntheticSceneFromJson(std::string_view text, std::string* error) {
  const json o = json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (o.is_discarded()) {
    if (error) *error = "not JSON";
    return std::nullopt;
  }
  Reader r(error);
  r.only(o, "scene", {"preset", "background", "seed", "blur", "noise", "light", "props"});
  if (!r.ok()) return std::nullopt;
  SyntheticScene scene;
  if (const auto it = o.find("preset"); it != o.end()) {
    const auto preset =
        it->is_string() ? SyntheticScene::preset(it->get<std::string>()) : std::nullopt;
    if (!preset) {
      r.fail("scene.preset",
             "expected \"card\", \"turning\", \"portrait\", \"passport\", \"idcard\" or "
             "\"empty\"");
      return std::nullopt;
    }
    scene = *preset;
  }
  scene.background = static_cast<SyntheticScene::Background>(
      r.choice(o, "background", "scene", kBackgrounds, static_cast<int>(scene.background)));
  if (const auto it = o.find("seed"); it != o.end()) {
    if (!it->is_number_unsigned())
      r.fail("scene.seed", "expected a whole number");
    else
      scene.seed = it->get<uint64_t>();
  }
  r.number(o, "blur", "scene", scene.blurSigma);
  r.number(o, "noise", "scene", scene.noiseSigma);
  if (const auto it = o.find("light"); it != o.end() && r.ok()) {
    r.only(*it, "scene.light", {"drift", "dim", "glare"});
    if (r.ok()) {
      r.number(*it, "drift", "scene.light", scene.light.exposureDrift);
      r.number(*it, "dim", "scene.light", scene.light.dimProbability);
      r.number(*it, "glare", "scene.light", scene.light.glareProbability);
    }
  }
  if (const auto it = o.find("props"); it != o.end() && r.ok()) {
    if (!it->is_array()) {
      r.fail("scene.props", "expected a list");
    } else {
      scene.props.clear();
      for (size_t i = 0; i < it->size() && r.ok(); ++i)
        scene.props.push_back(readProp(r, (*it)[i], "scene.props[" + std::to_string(i) + "]"));
    }
  }
  if (!r.ok()) return std::nullopt;
  return scene;
}

std::optional<SyntheticScene> syntheticSceneFromFile(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (error) *error = path + ": cannot be read";
    return std::nullopt;
  }
  std::ostringstream text;
  text << in.rdbuf();
  auto scene = syntheticSceneFromJson(text.str(), error);
  if (!scene && error) *error = path + ": " + *error;
  return scene;
}

}  // namespace kwq
